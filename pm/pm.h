// Power management and battery: the controller's messages, its status,
// the battery gauge and the charger test.
#ifndef HX_PM_PM_H
#define HX_PM_PM_H

struct json_object;

// "wakeup" sends message 21, "sleep" message 23 with -1: 0 when the
// controller accepts, -1 otherwise and for NULL or any other action.
int pm_process_action(const char *action);
// Sends the stored sleep_timeout (message 22): 0, or -1 when the key is
// missing, does not parse or the controller refuses.
int pm_set_sleep_timeout();
// The same, but 0 also when the controller refuses.
int set_sleeptimeout();

const char *info_pmd_status(json_object *name, json_object *infos, void *context);
const char *info_sleep_timeout(json_object *name, json_object *infos, void *context);
const char *info_bat_cap(json_object *name, json_object *infos, void *context);
const char *info_bat_charging(json_object *name, json_object *infos, void *context);

const char *_revalidate_pmd(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_sleepTimeout(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_chargerTest(json_object *value, json_object *reply_arguments, void *deferred);

#endif

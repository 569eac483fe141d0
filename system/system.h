// The web server's configuration, the system actions (firmware upgrade,
// reboot, power-off, factory default) and the media services' wrappers.
#ifndef HX_SYSTEM_H
#define HX_SYSTEM_H

#include <array>

struct json_object;

int httpd_start();
int httpd_stop();
int httpd_restart();

void do_safeReboot(int delay_seconds);
void do_poweroff();
int do_factoryDefault();
int fw_upgrade(int set_defaults);
// The seven texts, in the order serverip, bootloader, kernel, jffs2, opt,
// rootfs, subfolder; a null one is absent.  0 when the script's command
// ran and returned 0, else -1.
int firmware_upgrade(const std::array<const char *, 7> &parts);

const char *_revalidate_httpd(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_fwUpgrade(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_firmwareUpgrade(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_factoryDefault(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_reboot(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_poweroff(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_webdav(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_dlna(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_samba(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_fm(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_usbCharger(json_object *value, json_object *reply_arguments, void *deferred);

#endif

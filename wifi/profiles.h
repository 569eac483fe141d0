// The two saved hotspot profiles.
#ifndef HX_WIFI_PROFILES_H
#define HX_WIFI_PROFILES_H

struct json_object;

int gw_profiles_set(void);
int gw_profiles_forget(struct json_object *essids);
int profile_set(void);
int profile_forget(const char *essid_text);
int profiles_forget_all(void);
int gw_wan_status_check(const char *essid_text);
const char *_revalidate_apProfiles(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif

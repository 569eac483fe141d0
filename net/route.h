// Static routes, the system clock and the firewall switch.
#ifndef HX_NET_ROUTE_H
#define HX_NET_ROUTE_H

struct json_object;

// Forward jump of the clock at the last "datetime" set, recorded only from
// 172801 s on; 0 until then.
extern long dtime;
int setSystime(long seconds);
int fw_start();
int fw_stop();
int fw_restart();
const char *_revalidate_staticRoute(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_datetime(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_firewall(json_object *value, json_object *reply_arguments, void *deferred);

#endif

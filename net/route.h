// Static routes, the system clock and the firewall switch.
#ifndef HX_NET_ROUTE_H
#define HX_NET_ROUTE_H

struct json_object;

extern long dtime;	/* forward clock jump of the last "datetime" set, >= 172801 s */
int setSystime(long seconds);
int fw_start(void);
int fw_stop(void);
int fw_restart(void);
const char *_revalidate_staticRoute(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_datetime(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_firewall(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif

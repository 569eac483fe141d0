// The UPnP port-mapping service (miniupnpd).
#ifndef HX_NET_UPNP_H
#define HX_NET_UPNP_H

struct json_object;

int upnp_renewConf(void);
int upnp_start(void);
int upnp_stop(void);
int upnp_restart(void);
const char *_revalidate_upnp(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif

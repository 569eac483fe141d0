// The UPnP port-mapping service (miniupnpd).
#ifndef HX_NET_UPNP_H
#define HX_NET_UPNP_H

struct json_object;

int upnp_renewConf();
int upnp_start();
int upnp_stop();
int upnp_restart();
const char *_revalidate_upnp(json_object *value, json_object *reply_arguments, void *deferred);

#endif

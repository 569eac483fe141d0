// The network services as the rest of the daemon sees them.
#ifndef HX_NET_NET_H
#define HX_NET_NET_H

#include "net/dhcp.h"
#include "net/ifstat.h"
#include "net/lanwan.h"
#include "net/route.h"
#include "net/upnp.h"

#endif

// The Wi-Fi subsystem as the rest of the daemon sees it.
#ifndef HX_WIFI_WIFI_H
#define HX_WIFI_WIFI_H

#include "wifi/ap.h"
#include "wifi/profiles.h"
#include "wifi/scan.h"
#include "wifi/sta.h"
#include "wifi/wpacli.h"

#endif

// The lines of "/sbin/uaputl.exe sta_list" through wl_staListParseLine, one
// list for the whole input so that the 32-station bound is reached.
#include <string.h>

#include "fuzz/fuzzutil.h"
#include "wifi/ap.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	wl_sta_list list{};
	hx::fuzz::each_line(hx::fuzz::text({data, size}),
			    [&](std::string_view line) { wl_staListParseLine(line, &list); });
	if (list.count < 0 || list.count > WL_STA_MAX)
		hx::fuzz::fail("a station count out of bounds");
	for (const wl_sta &sta : std::span(list.sta).first(static_cast<size_t>(list.count)))
		if (strnlen(sta.mac, sizeof(sta.mac)) == sizeof(sta.mac) ||
		    strnlen(sta.rssi, sizeof(sta.rssi)) == sizeof(sta.rssi))
			hx::fuzz::fail("a station field without its terminator");
	return 0;
}

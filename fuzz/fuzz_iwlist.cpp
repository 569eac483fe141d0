// "iwlist mlan0 scan" output through the scan parser: read as the scan
// thread reads it (whole lines of the 256-byte buffer), then each line of
// any length.  The list keeps at most 64 cells, each with an SSID of at
// most 32 bytes and a BSSID that is empty or a MAC address.
#include "fuzz/fuzzutil.h"
#include "wifi/lines.h"
#include "wifi/scan.h"

namespace {

using hx::wifi::parse_scan_line;
using hx::wifi::ScanList;

void check(const ScanList &list)
{
	if (list.cells.size() > hx::wifi::scan_cell_max)
		hx::fuzz::fail("more cells than the list keeps");
	for (const hx::wifi::ScanCell &cell : list.cells) {
		if (cell.ssid.size() > 32)
			hx::fuzz::fail("an SSID longer than 32 bytes");
		if (!cell.bssid.empty() && (cell.bssid.size() != 17 || !hx::wifi::is_mac_prefix(cell.bssid)))
			hx::fuzz::fail("a BSSID that is no MAC address");
	}
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hx::fuzz::Bytes input(data, size);
	ScanList read, split;
	hx::wifi::each_line(hx::fuzz::stream(input).get(),
			    [&](std::string_view line) { parse_scan_line(line, read); });
	check(read);
	hx::fuzz::each_line(hx::fuzz::text(input),
			    [&](std::string_view line) { parse_scan_line(line, split); });
	check(split);
	return 0;
}

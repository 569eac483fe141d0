// The country table through the access point's channel-count lookup.  The
// input is "COUNTRY\nTABLE": the text before a newline among the first 16
// bytes is the country looked up, the rest the table file; without such a
// newline the country is empty and the whole input is the table.
#include <algorithm>
#include <string>

#include "fuzz/fuzzutil.h"
#include "wifi/ap.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static hx::fuzz::MemFile table("80211d_domain.conf");
	hx::fuzz::Bytes input(data, size);
	std::string_view head = hx::fuzz::text(input.first(std::min<size_t>(size, 16)));
	size_t newline = head.find('\n');
	std::string country;
	if (newline != std::string_view::npos) {
		country = head.substr(0, newline);
		input = input.subspan(newline + 1);
	}
	table.set(input);
	hx::wifi::country_channel_count(table.path(), country);
	return 0;
}

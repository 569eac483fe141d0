// The lines of dnsmasq's lease file through the s_dhcpleases line parser,
// read as the item reads them (fgets into 4096 bytes); the array built must
// render as JSON that parses back.
#include <stdio.h>

#include "core/json.h"
#include "fuzz/fuzzutil.h"
#include "ipc/info_parse.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hx::json::Ptr array(json_object_new_array());
	if (!array)
		return 0;
	hx::FilePtr file = hx::fuzz::stream({data, size});
	char line[4096];
	while (fgets(line, sizeof(line), file.get()) != nullptr &&
	       hx::ipc::lease_line(line, array.get()))
		;
	if (!hx::json::parse(json_object_to_json_string(array.get())))
		hx::fuzz::fail("the lease array does not render as JSON");
	return 0;
}

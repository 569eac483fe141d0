// One request text through the daemon's dispatch: every method, status item
// and revalidate target.  Runs only inside the device sandbox (fuzz/run),
// with the seam in place of the shell.
#include <event.h>

#include <string>

#include "core/json.h"
#include "core/server.h"
#include "fuzz/fuzzutil.h"
#include "fuzz/seam.h"
#include "ipc/ipc.h"

namespace {

// A reply must render as JSON that parses back to an object.
void check_reply(json_object *reply, void *)
{
	hx::json::Ptr parsed = hx::json::parse(json_object_to_json_string(reply));
	if (!hx::json::is(parsed.get(), json_type_object))
		hx::fuzz::fail("a reply that is not a JSON object");
}

}  // namespace

// As the daemon starts: the event base, the connection server, the indexes.
int LLVMFuzzerInitialize(int *, char ***)
{
	hx::fuzz::require_sandbox("fuzz_request");
	server_init(event_init());
	ipc_init();
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string text(hx::fuzz::text({data, size}));
	ipc_request_exec_json(text.c_str(), static_cast<ssize_t>(text.size()), check_reply, nullptr);
	return 0;
}

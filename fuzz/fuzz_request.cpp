/* One request text through the daemon's dispatch: every method, status
 * item and revalidate target.  Runs only inside the device sandbox
 * (fuzz/run), linked with the seam (fuzz/seam.c). */
#include <stdint.h>
#include <stdlib.h>

#include <event.h>
#include <json-c/json.h>

#include "core/server.h"
#include "fuzz/fuzzutil.h"
#include "fuzz/seam.h"
#include "ipc/ipc.h"

int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int
LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	seam_require_sandbox("fuzz_request");
	server_init(event_init());
	ipc_init();
	return 0;
}

/* A reply must render as JSON that parses back to an object. */
static void
reply_check(struct json_object *reply, void *client)
{
	const char *text = json_object_to_json_string(reply);
	struct json_object *parsed = json_tokener_parse(text);

	(void)client;
	if (parsed == NULL || !json_object_is_type(parsed, json_type_object))
		abort();
	json_object_put(parsed);
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	char *text = fuzz_text(data, size);

	ipc_request_exec_json(text, -1, reply_check, NULL);
	free(text);
	return 0;
}

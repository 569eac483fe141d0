/* One supplicant event message ("<N>TEXT") through wpa_cli_event_dispatch
 * into the station's and the TDLS handlers.  The handlers write the
 * stores and run commands, so this target runs inside the device sandbox
 * (fuzz/run) and is linked with the seam. */
#include <stdint.h>
#include <stdlib.h>

#include "fuzz/fuzzutil.h"
#include "fuzz/seam.h"
#include "wifi/wifi.h"

int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static int
tdls_handler(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	wpa_tdls_event_handler(event, arg, slot);
	return 0;
}

/* No supplicant answers in the sandbox: wpa_cli_init fails but leaves its
 * record in place (Part 5.1), so the handlers wifi_sta_wpa_if_init would
 * register can be registered on it. */
int
LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	seam_require_sandbox("fuzz_wpa_event");
	wpa_cli_init();
	if (wpa_cli_eh_register("CTRL", wpa_ctrl_event_handler) != 0 ||
	    wpa_cli_eh_register("TDLS", tdls_handler) != 0)
		abort();
	return 0;
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	char *msg = fuzz_text(data, size);

	wpa_cli_event_dispatch(msg);
	free(msg);
	return 0;
}

// One supplicant event message ("<N>TEXT") through wpa_cli_event_dispatch
// into the station's and the TDLS handlers.  The handlers write the stores
// and run commands, so this target runs only inside the device sandbox
// (fuzz/run), with the seam in place of the shell.
#include <string>

#include "fuzz/fuzzutil.h"
#include "fuzz/seam.h"
#include "net/lanwan.h"
#include "wifi/scan.h"
#include "wifi/sta.h"

namespace {

int tdls_handler(const char *event, const char *arg, wpa_cli_eh *slot)
{
	wpa_tdls_event_handler(event, arg, slot);
	return 0;
}

}  // namespace

// No supplicant answers in the sandbox: wpa_cli_init fails but leaves its
// client record in place, so the handlers that wifi_sta_wpa_if_init
// registers can be registered on it.  The station reaches the WAN through
// the link that the daemon's start-up installs.
int LLVMFuzzerInitialize(int *, char ***)
{
	hx::fuzz::require_sandbox("fuzz_wpa_event");
	hx::net::lanwan_init();
	wpa_cli_init();
	if (wpa_cli_eh_register("CTRL", wpa_ctrl_event_handler) != 0 ||
	    wpa_cli_eh_register("TDLS", tdls_handler) != 0)
		hx::fuzz::fail("the handlers cannot be registered");
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string message(hx::fuzz::text({data, size}));
	wpa_cli_event_dispatch(message.c_str());
	return 0;
}

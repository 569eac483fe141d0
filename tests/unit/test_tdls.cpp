/* Unit tests of the TDLS event handler and items (wifi/tdls.c), called
 * directly (no supplicant: every request to it fails). */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "wifi/scan.h"
#include "wifi/wifi.h"

/* The item's JSON text, as the daemon would render it. */
static void
check_item(const char *(*item)(struct json_object *, struct json_object *, void *),
	   const char *name, const char *expected)
{
	struct json_object *infos = json_object_new_object();
	struct json_object *key = json_object_new_string(name);

	assert_null(item(key, infos, NULL));
	assert_string_equal(json_object_to_json_string(infos), expected);
	json_object_put(key);
	json_object_put(infos);
}

static void
test_events(void **state)
{
	(void)state;
	check_item(info_s_scantdlsdeviceresult, "r", "{ \"r\": [ ] }");
	wpa_tdls_event_handler("TDLS-DISC-RESP ", "aa:bb:cc:dd:ee:ff", NULL);
	wpa_tdls_event_handler("TDLS-DISC-RESP ", "AA:BB:CC:DD:EE:FF", NULL);
	wpa_tdls_event_handler("TDLS-DISC-RESP ", "02:00:00:00:00:01", NULL);
	wpa_tdls_event_handler("TDLS-DISC-RESP ", "garbage", NULL);
	wpa_tdls_event_handler("TDLS-DISC-RESP ", NULL, NULL);
	wpa_tdls_event_handler(NULL, NULL, NULL);
	check_item(info_s_scantdlsdeviceresult, "r",
		   "{ \"r\": [ { \"mac\": \"aa:bb:cc:dd:ee:ff\" }, { \"mac\": \"02:00:00:00:00:01\" } ] }");
	wpa_tdls_event_handler("TDLS-LINK-UP ", NULL, NULL);
	check_item(info_s_tdlsstatus, "s", "{ \"s\": { \"state\": \"connected\", \"peer\": \"\" } }");
	wpa_tdls_event_handler("TDLS-LINK-DOWN ", NULL, NULL);
	check_item(info_s_tdlsstatus, "s", "{ \"s\": { \"state\": \"idle\", \"peer\": \"\" } }");
}

static void
test_discovered_peers_are_bounded(void **state)
{
	struct json_object *infos = json_object_new_object();
	struct json_object *key = json_object_new_string("r"), *list;
	char mac[18];
	int i;

	(void)state;
	for (i = 0; i < 40; i++) {
		snprintf(mac, sizeof(mac), "02:00:00:00:01:%02x", i);
		wpa_tdls_event_handler("TDLS-DISC-RESP ", mac, NULL);
	}
	assert_null(info_s_scantdlsdeviceresult(key, infos, NULL));
	assert_true(json_object_object_get_ex(infos, "r", &list));
	assert_int_equal(json_object_array_length(list), 16);
	json_object_put(key);
	json_object_put(infos);
}

static void
test_setup_fails_without_supplicant(void **state)
{
	(void)state;
	assert_int_equal(wifi_sta_tdls_setup("aa:bb:cc:dd:ee:ff"), -1);
	assert_int_equal(wifi_sta_tdls_setup("not a mac"), -1);
	assert_int_equal(wifi_sta_tdls_setup(NULL), -1);
	check_item(info_s_tdlsstatus, "s", "{ \"s\": { \"state\": \"idle\", \"peer\": \"\" } }");
}

static void
test_items_check_arguments(void **state)
{
	struct json_object *infos = json_object_new_object();

	(void)state;
	assert_string_equal(info_s_tdlsstatus(NULL, infos, NULL), "Invalid arguments.");
	assert_string_equal(info_s_scantdlsdeviceresult(infos, NULL, NULL), "Invalid arguments.");
	assert_string_equal(info_cutthrough_status(NULL, NULL, NULL), "Invalid arguments.");
	assert_string_equal(info_s_scantdlsdevice(NULL, NULL, NULL), "Invalid arguments.");
	json_object_put(infos);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_events),
		cmocka_unit_test(test_discovered_peers_are_bounded),
		cmocka_unit_test(test_setup_fails_without_supplicant),
		cmocka_unit_test(test_items_check_arguments),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}

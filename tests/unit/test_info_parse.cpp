/* Part 2.5: the status items' pure parsers and formatters
 * (ipc/info_parse.h), the station-list parser (wifi/stalist.c), and the
 * common argument check of every item. */
#include <arpa/inet.h>
#include <limits.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "ipc/handlers.h"
#include "ipc/info_parse.h"
#include "tests/unit/testutil.h"
#include "wifi/wifi.h"

/* ---- load averages ---- */

static void
test_loads_are_truncated_to_two_decimals(void **state)
{
	/* 0.5, 1.999 (131006 / 65536 = 1.99899), 0 */
	const unsigned long loads[3] = { 32768, 131006, 0 };
	char buf[64];

	(void)state;
	info_format_loads(buf, sizeof(buf), loads);
	assert_string_equal(buf, "0.50, 1.99, 0.00");
}

static void
test_loads_largest_fraction_and_integer_parts(void **state)
{
	/* 3 + 65535/65536 shows 3.99; 12 * 65536 + 656 is 12.01 (656 * 100 /
	 * 65536 = 1.0009). */
	const unsigned long loads[3] = { 3 * 65536 + 0xFFFF, 12 * 65536 + 656, 65536 };
	char buf[64];

	(void)state;
	info_format_loads(buf, sizeof(buf), loads);
	assert_string_equal(buf, "3.99, 12.01, 1.00");
}

/* ---- first line, MAC ---- */

static void
test_first_line_stops_at_the_newline(void **state)
{
	char field[64];

	(void)state;
	info_first_line(field, sizeof(field), "HX-R1_V1.0.0\nbuilt 2024-03-04\n");
	assert_string_equal(field, "HX-R1_V1.0.0");
	info_first_line(field, sizeof(field), "one line");
	assert_string_equal(field, "one line");
	info_first_line(field, sizeof(field), "\nsecond");
	assert_string_equal(field, "");
}

static void
test_first_line_is_bounded_by_the_field(void **state)
{
	char text[100], field[64];

	(void)state;
	memset(text, 'v', sizeof(text) - 1);
	text[sizeof(text) - 1] = '\0';
	info_first_line(field, sizeof(field), text);
	assert_int_equal(strlen(field), 63);
}

static void
test_mac_upper_case(void **state)
{
	const unsigned char mac[6] = { 0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff };
	char buf[18];

	(void)state;
	info_format_mac(buf, mac);
	assert_string_equal(buf, "00:1A:2B:C3:D4:FF");
}

/* ---- lease lines ---- */

static void
test_lease_line_five_fields_clientid_keeps_newline(void **state)
{
	char line[] = "1795000600 aa:bb:cc:dd:ee:01 192.168.100.101 phone 01:aa:bb:cc:dd:ee:01\n";
	struct info_lease lease;

	(void)state;
	assert_int_equal(info_lease_split(line, &lease), 0);
	assert_string_equal(lease.expires, "1795000600");
	assert_string_equal(lease.mac, "aa:bb:cc:dd:ee:01");
	assert_string_equal(lease.ipaddr, "192.168.100.101");
	assert_string_equal(lease.hostname, "phone");
	assert_string_equal(lease.clientid, "01:aa:bb:cc:dd:ee:01\n");
}

static void
test_lease_line_of_four_fields_is_refused(void **state)
{
	char four[] = "1795000600 aa:bb:cc:dd:ee:01 192.168.100.101 phone\n";
	char empty[] = "\n";
	struct info_lease lease;

	(void)state;
	assert_int_equal(info_lease_split(four, &lease), -1);
	assert_int_equal(info_lease_split(empty, &lease), -1);
}

static void
test_lease_line_only_the_blank_separates(void **state)
{
	/* Two blanks make an empty field; a tab is part of a field; a sixth
	 * field is cut off at its blank. */
	char line[] = "1795000600  aa\tbb 1.2.3.4 * id extra\n";
	struct info_lease lease;

	(void)state;
	assert_int_equal(info_lease_split(line, &lease), 0);
	assert_string_equal(lease.mac, "");
	assert_string_equal(lease.ipaddr, "aa\tbb");
	assert_string_equal(lease.hostname, "1.2.3.4");
	assert_string_equal(lease.clientid, "*");
}

static void
test_lease_expires(void **state)
{
	(void)state;
	assert_int_equal(info_lease_expires(1795000600, 1795000000, 0), 600);
	/* in the past: negative, and the correction is added */
	assert_int_equal(info_lease_expires(1795000000 - 30, 1795000000, 0), -30);
	assert_int_equal(info_lease_expires(1000, 1795000000, 1794999500), 500);
	/* not in the past: no correction */
	assert_int_equal(info_lease_expires(1795000000, 1795000000, 172801), 0);
	assert_int_equal(info_lease_expires(1795000100, 1795000000, 172801), 100);
}

static void
test_lease_expires_out_of_range_is_clamped(void **state)
{
	(void)state;
	assert_true(info_lease_expires(LONG_MIN, 1000, 0) == LONG_MIN);
	assert_true(info_lease_expires(LONG_MAX, -1000, 0) == LONG_MAX);
	/* the correction itself overflows */
	assert_true(info_lease_expires(999, 1000, LONG_MAX) == LONG_MAX - 1000);
}

/* ---- DNS list ---- */

static void
test_dns_join(void **state)
{
	const char servers[4][16] = { "8.8.8.8", "192.168.1.1", "1.1.1.1", "9.9.9.9" };
	const char wide[4][16] = { "255.255.255.255", "255.255.255.254", "255.255.255.253",
				   "255.255.255.252" };
	char buf[4 * 15 + 3 * 2 + 1];

	(void)state;
	info_join_dns(buf, sizeof(buf), 0, servers);
	assert_string_equal(buf, "");
	info_join_dns(buf, sizeof(buf), 1, servers);
	assert_string_equal(buf, "8.8.8.8");
	info_join_dns(buf, sizeof(buf), 2, servers);
	assert_string_equal(buf, "8.8.8.8, 192.168.1.1");
	info_join_dns(buf, sizeof(buf), 9, servers);
	assert_string_equal(buf, "8.8.8.8, 192.168.1.1, 1.1.1.1, 9.9.9.9");
	info_join_dns(buf, sizeof(buf), 4, wide);
	assert_string_equal(buf, "255.255.255.255, 255.255.255.254, 255.255.255.253, "
				 "255.255.255.252");
}

/* ---- route lines ---- */

/* A /proc/net/route line as the kernel writes it: each address is the
 * network-order value printed as a host integer ("%08X"). */
static void
route_line(char *buf, size_t size, const char *iface, const char *dest, const char *gw,
	   unsigned int flags, unsigned int metric, const char *mask)
{
	snprintf(buf, size, "%s\t%08X\t%08X\t%04X\t0\t0\t%u\t%08X\t0\t0\t0\n", iface,
		 (unsigned int)inet_addr(dest), (unsigned int)inet_addr(gw), flags, metric,
		 (unsigned int)inet_addr(mask));
}

static void
test_route_line_scans_six_fields(void **state)
{
	struct info_route route;
	char line[256], text[16];

	(void)state;
	route_line(line, sizeof(line), "mlan0", "0.0.0.0", "10.1.2.254", 3, 5, "0.0.0.0");
	assert_int_equal(info_route_parse(line, &route), 0);
	assert_string_equal(route.iface, "mlan0");
	assert_int_equal(route.dest, 0);
	assert_int_equal(route.flags, 3);
	assert_int_equal(route.metric, 5);
	assert_int_equal(route.mask, 0);
	info_format_addr(text, route.gw);
	assert_string_equal(text, "10.1.2.254");

	route_line(line, sizeof(line), "br0", "192.168.100.0", "0.0.0.0", 1, 0,
		   "255.255.255.0");
	assert_int_equal(info_route_parse(line, &route), 0);
	info_format_addr(text, route.dest);
	assert_string_equal(text, "192.168.100.0");
	info_format_addr(text, route.mask);
	assert_string_equal(text, "255.255.255.0");
}

static void
test_route_header_and_short_lines_do_not_scan(void **state)
{
	struct info_route route;

	(void)state;
	assert_int_equal(info_route_parse("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\t"
					  "Metric\tMask\t\tMTU\tWindow\tIRTT\n",
					  &route),
			 -1);
	assert_int_equal(info_route_parse("br0\t0064A8C0\t00000000\t0001\t0\t0\n", &route),
			 -1);
	assert_int_equal(info_route_parse("\n", &route), -1);
}

static void
test_route_interface_name_is_bounded(void **state)
{
	struct info_route route;

	(void)state;
	/* %16s stops after 16 characters; the rest does not scan as a number */
	assert_int_equal(info_route_parse("abcdefghijklmnopqrstuvwxyz\t00000000\t00000000\t0001\t"
					  "0\t0\t0\t00000000\n",
					  &route),
			 -1);
	assert_int_equal(strlen(route.iface), 16);
}

/* ---- UPnP lease lines ---- */

static void
test_upnp_line(void **state)
{
	char line[] = "TCP:8080:192.168.100.101:80:1795003600:web server: port 80\n";
	struct info_upnp upnp;

	(void)state;
	assert_int_equal(info_upnp_parse(line, &upnp), 0);
	assert_string_equal(upnp.proto, "TCP");
	assert_string_equal(upnp.eport, "8080");
	assert_string_equal(upnp.iaddr, "192.168.100.101");
	assert_string_equal(upnp.iport, "80");
	assert_string_equal(upnp.timestamp, "1795003600");
	assert_string_equal(upnp.desc, "web server: port 80");
}

static void
test_upnp_line_empty_desc_and_short_lines(void **state)
{
	char empty_desc[] = "UDP:5000:192.168.100.102:5000:0:\n";
	char old_format[] = "UDP:5000:192.168.100.102:5000\n";
	struct info_upnp upnp;

	(void)state;
	assert_int_equal(info_upnp_parse(empty_desc, &upnp), 0);
	assert_string_equal(upnp.timestamp, "0");
	assert_string_equal(upnp.desc, "");
	assert_int_equal(info_upnp_parse(old_format, &upnp), -1);
}

/* ---- syslog lines ---- */

static void
test_log_line(void **state)
{
	char line[] = "Nov 22 21:58:51 hxsim user.info hxsrvd[123]: WAN up: mlan0\n";
	struct info_log log;

	(void)state;
	assert_int_equal(info_log_parse(line, &log), 0);
	assert_string_equal(log.date, "Nov 22");
	assert_string_equal(log.time, "21:58:51");
	assert_string_equal(log.hostname, "hxsim");
	assert_string_equal(log.priority, "user.info");
	assert_string_equal(log.owner, "hxsrvd[123]");
	assert_string_equal(log.content, "WAN up: mlan0");
}

static void
test_log_line_padded_day_and_no_owner(void **state)
{
	char line[] = "Mar  4 07:00:01 HX-R1 syslog.info syslogd started: BusyBox v1.36.1\n";
	char bare[] = "Mar  4 07:00:02 HX-R1 <13> no colon here\n";
	struct info_log log;

	(void)state;
	assert_int_equal(info_log_parse(line, &log), 0);
	assert_string_equal(log.date, "Mar 4");
	assert_string_equal(log.owner, "syslogd started");
	assert_string_equal(log.content, "BusyBox v1.36.1");
	assert_int_equal(info_log_parse(bare, &log), 0);
	assert_string_equal(log.priority, "<13>");
	assert_string_equal(log.owner, "");
	assert_string_equal(log.content, "no colon here");
}

static void
test_log_lines_of_another_shape_are_refused(void **state)
{
	char no_stamp[] = "2024-03-04 07:00:01 HX-R1 user.info x: y\n";
	char no_priority[] = "Mar  4 07:00:01 HX-R1\n";
	char short_line[] = "Mar  4 07:00\n";
	char stamp_only[] = "Mar  4 07:00:01 \n";
	struct info_log log;

	(void)state;
	assert_int_equal(info_log_parse(no_stamp, &log), -1);
	assert_int_equal(info_log_parse(no_priority, &log), -1);
	assert_int_equal(info_log_parse(short_line, &log), -1);
	assert_int_equal(info_log_parse(stamp_only, &log), -1);
}

/* ---- sta_list lines ---- */

/* What "uaputl.exe sta_list" prints (Marvell uaputl: "Number of STA = %d",
 * per station "MAC Address: " and print_mac's lower-case hex, "Power mfg
 * status: %s", "Rssi : %d dBm"). */
static const char *const sta_list_output[] = {
	"Number of STA = 2\n",
	"\n",
	"STA 1 information:\n",
	"=====================\n",
	"MAC Address: 00:50:43:21:0a:b1\n",
	"Power mfg status: active\n",
	"Rssi : -45 dBm\n",
	"\n",
	"STA 2 information:\n",
	"=====================\n",
	"MAC Address: 8c:85:90:12:34:56\n",
	"Power mfg status: power save\n",
	"Rssi : -71 dBm\n",
	"\n",
};

static void
test_sta_list_lines(void **state)
{
	struct wl_sta_list list;
	size_t i;

	(void)state;
	list.count = 0;
	for (i = 0; i < sizeof(sta_list_output) / sizeof(sta_list_output[0]); i++)
		wl_staListParseLine(sta_list_output[i], &list);
	assert_int_equal(list.count, 2);
	assert_string_equal(list.sta[0].mac, "00:50:43:21:0a:b1");
	assert_string_equal(list.sta[0].rssi, "-45");
	assert_string_equal(list.sta[1].mac, "8c:85:90:12:34:56");
	assert_string_equal(list.sta[1].rssi, "-71");
}

static void
test_sta_list_fields_are_bounded(void **state)
{
	struct wl_sta_list list;

	(void)state;
	list.count = 0;
	wl_staListParseLine("MAC Address: 00:50:43:21:0a:b1:ff:ee\n", &list);
	wl_staListParseLine("Rssi : -123456 dBm\n", &list);
	assert_int_equal(list.count, 1);
	assert_string_equal(list.sta[0].mac, "00:50:43:21:0a:b1");
	assert_string_equal(list.sta[0].rssi, "-1234");
}

static void
test_sta_list_rssi_before_any_station_and_twice(void **state)
{
	struct wl_sta_list list;

	(void)state;
	list.count = 0;
	wl_staListParseLine("Rssi : -40 dBm\n", &list);
	assert_int_equal(list.count, 0);
	wl_staListParseLine("MAC Address: 00:50:43:21:0a:b1\n", &list);
	assert_string_equal(list.sta[0].rssi, "");
	wl_staListParseLine("Rssi : -41 dBm\n", &list);
	wl_staListParseLine("Rssi : -42 dBm\n", &list);
	assert_string_equal(list.sta[0].rssi, "-41");
}

static void
test_sta_list_stops_at_its_size(void **state)
{
	struct wl_sta_list list;
	char line[64];
	int i;

	(void)state;
	list.count = 0;
	for (i = 0; i < WL_STA_MAX + 3; i++) {
		snprintf(line, sizeof(line), "MAC Address: 00:00:00:00:00:%02x\n", i);
		wl_staListParseLine(line, &list);
		snprintf(line, sizeof(line), "Rssi : -%d dBm\n", i);
		wl_staListParseLine(line, &list);
	}
	assert_int_equal(list.count, WL_STA_MAX);
	assert_string_equal(list.sta[WL_STA_MAX - 1].mac, "00:00:00:00:00:1f");
	assert_string_equal(list.sta[WL_STA_MAX - 1].rssi, "-31");
}

/* The count is set whatever the utility does; on this host it does not
 * exist, so the shell's complaint is all it prints. */
static void
test_sta_list_count_set_without_the_utility(void **state)
{
	struct tu_capture capture;
	struct wl_sta_list list;

	(void)state;
	if (access("/sbin/uaputl.exe", F_OK) == 0)
		skip();
	list.count = 77;
	tu_capture_begin(&capture, stderr);
	assert_int_equal(wl_getStaList(&list), 0);
	free(tu_capture_end(&capture));
	assert_int_equal(list.count, 0);
}

/* ---- the common check of every item ---- */

static void
test_items_refuse_a_missing_name_or_infos(void **state)
{
	static const ipc_handler_func items[] = {
		info_p_model, info_p_description, info_s_time, info_s_sysinfo,
		info_s_osinfo, info_s_boardinfo, info_s_rootfsver, info_s_waninfo,
		info_s_wan_dns, info_s_wan_gw, info_s_laninfo, info_s_logs,
		info_s_dhcpleases, info_s_stalist, info_s_routesactive, info_s_upnplist,
		info_wl_radio, info_ws_state, info_fwup_status, info_owner_list,
	};
	struct json_object *name = json_object_new_string("s_time");
	struct json_object *infos = json_object_new_object();
	struct tu_capture capture;
	size_t i;
	char *out;

	(void)state;
	for (i = 0; i < sizeof(items) / sizeof(items[0]); i++) {
		tu_capture_begin(&capture, stdout);
		assert_string_equal(items[i](NULL, infos, NULL), "Invalid arguments.");
		assert_string_equal(items[i](name, NULL, NULL), "Invalid arguments.");
		out = tu_capture_end(&capture);
		assert_string_equal(out, "Input parameters are NULL.\nInput parameters are NULL.\n");
		free(out);
	}
	assert_string_equal(json_object_to_json_string(infos), "{ }");
	json_object_put(name);
	json_object_put(infos);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_loads_are_truncated_to_two_decimals),
		cmocka_unit_test(test_loads_largest_fraction_and_integer_parts),
		cmocka_unit_test(test_first_line_stops_at_the_newline),
		cmocka_unit_test(test_first_line_is_bounded_by_the_field),
		cmocka_unit_test(test_mac_upper_case),
		cmocka_unit_test(test_lease_line_five_fields_clientid_keeps_newline),
		cmocka_unit_test(test_lease_line_of_four_fields_is_refused),
		cmocka_unit_test(test_lease_line_only_the_blank_separates),
		cmocka_unit_test(test_lease_expires),
		cmocka_unit_test(test_lease_expires_out_of_range_is_clamped),
		cmocka_unit_test(test_dns_join),
		cmocka_unit_test(test_route_line_scans_six_fields),
		cmocka_unit_test(test_route_header_and_short_lines_do_not_scan),
		cmocka_unit_test(test_route_interface_name_is_bounded),
		cmocka_unit_test(test_upnp_line),
		cmocka_unit_test(test_upnp_line_empty_desc_and_short_lines),
		cmocka_unit_test(test_log_line),
		cmocka_unit_test(test_log_line_padded_day_and_no_owner),
		cmocka_unit_test(test_log_lines_of_another_shape_are_refused),
		cmocka_unit_test(test_sta_list_lines),
		cmocka_unit_test(test_sta_list_fields_are_bounded),
		cmocka_unit_test(test_sta_list_rssi_before_any_station_and_twice),
		cmocka_unit_test(test_sta_list_stops_at_its_size),
		cmocka_unit_test(test_sta_list_count_set_without_the_utility),
		cmocka_unit_test(test_items_refuse_a_missing_name_or_infos),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}

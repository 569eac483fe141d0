/* Unit tests of the Wi-Fi scan parsers (wifi/scan.c) on fixture text. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
#include <cmocka.h>
}

#include "wifi/scan.h"

/* tests/fixtures/<name>, found from this file's own path. */
static char *
fixture(const char *name)
{
	char path[4096];
	const char *slash = strrchr(__FILE__, '/');
	size_t dir = slash != NULL ? (size_t)(slash - __FILE__) : 0;
	char *text;
	long size;
	FILE *fp;

	snprintf(path, sizeof(path), "%.*s/../fixtures/%s", (int)dir, __FILE__, name);
	fp = fopen(path, "r");
	assert_non_null(fp);
	assert_int_equal(fseek(fp, 0, SEEK_END), 0);
	size = ftell(fp);
	rewind(fp);
	text = (char *)calloc(1, (size_t)size + 1);
	assert_non_null(text);
	assert_int_equal(fread(text, 1, (size_t)size, fp), (size_t)size);
	fclose(fp);
	return text;
}

static void
check_cell(const struct scan_cell *cell, const char *bssid, const char *ssid, int channel,
	   int signal, const char *security)
{
	assert_string_equal(cell->bssid, bssid);
	assert_string_equal(cell->ssid, ssid);
	assert_int_equal(cell->channel, channel);
	assert_int_equal(cell->signal, signal);
	assert_string_equal(cell->security, security);
}

static void
test_scan_fixture_cells(void **state)
{
	static struct scan_list list;
	char *text = fixture("iwlist_mlan0_scan.txt");

	(void)state;
	assert_int_equal(scan_parse_iwlist(text, &list), 8);
	check_cell(&list.cell[0], "00:24:01:D3:A0:BE", "HomeNet", 6, -52, "WPA2-PSK");
	check_cell(&list.cell[1], "9C:D6:43:11:22:33", "Cafe Guest", 1, -78, "NONE");
	check_cell(&list.cell[2], "00:1A:2B:3C:4D:5E", "Office", 11, -61, "WPA/WPA2-PSK");
	check_cell(&list.cell[3], "00:90:4C:AA:BB:CC", "", 6, -45, "WPA2-PSK");
	check_cell(&list.cell[4], "00:0F:66:01:02:03", "OldRouter", 9, -84, "WEP");
	check_cell(&list.cell[5], "00:24:01:D3:A0:C0", "HomeNet", 149, -40, "WPA2-PSK");
	check_cell(&list.cell[6], "34:12:98:76:54:32", "", 3, -88, "WPA2-EAP");
	check_cell(&list.cell[7], "02:11:22:33:44:55", "Corp \"Lab\"", 6, -70, "WPA2-EAP");
	assert_int_equal(list.full, 0);
	free(text);
}

static void
test_scan_empty_and_garbage(void **state)
{
	static struct scan_list list;
	char *text = fixture("iwlist_mlan0_empty.txt");

	(void)state;
	assert_int_equal(scan_parse_iwlist(text, &list), 0);
	free(text);
	assert_int_equal(scan_parse_iwlist("", &list), 0);
	assert_int_equal(scan_parse_iwlist("ESSID:\"x\"\nmlan0  Interface doesn't support scanning.\n",
					   &list), 0);
}

static void
test_scan_is_bounded(void **state)
{
	static struct scan_list list;
	size_t size = (SCAN_CELL_MAX + 5) * 128, used = 0;
	char *text = (char *)malloc(size);
	int i;

	(void)state;
	assert_non_null(text);
	for (i = 0; i < SCAN_CELL_MAX + 5; i++)
		used += (size_t)snprintf(text + used, size - used,
					 "  Cell %02d - Address: 00:00:00:00:00:%02X\n"
					 "    ESSID:\"net%d\"\n    Channel:1\n", i + 1, i & 0xff, i);
	assert_int_equal(scan_parse_iwlist(text, &list), SCAN_CELL_MAX);
	assert_int_equal(list.full, 1);
	assert_string_equal(list.cell[SCAN_CELL_MAX - 1].ssid, "net63");
	free(text);
}

static void
test_scan_long_fields_are_cut(void **state)
{
	static struct scan_list list;
	const char *text = "Cell 01 - Address: 00:11:22:33:44:55:66:77\n"
			   "ESSID:\"0123456789012345678901234567890123456789\"\n"
			   "Quality=1/1  Signal level=-99999999999999999999 dBm\n"
			   "Channel:99999999999999999999\n"
			   "Cell 02 - Address: not-a-mac\nESSID:\"unterminated\n";

	(void)state;
	assert_int_equal(scan_parse_iwlist(text, &list), 2);
	assert_string_equal(list.cell[0].bssid, "00:11:22:33:44:55");
	assert_string_equal(list.cell[0].ssid, "01234567890123456789012345678901");
	assert_int_equal(list.cell[0].signal, -99999);
	assert_int_equal(list.cell[0].channel, 99999);
	assert_string_equal(list.cell[1].bssid, "");
	assert_string_equal(list.cell[1].ssid, "");
}

static void
test_freq_channel(void **state)
{
	(void)state;
	assert_int_equal(scan_freq_channel("2.412 GHz"), 1);
	assert_int_equal(scan_freq_channel("2.472 GHz"), 13);
	assert_int_equal(scan_freq_channel("2.484 GHz"), 14);
	assert_int_equal(scan_freq_channel("5.18 GHz"), 36);
	assert_int_equal(scan_freq_channel("0"), 0);
	assert_int_equal(scan_freq_channel("junk"), 0);
}

static void
link_of(const char *name, struct scan_link *link)
{
	char *text = fixture(name), *line, *save = NULL;

	memset(link, 0, sizeof(*link));
	for (line = strtok_r(text, "\n", &save); line != NULL; line = strtok_r(NULL, "\n", &save))
		scan_link_line(line, link);
	free(text);
}

static void
test_iwconfig_link(void **state)
{
	struct scan_link link;

	(void)state;
	link_of("iwconfig_mlan0_connected.txt", &link);
	assert_string_equal(link.ssid, "HomeNet");
	assert_string_equal(link.bssid, "00:24:01:D3:A0:BE");
	assert_int_equal(link.channel, 6);
	assert_int_equal(link.signal, -52);
	assert_string_equal(link.bitrate, "72 Mb/s");
	link_of("iwconfig_mlan0_idle.txt", &link);
	assert_string_equal(link.ssid, "");
	assert_string_equal(link.bssid, "");
}

static void
test_sys_config_channel(void **state)
{
	(void)state;
	assert_int_equal(scan_sys_config_channel("Channel = 11\n"), 11);
	assert_int_equal(scan_sys_config_channel("  Channel = 149"), 149);
	assert_int_equal(scan_sys_config_channel("Channel Select Mode = Manual\n"), 0);
	assert_int_equal(scan_sys_config_channel("Channel = 0\n"), 0);
	assert_int_equal(scan_sys_config_channel("Band = 2.4GHz\n"), 0);
	assert_int_equal(scan_sys_config_channel("Channel = 99999999999999999999\n"), 0);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_scan_fixture_cells),
		cmocka_unit_test(test_scan_empty_and_garbage),
		cmocka_unit_test(test_scan_is_bounded),
		cmocka_unit_test(test_scan_long_fields_are_cut),
		cmocka_unit_test(test_freq_channel),
		cmocka_unit_test(test_iwconfig_link),
		cmocka_unit_test(test_sys_config_channel),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}

/* net/dhcp.c, net/ifstat.c, net/lanwan.c: the readers of Part 4.1 on fixture
 * files, the interface record on the loopback interface, and the WAN state
 * and uptime of Part 4.2 on temporary stores. */
#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}

#include "net/net.h"
#include "tests/unit/testutil.h"

static char *fixture_dir;

static int
fixture_setup(void **state)
{
	(void)state;
	fixture_dir = tu_tempdir();
	return 0;
}

static int
fixture_teardown(void **state)
{
	(void)state;
	tu_rmtree(fixture_dir);
	free(fixture_dir);
	fixture_dir = NULL;
	return 0;
}

/* Writes text into the fixture directory's file name; the path, malloc'd. */
static char *
fixture(const char *name, const char *text)
{
	char *path = tu_path(fixture_dir, name);
	FILE *fp = fopen(path, "w");

	assert_non_null(fp);
	fputs(text, fp);
	assert_int_equal(fclose(fp), 0);
	return path;
}

/* ---- get_DNS ---- */

static void
test_dns_six_nameservers_give_four(void **state)
{
	char *path = fixture("resolv.conf",
			     "# written by udhcpc\n"
			     "search lan\n"
			     "nameserver 10.0.0.1\n"
			     "nameserver 10.0.0.2\n"
			     "domain lan\n"
			     "nameserver 10.0.0.3\n"
			     "nameserver 10.0.0.4\n"
			     "nameserver 10.0.0.5\n"
			     "nameserver 10.0.0.6\n");
	DnsServerList list;

	(void)state;
	memset(&list, 'x', sizeof(list));
	assert_int_equal(get_DNS_file(path, &list), 0);
	assert_int_equal(list.count, 4);
	assert_string_equal(list.server[0], "10.0.0.1");
	assert_string_equal(list.server[1], "10.0.0.2");
	assert_string_equal(list.server[2], "10.0.0.3");
	assert_string_equal(list.server[3], "10.0.0.4");
	free(path);
}

static void
test_dns_two_and_end_of_file(void **state)
{
	char *path = fixture("resolv.conf", "nameserver 8.8.8.8\nnameserver\t255.255.255.255");
	DnsServerList list;

	(void)state;
	assert_int_equal(get_DNS_file(path, &list), 0);
	assert_int_equal(list.count, 2);
	assert_string_equal(list.server[0], "8.8.8.8");
	assert_string_equal(list.server[1], "255.255.255.255");
	free(path);
}

/* Every line holding "nameserver" takes a slot (the spec counts it); one
 * that does not scan leaves its slot empty; a long address keeps 15
 * characters, as the forced NUL of the 16th did. */
static void
test_dns_lines_that_do_not_scan_and_long_addresses(void **state)
{
	char *path = fixture("resolv.conf",
			     "# nameserver 9.9.9.9\n"
			     "nameserver 2001:db8:0:1234:0:567:8:1\n"
			     "  nameserver 10.0.0.3\n");
	DnsServerList list;

	(void)state;
	memset(&list, 'x', sizeof(list));
	assert_int_equal(get_DNS_file(path, &list), 0);
	assert_int_equal(list.count, 3);
	assert_string_equal(list.server[0], "");
	assert_string_equal(list.server[1], "2001:db8:0:1234");
	assert_string_equal(list.server[2], "");
	free(path);
}

static void
test_dns_missing_file(void **state)
{
	char *path = tu_path(fixture_dir, "absent");
	DnsServerList list;

	(void)state;
	list.count = 7;
	assert_int_equal(get_DNS_file(path, &list), -1);
	assert_int_equal(list.count, 0);
	free(path);
}

static void
test_dns_empty_file(void **state)
{
	char *path = fixture("resolv.conf", "");
	DnsServerList list;

	(void)state;
	list.count = 7;
	assert_int_equal(get_DNS_file(path, &list), 0);
	assert_int_equal(list.count, 0);
	free(path);
}

/* ---- get_GW ---- */

#define ROUTE_HEADER "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"

/* An address as the kernel prints it in /proc/net/route: the 32-bit value
 * in memory (network byte order) as one hexadecimal number of this CPU. */
static const char *
route_hex(const char *dotted, char out[9])
{
	struct in_addr addr;

	assert_int_equal(inet_pton(AF_INET, dotted, &addr), 1);
	snprintf(out, 9, "%08X", (unsigned int)addr.s_addr);
	return out;
}

/* One route line: interface, destination, gateway, flags, metric, mask. */
static void
route_line(char *buf, size_t size, const char *ifname, const char *dest,
	   const char *gw, unsigned int flags, unsigned int metric, const char *mask)
{
	char d[9], g[9], m[9];
	int n = snprintf(buf, size, "%s\t%s\t%s\t%04X\t0\t0\t%u\t%s\t0\t0\t0\n", ifname,
			 route_hex(dest, d), route_hex(gw, g), flags, metric, route_hex(mask, m));

	assert_true(n > 0 && (size_t)n < size);
}

static char *
route_fixture(const char *const lines[][6], size_t n)
{
	char text[4096], line[256];
	size_t i;

	strcpy(text, ROUTE_HEADER);
	for (i = 0; i < n; i++) {
		route_line(line, sizeof(line), lines[i][0], lines[i][1], lines[i][2],
			   (unsigned int)strtoul(lines[i][3], NULL, 16),
			   (unsigned int)strtoul(lines[i][4], NULL, 10), lines[i][5]);
		assert_true(strlen(text) + strlen(line) < sizeof(text));
		strcat(text, line);
	}
	return fixture("route", text);
}

static void
test_gw_first_usable_gatewayed_route_of_the_interface(void **state)
{
	static const char *const lines[][6] = {
		{ "br0", "0.0.0.0", "192.168.100.254", "3", "0", "0.0.0.0" },
		{ "mlan01", "0.0.0.0", "10.0.0.9", "3", "0", "0.0.0.0" },
		{ "mlan0", "10.0.0.0", "0.0.0.0", "1", "0", "255.255.255.0" },
		{ "mlan0", "0.0.0.0", "10.0.0.7", "2", "0", "0.0.0.0" },
		{ "mlan0", "10.9.0.0", "10.0.0.1", "3", "5", "255.255.0.0" },
		{ "mlan0", "0.0.0.0", "10.0.0.254", "3", "0", "0.0.0.0" },
	};
	char *path = route_fixture(lines, 6);
	char gw[16] = "";

	(void)state;
	assert_int_equal(get_GW_file(path, "mlan0", gw), 0);
	assert_string_equal(gw, "10.0.0.1");
	assert_int_equal(get_GW_file(path, "br0", gw), 0);
	assert_string_equal(gw, "192.168.100.254");
	free(path);
}

static void
test_gw_only_gateway_0_routes_leave_the_buffer(void **state)
{
	static const char *const lines[][6] = {
		{ "br0", "192.168.100.0", "0.0.0.0", "1", "0", "255.255.255.0" },
		{ "mlan0", "0.0.0.0", "10.0.0.1", "3", "0", "0.0.0.0" },
	};
	char *path = route_fixture(lines, 2);
	char gw[16] = "prepared";

	(void)state;
	assert_int_equal(get_GW_file(path, "br0", gw), 0);
	assert_string_equal(gw, "prepared");
	assert_int_equal(get_GW_file(path, "lo", gw), 0);
	assert_string_equal(gw, "prepared");
	free(path);
}

static void
test_gw_lines_that_do_not_scan(void **state)
{
	char hex[9], text[512];
	char *path;
	char gw[16] = "prepared";

	(void)state;
	/* five fields, then a metric that is not a number */
	snprintf(text, sizeof(text), ROUTE_HEADER "mlan0\t00000000\t%s\t0003\n"
		 "mlan0\t00000000\t%s\t0003\t0\t0\tx\t00000000\n",
		 route_hex("10.0.0.1", hex), hex);
	path = fixture("route", text);
	assert_int_equal(get_GW_file(path, "mlan0", gw), 0);
	assert_string_equal(gw, "prepared");
	free(path);
}

static void
test_gw_missing_file(void **state)
{
	char *path = tu_path(fixture_dir, "absent");
	char gw[16] = "prepared";

	(void)state;
	assert_int_equal(get_GW_file(path, "mlan0", gw), -1);
	assert_string_equal(gw, "prepared");
	free(path);
}

/* ---- if_fetch ---- */

static int
lo_mtu(void)
{
	FILE *fp = fopen("/sys/class/net/lo/mtu", "r");
	int mtu = -1;

	assert_non_null(fp);
	assert_int_equal(fscanf(fp, "%d", &mtu), 1);
	fclose(fp);
	return mtu;
}

static void
test_if_fetch_loopback(void **state)
{
	static const unsigned char zero_mac[6] = {};
	struct if_record rec;

	(void)state;
	memset(&rec, 'x', sizeof(rec));
	assert_int_equal(if_fetch("lo", &rec), 0);
	assert_memory_equal(rec.mac, zero_mac, 6);
	assert_string_equal(rec.ip, "127.0.0.1");
	assert_string_equal(rec.netmask, "255.0.0.0");
	assert_int_equal(rec.mtu, lo_mtu());
	assert_int_equal(rec.has_ipv4, 1);
}

static void
test_if_fetch_refuses_unknown_and_long_names(void **state)
{
	static const struct if_record zero = {};
	struct if_record rec;

	(void)state;
	memset(&rec, 'x', sizeof(rec));
	errno = 0;
	assert_int_equal(if_fetch("hxnone0", &rec), -1);
	assert_int_equal(errno, ENODEV);
	assert_memory_equal(&rec, &zero, sizeof(rec));
	/* IFNAMSIZ - 1 characters at most: a longer name is refused before
	 * anything is looked up */
	errno = 0;
	assert_int_equal(if_fetch("hxnone0hxnone0h", &rec), -1);
	assert_int_equal(errno, ENODEV);
	errno = 0;
	assert_int_equal(if_fetch("hxnone0hxnone0hx", &rec), -1);
	assert_int_equal(errno, EINVAL);
	assert_int_equal(if_fetch(NULL, &rec), -1);
	assert_int_equal(if_fetch("", &rec), -1);
	assert_int_equal(if_fetch("lo:", &rec), -1);
	assert_int_equal(if_fetch("l", &rec), -1);
}

/* ---- wan_get_state, wan_get_uptime ---- */

static int
state_printing(const char *wan_type, const char *rt_wan_if, char **out)
{
	struct tu_capture capture;
	int state;

	/* NULL stores an empty value: the key counts as missing */
	tu_store_put(tu_stores.sysconf, "wan_type", wan_type != NULL ? wan_type : "");
	tu_store_put(tu_stores.sysconf, "wan_if", "\"mlan0\"");
	tu_store_put(tu_stores.rtconf, "wan_if", rt_wan_if != NULL ? rt_wan_if : "");
	tu_capture_begin(&capture, stdout);
	state = wan_get_state();
	*out = tu_capture_end(&capture);
	return state;
}

static void
check_state(const char *wan_type, const char *rt_wan_if, int expected, const char *printed)
{
	char *out;

	assert_int_equal(state_printing(wan_type, rt_wan_if, &out), expected);
	assert_string_equal(out, printed);
	free(out);
}

static void
test_wan_state_by_type(void **state)
{
	(void)state;
	check_state("\"none\"", "\"lo\"", 1, "***** wan_type: none *****\n");
	check_state("\"wireless_sta_private\"", "\"lo\"", 1, "***** what? *****\n");
	check_state("\"ethernet\"", "\"lo\"", 1, "***** what? *****\n");
	check_state("5", "\"lo\"", 1, "***** what? *****\n");
	check_state("\"wireless_sta\"", "\"lo\"", 0, "");
	check_state("\"wireless_sta_trust\"", "\"lo\"", 0, "");
}

static void
test_wan_state_without_an_address(void **state)
{
	/* "/var/run/udhcpc.pid" is the device's fixed path: on the build
	 * machine it is whatever the host has there */
	int expected = access("/var/run/udhcpc.pid", F_OK) == 0 ? 2 : 1;

	(void)state;
	check_state("\"wireless_sta\"", "\"hxnone0\"", expected, "");
	check_state("\"wireless_sta\"", "\"\"", expected, "");
}

static void
test_wan_state_unreadable_values(void **state)
{
	(void)state;
	check_state(NULL, "\"lo\"", -1, "");
	check_state("\"none\"", NULL, -1, "");
	check_state("\"none\"", "lo", -1, "");
	check_state("none", "\"lo\"", -1, "");
}

static long
uptime_now(void)
{
	struct sysinfo info;

	assert_int_equal(sysinfo(&info), 0);
	return info.uptime;
}

static void
check_uptime(const char *stored, unsigned long start, const char *printed)
{
	struct tu_capture capture;
	unsigned long up;
	long before, after;
	char *out;

	tu_store_put(tu_stores.rtconf, "wan_uptime", stored);
	before = uptime_now();
	tu_capture_begin(&capture, stdout);
	up = wan_get_uptime();
	out = tu_capture_end(&capture);
	after = uptime_now();
	assert_string_equal(out, printed);
	assert_true(up >= (unsigned long)before - start);
	assert_true(up <= (unsigned long)after - start);
	free(out);
}

static void
test_wan_uptime(void **state)
{
	(void)state;
	check_uptime("\"5\"", 5, "uptime_start:5\n");
	check_uptime("7", 7, "uptime_start:7\n");
	check_uptime("\"0\"", 0, "uptime_start:0\n");
}

static void
test_wan_uptime_missing_or_bad(void **state)
{
	struct tu_capture capture;
	char *out;

	(void)state;
	tu_capture_begin(&capture, stdout);
	assert_true(wan_get_uptime() == ULONG_MAX);
	tu_store_put(tu_stores.rtconf, "wan_uptime", "word");
	assert_true(wan_get_uptime() == ULONG_MAX);
	out = tu_capture_end(&capture);
	assert_string_equal(out, "");
	free(out);
}

#define FIXTURE_TEST(f) cmocka_unit_test_setup_teardown(f, fixture_setup, fixture_teardown)
#define STORES_TEST(f) cmocka_unit_test_setup_teardown(f, tu_stores_setup, tu_stores_teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		FIXTURE_TEST(test_dns_six_nameservers_give_four),
		FIXTURE_TEST(test_dns_two_and_end_of_file),
		FIXTURE_TEST(test_dns_lines_that_do_not_scan_and_long_addresses),
		FIXTURE_TEST(test_dns_missing_file),
		FIXTURE_TEST(test_dns_empty_file),
		FIXTURE_TEST(test_gw_first_usable_gatewayed_route_of_the_interface),
		FIXTURE_TEST(test_gw_only_gateway_0_routes_leave_the_buffer),
		FIXTURE_TEST(test_gw_lines_that_do_not_scan),
		FIXTURE_TEST(test_gw_missing_file),
		cmocka_unit_test(test_if_fetch_loopback),
		cmocka_unit_test(test_if_fetch_refuses_unknown_and_long_names),
		STORES_TEST(test_wan_state_by_type),
		STORES_TEST(test_wan_state_without_an_address),
		STORES_TEST(test_wan_state_unreadable_values),
		STORES_TEST(test_wan_uptime),
		STORES_TEST(test_wan_uptime_missing_or_bad),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}

// The status items: the parsers of the files they read, and what the items
// of the stores add to the reply.
#include "ipc/info_parse.h"

#include <arpa/inet.h>
#include <limits.h>
#include <unistd.h>

#include <tuple>
#include <vector>

#include "core/fmt.h"
#include "ipc/registry.h"
#include "tests/unit/support.h"
#include "wifi/wifi.h"

namespace {

using namespace hx::ipc;
using Fields = std::vector<std::string_view>;
using Lines = std::initializer_list<std::tuple<const char *, std::optional<Fields>>>;

// Each line through parse: the fields that fields_of takes from the result,
// or nothing for a line that is refused.
template <typename Parse, typename FieldsOf>
void expect_fields(Lines lines, Parse parse, FieldsOf fields_of)
{
	for (const auto &[line, fields] : lines) {
		auto parsed = parse(line);
		ASSERT_EQ(parsed.has_value(), fields.has_value()) << line;
		if (parsed) {
			EXPECT_EQ(fields_of(*parsed), *fields) << line;
		}
	}
}

TEST(Formats, LoadsMacFirstLineAndDns)
{
	const unsigned long loads[3] = {32768, 131006, 3 * 65536 + 0xFFFF};	// 0.5, 1.999, 3.99998
	EXPECT_EQ(format_loads(loads), "0.50, 1.99, 3.99");
	const unsigned char mac[6] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
	EXPECT_EQ(format_mac(mac), "00:1A:2B:C3:D4:FF");
	EXPECT_EQ(first_line("HX-R1_V1.0.0\nbuilt 2024\n"), "HX-R1_V1.0.0");
	EXPECT_EQ(first_line("\nsecond"), "");
	EXPECT_EQ(first_line(std::string(100, 'v')), std::string(63, 'v'));
	const char servers[4][16] = {"255.255.255.255", "192.168.1.1", "1.1.1.1", "9.9.9.9"};
	EXPECT_EQ(join_dns(0, servers), "");
	EXPECT_EQ(join_dns(2, servers), "255.255.255.255, 192.168.1.1");
	EXPECT_EQ(join_dns(9, servers), "255.255.255.255, 192.168.1.1, 1.1.1.1, 9.9.9.9");
}

TEST(Leases, SplitAtSingleBlanks)
{
	expect_fields(
		{
			{"1795000600 aa:bb:cc:dd:ee:01 192.168.100.101 phone 01:aa:bb\n",
			 Fields{"1795000600", "aa:bb:cc:dd:ee:01", "192.168.100.101", "phone", "01:aa:bb\n"}},
			{"1795000600  aa\tbb 1.2.3.4 * id extra\n", Fields{"1795000600", "", "aa\tbb", "1.2.3.4", "*"}},
			{"1795000600 aa:bb:cc:dd:ee:01 192.168.100.101 phone\n", std::nullopt},
			{"\n", std::nullopt},
		},
		lease_split, [](const Lease &l) { return Fields{l.expires, l.mac, l.ipaddr, l.hostname, l.clientid}; });
}

TEST(Leases, ExpiresWithTheClockCorrection)
{
	EXPECT_EQ(lease_expires(1795000600, 1795000000, 0), 600);
	EXPECT_EQ(lease_expires(1795000000 - 30, 1795000000, 0), -30);
	EXPECT_EQ(lease_expires(1000, 1795000000, 1794999500), 500);
	EXPECT_EQ(lease_expires(1795000100, 1795000000, 172801), 100);	// not in the past
	EXPECT_EQ(lease_expires(LONG_MIN, 1000, 0), LONG_MIN);
	EXPECT_EQ(lease_expires(LONG_MAX, -1000, 0), LONG_MAX);
	EXPECT_EQ(lease_expires(999, 1000, LONG_MAX), LONG_MAX - 1000);
}

// A line as the kernel writes it: each address is the network-order value
// printed as a host integer.
std::string route_line(const char *iface, const char *dest, const char *gw, unsigned metric, const char *mask)
{
	return hx::format("%s\t%08X\t%08X\t0003\t0\t0\t%u\t%08X\t0\t0\t0\n", iface, inet_addr(dest),
			  inet_addr(gw), metric, inet_addr(mask));
}

TEST(Routes, ScanSixFields)
{
	std::optional<Route> r = route_parse(route_line("mlan0", "0.0.0.0", "10.1.2.254", 5, "0.0.0.0").c_str());
	ASSERT_TRUE(r);
	EXPECT_STREQ(r->iface, "mlan0");
	EXPECT_EQ(std::make_tuple(r->dest, r->flags, r->metric, r->mask), std::make_tuple(0ul, 3ul, 5u, 0ul));
	EXPECT_EQ(format_addr(r->gw), "10.1.2.254");
	r = route_parse(route_line("br0", "192.168.100.0", "0.0.0.0", 0, "255.255.255.0").c_str());
	ASSERT_TRUE(r);
	EXPECT_EQ(format_addr(r->dest) + "/" + format_addr(r->mask), "192.168.100.0/255.255.255.0");
	for (const char *line : {"Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n",
				 "br0\t0064A8C0\t00000000\t0001\t0\t0\n", "\n",
				 // %16s stops after 16 characters; the rest is no number
				 "abcdefghijklmnopqrstuvwxyz\t0\t0\t1\t0\t0\t0\t0\n"})
		EXPECT_FALSE(route_parse(line)) << line;
}

TEST(Upnp, LeaseLines)
{
	expect_fields(
		{
			{"TCP:8080:192.168.100.101:80:1795003600:web server: port 80 \r\n",
			 Fields{"TCP", "8080", "192.168.100.101", "80", "1795003600", "web server: port 80"}},
			{"UDP:5000:192.168.100.102:5000:0:\n", Fields{"UDP", "5000", "192.168.100.102", "5000", "0", ""}},
			{"UDP:5000:192.168.100.102:5000\n", std::nullopt},
		},
		upnp_parse, [](const Upnp &u) { return Fields{u.proto, u.eport, u.iaddr, u.iport, u.timestamp, u.desc}; });
}

TEST(Logs, SyslogLines)
{
	expect_fields(
		{
			{"Nov 22 21:58:51 hxsim user.info hxsrvd[123]: WAN up: mlan0\n",
			 Fields{"Nov 22", "21:58:51", "hxsim", "user.info", "hxsrvd[123]", "WAN up: mlan0"}},
			{"Mar  4 07:00:01 HX-R1 syslog.info syslogd started: BusyBox v1.36.1\n",
			 Fields{"Mar 4", "07:00:01", "HX-R1", "syslog.info", "syslogd started", "BusyBox v1.36.1"}},
			{"Mar  4 07:00:02 HX-R1 <13> no colon here\n", Fields{"Mar 4", "07:00:02", "HX-R1", "<13>", "", "no colon here"}},
			{"2024-03-04 07:00:01 HX-R1 user.info x: y\n", std::nullopt},
			{"Mar  4 07:00:01 HX-R1\n", std::nullopt},
			{"Mar  4 07:00\n", std::nullopt},
			{"Mar  4 07:00:01 \n", std::nullopt},
		},
		log_parse, [](const Log &l) { return Fields{l.date, l.time, l.hostname, l.priority, l.owner, l.content}; });
}

// What "uaputl.exe sta_list" prints for two stations.
TEST(StaList, StationsOfTheUtilitysOutput)
{
	wl_sta_list list;
	list.count = 0;
	for (const char *line : {"Number of STA = 2\n", "Rssi : -40 dBm\n", "STA 1 information:\n",
				 "MAC Address: 00:50:43:21:0a:b1:ff:ee\n", "Power mfg status: active\n",
				 "Rssi : -123456 dBm\n", "Rssi : -42 dBm\n", "MAC Address: 8c:85:90:12:34:56\n",
				 "Rssi : -71 dBm\n"})
		wl_staListParseLine(line, &list);
	ASSERT_EQ(list.count, 2);
	EXPECT_STREQ(list.sta[0].mac, "00:50:43:21:0a:b1");
	EXPECT_STREQ(list.sta[0].rssi, "-1234");
	EXPECT_STREQ(list.sta[1].mac, "8c:85:90:12:34:56");
	EXPECT_STREQ(list.sta[1].rssi, "-71");
	for (int i = 0; i < WL_STA_MAX + 3; i++)
		wl_staListParseLine(hx::format("MAC Address: 00:00:00:00:00:%02x\n", i).c_str(), &list);
	EXPECT_EQ(list.count, WL_STA_MAX);
	if (access("/sbin/uaputl.exe", F_OK) != 0) {	// the count is set whatever the utility does
		::testing::internal::CaptureStderr();
		EXPECT_EQ(wl_getStaList(&list), 0);
		::testing::internal::GetCapturedStderr();
		EXPECT_EQ(list.count, 0);
	}
}

// ---- the items of the stores, called through the registry

class Infos : public ::testing::Environment {
	void SetUp() override { infos_init(); }
};
::testing::Environment *const infos_env = ::testing::AddGlobalTestEnvironment(new Infos);

struct Record {
	char store;	// 's'ysconf, 'r'tconf, 'i'nfo
	const char *key, *value;
};

struct ItemCase {
	const char *name;
	std::vector<Record> records;
	const char *infos;
	const char *result = nullptr;
};

class Items : public hx::test::Stores, public ::testing::WithParamInterface<ItemCase> {};

TEST_P(Items, AddTheirMember)
{
	const ItemCase &c = GetParam();
	for (const Record &r : c.records)
		hx::test::put(r.store == 's' ? sysconf : r.store == 'r' ? rtconf : sysinfo, r.key, r.value);
	hx::json::Ptr name(json_object_new_string(c.name)), infos(json_object_new_object());
	EXPECT_STREQ(info_find(c.name)->handler(name.get(), infos.get(), nullptr), c.result);
	EXPECT_STREQ(json_object_to_json_string(infos.get()), c.infos);
}

INSTANTIATE_TEST_SUITE_P(
	Stores, Items,
	::testing::Values(
		ItemCase{"wl_radio", {}, "{ \"wl_radio\": \"\" }"},
		ItemCase{"wl_radio", {{'r', "wl_radio", "\"on\""}}, "{ \"wl_radio\": \"on\" }"},
		ItemCase{"fwup_status", {{'r', "fwup_status", "idle"}}, "{ }", "ERROR"},
		ItemCase{"p_model", {}, "{ }", "ERROR"},
		ItemCase{"p_description", {{'i', "product_description", "\"Travel router\""}},
			 "{ \"p_description\": \"Travel router\" }"},
		ItemCase{"s_osinfo", {}, "{ }"},
		ItemCase{"s_boardinfo", {{'r', "boardinfo", "board 2"}}, "{ \"s_boardinfo\": \"board 2\" }"},
		ItemCase{"fw_version", {{'r', "rootfs.ver", "V1.0\nbuilt"}}, "{ \"fw_version\": \"V1.0\" }"},
		ItemCase{"owner_list",
			 {{'s', "active_user", "0"}, {'s', "user0_name", "\"Ann\""}, {'s', "user0_icon", "1"},
			  {'s', "user1_name", "\"Bo\""}, {'s', "user1_icon", "2"}, {'s', "user2_name", "\"Cy\""},
			  {'s', "user3_name", "\"Di\""}, {'s', "user3_icon", "4"}},
			 "{ \"owner_list\": { \"active_user\": 0, \"user0_name\": \"Ann\", \"user0_icon\": 1, "
			 "\"user1_name\": \"Bo\", \"user1_icon\": 2, \"user2_name\": \"Cy\" } }",
			 "ERROR"},
		ItemCase{"s_wan_gw", {}, "{ \"s_wan_gw\": \"N\\/A\" }"},
		ItemCase{"s_wan_gw", {{'r', "wan_if", "\""}}, "{ \"s_wan_gw\": \"N\\/A\" }"},
		ItemCase{"s_wan_gw", {{'r', "wan_if", "ab"}}, "{ }", "ERROR"},
		ItemCase{"s_laninfo", {{'r', "lan_if", "x"}}, "{ \"s_laninfo\": { } }"},
		ItemCase{"s_laninfo", {{'r', "lan_if", "ab"}}, "{ \"s_laninfo\": { } }", "ERROR"}));

TEST(ItemPrologue, EveryItemRefusesAMissingNameOrInfos)
{
	hx::json::Ptr name(json_object_new_string("s_time")), infos(json_object_new_object());
	for (const char *item : {"p_model", "p_description", "s_time", "s_sysinfo", "s_osinfo", "s_boardinfo",
				 "s_rootfsver", "s_waninfo", "s_wan_dns", "s_wan_gw", "s_laninfo", "s_logs",
				 "s_dhcpleases", "s_stalist", "s_routesactive", "s_upnplist", "wl_radio", "ws_state",
				 "fwup_status", "owner_list"}) {
		ipc_handler_func handler = info_find(item)->handler;
		EXPECT_EQ(hx::test::stdout_of([&] {
				  EXPECT_STREQ(handler(nullptr, infos.get(), nullptr), "Invalid arguments.");
				  EXPECT_STREQ(handler(name.get(), nullptr, nullptr), "Invalid arguments.");
			  }),
			  "Input parameters are NULL.\nInput parameters are NULL.\n");
	}
	EXPECT_STREQ(json_object_to_json_string(infos.get()), "{ }");
}

}  // namespace

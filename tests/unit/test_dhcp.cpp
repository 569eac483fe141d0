// The readers of the resolver and route files on fixture files, the
// interface record on the loopback interface, and the WAN state and uptime
// on temporary stores.
#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/fmt.h"
#include "core/owned.h"
#include "net/net.h"
#include "tests/unit/support.h"

namespace {

using hx::test::TempDir;

struct DnsCase {
	const char *name;
	const char *contents;	// nullptr: no file
	int result;
	std::vector<std::string> servers;
};

class Dns : public ::testing::TestWithParam<DnsCase> {};

TEST_P(Dns, ReadsTheFirstFourNameserverLines)
{
	const DnsCase &c = GetParam();
	TempDir dir;
	std::string path = c.contents != nullptr ? dir.write("resolv.conf", c.contents) : dir.file("absent");
	DnsServerList list;
	memset(&list, 'x', sizeof(list));
	EXPECT_EQ(hx::net::read_dns(path.c_str(), &list), c.result);
	ASSERT_EQ(list.count, static_cast<int>(c.servers.size()));
	for (size_t i = 0; i < c.servers.size(); i++)
		EXPECT_STREQ(list.server[i], c.servers[i].c_str()) << i;
}

// Every line holding "nameserver" takes a slot; one that does not scan
// leaves it empty; a long address keeps the 15 characters the slot holds.
INSTANTIATE_TEST_SUITE_P(
	Resolver, Dns,
	::testing::Values(
		DnsCase{"six_give_four",
			"# written by udhcpc\nsearch lan\nnameserver 10.0.0.1\nnameserver 10.0.0.2\n"
			"domain lan\nnameserver 10.0.0.3\nnameserver 10.0.0.4\nnameserver 10.0.0.5\n"
			"nameserver 10.0.0.6\n",
			0, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}},
		DnsCase{"tab_and_no_final_newline", "nameserver 8.8.8.8\nnameserver\t255.255.255.255", 0,
			{"8.8.8.8", "255.255.255.255"}},
		DnsCase{"lines_that_do_not_scan",
			"# nameserver 9.9.9.9\nnameserver 2001:db8:0:1234:0:567:8:1\n  nameserver 10.0.0.3\n",
			0, {"", "2001:db8:0:1234", ""}},
		DnsCase{"empty_file", "", 0, {}},
		DnsCase{"missing_file", nullptr, -1, {}}),
	[](const auto &param) { return std::string(param.param.name); });

// A /proc/net/route line: addresses as the kernel prints them, the 32-bit
// value in network byte order as one hexadecimal number of this CPU.
std::string route_line(const char *ifname, const char *dest, const char *gw, unsigned flags,
		       unsigned metric, const char *mask)
{
	auto hex = [](const char *dotted) {
		in_addr addr{};
		EXPECT_EQ(inet_pton(AF_INET, dotted, &addr), 1);
		return hx::format("%08X", static_cast<unsigned>(addr.s_addr));
	};
	return hx::format("%s\t%s\t%s\t%04X\t0\t0\t%u\t%s\t0\t0\t0\n", ifname, hex(dest).c_str(),
			  hex(gw).c_str(), flags, metric, hex(mask).c_str());
}

constexpr char route_header[] =
	"Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

struct GwCase {
	const char *ifname;
	const char *gateway;	// "prepared": the buffer is left as it was
};

class Gateway : public ::testing::TestWithParam<GwCase> {};

TEST_P(Gateway, FirstUpGatewayedRouteOfTheInterface)
{
	TempDir dir;
	std::string text = std::string(route_header) +
			   route_line("br0", "0.0.0.0", "192.168.100.254", 3, 0, "0.0.0.0") +
			   route_line("mlan01", "0.0.0.0", "10.0.0.9", 3, 0, "0.0.0.0") +
			   route_line("mlan0", "10.0.0.0", "0.0.0.0", 1, 0, "255.255.255.0") +
			   route_line("mlan0", "0.0.0.0", "10.0.0.7", 2, 0, "0.0.0.0") +
			   route_line("mlan0", "10.9.0.0", "10.0.0.1", 3, 5, "255.255.0.0") +
			   route_line("mlan0", "0.0.0.0", "10.0.0.254", 3, 0, "0.0.0.0") +
			   route_line("lo", "127.0.0.0", "0.0.0.0", 1, 0, "255.0.0.0") +
			   // a metric that is not a number: the line does not scan
			   "eth9\t00000000\t0100000A\t0003\t0\t0\tx\t00000000\n";
	std::string path = dir.write("route", text);
	char gw[16] = "prepared";
	EXPECT_EQ(hx::net::read_gateway(path.c_str(), GetParam().ifname, gw), 0);
	EXPECT_STREQ(gw, GetParam().gateway);
}

INSTANTIATE_TEST_SUITE_P(Routes, Gateway,
			 ::testing::Values(GwCase{"mlan0", "10.0.0.1"}, GwCase{"br0", "192.168.100.254"},
					   GwCase{"lo", "prepared"}, GwCase{"eth9", "prepared"},
					   GwCase{"mlan", "prepared"}));

TEST(Gateway, MissingFileFails)
{
	char gw[16] = "prepared";
	EXPECT_EQ(hx::net::read_gateway("/nonexistent/route", "mlan0", gw), -1);
	EXPECT_STREQ(gw, "prepared");
}

TEST(InterfaceRecord, Loopback)
{
	if_record rec;
	memset(&rec, 'x', sizeof(rec));
	ASSERT_EQ(if_fetch("lo", &rec), 0);
	EXPECT_EQ(std::string(reinterpret_cast<char *>(rec.mac), 6), std::string(6, '\0'));
	EXPECT_STREQ(rec.ip, "127.0.0.1");
	EXPECT_STREQ(rec.netmask, "255.0.0.0");
	EXPECT_EQ(rec.has_ipv4, 1);
	hx::FilePtr f = hx::open_file("/sys/class/net/lo/mtu", "r");
	int mtu = -1;
	ASSERT_TRUE(f && fscanf(f.get(), "%d", &mtu) == 1);
	EXPECT_EQ(rec.mtu, mtu);
}

TEST(InterfaceRecord, RefusesUnknownAndLongNames)
{
	// IFNAMSIZ - 1 characters at most: a longer name is refused before
	// anything is looked up.
	const std::pair<const char *, int> cases[] = {
		{"hxnone0", ENODEV}, {"hxnone0hxnone0h", ENODEV}, {"hxnone0hxnone0hx", EINVAL},
		{nullptr, EINVAL},   {"", ENODEV},		 {"lo:", ENODEV},
		{"l", ENODEV},
	};
	for (const auto &[name, error] : cases) {
		if_record rec;
		memset(&rec, 'x', sizeof(rec));
		errno = 0;
		EXPECT_EQ(if_fetch(name, &rec), -1) << (name ? name : "NULL");
		EXPECT_EQ(errno, error) << (name ? name : "NULL");
		EXPECT_EQ(rec.mtu, 0);
		EXPECT_STREQ(rec.ip, "");
	}
}

// ---- the WAN state and uptime (the hosts file's condition)

struct StateCase {
	const char *wan_type;	// "" stores an empty value: the key counts as missing
	const char *rt_wan_if;
	int state;		// 3: 2 while the host has a DHCP client's pid file, else 1
	const char *printed;
};

class WanState : public hx::test::Stores, public ::testing::WithParamInterface<StateCase> {};

TEST_P(WanState, ByTypeAndAddress)
{
	const StateCase &c = GetParam();
	hx::test::put(sysconf, "wan_type", c.wan_type);
	hx::test::put(sysconf, "wan_if", "\"mlan0\"");
	hx::test::put(rtconf, "wan_if", c.rt_wan_if);
	int state = 0;
	std::string out = hx::test::stdout_of([&] { state = wan_get_state(); });
	int expected = c.state != 3 ? c.state : access("/var/run/udhcpc.pid", F_OK) == 0 ? 2 : 1;
	EXPECT_EQ(state, expected);
	EXPECT_EQ(out, c.printed);
}

INSTANTIATE_TEST_SUITE_P(
	Types, WanState,
	::testing::Values(StateCase{"\"none\"", "\"lo\"", 1, "***** wan_type: none *****\n"},
			  StateCase{"\"wireless_sta_private\"", "\"lo\"", 1, "***** what? *****\n"},
			  StateCase{"\"ethernet\"", "\"lo\"", 1, "***** what? *****\n"},
			  StateCase{"5", "\"lo\"", 1, "***** what? *****\n"},
			  StateCase{"\"wireless_sta\"", "\"lo\"", 0, ""},
			  StateCase{"\"wireless_sta_trust\"", "\"lo\"", 0, ""},
			  StateCase{"\"wireless_sta\"", "\"hxnone0\"", 3, ""},
			  StateCase{"\"wireless_sta\"", "\"\"", 3, ""},
			  StateCase{"", "\"lo\"", -1, ""},
			  StateCase{"\"none\"", "", -1, ""},
			  StateCase{"\"none\"", "lo", -1, ""},
			  StateCase{"none", "\"lo\"", -1, ""}));

class WanUptime : public hx::test::Stores {};

long uptime_now()
{
	struct sysinfo info;
	EXPECT_EQ(sysinfo(&info), 0);
	return info.uptime;
}

TEST_F(WanUptime, SinceTheStoredStart)
{
	const std::pair<const char *, unsigned long> cases[] = {{"\"5\"", 5}, {"7", 7}, {"\"0\"", 0}};
	for (const auto &[stored, start] : cases) {
		hx::test::put(rtconf, "wan_uptime", stored);
		unsigned long before = static_cast<unsigned long>(uptime_now()), up = 0;
		std::string out = hx::test::stdout_of([&] { up = wan_get_uptime(); });
		unsigned long after = static_cast<unsigned long>(uptime_now());
		EXPECT_EQ(out, hx::format("uptime_start:%lu\n", start));
		EXPECT_GE(up, before - start);
		EXPECT_LE(up, after - start);
	}
}

TEST_F(WanUptime, MissingOrUnparsableIsAllOnes)
{
	std::string out = hx::test::stdout_of([&] {
		EXPECT_EQ(wan_get_uptime(), ULONG_MAX);
		hx::test::put(rtconf, "wan_uptime", "word");
		EXPECT_EQ(wan_get_uptime(), ULONG_MAX);
	});
	EXPECT_EQ(out, "");
}

}  // namespace

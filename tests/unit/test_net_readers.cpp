// The resolver and route readers behind the WAN status items: the kernel's
// route table cannot be faked in the sandbox, and a fifth name server would
// only overrun the list, which no reply shows.
#include <arpa/inet.h>

#include "core/fmt.h"
#include "net/dhcp.h"
#include "tests/unit/support.h"

namespace {

TEST(NetReaders, DnsKeepsTheFirstFourNameServers)
{
	hx::test::TempDir dir;
	std::string text;
	for (int n = 1; n <= 6; n++)
		text += "nameserver 10.0.0." + std::to_string(n) + "\n";
	DnsServerList list{};
	ASSERT_EQ(hx::net::read_dns(dir.write("resolv.conf", text).c_str(), &list), 0);
	EXPECT_EQ(list.count, 4);
	EXPECT_STREQ(list.server[3], "10.0.0.4");
}

TEST(NetReaders, GatewayOfTheFirstRouteOfTheInterfaceThatIsUp)
{
	hx::test::TempDir dir;
	auto row = [](const char *name, const char *gw, const char *flags) {	// the kernel prints the address in host order
		return hx::format("%s\t00000000\t%08X\t%s\t0\t0\t0\t00000000\t0\t0\t0\n", name, inet_addr(gw), flags);
	};
	std::string table = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n" +
			    row("mlan01", "192.168.1.1", "0003") + row("mlan0", "192.168.1.2", "0002") +
			    row("mlan0", "0.0.0.0", "0001") + row("mlan0", "192.168.1.3", "0003");
	char gateway[16] = "";
	ASSERT_EQ(hx::net::read_gateway(dir.write("route", table).c_str(), "mlan0", gateway), 0);
	EXPECT_STREQ(gateway, "192.168.1.3");
}

}  // namespace

// The UPnP port-mapping service: miniupnpd's configuration file, its start,
// and its stop with the flush of the two chains that hold its mappings.
#include "net/upnp.h"

#include <stdio.h>
#include <unistd.h>

#include "core/util.h"
#include "ipc/target.h"
#include "net/conffile.h"

namespace {

using hx::conf::Store;

constexpr char conf_file[] = "/var/tmp/miniupnpd.conf";
constexpr char leases_file[] = "/var/tmp/upnp.leases";
constexpr char start_command[] = "/usr/sbin/miniupnpd -f /var/tmp/miniupnpd.conf";

constexpr hx::net::Setting head[] = {
	{Store::rtconf, "ext_ifname=", "wan_if", "\n"},
	{Store::sysconf, "listening_ip=", "lan_ipaddr", "\n"},
};

// 1 when the setting is "on", 0 for any other text, -1 when it is missing
// or does not parse.
int is_on(const char *key)
{
	auto text = hx::conf::text(Store::sysconf, key);
	return text ? *text == "on" : -1;
}

bool put_conf(FILE *file)
{
	if (!hx::net::put_settings(file, head))
		return false;
	fputs("enable_upnp=yes\n", file);
	int natpmp = is_on("upnp_natpmp");
	if (natpmp < 0)
		return false;
	fputs(natpmp != 0 ? "enable_natpmp=yes\n" : "enable_natpmp=no\n", file);
	fputs("secure_mode=yes\n"
	      "upnp_forward_chain=UPNP_FORWARD_CHAIN\n"
	      "upnp_nat_chain=UPNP_NAT_PREROUTING_CHAIN\n"
	      "system_uptime=yes\n"
	      "lease_file=/var/tmp/upnp.leases\n", file);
	return true;
}

void announce(const char *action)
{
	printf("action:%s\n", action);
	puts("revalidate_setUpnp");
}

// No "stop": the service stops on a restart with "upnp" off.
constexpr hx::ipc::Action upnp_actions[] = {
	{"start", hx::ipc::run<upnp_restart>},
	{"restart", hx::ipc::run<upnp_restart>},
};

}  // namespace

int upnp_renewConf()
{
	hx::FilePtr file = hx::open_file(conf_file, "w");
	if (!file)
		return -1;
	bool written = put_conf(file.get());
	return hx::close_file(std::move(file)) && written ? 0 : -1;
}

int upnp_start()
{
	int on = is_on("upnp");
	if (on <= 0)
		return on;
	if (upnp_renewConf() != 0)
		return -1;
	puts(start_command);
	do_system(start_command);
	return 0;
}

int upnp_stop()
{
	do_system("/usr/bin/killall miniupnpd");
	unlink("/var/run/miniupnpd.pid");
	do_system("/opt/sbin/iptables -t nat -F UPNP_NAT_PREROUTING_CHAIN");
	do_system("/opt/sbin/iptables -F UPNP_FORWARD_CHAIN");
	unlink(leases_file);
	return 0;
}

int upnp_restart()
{
	upnp_stop();
	return upnp_start();
}

const char *_revalidate_upnp(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {.actions = upnp_actions, .announce = announce});
}

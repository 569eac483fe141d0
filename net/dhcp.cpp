// The DHCP and DNS server: dnsmasq's configuration and hosts files from the
// settings, its start and stop, and the readers of the resolver and route
// files.
#include "net/dhcp.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>

#include "core/util.h"
#include "ipc/target.h"
#include "net/conffile.h"
#include "net/lanwan.h"

namespace hx::net {

namespace {

using conf::Store;

constexpr char conf_file[] = "/var/tmp/dnsmasq.conf";
constexpr char hosts_file[] = "/var/tmp/hosts";
constexpr char start_command[] = "dnsmasq -C /var/tmp/dnsmasq.conf";

constexpr Setting head[] = {
	{Store::sysconf, "interface=", "lan_if", "\n"},
	{Store::sysconf, "dhcp-range=", "dhcp_range_start", ""},
	{Store::sysconf, ",", "dhcp_range_end", ""},
	{Store::sysconf, ",", "dhcp_lease_time", "m\n"},
	{Store::sysconf, "dhcp-option=option:netmask,", "lan_netmask", "\n"},
};

constexpr Setting options[] = {
	{Store::sysconf, "dhcp-option=option:netbios-ns,", "dhcp_wins_server", "\n", true},
	{Store::sysconf, "expand-hosts\ndomain=", "dhcp_domain_name", "\n", true},
};

// The static DNS servers go before the router line; without one the device
// offers itself, after it.
bool put_dns_router(FILE *file)
{
	static constexpr const char *keys[] = {"dhcp_static_dns1", "dhcp_static_dns2", "dhcp_static_dns3"};
	std::array<std::string, 3> dns;
	for (size_t i = 0; i < dns.size(); i++) {
		std::optional<std::string> text = conf::file_text(Store::sysconf, keys[i]);
		if (!text)
			return false;
		dns[i] = std::move(*text);
	}
	bool none = dns[0].empty() && dns[1].empty() && dns[2].empty();
	if (!none) {
		fputs("dhcp-option=option:dns-server", file);
		for (const std::string &server : dns)
			if (!server.empty())
				fprintf(file, ",%s", server.c_str());
		fputc('\n', file);
	}
	std::optional<std::string> router = conf::file_text(Store::sysconf, "lan_ipaddr");
	if (!router)
		return false;
	fprintf(file, "dhcp-option=option:router,%s\n", router->c_str());
	if (none)
		fprintf(file, "dhcp-option=option:dns-server,%s\n", router->c_str());
	return true;
}

// One "dhcp-host=" line: the element's "mac", then its member second_key,
// or "ignore" without one.
bool put_host(FILE *file, json_object *element, const char *second_key)
{
	json_object *mac = json::member(element, "mac");
	json_object *second = second_key != nullptr ? json::member(element, second_key) : nullptr;
	if (!json::is(element, json_type_object) || mac == nullptr ||
	    (second_key != nullptr && second == nullptr)) {
		puts("json_object_array_get_idx failed.");
		return false;
	}
	const char *mac_text = json::text(mac);
	const char *second_text = second != nullptr ? json::text(second) : "ignore";
	if (strchr(mac_text, '\n') != nullptr || strchr(second_text, '\n') != nullptr)
		return false;
	fprintf(file, "dhcp-host=%s,%s\n", mac_text, second_text);
	return true;
}

bool put_hosts(FILE *file, const char *key, const char *second_key)
{
	auto list = conf::json(Store::sysconf, key);
	if (!list || !json::is(list->get(), json_type_array)) {
		puts("json_tokener_parse failed.");
		return false;
	}
	size_t n = json_object_array_length(list->get());
	for (size_t i = 0; i < n; i++)
		if (!put_host(file, json_object_array_get_idx(list->get(), i), second_key))
			return false;
	return true;
}

bool put_conf(FILE *file)
{
	if (!put_settings(file, head) || !put_dns_router(file) || !put_settings(file, options) ||
	    !put_hosts(file, "dhcp_staticlist", "ip") || !put_hosts(file, "dhcp_blacklist", nullptr))
		return false;
	fputs("dhcp-leasefile=/var/tmp/dnsmasq.leases\n"
	      "dhcp-authoritative\n"
	      "addn-hosts=/var/tmp/hosts\n", file);
	return true;
}

// The local domain is the product's own word.  While there is no WAN, the
// hosts that phones probe for Internet access resolve at once to 0.0.0.0:
// their check fails straight away instead of waiting for a DNS time-out,
// and they stay on the device's LAN.
int write_hosts()
{
	std::optional<std::string> ip = conf::file_text(Store::sysconf, "lan_ipaddr");
	std::optional<std::string> model =
		ip ? conf::file_text(Store::sysinfo, "product_model") : std::nullopt;
	FilePtr file = model ? open_file(hosts_file, "w") : nullptr;
	if (!file)
		return -1;
	fprintf(file.get(), "%s www.%s.hxtravel\n", ip->c_str(), model->c_str());
	if (wan_get_state() != 0)
		fputs("0.0.0.0 captive.apple.com\n"
		      "0.0.0.0 connectivitycheck.gstatic.com\n", file.get());
	return close_file(std::move(file)) ? 0 : -1;
}

// Lines are read into 512 bytes: a longer line is read in pieces.
template <typename F>
int for_each_line(const char *path, F line)
{
	FilePtr file = open_file(path, "r");
	if (!file)
		return -1;
	char text[512];
	while (fgets(text, sizeof(text), file.get()) != nullptr && line(text))
		;
	return 0;
}

}  // namespace

int read_dns(const char *path, DnsServerList *list)
{
	list->count = 0;
	return for_each_line(path, [list](const char *line) {
		if (strstr(line, "nameserver") != nullptr) {
			// A line that does not scan still takes its slot, left empty.
			char *slot = list->server[list->count++];
			memset(slot, 0, sizeof(list->server[0]));
			if (sscanf(line, "nameserver %15s", slot) != 1)
				slot[0] = '\0';
		}
		return list->count < 4;
	});
}

int read_gateway(const char *path, const char *ifname, char gateway[16])
{
	return for_each_line(path, [=](const char *line) {
		char name[17];
		unsigned long dest, gw, flags, mask;
		unsigned int metric;
		if (sscanf(line, "%16s%lx%lx%lx%*s%*s%u%lx", name, &dest, &gw, &flags, &metric, &mask) != 6 ||
		    (flags & 0x1) == 0 || strcmp(name, ifname) != 0 || gw == 0)
			return true;
		in_addr addr{static_cast<in_addr_t>(gw)};
		inet_ntop(AF_INET, &addr, gateway, 16);
		return false;
	});
}

}  // namespace hx::net

// A failure half-way leaves the file written so far.
int dhcp_renewConf()
{
	hx::FilePtr file = hx::open_file(hx::net::conf_file, "w");
	if (!file)
		return -1;
	bool written = hx::net::put_conf(file.get());
	if (!hx::close_file(std::move(file)) || !written)
		return -1;
	return hx::net::write_hosts();
}

int dhcp_start()
{
	auto server = hx::conf::text(hx::conf::Store::sysconf, "dhcp_server");
	if (!server)
		return -1;
	if (*server != "on")
		return 0;
	if (dhcp_renewConf() != 0)
		return -1;
	puts(hx::net::start_command);
	do_system(hx::net::start_command);
	return 0;
}

int dhcp_stop()
{
	do_system("/usr/bin/killall -9 dnsmasq");
	unlink(hx::net::conf_file);
	unlink(hx::net::hosts_file);
	unlink("/var/run/dnsmasq.pid");
	return 0;
}

int dhcp_restart()
{
	dhcp_stop();
	return dhcp_start();
}

int get_DNS(DnsServerList *list)
{
	return hx::net::read_dns("/etc/resolv.conf", list);
}

int get_GW(const char *ifname, char gateway[16])
{
	return hx::net::read_gateway("/proc/net/route", ifname, gateway);
}

namespace {

// "start" is a restart on purpose: a running server reads the new file.
constexpr hx::ipc::Action dhcp_actions[] = {
	{"start", hx::ipc::run<dhcp_restart>},
	{"restart", hx::ipc::run<dhcp_restart>},
	{"stop", hx::ipc::run<dhcp_stop>},
};

}  // namespace

const char *_revalidate_dhcp(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {dhcp_actions});
}

// Interface statistics: link address, MTU, IPv4 address and netmask.
#include "net/ifstat.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <string_view>

#include "core/owned.h"

namespace {

// Whether "/proc/net/dev" has a line "  NAME: counters".
bool listed(std::string_view ifname)
{
	hx::FilePtr file = hx::open_file("/proc/net/dev", "r");
	char line[512];
	while (file && fgets(line, sizeof(line), file.get()) != nullptr) {
		std::string_view name(line + strspn(line, " "));
		if (name.starts_with(ifname) && name.substr(ifname.size()).starts_with(':'))
			return true;
	}
	return false;
}

// One SIOCGIF* request for the interface; ifr holds its answer.
bool query(int fd, unsigned long request, const char *ifname, ifreq &ifr)
{
	ifr = {};
	memcpy(ifr.ifr_name, ifname, strnlen(ifname, IFNAMSIZ - 1));
	return ioctl(fd, request, &ifr) == 0;
}

// The IPv4 address in ifr_addr (where the netmask comes back too).
void address_text(const ifreq &ifr, char text[16])
{
	sockaddr_in sin;
	memcpy(&sin, &ifr.ifr_addr, sizeof(sin));
	if (inet_ntop(AF_INET, &sin.sin_addr, text, 16) == nullptr)
		text[0] = '\0';
}

bool fetch_link(int fd, const char *ifname, if_record *rec)
{
	ifreq ifr;
	if (!query(fd, SIOCGIFHWADDR, ifname, ifr))
		return false;
	memcpy(rec->mac, ifr.ifr_hwaddr.sa_data, sizeof(rec->mac));
	if (!query(fd, SIOCGIFMTU, ifname, ifr))
		return false;
	rec->mtu = ifr.ifr_mtu;
	return true;
}

// An interface without an IPv4 address is no error.
bool fetch_ipv4(int fd, const char *ifname, if_record *rec)
{
	ifreq ifr;
	if (!query(fd, SIOCGIFADDR, ifname, ifr))
		return errno == EADDRNOTAVAIL;
	address_text(ifr, rec->ip);
	rec->has_ipv4 = 1;
	if (!query(fd, SIOCGIFNETMASK, ifname, ifr))
		return false;
	address_text(ifr, rec->netmask);
	return true;
}

}  // namespace

int if_fetch(const char *ifname, if_record *rec)
{
	*rec = {};
	if (ifname == nullptr || strnlen(ifname, IFNAMSIZ) >= IFNAMSIZ) {
		errno = EINVAL;
		return -1;
	}
	if (!listed(ifname)) {
		errno = ENODEV;
		return -1;
	}
	hx::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	if (!fd)
		return -1;
	return fetch_link(fd.get(), ifname, rec) && fetch_ipv4(fd.get(), ifname, rec) ? 0 : -1;
}

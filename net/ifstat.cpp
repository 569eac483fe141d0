/* Interface statistics: the interface record of Parts 2.5 and 4.2. */
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/util.h"
#include "net/net.h"

#define PROC_NET_DEV "/proc/net/dev"

/* 1 when "/proc/net/dev" has a line for ifname ("  name: counters"). */
static int
if_listed(const char *ifname)
{
	char line[512];
	size_t len = strlen(ifname);
	int found = 0;
	FILE *fp = fopen(PROC_NET_DEV, "r");

	if (fp == NULL)
		return 0;
	while (!found && fgets(line, sizeof(line), fp) != NULL) {
		const char *name = line + strspn(line, " ");

		found = strncmp(name, ifname, len) == 0 && name[len] == ':';
	}
	fclose(fp);
	return found;
}

static int
if_ioctl(int fd, unsigned long request, const char *ifname, struct ifreq *ifr)
{
	memset(ifr, 0, sizeof(*ifr));
	strlcpy(ifr->ifr_name, ifname, sizeof(ifr->ifr_name));
	return ioctl(fd, request, ifr);
}

/* The IPv4 address in ifr_addr (also where the netmask is returned) as a
 * dotted quad into text[16]. */
static void
if_addr_text(const struct ifreq *ifr, char text[16])
{
	struct sockaddr_in sin;

	memcpy(&sin, &ifr->ifr_addr, sizeof(sin));
	if (inet_ntop(AF_INET, &sin.sin_addr, text, 16) == NULL)
		text[0] = '\0';
}

/* Address and netmask; an interface without an IPv4 address is no error. */
static int
if_fetch_ipv4(int fd, const char *ifname, struct if_record *rec)
{
	struct ifreq ifr;

	if (if_ioctl(fd, SIOCGIFADDR, ifname, &ifr) != 0)
		return errno == EADDRNOTAVAIL ? 0 : -1;
	if_addr_text(&ifr, rec->ip);
	rec->has_ipv4 = 1;
	if (if_ioctl(fd, SIOCGIFNETMASK, ifname, &ifr) != 0)
		return -1;
	if_addr_text(&ifr, rec->netmask);
	return 0;
}

static int
if_fetch_link(int fd, const char *ifname, struct if_record *rec)
{
	struct ifreq ifr;

	if (if_ioctl(fd, SIOCGIFHWADDR, ifname, &ifr) != 0)
		return -1;
	memcpy(rec->mac, ifr.ifr_hwaddr.sa_data, sizeof(rec->mac));
	if (if_ioctl(fd, SIOCGIFMTU, ifname, &ifr) != 0)
		return -1;
	rec->mtu = ifr.ifr_mtu;
	return 0;
}

int
if_fetch(const char *ifname, struct if_record *rec)
{
	int fd, ret;

	memset(rec, 0, sizeof(*rec));
	if (ifname == NULL || strnlen(ifname, IFNAMSIZ) >= IFNAMSIZ) {
		errno = EINVAL;
		return -1;
	}
	if (!if_listed(ifname)) {
		errno = ENODEV;
		return -1;
	}
	fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return -1;
	ret = if_fetch_link(fd, ifname, rec) == 0 && if_fetch_ipv4(fd, ifname, rec) == 0 ? 0 : -1;
	close(fd);
	return ret;
}

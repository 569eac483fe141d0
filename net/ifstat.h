// Interface statistics, read with ioctl and from /proc/net/dev.
#ifndef HX_NET_IFSTAT_H
#define HX_NET_IFSTAT_H

struct if_record {
	unsigned char mac[6];
	char ip[16];		// dotted quad, "" without an IPv4 address
	char netmask[16];
	int mtu;
	int has_ipv4;		// 1 when the interface holds an IPv4 address
};

// Fills *rec (zeroed first) for the interface ifname: 0, or -1 with errno
// when the interface does not exist (ENODEV), its name is too long
// (EINVAL) or it cannot be read.
int if_fetch(const char *ifname, if_record *rec);

#endif

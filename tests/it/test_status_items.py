"""The pref-get status items: what each adds to "infos" from the stores, files, interfaces and programs."""
import json
import os
import re
import time

import pytest

from helpers import revalidate, send, stdout_since
from hxsim import jsonc_text
from net_util import SUCCESS, conf, net  # noqa: F401

OWNERS = dict(active_user="user0_name", user0_name="Default user", user0_icon="0", user1_name="Owner1", user1_icon="1",
              user2_name="Owner2", user2_icon="2", user3_name="Owner3", user3_icon="3")
BOARD, VER = {"s_boardinfo": "HX-R1 main board rev A, 32MB RAM, Marvell SD8787 Wi-Fi"}, "HX-R1_V1.0.0_20240304"
BR0 = {"dest": "192.168.100.0", "gw": "0.0.0.0", "subnet": "255.255.255.0", "metric": "0", "default": "no", "inf": "br0"}
ADDR, NA, MODEL = [("addr", "add", "10.1.2.3/24", "dev", "mlan0")], "N/A", {"p_model": "HX-R1"}
WAN, WHAT = {"wan_type": "wireless_sta", "rt:wan_if": "mlan0"}, "***** what? *****\n"
LEASE_HEAD = "1795000000 aa:bb:cc:dd:ee:01 10.0.0.1 host "


def wan(mac, ip, mask, mtu, up, state):
    return {"s_waninfo": dict(mac=mac, ip=ip, netmask=mask, mtu=mtu, wan_uptime=up, state=state)}


def lan(mac, ip, mask, mtu):
    return {"s_laninfo": dict(mac=mac, ip=ip, netmask=mask, mtu=mtu)}


def sta(n, mac, rssi):
    return f"STA {n} information:\n=====================\nMAC Address: {mac}\nPower mfg status: active\nRssi : {rssi} dBm\n\n"


def lease(end, mac, ip, host, cid):
    return dict(expires=str(end), mac=mac, ipaddr=ip, hostname=host, clientid=cid)


# id: (setup, names, infos, output). setup: records, "/path": file text (None: absent), "ip": ip commands, "uaputl": its
# output. MAC(ifname) is the interface's address, NOW the clock, UPTIME the WAN's; "expires" is shown as the lease's end.
CASES = {
    "factory": ({}, "p_model p_description s_osinfo s_boardinfo s_rootfsver fw_version wl_radio ws_state fwup_status owner_list "
                "s_wan_gw s_laninfo s_stalist s_dhcpleases s_waninfo s_routesactive s_upnplist s_logs s_time s_time P_MODEL s_time+",
                {**MODEL, "p_description": "HX Travel Router", "s_osinfo": "Linux HX-R1 2.6.32.68 #1 PREEMPT Mon Mar 4 10:00:00 UTC 2024 "
                 "mips GNU/Linux", **BOARD, "s_rootfsver": VER, "fw_version": VER, "wl_radio": "on", "ws_state": "off",
                 "fwup_status": {"upgrade_stage": "idle"}, "owner_list": OWNERS, "s_wan_gw": "", **lan("MAC(br0)", "192.168.100.1",
                 "255.255.255.0", "1500"), "s_stalist": [], "s_dhcpleases": [], **wan(NA, NA, NA, NA, NA, "Disconnected"),
                 "s_routesactive": [{**BR0, "inf": "br0(LAN)"}], "s_upnplist": [], "s_logs": [], "s_time": "NOW"},
                "***** wan_type: none *****\n"),
    "uname-absent": ({"rt:uname": None}, "s_osinfo s_boardinfo", BOARD, ""),
    "texts-not-parsed": ({"rt:uname": b'"q" {no\0', "rt:boardinfo": b"\0"}, "s_osinfo s_boardinfo", {"s_osinfo": '"q" {no'}, ""),
    "rootfs-first-line": ({"rt:rootfs.ver": b"V1.0.1\nbuilt\n\0"}, "s_rootfsver fw_version", {"s_rootfsver": "V1.0.1", "fw_version": "V1.0.1"}, ""),
    "rootfs-63": ({"rt:rootfs.ver": b"V" * 80 + b"\0"}, "fw_version", {"fw_version": "V" * 63}, ""),
    "rootfs-absent": ({"rt:rootfs.ver": None}, "s_rootfsver fw_version p_model", MODEL, ""),
    "states-absent": ({"rt:wl_radio": None, "rt:ws_state": None, "rt:fwup_status": None}, "wl_radio ws_state fwup_status",
                      {"wl_radio": "", "ws_state": "", "fwup_status": ""}, ""),
    "states-typed": ({"rt:ws_state": b"[1,2]\0", "rt:fwup_status": b'{"upgrade_stage": "done", "progress": 100}\0'}, "ws_state fwup_status",
                     {"ws_state": [1, 2], "fwup_status": {"upgrade_stage": "done", "progress": 100}}, ""),
    "states-unparsable": ({"rt:wl_radio": b"on\0", "rt:ws_state": b"null\0"}, "wl_radio ws_state p_model", MODEL, ""),
    "product-unparsable": ({"info:product_model": None, "info:product_description": b"HX\0"}, "p_model p_description wl_radio",
                           {"wl_radio": "on"}, ""),
    "owner-icon-missing": ({"user2_icon": None}, "owner_list", {"owner_list": dict(list(OWNERS.items())[:6])}, ""),
    "owner-unparsable": ({"user0_icon": b"zero\0"}, "owner_list", {"owner_list": dict(list(OWNERS.items())[:2])}, ""),
    "owner-first-missing": ({"active_user": None}, "owner_list", {"owner_list": {}}, ""),
    "owner-types": ({"user3_icon": 7, "user3_name": {"a": 1}}, "owner_list", {"owner_list": {**OWNERS, "user3_name": {"a": 1}, "user3_icon": 7}}, ""),
    "gw-no-wan-if": ({"rt:wan_if": None}, "s_wan_gw", {"s_wan_gw": NA}, ""), "gw-short": ({"rt:wan_if": b"5\0"}, "s_wan_gw", {"s_wan_gw": NA}, ""),
    "gw-word": ({"rt:wan_if": b"mlan0\0"}, "s_wan_gw p_model", MODEL, ""),
    "gw-default": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "default", "via", "10.1.2.254")]}, "s_wan_gw", {"s_wan_gw": "10.1.2.254"}, ""),
    "gw-first": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "10.9.0.0/16", "via", "10.1.2.1")]}, "s_wan_gw", {"s_wan_gw": "10.1.2.1"}, ""),
    "gw-no-route": ({"rt:wan_if": "mlan0", "ip": ADDR}, "s_wan_gw", {"s_wan_gw": ""}, ""),
    "dns-two": ({"/etc/resolv.conf": "# udhcpc\nsearch lan\nnameserver 10.1.2.254\nnameserver\t8.8.4.4"}, "s_wan_dns",
                {"s_wan_dns": "10.1.2.254, 8.8.4.4"}, ""),
    "dns-six": ({"/etc/resolv.conf": "".join(f"nameserver 10.0.0.{n}\n" for n in range(1, 7))}, "s_wan_dns",
                {"s_wan_dns": "10.0.0.1, 10.0.0.2, 10.0.0.3, 10.0.0.4"}, ""),
    "dns-unscannable": ({"/etc/resolv.conf": "# nameserver 9.9.9.9\nnameserver 2001:db8:0:1234:0:567:8:1\n nameserver 1.1.1.1\n"},
                        "s_wan_dns", {"s_wan_dns": ", 2001:db8:0:1234, "}, ""),
    "dns-none": ({"/etc/resolv.conf": "search lan\n"}, "s_wan_dns", {"s_wan_dns": ""}, ""),
    "dns-no-file": ({"/etc/resolv.conf": None}, "s_wan_dns", {"s_wan_dns": NA}, ""),
    "lan-missing": ({"rt:lan_if": None}, "s_laninfo", {"s_laninfo": {}}, ""),
    "lan-unknown": ({"rt:lan_if": "br9"}, "s_laninfo", lan("00:00:00:00:00:00", "", "", "0"), ""),
    "lan-mlan0": ({"rt:lan_if": "mlan0", "ip": [("addr", "add", "10.1.2.3/16", "dev", "mlan0"), ("link", "set", "mlan0", "mtu", "1400")]},
                  "s_laninfo", lan("MAC(mlan0)", "10.1.2.3", "255.255.0.0", "1400"), ""),
    "stations": ({"uaputl": "Number of STA = 2\n\n" + sta(1, "00:50:43:21:0a:b1:ff:ee", -123456) + sta(2, "8c:85:90:12:34:56", -71)},
                 "s_stalist", {"s_stalist": [{"mac": "00:50:43:21:0a:b1", "rssi": "-1234"}, {"mac": "8c:85:90:12:34:56", "rssi": "-71"}]}, ""),
    "stations-none": ({"uaputl": "Number of STA = 0\n\n"}, "s_stalist", {"s_stalist": []}, ""),
    "stations-failing": ({"uaputl": "ERR:UAP_GET_STA_LIST is not supported\n", "fail": 1}, "s_stalist", {"s_stalist": []}, ""),
    "stations-32": ({"uaputl": "Number of STA = 40\n\n" + "".join(sta(n + 1, f"00:50:43:00:00:{n:02x}", f"-{n}") for n in range(40))},
                    "s_stalist", {"s_stalist": [{"mac": f"00:50:43:00:00:{n:02x}", "rssi": f"-{n}"} for n in range(32)]}, ""),
    "leases": ({"/var/tmp/dnsmasq.leases": "2000000000 aa:bb:cc:dd:ee:01 192.168.100.101 phone 01:aa\n2000000000 aa:02 1.1.1.2 laptop\n"
                "1000 aa:03 1.1.1.3 * *\n0  aa:04 10.0.0.1 host id extra\n0 aa:05 10.0.0.2 host id"}, "s_dhcpleases",
               {"s_dhcpleases": [lease(2000000000, "aa:bb:cc:dd:ee:01", "192.168.100.101", "phone", "01:aa\n"), lease(1000, "aa:03", "1.1.1.3",
                                 "*", "*\n"), lease(0, "", "aa:04", "10.0.0.1", "host"), lease(0, "aa:05", "10.0.0.2", "host", "id")]}, ""),
    "lease-4095": ({"/var/tmp/dnsmasq.leases": LEASE_HEAD + "c" * 5000 + "\n"}, "s_dhcpleases",
                   {"s_dhcpleases": [lease(1795000000, "aa:bb:cc:dd:ee:01", "10.0.0.1", "host", "c" * (4095 - len(LEASE_HEAD)))]}, ""),
    "leases-no-file": ({"/var/tmp/dnsmasq.leases": None}, "s_dhcpleases", {"s_dhcpleases": []}, ""),
    "wan-up": ({**WAN, "rt:wan_uptime": "5", "ip": ADDR}, "s_waninfo", wan("MAC(mlan0)", "10.1.2.3", "255.255.255.0", "1500", "UPTIME",
               "Connected"), "uptime_start:5\n"),
    "wan-connecting": ({**WAN, "wan_type": "wireless_sta_trust", "/var/run/udhcpc.pid": "42\n"}, "s_waninfo",
                       wan("MAC(mlan0)", NA, NA, "1500", NA, "Connecting"), ""),
    "wan-private": ({**WAN, "wan_type": "wireless_sta_private", "ip": ADDR}, "s_waninfo",
                    wan("MAC(mlan0)", "10.1.2.3", "255.255.255.0", "1500", NA, "Disconnected"), WHAT),
    "wan-uptime-word": ({**WAN, "rt:wan_uptime": b"soon\0", "ip": ADDR}, "s_waninfo",
                        wan("MAC(mlan0)", "10.1.2.3", "255.255.255.0", "1500", NA, "Connected"), ""),
    "wan-unknown-if": ({**WAN, "rt:wan_if": "mlan7"}, "s_waninfo", wan(NA, NA, NA, NA, NA, "Disconnected"), ""),
    "routes-unmarked": ({"rt:wan_if": None, "rt:lan_if": b"br0\0"}, "s_routesactive", {"s_routesactive": [BR0]}, ""),
    "routes-wan": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "default", "via", "10.1.2.254", "metric", "5"),
                                                          ("route", "add", "172.16.0.0/12", "via", "10.1.2.1")]}, "s_routesactive", "ROUTES", ""),
    "upnp": ({"/var/tmp/upnp.leases": "TCP:8080:192.168.100.101:80:1795003600:web: port 80 \r\nUDP:5000:1.1.1.2:5000:0:\nUDP:6000:1.1.1.2\n"
              "TCP:22:1.1.1.3:22:0:ssh/shell\n"}, "s_upnplist", {"s_upnplist": [dict(proto=p, eport=e, iaddr=a, iport=i, desc=d) for p, e, a, i, d in [
                  ("TCP", "8080", "192.168.100.101", "80", "web: port 80"), ("UDP", "5000", "1.1.1.2", "5000", ""), ("TCP", "22", "1.1.1.3", "22",
                                                                                                                    "ssh/shell")]]}, ""),
    "logs": ({"/mnt/rwdata/tos.log": "Nov 22 21:58:51 HX-R1 syslog.info syslogd started: BusyBox v1.36.1\n2024-03-04 07:00:01 HX-R1 user.info x: y\n"
              "Dec  1 08:00:01 HX-R1 <13> message without owner\nMar  4 07:00:01 HX-R1\nMar  4 07:00\nMar  4 07:00:01 \n"}, "s_logs",
             {"s_logs": [dict(date=d, time=t, hostname="HX-R1", priority=p, owner=o, content=c) for d, t, p, o, c in [
                 ("Nov 22", "21:58:51", "syslog.info", "syslogd started", "BusyBox v1.36.1"), ("Dec 1", "08:00:01", "<13>", "", "message without owner")]]}, ""),
}


def inside(sandbox, *argv):
    return sandbox.run(list(argv), check=True).stdout.decode()


def kernel_routes(sandbox):
    """/proc/net/route as s_routesactive shows it, each address column as the kernel means it."""
    def dotted(h):
        return ".".join(str(b) for b in int(h, 16).to_bytes(4, "little"))
    rows = [f.split() for f in inside(sandbox, "cat", "/proc/net/route").splitlines()[1:]]
    assert len(rows) == 4
    return {"s_routesactive": [{"dest": dotted(f[1]), "gw": dotted(f[2]), "subnet": dotted(f[7]), "metric": f[6], "default": "yes" if
                                f[1] == f[7] == "00000000" else "no", "inf": f[0] + {"mlan0": "(WAN)", "br0": "(LAN)"}.get(f[0], "")} for f in rows]}


@pytest.mark.parametrize("setup, names, infos, out", CASES.values(), ids=CASES.keys())
def test_items(daemon, sandbox, conf, net, setup, names, infos, out):
    setup, saved = dict(setup), []
    for args in setup.pop("ip", []):
        net(*args, *(("dev", "mlan0") if args[0] == "route" else ()))
    if "uaputl" in setup:
        sandbox.stub("/sbin/uaputl.exe", f"cat <<'EOF'\n{setup.pop('uaputl')}EOF\nexit {setup.pop('fail', 0)}\n")
    for path in [k for k in setup if k.startswith("/")]:
        saved.append((path, sandbox.read(path) if sandbox.exists(path) else None))
        sandbox.remove(path) if setup[path] is None else sandbox.write(path, setup.pop(path))
    conf({k: v for k, v in setup.items() if not k.startswith("/")})
    try:
        for _ in range(20):  # until the clock and the uptime stay in one second around the request
            sandbox.clear_cmdlog()
            t0, up0, before = int(time.time()), inside(sandbox, "cat", "/proc/uptime").split(".")[0], daemon.stdout()
            reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": names.replace("+", " ").split(" ")}})
            printed = stdout_since(sandbox, daemon, before)
            if int(time.time()) == t0 and inside(sandbox, "cat", "/proc/uptime").split(".")[0] == up0:
                break
    finally:
        for path, data in saved:
            sandbox.remove(path) if data is None else sandbox.write(path, data)
        sandbox.stub("/sbin/uaputl.exe", "exit 0\n")
        sandbox.run(["ip", "link", "set", "mlan0", "mtu", "1500"], check=True)
    text = jsonc_text(kernel_routes(sandbox) if infos == "ROUTES" else infos)
    for ifname in ("br0", "mlan0"):
        text = text.replace(f"MAC({ifname})", inside(sandbox, "cat", f"/sys/class/net/{ifname}/address").strip().upper())
    reply = re.sub(rb'"expires": "(-?\d+)"', lambda m: b'"expires": "%d"' % (int(m[1]) + t0), reply).replace(b'"s_time": "%d"' % t0, b'"s_time": "NOW"')
    # sysinfo(2) rounds the uptime up; the WAN came up at 5
    reply = reply.replace(b'"wan_uptime": "%d"' % (int(up0) + 1 - 5), b'"wan_uptime": "UPTIME"')
    assert (reply, printed) == (b'{ "arguments": { "confs": { }, "infos": ' + text.encode() + b' }, "result": "success" }', out)
    assert sandbox.cmdlog() == ([["/sbin/uaputl.exe", "sta_list"]] if "s_stalist" in names else [])


def test_system_information_and_owner_change(daemon, sandbox):
    info = json.loads(send(sandbox, {"method": "pref-get", "arguments": {"infos": ["s_sysinfo"]}}))["arguments"]["infos"]["s_sysinfo"]
    up = float(inside(sandbox, "cat", "/proc/uptime").split()[0])
    assert list(info) == ["uptime", "loads", "totalram", "freeram"] and re.fullmatch(r"(\d+\.\d\d, ){2}\d+\.\d\d", info["loads"])
    assert int(up) - 2 <= int(info["uptime"]) <= int(up) + 1 and int(info["freeram"]) <= int(info["totalram"])
    assert sandbox.emulator or int(info["totalram"]) == os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"owner_chg": {"user1_name": "x"}}) == SUCCESS and sandbox.cmdlog() == []

"""The pref-get status items: what each adds to "infos" from the stores, files, interfaces and programs."""
import json, os, re, time  # noqa: E401
import pytest

from helpers import send, stdout_since
from hxfakes import station_list
from hxsim import jsonc_text
from net_util import conf, net  # noqa: F401

OWNERS = dict(active_user="user0_name", user0_name="Default user", user0_icon="0", user1_name="Owner1", user1_icon="1",
              user2_name="Owner2", user2_icon="2", user3_name="Owner3", user3_icon="3")
BOARD, VER = {"s_boardinfo": "HX-R1 main board rev A, 32MB RAM, Marvell SD8787 Wi-Fi"}, "HX-R1_V1.0.0_20240304"
ADDR, NA, MODEL, WHAT = [("addr", "add", "10.1.2.3/24", "dev", "mlan0")], "N/A", {"p_model": "HX-R1"}, "***** what? *****\n"
WAN, LEASE_HEAD = {"wan_type": "wireless_sta", "rt:wan_if": "mlan0"}, "1795000000 aa:bb:cc:dd:ee:01 10.0.0.1 host "


def fields(*names):
    return lambda *texts: [dict(zip(names, t.split("|"))) for t in texts]


def read(sandbox, path):
    return sandbox.run(["cat", path], check=True).stdout.decode()


WANINFO, LANINFO = fields("mac", "ip", "netmask", "mtu", "wan_uptime", "state"), fields("mac", "ip", "netmask", "mtu")
ROUTES, LEASES = fields("dest", "gw", "subnet", "metric", "default", "inf"), fields("expires", "mac", "ipaddr", "hostname", "clientid")
UPNP, LOGS = fields("proto", "eport", "iaddr", "iport", "desc"), fields("date", "time", "hostname", "priority", "owner", "content")
BR0, DOWN = ROUTES("192.168.100.0|0.0.0.0|255.255.255.0|0|no|br0")[0], {"s_waninfo": WANINFO("N/A|N/A|N/A|N/A|N/A|Disconnected")[0]}
# id: (setup, names, infos, output); objects of fields() are written "value|value|...". setup: records, "/path": file text (None: absent), "ip": ip commands, "uaputl": its
# output. MAC(ifname) is the interface's address, NOW the clock, UPTIME the WAN's; "expires" is shown as the lease's end
CASES = {"factory": ({}, "p_model p_description s_osinfo s_boardinfo s_rootfsver fw_version wl_radio ws_state fwup_status owner_list s_wan_gw s_laninfo "
                "s_stalist s_dhcpleases s_waninfo s_routesactive s_upnplist s_logs s_time s_time P_MODEL s_time+", {
                    **MODEL, "p_description": "HX Travel Router", "s_osinfo": "Linux HX-R1 2.6.32.68 #1 PREEMPT Mon Mar 4 10:00:00 UTC 2024 mips GNU/Linux",
                    **BOARD, "s_rootfsver": VER, "fw_version": VER, "wl_radio": "on", "ws_state": "off", "fwup_status": {"upgrade_stage": "idle"},
                    "owner_list": OWNERS, "s_wan_gw": "", "s_laninfo": LANINFO("MAC(br0)|192.168.100.1|255.255.255.0|1500")[0], "s_stalist": [],
                    "s_dhcpleases": [], **DOWN, "s_routesactive": [{**BR0, "inf": "br0(LAN)"}], "s_upnplist": [], "s_logs": [], "s_time": "NOW"},
                "***** wan_type: none *****\n"), "uname-absent": ({"rt:uname": None}, "s_osinfo s_boardinfo", BOARD, ""),
    "texts-not-parsed": ({"rt:uname": b'"q" {no\0', "rt:boardinfo": b"\0"}, "s_osinfo s_boardinfo", {"s_osinfo": '"q" {no'}, ""),
    "rootfs-first-line": ({"rt:rootfs.ver": b"V1.0.1\nbuilt\n\0"}, "s_rootfsver fw_version", {"s_rootfsver": "V1.0.1", "fw_version": "V1.0.1"}, ""),
    "rootfs-63": ({"rt:rootfs.ver": b"V" * 80 + b"\0"}, "fw_version", {"fw_version": "V" * 63}, ""),
    "rootfs-absent": ({"rt:rootfs.ver": None}, "s_rootfsver fw_version p_model", MODEL, ""),
    "states-absent": ({"rt:wl_radio": None, "rt:ws_state": None, "rt:fwup_status": None}, "wl_radio ws_state fwup_status",
                      {"wl_radio": "", "ws_state": "", "fwup_status": ""}, ""),
    "states-typed": ({"rt:ws_state": b"[1,2]\0", "rt:fwup_status": b'{"upgrade_stage": "done", "progress": 100}\0'}, "ws_state fwup_status",
                     {"ws_state": [1, 2], "fwup_status": {"upgrade_stage": "done", "progress": 100}}, ""),
    "states-unparsable": ({"rt:wl_radio": b"on\0", "rt:ws_state": b"null\0"}, "wl_radio ws_state p_model", MODEL, ""),
    "product-unparsable": ({"info:product_model": None, "info:product_description": b"HX\0"}, "p_model p_description wl_radio", {"wl_radio": "on"}, ""),
    "owner-icon-missing": ({"user2_icon": None}, "owner_list", {"owner_list": dict(list(OWNERS.items())[:6])}, ""),
    "owner-unparsable": ({"user0_icon": b"zero\0"}, "owner_list", {"owner_list": dict(list(OWNERS.items())[:2])}, ""),
    "owner-first-missing": ({"active_user": None}, "owner_list", {"owner_list": {}}, ""),
    "owner-types": ({"user3_icon": 7, "user3_name": {"a": 1}}, "owner_list", {"owner_list": {**OWNERS, "user3_name": {"a": 1}, "user3_icon": 7}}, ""),
    "gw-no-wan-if": ({"rt:wan_if": None}, "s_wan_gw", {"s_wan_gw": NA}, ""), "gw-short": ({"rt:wan_if": b"5\0"}, "s_wan_gw", {"s_wan_gw": NA}, ""),
    "gw-word": ({"rt:wan_if": b"mlan0\0"}, "s_wan_gw p_model", MODEL, ""), "gw-no-route": ({"rt:wan_if": "mlan0", "ip": ADDR}, "s_wan_gw", {"s_wan_gw": ""}, ""),
    "gw-default": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "default", "via", "10.1.2.254")]}, "s_wan_gw", {"s_wan_gw": "10.1.2.254"}, ""),
    "gw-first": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "10.9.0.0/16", "via", "10.1.2.1")]}, "s_wan_gw", {"s_wan_gw": "10.1.2.1"}, ""),
    "dns-two": ({"/etc/resolv.conf": "# udhcpc\nsearch lan\nnameserver 10.1.2.254\nnameserver\t8.8.4.4"}, "s_wan_dns", {"s_wan_dns": "10.1.2.254, 8.8.4.4"}, ""),
    "dns-six": ({"/etc/resolv.conf": "".join(f"nameserver 10.0.0.{n}\n" for n in range(1, 7))}, "s_wan_dns", {"s_wan_dns": "10.0.0.1, 10.0.0.2, 10.0.0.3, 10.0.0.4"}, ""),
    "dns-unscannable": ({"/etc/resolv.conf": "# nameserver 9.9.9.9\nnameserver 2001:db8:0:1234:0:567:8:1\n nameserver 1.1.1.1\n"}, "s_wan_dns",
                        {"s_wan_dns": ", 2001:db8:0:1234, "}, ""), "dns-none": ({"/etc/resolv.conf": "search lan\n"}, "s_wan_dns", {"s_wan_dns": ""}, ""),
    "dns-no-file": ({"/etc/resolv.conf": None}, "s_wan_dns", {"s_wan_dns": NA}, ""), "lan-missing": ({"rt:lan_if": None}, "s_laninfo", {"s_laninfo": {}}, ""),
    "lan-unknown": ({"rt:lan_if": "br9"}, "s_laninfo", {"s_laninfo": LANINFO("00:00:00:00:00:00|||0")[0]}, ""),
    "lan-mlan0": ({"rt:lan_if": "mlan0", "ip": [("addr", "add", "10.1.2.3/16", "dev", "mlan0"), ("link", "set", "mlan0", "mtu", "1400")]}, "s_laninfo",
                  {"s_laninfo": LANINFO("MAC(mlan0)|10.1.2.3|255.255.0.0|1400")[0]}, ""),
    "stations": ({"uaputl": station_list([("00:50:43:21:0a:b1:ff:ee", -123456), ("8c:85:90:12:34:56", -71)])}, "s_stalist",
                 {"s_stalist": fields("mac", "rssi")("00:50:43:21:0a:b1|-1234", "8c:85:90:12:34:56|-71")}, ""),
    "stations-none": ({"uaputl": station_list([])}, "s_stalist", {"s_stalist": []}, ""),
    "stations-failing": ({"uaputl": "ERR:UAP_GET_STA_LIST is not supported\n", "fail": 1}, "s_stalist", {"s_stalist": []}, ""),
    "stations-32": ({"uaputl": station_list([(f"00:50:43:00:00:{n:02x}", f"-{n}") for n in range(40)])}, "s_stalist",
                    {"s_stalist": [{"mac": f"00:50:43:00:00:{n:02x}", "rssi": f"-{n}"} for n in range(32)]}, ""),
    "leases": ({"/var/tmp/dnsmasq.leases": "2000000000 aa:01 1.1.1.1 phone 01:aa\n2000000000 aa:02 1.1.1.2 laptop\n1000 aa:03 1.1.1.3 * *\n"
                "0  aa:04 1.1.1.4 host id extra\n0 aa:05 1.1.1.5 host id"}, "s_dhcpleases", {"s_dhcpleases": LEASES(
                    "2000000000|aa:01|1.1.1.1|phone|01:aa\n", "1000|aa:03|1.1.1.3|*|*\n", "0||aa:04|1.1.1.4|host", "0|aa:05|1.1.1.5|host|id")}, ""),
    "lease-4095": ({"/var/tmp/dnsmasq.leases": LEASE_HEAD + "c" * 5000 + "\n"}, "s_dhcpleases",
                   {"s_dhcpleases": LEASES(LEASE_HEAD.replace(" ", "|") + "c" * (4095 - len(LEASE_HEAD)))}, ""),
    "leases-no-file": ({"/var/tmp/dnsmasq.leases": None}, "s_dhcpleases", {"s_dhcpleases": []}, ""),
    "wan-up": ({**WAN, "rt:wan_uptime": "5", "ip": ADDR}, "s_waninfo", {"s_waninfo": WANINFO("MAC(mlan0)|10.1.2.3|255.255.255.0|1500|UPTIME|Connected")[0]},
               "uptime_start:5\n"), "wan-connecting": ({**WAN, "wan_type": "wireless_sta_trust", "/var/run/udhcpc.pid": "42\n"}, "s_waninfo",
                       {"s_waninfo": WANINFO("MAC(mlan0)|N/A|N/A|1500|N/A|Connecting")[0]}, ""),
    "wan-private": ({**WAN, "wan_type": "wireless_sta_private", "ip": ADDR}, "s_waninfo",
                    {"s_waninfo": WANINFO("MAC(mlan0)|10.1.2.3|255.255.255.0|1500|N/A|Disconnected")[0]}, WHAT),
    "wan-uptime-word": ({**WAN, "rt:wan_uptime": b"soon\0", "ip": ADDR}, "s_waninfo", {"s_waninfo": WANINFO("MAC(mlan0)|10.1.2.3|255.255.255.0|1500|N/A|Connected")[0]}, ""),
    "wan-unknown-if": ({**WAN, "rt:wan_if": "mlan7"}, "s_waninfo", DOWN, ""),
    "routes-unmarked": ({"rt:wan_if": None, "rt:lan_if": b"br0\0"}, "s_routesactive", {"s_routesactive": [BR0]}, ""),
    "routes-wan": ({"rt:wan_if": "mlan0", "ip": ADDR + [("route", "add", "default", "via", "10.1.2.254", "metric", "5"),
                                                          ("route", "add", "172.16.0.0/12", "via", "10.1.2.1")]}, "s_routesactive", {"s_routesactive": ROUTES(
                       "0.0.0.0|10.1.2.254|0.0.0.0|5|yes|mlan0(WAN)", "10.1.2.0|0.0.0.0|255.255.255.0|0|no|mlan0(WAN)",
                       "172.16.0.0|10.1.2.1|255.240.0.0|0|no|mlan0(WAN)", "192.168.100.0|0.0.0.0|255.255.255.0|0|no|br0(LAN)")}, ""),
    "upnp": ({"/var/tmp/upnp.leases": "TCP:8080:1.1.1.1:80:1795003600:web: port 80 \r\nUDP:5000:1.1.1.2:5000:0:\nUDP:6000:1.1.1.2\nTCP:22:1.1.1.3:22:0:a/b\n"},
             "s_upnplist", {"s_upnplist": UPNP("TCP|8080|1.1.1.1|80|web: port 80", "UDP|5000|1.1.1.2|5000|", "TCP|22|1.1.1.3|22|a/b")}, ""),
    "logs": ({"/mnt/rwdata/tos.log": "Nov 22 21:58:51 HX-R1 syslog.info syslogd started: BusyBox v1.36\n2024-03-04 07:00:01 HX-R1 user.info x: y\n"
              "Dec  1 08:00:01 HX-R1 <13> no owner\nMar  4 07:00:01 HX-R1\nMar  4 07:00\nMar  4 07:00:01 \n"}, "s_logs", {"s_logs": LOGS(
                  "Nov 22|21:58:51|HX-R1|syslog.info|syslogd started|BusyBox v1.36", "Dec 1|08:00:01|HX-R1|<13>||no owner")}, ""),}
@pytest.mark.parametrize("setup, names, infos, out", CASES.values(), ids=CASES.keys())
def test_items(daemon, sandbox, conf, net, setup, names, infos, out):
    setup = dict(setup)
    files = {k: setup.pop(k) for k in list(setup) if k.startswith("/")}
    saved = {p: sandbox.read(p) if sandbox.exists(p) else None for p in files}
    for args in setup.pop("ip", []):
        net(*args, *(("dev", "mlan0") if args[0] == "route" else ()))
    sandbox.stub("/sbin/uaputl.exe", f"cat <<'EOF'\n{setup.pop('uaputl', '')}EOF\nexit {setup.pop('fail', 0)}\n")
    conf(setup)
    try:
        [sandbox.remove(p) if t is None else sandbox.write(p, t) for p, t in files.items()]
        for _ in range(20):  # until the clock and the uptime stay in one second around the request
            sandbox.clear_cmdlog()
            t0, up0, before = int(time.time()), read(sandbox, "/proc/uptime").split(".")[0], daemon.stdout()
            reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": names.replace("+", " ").split(" ")}})
            printed = stdout_since(sandbox, daemon, before)
            if int(time.time()) == t0 and read(sandbox, "/proc/uptime").split(".")[0] == up0:
                break
    finally:
        [sandbox.remove(p) if t is None else sandbox.write(p, t) for p, t in saved.items()]
        sandbox.stub("/sbin/uaputl.exe", "exit 0\n") or sandbox.run(["ip", "link", "set", "mlan0", "mtu", "1500"], check=True)
    text = jsonc_text(infos)
    for ifname in ("br0", "mlan0"):
        text = text.replace(f"MAC({ifname})", read(sandbox, f"/sys/class/net/{ifname}/address").strip().upper())
    reply = re.sub(rb'"expires": "(-?\d+)"', lambda m: b'"expires": "%d"' % (int(m[1]) + t0), reply).replace(b'"s_time": "%d"' % t0, b'"s_time": "NOW"')
    # sysinfo(2) rounds the uptime up; the WAN came up at 5
    reply = reply.replace(b'"wan_uptime": "%d"' % (int(up0) + 1 - 5), b'"wan_uptime": "UPTIME"')
    assert (reply, printed) == (b'{ "arguments": { "confs": { }, "infos": ' + text.encode() + b' }, "result": "success" }', out)
    assert sandbox.cmdlog() == ([["/sbin/uaputl.exe", "sta_list"]] if "s_stalist" in names else [])


def test_system_information(daemon, sandbox):
    info = json.loads(send(sandbox, {"method": "pref-get", "arguments": {"infos": ["s_sysinfo"]}}))["arguments"]["infos"]["s_sysinfo"]
    up, loads = int(float(read(sandbox, "/proc/uptime").split()[0])), r"(\d+\.\d\d, ){2}\d+\.\d\d"
    assert list(info) == ["uptime", "loads", "totalram", "freeram"] and re.fullmatch(loads, info["loads"]) and up - 2 <= int(info["uptime"]) <= up + 1
    assert int(info["freeram"]) <= int(info["totalram"])
    assert sandbox.emulator or int(info["totalram"]) == os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")

"""The "dhcp" target: dnsmasq.conf and the hosts file from the stores, byte for byte and by the real dnsmasq."""
import os

import pytest

from net_util import INVALID, NULL, SUCCESS, TYPE, Run, conf, net  # noqa: F401

CONF, HOSTS, LEASES, PID = "/var/tmp/dnsmasq.conf", "/var/tmp/hosts", "/var/tmp/dnsmasq.leases", "/var/run/dnsmasq.pid"
KILL, DNSMASQ = ["/usr/bin/killall", "-9", "dnsmasq"], ["/usr/sbin/dnsmasq", "-C", CONF]
UP_OUT, WHAT = "dnsmasq -C /var/tmp/dnsmasq.conf\n", "***** what? *****\n"
OUT = "***** wan_type: none *****\n" + UP_OUT
RANGE = "interface=br0\ndhcp-range=192.168.100.100,192.168.100.200"
HEAD = RANGE + ",1440m\ndhcp-option=option:netmask,255.255.255.0\n"
ROUTER = "dhcp-option=option:router,192.168.100.1\n"
SELF = HEAD + ROUTER + "dhcp-option=option:dns-server,192.168.100.1\n"
TAIL = "dhcp-leasefile=/var/tmp/dnsmasq.leases\ndhcp-authoritative\naddn-hosts=/var/tmp/hosts\n"
DEFAULT, DNS = SELF + TAIL, "dhcp-option=option:dns-server,"
UP = "192.168.100.1 www.HX-R1.hxtravel\n"
DOWN = UP + "0.0.0.0 captive.apple.com\n0.0.0.0 connectivitycheck.gstatic.com\n"
H1, H2 = "dhcp-host=00:11:22:33:44:55,192.168.100.50\n", "dhcp-host=66:77:88:99:aa:bb,192.168.100.51\n"
STATIC = [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50"}, {"mac": "66:77:88:99:aa:bb", "ip": "192.168.100.51"}]
FULL = {"dhcp_static_dns1": "8.8.8.8", "dhcp_static_dns2": "8.8.4.4", "dhcp_static_dns3": "1.1.1.1",
        "dhcp_wins_server": "192.168.100.5", "dhcp_domain_name": "trip.lan", "dhcp_staticlist": STATIC,
        "dhcp_blacklist": [{"mac": "de:ad:be:ef:00:01"}, {"mac": "de:ad:be:ef:00:02"}]}
FULL_CONF = (HEAD + DNS + "8.8.8.8,8.8.4.4,1.1.1.1\n" + ROUTER + "dhcp-option=option:netbios-ns,192.168.100.5\n"
             "expand-hosts\ndomain=trip.lan\n" + H1 + H2 + "dhcp-host=de:ad:be:ef:00:01,ignore\n" "dhcp-host=de:ad:be:ef:00:02,ignore\n" + TAIL)
WAN, NL, PARSE = {"wan_type": "wireless_sta", "rt:wan_if": "mlan0", "addr": 1}, "\nserver=6.6.6.6", "json_tokener_parse failed.\n"

# id: (setup, dnsmasq.conf, hosts, output); without a hosts file only the kill ran
CASES = {"default": ({}, DEFAULT, DOWN, OUT), "every-line": (FULL, FULL_CONF, DOWN, OUT), "wan-up": (WAN, DEFAULT, UP, UP_OUT),
    "dns3-only": ({"dhcp_static_dns3": "9.9.9.9"}, HEAD + DNS + "9.9.9.9\n" + ROUTER + TAIL, DOWN, OUT),
    "dns2-empty": ({"dhcp_static_dns1": "8.8.8.8", "dhcp_static_dns3": "9.9.9.9"}, HEAD + DNS + "8.8.8.8,9.9.9.9\n" + ROUTER + TAIL, DOWN, OUT),
    "domain-empty": ({"dhcp_wins_server": "192.168.100.5", "dhcp_domain_name": ""}, SELF + "dhcp-option=option:netbios-ns,192.168.100.5\n" + TAIL, DOWN, OUT),
    "lists-empty": ({"dhcp_staticlist": [], "dhcp_blacklist": [], "dhcp_domain_name": "trip.lan"}, SELF + "expand-hosts\ndomain=trip.lan\n" + TAIL, DOWN, OUT),
    "lease-number": ({"dhcp_lease_time": 60}, DEFAULT.replace(",1440m", ",60m"), DOWN, OUT),
    "private-up": ({**WAN, "wan_type": "wireless_sta_private"}, DEFAULT, DOWN, WHAT + UP_OUT),
    "other-type": ({**WAN, "wan_type": "ethernet"}, DEFAULT, DOWN, WHAT + UP_OUT), "trusted-up": ({**WAN, "wan_type": "wireless_sta_trust"}, DEFAULT, UP, UP_OUT),
    **{k: ({**WAN, **v}, DEFAULT, DOWN, UP_OUT) for k, v in [("no-address", {"addr": 0}), ("client-running", {"addr": 0, "pid": 1}),
       ("no-wan-type", {"wan_type": None}), ("no-wan-if", {"wan_if": None}), ("no-rt-wan-if", {"rt:wan_if": None}), ("wan-if-16", {"rt:wan_if": "mlan0mlan0mlan0m"})]},
    "server-off": ({"dhcp_server": "off"}, None, None, ""), "server-On": ({"dhcp_server": "On"}, None, None, ""),
    "conf-dir": ({"dir": CONF}, None, None, ""), "hosts-dir": ({"dir": HOSTS}, DEFAULT, None, ""),
    "no-lan-ipaddr": ({"lan_ipaddr": None}, HEAD, None, ""), "lan-ipaddr-word": ({"lan_ipaddr": b"word\0"}, HEAD, None, ""),
    "model-word": ({"info:product_model": b"word\0"}, DEFAULT, None, ""), "model-newline": ({"info:product_model": "HX-R1\n6.6.6.6 www.example.com"}, DEFAULT, None, ""),
    "lan-if-newline": ({"lan_if": "br0\ndhcp-range=10.0.0.2,10.0.0.9,1m"}, "", None, ""), "lease-newline": ({"dhcp_lease_time": "1440\naddress=/#/6.6.6.6"}, RANGE, None, ""),
    "dns1-newline": ({"dhcp_static_dns1": "8.8.8.8" + NL}, HEAD, None, ""), "domain-newline": ({"dhcp_domain_name": "lan" + NL}, SELF, None, ""),
    "lan-ipaddr-newline": ({"lan_ipaddr": "192.168.100.1" + NL}, HEAD, None, ""),
    "mac-newline": ({"dhcp_staticlist": [{**STATIC[0], "mac": "00:11:22:33:44:55" + NL}]}, SELF, None, ""),
    "ip-newline": ({"dhcp_staticlist": [{**STATIC[0], "ip": "192.168.100.50" + NL}]}, SELF, None, ""),
    "blacklist-newline": ({"dhcp_blacklist": [{"mac": "00:11:22:33:44:55"}, {"mac": "x" + NL}]}, SELF + "dhcp-host=00:11:22:33:44:55,ignore\n", None, ""),
    **{f"{k}-word": ({k: b"word\0"}, partial, None, "") for k, partial in [
        ("lan_if", ""), ("dhcp_range_start", "interface=br0\n"), ("dhcp_lease_time", RANGE), ("dhcp_range_end", RANGE[:-16]),
        ("lan_netmask", RANGE + ",1440m\n"), ("dhcp_static_dns2", HEAD), ("dhcp_wins_server", SELF), ("dhcp_domain_name", SELF)]},
    **{f"{which}-{name}": ({"dhcp_staticlist": STATIC, f"dhcp_{which}list": value}, SELF + (H1 + H2) * (which == "black"), None, PARSE)
       for name, value in [("truncated", b'[ { "mac": \0'), ("empty", b"\0"), ("missing", None), ("object", {"mac": "x"})] for which in ("static", "black")},
    **{f"element-{name}": ({"dhcp_staticlist": [STATIC[0], item, STATIC[1]]}, SELF + H1, None, "json_object_array_get_idx failed.\n")
       for name, item in [("null", None), ("string", "x"), ("no-mac", {"ip": "192.168.100.9"}), ("no-ip", {"mac": "x"})]},}

OLD, LEASE = "old\n", "1700000000 00:11:22:33:44:55 192.168.100.100 phone *\n"
CASES.update({f"action-{v}": ({"value": v}, OLD, OLD, NULL if v is None else TYPE if not isinstance(v, dict) else "") for v in (
    None, {}, {"action": "update"}, {"action": 5}, {"action": ["start"]}, {"action": None}, {"action": "Start"}, 5, "restart", [{"action": "restart"}], True)})
CASES.update({"start": ({"value": {"action": "start"}}, DEFAULT, DOWN, OUT), "stop": ({"value": {"action": "stop"}}, None, None, "")})


@pytest.mark.parametrize("setup, conf_text, hosts, out", CASES.values(), ids=CASES.keys())
def test_dhcp_target(daemon, sandbox, conf, net, setup, conf_text, hosts, out):
    """Only a restart (or start) writes the files; stopping removes them and the pid file but keeps the leases."""
    setup, folder = dict(setup), setup.get("dir")
    for path, data in ((CONF, OLD), (HOSTS, OLD), (PID, "123\n"), (LEASES, LEASE)):
        sandbox.write(path, data)
    net("addr", "add", "10.0.0.2/24", "dev", "mlan0") if setup.pop("addr", 0) else None
    sandbox.write("/var/run/udhcpc.pid", "99\n") if setup.pop("pid", 0) else None
    sandbox.remove(folder) or sandbox.run(["mkdir", folder], check=True) if folder else None
    conf({k: v for k, v in setup.items() if k not in ("dir", "value")})
    try:
        run = Run(sandbox, daemon, "dhcp", setup.get("value", {"action": "restart"}))
    finally:
        sandbox.remove("/var/run/udhcpc.pid")
        sandbox.run(["rmdir", folder], check=True) if folder else None
    cmds = [] if conf_text == OLD else [KILL, DNSMASQ] if hosts in (UP, DOWN) else [KILL]
    assert (run.reply, run.out, run.cmds) == (INVALID if out in (NULL, TYPE) else SUCCESS, out, cmds)
    text = [sandbox.read_text(p) if os.path.isfile(sandbox.path(p)) else None for p in (CONF, HOSTS, PID, LEASES)]
    assert tuple(text) == (conf_text, hosts, "123\n" if not cmds else None, LEASE)
    if len(cmds) == 2:
        done = sandbox.run([sandbox.real("/usr/sbin/dnsmasq"), "--test", "-C", CONF])
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"dnsmasq: syntax check OK.\n")

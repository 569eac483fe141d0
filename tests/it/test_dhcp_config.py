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
             "expand-hosts\ndomain=trip.lan\n" + H1 + H2 + "dhcp-host=de:ad:be:ef:00:01,ignore\n"
             "dhcp-host=de:ad:be:ef:00:02,ignore\n" + TAIL)
WAN, NL = {"wan_type": "wireless_sta", "rt:wan_if": "mlan0", "addr": 1}, "\nserver=6.6.6.6"

# id: (setup, dnsmasq.conf, hosts, output); without a hosts file only the kill ran
CASES = {
    "default": ({}, DEFAULT, DOWN, OUT), "every-line": (FULL, FULL_CONF, DOWN, OUT),
    "dns3-only": ({"dhcp_static_dns3": "9.9.9.9"}, HEAD + DNS + "9.9.9.9\n" + ROUTER + TAIL, DOWN, OUT),
    "dns2-empty": ({"dhcp_static_dns1": "8.8.8.8", "dhcp_static_dns3": "9.9.9.9"},
                   HEAD + DNS + "8.8.8.8,9.9.9.9\n" + ROUTER + TAIL, DOWN, OUT),
    "domain-empty": ({"dhcp_wins_server": "192.168.100.5", "dhcp_domain_name": ""},
                     SELF + "dhcp-option=option:netbios-ns,192.168.100.5\n" + TAIL, DOWN, OUT),
    "lists-empty": ({"dhcp_staticlist": [], "dhcp_blacklist": [], "dhcp_domain_name": "trip.lan"},
                    SELF + "expand-hosts\ndomain=trip.lan\n" + TAIL, DOWN, OUT),
    "lease-number": ({"dhcp_lease_time": 60}, DEFAULT.replace(",1440m", ",60m"), DOWN, OUT),
    "wan-up": (WAN, DEFAULT, UP, UP_OUT), "trusted-up": ({**WAN, "wan_type": "wireless_sta_trust"}, DEFAULT, UP, UP_OUT),
    "private-up": ({**WAN, "wan_type": "wireless_sta_private"}, DEFAULT, DOWN, WHAT + UP_OUT),
    "other-type": ({**WAN, "wan_type": "ethernet"}, DEFAULT, DOWN, WHAT + UP_OUT),
    "no-address": ({**WAN, "addr": 0}, DEFAULT, DOWN, UP_OUT), "client-running": ({**WAN, "addr": 0, "pid": 1}, DEFAULT, DOWN, UP_OUT),
    "no-wan-type": ({**WAN, "wan_type": None}, DEFAULT, DOWN, UP_OUT), "no-wan-if": ({**WAN, "wan_if": None}, DEFAULT, DOWN, UP_OUT),
    "no-rt-wan-if": ({**WAN, "rt:wan_if": None}, DEFAULT, DOWN, UP_OUT),
    "wan-if-16": ({**WAN, "rt:wan_if": "mlan0mlan0mlan0m"}, DEFAULT, DOWN, UP_OUT),
    "server-off": ({"dhcp_server": "off"}, None, None, ""), "server-On": ({"dhcp_server": "On"}, None, None, ""),
    "conf-dir": ({"dir": CONF}, None, None, ""), "hosts-dir": ({"dir": HOSTS}, DEFAULT, None, ""),
    "no-lan-ipaddr": ({"lan_ipaddr": None}, HEAD, None, ""), "lan-ipaddr-word": ({"lan_ipaddr": b"word\0"}, HEAD, None, ""),
    "model-word": ({"info:product_model": b"word\0"}, DEFAULT, None, ""),
    "model-newline": ({"info:product_model": "HX-R1\n6.6.6.6 www.example.com"}, DEFAULT, None, ""),
    "lan-if-newline": ({"lan_if": "br0\ndhcp-range=10.0.0.2,10.0.0.9,1m"}, "", None, ""),
    "lease-newline": ({"dhcp_lease_time": "1440\naddress=/#/6.6.6.6"}, RANGE, None, ""),
    "dns1-newline": ({"dhcp_static_dns1": "8.8.8.8" + NL}, HEAD, None, ""),
    "lan-ipaddr-newline": ({"lan_ipaddr": "192.168.100.1" + NL}, HEAD, None, ""),
    "domain-newline": ({"dhcp_domain_name": "lan" + NL}, SELF, None, ""),
    "mac-newline": ({"dhcp_staticlist": [{**STATIC[0], "mac": "00:11:22:33:44:55" + NL}]}, SELF, None, ""),
    "ip-newline": ({"dhcp_staticlist": [{**STATIC[0], "ip": "192.168.100.50" + NL}]}, SELF, None, ""),
    "blacklist-newline": ({"dhcp_blacklist": [{"mac": "00:11:22:33:44:55"}, {"mac": "x" + NL}]},
                          SELF + "dhcp-host=00:11:22:33:44:55,ignore\n", None, ""),
}
for key, partial in [("lan_if", ""), ("dhcp_range_start", "interface=br0\n"), ("dhcp_lease_time", RANGE),
                     ("dhcp_range_end", "interface=br0\ndhcp-range=192.168.100.100"), ("lan_netmask", RANGE + ",1440m\n"),
                     ("dhcp_static_dns2", HEAD), ("dhcp_wins_server", SELF), ("dhcp_domain_name", SELF)]:
    CASES[f"{key}-word"] = ({key: b"word\0"}, partial, None, "")
for name, value in [("truncated", b'[ { "mac": \0'), ("empty", b"\0"), ("missing", None), ("object", {"mac": "x"})]:
    CASES[f"static-{name}"] = ({"dhcp_staticlist": value}, SELF, None, "json_tokener_parse failed.\n")
    CASES[f"black-{name}"] = ({"dhcp_staticlist": STATIC, "dhcp_blacklist": value}, SELF + H1 + H2, None,
                              "json_tokener_parse failed.\n")
for name, item in [("null", None), ("string", "x"), ("no-mac", {"ip": "192.168.100.9"}), ("no-ip", {"mac": "x"})]:
    CASES[f"element-{name}"] = ({"dhcp_staticlist": [STATIC[0], item, STATIC[1]]}, SELF + H1, None,
                                "json_object_array_get_idx failed.\n")


def text(sandbox, path):
    return sandbox.read_text(path) if os.path.isfile(sandbox.path(path)) else None


@pytest.mark.parametrize("setup, conf_text, hosts, out", CASES.values(), ids=CASES.keys())
def test_restart_writes_the_files(daemon, sandbox, conf, net, setup, conf_text, hosts, out):
    setup = dict(setup)
    for path in (CONF, HOSTS):
        sandbox.write(path, "old\n")
    if setup.pop("addr", 0):
        net("addr", "add", "10.0.0.2/24", "dev", "mlan0")
    if setup.pop("pid", 0):
        sandbox.write("/var/run/udhcpc.pid", "99\n")
    if "dir" in setup:
        sandbox.remove(setup["dir"])
        sandbox.run(["mkdir", setup["dir"]], check=True)
    conf({k: v for k, v in setup.items() if k != "dir"})
    try:
        run = Run(sandbox, daemon, "dhcp", {"action": "restart"})
    finally:
        sandbox.remove("/var/run/udhcpc.pid")
        sandbox.run(["rmdir", setup["dir"]], check=True) if "dir" in setup else None
    assert (run.reply, run.out, run.cmds) == (SUCCESS, out, [KILL, DNSMASQ] if hosts else [KILL])
    assert (text(sandbox, CONF), text(sandbox, HOSTS)) == (conf_text, hosts)
    if hosts:
        done = sandbox.run([sandbox.real("/usr/sbin/dnsmasq"), "--test", "-C", CONF])
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"dnsmasq: syntax check OK.\n")


@pytest.mark.parametrize("value, reply, out, cmds", [
    ({"action": "start"}, SUCCESS, OUT, [KILL, DNSMASQ]), ({"action": "stop"}, SUCCESS, "", [KILL]), (None, INVALID, NULL, []),
    *[(v, SUCCESS, "", []) for v in ({}, {"action": "update"}, {"action": 5}, {"action": ["start"]}, {"action": None},
                                    {"action": "Start"})],
    *[(v, INVALID, TYPE, []) for v in (5, "restart", [{"action": "restart"}], True)]])
def test_actions(daemon, sandbox, value, reply, out, cmds):
    """Stop removes the files and the pid file but keeps the leases."""
    lease = "1700000000 00:11:22:33:44:55 192.168.100.100 phone *\n"
    for path, data in ((CONF, "old\n"), (HOSTS, "old\n"), (PID, "123\n"), (LEASES, lease)):
        sandbox.write(path, data)
    run = Run(sandbox, daemon, "dhcp", value)
    assert (run.reply, run.out, run.cmds) == (reply, out, cmds)
    assert (text(sandbox, CONF), text(sandbox, HOSTS), text(sandbox, PID), text(sandbox, LEASES)) == (
        (DEFAULT, DOWN, None, lease) if len(cmds) == 2 else (None, None, None, lease) if cmds else ("old\n", "old\n", "123\n", lease))
    sandbox.remove(LEASES)

"""The "dhcp" target: /var/tmp/dnsmasq.conf and /var/tmp/hosts from the stores,
checked byte for byte and by the real dnsmasq; the WAN state decides the hosts file."""
import os

import pytest

from net_util import INVALID, NULL, SUCCESS, TYPE, Run, conf, net  # noqa: F401

CONF, HOSTS, LEASES = "/var/tmp/dnsmasq.conf", "/var/tmp/hosts", "/var/tmp/dnsmasq.leases"
KILL = ["/usr/bin/killall", "-9", "dnsmasq"]
DNSMASQ = ["/usr/sbin/dnsmasq", "-C", CONF]
STARTED, WAN_NONE, WHAT = "dnsmasq -C /var/tmp/dnsmasq.conf\n", "***** wan_type: none *****\n", "***** what? *****\n"
RANGE = "interface=br0\ndhcp-range=192.168.100.100,192.168.100.200"
HEAD = RANGE + ",1440m\ndhcp-option=option:netmask,255.255.255.0\n"
ROUTER = "dhcp-option=option:router,192.168.100.1\n"
SELF = HEAD + ROUTER + "dhcp-option=option:dns-server,192.168.100.1\n"
TAIL = "dhcp-leasefile=/var/tmp/dnsmasq.leases\ndhcp-authoritative\naddn-hosts=/var/tmp/hosts\n"
DEFAULT = SELF + TAIL
UP = "192.168.100.1 www.HX-R1.hxtravel\n"
DOWN = UP + "0.0.0.0 captive.apple.com\n0.0.0.0 connectivitycheck.gstatic.com\n"
HOST1, HOST2 = "dhcp-host=00:11:22:33:44:55,192.168.100.50\n", "dhcp-host=66:77:88:99:aa:bb,192.168.100.51\n"
STATIC = [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50"}, {"mac": "66:77:88:99:aa:bb", "ip": "192.168.100.51"}]
FULL = {"dhcp_static_dns1": "8.8.8.8", "dhcp_static_dns2": "8.8.4.4", "dhcp_static_dns3": "1.1.1.1",
        "dhcp_wins_server": "192.168.100.5", "dhcp_domain_name": "trip.lan", "dhcp_staticlist": STATIC,
        "dhcp_blacklist": [{"mac": "de:ad:be:ef:00:01"}, {"mac": "de:ad:be:ef:00:02"}]}
FULL_CONF = (HEAD + "dhcp-option=option:dns-server,8.8.8.8,8.8.4.4,1.1.1.1\n" + ROUTER
             + "dhcp-option=option:netbios-ns,192.168.100.5\nexpand-hosts\ndomain=trip.lan\n" + HOST1 + HOST2
             + "dhcp-host=de:ad:be:ef:00:01,ignore\ndhcp-host=de:ad:be:ef:00:02,ignore\n" + TAIL)
WAN = {"wan_type": "wireless_sta", "rt:wan_if": "mlan0", "addr": True}
NL = "\nserver=6.6.6.6"
ELEMENT = "json_object_array_get_idx failed.\n"

# (setup, dnsmasq.conf, hosts, output); no hosts file: only the kill ran.
CASES = {
    "default": ({}, DEFAULT, DOWN, WAN_NONE + STARTED),
    "every-line": (FULL, FULL_CONF, DOWN, WAN_NONE + STARTED),
    "dns3-only": ({"dhcp_static_dns3": "9.9.9.9"},
                  HEAD + "dhcp-option=option:dns-server,9.9.9.9\n" + ROUTER + TAIL, DOWN, WAN_NONE + STARTED),
    "dns2-empty": ({"dhcp_static_dns1": "8.8.8.8", "dhcp_static_dns3": "9.9.9.9"},
                   HEAD + "dhcp-option=option:dns-server,8.8.8.8,9.9.9.9\n" + ROUTER + TAIL, DOWN, WAN_NONE + STARTED),
    "domain-empty": ({"dhcp_wins_server": "192.168.100.5", "dhcp_domain_name": ""},
                     SELF + "dhcp-option=option:netbios-ns,192.168.100.5\n" + TAIL, DOWN, WAN_NONE + STARTED),
    "lists-empty": ({"dhcp_staticlist": [], "dhcp_blacklist": [], "dhcp_domain_name": "trip.lan"},
                    SELF + "expand-hosts\ndomain=trip.lan\n" + TAIL, DOWN, WAN_NONE + STARTED),
    "lease-number": ({"dhcp_lease_time": 60}, DEFAULT.replace(",1440m", ",60m"), DOWN, WAN_NONE + STARTED),
    "wan-up": (WAN, DEFAULT, UP, STARTED),
    "trusted-up": (dict(WAN, wan_type="wireless_sta_trust"), DEFAULT, UP, STARTED),
    "private-up": (dict(WAN, wan_type="wireless_sta_private"), DEFAULT, DOWN, WHAT + STARTED),
    "other-type": (dict(WAN, wan_type="ethernet"), DEFAULT, DOWN, WHAT + STARTED),
    "no-address": (dict(WAN, addr=False), DEFAULT, DOWN, STARTED),
    "client-running": (dict(WAN, addr=False, pid=True), DEFAULT, DOWN, STARTED),
    "no-wan-type": (dict(WAN, wan_type=None), DEFAULT, DOWN, STARTED),
    "no-wan-if": (dict(WAN, wan_if=None), DEFAULT, DOWN, STARTED),
    "no-rt-wan-if": (dict(WAN, **{"rt:wan_if": None}), DEFAULT, DOWN, STARTED),
    "wan-if-16": (dict(WAN, **{"rt:wan_if": "mlan0mlan0mlan0m"}), DEFAULT, DOWN, STARTED),
    "server-off": ({"dhcp_server": "off"}, None, None, ""),
    "server-On": ({"dhcp_server": "On"}, None, None, ""),
    "conf-dir": ({"dir": CONF}, None, None, ""),
    "hosts-dir": ({"dir": HOSTS}, DEFAULT, None, ""),
    "no-lan-ipaddr": ({"lan_ipaddr": None}, HEAD, None, ""),
    "lan-ipaddr-word": ({"lan_ipaddr": b"word\0"}, HEAD, None, ""),
    "model-word": ({"info:product_model": b"word\0"}, DEFAULT, None, ""),
    "model-newline": ({"info:product_model": "HX-R1\n6.6.6.6 www.example.com"}, DEFAULT, None, ""),
    "lan-if-newline": ({"lan_if": "br0\ndhcp-range=10.0.0.2,10.0.0.9,1m"}, "", None, ""),
    "lease-newline": ({"dhcp_lease_time": "1440\naddress=/#/6.6.6.6"}, RANGE, None, ""),
    "dns1-newline": ({"dhcp_static_dns1": "8.8.8.8" + NL}, HEAD, None, ""),
    "lan-ipaddr-newline": ({"lan_ipaddr": "192.168.100.1" + NL}, HEAD, None, ""),
    "domain-newline": ({"dhcp_domain_name": "lan" + NL}, SELF, None, ""),
    "mac-newline": ({"dhcp_staticlist": [dict(STATIC[0], mac="00:11:22:33:44:55" + NL)]}, SELF, None, ""),
    "ip-newline": ({"dhcp_staticlist": [dict(STATIC[0], ip="192.168.100.50" + NL)]}, SELF, None, ""),
    "blacklist-newline": ({"dhcp_blacklist": [{"mac": "00:11:22:33:44:55"}, {"mac": "x" + NL}]},
                          SELF + "dhcp-host=00:11:22:33:44:55,ignore\n", None, ""),
}
for key, partial in [("lan_if", ""), ("dhcp_range_start", "interface=br0\n"),
                     ("dhcp_range_end", "interface=br0\ndhcp-range=192.168.100.100"), ("dhcp_lease_time", RANGE),
                     ("lan_netmask", RANGE + ",1440m\n"), ("dhcp_static_dns2", HEAD),
                     ("dhcp_wins_server", SELF), ("dhcp_domain_name", SELF)]:
    CASES[f"{key}-word"] = ({key: b"word\0"}, partial, None, "")
for rid, value in [("truncated", b'[ { "mac": \0'), ("empty", b"\0"), ("missing", None), ("object", {"mac": "x"})]:
    CASES[f"static-{rid}"] = ({"dhcp_staticlist": value}, SELF, None, "json_tokener_parse failed.\n")
    CASES[f"black-{rid}"] = ({"dhcp_staticlist": STATIC, "dhcp_blacklist": value}, SELF + HOST1 + HOST2, None,
                             "json_tokener_parse failed.\n")
for rid, element in [("null", None), ("string", "00:11:22:33:44:55"), ("no-mac", {"ip": "192.168.100.9"}),
                     ("no-ip", {"mac": "00:11:22:33:44:66"})]:
    CASES[f"element-{rid}"] = ({"dhcp_staticlist": [STATIC[0], element, STATIC[1]]}, SELF + HOST1, None, ELEMENT)


def text_or_none(sandbox, path):
    return sandbox.read_text(path) if os.path.isfile(sandbox.path(path)) else None


@pytest.mark.parametrize("setup, conf_text, hosts, out", CASES.values(), ids=CASES.keys())
def test_restart_writes_the_files(daemon, sandbox, conf, net, setup, conf_text, hosts, out):
    setup = dict(setup)
    for path in (CONF, HOSTS):
        sandbox.write(path, "old\n")
    if setup.pop("addr", False):
        net("addr", "add", "10.0.0.2/24", "dev", "mlan0")
    if setup.pop("pid", False):
        sandbox.write("/var/run/udhcpc.pid", "99\n")
    folder = setup.pop("dir", None)
    if folder:
        sandbox.remove(folder)
        sandbox.run(["mkdir", folder], check=True)
    conf(setup)
    try:
        run = Run(sandbox, daemon, "dhcp", {"action": "restart"})
    finally:
        sandbox.remove("/var/run/udhcpc.pid")
        if folder:
            sandbox.run(["rmdir", folder], check=True)
    assert (run.reply, run.out, run.cmds) == (SUCCESS, out, [KILL, DNSMASQ] if hosts else [KILL])
    assert (text_or_none(sandbox, CONF), text_or_none(sandbox, HOSTS)) == (conf_text, hosts)
    if hosts:
        done = sandbox.run([sandbox.real("/usr/sbin/dnsmasq"), "--test", "-C", CONF])
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"dnsmasq: syntax check OK.\n")


@pytest.mark.parametrize("value, reply, out, cmds", [
    ({"action": "start"}, SUCCESS, WAN_NONE + STARTED, [KILL, DNSMASQ]),
    ({"action": "stop"}, SUCCESS, "", [KILL]),
    *[(v, SUCCESS, "", []) for v in ({}, {"action": "update"}, {"action": 5}, {"action": ["start"]},
                                    {"action": None}, {"action": "Start"})],
    (None, INVALID, NULL, []),
    *[(v, INVALID, TYPE, []) for v in (5, "restart", [{"action": "restart"}], True)],
], ids=["start", "stop", "none", "update", "number", "array", "null", "case", "null-argument",
        "number-argument", "string-argument", "array-argument", "true-argument"])
def test_actions(daemon, sandbox, value, reply, out, cmds):
    """Stop removes the files and the pid file but keeps the leases."""
    lease = "1700000000 00:11:22:33:44:55 192.168.100.100 phone *\n"
    for path, text in ((CONF, "old\n"), (HOSTS, "old\n"), ("/var/run/dnsmasq.pid", "123\n"), (LEASES, lease)):
        sandbox.write(path, text)
    run = Run(sandbox, daemon, "dhcp", value)
    assert (run.reply, run.out, run.cmds) == (reply, out, cmds)
    files = (text_or_none(sandbox, CONF), text_or_none(sandbox, HOSTS),
             sandbox.exists("/var/run/dnsmasq.pid"), sandbox.read_text(LEASES))
    assert files == ((DEFAULT, DOWN, False, lease) if cmds == [KILL, DNSMASQ] else
                     (None, None, False, lease) if cmds else ("old\n", "old\n", True, lease))
    sandbox.remove(LEASES)

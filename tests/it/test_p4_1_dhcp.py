"""Part 4.1: DHCP and DNS server configuration, through the real daemon: the
"dhcp" target writes "/var/tmp/dnsmasq.conf" and "/var/tmp/hosts" from the
stores and runs the (stub) dnsmasq; the generated files are also checked with
Debian's real dnsmasq inside the sandbox.  Store values are changed from the
host and put back after each test; the WAN state of the hosts file (Part 4.2's
`wan_get_state`) comes from a real address on the sandbox's mlan0.

The readers `get_DNS` and `get_GW` are unit-tested on fixture files
(tests/unit/test_dhcp.c); here they read the sandbox's real "/etc/resolv.conf"
and "/proc/net/route" through the status items "s_wan_dns" and "s_wan_gw" of
Part 2.5.
"""
import json
import os

import pytest

from helpers import revalidate, send, stdout_since, store_restore

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'

CONF = "/var/tmp/dnsmasq.conf"
HOSTS = "/var/tmp/hosts"
PID = "/var/run/dnsmasq.pid"
LEASES = "/var/tmp/dnsmasq.leases"

KILL = ["/usr/bin/killall", "-9", "dnsmasq"]
DNSMASQ = ["/usr/sbin/dnsmasq", "-C", CONF]
STARTED = "dnsmasq -C /var/tmp/dnsmasq.conf\n"
WAN_NONE = "***** wan_type: none *****\n"
WHAT = "***** what? *****\n"

HEAD = ("interface=br0\n"
        "dhcp-range=192.168.100.100,192.168.100.200,1440m\n"
        "dhcp-option=option:netmask,255.255.255.0\n")
ROUTER = "dhcp-option=option:router,192.168.100.1\n"
SELF_DNS = "dhcp-option=option:dns-server,192.168.100.1\n"
TAIL = ("dhcp-leasefile=/var/tmp/dnsmasq.leases\n"
        "dhcp-authoritative\n"
        "addn-hosts=/var/tmp/hosts\n")
DEFAULT_CONF = HEAD + ROUTER + SELF_DNS + TAIL

HOSTS_UP = "192.168.100.1 www.HX-R1.hxtravel\n"
HOSTS_DOWN = HOSTS_UP + ("0.0.0.0 captive.apple.com\n"
                         "0.0.0.0 connectivitycheck.gstatic.com\n")

FULL = {
    "dhcp_static_dns1": "8.8.8.8",
    "dhcp_static_dns2": "8.8.4.4",
    "dhcp_static_dns3": "1.1.1.1",
    "dhcp_wins_server": "192.168.100.5",
    "dhcp_domain_name": "trip.lan",
    "dhcp_staticlist": [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50"},
                        {"mac": "66:77:88:99:aa:bb", "ip": "192.168.100.51"}],
    "dhcp_blacklist": [{"mac": "de:ad:be:ef:00:01"}, {"mac": "de:ad:be:ef:00:02"}],
}
FULL_CONF = (HEAD
             + "dhcp-option=option:dns-server,8.8.8.8,8.8.4.4,1.1.1.1\n"
             + ROUTER
             + "dhcp-option=option:netbios-ns,192.168.100.5\n"
             + "expand-hosts\n"
             + "domain=trip.lan\n"
             + "dhcp-host=00:11:22:33:44:55,192.168.100.50\n"
             + "dhcp-host=66:77:88:99:aa:bb,192.168.100.51\n"
             + "dhcp-host=de:ad:be:ef:00:01,ignore\n"
             + "dhcp-host=de:ad:be:ef:00:02,ignore\n"
             + TAIL)


def record(value):
    """A store value as pref-set stores it: JSON text and its NUL."""
    return json.dumps(value).encode() + b"\0"


class Effects:
    """What one request did: the reply, standard output, the commands run and
    the two generated files (None when absent)."""

    def __init__(self, sandbox, daemon, request):
        out = daemon.stdout()
        sandbox.clear_cmdlog()
        self.reply = revalidate(sandbox, request)
        self.out = stdout_since(sandbox, daemon, out)
        self.cmds = sandbox.cmdlog()
        self.conf = read_or_none(sandbox, CONF)
        self.hosts = read_or_none(sandbox, HOSTS)


def read_or_none(sandbox, path):
    """The file's text; None when absent (or a directory, as some tests make it)."""
    return sandbox.read_text(path) if os.path.isfile(sandbox.path(path)) else None


@pytest.fixture
def conf(daemon, sandbox):
    """conf(key, value[, store]) sets a store value (None deletes it, bytes
    are stored raw); every value is put back after the test."""
    saved = []

    def put(key, value, store="sysconf"):
        saved.append((store, key, sandbox.store_get(store, key)))
        if value is None:
            sandbox.store_delete(store, key)
        else:
            sandbox.store_set(store, key, value if isinstance(value, bytes) else record(value))
    yield put
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)


@pytest.fixture
def net(sandbox):
    """net(*ip_args) runs `ip ...` inside; the addresses and routes of mlan0
    are flushed afterwards."""
    def ip(*args):
        done = sandbox.run(["ip", *args])
        assert done.returncode == 0, done.stderr
    yield ip
    sandbox.run(["ip", "-4", "route", "flush", "dev", "mlan0"], check=True)
    sandbox.run(["ip", "-4", "addr", "flush", "dev", "mlan0"], check=True)


@pytest.fixture
def wan_up(conf, net, sandbox):
    """A station WAN of type wan_type whose mlan0 holds an address."""
    def up(wan_type):
        conf("wan_type", wan_type)
        conf("wan_if", "mlan0", store="rtconf")
        net("addr", "add", "10.0.0.2/24", "dev", "mlan0")
    return up


def restart(sandbox, daemon):
    return Effects(sandbox, daemon, {"dhcp": {"action": "restart"}})


def check_syntax(sandbox):
    done = sandbox.run([sandbox.real("/usr/sbin/dnsmasq"), "--test", "-C", CONF])
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"dnsmasq: syntax check OK.\n")


# The target


def test_restart_on_the_default_device(daemon, sandbox):
    """Factory settings: no static DNS (the device offers itself after the
    router line), no domain, empty static list and blacklist (no "dhcp-host="
    line; the three fixed lines close the file); WAN type "none" gives the
    blocking lines."""
    e = restart(sandbox, daemon)
    assert e.reply == SUCCESS
    assert e.conf == DEFAULT_CONF
    assert e.hosts == HOSTS_DOWN
    assert e.cmds == [KILL, DNSMASQ]
    assert e.out == WAN_NONE + STARTED
    check_syntax(sandbox)


def test_start_is_a_restart(daemon, sandbox):
    e = Effects(sandbox, daemon, {"dhcp": {"action": "start"}})
    assert (e.reply, e.conf, e.hosts) == (SUCCESS, DEFAULT_CONF, HOSTS_DOWN)
    assert e.cmds == [KILL, DNSMASQ]
    assert e.out == WAN_NONE + STARTED


def test_stop_kills_and_removes_the_files_but_keeps_the_leases(daemon, sandbox):
    restart(sandbox, daemon)
    sandbox.write(PID, "123\n")
    sandbox.write(LEASES, "1700000000 00:11:22:33:44:55 192.168.100.100 phone *\n")
    e = Effects(sandbox, daemon, {"dhcp": {"action": "stop"}})
    assert e.reply == SUCCESS
    assert e.cmds == [KILL]
    assert e.out == ""
    assert (e.conf, e.hosts, sandbox.exists(PID)) == (None, None, False)
    assert sandbox.read_text(LEASES) == "1700000000 00:11:22:33:44:55 192.168.100.100 phone *\n"
    sandbox.remove(LEASES)


@pytest.mark.parametrize("value", [{}, {"action": "update"}, {"action": 5},
                                   {"action": ["start"]}, {"action": None},
                                   {"action": "Start"}],
                         ids=["none", "update", "number", "array", "null", "case"])
def test_other_actions_succeed_and_do_nothing(daemon, sandbox, value):
    sandbox.remove(CONF)
    e = Effects(sandbox, daemon, {"dhcp": value})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", [], None)


def test_null_argument_is_invalid(daemon, sandbox):
    e = Effects(sandbox, daemon, {"dhcp": None})
    assert (e.reply, e.out, e.cmds) == (INVALID, "Input parameter is NULL.\n", [])


@pytest.mark.parametrize("value", [5, "restart", [{"action": "restart"}], True])
def test_non_object_argument_is_invalid(daemon, sandbox, value):
    e = Effects(sandbox, daemon, {"dhcp": value})
    assert (e.reply, e.out, e.cmds) == (INVALID, "Unexpected json type.\n", [])


def test_reply_through_the_whole_request(daemon, sandbox):
    reply = send(sandbox, {"method": "revalidate", "tag": 7,
                           "arguments": {"dhcp": {"action": "restart"}}})
    assert reply == b'{ "arguments": { }, "result": "success", "tag": 7 }'


# dnsmasq.conf


def test_only_dns3_set_comes_before_the_router(daemon, sandbox, conf):
    conf("dhcp_static_dns3", "9.9.9.9")
    e = restart(sandbox, daemon)
    assert e.conf == HEAD + "dhcp-option=option:dns-server,9.9.9.9\n" + ROUTER + TAIL
    check_syntax(sandbox)


def test_empty_static_dns_leaves_no_empty_field(daemon, sandbox, conf):
    conf("dhcp_static_dns1", "8.8.8.8")
    conf("dhcp_static_dns3", "9.9.9.9")
    e = restart(sandbox, daemon)
    assert e.conf == HEAD + "dhcp-option=option:dns-server,8.8.8.8,9.9.9.9\n" + ROUTER + TAIL


def test_every_optional_line(daemon, sandbox, conf):
    for key, value in FULL.items():
        conf(key, value)
    e = restart(sandbox, daemon)
    assert e.reply == SUCCESS
    assert e.conf == FULL_CONF
    assert e.hosts == HOSTS_DOWN
    assert e.cmds == [KILL, DNSMASQ]
    check_syntax(sandbox)


def test_empty_domain_writes_neither_line(daemon, sandbox, conf):
    conf("dhcp_wins_server", "192.168.100.5")
    conf("dhcp_domain_name", "")
    e = restart(sandbox, daemon)
    assert e.conf == (HEAD + ROUTER + SELF_DNS
                      + "dhcp-option=option:netbios-ns,192.168.100.5\n" + TAIL)


def test_empty_lists_write_no_host_line(daemon, sandbox, conf):
    conf("dhcp_staticlist", [])
    conf("dhcp_blacklist", [])
    conf("dhcp_domain_name", "trip.lan")
    e = restart(sandbox, daemon)
    assert e.conf == HEAD + ROUTER + SELF_DNS + "expand-hosts\ndomain=trip.lan\n" + TAIL


def test_numbers_are_written_as_their_text(daemon, sandbox, conf):
    conf("dhcp_lease_time", 60)
    e = restart(sandbox, daemon)
    assert e.conf == DEFAULT_CONF.replace(",1440m\n", ",60m\n")


# dhcp_server


@pytest.mark.parametrize("value", ["off", "On", ""])
def test_server_not_on_writes_nothing_after_the_stop(daemon, sandbox, conf, value):
    restart(sandbox, daemon)
    conf("dhcp_server", value)
    e = restart(sandbox, daemon)
    assert e.reply == SUCCESS
    assert e.cmds == [KILL]
    assert e.out == ""
    assert (e.conf, e.hosts) == (None, None)


# Failure rules


@pytest.mark.parametrize("key, partial", [
    ("lan_if", ""),
    ("dhcp_range_start", "interface=br0\n"),
    ("dhcp_range_end", "interface=br0\ndhcp-range=192.168.100.100"),
    ("dhcp_lease_time", "interface=br0\ndhcp-range=192.168.100.100,192.168.100.200"),
    ("lan_netmask", "interface=br0\ndhcp-range=192.168.100.100,192.168.100.200,1440m\n"),
    ("dhcp_static_dns2", HEAD),
    ("dhcp_wins_server", HEAD + ROUTER + SELF_DNS),
    ("dhcp_domain_name", HEAD + ROUTER + SELF_DNS),
])
def test_unparsable_scalar_leaves_the_partial_file(daemon, sandbox, conf, key, partial):
    conf(key, b"word\0")
    e = restart(sandbox, daemon)
    assert e.reply == SUCCESS
    assert e.conf == partial
    assert e.hosts is None
    assert e.cmds == [KILL]
    assert e.out == ""


def test_missing_lan_ipaddr_stops_at_the_router_line(daemon, sandbox, conf):
    conf("lan_ipaddr", None)
    e = restart(sandbox, daemon)
    assert (e.reply, e.conf, e.hosts, e.cmds, e.out) == (SUCCESS, HEAD, None, [KILL], "")


@pytest.mark.parametrize("key", ["dhcp_staticlist", "dhcp_blacklist"])
@pytest.mark.parametrize("raw", [b"[ { \"mac\": \0", b"\0", None, record({"mac": "x"})],
                         ids=["truncated", "empty", "missing", "object"])
def test_unparsable_list(daemon, sandbox, conf, key, raw):
    conf("dhcp_staticlist", FULL["dhcp_staticlist"])
    conf(key, raw)
    e = restart(sandbox, daemon)
    before = HEAD + ROUTER + SELF_DNS
    if key == "dhcp_blacklist":
        before += ("dhcp-host=00:11:22:33:44:55,192.168.100.50\n"
                   "dhcp-host=66:77:88:99:aa:bb,192.168.100.51\n")
    assert e.out == "json_tokener_parse failed.\n"
    assert (e.reply, e.conf, e.hosts, e.cmds) == (SUCCESS, before, None, [KILL])


@pytest.mark.parametrize("element", [None, "00:11:22:33:44:55", {"ip": "192.168.100.9"},
                                     {"mac": "00:11:22:33:44:66"}],
                         ids=["null", "string", "no-mac", "no-ip"])
def test_unusable_list_element(daemon, sandbox, conf, element):
    conf("dhcp_staticlist", [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50"}, element,
                             {"mac": "66:77:88:99:aa:bb", "ip": "192.168.100.51"}])
    e = restart(sandbox, daemon)
    assert e.out == "json_object_array_get_idx failed.\n"
    assert e.conf == HEAD + ROUTER + SELF_DNS + "dhcp-host=00:11:22:33:44:55,192.168.100.50\n"
    assert (e.reply, e.hosts, e.cmds) == (SUCCESS, None, [KILL])


def test_conf_that_cannot_be_opened(daemon, sandbox):
    sandbox.remove(CONF)
    sandbox.run(["mkdir", CONF], check=True)
    try:
        e = restart(sandbox, daemon)
        assert (e.reply, e.out, e.cmds, e.hosts) == (SUCCESS, "", [KILL], None)
    finally:
        sandbox.run(["rmdir", CONF], check=True)


def test_hosts_that_cannot_be_opened(daemon, sandbox):
    sandbox.remove(HOSTS)
    sandbox.run(["mkdir", HOSTS], check=True)
    try:
        e = restart(sandbox, daemon)
        assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", [KILL], DEFAULT_CONF)
    finally:
        sandbox.run(["rmdir", HOSTS], check=True)


@pytest.mark.parametrize("store, key", [("sysinfo", "product_model"), ("sysconf", "lan_ipaddr")])
def test_hosts_value_that_does_not_parse(daemon, sandbox, conf, store, key):
    conf(key, b"word\0", store=store)
    e = restart(sandbox, daemon)
    conf_text = DEFAULT_CONF if store == "sysinfo" else HEAD
    assert (e.reply, e.out, e.cmds, e.conf, e.hosts) == (SUCCESS, "", [KILL], conf_text, None)


# Newlines (DESIGN.md section 8): a value that would add a line is refused
# like one that does not parse.


@pytest.mark.parametrize("key, value, partial", [
    ("lan_if", "br0\ndhcp-range=10.0.0.2,10.0.0.9,1m", ""),
    ("dhcp_lease_time", "1440\naddress=/#/6.6.6.6", "interface=br0\ndhcp-range=192.168.100.100,192.168.100.200"),
    ("dhcp_static_dns1", "8.8.8.8\nserver=6.6.6.6", HEAD),
    ("lan_ipaddr", "192.168.100.1\nserver=6.6.6.6", HEAD),
    ("dhcp_domain_name", "lan\naddress=/#/6.6.6.6", HEAD + ROUTER + SELF_DNS),
    ("dhcp_staticlist", [{"mac": "00:11:22:33:44:55\nserver=6.6.6.6", "ip": "192.168.100.50"}],
     HEAD + ROUTER + SELF_DNS),
    ("dhcp_staticlist", [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50\nserver=6.6.6.6"}],
     HEAD + ROUTER + SELF_DNS),
    ("dhcp_blacklist", [{"mac": "00:11:22:33:44:55"}, {"mac": "x\nserver=6.6.6.6"}],
     HEAD + ROUTER + SELF_DNS + "dhcp-host=00:11:22:33:44:55,ignore\n"),
], ids=["lan_if", "lease", "dns1", "lan_ipaddr", "domain", "static-mac", "static-ip", "blacklist"])
def test_value_with_a_newline_is_refused(daemon, sandbox, conf, key, value, partial):
    conf(key, value)
    e = restart(sandbox, daemon)
    assert (e.reply, e.out, e.cmds) == (SUCCESS, "", [KILL])
    assert e.conf == partial
    assert e.hosts is None


def test_product_model_with_a_newline_is_refused(daemon, sandbox, conf):
    conf("product_model", "HX-R1\n6.6.6.6 www.example.com", store="sysinfo")
    e = restart(sandbox, daemon)
    assert (e.reply, e.out, e.cmds, e.conf, e.hosts) == (SUCCESS, "", [KILL], DEFAULT_CONF, None)


# The hosts file and the WAN state (Part 4.2's wan_get_state)


def test_hosts_with_the_wan_up(daemon, sandbox, wan_up):
    wan_up("wireless_sta")
    e = restart(sandbox, daemon)
    assert e.hosts == HOSTS_UP
    assert e.out == STARTED
    assert e.cmds == [KILL, DNSMASQ]


def test_hosts_with_the_trusted_station_up(daemon, sandbox, wan_up):
    wan_up("wireless_sta_trust")
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_UP, STARTED)


def test_private_bridge_blocks_even_with_an_address(daemon, sandbox, wan_up):
    wan_up("wireless_sta_private")
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_DOWN, WHAT + STARTED)


def test_unknown_wan_type_blocks(daemon, sandbox, wan_up):
    wan_up("ethernet")
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_DOWN, WHAT + STARTED)


def test_hosts_with_the_wan_down(daemon, sandbox, conf):
    conf("wan_type", "wireless_sta")
    conf("wan_if", "mlan0", store="rtconf")
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_DOWN, STARTED)


def test_hosts_while_the_dhcp_client_runs(daemon, sandbox, conf):
    conf("wan_type", "wireless_sta")
    conf("wan_if", "mlan0", store="rtconf")
    sandbox.write("/var/run/udhcpc.pid", "99\n")
    try:
        e = restart(sandbox, daemon)
    finally:
        sandbox.remove("/var/run/udhcpc.pid")
    assert (e.hosts, e.out) == (HOSTS_DOWN, STARTED)


@pytest.mark.parametrize("store, key", [("sysconf", "wan_type"), ("sysconf", "wan_if"),
                                        ("rtconf", "wan_if")])
def test_wan_state_unreadable_blocks_without_a_message(daemon, sandbox, wan_up, conf, store, key):
    wan_up("wireless_sta")
    conf(key, None, store=store)
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_DOWN, STARTED)


def test_wan_interface_name_too_long(daemon, sandbox, wan_up, conf):
    """The name is refused before any ioctl (IFNAMSIZ - 1 characters at most)."""
    wan_up("wireless_sta")
    conf("wan_if", "mlan0mlan0mlan0m", store="rtconf")
    e = restart(sandbox, daemon)
    assert (e.hosts, e.out) == (HOSTS_DOWN, STARTED)


# get_DNS and get_GW through the status items of Part 2.5


def infos(sandbox, *names):
    reply = send(sandbox, {"method": "pref-get", "arguments": {"infos": list(names)}})
    return json.loads(reply)["arguments"]["infos"]


@pytest.fixture
def resolv(sandbox):
    saved = sandbox.read("/etc/resolv.conf")
    yield lambda text: sandbox.write("/etc/resolv.conf", text)
    sandbox.write("/etc/resolv.conf", saved)


def test_six_nameservers_report_four(daemon, sandbox, resolv):
    resolv("search lan\n" + "".join(f"nameserver 10.0.0.{n}\n" for n in range(1, 7)))
    assert infos(sandbox, "s_wan_dns") == {"s_wan_dns": "10.0.0.1, 10.0.0.2, 10.0.0.3, 10.0.0.4"}


def test_first_gatewayed_route_of_the_interface(daemon, sandbox, conf, net):
    conf("wan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.0.0.2/24", "dev", "mlan0")
    net("route", "add", "10.9.0.0/16", "via", "10.0.0.1", "dev", "mlan0")
    routes = sandbox.run(["cat", "/proc/net/route"], check=True).stdout.decode()
    assert "mlan0\t0000090A\t0100000A\t0003\t" in routes
    assert infos(sandbox, "s_wan_gw") == {"s_wan_gw": "10.0.0.1"}


def test_interface_with_only_gateway_0_routes(daemon, sandbox, conf):
    """br0 has only its connected route: the zeroed field stays empty."""
    conf("wan_if", "br0", store="rtconf")
    assert infos(sandbox, "s_wan_gw") == {"s_wan_gw": ""}

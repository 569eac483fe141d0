"""Part 4.4: static routes, system time and the firewall switch, through the
real daemon. "/sbin/route" and "/usr/sbin/firewall" are the sandbox's stubs
(the command log shows what ran), except in the test that installs real routes
through the real route command and reads them back from /proc/net/route.

The sandbox drops CAP_SYS_TIME, so the clock never moves: "datetime" is seen
through the system call it makes (strace) and through `dtime`, which the
status item "s_dhcpleases" (Part 2.5) adds to leases that ended in the past.
"""
import contextlib
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

import pytest

from helpers import console_after, pref_set, revalidate, send, stdout_since, store_restore, \
    wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

ROUTE = "/sbin/route"
FIREWALL = "/usr/sbin/firewall"
LEASES = "/var/tmp/dnsmasq.leases"

KEYS = [("sysconf", "routes_static"), ("sysconf", "timezone"),
        ("rtconf", "wan_if"), ("rtconf", "lan_if")]


@pytest.fixture
def state(daemon, sandbox):
    """The keys and stubs of this Part come back after each test; the WAN is
    "mlan0" (up) and the command log starts empty."""
    saved = [(store, key, sandbox.store_get(store, key)) for store, key in KEYS]
    sandbox.store_set("rtconf", "wan_if", b'"mlan0"\0')
    sandbox.clear_cmdlog()
    yield
    for store, key, raw in saved:
        store_restore(sandbox, store, key, raw)
    sandbox.stub(ROUTE, "exit 0\n")
    sandbox.stub(FIREWALL, "exit 0\n")


class Run:
    """One revalidate request for one target: its reply, what it printed,
    what it ran. Nothing reaches the console."""

    def __init__(self, sandbox, daemon, target, value):
        before = daemon.stdout()
        console = sandbox.console()
        start = len(sandbox.cmdlog())
        self.reply = revalidate(sandbox, {target: value})
        self.out = stdout_since(sandbox, daemon, before)
        self.cmds = sandbox.cmdlog()[start:]
        assert console_after(sandbox, console) == ""


def route(rid, dest, subnet, gw, metric, inf):
    return {"id": rid, "dest": dest, "subnet": subnet, "gw": gw, "metric": metric, "inf": inf}


R1 = route("1", "10.1.0.0", "255.255.0.0", "192.168.100.254", "2", "LAN")
R2 = route("2", "10.2.0.0", "255.255.255.0", "10.9.9.1", "3", "WAN")
R3 = route("3", "172.16.0.0", "255.240.0.0", "", "4", "LAN")
CMD1 = "/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 gw 192.168.100.254 metric 2 dev br0"
CMD2 = "/sbin/route add -net 10.2.0.0 netmask 255.255.255.0 gw 10.9.9.1 metric 3 dev mlan0"
CMD3 = "/sbin/route add -net 172.16.0.0 netmask 255.240.0.0 metric 4 dev br0"


def set_routes(sandbox, routes):
    assert pref_set(sandbox, {"routes_static": routes}) == SUCCESS


def staticroute(sandbox, daemon, value):
    return Run(sandbox, daemon, "staticroute", value)


def printed(*cmds):
    return "".join(f"cmd:{c}\n" for c in cmds)


def argv(cmd):
    return cmd.split()


# "staticroute": edge cases worth testing


def test_commitall_runs_two_route_adds_in_array_order(state, daemon, sandbox):
    set_routes(sandbox, [R2, R1])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    assert run.out == printed(CMD2, CMD1)
    assert run.cmds == [argv(CMD2), argv(CMD1)]


def test_commitall_with_an_empty_array_runs_none(state, daemon, sandbox):
    set_routes(sandbox, [])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    assert run.out == ""
    assert run.cmds == []


def test_empty_gw_gives_no_gw_option(state, daemon, sandbox):
    set_routes(sandbox, [R3])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    assert run.out == printed(CMD3)
    assert run.cmds == [argv(CMD3)]


@pytest.mark.parametrize("inf", ["lan", "Wan", "", "LAN ", "br0"])
def test_inf_neither_lan_nor_wan_gives_no_dev(state, daemon, sandbox, inf):
    set_routes(sandbox, [route("1", "10.1.0.0", "255.255.0.0", "", "1", inf)])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    assert run.out == "cmd:/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 metric 1 \n"
    assert run.cmds == [["/sbin/route", "add", "-net", "10.1.0.0", "netmask", "255.255.0.0",
                         "metric", "1"]]


def test_commitdelete_with_an_unknown_id_runs_nothing(state, daemon, sandbox):
    set_routes(sandbox, [R1, R2])
    run = staticroute(sandbox, daemon, {"action": "commitdelete", "id": "9"})
    assert run.reply == SUCCESS
    assert run.out == ""
    assert run.cmds == []


@pytest.mark.parametrize("value", [{"action": "commitall"}, {"action": "bogus"}, {},
                                   {"action": "commitadd", "id": "1"}],
                         ids=["commitall", "unknown-action", "no-action", "commitadd"])
@pytest.mark.parametrize("raw", [None, b"\0"], ids=["missing", "empty"])
def test_routes_static_missing_is_internal_error(state, daemon, sandbox, value, raw):
    store_restore(sandbox, "sysconf", "routes_static", raw)
    run = staticroute(sandbox, daemon, value)
    assert run.reply == INTERNAL
    assert run.out == ""
    assert run.cmds == []


# "staticroute": single routes


def test_commitadd_runs_the_first_route_with_the_id(state, daemon, sandbox):
    set_routes(sandbox, [R1, dict(R2, id="1"), R3])
    run = staticroute(sandbox, daemon, {"action": "commitadd", "id": "1"})
    assert run.reply == SUCCESS
    assert run.out == printed(CMD1)
    assert run.cmds == [argv(CMD1)]


def test_commitdelete_runs_route_del(state, daemon, sandbox):
    set_routes(sandbox, [R1, R2, R3])
    run = staticroute(sandbox, daemon, {"action": "commitdelete", "id": "2"})
    assert run.reply == SUCCESS
    cmd = CMD2.replace(" add ", " del ")
    assert run.out == printed(cmd)
    assert run.cmds == [argv(cmd)]


@pytest.mark.parametrize("value", [{"action": "commitadd"}, {"action": "commitdelete"},
                                   {"action": "commitadd", "id": None},
                                   {"action": "commitadd", "id": "01"}],
                         ids=["add-no-id", "delete-no-id", "null-id", "other-id"])
def test_single_route_actions_without_a_matching_id_run_nothing(state, daemon, sandbox, value):
    set_routes(sandbox, [R1, route("", "10.5.0.0", "255.255.0.0", "", "1", "LAN")])
    run = staticroute(sandbox, daemon, value)
    assert run.reply == SUCCESS
    assert run.cmds == []


def test_id_compares_with_the_ids_string_form(state, daemon, sandbox):
    """The request's and the route's "id" are compared as text, so a number
    matches the string of its digits."""
    set_routes(sandbox, [R1, dict(R3, id=7)])
    run = staticroute(sandbox, daemon, {"action": "commitadd", "id": "7"})
    assert run.cmds == [argv(CMD3)]
    run = staticroute(sandbox, daemon, {"action": "commitadd", "id": 1})
    assert run.cmds == [argv(CMD1)]


def test_missing_members_are_empty(state, daemon, sandbox):
    set_routes(sandbox, [{"id": "a", "inf": "LAN"}, {"id": "b", "dest": "10.7.0.0", "gw": None}])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    assert run.out == printed("/sbin/route add -net  netmask  metric  dev br0",
                              "/sbin/route add -net 10.7.0.0 netmask  metric  ")
    assert run.cmds == [["/sbin/route", "add", "-net", "netmask", "metric", "dev", "br0"],
                        ["/sbin/route", "add", "-net", "10.7.0.0", "netmask", "metric"]]


def test_missing_wan_interface_name_gives_an_empty_dev(state, daemon, sandbox):
    """While the WAN is down "wan_if" is "": a WAN route gets "dev " alone."""
    sandbox.store_set("rtconf", "wan_if", b'""\0')
    set_routes(sandbox, [R2])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.out == printed(CMD2[:-len("mlan0")])


# "staticroute": steps 1 to 8


def test_null_argument_is_invalid(state, daemon, sandbox):
    run = staticroute(sandbox, daemon, None)
    assert run.reply == INVALID
    assert run.out == "Input parameter is NULL.\n"


@pytest.mark.parametrize("target", ["staticroute", "datetime", "firewall"])
@pytest.mark.parametrize("value", ["commitall", [{"action": "set"}], 0, False],
                         ids=["string", "array", "number", "false"])
def test_non_object_argument_is_invalid(state, daemon, sandbox, target, value):
    run = Run(sandbox, daemon, target, value)
    assert run.reply == INVALID
    assert run.out == "Unexpected json type.\n"
    assert run.cmds == []


@pytest.mark.parametrize("value", [{}, {"action": 5}, {"action": None}, {"action": ["commitall"]}],
                         ids=["none", "number", "null", "array"])
def test_no_string_action_succeeds_without_parsing_routes(state, daemon, sandbox, value):
    sandbox.store_set("sysconf", "routes_static", b"[ {\0")
    run = staticroute(sandbox, daemon, value)
    assert run.reply == SUCCESS
    assert run.out == ""
    assert run.cmds == []


@pytest.mark.parametrize("action", ["commitall", "bogus"])
@pytest.mark.parametrize("raw", [b"[ {\0", b"null\0"], ids=["broken", "null"])
def test_routes_not_json_is_internal_error(state, daemon, sandbox, action, raw):
    sandbox.store_set("sysconf", "routes_static", raw)
    run = staticroute(sandbox, daemon, {"action": action})
    assert run.reply == INTERNAL
    assert run.out == "json_tokener_parse failed.\n"


@pytest.mark.parametrize("action", ["commitall", "bogus"])
@pytest.mark.parametrize("routes", [R1, "routes", 3], ids=["object", "string", "number"])
def test_routes_not_an_array_is_internal_error(state, daemon, sandbox, action, routes):
    set_routes(sandbox, routes)
    run = staticroute(sandbox, daemon, {"action": action})
    assert run.reply == INTERNAL
    assert run.out == "Unexpected json type.\n"
    assert run.cmds == []


def test_unknown_action_does_nothing(state, daemon, sandbox):
    set_routes(sandbox, [R1])
    for action in ("CommitAll", "commit", "add", ""):
        run = staticroute(sandbox, daemon, {"action": action, "id": "1"})
        assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [])


def test_non_object_element_stops_commitall_and_keeps_earlier_routes(state, daemon, sandbox):
    set_routes(sandbox, [R1, 5, R3])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == INTERNAL
    assert run.out == printed(CMD1) + "Unexpected json type.\n"
    assert run.cmds == [argv(CMD1)]


def test_null_element_cannot_be_fetched(state, daemon, sandbox):
    """json-c gives no object for a null element."""
    set_routes(sandbox, [None, R1])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == INTERNAL
    assert run.out == "json_object_array_get_idx failed.\n"
    assert run.cmds == []


def test_single_route_search_stops_at_a_bad_element_before_the_match(state, daemon, sandbox):
    set_routes(sandbox, [R1, "x", R3])
    run = staticroute(sandbox, daemon, {"action": "commitdelete", "id": "3"})
    assert run.reply == INTERNAL
    assert run.out == "Unexpected json type.\n"
    assert run.cmds == []
    run = staticroute(sandbox, daemon, {"action": "commitadd", "id": "1"})
    assert run.reply == SUCCESS
    assert run.cmds == [argv(CMD1)]


@pytest.mark.parametrize("key", ["wan_if", "lan_if"])
@pytest.mark.parametrize("raw", [None, b"\0", b"br0\0", b"[\0"],
                         ids=["missing", "empty", "not-json", "broken"])
def test_interface_key_missing_or_not_json_is_internal_error(state, daemon, sandbox, key, raw):
    set_routes(sandbox, [R1])
    store_restore(sandbox, "rtconf", key, raw)
    for value in ({"action": "commitall"}, {"action": "bogus"}, {}):
        run = staticroute(sandbox, daemon, value)
        assert (run.reply, run.out, run.cmds) == (INTERNAL, "", [])


# "staticroute": safety (DESIGN.md section 8). Route fields are shell words:
# a command holding a character other than letters, digits and ".:-_/", or
# longer than the 256-byte buffer, is refused ("internal error") and neither
# printed nor run.


@pytest.mark.parametrize("member", ["dest", "subnet", "gw", "metric"])
@pytest.mark.parametrize("text", ["1;reboot", "$(reboot)", "`reboot`", "1|x", "1&", "1>x",
                                  "1 2", "'", '"', "1\nx", "*", "~", "\\"],
                         ids=["semicolon", "dollar", "backquote", "pipe", "ampersand",
                              "redirect", "space", "quote", "double-quote", "newline",
                              "glob", "tilde", "backslash"])
def test_shell_characters_in_a_field_are_refused(state, daemon, sandbox, member, text):
    set_routes(sandbox, [dict(R1, **{member: text})])
    for value in ({"action": "commitall"}, {"action": "commitadd", "id": "1"}):
        run = staticroute(sandbox, daemon, value)
        assert (run.reply, run.out, run.cmds) == (INTERNAL, "", [])


def test_interface_name_with_shell_characters_is_refused(state, daemon, sandbox):
    sandbox.store_set("rtconf", "wan_if", b'"a;reboot"\0')
    set_routes(sandbox, [R1, R2, R3])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == INTERNAL
    assert run.out == printed(CMD1)
    assert run.cmds == [argv(CMD1)]


def test_refused_route_stops_commitall_and_keeps_earlier_routes(state, daemon, sandbox):
    set_routes(sandbox, [R1, dict(R2, dest="10.2.0.0;reboot"), R3])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == INTERNAL
    assert run.out == printed(CMD1)
    assert run.cmds == [argv(CMD1)]


def long_route(length):
    """A LAN route whose command is `length` characters long."""
    fixed = len("/sbin/route add -net  netmask 255.255.0.0 metric 1 dev br0")
    return route("1", "1" * (length - fixed), "255.255.0.0", "", "1", "LAN")


def test_a_command_of_255_characters_runs(state, daemon, sandbox):
    set_routes(sandbox, [long_route(255)])
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS
    cmd = run.out[len("cmd:"):-1]
    assert len(cmd) == 255 and cmd.endswith(" dev br0")
    assert run.cmds == [argv(cmd)]


@pytest.mark.parametrize("length", [256, 400])
def test_a_command_that_does_not_fit_256_bytes_is_refused(state, daemon, sandbox, length):
    set_routes(sandbox, [long_route(length)])
    for value in ({"action": "commitall"}, {"action": "commitdelete", "id": "1"}):
        run = staticroute(sandbox, daemon, value)
        assert (run.reply, run.out, run.cmds) == (INTERNAL, "", [])


@pytest.mark.parametrize("key", ["wan_if", "lan_if"])
def test_interface_name_longer_than_15_characters_is_refused(state, daemon, sandbox, key):
    set_routes(sandbox, [R3])
    sandbox.store_set("rtconf", key, b'"' + b"x" * 16 + b'"\0')
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert (run.reply, run.out, run.cmds) == (INTERNAL, "", [])
    sandbox.store_set("rtconf", key, b'"' + b"x" * 15 + b'"\0')
    run = staticroute(sandbox, daemon, {"action": "commitall"})
    assert run.reply == SUCCESS


# "staticroute": real routes through the real route command


def proc_routes(sandbox):
    """/proc/net/route as (iface, destination, gateway, flags, metric, mask)."""
    rows = sandbox.run(["cat", "/proc/net/route"], check=True).stdout.decode().splitlines()
    assert rows[0].split()[:8] == ["Iface", "Destination", "Gateway", "Flags", "RefCnt",
                                   "Use", "Metric", "Mask"]

    def addr(hexa):
        return socket.inet_ntoa(struct.pack("<I", int(hexa, 16)))
    found = set()
    for row in rows[1:]:
        c = row.split()
        found.add((c[0], addr(c[1]), addr(c[2]), int(c[3], 16), int(c[6]), addr(c[7])))
    return found


def test_real_routes_are_installed_and_one_deleted(state, daemon, sandbox):
    if sandbox.real(ROUTE) is None:
        pytest.skip("the host has no route command (net-tools)")
    sandbox.pass_through(ROUTE)
    ip = ["ip", "addr", "add", "10.9.9.2/24", "dev", "mlan0"]
    sandbox.run(ip, check=True)
    try:
        sandbox.run(["ip", "link", "set", "mlan0", "up"], check=True)
        before = proc_routes(sandbox)
        set_routes(sandbox, [R1, R2, R3])
        run = staticroute(sandbox, daemon, {"action": "commitall"})
        assert run.reply == SUCCESS
        assert run.cmds == [argv(CMD1), argv(CMD2), argv(CMD3)]
        # route's "metric N" is the kernel's metric N
        added = {("br0", "10.1.0.0", "192.168.100.254", 0x3, 2, "255.255.0.0"),
                 ("mlan0", "10.2.0.0", "10.9.9.1", 0x3, 3, "255.255.255.0"),
                 ("br0", "172.16.0.0", "0.0.0.0", 0x1, 4, "255.240.0.0")}
        assert proc_routes(sandbox) == before | added
        run = staticroute(sandbox, daemon, {"action": "commitdelete", "id": "2"})
        assert run.reply == SUCCESS
        assert run.cmds == [argv(CMD2.replace(" add ", " del "))]
        assert proc_routes(sandbox) == before | (added - {
            ("mlan0", "10.2.0.0", "10.9.9.1", 0x3, 3, "255.255.255.0")})
    finally:
        for r in (R1, R3):
            sandbox.run(["ip", "route", "del", f"{r['dest']}/{r['subnet']}"])
        sandbox.run(["ip", "addr", "del", "10.9.9.2/24", "dev", "mlan0"])
        sandbox.run(["ip", "link", "set", "mlan0", "down"])


# "datetime"


def datetime(sandbox, daemon, value):
    return Run(sandbox, daemon, "datetime", value)


def test_timezone_0_is_stored_as_GMT_plus_0_with_quotes(state, daemon, sandbox):
    sandbox.store_set("sysconf", "timezone", b'"GMT-8"\0')
    run = datetime(sandbox, daemon, {"action": "set", "timezone": 0})
    assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [])
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+0"\0'
    assert send(sandbox, {"method": "pref-get", "arguments": {"confs": ["timezone"]}}) == \
        b'{ "arguments": { "confs": { "timezone": "GMT+0" }, "infos": { } }, "result": "success" }'


@pytest.mark.parametrize("zone,stored", [
    (8, b'"GMT-8"'), (-5, b'"GMT+5"'), (12, b'"GMT-12"'), (-12, b'"GMT+12"'),
    ("3", b'"GMT-3"'), (5.75, b'"GMT-5"'), (None, b'"GMT+1"'),
    (2 ** 31, b'"GMT-2147483647"'), (-2 ** 31, b'"GMT+2147483648"'),
], ids=["8", "-5", "12", "-12", "string", "fraction", "null", "above-int", "int-min"])
def test_timezone_is_stored_with_the_negated_offset(state, daemon, sandbox, zone, stored):
    """json-c's integer value (a string's digits, a fraction's whole part,
    clamped to 32 bits); a null member counts as absent."""
    sandbox.store_set("sysconf", "timezone", b'"GMT+1"\0')
    run = datetime(sandbox, daemon, {"action": "set", "timezone": zone})
    assert run.reply == SUCCESS
    assert sandbox.store_get("sysconf", "timezone") == stored + b"\0"


@pytest.mark.parametrize("value", [{"timezone": 3}, {"action": "Set", "timezone": 3},
                                   {"action": "get", "timezone": 3},
                                   {"action": None, "timezone": 3}, {"action": "set"}],
                         ids=["no-action", "Set", "get", "null-action", "no-members"])
def test_datetime_without_set_or_timezone_stores_nothing(state, daemon, sandbox, value):
    sandbox.store_set("sysconf", "timezone", b'"GMT+1"\0')
    run = datetime(sandbox, daemon, value)
    assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [])
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+1"\0'


def test_datetime_null_argument_is_invalid(state, daemon, sandbox):
    run = datetime(sandbox, daemon, None)
    assert (run.reply, run.out) == (INVALID, "Input parameter is NULL.\n")


@contextlib.contextmanager
def clock_calls(daemon):
    """The daemon's clock-setting system calls while the block runs, as
    strace prints them (a list, filled when the block ends)."""
    strace = shutil.which("strace")
    if strace is None:
        pytest.skip("strace is not installed")
    calls = []
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "strace.out")
        p = subprocess.Popen([strace, "-qq", "-e", "trace=clock_settime,settimeofday",
                              "-o", out, "-p", str(daemon.host_pid)],
                             stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_for(lambda: tracer_of(daemon.host_pid) == p.pid)
            yield calls
        finally:
            p.send_signal(signal.SIGINT)
            p.wait(30)
        with open(out) as f:
            calls.extend(f.read().splitlines())


def tracer_of(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("TracerPid:"):
                return int(line.split()[1])
    return 0


def settime_call(seconds):
    return (f"clock_settime(CLOCK_REALTIME, {{tv_sec={seconds}, tv_nsec=0}})"
            " = -1 EPERM (Operation not permitted)")


def test_time_0_leaves_the_clock_untouched(state, daemon, sandbox):
    """Time 0 (and any time below 1) makes no clock call; 1000000000 does,
    and the sandbox refuses it."""
    with clock_calls(daemon) as calls:
        for t in (0, -5, "0", 0.5):
            run = datetime(sandbox, daemon, {"action": "set", "time": t})
            assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [])
        assert datetime(sandbox, daemon, {"action": "set", "time": 1000000000}).reply == SUCCESS
    assert calls == [settime_call(1000000000)]
    assert time.time() > 1700000000


def test_time_is_set_before_the_timezone_is_stored(state, daemon, sandbox):
    with clock_calls(daemon) as calls:
        run = datetime(sandbox, daemon, {"action": "set", "time": "1200000000", "timezone": -2})
        assert run.reply == SUCCESS
    assert calls == [settime_call(1200000000)]
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+2"\0'


# dtime, seen through "s_dhcpleases" (Part 2.5)

FUTURE = 2000000000  # a lease end after now, and within a 32-bit time_t


def dtime_of(sandbox):
    """dtime, from the leases' "expires": a lease that ended at 1 shows
    1 + dtime - now, one ending at FUTURE shows FUTURE - now. The two FUTURE
    leases around the past one show the same value when the three lines were
    read within one second, so that "now" is known."""
    sandbox.write(LEASES, f"{FUTURE} m1 i1 h1 c1\n1 m2 i2 h2 c2\n{FUTURE} m3 i3 h3 c3\n")
    request = {"method": "pref-get", "arguments": {"infos": ["s_dhcpleases"]}}
    for _ in range(100):
        reply = json.loads(send(sandbox, request))
        first, past, last = (int(lease["expires"])
                             for lease in reply["arguments"]["infos"]["s_dhcpleases"])
        if first == last:
            return past - 1 + (FUTURE - first)
    raise AssertionError("no clean sample")


def set_forward(sandbox, jump):
    """"datetime" sets the clock `jump` seconds ahead of the time the daemon
    notes before setting it: requests are repeated until one is sent and
    answered within one second, so that the daemon noted that second."""
    for _ in range(100):
        t0 = int(time.time())
        assert revalidate(sandbox, {"datetime": {"action": "set", "time": t0 + jump}}) == SUCCESS
        if int(time.time()) == t0:
            return
    raise AssertionError("no clean sample")


def test_forward_jump_of_172800_leaves_dtime_and_172801_records_it(state, daemon, sandbox):
    assert dtime_of(sandbox) == 0
    set_forward(sandbox, 172800)
    assert dtime_of(sandbox) == 0
    set_forward(sandbox, 172801)
    assert dtime_of(sandbox) == 172801
    set_forward(sandbox, 172800)
    assert dtime_of(sandbox) == 172801
    set_forward(sandbox, -100)
    assert dtime_of(sandbox) == 172801
    set_forward(sandbox, 500000)
    assert dtime_of(sandbox) == 500000


# "firewall"


def firewall(sandbox, daemon, value):
    return Run(sandbox, daemon, "firewall", value)


@pytest.mark.parametrize("action", ["start", "restart"])
def test_start_and_restart_run_only_firewall_start(state, daemon, sandbox, action):
    run = firewall(sandbox, daemon, {"action": action})
    assert run.reply == SUCCESS
    assert run.out == f"action:{action}\nrevalidate_setFirewall\n"
    assert run.cmds == [[FIREWALL, "start"]]


@pytest.mark.parametrize("action", ["stop", "Start", ""],
                         ids=["stop", "Start", "empty"])
def test_other_firewall_actions_print_and_do_nothing(state, daemon, sandbox, action):
    run = firewall(sandbox, daemon, {"action": action})
    assert run.reply == SUCCESS
    assert run.out == f"action:{action}\nrevalidate_setFirewall\n"
    assert run.cmds == []


@pytest.mark.parametrize("value", [{}, {"action": None}, {"start": 1}, {"action": 7}],
                         ids=["empty", "null-action", "other-member", "number-action"])
def test_firewall_without_action_does_nothing(state, daemon, sandbox, value):
    run = firewall(sandbox, daemon, value)
    assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [])


def test_firewall_null_argument_is_invalid(state, daemon, sandbox):
    run = firewall(sandbox, daemon, None)
    assert (run.reply, run.out, run.cmds) == (INVALID, "Input parameter is NULL.\n", [])


def test_failing_firewall_script_still_succeeds(state, daemon, sandbox):
    sandbox.stub_exit(FIREWALL, 3)
    run = firewall(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == [[FIREWALL, "start"]]

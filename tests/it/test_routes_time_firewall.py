"""The "staticroute", "datetime" and "firewall" targets: what they print, run and store."""
import json
import shutil
import signal
import subprocess
import time

import pytest

from helpers import revalidate, send, wait_for
from net_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, Run, conf  # noqa: F401

FIREWALL, PARSE, ELEMENT = "/usr/sbin/firewall", "json_tokener_parse failed.\n", "json_object_array_get_idx failed.\n"


def route(rid, dest, subnet, gw, metric, inf):
    return {"id": rid, "dest": dest, "subnet": subnet, "gw": gw, "metric": metric, "inf": inf}


R1, R3 = route("1", "10.1.0.0", "255.255.0.0", "192.168.100.254", "2", "LAN"), route("3", "172.16.0.0", "255.240.0.0", "", "4", "LAN")
R2 = route("2", "10.2.0.0", "255.255.255.0", "10.9.9.1", "3", "WAN")
C1 = "cmd:/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 gw 192.168.100.254 metric 2 dev br0\n"
C2 = "cmd:/sbin/route add -net 10.2.0.0 netmask 255.255.255.0 gw 10.9.9.1 metric 3 dev mlan0\n"
C3 = "cmd:/sbin/route add -net 172.16.0.0 netmask 255.240.0.0 metric 4 dev br0\n"
ALL, ADD1, DEL = {"action": "commitall"}, {"action": "commitadd", "id": "1"}, {"action": "commitdelete", "id": "1"}
FIXED = len("/sbin/route add -net  netmask 255.255.0.0 metric 1 dev br0")


def long_route(length):
    return [route("1", "1" * (length - FIXED), "255.255.0.0", "", "1", "LAN")]


# id: (routes_static, other records, value, reply, printed); each printed "cmd:" line ran as printed
CASES = {
    "array-order": ([R2, R1], {}, ALL, SUCCESS, C2 + C1), "empty": ([], {}, ALL, SUCCESS, ""), "no-gw": ([R3], {}, ALL, SUCCESS, C3),
    "wan-down": ([R2], {"rt:wan_if": ""}, ALL, SUCCESS, C2[:-6] + "\n"), "add-first": ([R1, {**R2, "id": "1"}, R3], {}, ADD1, SUCCESS, C1),
    "delete": ([R1, R2, R3], {}, {"action": "commitdelete", "id": "2"}, SUCCESS, C2.replace(" add ", " del ")),
    "delete-unknown": ([R1, R2], {}, {"action": "commitdelete", "id": "9"}, SUCCESS, ""),
    "id-number-route": ([R1, {**R3, "id": 7}], {}, {"action": "commitadd", "id": "7"}, SUCCESS, C3),
    "id-number-request": ([R1, {**R3, "id": 7}], {}, {"action": "commitadd", "id": 1}, SUCCESS, C1),
    "missing-members": ([{"id": "a", "inf": "LAN"}, {"id": "b", "dest": "10.7.0.0", "gw": None}], {}, ALL, SUCCESS,
                        "cmd:/sbin/route add -net  netmask  metric  dev br0\ncmd:/sbin/route add -net 10.7.0.0 netmask  metric  \n"),
    "element-number": ([R1, 5, R3], {}, ALL, INTERNAL, C1 + TYPE), "element-null": ([None, R1], {}, ALL, INTERNAL, ELEMENT),
    "search-bad-element": ([R1, "x", R3], {}, {"action": "commitdelete", "id": "3"}, INTERNAL, TYPE),
    "search-before-bad": ([R1, "x", R3], {}, ADD1, SUCCESS, C1), "null": ([], {}, None, INVALID, NULL),
    "unsafe-interface": ([R1, R2, R3], {"rt:wan_if": "a;reboot"}, ALL, INTERNAL, C1),
    "unsafe-stops": ([R1, {**R2, "dest": "10.2.0.0;reboot"}, R3], {}, ALL, INTERNAL, C1),
    "command-255": (long_route(255), {}, ALL, SUCCESS, f"cmd:/sbin/route add -net {'1' * 197} netmask 255.255.0.0 metric 1 dev br0\n"),
}
for inf in ("lan", "Wan", "", "LAN ", "br0"):
    CASES[f"inf-{inf!r}"] = ([route("1", "10.1.0.0", "255.255.0.0", "", "1", inf)], {}, ALL, SUCCESS,
                             "cmd:/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 metric 1 \n")
for value in ({"action": "commitadd"}, {"action": "commitdelete"}, {"action": "commitadd", "id": None}, {"action": "commitadd", "id": "01"},
              *[{"action": a, "id": "1"} for a in ("CommitAll", "commit", "add", "")]):
    CASES[f"no-match-{json.dumps(value)}"] = ([R1, route("", "10.5.0.0", "255.255.0.0", "", "1", "LAN")], {}, value, SUCCESS, "")
for value in ({}, {"action": 5}, {"action": None}, {"action": ["commitall"]}):
    CASES[f"no-action-{json.dumps(value)}"] = (b"[ {\0", {}, value, SUCCESS, "")
for action in ("commitall", "bogus"):
    for name, routes, out in [("broken", b"[ {\0", PARSE), ("null", b"null\0", PARSE), ("object", R1, TYPE), ("string", "r", TYPE), ("number", 3, TYPE)]:
        CASES[f"{name}-{action}"] = (routes, {}, {"action": action}, INTERNAL, out)
for length in (256, 400):
    CASES[f"command-{length}"], CASES[f"command-{length}-delete"] = [(long_route(length), {}, v, INTERNAL, "") for v in (ALL, DEL)]
for value in (ALL, {"action": "bogus"}, {}, ADD1):
    for raw in (None, b"\0"):
        CASES[f"routes-{raw}-{json.dumps(value)}"] = (raw, {}, value, INTERNAL, "")
    for key in ("wan_if", "lan_if"):
        for raw in (None, b"\0", b"br0\0", b"[\0"):
            CASES[f"{key}-{raw}-{json.dumps(value)}"] = ([R1], {f"rt:{key}": raw}, value, INTERNAL, "")
for key in ("wan_if", "lan_if"):
    CASES[f"{key}-16"] = ([R3], {f"rt:{key}": "x" * 16}, ALL, INTERNAL, "")
    CASES[f"{key}-15"] = ([R3], {f"rt:{key}": "x" * 15}, ALL, SUCCESS, C3.replace("br0", "x" * 15 if key == "lan_if" else "br0"))
for member in ("dest", "subnet", "gw", "metric"):
    for text in ("1;reboot", "$(reboot)", "`reboot`", "1|x", "1&", "1>x", "1 2", "'", '"', "1\nx", "*", "~", "\\"):
        for value in (ALL, ADD1):
            CASES[f"{member}-{text!r}-{value['action']}"] = ([{**R1, member: text}], {}, value, INTERNAL, "")


def argv(out):
    return [s[4:].split() for s in out.splitlines() if s.startswith("cmd:")]


@pytest.mark.parametrize("routes, records, value, reply, out", CASES.values(), ids=CASES.keys())
def test_static_routes(daemon, sandbox, conf, routes, records, value, reply, out):
    conf({"rt:wan_if": "mlan0", "rt:lan_if": "br0", "routes_static": routes, **records})
    run = Run(sandbox, daemon, "staticroute", value)
    assert (run.reply, run.out, run.cmds) == (reply, out, argv(out))


def test_real_routes_are_installed_and_one_deleted(daemon, sandbox, conf):
    if sandbox.real("/sbin/route") is None:
        pytest.skip("the host has no route command (net-tools)")
    sandbox.pass_through("/sbin/route")
    conf({"rt:wan_if": "mlan0", "rt:lan_if": "br0", "routes_static": [R1, R2, R3]})
    table = ["ip", "-4", "route", "show", "table", "main"]
    sandbox.run(["ip", "addr", "add", "10.9.9.2/24", "dev", "mlan0"], check=True)
    try:
        sandbox.run(["ip", "link", "set", "mlan0", "up"], check=True)
        before = set(sandbox.run(table, check=True).stdout.decode().splitlines())
        assert Run(sandbox, daemon, "staticroute", ALL).cmds == argv(C1 + C2 + C3)
        added = {"10.1.0.0/16 via 192.168.100.254 dev br0 metric 2 ", "172.16.0.0/12 dev br0 scope link metric 4 "}
        assert set(sandbox.run(table, check=True).stdout.decode().splitlines()) == before | added | {"10.2.0.0/24 via 10.9.9.1 dev mlan0 metric 3 "}
        assert Run(sandbox, daemon, "staticroute", {"action": "commitdelete", "id": "2"}).reply == SUCCESS
        assert set(sandbox.run(table, check=True).stdout.decode().splitlines()) == before | added
    finally:
        sandbox.stub("/sbin/route", "exit 0\n")
        for r in ("10.1.0.0/16", "172.16.0.0/12"):
            sandbox.run(["ip", "route", "del", r])
        sandbox.run(["ip", "addr", "flush", "dev", "mlan0"])
        sandbox.run(["ip", "link", "set", "mlan0", "down"])


def action(target, name, cmds=()):
    return {"action": name}, SUCCESS, f"action:{name}\nrevalidate_set{target}\n", list(cmds)


@pytest.mark.parametrize("target, value, reply, out, cmds", [
    *[("firewall", *action("Firewall", a, [[FIREWALL, "start"]])) for a in ("start", "restart")], *[("firewall", *action("Firewall", a)) for a in
                                                                                                  ("stop", "Start", "")],
    *[("firewall", v, SUCCESS, "", []) for v in ({}, {"action": None}, {"start": 1}, {"action": 7})], *[(t, None, INVALID, NULL, []) for t in
                                                                                                     ("firewall", "datetime")],
    *[(t, v, INVALID, TYPE, []) for t in ("staticroute", "datetime", "firewall") for v in ("commitall", [{"action": "set"}], 0, False)]])
def test_firewall_and_argument_shapes(daemon, sandbox, target, value, reply, out, cmds):
    sandbox.stub_exit(FIREWALL, 3)  # the script's status is not looked at
    run = Run(sandbox, daemon, target, value)
    assert (run.reply, run.out, run.cmds) == (reply, out, cmds)
    sandbox.stub(FIREWALL, "exit 0\n")


@pytest.mark.parametrize("value, zone", [*[({"action": "set", "timezone": z}, s) for z, s in [
    (0, "GMT+0"), (8, "GMT-8"), (-5, "GMT+5"), (12, "GMT-12"), (-12, "GMT+12"), ("3", "GMT-3"), (5.75, "GMT-5"), (None, "GMT+1"),
    (2 ** 31, "GMT-2147483647"), (-2 ** 31, "GMT+2147483648")]], *[(v, "GMT+1") for v in (
        {"timezone": 3}, {"action": "Set", "timezone": 3}, {"action": "get", "timezone": 3}, {"action": None, "timezone": 3}, {"action": "set"})]])
def test_timezone_is_stored_negated(daemon, sandbox, conf, value, zone):
    conf({"timezone": "GMT+1"})
    run = Run(sandbox, daemon, "datetime", value)
    assert (run.reply, run.out, run.cmds, sandbox.store_get("sysconf", "timezone")) == (SUCCESS, "", [], f'"{zone}"\0'.encode())
    assert send(sandbox, {"method": "pref-get", "arguments": {"confs": ["timezone"]}}) == (
        b'{ "arguments": { "confs": { "timezone": "%s" }, "infos": { } }, "result": "success" }' % zone.encode())


def test_clock_is_set_for_a_time_of_1_or_more_before_the_zone_is_stored(daemon, sandbox, conf, tmp_path):
    """Seen through strace: the sandbox refuses the call."""
    if shutil.which("strace") is None:
        pytest.skip("strace is not installed")
    conf({"timezone": "GMT+1"})
    p = subprocess.Popen(["strace", "-qq", "-e", "trace=clock_settime,settimeofday", "-o", tmp_path / "out", "-p", str(daemon.host_pid)],
                         stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_for(lambda: f"TracerPid:\t{p.pid}\n" in open(f"/proc/{daemon.host_pid}/status").read())
        for t in (0, -5, "0", 0.5, 1000000000, "1200000000"):
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t, "timezone": -2}}) == SUCCESS
    finally:
        p.send_signal(signal.SIGINT)
        p.wait(30)
    assert (tmp_path / "out").read_text().splitlines() == [
        f"clock_settime(CLOCK_REALTIME, {{tv_sec={t}, tv_nsec=0}}) = -1 EPERM (Operation not permitted)" for t in (1000000000, 1200000000)]
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+2"\0'


def dtime_of(sandbox):
    """The clock correction: a past lease's "expires" between two future ones read in the same second."""
    sandbox.write("/var/tmp/dnsmasq.leases", "2000000000 m1 i1 h1 c1\n1 m2 i2 h2 c2\n2000000000 m3 i3 h3 c3\n")
    for _ in range(100):
        first, past, last = (int(x["expires"]) for x in json.loads(send(sandbox, {
            "method": "pref-get", "arguments": {"infos": ["s_dhcpleases"]}}))["arguments"]["infos"]["s_dhcpleases"])
        if first == last:
            return past - 1 + (2000000000 - first)
    raise AssertionError("no clean sample")


def test_forward_jump_over_two_days_is_recorded(daemon, sandbox):
    """Each jump is sent again until answered within the second it was computed in."""
    for jump, dtime in [(0, 0), (172800, 0), (172801, 172801), (172800, 172801), (-100, 172801), (500000, 500000)]:
        while jump:
            t0 = int(time.time())
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t0 + jump}}) == SUCCESS
            if int(time.time()) == t0:
                break
        assert dtime_of(sandbox) == dtime, jump
    sandbox.remove("/var/tmp/dnsmasq.leases")

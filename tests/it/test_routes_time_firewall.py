"""The "staticroute", "datetime" and "firewall" targets: what they print, run and store."""
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
ALL, ADD1 = {"action": "commitall"}, {"action": "commitadd", "id": "1"}
FIXED = len("/sbin/route add -net  netmask 255.255.0.0 metric 1 dev br0")


def long_route(length):
    return [route("1", "1" * (length - FIXED), "255.255.0.0", "", "1", "LAN")]


# id: (records, value, reply, printed); every printed "cmd:" line ran as printed
CASES = {
    "array-order": ({"routes_static": [R2, R1]}, ALL, SUCCESS, C2 + C1), "empty": ({"routes_static": []}, ALL, SUCCESS, ""),
    "no-gw": ({"routes_static": [R3]}, ALL, SUCCESS, C3), "wan-down": ({"routes_static": [R2], "rt:wan_if": ""}, ALL, SUCCESS, C2[:-6] + "\n"),
    "add-first-match": ({"routes_static": [R1, {**R2, "id": "1"}, R3]}, ADD1, SUCCESS, C1),
    "delete": ({"routes_static": [R1, R2, R3]}, {"action": "commitdelete", "id": "2"}, SUCCESS, C2.replace(" add ", " del ")),
    "delete-unknown": ({"routes_static": [R1, R2]}, {"action": "commitdelete", "id": "9"}, SUCCESS, ""),
    "id-number-route": ({"routes_static": [R1, {**R3, "id": 7}]}, {"action": "commitadd", "id": "7"}, SUCCESS, C3),
    "id-number-request": ({"routes_static": [R1, {**R3, "id": 7}]}, {"action": "commitadd", "id": 1}, SUCCESS, C1),
    "missing-members": ({"routes_static": [{"id": "a", "inf": "LAN"}, {"id": "b", "dest": "10.7.0.0", "gw": None}]}, ALL, SUCCESS,
                        "cmd:/sbin/route add -net  netmask  metric  dev br0\ncmd:/sbin/route add -net 10.7.0.0 netmask  metric  \n"),
    "element-number": ({"routes_static": [R1, 5, R3]}, ALL, INTERNAL, C1 + TYPE),
    "element-null": ({"routes_static": [None, R1]}, ALL, INTERNAL, ELEMENT),
    "search-bad-element": ({"routes_static": [R1, "x", R3]}, {"action": "commitdelete", "id": "3"}, INTERNAL, TYPE),
    "search-before-bad": ({"routes_static": [R1, "x", R3]}, ADD1, SUCCESS, C1),
    "unsafe-interface": ({"routes_static": [R1, R2, R3], "rt:wan_if": "a;reboot"}, ALL, INTERNAL, C1),
    "unsafe-stops": ({"routes_static": [R1, {**R2, "dest": "10.2.0.0;reboot"}, R3]}, ALL, INTERNAL, C1),
    "command-255": ({"routes_static": long_route(255)}, ALL, SUCCESS, f"cmd:/sbin/route add -net {'1' * 197} netmask 255.255.0.0 metric 1 dev br0\n"),
    "null": ({}, None, INVALID, NULL),
}
for inf in ("lan", "Wan", "", "LAN ", "br0"):
    CASES[f"inf-{inf!r}"] = ({"routes_static": [route("1", "10.1.0.0", "255.255.0.0", "", "1", inf)]}, ALL, SUCCESS,
                             "cmd:/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 metric 1 \n")
for value in ({"action": "commitadd"}, {"action": "commitdelete"}, {"action": "commitadd", "id": None}, {"action": "commitadd", "id": "01"},
              *[{"action": a, "id": "1"} for a in ("CommitAll", "commit", "add", "")]):
    CASES[f"no-match-{json.dumps(value)}"] = ({"routes_static": [R1, route("", "10.5.0.0", "255.255.0.0", "", "1", "LAN")]}, value, SUCCESS, "")
for value in ({}, {"action": 5}, {"action": None}, {"action": ["commitall"]}):
    CASES[f"no-action-{json.dumps(value)}"] = ({"routes_static": b"[ {\0"}, value, SUCCESS, "")
for action in ("commitall", "bogus"):
    for name, routes, out in [("broken", b"[ {\0", PARSE), ("null", b"null\0", PARSE), ("object", R1, TYPE), ("string", "r", TYPE), ("number", 3, TYPE)]:
        CASES[f"{name}-{action}"] = ({"routes_static": routes}, {"action": action}, INTERNAL, out)
for length, value in [(n, {"action": a, "id": "1"}) for n in (256, 400) for a in ("commitall", "commitdelete")]:
    CASES[f"command-{length}-{value['action']}"] = ({"routes_static": long_route(length)}, value, INTERNAL, "")
for value in (ALL, {"action": "bogus"}, {}, ADD1):
    for raw in (None, b"\0"):
        CASES[f"routes-{raw}-{json.dumps(value)}"] = ({"routes_static": raw}, value, INTERNAL, "")
    for key in ("wan_if", "lan_if"):
        for raw in (None, b"\0", b"br0\0", b"[\0"):
            CASES[f"{key}-{raw}-{json.dumps(value)}"] = ({"routes_static": [R1], f"rt:{key}": raw}, value, INTERNAL, "")
for key in ("wan_if", "lan_if"):
    CASES[f"{key}-16"] = ({"routes_static": [R3], f"rt:{key}": "x" * 16}, ALL, INTERNAL, "")
    CASES[f"{key}-15"] = ({"routes_static": [R3], f"rt:{key}": "x" * 15}, ALL, SUCCESS, C3.replace("br0", "x" * 15 if key == "lan_if" else "br0"))
for member in ("dest", "subnet", "gw", "metric"):
    for text in ("1;reboot", "$(reboot)", "`reboot`", "1|x", "1&", "1>x", "1 2", "'", '"', "1\nx", "*", "~", "\\"):
        for value in (ALL, ADD1):
            CASES[f"{member}-{text!r}-{value['action']}"] = ({"routes_static": [{**R1, member: text}]}, value, INTERNAL, "")


@pytest.mark.parametrize("records, value, reply, out", CASES.values(), ids=CASES.keys())
def test_static_routes(daemon, sandbox, conf, records, value, reply, out):
    conf({"rt:wan_if": "mlan0", "rt:lan_if": "br0", **records})
    run = Run(sandbox, daemon, "staticroute", value)
    assert (run.reply, run.out, run.cmds) == (reply, out, [s[4:].split() for s in out.splitlines() if s.startswith("cmd:")])


def proc_routes(sandbox):
    """/proc/net/route as (iface, destination, gateway, flags, metric, mask)."""
    def addr(hexa):
        return socket.inet_ntoa(struct.pack("<I", int(hexa, 16)))
    rows = [r.split() for r in sandbox.run(["cat", "/proc/net/route"], check=True).stdout.decode().splitlines()[1:]]
    return {(c[0], addr(c[1]), addr(c[2]), int(c[3], 16), int(c[6]), addr(c[7])) for c in rows}


def test_real_routes_are_installed_and_one_deleted(daemon, sandbox, conf):
    if sandbox.real("/sbin/route") is None:
        pytest.skip("the host has no route command (net-tools)")
    sandbox.pass_through("/sbin/route")
    conf({"rt:wan_if": "mlan0", "rt:lan_if": "br0", "routes_static": [R1, R2, R3]})
    sandbox.run(["ip", "addr", "add", "10.9.9.2/24", "dev", "mlan0"], check=True)
    try:
        sandbox.run(["ip", "link", "set", "mlan0", "up"], check=True)
        before = proc_routes(sandbox)
        added = {("br0", "10.1.0.0", "192.168.100.254", 3, 2, "255.255.0.0"), ("br0", "172.16.0.0", "0.0.0.0", 1, 4, "255.240.0.0")}
        assert Run(sandbox, daemon, "staticroute", ALL).cmds == [s[4:].split() for s in (C1, C2, C3)]
        assert proc_routes(sandbox) == before | added | {("mlan0", "10.2.0.0", "10.9.9.1", 3, 3, "255.255.255.0")}
        assert Run(sandbox, daemon, "staticroute", {"action": "commitdelete", "id": "2"}).reply == SUCCESS
        assert proc_routes(sandbox) == before | added
    finally:
        sandbox.stub("/sbin/route", "exit 0\n")
        for r in (R1, R3):
            sandbox.run(["ip", "route", "del", f"{r['dest']}/{r['subnet']}"])
        sandbox.run(["ip", "addr", "del", "10.9.9.2/24", "dev", "mlan0"])
        sandbox.run(["ip", "link", "set", "mlan0", "down"])


def action(target, name, cmds=()):
    return {"action": name}, SUCCESS, f"action:{name}\nrevalidate_set{target}\n", list(cmds)


@pytest.mark.parametrize("target, value, reply, out, cmds", [
    ("firewall", *action("Firewall", "start", [[FIREWALL, "start"]])), ("firewall", *action("Firewall", "restart", [[FIREWALL, "start"]])),
    *[("firewall", *action("Firewall", a)) for a in ("stop", "Start", "")],
    *[("firewall", v, SUCCESS, "", []) for v in ({}, {"action": None}, {"start": 1}, {"action": 7})],
    *[(t, None, INVALID, NULL, []) for t in ("firewall", "datetime")],
    *[(t, v, INVALID, TYPE, []) for t in ("staticroute", "datetime", "firewall") for v in ("commitall", [{"action": "set"}], 0, False)]])
def test_firewall_and_argument_shapes(daemon, sandbox, target, value, reply, out, cmds):
    sandbox.stub_exit(FIREWALL, 3)  # the script's status is not looked at
    run = Run(sandbox, daemon, target, value)
    assert (run.reply, run.out, run.cmds) == (reply, out, cmds)
    sandbox.stub(FIREWALL, "exit 0\n")


@pytest.mark.parametrize("value, stored", [
    *[({"action": "set", "timezone": z}, s) for z, s in [(0, "GMT+0"), (8, "GMT-8"), (-5, "GMT+5"), (12, "GMT-12"), (-12, "GMT+12"),
                                                          ("3", "GMT-3"), (5.75, "GMT-5"), (None, "GMT+1"), (2 ** 31, "GMT-2147483647"),
                                                          (-2 ** 31, "GMT+2147483648")]],
    *[(v, "GMT+1") for v in ({"timezone": 3}, {"action": "Set", "timezone": 3}, {"action": "get", "timezone": 3},
                             {"action": None, "timezone": 3}, {"action": "set"})]])
def test_timezone_is_stored_negated(daemon, sandbox, conf, value, stored):
    conf({"timezone": "GMT+1"})
    run = Run(sandbox, daemon, "datetime", value)
    assert (run.reply, run.out, run.cmds, sandbox.store_get("sysconf", "timezone")) == (SUCCESS, "", [], f'"{stored}"\0'.encode())
    assert send(sandbox, {"method": "pref-get", "arguments": {"confs": ["timezone"]}}) == (
        b'{ "arguments": { "confs": { "timezone": "%s" }, "infos": { } }, "result": "success" }' % stored.encode())


@contextlib.contextmanager
def clock_calls(daemon):
    """The daemon's clock-setting system calls while the block runs, as strace prints them."""
    if shutil.which("strace") is None:
        pytest.skip("strace is not installed")
    calls = []
    with tempfile.TemporaryDirectory() as tmp:
        p = subprocess.Popen(["strace", "-qq", "-e", "trace=clock_settime,settimeofday", "-o", f"{tmp}/out", "-p",
                              str(daemon.host_pid)], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_for(lambda: f"TracerPid:\t{p.pid}\n" in open(f"/proc/{daemon.host_pid}/status").read())
            yield calls
        finally:
            p.send_signal(signal.SIGINT)
            p.wait(30)
        calls.extend(open(f"{tmp}/out").read().splitlines())


def test_time_below_1_leaves_the_clock_and_a_time_is_set_before_the_zone(daemon, sandbox, conf):
    conf({"timezone": "GMT+1"})
    with clock_calls(daemon) as calls:
        for t in (0, -5, "0", 0.5):
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t}}) == SUCCESS
        for t in (1000000000, "1200000000"):
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t, "timezone": -2}}) == SUCCESS
    assert calls == [f"clock_settime(CLOCK_REALTIME, {{tv_sec={t}, tv_nsec=0}}) = -1 EPERM (Operation not permitted)"
                     for t in (1000000000, 1200000000)]
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+2"\0'


def dtime_of(sandbox):
    """The clock correction, from a past lease's "expires" between two future ones read in the same second."""
    future = 2000000000
    sandbox.write("/var/tmp/dnsmasq.leases", f"{future} m1 i1 h1 c1\n1 m2 i2 h2 c2\n{future} m3 i3 h3 c3\n")
    for _ in range(100):
        first, past, last = (int(x["expires"]) for x in json.loads(send(sandbox, {
            "method": "pref-get", "arguments": {"infos": ["s_dhcpleases"]}}))["arguments"]["infos"]["s_dhcpleases"])
        if first == last:
            return past - 1 + (future - first)
    raise AssertionError("no clean sample")


def test_forward_jump_over_two_days_is_recorded(daemon, sandbox):
    """Each jump is sent again until its request is answered within the second it was computed in."""
    for jump, dtime in [(0, 0), (172800, 0), (172801, 172801), (172800, 172801), (-100, 172801), (500000, 500000)]:
        while jump:
            t0 = int(time.time())
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t0 + jump}}) == SUCCESS
            if int(time.time()) == t0:
                break
        assert dtime_of(sandbox) == dtime, jump
    sandbox.remove("/var/tmp/dnsmasq.leases")

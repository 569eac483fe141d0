"""The "staticroute", "datetime" and "firewall" targets: what they print, run and store."""
import json, subprocess, time  # noqa: E401

import pytest

from helpers import revalidate, send, wait_for
from net_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, Run, conf  # noqa: F401

FIREWALL, PARSE, ELEMENT = "/usr/sbin/firewall", "json_tokener_parse failed.\n", "json_object_array_get_idx failed.\n"


def route(*values):
    return dict(zip(("id", "dest", "subnet", "gw", "metric", "inf"), values))


R1, R3 = route("1", "10.1.0.0", "255.255.0.0", "192.168.100.254", "2", "LAN"), route("3", "172.16.0.0", "255.240.0.0", "", "4", "LAN")
R2 = route("2", "10.2.0.0", "255.255.255.0", "10.9.9.1", "3", "WAN")
C1 = "cmd:/sbin/route add -net 10.1.0.0 netmask 255.255.0.0 gw 192.168.100.254 metric 2 dev br0\n"
C2 = "cmd:/sbin/route add -net 10.2.0.0 netmask 255.255.255.0 gw 10.9.9.1 metric 3 dev mlan0\n"
C3 = "cmd:/sbin/route add -net 172.16.0.0 netmask 255.240.0.0 metric 4 dev br0\n"
ALL, ADD1, DEL = {"action": "commitall"}, {"action": "commitadd", "id": "1"}, {"action": "commitdelete", "id": "1"}
FIXED = len("/sbin/route add -net  netmask 255.255.0.0 metric 1 dev br0")


def long_route(length):  # a route whose command has this length
    return [route("1", "1" * (length - FIXED), "255.255.0.0", "", "1", "LAN")]


# id: (routes_static, other records, value, reply, printed); each printed "cmd:" line ran as printed
CASES = {"array-order": ([R2, R1], {}, ALL, SUCCESS, C2 + C1), "empty": ([], {}, ALL, SUCCESS, ""), "no-gw": ([R3], {}, ALL, SUCCESS, C3),
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
    "unsafe-interface": ([R1, R2, R3], {"rt:wan_if": "a;reboot"}, ALL, INTERNAL, C1), "unsafe-stops": ([R1, {**R2, "dest": "10.2.0.0;reboot"}, R3], {}, ALL, INTERNAL, C1),
    "command-255": (long_route(255), {}, ALL, SUCCESS, f"cmd:/sbin/route add -net {'1' * 197} netmask 255.255.0.0 metric 1 dev br0\n"),
    **{f"inf-{inf!r}": ([route("1", "10.1.0.0", "255.255.0.0", "", "1", inf)], {}, ALL, SUCCESS, "cmd:/sbin/route add -net 10.1.0.0 netmask "
                        "255.255.0.0 metric 1 \n") for inf in ("lan", "Wan", "", "LAN ", "br0")},
    **{f"no-match-{json.dumps(v)}": ([R1, route("", "10.5.0.0", "255.255.0.0", "", "1", "LAN")], {}, v, SUCCESS, "") for v in (
        {"action": "commitadd"}, {"action": "commitdelete"}, {"action": "commitadd", "id": None}, {"action": "commitadd", "id": "01"},
        *[{"action": a, "id": "1"} for a in ("CommitAll", "commit", "add", "")])},
    **{f"no-action-{json.dumps(v)}": (b"[ {\0", {}, v, SUCCESS, "") for v in ({}, {"action": 5}, {"action": None}, {"action": ["commitall"]})},
    **{f"{name}-{a}": (routes, {}, {"action": a}, INTERNAL, out) for a in ("commitall", "bogus") for name, routes, out in [
        ("broken", b"[ {\0", PARSE), ("null", b"null\0", PARSE), ("object", R1, TYPE), ("string", "r", TYPE), ("number", 3, TYPE)]},
    **{f"command-{n}-{v['action']}": (long_route(n), {}, v, INTERNAL, "") for n in (256, 400) for v in (ALL, DEL)},
    **{f"routes-{r}-{json.dumps(v)}": (r, {}, v, INTERNAL, "") for v in (ALL, {"action": "bogus"}, {}, ADD1) for r in (None, b"\0")},
    **{f"{k}-{r}-{json.dumps(v)}": ([R1], {f"rt:{k}": r}, v, INTERNAL, "") for v in (ALL, {"action": "bogus"}, {}, ADD1)
       for k in ("wan_if", "lan_if") for r in (None, b"\0", b"br0\0", b"[\0")},
    **{f"{k}-{n}": ([R3], {f"rt:{k}": "x" * n}, ALL, *((SUCCESS, C3.replace("br0", "x" * 15 if k == "lan_if" else "br0")) if n == 15 else (INTERNAL, "")))
       for k in ("wan_if", "lan_if") for n in (15, 16)},
    **{f"{m}-{t!r}-{v['action']}": ([{**R1, m: t}], {}, v, INTERNAL, "") for m in ("dest", "subnet", "gw", "metric") for v in (ALL, ADD1)
       for t in ("1;reboot", "$(reboot)", "`reboot`", "1|x", "1&", "1>x", "1 2", "'", '"', "1\nx", "*", "~", "\\")},}

@pytest.mark.parametrize("routes, records, value, reply, out", CASES.values(), ids=CASES.keys())
def test_static_routes(daemon, sandbox, conf, routes, records, value, reply, out):
    conf({"rt:wan_if": "mlan0", "rt:lan_if": "br0", "routes_static": routes, **records})
    run = Run(sandbox, daemon, "staticroute", value)
    assert (run.reply, run.out, run.cmds) == (reply, out, [s[4:].split() for s in out.splitlines() if s.startswith("cmd:")])


@pytest.mark.parametrize("target, value, reply, out, cmds, zone", [
    *[("firewall", {"action": a}, SUCCESS, f"action:{a}\nrevalidate_setFirewall\n", [[FIREWALL, "start"]] * (a in ("start", "restart")), "GMT+1")
      for a in ("start", "restart", "stop", "Start", "")], *[("firewall", v, SUCCESS, "", [], "GMT+1") for v in ({}, {"action": None}, {"start": 1}, {"action": 7})],
    *[(t, None, INVALID, NULL, [], "GMT+1") for t in ("firewall", "datetime")],
    *[(t, v, INVALID, TYPE, [], "GMT+1") for t in ("staticroute", "datetime", "firewall") for v in ("commitall", [{"action": "set"}], 0, False)],
    *[("datetime", {"action": "set", "timezone": z}, SUCCESS, "", [], s) for z, s in [(0, "GMT+0"), (8, "GMT-8"), (-5, "GMT+5"), (12, "GMT-12"), (
        -12, "GMT+12"), ("3", "GMT-3"), (5.75, "GMT-5"), (None, "GMT+1"), (2 ** 31, "GMT-2147483647"), (-2 ** 31, "GMT+2147483648")]],
    *[("datetime", v, SUCCESS, "", [], "GMT+1") for v in ({"timezone": 3}, {"action": "Set", "timezone": 3}, {"action": "get", "timezone": 3},
                                                           {"action": None, "timezone": 3}, {"action": "set"})]])
def test_firewall_time_zone_and_argument_shapes(daemon, sandbox, conf, target, value, reply, out, cmds, zone):
    """The firewall script's status is not looked at; the zone is stored with the sign of the offset turned."""
    conf({"timezone": "GMT+1"})
    sandbox.stub_exit(FIREWALL, 3)
    run = Run(sandbox, daemon, target, value)
    assert (run.reply, run.out, run.cmds, sandbox.store_get("sysconf", "timezone")) == (reply, out, cmds, f'"{zone}"\0'.encode())
    sandbox.stub(FIREWALL, "exit 0\n")


def test_clock_is_set_and_a_jump_over_two_days_corrects_past_leases(daemon, sandbox, conf, tmp_path):
    """strace shows the clock being set (the sandbox refuses it) for a time of 1 or more; the correction shows in a past
    lease's "expires", read between two future ones in one second. A jump is sent until answered within its second."""
    conf({"timezone": "GMT+1"})
    sandbox.write("/var/tmp/dnsmasq.leases", "2000000000 m i h c\n1 m i h c\n2000000000 m i h c\n")
    p = subprocess.Popen(["strace", "-qq", "-e", "trace=clock_settime,settimeofday", "-o", tmp_path / "out", "-p", str(daemon.host_pid)],
                         stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    sent = [1200000000]
    try:
        wait_for(lambda: f"TracerPid:\t{p.pid}\n" in open(f"/proc/{daemon.host_pid}/status").read())
        for t in (0, -5, "0", 0.5, "1200000000"):
            assert revalidate(sandbox, {"datetime": {"action": "set", "time": t, "timezone": -2}}) == SUCCESS
        for jump, dtime in [(0, 0), (172800, 0), (172801, 172801), (172800, 172801), (-100, 172801), (500000, 500000)]:
            while jump:
                sent.append(int(time.time()) + jump)
                assert revalidate(sandbox, {"datetime": {"action": "set", "time": sent[-1]}}) == SUCCESS
                if int(time.time()) == sent[-1] - jump:
                    break
            e = [0, 0, 1]
            while e[0] != e[2]:
                e = [int(x["expires"]) for x in json.loads(send(sandbox, {"method": "pref-get", "arguments": {"infos": ["s_dhcpleases"]}}))[
                    "arguments"]["infos"]["s_dhcpleases"]]
            assert e[1] - 1 + 2000000000 - e[0] == dtime, jump
    finally:
        p.terminate() or p.wait(30)
        sandbox.remove("/var/tmp/dnsmasq.leases")
    assert (tmp_path / "out").read_text().splitlines() == [f"clock_settime(CLOCK_REALTIME, {{tv_sec={t}, tv_nsec=0}}) = -1 EPERM (Operation not permitted)" for t in sent]
    assert sandbox.store_get("sysconf", "timezone") == b'"GMT+2"\0'

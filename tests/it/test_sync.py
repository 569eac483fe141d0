"""Sync tasks. The COPY stub copies, stores progress and result, and posts "sync_signal" "stop"."""
import re

import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, ask, infos, result
from helpers import revalidate, wait_for

SCRIPT, SHARE = "/etc/app/sync/gw_copy_prog.sh", "/tmp/media/share"
SYNC_INTERNAL, BUSY, LOW = result("sync_internal_error"), result("sync_task_busy"), result("sync_low_battery_power")
COPY = """cp -a "$2" "$3"/
sysconf --store rtconf --raw set sync_progress 100
sysconf --store rtconf --raw set sync_result "$(cat /tmp/sync-result 2>/dev/null || echo 1)"
hxctl revalidate sync_signal stop > /dev/null
"""


def task(sandbox, item="backup_stat"):
    return infos(sandbox, item)[item][0]


def create(sandbox, src, dst):  # once the previous worker, past its last message, has let the task go
    return wait_for(lambda: (lambda r: r != BUSY and r)(revalidate(sandbox, {"createsynctask": {"src": src, "dst": dst}})))


def ended(sandbox, daemon, seen, status):
    wait_for(lambda: daemon.stdout().count("sync_result = ") > seen and task(sandbox)["status"] == status)


@pytest.mark.parametrize("req, want, out", [
    *[({"createsynctask": v}, INVALID, "") for v in [{"src": "src", "dst": ""}, {"dst": "d"}, {"src": "src", "dst": 5}]],
    ({"createsynctask": None}, INVALID, NULL), ({"sync_signal": "stop"}, INVALID, TYPE),
    ({"createsynctask": {"src": "none", "dst": "dst"}}, SYNC_INTERNAL, re.compile(rf"(?s).*\) Check source path\({SHARE}/none\) failed\n")),
    *[({"createsynctask": {"src": s, "dst": d}}, SYNC_INTERNAL, "") for s, d in [
        ("../etc", "dst"), ("src", "dst/../../x"), ("src$(id)", "dst"), ("src", "dst`id`"), ('src"; id; "', "dst")]],
    *[({"sync_signal": v}, want, "") for v, want in [({"action": "start"}, INTERNAL), ({}, INVALID)]]])
def test_refused(sandbox, daemon, req, want, out):
    sandbox.write(f"{SHARE}/src/a.txt", b"alpha\n")
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, req, out=out)[0] == want
    assert sandbox.cmdlog() == [] and task(sandbox) == {"id": "-1", "prog": "0", "status": "0"} and not sandbox.exists("/tmp/media/x")


@pytest.mark.parametrize("src, dst, res, battery, want, status, copied", [
    ("src", "dst", None, ("87\n", "Discharging\n"), SUCCESS, "4", ("dst/src/sub/b.txt", b"beta\n")),
    ("src/a.txt", "dst", b"0", ("2\n", "Discharging\n"), SUCCESS, "3", ("dst/a.txt", b"alpha\n")),
    ("src", "deep/dst", None, ("1\n", "Charging\n"), SUCCESS, "4", ("deep/dst/src/a.txt", b"alpha\n")),
    *[("src", "dst", None, b, LOW, None, None) for b in [("1\n", "Discharging\n"), (None, "Full\n")]]])
def test_task_runs_to_its_end(sandbox, daemon, src, dst, res, battery, want, status, copied):
    sandbox.run(["rm", "-rf", f"{SHARE}/dst", f"{SHARE}/deep", "/tmp/sync-result"])
    sandbox.write(f"{SHARE}/src/sub/b.txt", b"beta\n")
    sandbox.write("/tmp/sync-result", res) if res else None
    sandbox.stub(SCRIPT, COPY)
    sandbox.set_battery(*battery)
    sandbox.clear_cmdlog()
    before = daemon.stdout()
    assert create(sandbox, src, dst) == want
    if status:
        ended(sandbox, daemon, before.count("sync_result = "), status)
        assert sandbox.cmdlog() == [[SCRIPT, "0", f"{SHARE}/{src}", f"{SHARE}/{dst}"]]
        assert sandbox.read(f"{SHARE}/{copied[0]}") == copied[1]
        assert sandbox.store_get("rtconf", "sync_result") == (res or b"1") + b"\0"
        t = task(sandbox)
        assert t == task(sandbox, "s_synctasklist") and t["prog"] == "100" and int(t["id"]) >= 0
        assert f'sync command: "{SCRIPT}" 0 "{SHARE}/{src}" "{SHARE}/{dst}" &\n' in daemon.stdout()[len(before):]


def test_busy_then_cancel(sandbox, daemon):
    sandbox.stub(SCRIPT, "exit 0\n")
    sandbox.set_battery("87\n", "Discharging\n")
    for cancel, status in ((False, "3"), (True, "5")):  # the stub stores nothing: the worker reads back its own -1
        sandbox.clear_cmdlog()
        assert create(sandbox, "src", "dst") == SUCCESS
        wait_for(lambda: task(sandbox)["status"] == "2" and sandbox.cmdlog())
        if cancel:  # a process standing for the running script, its pid in the script's pid file
            sandbox.run(["sh", "-c", "sleep 600 >/dev/null 2>&1 </dev/null & echo $! > /var/run/gw_copy_prog.sh.pid"])
            pid = int(sandbox.read_text("/var/run/gw_copy_prog.sh.pid"))
            sandbox.clear_cmdlog()
            assert ask(sandbox, daemon, {"cancelsynctask": {}}, out="")[0] == SUCCESS
            assert sandbox.cmdlog() == [["/usr/bin/killall", "-9", "mcp"], ["/usr/bin/killall", "-9", "find"]]
            wait_for(lambda: not sandbox.exists(f"/proc/{pid}"))
        assert revalidate(sandbox, {"createsynctask": {"src": "src", "dst": "dst"}}) == BUSY
        seen = daemon.stdout().count("sync_result = ")
        assert revalidate(sandbox, {"sync_signal": {"action": "stop"}}) == SUCCESS
        ended(sandbox, daemon, seen, status)

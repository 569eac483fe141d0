"""Sync tasks. The COPY script stub copies, stores progress and result with sysconf and posts "sync_signal"
"stop" as the platform's does; HOLD leaves the ending to the test. One task runs at a time."""
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


def create(sandbox, src, dst):
    """createsynctask once the previous worker, past its last message, has let the task go."""
    return wait_for(lambda: (lambda r: r != BUSY and r)(revalidate(sandbox, {"createsynctask": {"src": src, "dst": dst}})))


def ended(sandbox, daemon, seen, status):
    wait_for(lambda: daemon.stdout().count("sync_result = ") > seen and task(sandbox)["status"] == status)


def checked(path):
    return re.compile(rf"(?s).*\) Check {path}\({SHARE}/\w+\) failed\n")


REFUSED = [*[({"createsynctask": v}, INVALID, "") for v in [{"src": "src", "dst": ""}, {"src": "", "dst": "d"}, {"src": "src"},
                                                             {"dst": "d"}, {"src": "src", "dst": 5}]],
           ({"createsynctask": None}, INVALID, NULL), ({"cancelsynctask": None}, INVALID, NULL), ({"sync_signal": None}, INVALID, NULL),
           ({"createsynctask": "src"}, INVALID, "Unexpected json type of input parameters.\n"), ({"sync_signal": "stop"}, INVALID, TYPE),
           ({"createsynctask": {"src": "none", "dst": "dst"}}, SYNC_INTERNAL, checked("source path")),
           ({"createsynctask": {"src": "src", "dst": "file"}}, SYNC_INTERNAL, checked("destination path")),
           *[({"createsynctask": {"src": s, "dst": d}}, SYNC_INTERNAL, "") for s, d in [
               ("../etc", "dst"), ("src", ".."), ("src", "dst/../../x"), ("src$(id)", "dst"), ("src", "dst`id`"), ('src"; id; "', "dst"),
               ("src", "dst\\x")]],
           *[({"sync_signal": v}, want, "") for v, want in [({"action": "start"}, INTERNAL), ({"action": 1}, INTERNAL), ({}, INVALID)]]]


@pytest.mark.parametrize("req, want, out", REFUSED)
def test_refused(sandbox, daemon, req, want, out):
    sandbox.write(f"{SHARE}/src/a.txt", b"alpha\n")
    sandbox.write(f"{SHARE}/file", b"x")
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, req, out=out)[0] == want
    assert sandbox.cmdlog() == [] and task(sandbox) == task(sandbox, "s_synctasklist") == {"id": "-1", "prog": "0", "status": "0"} and not sandbox.exists("/tmp/media/x")


@pytest.mark.parametrize("src, dst, res, battery, want, status, copied", [
    ("src", "dst", None, ("87\n", "Discharging\n"), SUCCESS, "4", ("dst/src/sub/b.txt", b"beta\n")),
    ("src/a.txt", "dst", b"0", ("2\n", "Discharging\n"), SUCCESS, "3", ("dst/a.txt", b"alpha\n")),
    ("src", "deep/er/dst", None, ("1\n", "Charging\n"), SUCCESS, "4", ("deep/er/dst/src/a.txt", b"alpha\n")),
    *[("src", "dst", None, b, LOW, None, None) for b in [("1\n", "Discharging\n"), ("0\n", "Full\n"), (None, "Full\n"), ("1\n", None)]]])
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
        assert sandbox.read(f"{SHARE}/{copied[0]}") == copied[1]
        assert sandbox.store_get("rtconf", "sync_result") == (res or b"1") + b"\0"
    assert sandbox.cmdlog() == [[SCRIPT, "0", f"{SHARE}/{src}", f"{SHARE}/{dst}"]] * bool(status)
    if status:
        t, out = task(sandbox), set(re.sub(r"\(line \d+\)", "(line)", daemon.stdout()[len(before):]).splitlines())
        assert t == task(sandbox, "s_synctasklist") and t["prog"] == "100" and int(t["id"]) >= 0
        assert out >= {f"hxsrvd: Sync DEBUG: {f} (line) {m}" for f, m in [
            ("sync_task_prepare", f"new task src:{SHARE}/{src}, dst:{SHARE}/{dst}"),
            ("sync_task_prepare", f"New sync task created(id {t['id']})"),
            ("thread_dosync", f'sync command: "{SCRIPT}" 0 "{SHARE}/{src}" "{SHARE}/{dst}" &'),
            ("sync_result_apply", f"sync_result = {int(res or b'1')}")]}


def test_busy_then_cancel(sandbox, daemon):
    sandbox.stub(SCRIPT, "exit 0\n")
    sandbox.set_battery("87\n", "Discharging\n")
    for cancel, status in ((False, "3"), (True, "5")):  # HOLD stores nothing: the worker reads back its own -1
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
            assert task(sandbox)["status"] == "5"
        assert revalidate(sandbox, {"createsynctask": {"src": "src", "dst": "dst"}}) == BUSY and sum(c[0] == SCRIPT for c in sandbox.cmdlog()) == (not cancel)
        seen = daemon.stdout().count("sync_result = ")
        assert revalidate(sandbox, {"sync_signal": {"action": "stop"}}) == SUCCESS
        ended(sandbox, daemon, seen, status)
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {"cancelsynctask": 1}, out="")[0] == SUCCESS  # no task: nothing to end
    assert sandbox.cmdlog() == [] and task(sandbox)["status"] == "5"

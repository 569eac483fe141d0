"""Sync tasks. The copy script stub COPY copies, stores its progress and result with sysconf and posts
"sync_signal" "stop" as the platform's does; HOLD leaves the ending to the test. One task at a time."""
import re

import pytest

from devices_util import INVALID, INTERNAL, SUCCESS, ask, infos, result, same
from helpers import revalidate, wait_for

SCRIPT, SHARE = "/etc/app/sync/gw_copy_prog.sh", "/tmp/media/share"
SYNC_INTERNAL, BUSY, LOW = result("sync_internal_error"), result("sync_task_busy"), result("sync_low_battery_power")
COPY = """cp -a "$2" "$3"/
sysconf --store rtconf --raw set sync_progress 100
sysconf --store rtconf --raw set sync_result "$(cat /tmp/sync-result 2>/dev/null || echo 1)"
hxctl revalidate sync_signal stop > /dev/null
"""
KILLALL = [["/usr/bin/killall", "-9", "mcp"], ["/usr/bin/killall", "-9", "find"]]


@pytest.fixture(scope="module")
def sync(sandbox, daemon):
    sandbox.write(f"{SHARE}/src/a.txt", b"alpha\n")
    sandbox.write(f"{SHARE}/src/sub/b.txt", b"beta\n")
    sandbox.write(f"{SHARE}/file", b"x")
    return sandbox


def tasks(sandbox):
    got = infos(sandbox, "s_synctasklist", "backup_stat")
    assert got["s_synctasklist"] == got["backup_stat"]
    return got["backup_stat"]


def script_runs(sandbox):
    return [argv for argv in sandbox.cmdlog() if argv[0] == SCRIPT]


def test_no_task_yet(sync):
    assert tasks(sync) == [{"id": "-1", "prog": "0", "status": "0"}]


REFUSED = [({"createsynctask": v}, INVALID, "") for v in [{"src": "src", "dst": ""}, {"src": "", "dst": "dst"},
                                                          {"src": "src"}, {"dst": "d"}, {"src": "src", "dst": 5}]]
REFUSED += [({"createsynctask": None}, INVALID, "Input parameter is NULL.\n"),
            ({"createsynctask": "src"}, INVALID, "Unexpected json type of input parameters.\n"),
            ({"cancelsynctask": None}, INVALID, "Input parameter is NULL.\n"),
            ({"createsynctask": {"src": "none", "dst": "dst"}}, SYNC_INTERNAL,
             re.compile(rf"(?s).*\) Check source path\({SHARE}/none\) failed\n"))]
REFUSED += [({"createsynctask": {"src": "src", "dst": "file"}}, SYNC_INTERNAL,
             re.compile(rf"(?s).*\) Check destination path\({SHARE}/file\) failed\n"))]
REFUSED += [({"createsynctask": {"src": s, "dst": d}}, SYNC_INTERNAL, "") for s, d in [
    ("../etc", "dst"), ("src", ".."), ("src", "dst/../../x"), ("src$(id)", "dst"),
    ("src", "dst`id`"), ('src"; id; "', "dst"), ("src", "dst\\x")]]
REFUSED += [({"sync_signal": v}, want, out) for v, want, out in [
    ({"action": "start"}, INTERNAL, ""), ({"action": 1}, INTERNAL, ""), ({}, INVALID, ""),
    (None, INVALID, "Input parameter is NULL.\n"), ("stop", INVALID, "Unexpected json type.\n")]]


@pytest.mark.parametrize("req, want, out", REFUSED)
def test_refused(sync, daemon, req, want, out):
    sync.clear_cmdlog()
    reply, got = ask(sync, daemon, req)
    assert reply == want and same(got, out), got
    assert script_runs(sync) == [] and tasks(sync)[0]["id"] == "-1" and not sync.exists("/tmp/media/x")


def create(sync, daemon, src, dst):
    """createsynctask once the previous worker, past its last message, has released the task."""
    return wait_for(lambda: (lambda r: r != BUSY and r)(revalidate(sync, {"createsynctask": {"src": src, "dst": dst}})))


def ended(sync, daemon, seen, status):
    wait_for(lambda: daemon.stdout().count("sync_result = ") > seen and tasks(sync)[0]["status"] == status)


@pytest.mark.parametrize("src, dst, res, battery, want, status, copied", [
    ("src", "dst", None, ("87\n", "Discharging\n"), SUCCESS, "4", "dst/src/sub/b.txt"),
    ("src/a.txt", "dst", b"0", ("2\n", "Discharging\n"), SUCCESS, "3", "dst/a.txt"),
    ("src", "deep/er/dst", None, ("1\n", "Charging\n"), SUCCESS, "4", "deep/er/dst/src/a.txt"),
    *[("src", "dst", None, b, LOW, None, None) for b in [("1\n", "Discharging\n"), ("0\n", "Full\n"),
                                                         (None, "Discharging\n"), ("1\n", None)]]])
def test_task_runs_to_its_end(sync, daemon, src, dst, res, battery, want, status, copied):
    sync.run(["rm", "-rf", f"{SHARE}/dst", f"{SHARE}/deep", "/tmp/sync-result"])
    sync.write("/tmp/sync-result", res) if res else None
    sync.stub(SCRIPT, COPY)
    sync.set_battery(*battery)
    sync.clear_cmdlog()
    before = daemon.stdout()
    assert create(sync, daemon, src, dst) == want
    if status is None:
        assert script_runs(sync) == []
        return
    ended(sync, daemon, before.count("sync_result = "), status)
    assert script_runs(sync) == [[SCRIPT, "0", f"{SHARE}/{src}", f"{SHARE}/{dst}"]]
    assert sync.read(f"{SHARE}/{copied}") == sync.read(f"{SHARE}/src/{copied.rsplit('/', 1)[1]}".replace("src/b", "src/sub/b"))
    assert sync.store_get("rtconf", "sync_result") == (res or b"1") + b"\0"
    task = tasks(sync)[0]
    assert task["prog"] == "100" and int(task["id"]) >= 0
    out = re.sub(r"\(line \d+\)", "(line)", daemon.stdout()[len(before):]).splitlines()
    assert set(out) >= {f"hxsrvd: Sync DEBUG: {f} (line) {m}" for f, m in [
        ("sync_task_prepare", f"new task src:{SHARE}/{src}, dst:{SHARE}/{dst}"),
        ("sync_task_prepare", f"New sync task created(id {task['id']})"),
        ("thread_dosync", f'sync command: "{SCRIPT}" 0 "{SHARE}/{src}" "{SHARE}/{dst}" &'),
        ("sync_result_apply", f"sync_result = {int(res or b'1')}")]}


def test_busy_then_cancel(sync, daemon):
    sync.stub(SCRIPT, "exit 0\n")
    sync.set_battery("87\n", "Discharging\n")
    for cancel, status in ((False, "3"), (True, "5")):
        sync.clear_cmdlog()
        assert create(sync, daemon, "src", "dst") == SUCCESS
        wait_for(lambda: tasks(sync)[0]["status"] == "2" and script_runs(sync))
        if cancel:  # a process standing for the running script, its pid in the script's pid file
            sync.run(["sh", "-c", "sleep 600 >/dev/null 2>&1 </dev/null & echo $! > /var/run/gw_copy_prog.sh.pid"])
            pid = int(sync.read_text("/var/run/gw_copy_prog.sh.pid"))
            sync.clear_cmdlog()
            assert ask(sync, daemon, {"cancelsynctask": {}}) == (SUCCESS, "")
            assert sync.cmdlog() == KILLALL
            wait_for(lambda: not sync.exists(f"/proc/{pid}"))
            assert tasks(sync)[0]["status"] == "5"
        assert ask(sync, daemon, {"createsynctask": {"src": "src", "dst": "dst"}})[0] == BUSY
        assert len(script_runs(sync)) == (not cancel)
        seen = daemon.stdout().count("sync_result = ")
        assert revalidate(sync, {"sync_signal": {"action": "stop"}}) == SUCCESS
        ended(sync, daemon, seen, status)  # HOLD stored nothing: the worker reads back its own -1
    sync.clear_cmdlog()
    assert ask(sync, daemon, {"cancelsynctask": 1}) == (SUCCESS, "")  # no task: nothing to end
    assert sync.cmdlog() == [] and tasks(sync)[0]["status"] == "5"

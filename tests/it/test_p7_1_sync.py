"""Part 7.1: sync tasks, through the real daemon.

The copy script "/etc/app/sync/gw_copy_prog.sh" is a stub. COPY copies the
source into the destination with `cp -a`, stores "sync_progress" and
"sync_result" with sysconf and posts "sync_signal" "stop" with hxctl, as the
platform's script does; HOLD only logs its argv, so the test decides when the
task ends by posting "stop" itself. One task runs at a time and every test
ends the task it starts (one "stop" per task: a spare one would be kept by
the worker's condition and end the next task at once).
"""
import json

import pytest

from helpers import revalidate, send, stdout_since, wait_for

SCRIPT = "/etc/app/sync/gw_copy_prog.sh"
SHARE = "/tmp/media/share"
BATTERY = "/sys/class/power_supply/sp2566-0"


def reply(result):
    return ('{ "arguments": { }, "result": "%s" }' % result).encode()


SUCCESS = reply("success")
INVALID = reply("invalid arguments")
INTERNAL = reply("internal error")
SYNC_INTERNAL = reply("sync_internal_error")
BUSY = reply("sync_task_busy")
LOW = reply("sync_low_battery_power")

COPY = """RESULT=1
[ -f /tmp/sync-test-result ] && RESULT=$(cat /tmp/sync-test-result)
cp -a "$2" "$3"/
sysconf --store rtconf --raw set sync_progress 100
sysconf --store rtconf --raw set sync_result "$RESULT"
hxctl revalidate sync_signal stop > /dev/null
"""
HOLD = "exit 0\n"


def create(sandbox, src, dst):
    return revalidate(sandbox, {"createsynctask": {"src": src, "dst": dst}})


def stop(sandbox):
    return revalidate(sandbox, {"sync_signal": {"action": "stop"}})


def task_list(sandbox, item="s_synctasklist"):
    r = json.loads(send(sandbox, {"method": "pref-get",
                                  "arguments": {"confs": [], "infos": [item]}}))
    return r["arguments"]["infos"][item]


def status(sandbox):
    return task_list(sandbox)[0]["status"]


def script_runs(sandbox):
    return [argv for argv in sandbox.cmdlog() if argv[0] == SCRIPT]


def results_seen(daemon):
    # The worker prints "sync_result = N" before it sets the status, so the
    # tests wait for the status itself rather than read it after the print.
    return daemon.stdout().count("sync_result = ")


def end_held_task(sandbox, daemon):
    """Posts the one "stop" of a HOLD task and waits for its worker to
    read the result (the lock is released right after)."""
    seen = results_seen(daemon)
    assert stop(sandbox) == SUCCESS
    wait_for(lambda: results_seen(daemon) > seen)


def create_when_idle(sandbox, src, dst):
    """createsynctask, repeated while the previous worker is still between
    its last message and the release of its lock."""
    return wait_for(lambda: (lambda r: r if r != BUSY else None)(create(sandbox, src, dst)))


@pytest.fixture
def sync(daemon, sandbox):
    """A source folder "src" with two files, no "dst", the COPY stub, a
    full battery and an empty command log."""
    sandbox.run(["rm", "-rf", f"{SHARE}/src", f"{SHARE}/dst", f"{SHARE}/deep",
                 "/tmp/sync-test-result"])
    sandbox.write(f"{SHARE}/src/a.txt", b"alpha\n")
    sandbox.write(f"{SHARE}/src/sub/b.txt", b"beta\n")
    sandbox.stub(SCRIPT, COPY)
    sandbox.set_battery("87\n", "Discharging\n")
    sandbox.clear_cmdlog()
    yield
    sandbox.stub(SCRIPT, HOLD)
    sandbox.set_battery("87\n", "Discharging\n")


def test_no_task_yet(daemon, sandbox):
    expected = [{"id": "-1", "prog": "0", "status": "0"}]
    assert task_list(sandbox) == expected
    assert task_list(sandbox, "backup_stat") == expected


def test_sync_copies_and_ends_with_status_4(daemon, sandbox, sync):
    before = daemon.stdout()
    assert create(sandbox, "src", "dst") == SUCCESS
    wait_for(lambda: status(sandbox) == "4")
    assert script_runs(sandbox) == [[SCRIPT, "0", f"{SHARE}/src", f"{SHARE}/dst"]]
    assert sandbox.read(f"{SHARE}/dst/src/a.txt") == b"alpha\n"
    assert sandbox.read(f"{SHARE}/dst/src/sub/b.txt") == b"beta\n"
    assert sandbox.store_get("rtconf", "sync_result") == b"1\0"
    lst = task_list(sandbox, "backup_stat")
    assert lst == task_list(sandbox)
    assert lst[0]["prog"] == "100" and lst[0]["status"] == "4"
    assert int(lst[0]["id"]) >= 0
    out = stdout_since(sandbox, daemon, before).splitlines()
    assert any(line.startswith("hxsrvd: Sync DEBUG: sync_task_prepare (line ") and
               line.endswith(f") new task src:{SHARE}/src, dst:{SHARE}/dst") for line in out)
    assert any(line.endswith(") New sync task created(id %s)" % lst[0]["id"]) for line in out)
    assert any(line.endswith(') sync command: "%s" 0 "%s/src" "%s/dst" &' % (SCRIPT, SHARE, SHARE))
               for line in out)
    assert any(line.endswith(") sync_result = 1") for line in out)


def test_result_0_gives_status_3(daemon, sandbox, sync):
    sandbox.write("/tmp/sync-test-result", b"0")
    assert create_when_idle(sandbox, "src/a.txt", "dst") == SUCCESS
    wait_for(lambda: status(sandbox) == "3")
    assert sandbox.read(f"{SHARE}/dst/a.txt") == b"alpha\n"


def test_missing_destination_is_made_with_parents(daemon, sandbox, sync):
    assert create_when_idle(sandbox, "src", "deep/er/dst") == SUCCESS
    wait_for(lambda: status(sandbox) == "4")
    assert sandbox.read(f"{SHARE}/deep/er/dst/src/a.txt") == b"alpha\n"


def test_second_task_is_busy(daemon, sandbox, sync):
    sandbox.stub(SCRIPT, HOLD)
    assert create_when_idle(sandbox, "src", "dst") == SUCCESS
    wait_for(lambda: status(sandbox) == "2" and script_runs(sandbox))
    assert create(sandbox, "src", "dst") == BUSY
    assert len(script_runs(sandbox)) == 1
    end_held_task(sandbox, daemon)
    # HOLD stored nothing: the worker reads the "-1" it stored itself
    wait_for(lambda: status(sandbox) == "3")


def test_cancel_then_stop(daemon, sandbox, sync):
    sandbox.stub(SCRIPT, HOLD)
    assert create_when_idle(sandbox, "src", "dst") == SUCCESS
    wait_for(lambda: status(sandbox) == "2" and script_runs(sandbox))
    pid = start_victim(sandbox)
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"cancelsynctask": {}}) == SUCCESS
    assert sandbox.cmdlog() == [["/usr/bin/killall", "-9", "mcp"],
                                ["/usr/bin/killall", "-9", "find"]]
    # "kill `cat /var/run/gw_copy_prog.sh.pid`" ended the script's process
    wait_for(lambda: not sandbox.exists(f"/proc/{pid}"))
    assert status(sandbox) == "5"
    # the worker still holds the task's lock
    assert create(sandbox, "src", "dst") == BUSY
    end_held_task(sandbox, daemon)
    assert status(sandbox) == "5"
    sandbox.stub(SCRIPT, COPY)
    seen = results_seen(daemon)
    assert create_when_idle(sandbox, "src", "dst") == SUCCESS
    wait_for(lambda: results_seen(daemon) > seen)
    wait_for(lambda: status(sandbox) == "4")
    sandbox.remove("/var/run/gw_copy_prog.sh.pid")


def start_victim(sandbox):
    """A process standing for the running script, its pid in the script's
    pid file; returns the pid."""
    sandbox.run(["sh", "-c", "sleep 600 > /dev/null 2>&1 < /dev/null & "
                 "echo $! > /var/run/gw_copy_prog.sh.pid"], check=True)
    return int(sandbox.read_text("/var/run/gw_copy_prog.sh.pid"))


def test_cancel_without_task_does_nothing(daemon, sandbox, sync):
    wait_for(lambda: status(sandbox) in ("3", "4", "5"))
    before = status(sandbox)
    assert revalidate(sandbox, {"cancelsynctask": 1}) == SUCCESS
    assert sandbox.cmdlog() == []
    assert status(sandbox) == before


def test_cancel_null_is_invalid(daemon, sandbox, sync):
    before = daemon.stdout()
    assert revalidate(sandbox, {"cancelsynctask": None}) == INVALID
    assert stdout_since(sandbox, daemon, before) == "Input parameter is NULL.\n"


@pytest.mark.parametrize("capacity, state, result", [
    ("1\n", "Discharging\n", LOW),
    ("0\n", "Full\n", LOW),
    ("1\n", "Charging\n", SUCCESS),
    ("2\n", "Discharging\n", SUCCESS),
    (None, "Discharging\n", LOW),
    ("1\n", None, LOW),
])
def test_battery_guard(daemon, sandbox, sync, capacity, state, result):
    wait_for(lambda: create(sandbox, "nonexistent", "dst") != BUSY)
    sandbox.clear_cmdlog()
    sandbox.set_battery(capacity, state)
    seen = results_seen(daemon)
    got = create(sandbox, "src", "dst")
    if got == SUCCESS:
        wait_for(lambda: results_seen(daemon) > seen)
        wait_for(lambda: status(sandbox) == "4")
        assert len(script_runs(sandbox)) == 1
    else:
        assert script_runs(sandbox) == []
    assert got == result


@pytest.mark.parametrize("value", [
    {"src": "src", "dst": ""},
    {"src": "", "dst": "dst"},
    {"src": "src"},
    {"dst": "dst"},
    {"src": "src", "dst": 5},
])
def test_missing_or_empty_paths(daemon, sandbox, sync, value):
    assert revalidate(sandbox, {"createsynctask": value}) == INVALID
    assert script_runs(sandbox) == []


def test_null_and_non_object(daemon, sandbox, sync):
    before = daemon.stdout()
    assert revalidate(sandbox, {"createsynctask": None}) == INVALID
    assert revalidate(sandbox, {"createsynctask": "src"}) == INVALID
    assert stdout_since(sandbox, daemon, before) == (
        "Input parameter is NULL.\nUnexpected json type of input parameters.\n")


def test_missing_source_leaves_no_task(daemon, sandbox, sync):
    wait_for(lambda: create(sandbox, "nonexistent", "dst") != BUSY)
    last = task_list(sandbox)
    before = daemon.stdout()
    assert create(sandbox, "nonexistent", "dst") == SYNC_INTERNAL
    out = stdout_since(sandbox, daemon, before)
    assert f") Check source path({SHARE}/nonexistent) failed\n" in out
    assert task_list(sandbox) == last
    assert script_runs(sandbox) == []
    # the lock was released: the next task starts at once
    seen = results_seen(daemon)
    assert create(sandbox, "src", "dst") == SUCCESS
    wait_for(lambda: results_seen(daemon) > seen)
    wait_for(lambda: status(sandbox) == "4")


def test_destination_that_is_a_file(daemon, sandbox, sync):
    wait_for(lambda: create(sandbox, "nonexistent", "dst") != BUSY)
    assert create(sandbox, "src", "src/a.txt") == SYNC_INTERNAL
    assert script_runs(sandbox) == []


@pytest.mark.parametrize("src, dst", [
    ("../etc", "dst"),
    ("src", ".."),
    ("src", "dst/../../x"),
    ("src$(id)", "dst"),
    ("src", "dst`id`"),
    ('src"; id; "', "dst"),
    ("src", "dst\\x"),
])
def test_unsafe_paths_are_refused(daemon, sandbox, sync, src, dst):
    """DESIGN.md 8: sync paths may not leave the share root and may not hold
    characters the shell expands inside double quotes."""
    wait_for(lambda: create(sandbox, "nonexistent", "dst") != BUSY)
    last = task_list(sandbox)
    assert create(sandbox, src, dst) == SYNC_INTERNAL
    assert script_runs(sandbox) == []
    assert task_list(sandbox) == last
    assert not sandbox.exists("/tmp/media/x")


@pytest.mark.parametrize("value, result", [
    ({"action": "start"}, INTERNAL),
    ({"action": 1}, INTERNAL),
    ({}, INVALID),
    (None, INVALID),
    ("stop", INVALID),
])
def test_sync_signal_other_than_stop(daemon, sandbox, sync, value, result):
    assert revalidate(sandbox, {"sync_signal": value}) == result

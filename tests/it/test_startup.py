"""Start-up, the lock and pid files, signals and shutdown of the real binary."""
import os
import signal

import pytest

from hxdaemon import process_state
from helpers import console_after, pref_set, send, umask_of, wait_for

USAGE = ("usage: hxsrvd [-dfh]\n\n  -d --debug                Print data send and received, implies -f\n"
         "  -f --foreground           Run in the foreground and log to stderr\n"
         "  -h --help                 Display this message and exit\n\n")
REQUEST = b'{"method":"revalidate","arguments":{"video":{}}}'
REPLY = b'{ "arguments": { }, "result": "success" }'
FILES = ("/var/tmp/socket", "/var/tmp/socket.lock", "/var/run/hxsrvd.pid")
CLEAN = "received fatal signal %d, attempting to exit cleanly\n"


def pref_get(sandbox, confs):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": confs}})


def answers(sandbox):
    try:
        return sandbox.request(REQUEST) == REPLY
    except OSError:     # the socket is there before the detached daemon listens
        return False


@pytest.fixture
def fresh(sandbox):
    """No daemon running and no files left from an earlier test."""
    sandbox.run(["rm", "-rf", *FILES])
    yield sandbox
    sandbox.run(["sh", "-c", "pkill -KILL -x hxsrvd; true"])


@pytest.mark.parametrize("args", [["-p", "x"], ["-h"], ["--help"], ["--bogus"], ["-x"]])
def test_usage(fresh, args):
    r = fresh.run(["/usr/sbin/hxsrvd"] + args)
    assert (r.returncode, r.stdout.decode()) == (0, USAGE)
    assert not fresh.exists("/var/tmp/socket.lock")


@pytest.mark.parametrize("setup, line, left", [
    ("second", "another copy of daemon is already running\n", FILES),
    ("mkdir /var/tmp/socket.lock", "failed to open file: /var/tmp/socket.lock\n", ()),
    ("mkdir /var/tmp/socket", "failed to bind socket file: /var/tmp/socket\n", ()),
    ("mkdir -p /var/run/hxsrvd.pid", "failed to open pid file: /var/run/hxsrvd.pid\n", ()),
], ids=["running", "lock", "socket", "pid"])
def test_start_refused(fresh, setup, line, left):
    first = fresh.start_daemon() if setup == "second" else fresh.run(setup.split(), check=True)
    mark = fresh.console()
    assert fresh.run(["/usr/sbin/hxsrvd", "-f"]).returncode == 1
    assert console_after(fresh, mark) == line
    assert [f for f in FILES if fresh.exists(f) and not os.path.isdir(fresh.path(f))] == list(left)
    if left:
        assert fresh.read_text("/var/tmp/socket.lock") == fresh.read_text("/var/run/hxsrvd.pid")
        assert fresh.request(REQUEST) == REPLY
        assert first.stop() == 0


@pytest.mark.parametrize("how", ["foreground", "extra-words", "stale-socket", "debug", "detached"])
def test_serves_and_exits_cleanly(fresh, how):
    if how == "stale-socket":
        fresh.write("/var/tmp/socket", b"stale")
    if how == "detached":
        starter = fresh.run(["/usr/sbin/hxsrvd"])
        assert (starter.returncode, starter.stdout) == (0, b"")
        wait_for(lambda: answers(fresh))
    else:
        d = fresh.start_daemon(args={"extra-words": ("-f", "extra", "words"), "debug": ("-d",)}.get(how, ("-f",)))
        assert fresh.request(REQUEST) == REPLY
    pid = fresh.read_text("/var/run/hxsrvd.pid")
    assert pid.endswith("\n") and int(pid) > 1 and fresh.read_text("/var/tmp/socket.lock") == pid
    if how == "debug":
        wait_for(lambda: "went bye-bye" in d.stdout())
        assert "*** new client " in d.stdout()
        assert "<<< %d bytes from client: %s\n" % (len(REQUEST), REQUEST.decode()) in d.stdout()
    mark = fresh.console()
    if how == "detached":
        fresh.run(["kill", "-TERM", pid.strip()])
        wait_for(lambda: not fresh.exists("/var/tmp/socket.lock"))
    else:
        d.signal(signal.SIGTERM)
        assert d.wait() == 0
    assert console_after(fresh, mark) == CLEAN % 15
    assert not fresh.exists("/var/tmp/socket") and not fresh.exists("/var/tmp/socket.lock")
    assert fresh.read_text("/var/run/hxsrvd.pid") == pid


def test_store_missing_at_start_keeps_serving(fresh):
    """The key index is empty; pref-set's writer open creates the store (mode 0664 less the umask)."""
    mark = fresh.console()
    d = fresh.start_daemon(env={"DB_FILE": "/var/tmp/none.gdbm"})
    assert console_after(fresh, mark) == "Open sysconf.gdbm file failed.\n"
    assert pref_get(fresh, ["lan_ipaddr"]) == b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
    assert not fresh.exists("/var/tmp/none.gdbm")
    err = d.stderr()
    assert pref_set(fresh, {"upnp": "on"}) == b'{ "arguments": { }, "result": "internal error" }'
    assert d.stderr()[len(err):] == "[warn] Set invalid sysconf key upnp.\n\n"
    assert os.stat(fresh.path("/var/tmp/none.gdbm")).st_mode & 0o777 == 0o664 & ~umask_of(d)
    assert pref_get(fresh, ["upnp", "lan_ipaddr"]) == b'{ "arguments": { "confs": { }, "infos": { } }, "result": "success" }'
    assert d.stop() == 0


@pytest.mark.parametrize("sigs, status, lines", [
    ([signal.SIGINT], 0, [CLEAN % 2]), ([signal.SIGQUIT], 0, [CLEAN % 3]), ([signal.SIGTERM], 0, [CLEAN % 15]),
    ([signal.SIGTERM, signal.SIGTERM], 0, [CLEAN % 15]),       # two of a kind merge into one
    ([signal.SIGINT, signal.SIGTERM], -signal.SIGTERM,
     [CLEAN % 2, "received fatal signal 15 while exiting, exiting immediately\n"]),
], ids=["int", "quit", "term", "term-twice", "second-while-exiting"])
def test_terminating_signals(fresh, sigs, status, lines):
    """Delivered together while stopped; every client is closed on the way out."""
    d = fresh.start_daemon()
    socks = [fresh.connect() for _ in range(3)]
    assert fresh.request(REQUEST) == REPLY      # the three are accepted by now
    mark = fresh.console()
    d.signal(signal.SIGSTOP)
    wait_for(lambda: process_state(d.host_pid) == "T")
    for sig in sigs + [signal.SIGCONT]:
        d.signal(sig)
    assert d.wait() == status
    assert console_after(fresh, mark) == "".join(lines)
    for s in socks:
        s.settimeout(10)
        assert s.recv(16) == b""


@pytest.mark.skipif(os.environ.get("HX_VALGRIND") == "1",
                    reason="valgrind may drop the siginfo of a SIGSEGV sent by kill(2)")
def test_sigsegv_prints_backtrace_and_exits_255(fresh):
    d = fresh.start_daemon()
    d.signal(signal.SIGSEGV)
    assert d.wait() == 255
    lines = d.stdout().splitlines()
    count = int(lines[1].split()[2])
    assert lines[:2] == ["#hxsrvd# receive SIGSEGV signal", "#hxsrvd# obtained %d stack frames" % count]
    assert 1 <= count <= 30 and len(lines) == 2 + count
    assert any("hxsrvd" in line for line in lines[2:])
    assert not fresh.exists("/var/tmp/socket.lock")        # exit() ran the clean-up

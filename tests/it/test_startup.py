"""Start-up, the lock and pid files, signals and shutdown of the real binary."""
import json
import os
import signal
import socket

import pytest

from hxdaemon import process_state
from helpers import console_after, pref_set, send, umask_of, wait_for

USAGE = ("usage: hxsrvd [-dfh]\n\n  -d --debug                Print data send and received, implies -f\n"
         "  -f --foreground           Run in the foreground and log to stderr\n"
         "  -h --help                 Display this message and exit\n\n")
REQUEST, REPLY = b'{"method":"revalidate","arguments":{"video":{}}}', b'{ "arguments": { }, "result": "success" }'
FILES = ("/var/tmp/socket", "/var/tmp/socket.lock", "/var/run/hxsrvd.pid")
CLEAN = "received fatal signal %d, attempting to exit cleanly\n"


@pytest.fixture
def fresh(sandbox):
    yield sandbox.run(["rm", "-rf", *FILES]) and sandbox
    sandbox.run(["sh", "-c", "pkill -KILL -x hxsrvd; true"])


@pytest.mark.parametrize("args", [["-p", "x"], ["-h"], ["--help"], ["--bogus"], ["-x"]])
def test_usage(fresh, args):
    assert ((r := fresh.run(["/usr/sbin/hxsrvd"] + args)).returncode, r.stdout.decode(), fresh.exists("/var/tmp/socket.lock")) == (0, USAGE, False)


@pytest.mark.parametrize("setup, line", [
    ("running", "another copy of daemon is already running\n"), ("/var/tmp/socket.lock", "failed to open file: /var/tmp/socket.lock\n"),
    ("/var/tmp/socket", "failed to bind socket file: /var/tmp/socket\n"), ("/var/run/hxsrvd.pid", "failed to open pid file: /var/run/hxsrvd.pid\n"),
], ids=["running", "lock", "socket", "pid"])
def test_start_refused(fresh, setup, line):
    first = fresh.start_daemon() if setup == "running" else fresh.run(["mkdir", "-p", setup], check=True)
    mark = fresh.console()
    assert (fresh.run(["/usr/sbin/hxsrvd", "-f"]).returncode, console_after(fresh, mark)) == (1, line)
    assert [f for f in FILES if fresh.exists(f) and not os.path.isdir(fresh.path(f))] == list(FILES if setup == "running" else ())
    if setup == "running":
        assert fresh.read_text("/var/tmp/socket.lock") == fresh.read_text("/var/run/hxsrvd.pid")
        assert (fresh.request(REQUEST), first.stop()) == (REPLY, 0)


@pytest.mark.parametrize("how", ["foreground", "extra-words", "stale-socket", "debug", "detached", "no-store"])
def test_serves_and_exits_cleanly(fresh, how):
    mark = fresh.console()
    fresh.write("/var/tmp/socket", b"stale") if how == "stale-socket" else None
    if how == "detached":
        assert fresh.run(["/usr/sbin/hxsrvd"]).returncode == 0
        wait_for(lambda: any(" 00010000 " in line and line.endswith(" /var/tmp/socket")    # listening
                             for line in fresh.run(["cat", "/proc/net/unix"]).stdout.decode().splitlines()))
    else:
        d = fresh.start_daemon(args={"extra-words": ("-f", "x", "y"), "debug": ("-d",)}.get(how, ("-f",)),
                               env={"DB_FILE": "/var/tmp/none.gdbm"} if how == "no-store" else None)
        assert fresh.request(REQUEST) == REPLY
    pid = fresh.read_text("/var/run/hxsrvd.pid")
    assert pid.endswith("\n") and int(pid) > 1 and fresh.read_text("/var/tmp/socket.lock") == pid
    if how == "debug":
        assert "*** new client " in wait_for(lambda: "went bye-bye" in d.stdout() and d.stdout()) and "<<< %d bytes from client: %s\n" % (len(REQUEST), REQUEST.decode()) in d.stdout()
    if how == "no-store":       # an empty key index; pref-set's writer open makes the store (0664 less the umask)
        get, err = {"method": "pref-get", "arguments": {"confs": ["upnp"]}}, d.stderr()
        assert (console_after(fresh, mark), send(fresh, get), fresh.exists("/var/tmp/none.gdbm")) == (
            "Open sysconf.gdbm file failed.\n", b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }', False)
        assert (pref_set(fresh, {"upnp": "on"}), d.stderr()[len(err):]) == (
            b'{ "arguments": { }, "result": "internal error" }', "[warn] Set invalid sysconf key upnp.\n\n")
        assert os.stat(fresh.path("/var/tmp/none.gdbm")).st_mode & 0o777 == 0o664 & ~umask_of(d)
        assert send(fresh, get) == b'{ "arguments": { "confs": { }, "infos": { } }, "result": "success" }'
    mark, _ = fresh.console(), fresh.run(["kill", "-TERM", pid.strip()])
    assert how == "detached" or d.wait() == 0
    wait_for(lambda: not fresh.exists("/var/tmp/socket.lock"))
    assert (console_after(fresh, mark), fresh.exists("/var/tmp/socket"), fresh.read_text("/var/run/hxsrvd.pid")) == (CLEAN % 15, False, pid)


@pytest.mark.parametrize("sigs, status, lines", [
    ([signal.SIGINT], 0, CLEAN % 2), ([signal.SIGQUIT], 0, CLEAN % 3), ([signal.SIGTERM, signal.SIGTERM], 0, CLEAN % 15),
    ([signal.SIGINT, signal.SIGTERM], -signal.SIGTERM, CLEAN % 2 + "received fatal signal 15 while exiting, exiting immediately\n"),
], ids=["int", "quit", "term-twice-merged", "second-while-exiting"])
def test_terminating_signals(fresh, sigs, status, lines):
    """Delivered together while stopped; every client is closed on the way out."""
    d, socks = fresh.start_daemon(), [fresh.connect() for _ in range(3)]
    assert fresh.request(REQUEST) == REPLY      # the three are accepted by now
    mark, _ = fresh.console(), d.signal(signal.SIGSTOP)
    wait_for(lambda: process_state(d.host_pid) == "T")
    for sig in sigs + [signal.SIGCONT]:
        d.signal(sig)
    assert (d.wait(), console_after(fresh, mark), [s.recv(16) for s in socks]) == (status, lines, [b""] * 3)


@pytest.mark.skipif(os.environ.get("HX_VALGRIND") == "1", reason="valgrind may drop the siginfo of a SIGSEGV sent by kill(2)")
def test_sigsegv_prints_backtrace_and_exits_255(fresh):
    (d := fresh.start_daemon()).signal(signal.SIGSEGV)
    assert d.wait() == 255
    count = int((lines := d.stdout().splitlines())[1].split()[2])
    assert lines[:2] == ["#hxsrvd# receive SIGSEGV signal", "#hxsrvd# obtained %d stack frames" % count]
    assert 1 <= count <= 30 and len(lines) == 2 + count and any("hxsrvd" in line for line in lines[2:])
    assert not fresh.exists("/var/tmp/socket.lock")        # exit() ran the clean-up


def test_exhausted_descriptors_pause_accept_then_recover(fresh):
    """With no descriptor free, accepting pauses and says so once; a released client lets it go on."""
    (d := fresh.start_daemon()).limit_descriptors(64)
    mark, held = fresh.console(), []
    for _ in range(300):
        (s := socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)).setblocking(False)
        try:
            s.connect(fresh.path("/var/tmp/socket")) or held.append(s)
        except BlockingIOError:
            s.close()
    assert wait_for(lambda: console_after(fresh, mark)) == "failed to accept ipc connection\n" and len(held) > 64
    [s.close() for s in held]

    def served():   # the backlog drains once the paused listener is back
        try:
            return fresh.request(REQUEST) == REPLY
        except BlockingIOError:
            return False
    assert wait_for(served) and d.stop() == 0


def test_sigkill_during_a_pref_set_stream_keeps_the_stores_whole(fresh):
    d, before = fresh.start_daemon(), {s: fresh.store_snapshot(s) for s in ("sysconf", "rtconf")}
    sent = [fresh.connect(60) for _ in range(40)]
    [s.sendall(json.dumps({"method": "pref-set", "arguments": {"confs": {"wl_ssid": f"N{i}"}}}).encode()) for i, s in enumerate(sent)]
    assert d.signal(signal.SIGKILL) or d.wait(60) == -signal.SIGKILL
    after = {s: fresh.store_snapshot(s) for s in ("sysconf", "rtconf")}
    assert after["sysconf"].pop(b"wl_ssid\0") in [before["sysconf"].pop(b"wl_ssid\0")] + [b'"N%d"\0' % i for i in range(40)]
    assert after == before and fresh.start_daemon() and fresh.request(REQUEST) == REPLY

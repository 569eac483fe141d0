"""Part 1.1: start-up, daemon mode and shutdown, on the real binary in the sandbox."""
import os
import signal
import time

import pytest

from helpers import console_after, wait_for
from hxdaemon import process_state

USAGE = ("usage: hxsrvd [-dfh]\n\n"
         "  -d --debug                Print data send and received, implies -f\n"
         "  -f --foreground           Run in the foreground and log to stderr\n"
         "  -h --help                 Display this message and exit\n\n")

REQUEST = b'{"method":"revalidate","arguments":{"video":{}}}'
REPLY = b'{ "arguments": { }, "result": "success" }'


@pytest.fixture
def fresh(sandbox):
    """No daemon running and no files left from an earlier test."""
    for path in ("/var/tmp/socket", "/var/tmp/socket.lock", "/var/run/hxsrvd.pid"):
        sandbox.run(["rm", "-rf", path])
    yield sandbox
    sandbox.run(["sh", "-c", "pkill -KILL -x hxsrvd; true"])


def answers(sandbox):
    """The detached daemon serves (its socket may exist before it listens)."""
    try:
        return sandbox.request(REQUEST) == REPLY
    except OSError:
        return False


def stop_for_sure(daemon):
    """SIGSTOP, and wait until the daemon is stopped: signals sent after that
    stay pending until SIGCONT (two of the same kind merge into one)."""
    daemon.signal(signal.SIGSTOP)
    wait_for(lambda: process_state(daemon.host_pid) == "T")


def stop(daemon):
    daemon.signal(signal.SIGTERM)
    return daemon.wait()


@pytest.mark.parametrize("args", [["-p", "x"], ["-h"], ["--help"], ["--bogus"], ["-x"]])
def test_usage_text_exit_0(fresh, args):
    r = fresh.run(["/usr/sbin/hxsrvd"] + args)
    assert r.returncode == 0
    assert r.stdout.decode() == USAGE
    assert not fresh.exists("/var/tmp/socket.lock")


def test_non_option_arguments_are_ignored(fresh):
    d = fresh.start_daemon(args=("-f", "extra", "words"))
    assert fresh.request(REQUEST) == REPLY
    assert stop(d) == 0


def test_second_instance_refused(fresh):
    first = fresh.start_daemon()
    pid = fresh.read_text("/var/run/hxsrvd.pid")
    mark = fresh.console()
    second = fresh.run(["/usr/sbin/hxsrvd", "-f"])
    assert second.returncode == 1
    assert console_after(fresh, mark) == "another copy of daemon is already running\n"
    assert fresh.read_text("/var/tmp/socket.lock") == pid
    assert fresh.request(REQUEST) == REPLY
    assert stop(first) == 0


def test_lock_file_holds_pid(fresh):
    d = fresh.start_daemon()
    pid = fresh.read_text("/var/run/hxsrvd.pid")
    assert pid.endswith("\n") and int(pid) > 1
    assert fresh.read_text("/var/tmp/socket.lock") == pid
    assert stop(d) == 0


def test_debug_implies_foreground(fresh):
    d = fresh.start_daemon(args=("-d",))
    assert d.alive()
    assert fresh.request(REQUEST) == REPLY
    wait_for(lambda: "went bye-bye" in d.stdout())
    out = d.stdout()
    assert "*** new client " in out
    assert "<<< %d bytes from client: %s\n" % (len(REQUEST), REQUEST.decode()) in out
    assert stop(d) == 0


def test_detaches_without_foreground(fresh):
    starter = fresh.run(["/usr/sbin/hxsrvd"])
    assert starter.returncode == 0
    assert starter.stdout == b""
    wait_for(lambda: answers(fresh))
    pid = int(fresh.read_text("/var/run/hxsrvd.pid"))
    mark = fresh.console()
    fresh.run(["kill", "-TERM", str(pid)])
    wait_for(lambda: not fresh.exists("/var/tmp/socket.lock"))
    assert console_after(fresh, mark) == \
        "received fatal signal 15, attempting to exit cleanly\n"


def test_clean_exit_removes_socket_and_lock_keeps_pid_file(fresh):
    d = fresh.start_daemon()
    pid = fresh.read_text("/var/run/hxsrvd.pid")
    mark = fresh.console()
    assert stop(d) == 0
    assert console_after(fresh, mark) == \
        "received fatal signal 15, attempting to exit cleanly\n"
    assert not fresh.exists("/var/tmp/socket")
    assert not fresh.exists("/var/tmp/socket.lock")
    assert fresh.read_text("/var/run/hxsrvd.pid") == pid


@pytest.mark.parametrize("sig", [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM])
def test_each_terminating_signal_exits_0(fresh, sig):
    d = fresh.start_daemon()
    mark = fresh.console()
    d.signal(sig)
    assert d.wait() == 0
    assert console_after(fresh, mark) == \
        "received fatal signal %d, attempting to exit cleanly\n" % sig


def test_second_signal_while_exiting_kills_by_that_signal(fresh):
    """Two terminating signals delivered together: the first starts the clean
    exit, the second ends the process by itself."""
    d = fresh.start_daemon()
    mark = fresh.console()
    stop_for_sure(d)
    d.signal(signal.SIGINT)
    d.signal(signal.SIGTERM)
    d.signal(signal.SIGCONT)
    assert d.wait() == -signal.SIGTERM
    assert console_after(fresh, mark) == (
        "received fatal signal 2, attempting to exit cleanly\n"
        "received fatal signal 15 while exiting, exiting immediately\n")


def test_sigterm_twice_coalesced_is_one_clean_exit(fresh):
    d = fresh.start_daemon()
    mark = fresh.console()
    stop_for_sure(d)
    d.signal(signal.SIGTERM)
    d.signal(signal.SIGTERM)
    d.signal(signal.SIGCONT)
    assert d.wait() == 0
    assert console_after(fresh, mark) == \
        "received fatal signal 15, attempting to exit cleanly\n"


@pytest.mark.skipif(os.environ.get("HX_VALGRIND") == "1",
                    reason="valgrind may drop the siginfo of a SIGSEGV sent by kill(2)")
def test_sigsegv_prints_backtrace_and_exits_255(fresh):
    d = fresh.start_daemon()
    d.signal(signal.SIGSEGV)
    assert d.wait() == 255
    lines = d.stdout().splitlines()
    assert lines[0] == "#hxsrvd# receive SIGSEGV signal"
    assert lines[1].startswith("#hxsrvd# obtained ")
    count = int(lines[1].split()[2])
    assert lines[1] == "#hxsrvd# obtained %d stack frames" % count
    assert 1 <= count <= 30
    assert len(lines) == 2 + count
    assert any("hxsrvd" in line for line in lines[2:])
    # exit() ran the atexit clean-up
    assert not fresh.exists("/var/tmp/socket.lock")


def test_lock_file_cannot_be_opened(fresh):
    fresh.run(["mkdir", "/var/tmp/socket.lock"])
    mark = fresh.console()
    r = fresh.run(["/usr/sbin/hxsrvd", "-f"])
    assert r.returncode == 1
    assert console_after(fresh, mark) == "failed to open file: /var/tmp/socket.lock\n"


def test_socket_cannot_be_bound(fresh):
    fresh.run(["mkdir", "/var/tmp/socket"])
    mark = fresh.console()
    r = fresh.run(["/usr/sbin/hxsrvd", "-f"])
    assert r.returncode == 1
    assert console_after(fresh, mark) == "failed to bind socket file: /var/tmp/socket\n"
    assert not fresh.exists("/var/tmp/socket.lock")


def test_pid_file_cannot_be_opened(fresh):
    fresh.run(["mkdir", "-p", "/var/run/hxsrvd.pid"])
    mark = fresh.console()
    r = fresh.run(["/usr/sbin/hxsrvd", "-f"])
    assert r.returncode == 1
    assert console_after(fresh, mark) == "failed to open pid file: /var/run/hxsrvd.pid\n"
    assert not fresh.exists("/var/tmp/socket")
    assert not fresh.exists("/var/tmp/socket.lock")


def test_ipc_init_failure_keeps_running(fresh):
    mark = fresh.console()
    d = fresh.start_daemon(env={"DB_FILE": "/var/tmp/no-such-store.gdbm"})
    assert console_after(fresh, mark) == "Open sysconf.gdbm file failed.\n"
    assert fresh.request(REQUEST) == REPLY
    assert stop(d) == 0


def test_stale_socket_file_is_replaced(fresh):
    fresh.write("/var/tmp/socket", b"stale")
    d = fresh.start_daemon()
    assert fresh.request(REQUEST) == REPLY
    assert stop(d) == 0


def test_quit_closes_every_client(fresh):
    d = fresh.start_daemon()
    socks = [fresh.connect() for _ in range(3)]
    assert fresh.request(REQUEST) == REPLY  # the three are accepted by now
    mark = fresh.console()
    assert stop(d) == 0
    for s in socks:
        s.settimeout(10)
        assert s.recv(16) == b""
        s.close()
    assert console_after(fresh, mark) == \
        "received fatal signal 15, attempting to exit cleanly\n"

"""Faults around one daemon whose /var/tmp and /mnt/rwdata are small file
systems: broken, held, missing or full stores, a missing console, missing or
hanging programs.  Each shows the exact replies during the fault and that
the daemon serves, and the stores hold what they held, afterwards."""
import json
import os

import pytest

from helpers import console_after, recv_until_closed, revalidate, stdout_since, wait_for


def reply(sock, size):
    data = b""
    while len(data) < size and (chunk := sock.recv(65536)):
        data += chunk
    return data

SYSCONF, STORES = "/mnt/rwdata/sysconf.gdbm", ("sysconf", "rtconf", "sysinfo")
GET = {"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}
GET_OK = b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1" }, "infos": { } }, "result": "success" }'
GET_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
SET = {"method": "pref-set", "arguments": {"confs": {"wl_ssid": "Z" * 3500}}}
OK, INTERNAL = b'{ "arguments": { }, "result": "success" }', b'{ "arguments": { }, "result": "internal error" }'
OPEN_FAILED = ("Database open failed!\n", "[warn] Database open failed!\n\n")
DLNA = {"method": "revalidate", "arguments": {"dlna": {"action": "restart"}}}
STOP, START, HANG = "/etc/demo/minidlna_stop.sh", "/etc/demo/minidlna_start.sh", "echo $$ > /var/tmp/hang.pid\nexec sleep 100000\n"


@pytest.fixture(scope="module")
def daemon(sandbox):
    for d in ("/var/tmp", "/mnt/rwdata"):
        sandbox.mount_tmpfs(d, "256k")
    d = sandbox.start_daemon()
    yield d
    assert d.stop() == 0


@pytest.fixture
def kept(sandbox, daemon):
    before = {s: sandbox.store_snapshot(s) for s in STORES}
    yield
    for p in (STOP, START):
        sandbox.stub(p, "exit 0\n")
    assert {s: sandbox.store_snapshot(s) for s in STORES} == before
    assert sandbox.request(GET) == GET_OK and revalidate(sandbox, {"video": {}}) == OK


def hold(mode):
    return lambda sb: (lambda h: lambda: sb.release_store(h))(sb.hold_store("sysconf", mode))


def replace(data):
    return lambda sb: (lambda raw: (sb.write(SYSCONF, data(raw)), lambda: sb.write(SYSCONF, raw))[1])(sb.read(SYSCONF))


@pytest.mark.parametrize("fault, get, set_, out, store", [
    (replace(lambda raw: raw[:len(raw) // 2]), GET_FAILED, INTERNAL, OPEN_FAILED, None),
    (replace(lambda raw: b"not a gdbm file\n" * 64), GET_FAILED, INTERNAL, OPEN_FAILED, None),
    (replace(lambda raw: bytes(b ^ 0x55 if i % 7 == 0 else b for i, b in enumerate(raw))), GET_FAILED, INTERNAL, OPEN_FAILED, None),
    (hold("w"), GET_FAILED, INTERNAL, OPEN_FAILED, None),
    (hold("r"), GET_OK, INTERNAL, ("No info field.\n", OPEN_FAILED[1]), None),
    (replace(lambda raw: b""), GET_FAILED, OK, (OPEN_FAILED[0], ""), {b"wl_ssid\0": json.dumps("Z" * 3500).encode() + b"\0"}),
    (lambda sb: (lambda f: lambda: sb.remove(f))(sb.fill_fs("/mnt/rwdata")), GET_OK, OK, ("No info field.\n", "[warn] Item not inserted. \n\n"), None),
], ids=["truncated", "garbage", "corrupt", "held-by-writer", "held-by-reader", "empty", "full"])
def test_store_faults(sandbox, daemon, kept, fault, get, set_, out, store):
    """A store write the file system refuses keeps every old value."""
    undo = fault(sandbox)
    before, err, mark = daemon.stdout(), daemon.stderr(), sandbox.console()
    try:
        assert (sandbox.request(GET), sandbox.request(SET), revalidate(sandbox, {"video": {}})) == (get, set_, OK)
        assert (stdout_since(sandbox, daemon, before), daemon.stderr()[len(err):]) == out
        assert console_after(sandbox, mark) == ""
        assert store is None or sandbox.store_snapshot("sysconf") == store
    finally:
        undo()


@pytest.mark.parametrize("ro", [True, False], ids=["dropped", "file-created"])
def test_console_missing(sandbox, daemon, kept, ro):
    """fopen(.., "w") makes a plain file where the device was, one message each."""
    mark = sandbox.console()
    os.rename(sandbox.path("/dev/console"), sandbox.path("/dev/console.away"))
    try:
        sandbox.run(["mount", "-o", "remount,ro" if ro else "remount,rw", "/dev"], check=True)
        s = sandbox.connect()
        s.sendall(b'{"method": "pref-get", "arguments": }')
        assert recv_until_closed(s) == b""
        assert sandbox.request(GET) == GET_OK
        assert not sandbox.exists("/dev/console") if ro else sandbox.read("/dev/console") == b"error on client connection\n"
    finally:
        sandbox.run(["mount", "-o", "remount,rw", "/dev"], check=True)
        sandbox.remove("/dev/console")
        os.rename(sandbox.path("/dev/console.away"), sandbox.path("/dev/console"))
    assert console_after(sandbox, mark) == ""


def test_programs_missing_hanging_or_full_disk(sandbox, daemon, kept):
    """Handlers run to the end on the loop: others wait for a foreground program, never for a background one."""
    sandbox.remove(STOP)
    sandbox.clear_cmdlog()
    err = daemon.stderr()
    assert sandbox.request(DLNA) == OK
    assert wait_for(sandbox.cmdlog) == [[START]]
    assert daemon.stderr()[len(err):] == f"sh: 1: {STOP}: not found\n"
    for stub in (STOP, START):
        sandbox.stub(stub, HANG)
        first = sandbox.connect(60)
        first.sendall(json.dumps(DLNA).encode())
        pid = wait_for(lambda: sandbox.exists("/var/tmp/hang.pid") and sandbox.read_text("/var/tmp/hang.pid").strip())
        if stub == START:       # in the background: served meanwhile; it holds no descriptor of the daemon
            assert sandbox.request(GET) == GET_OK
            fds = sandbox.run(["ls", "-l", f"/proc/{pid}/fd"]).stdout.decode()
            assert "socket" not in fds and "eventpoll" not in fds, fds
        else:
            mark, second, gone = sandbox.console(), sandbox.connect(60), sandbox.connect()
            second.sendall(json.dumps(GET).encode())
            gone.sendall(json.dumps(GET).encode())
            gone.close()
        sandbox.run(["kill", pid], check=True)
        sandbox.remove("/var/tmp/hang.pid")
        assert reply(first, len(OK)) == OK
        sandbox.stub(stub, "exit 0\n")
    assert reply(second, len(GET_OK)) == GET_OK
    assert console_after(sandbox, mark) == "write error on client connection\n"
    good = (revalidate(sandbox, {"dhcp": {"action": "restart"}}), sandbox.read("/var/tmp/dnsmasq.conf"))
    for p in ("/var/tmp/dnsmasq.conf", "/var/tmp/hosts"):
        sandbox.remove(p)
    filling = sandbox.fill_fs("/var/tmp")
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"dhcp": {"action": "restart"}}) == OK       # renewal fails: stopped, not started
    assert (sandbox.cmdlog(), sandbox.read("/var/tmp/dnsmasq.conf")) == ([["/usr/bin/killall", "-9", "dnsmasq"]], b"")
    sandbox.remove(filling)
    assert (revalidate(sandbox, {"dhcp": {"action": "restart"}}), sandbox.read("/var/tmp/dnsmasq.conf")) == good

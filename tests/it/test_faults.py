"""Faults around a daemon whose /var/tmp and /mnt/rwdata are small: broken, held,
emptied or full stores, missing or hanging programs; then it serves, the stores whole."""
import json

import pytest

from helpers import INTERNAL, SUCCESS as OK, console_after, read_reply, revalidate, stdout_since, wait_for

SYSCONF = "/mnt/rwdata/sysconf.gdbm"
GET = {"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}
GET_OK = b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1" }, "infos": { } }, "result": "success" }'
GET_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
SET = {"method": "pref-set", "arguments": {"confs": {"wl_ssid": "Z" * 3500}}}
FAILED, NO_INFO = ("Database open failed!\n", "[warn] Database open failed!\n\n"), "No info field.\n"
DLNA = {"dlna": {"action": "restart"}}
STOP, START = "/etc/demo/minidlna_stop.sh", "/etc/demo/minidlna_start.sh"


@pytest.fixture(scope="module")
def daemon(sandbox):
    yield [sandbox.mount_tmpfs(d, "256k") for d in ("/var/tmp", "/mnt/rwdata")] and sandbox.start_daemon()


@pytest.fixture
def kept(sandbox, daemon):
    yield (before := [sandbox.store_snapshot(s) for s in ("sysconf", "rtconf", "sysinfo")])
    assert [sandbox.store_snapshot(s) for s in ("sysconf", "rtconf", "sysinfo")] == before
    assert (sandbox.request(GET), revalidate(sandbox, {"video": {}})) == (GET_OK, OK)


def rewrite(change):
    return lambda sb, raw: (sb.write(SYSCONF, change(raw)), lambda: sb.write(SYSCONF, raw))[1]


@pytest.mark.parametrize("fault, get, set_, out", [
    (rewrite(lambda raw: raw[:len(raw) // 2]), GET_FAILED, INTERNAL, FAILED),
    (rewrite(lambda raw: b"not a gdbm file\n" * 64), GET_FAILED, INTERNAL, FAILED),
    (rewrite(lambda raw: bytes(b ^ 0x55 if i % 7 == 0 else b for i, b in enumerate(raw))), GET_FAILED, INTERNAL, FAILED),
    (lambda sb, raw: (lambda h: lambda: sb.release_store(h))(sb.hold_store("sysconf", "w")), GET_FAILED, INTERNAL, FAILED),
    (lambda sb, raw: (lambda h: lambda: sb.release_store(h))(sb.hold_store("sysconf", "r")), GET_OK, INTERNAL, (NO_INFO, FAILED[1])),
    (rewrite(lambda raw: b""), GET_FAILED, OK, (FAILED[0], "")),        # the writer's open makes a new store
    (lambda sb, raw: (lambda f: lambda: sb.remove(f))(sb.fill_fs("/mnt/rwdata")), GET_OK, OK, (NO_INFO, "[warn] Item not inserted. \n\n")),
], ids=["truncated", "garbage", "corrupt", "held-by-writer", "held-by-reader", "empty", "full"])
def test_store_faults(sandbox, daemon, kept, fault, get, set_, out):
    undo = fault(sandbox, sandbox.read(SYSCONF))
    before, err, mark = daemon.stdout(), daemon.stderr(), sandbox.console()
    try:
        assert (sandbox.request(GET), sandbox.request(SET), revalidate(sandbox, {"video": {}})) == (get, set_, OK)
        assert (stdout_since(sandbox, daemon, before), daemon.stderr()[len(err):], console_after(sandbox, mark)) == (*out, "")
        assert set_ == INTERNAL or sandbox.store_get("sysconf", "wl_ssid") == (json.dumps("Z" * 3500).encode() + b"\0" if out[1] == "" else b'"HX-Travel"\0')
    finally:
        undo()


def test_programs_missing_or_hanging(sandbox, daemon, kept):
    """Handlers run to the end on the loop: others wait for a foreground program, never for a background one."""
    err, _, _ = daemon.stderr(), sandbox.remove(STOP), sandbox.clear_cmdlog()
    assert (revalidate(sandbox, DLNA), wait_for(sandbox.cmdlog)) == (OK, [[START]])
    assert daemon.stderr()[len(err):] == f"sh: 1: {STOP}: not found\n"
    for stub in (START, STOP):
        sandbox.stub(stub, "echo $$ > /var/tmp/hang.pid\nexec sleep 100000\n")
        (first := sandbox.connect(60)).sendall(json.dumps({"method": "revalidate", "arguments": DLNA}).encode())
        pid = wait_for(lambda: sandbox.exists("/var/tmp/hang.pid") and sandbox.read_text("/var/tmp/hang.pid").strip())
        if stub == START:   # in the background, holding no descriptor of the daemon
            assert sandbox.request(GET) == GET_OK
            assert not [w for w in ("socket", "eventpoll") if w in (fds := sandbox.run(["ls", "-l", f"/proc/{pid}/fd"]).stdout.decode())], fds
        else:
            mark, second, gone = sandbox.console(), sandbox.connect(60), sandbox.connect()
            [s.sendall(json.dumps(GET).encode()) for s in (second, gone)]
            gone.close()    # before the daemon could read it: its reply is a write error
        sandbox.run(["kill", pid], check=True)
        sandbox.remove("/var/tmp/hang.pid")
        sandbox.stub(stub, "exit 0\n")
        assert read_reply(first, len(OK)) == OK
    assert read_reply(second, len(GET_OK)) == GET_OK
    assert wait_for(lambda: console_after(sandbox, mark)) == "write error on client connection\n"


def test_full_var_tmp_leaves_the_file_empty_and_the_service_stopped(sandbox, daemon, kept):
    filling, before, _ = sandbox.fill_fs("/var/tmp"), daemon.stdout(), sandbox.clear_cmdlog()
    try:
        assert revalidate(sandbox, {"dhcp": {"action": "restart"}}) == OK
        # (an earlier test's WAN start-up may still be running its scripts in the background)
        dns = [c for c in sandbox.cmdlog() if "dnsmasq" in c[0] + c[-1]]
        assert (stdout_since(sandbox, daemon, before), dns) == ("", [["/usr/bin/killall", "-9", "dnsmasq"]])
        assert sandbox.read("/var/tmp/dnsmasq.conf") == b""
    finally:
        sandbox.remove(filling)

"""Part 5.1: the WPA supplicant control client, reached through the daemon's
"wpa" target (Part 5.2: gw_wpa_start -> wifi_sta_wpa_if_init -> wpa_cli_init,
which registers "CTRL" and "TDLS"), against the scripted fake supplicant
(fakewpa.py) and against Debian's real wpa_supplicant; and libwpacli itself
(platform/wpactrl) through ctypes inside the sandbox.

The client's logic without a supplicant (no control socket, fifth handler,
command while detached, every dispatch rule) is in tests/unit/test_wpacli.cpp."""
import json
import os
import re
import shutil
import subprocess
import threading

import pytest

from helpers import revalidate, stdout_since, wait_for

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
CTRL_DIR = "/var/run/wpa_supplicant"
SOCK = CTRL_DIR + "/mlan0"
FAKE = "/usr/lib/hxsim/fakewpa.py"
FAKE_LOG = "/var/log/hxsim/fakewpa.log"
PROBE = "/usr/lib/hxsim/wpactrl_probe.py"
LIB = "/usr/lib/hxsim/libwpactrl-test.so"
WPA_START = {"wpa": {"action": "start"}}
WPA_STOP = {"wpa": {"action": "stop"}}
INIT_OUT = ("WPACli: Selected interface 'mlan0'\n"
            "WPACli: Initialize interface for wpa_supplicant successful\n")
CONNECTED = ("<3>CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:00:01 "
             "completed [id=0 id_str=]")

# Runs inside the sandbox: libwpacli through ctypes.  argv: library, control
# socket, then steps: "req:CMD", "attach", "detach", "fd", "locals", "close".
# Prints one JSON value per step.
PROBE_TEXT = r'''
import ctypes, json, os, sys
lib = ctypes.CDLL(sys.argv[1])
CB = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_size_t)
lib.wpa_ctrl_open.restype = ctypes.c_void_p
lib.wpa_ctrl_open.argtypes = [ctypes.c_char_p]
lib.wpa_ctrl_close.argtypes = [ctypes.c_void_p]
lib.wpa_ctrl_request.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t,
                                 ctypes.c_char_p, ctypes.POINTER(ctypes.c_size_t), CB]
for f in (lib.wpa_ctrl_attach, lib.wpa_ctrl_detach, lib.wpa_ctrl_get_fd):
    f.argtypes = [ctypes.c_void_p]
events = []
cb = CB(lambda msg, n: events.append(msg[:n].decode()))
ctrl = lib.wpa_ctrl_open(sys.argv[2].encode())
print(json.dumps(ctrl is not None), flush=True)
def locals_():
    return sorted(n for n in os.listdir("/tmp") if n.startswith("wpa_ctrl_%d-" % os.getpid()))
for step in sys.argv[3:]:
    if step.startswith("req:"):
        cmd = step[4:].encode()
        buf = ctypes.create_string_buffer(4096)
        n = ctypes.c_size_t(4096)
        del events[:]
        ret = lib.wpa_ctrl_request(ctrl, cmd, len(cmd), buf, ctypes.byref(n), cb)
        out = {"ret": ret, "reply": buf.raw[:n.value].decode() if ret == 0 else None,
               "events": list(events)}
    elif step == "attach":
        out = lib.wpa_ctrl_attach(ctrl)
    elif step == "detach":
        out = lib.wpa_ctrl_detach(ctrl)
    elif step == "fd":
        out = lib.wpa_ctrl_get_fd(ctrl) >= 0
    elif step == "locals":
        out = locals_()
    elif step == "close":
        lib.wpa_ctrl_close(ctrl)
        out = locals_()
    print(json.dumps(out), flush=True)
'''


@pytest.fixture(scope="module")
def files(sandbox, tmp_path_factory):
    """fakewpa.py and the probe in the sandbox; libwpacli's source built as
    a shared object for ctypes (the daemon links the static library)."""
    with open(os.path.join(REPO, "tests/it/fakewpa.py"), "rb") as f:
        sandbox.write(FAKE, f.read())
    sandbox.write(PROBE, PROBE_TEXT.encode())
    cc = shutil.which("g++") or shutil.which("c++")
    so = tmp_path_factory.mktemp("wpactrl") / "libwpactrl-test.so"
    subprocess.run([cc, "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror",
                    "-std=c++20", "-o", str(so), os.path.join(REPO, "platform/wpactrl/wpa_ctrl.cpp")],
                   check=True)
    sandbox.write(LIB, so.read_bytes())
    return sandbox


class Fake:
    """fakewpa.py running inside the sandbox at SOCK."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        if sandbox.exists(FAKE_LOG):
            sandbox.remove(FAKE_LOG)
        self.proc = sandbox.popen(["/usr/bin/python3", FAKE, SOCK, FAKE_LOG],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.proc.stdout.readline() == b"ready\n"

    def tell(self, line):
        self.proc.stdin.write(line.encode() + b"\n")
        self.proc.stdin.flush()
        assert self.proc.stdout.readline() == b"done\n"

    def log(self):
        if not self.sandbox.exists(FAKE_LOG):
            return []
        return self.sandbox.read_text(FAKE_LOG).splitlines()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.stdin.close()
            self.proc.wait(timeout=30)
        if self.sandbox.exists(SOCK):
            self.sandbox.remove(SOCK)


def probe(sandbox, *steps, timeout=60):
    done = sandbox.run(["/usr/bin/python3", PROBE, LIB, SOCK, *steps], timeout=timeout)
    assert done.returncode == 0, done.stderr
    return [json.loads(line) for line in done.stdout.decode().splitlines()]


def udhcpc_runs(sandbox):
    return [argv for argv in sandbox.cmdlog() if argv[0] == "/usr/sbin/udhcpc"]


# ---- libwpacli against the fake supplicant ----


def test_lib_request_reply_and_local_socket_removed_on_close(files):
    fake = Fake(files)
    try:
        fake.tell("reply STATUS\twpa_state=COMPLETED\\nssid=Trip\\n")
        opened, reply, status, locals_open, locals_closed = probe(
            files, "req:PING", "req:STATUS", "locals", "close")
        assert opened is True
        assert reply == {"ret": 0, "reply": "PONG\n", "events": []}
        assert status == {"ret": 0, "reply": "wpa_state=COMPLETED\nssid=Trip\n", "events": []}
        assert len(locals_open) == 1 and re.fullmatch(r"wpa_ctrl_\d+-1", locals_open[0])
        assert locals_closed == []
        assert [re.sub(r"^/tmp/wpa_ctrl_\d+-1 ", "", line) for line in fake.log()] == [
            "'PING'", "'STATUS'"]
    finally:
        fake.stop()


def test_lib_attach_detach_and_events_during_request(files):
    fake = Fake(files)
    try:
        fake.tell("silent HANG")
        p = files.popen(["/usr/bin/python3", PROBE, LIB, SOCK, "attach", "fd",
                         "req:HANG", "detach"], stdout=subprocess.PIPE)
        assert p.stdout.readline() == b"true\n"
        assert p.stdout.readline() == b"0\n"
        assert p.stdout.readline() == b"true\n"
        wait_for(lambda: any("'HANG'" in line for line in fake.log()))
        fake.tell("event <3>CTRL-EVENT-BSS-ADDED 0 02:00:00:00:00:01")
        fake.tell("event " + CONNECTED)
        # the request keeps waiting past the events and times out (-2)
        hang = json.loads(p.stdout.readline())
        assert hang == {"ret": -2, "reply": None, "events": [
            "<3>CTRL-EVENT-BSS-ADDED 0 02:00:00:00:00:01", CONNECTED]}
        assert p.stdout.readline() == b"0\n"
        assert p.wait(timeout=30) == 0
        cmds = [line.split(" ", 1)[1] for line in fake.log()]
        assert cmds == ["'ATTACH'", "'HANG'", "'DETACH'"]
    finally:
        fake.stop()


def test_lib_attach_refused_and_missing_socket(files):
    fake = Fake(files)
    try:
        fake.tell("reply ATTACH\tFAIL\\n")
        assert probe(files, "attach", "close") == [True, -1, []]
    finally:
        fake.stop()
    assert probe(files) == [False]


# ---- the client in the daemon, against the fake supplicant ----


def test_stale_socket_fails_with_open_message(files, daemon):
    files.run(["/usr/bin/python3", "-c",
               "import os, socket; os.makedirs(%r, exist_ok=True); "
               "socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind(%r)" % (CTRL_DIR, SOCK)],
              check=True)
    before = daemon.stdout()
    try:
        assert revalidate(files, WPA_START) == INTERNAL
        assert stdout_since(files, daemon, before) == (
            "WPACli: Selected interface 'mlan0'\n"
            "WPACli: Failed to open connection to wpa_supplicant on "
            "/var/run/wpa_supplicant/mlan0\n")
    finally:
        files.remove(SOCK)


SCAN_TDLS = {"method": "pref-get",
             "arguments": {"confs": [], "infos": ["s_scantdlsdevice"]}}
DISCOVER = "TDLS_DISCOVER ff:ff:ff:ff:ff:ff"


def scan_tdls(sandbox):
    """The "s_scantdlsdevice" item (wifi/tdls.c), which sends DISCOVER
    through wpa_cli_send: "scanning", or "failed" when the send fails."""
    reply = json.loads(sandbox.request(SCAN_TDLS, timeout=60))
    assert reply["result"] == "success"
    return reply["arguments"]["infos"]["s_scantdlsdevice"]


def test_command_while_detached_is_dropped(files, daemon):
    before = daemon.stdout()
    assert scan_tdls(files) == "failed"
    assert stdout_since(files, daemon, before) == (
        "WPACli: Not connected to wpa_supplicant, command %s dropped\n" % DISCOVER)


def test_each_start_registers_again_until_the_slots_are_full(files, daemon):
    """A start while attached opens nothing, but registers "CTRL" and "TDLS"
    again: the third start finds the four slots taken (two refusals, still
    success), and one event then reaches each "CTRL" slot: udhcpc twice."""
    fake = Fake(files)
    try:
        before = daemon.stdout()
        assert revalidate(files, WPA_START) == SUCCESS
        assert revalidate(files, WPA_START) == SUCCESS
        assert stdout_since(files, daemon, before) == INIT_OUT
        before = daemon.stdout()
        assert revalidate(files, WPA_START) == SUCCESS
        assert stdout_since(files, daemon, before) == "WPACli: Exceed Maximum EH count\n" * 2
        assert len(fake.log()) == 1
        files.clear_cmdlog()
        fake.tell("event " + CONNECTED)
        wait_for(lambda: len(udhcpc_runs(files)) == 2)
        assert udhcpc_runs(files)[0] == udhcpc_runs(files)[1]
    finally:
        revalidate(files, WPA_STOP)
        fake.stop()


@pytest.fixture(scope="module")
def attached(files, daemon):
    """The daemon attached to the fake supplicant."""
    fake = Fake(files)
    before = daemon.stdout()
    assert revalidate(files, WPA_START) == SUCCESS
    assert stdout_since(files, daemon, before) == INIT_OUT
    yield fake
    fake.stop()


def test_init_opens_command_and_attached_monitor_connections(attached):
    log = attached.log()
    assert len(log) == 1
    assert re.fullmatch(r"/tmp/wpa_ctrl_\d+-\d+ 'ATTACH'", log[0])


def test_connected_event_dispatched_to_ctrl_handler(files, daemon, attached):
    files.clear_cmdlog()
    before = daemon.stdout()
    attached.tell("event " + CONNECTED)
    wait_for(lambda: udhcpc_runs(files))
    out = stdout_since(files, daemon, before)
    assert out.startswith("WPACli: Event from WPA [%s]\n" % CONNECTED)
    hostname = files.run(["/bin/hostname"]).stdout.decode().strip()
    assert udhcpc_runs(files) == [["/usr/sbin/udhcpc", "-i", "mlan0", "-H", hostname, "-p",
                                   "/var/run/udhcpc.pid", "-b", "-s",
                                   "/etc/app/gw_udhcpc.script", "-S"]]


def test_bss_removed_ignored_and_unknown_event_printed_not_dispatched(files, daemon, attached):
    files.clear_cmdlog()
    before = daemon.stdout()
    attached.tell("event <3>CTRL-EVENT-BSS-REMOVED 0 02:00:00:00:00:01")
    attached.tell("event <3>CTRL-EVENT-SCAN-RESULTS ")
    attached.tell("event <3>CTRL-EVENT-CONNECTED")
    wait_for(lambda: "[<3>CTRL-EVENT-CONNECTED]" in daemon.stdout()[len(before):])
    assert stdout_since(files, daemon, before) == (
        "WPACli: Event from WPA [<3>CTRL-EVENT-SCAN-RESULTS ]\n"
        "WPACli: Event from WPA [<3>CTRL-EVENT-CONNECTED]\n")
    assert files.cmdlog() == []


def test_tdls_disc_resp_reaches_tdls_handler_with_mac(files, daemon, attached):
    before = daemon.stdout()
    attached.tell("event <3>TDLS-DISC-RESP peer=02:00:00:00:00:02")
    wait_for(lambda: "TDLS: Discovered" in daemon.stdout()[len(before):])
    assert stdout_since(files, daemon, before) == (
        "WPACli: Event from WPA [<3>TDLS-DISC-RESP peer=02:00:00:00:00:02]\n"
        "TDLS: Discovered peer 02:00:00:00:00:02\n")


def test_command_sent_reply_consumed(files, daemon, attached):
    before = daemon.stdout()
    assert scan_tdls(files) == "scanning"
    assert stdout_since(files, daemon, before) == ""
    command = attached.log()[-1]
    assert re.fullmatch(r"/tmp/wpa_ctrl_\d+-\d+ '%s'" % DISCOVER, command)
    assert command.split(" ")[0] != attached.log()[0].split(" ")[0]


def test_command_timeout_prints_unsolicited_then_dispatches(files, daemon, attached):
    attached.tell("silent " + DISCOVER)
    before = daemon.stdout()
    result = []
    t = threading.Thread(target=lambda: result.append(scan_tdls(files)))
    t.start()
    try:
        wait_for(lambda: len(attached.log()) == 3)
        attached.tell("event-to-all <3>CTRL-EVENT-SCAN-STARTED ")
    finally:
        t.join()
    assert result == ["failed"]
    wait_for(lambda: "WPACli: Event from WPA [<3>CTRL-EVENT-SCAN-STARTED ]\n"
             in daemon.stdout()[len(before):])
    assert stdout_since(files, daemon, before) == (
        "WPACli: Show event message from WPA: [<3>CTRL-EVENT-SCAN-STARTED ]\n"
        "WPACli: '%s' command timed out.\n"
        "WPACli: wpa_cli_send: Failed, -2\n"
        "WPACli: Event from WPA [<3>CTRL-EVENT-SCAN-STARTED ]\n" % DISCOVER)


def test_stop_detaches_and_closes(files, daemon, attached):
    assert revalidate(files, WPA_STOP) == SUCCESS
    wait_for(lambda: len(attached.log()) == 4)
    monitor = attached.log()[0].split(" ")[0]
    assert attached.log()[3] == monitor + " 'DETACH'"
    assert not files.exists(monitor)
    before = daemon.stdout()
    attached.tell("event-to-all " + CONNECTED)
    assert stdout_since(files, daemon, before) == ""
    attached.stop()


# ---- against Debian's real wpa_supplicant ----

REAL_CONF = "/etc/wpa_p5_1.conf"


@pytest.fixture
def real_wpa(files, daemon):
    if not shutil.which("wpa_supplicant"):
        pytest.skip("wpasupplicant is not installed (scripts/install-deps)")
    files.write(REAL_CONF, "ctrl_interface=/var/run/wpa_supplicant\nap_scan=1\n"
                "network={\n\tssid=\"Trip\"\n\tkey_mgmt=NONE\n}\n")
    p = files.popen(["wpa_supplicant", "-D", "wired", "-i", "mlan0", "-c", REAL_CONF],
                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(lambda: files.exists(SOCK) or p.poll() is not None)
    assert p.poll() is None, "wpa_supplicant exited with %d" % p.returncode
    yield p
    revalidate(files, WPA_STOP)
    files.run(["wpa_cli", "-i", "mlan0", "terminate"])
    p.wait(timeout=30)
    wait_for(lambda: not files.exists(SOCK))


def wpa_cli(sandbox, *args):
    done = sandbox.run(["wpa_cli", "-i", "mlan0", *args])
    assert done.returncode == 0, done.stderr
    return done.stdout.decode()


def test_real_supplicant_answers_library(files, real_wpa):
    results = probe(files, "req:RECONFIGURE", "req:SELECT_NETWORK 0",
                    "req:REMOVE_NETWORK 0", "close")
    assert results[1:4] == [{"ret": 0, "reply": "OK\n", "events": []}] * 3
    assert results[4] == []


def test_real_supplicant_connected_event_reaches_ctrl_handler(files, daemon, real_wpa):
    wait_for(lambda: "wpa_state=COMPLETED" in wpa_cli(files, "status"))
    before = daemon.stdout()
    assert revalidate(files, WPA_START) == SUCCESS
    assert stdout_since(files, daemon, before) == INIT_OUT
    files.clear_cmdlog()
    before = daemon.stdout()
    assert wpa_cli(files, "disconnect") == "OK\n"
    wait_for(lambda: "WPACli: Event from WPA [<3>CTRL-EVENT-DISCONNECTED "
             in daemon.stdout()[len(before):])
    assert udhcpc_runs(files) == []
    assert wpa_cli(files, "reconnect") == "OK\n"
    wait_for(lambda: udhcpc_runs(files))
    out = stdout_since(files, daemon, before)
    assert re.search(r"^WPACli: Event from WPA \[<3>CTRL-EVENT-CONNECTED - Connection to "
                     r"[0-9a-f:]{17} completed \[id=0 id_str=\]\]$", out, re.M), out
    assert len(udhcpc_runs(files)) == 1

"""The device sandbox itself (sim/hxsim.py): isolation from the host, the
console and command-log capture, the fake kernel files, the seeded stores and
the daemon plumbing (with a stand-in hxsrvd, so no build is needed).

Run with: /usr/bin/python3 -m pytest -q tests/it/test_sandbox.py
"""
import os
import signal
import socket
import subprocess
import time
import uuid

import pytest

import hxsim
from conftest import need_root

HOST_IFS = {name for _, name in socket.if_nameindex()}
CAP_SYS_BOOT, CAP_SYS_TIME = 22, 25

# A stand-in for hxsrvd: says hello on stdout and stderr, detaches without -f
# (pid file as the daemon writes it), answers each client with its request
# wrapped in {"echo": ...}, exits 3 on SIGTERM.
FAKE_DAEMON = r'''#!/usr/bin/python3
import os, signal, socket, sys, threading, time
signal.signal(signal.SIGTERM, lambda *_: os._exit(3))
if "-f" not in sys.argv[1:]:
    if os.fork():
        os._exit(0)
    os.setsid()
print("hello stdout", *sys.argv[1:])
sys.stderr.write("hello stderr\n")
with open("/var/run/hxsrvd.pid", "w") as f:
    f.write("%d\n" % os.getpid())
srv = socket.socket(socket.AF_UNIX)
if os.path.exists("/var/tmp/socket"):
    os.unlink("/var/tmp/socket")
srv.bind("/var/tmp/socket")
srv.listen()

def serve(c):
    data = c.recv(65536)
    half = len(data) // 2
    c.sendall(b'{"echo": ' + data[:half])
    time.sleep(0.2)
    c.sendall(data[half:] + b"}")
    time.sleep(3)
    c.sendall(b" trailing")
    c.close()

while True:
    threading.Thread(target=serve, args=(srv.accept()[0],), daemon=True).start()
'''


def caps(status_text, field):
    line = next(l for l in status_text.splitlines() if l.startswith(field + ":"))
    return int(line.split()[1], 16)


def test_host_clock_cannot_be_set(sandbox):
    r = sandbox.run(["date", "-u", "-s", "@978307200", "+%s"])
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b"978307200\n", b"date: cannot set date: Operation not permitted\n")
    assert time.time() > 1_700_000_000


@pytest.mark.parametrize("pid", ["self", "1"])
def test_sys_time_and_sys_boot_are_gone(sandbox, pid):
    status = sandbox.run(["cat", f"/proc/{pid}/status"], check=True).stdout.decode()
    for field in ("CapBnd", "CapInh", "CapPrm", "CapEff"):
        assert caps(status, field) & (1 << CAP_SYS_TIME | 1 << CAP_SYS_BOOT) == 0


def test_network_is_private(sandbox):
    assert sandbox.run(["ls", "/sys/class/net"]).stdout == b"br0\nlo\nmlan0\n"
    r = sandbox.run(["awk", "{print $1, $2, $8}", "/proc/net/route"])
    assert r.stdout == b"Iface Destination Mask\nbr0 0064A8C0 00FFFFFF\n"
    assert sandbox.run(["ip", "-4", "-o", "addr", "show", "dev", "mlan0"]).stdout == b""
    sandbox.run(["ip", "link", "add", "hxsimtest0", "type", "ifb"], check=True)
    assert {name for _, name in socket.if_nameindex()} == HOST_IFS
    sandbox.run(["ip", "link", "del", "hxsimtest0"], check=True)


def test_writes_stay_inside(sandbox):
    name = f"/etc/app/hxsim-{uuid.uuid4().hex}"
    assert not os.path.exists(name)
    r = sandbox.run(["sh", "-c", f"echo inside > {name}; cat {name}"])
    assert r.stdout == b"inside\n"
    assert sandbox.read(name) == b"inside\n"
    assert not os.path.exists(name)


def test_host_paths_follow_links_inside(sandbox):
    name = f"hxsim-{uuid.uuid4().hex}"
    sandbox.write(f"/var/run/{name}", b"x\n")
    assert sandbox.run(["cat", f"/run/{name}"]).stdout == b"x\n"
    assert not os.path.exists(f"/run/{name}")
    assert sandbox.path("/var/run/x") == sandbox.path("/run/x")


def test_console_keeps_every_message(sandbox):
    before = sandbox.console()
    sandbox.run(["sh", "-c", "echo first > /dev/console"], check=True)
    sandbox.run(["sh", "-c", "printf 'second\\n' > /dev/console"], check=True)
    assert sandbox.console() == before + "first\nsecond\n"
    assert sandbox.console() == before + "first\nsecond\n"


def test_cmdlog_records_argv_exactly(sandbox):
    sandbox.clear_cmdlog()
    sandbox.run(["/sbin/ifconfig", "br0", "a b", 'q"x', ""], check=True)
    sandbox.run(["sh", "-c", "killall -9 dnsmasq && /etc/app/gw_ssdpd.sh start"], check=True)
    assert sandbox.cmdlog() == [
        ["/sbin/ifconfig", "br0", "a b", 'q"x', ""],
        ["/usr/bin/killall", "-9", "dnsmasq"],
        ["/etc/app/gw_ssdpd.sh", "start"],
    ]
    sandbox.clear_cmdlog()
    assert sandbox.cmdlog() == []


def test_stub_overrides(sandbox):
    sandbox.clear_cmdlog()
    sandbox.stub_exit("/sbin/route", 4)
    sandbox.stub("/usr/sbin/iwconfig", 'echo "mlan0 $1"\n')
    try:
        assert sandbox.run(["route", "add", "default"]).returncode == 4
        assert sandbox.run(["iwconfig", "up"]).stdout == b"mlan0 up\n"
    finally:
        sandbox.stub_exit("/sbin/route", 0)
        sandbox.stub_exit("/usr/sbin/iwconfig", 0)
    assert sandbox.cmdlog() == [["/usr/sbin/route", "add", "default"],
                                ["/usr/sbin/iwconfig", "up"]]


def test_kill_1_is_logged_and_sandbox_lives_on(sandbox):
    sandbox.remove("/var/log/hxsim/init.log")
    r = sandbox.run(["sh", "-c", "kill 1"])
    assert (r.returncode, r.stdout, r.stderr) == (0, b"", b"")
    assert hxsim.wait_until(lambda: sandbox.exists("/var/log/hxsim/init.log"), 10)
    assert sandbox.read("/var/log/hxsim/init.log") == b"kill 1\n"
    assert sandbox.run(["echo", "still here"]).stdout == b"still here\n"


def test_fake_kernel_files(sandbox):
    def cat(p):
        return sandbox.run(["cat", p]).stdout

    assert cat("/sys/class/power_supply/sp2566-0/capacity") == b"87\n"
    assert cat("/sys/class/power_supply/sp2566-0/status") == b"Discharging\n"
    assert cat("/proc/partitions") == b"major minor  #blocks  name\n\n"
    assert cat("/etc/mtab") == b""
    sandbox.set_battery("15\n", "Charging\n")
    sandbox.set_partitions("major minor  #blocks  name\n\n   8        0    1000 sda\n")
    sandbox.set_mtab("/dev/sda1 /tmp/media/share/A vfat rw 0 0\n")
    sandbox.add_disk("sda", "Generic ", "Flash Disk", 2000)
    assert cat("/sys/class/power_supply/sp2566-0/capacity") == b"15\n"
    assert cat("/sys/class/power_supply/sp2566-0/status") == b"Charging\n"
    assert cat("/proc/partitions").endswith(b"\n   8        0    1000 sda\n")
    assert cat("/etc/mtab") == b"/dev/sda1 /tmp/media/share/A vfat rw 0 0\n"
    assert cat("/sys/block/sda/device/vendor") == b"Generic \n"
    assert cat("/sys/block/sda/size") == b"2000\n"
    assert b"usb1/1-1/1-1.4/" in sandbox.run(["readlink", "/sys/block/sda"]).stdout
    sandbox.remove_disk("sda")
    sandbox.set_battery(None, "Full\n")
    assert sandbox.run(["ls", "/sys/block", "/sys/class/power_supply/sp2566-0"]).stdout == (
        b"/sys/block:\n\n/sys/class/power_supply/sp2566-0:\nstatus\n")
    sandbox.set_battery("87\n", "Discharging\n")


@pytest.mark.parametrize("store", ["sysconf", "rtconf", "sysinfo"])
def test_stores_hold_the_factory_defaults(sandbox, store):
    want = {k.encode() + b"\0": hxsim.jsonc_text(v).encode() + b"\0"
            for k, v in hxsim.load_factory(store).items()}
    if store == "rtconf":
        want.update({k.encode() + b"\0": v.encode() + b"\0"
                     for k, v in hxsim.load_factory("rtconf-raw").items()})
    got = {k: sandbox.store_get(store, k[:-1]) for k in sandbox.store_keys(store)}
    assert got == want


def test_store_raw_access(sandbox):
    sandbox.store_set("sysconf", "hxsim_test", b'"a\\/b"\0')
    assert sandbox.store_get("sysconf", "hxsim_test") == b'"a\\/b"\0'
    assert b"hxsim_test\0" in sandbox.store_keys("sysconf")
    sandbox.store_delete("sysconf", "hxsim_test")
    assert sandbox.store_get("sysconf", "hxsim_test") is None


def test_jsonc_rendering():
    value = {"a": 1, "b": [1, 2], "c": "x/y\n", "d": {}, "e": [], "f": None, "g": "é"}
    assert hxsim.jsonc_text(value) == (
        '{ "a": 1, "b": [ 1, 2 ], "c": "x\\/y\\n", "d": { }, "e": [ ], "f": null, "g": "é" }')


def test_run_timeout_kills_the_command(sandbox):
    with pytest.raises(subprocess.TimeoutExpired):
        sandbox.run(["sh", "-c", "echo started; exec sleep 600"], timeout=1)
    assert b"sleep 600" not in sandbox.run(["ps", "-eo", "args"]).stdout


@pytest.fixture
def fake_daemon(sandbox):
    """A stand-in hxsrvd (a script), never run behind a wrapper such as valgrind."""
    wrapper, sandbox.wrapper = sandbox.wrapper, []
    sandbox.write(hxsim.BINARIES["hxsrvd"], FAKE_DAEMON, mode=0o755)
    sandbox.remove(hxsim.SOCKET)
    yield
    sandbox.remove(hxsim.BINARIES["hxsrvd"])
    sandbox.wrapper = wrapper


def test_foreground_daemon_plumbing(sandbox, fake_daemon):
    d = sandbox.start_daemon()
    assert d.alive()
    assert d.stdout() == "hello stdout -f\n"
    assert d.stderr() == "hello stderr\n"
    assert sandbox.request({"m": "x/y"}, timeout=30) == b'{"echo": {"m": "x/y"}}'
    assert sandbox.request(b'[1, 2]', timeout=30) == b'{"echo": [1, 2]}'
    d.signal(signal.SIGTERM)
    assert d.wait() == 3
    assert not d.alive()


def test_foreground_daemon_killed_by_signal(sandbox, fake_daemon):
    d = sandbox.start_daemon()
    d.signal(signal.SIGKILL)
    assert d.wait() == -signal.SIGKILL


def test_detached_daemon_plumbing(sandbox, fake_daemon):
    d = sandbox.start_daemon(args=())
    assert d.proc.returncode == 0
    assert d.alive()
    assert str(d.ns_pid).encode() + b"\n" == sandbox.read("/var/run/hxsrvd.pid")
    with sandbox.connect() as s:
        s.sendall(b"{}")
        assert s.recv(9) == b'{"echo": '
    d.signal(signal.SIGTERM)
    assert d.wait() == 3


def test_stop_leaves_nothing_behind():
    need_root()
    with open("/proc/self/mountinfo") as f:
        mounts = f.read()
    sb = hxsim.Sandbox(seed=False).start()
    state, init = sb.state, sb.init_pid
    namespaces = {os.readlink(f"/proc/{init}/ns/{ns}") for ns in ("mnt", "pid", "net")}
    sleeper = sb.popen(["sleep", "600"])
    sb.run(["sh", "-c", "sleep 600 >/dev/null 2>&1 &"], check=True)
    sb.stop()
    assert sleeper.poll() is not None
    assert not os.path.exists(state)
    assert not os.path.exists(f"/proc/{init}")
    with open("/proc/self/mountinfo") as f:
        assert f.read() == mounts
    for pid in hxsim.all_pids():
        for ns in ("mnt", "pid", "net"):
            try:
                held = os.readlink(f"/proc/{pid}/ns/{ns}")
            except OSError:
                continue
            assert held not in namespaces

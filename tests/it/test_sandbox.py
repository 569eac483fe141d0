"""The sandbox leaves the host untouched: clock, network, files, processes, mounts."""
import os
import socket
import time

import hxsim
from conftest import need_root


def test_clock_network_and_files_stay_inside(sandbox):
    assert sandbox.run(["date", "-u", "-s", "@978307200"]).stderr == b"date: cannot set date: Operation not permitted\n"
    host_ifs = socket.if_nameindex()
    sandbox.run(["ip", "link", "add", "hxsimtest0", "type", "ifb"], check=True)
    assert (socket.if_nameindex(), time.time() > 1_700_000_000) == (host_ifs, True)
    assert sandbox.run(["sh", "-c", "echo in > /etc/app/hxsim-t; cat /etc/app/hxsim-t; kill 1"]).stdout == b"in\n"
    assert not os.path.exists("/etc/app/hxsim-t") and sandbox.run(["true"]).returncode == 0


def test_stop_leaves_nothing_behind():
    need_root()
    mounts = open("/proc/self/mountinfo").read()
    sb = hxsim.Sandbox(seed=False).start()
    namespaces = {os.readlink(f"/proc/{sb.init_pid}/ns/{ns}") for ns in ("mnt", "pid", "net")}
    sleeper, state, init = sb.popen(["sleep", "600"]), sb.state, sb.init_pid
    sb.run(["sh", "-c", "sleep 600 >/dev/null 2>&1 &"], check=True)
    sb.stop()
    assert (sleeper.poll() is not None, os.path.exists(state), os.path.exists(f"/proc/{init}")) == (True, False, False)
    assert open("/proc/self/mountinfo").read() == mounts
    held = set()
    for pid in hxsim.all_pids():
        for ns in ("mnt", "pid", "net"):
            try:
                held.add(os.readlink(f"/proc/{pid}/ns/{ns}"))
            except OSError:
                pass
    assert not held & namespaces

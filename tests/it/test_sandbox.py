"""The sandbox leaves the host untouched: clock, network, files, and
nothing left behind when it stops."""
import os
import socket
import time
import uuid

import hxsim
from conftest import need_root


def test_writes_clock_and_network_stay_inside(sandbox):
    r = sandbox.run(["date", "-u", "-s", "@978307200", "+%s"])
    assert (r.returncode, r.stderr) == (1, b"date: cannot set date: Operation not permitted\n")
    assert time.time() > 1_700_000_000
    host_ifs = {name for _, name in socket.if_nameindex()}
    sandbox.run(["ip", "link", "add", "hxsimtest0", "type", "ifb"], check=True)
    assert {name for _, name in socket.if_nameindex()} == host_ifs
    name = f"/etc/app/hxsim-{uuid.uuid4().hex}"
    assert sandbox.run(["sh", "-c", f"echo inside > {name}; cat {name}"]).stdout == b"inside\n"
    assert not os.path.exists(name)
    assert sandbox.run(["sh", "-c", "kill 1; echo still here"]).stdout == b"still here\n"


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
    assert sleeper.poll() is not None and not os.path.exists(state) and not os.path.exists(f"/proc/{init}")
    with open("/proc/self/mountinfo") as f:
        assert f.read() == mounts
    for pid in hxsim.all_pids():
        for ns in ("mnt", "pid", "net"):
            try:
                assert os.readlink(f"/proc/{pid}/ns/{ns}") not in namespaces
            except OSError:
                pass

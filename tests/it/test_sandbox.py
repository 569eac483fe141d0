"""The sandbox leaves the host untouched: clock, network, files, init."""
import os
import socket
import time



def test_clock_network_and_files_stay_inside(sandbox):
    assert sandbox.run(["date", "-u", "-s", "@978307200"]).stderr == b"date: cannot set date: Operation not permitted\n"
    host_ifs, _ = socket.if_nameindex(), sandbox.run(["ip", "link", "add", "hxsimtest0", "type", "ifb"], check=True)
    assert (socket.if_nameindex(), time.time() > 1_700_000_000) == (host_ifs, True)
    assert sandbox.run(["sh", "-c", "echo in > /etc/app/hxsim-t; cat /etc/app/hxsim-t; kill 1"]).stdout == b"in\n"
    assert not os.path.exists("/etc/app/hxsim-t") and sandbox.run(["true"]).returncode == 0

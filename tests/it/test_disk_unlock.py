"""Unlocking drives (the unlock substitute keeps "state\nattempts left\npassword\n" per drive), removing them."""
import re

import pytest

from devices_util import NULL, SUCCESS, TYPE, ask, result
from hxsim import jsonc_text

LOCKS, SCRIPT, FAIL, BAD = "/var/lib/hxsim-diskunlock/", "/etc/app/gw_hd_safe_remove.sh", result("fail"), "disk_unlock parameter name/passwd "
ERROR, LOCKED, FREE, EXCEEDED = (jsonc_text({"arguments": {"lock_state": s}, "result": "success"}).encode()
                                 for s in ("Error", "Locked", "Unlocked", "Unlocks Exceeded"))


def u(args, want, out="", lock="1\n3\ns\n", after=None):
    return {"disk_unlock": args}, lock, want, out, lock if after is None else after, [], 0


def rm(disk, want=FAIL, ran=False, rc=0, out=""):
    return {"safely_remove": {"disk": disk} if isinstance(disk, str) else disk}, None, want, out, None, [[SCRIPT, disk]] * ran, rc


ROWS = [
    u({"disk_name": "sdb"}, ERROR, BAD + "invalid\n"), u({"passwd": "s"}, ERROR, BAD + "invalid\n"),
    u({"disk_name": "sdb", "passwd": 5}, ERROR, BAD + "NULL\n"), u({"disk_name": None, "passwd": "s"}, ERROR, BAD + "NULL\n"),
    u({"disk_name": "sdb", "passwd": "s"}, FREE, after="0\n3\ns\n"), u({"disk_name": "sdc", "passwd": "x"}, FREE),
    u({"disk_name": "sdb", "passwd": "x"}, LOCKED, lock="1\n2\ns\n", after="1\n1\ns\n"),
    u({"disk_name": "sdb", "passwd": "x"}, EXCEEDED, lock="1\n1\ns\n", after="2\n0\ns\n"),
    u({"disk_name": "sdb", "passwd": "s"}, EXCEEDED, lock="2\n0\ns\n"),
    *[u({"disk_name": n, "passwd": "x"}, ERROR) for n in ("../etc", "", "a/b")],
    u(None, result("Invalid arguments."), "Input parameters are NULL.\n"), u("sdb", result("Invalid arguments."), TYPE),
    rm("sdb", SUCCESS, ran=True), rm("sdb", ran=True, rc=1), *[rm(v) for v in [{}, {"disk": 1}, {"disk": None}]],
    rm("sdb", ran=True, rc=None, out=re.compile(r"safely remove script error\nexit illegal \[[^\n]*\n")),
    *[rm(d) for d in ["sdb;reboot", "sdb reboot", "$(reboot)", "`id`", "sdb|x", "sdb&", "sdb\nid", "a>b", "'sdb'"]],
    rm("s" * 33, SUCCESS, ran=True), rm("s" * 34),  # the script's path and a space take 30 of 64 bytes
    rm(None, result("Invalid argument."), out=NULL), rm(["sdb"], result("Invalid argument."), out=TYPE),
]


@pytest.mark.parametrize("req, lock, want, out, after, cmds, rc", ROWS)
def test_unlock_and_remove(sandbox, daemon, req, lock, want, out, after, cmds, rc):
    sandbox.run(["rm", "-rf", LOCKS])
    sandbox.write(LOCKS + "sdb", lock) if lock else None
    # rc None: the shell that waits for the script dies by a signal
    sandbox.stub(SCRIPT, 'read -r c < /proc/$PPID/comm; [ "$c" = sh ] && kill -9 $PPID\nexit 3\n') if rc is None else \
        sandbox.stub_exit(SCRIPT, rc)
    sandbox.clear_cmdlog()
    assert (ask(sandbox, daemon, req, out=out)[0], sandbox.cmdlog()) == (want, cmds)
    assert (sandbox.read_text(LOCKS + "sdb") if lock else None) == after

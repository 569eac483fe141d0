"""Unlocking drives (the unlock substitute keeps "state\nattempts left\npassword\n" per drive) and
removing them safely."""
import re

import pytest

from devices_util import NULL, SUCCESS, TYPE, ask, result, same
from hxsim import jsonc_text

LOCKS, SCRIPT = "/var/lib/hxsim-diskunlock", "/etc/app/gw_hd_safe_remove.sh"
FAIL, BAD = result("fail"), "disk_unlock parameter name/passwd "
KILLED = re.compile(r"safely remove script error\nexit illegal \[[^\n]*\n")


def state(text):
    return jsonc_text({"arguments": {"lock_state": text}, "result": "success"}).encode()


def u(id, args, want, out="", lock="1\n3\nsecret\n", after=None):
    return pytest.param({"disk_unlock": args}, lock, want, out, lock if after is None else after, [], 0, id=id)


def rm(id, disk, want=FAIL, ran=False, rc=0, out=""):
    return pytest.param({"safely_remove": {"disk": disk} if isinstance(disk, str) else disk}, None, want, out, None, [[SCRIPT, disk]] * ran, rc, id=id)


ROWS = [
    u("name-only", {"disk_name": "sdb"}, state("Error"), BAD + "invalid\n"),
    u("password-only", {"passwd": "secret"}, state("Error"), BAD + "invalid\n"),
    u("password-number", {"disk_name": "sdb", "passwd": 5}, state("Error"), BAD + "NULL\n"),
    u("name-null", {"disk_name": None, "passwd": "secret"}, state("Error"), BAD + "NULL\n"),
    u("right", {"disk_name": "sdb", "passwd": "secret"}, state("Unlocked"), after="0\n3\nsecret\n"),
    u("wrong", {"disk_name": "sdb", "passwd": "guess"}, state("Locked"), lock="1\n2\ns\n", after="1\n1\ns\n"),
    u("last-wrong", {"disk_name": "sdb", "passwd": "guess"}, state("Unlocks Exceeded"), lock="1\n1\ns\n",
      after="2\n0\ns\n"),
    u("exceeded", {"disk_name": "sdb", "passwd": "s"}, state("Unlocks Exceeded"), lock="2\n0\ns\n"),
    u("no-lock", {"disk_name": "sdc", "passwd": "x"}, state("Unlocked")),
    *[u(f"name-{n!r}", {"disk_name": n, "passwd": "x"}, state("Error")) for n in ("../etc", "", "a/b")],
    u("null", None, result("Invalid arguments."), "Input parameters are NULL.\n"),
    u("not-object", "sdb", result("Invalid arguments."), TYPE),
    rm("removed", "sdb", SUCCESS, ran=True),
    rm("script-fails", "sdb", ran=True, rc=1),
    rm("script-killed", "sdb", ran=True, rc=None, out=KILLED),
    *[rm(f"no-disk-{i}", v) for i, v in enumerate([{}, {"disk": 1}, {"disk": None}])],
    *[rm(f"shell-{i}", d) for i, d in enumerate(["sdb;reboot", "sdb reboot", "$(reboot)", "`id`", "sdb|x",
                                                  "sdb&", "sdb\nid", "a>b", "'sdb'"])],
    rm("command-fits", "s" * 33, SUCCESS, ran=True),  # the script's path and a space take 30 of 64 bytes
    rm("command-too-long", "s" * 34),
    rm("null", None, result("Invalid argument."), out=NULL),
    rm("not-object", ["sdb"], result("Invalid argument."), out=TYPE),
]


@pytest.mark.parametrize("req, lock, want, out, after, cmds, rc", ROWS)
def test_unlock_and_remove(sandbox, daemon, req, lock, want, out, after, cmds, rc):
    sandbox.run(["rm", "-rf", LOCKS])
    if lock:
        sandbox.write(f"{LOCKS}/sdb", lock)
    if rc is None:  # the shell that waits for the script dies by a signal
        sandbox.stub(SCRIPT, 'read -r c < /proc/$PPID/comm; [ "$c" = sh ] && kill -9 $PPID\nexit 3\n')
    else:
        sandbox.stub_exit(SCRIPT, rc)
    sandbox.clear_cmdlog()
    reply, got = ask(sandbox, daemon, req)
    assert (reply, sandbox.cmdlog()) == (want, cmds) and same(got, out), got
    assert (sandbox.read_text(f"{LOCKS}/sdb") if lock else None) == after

"""What the network tests share: replies, store records, one request's effects."""
import pytest

from hxsim import jsonc_text
from helpers import INTERNAL, INVALID, SUCCESS, console_after, revalidate, stdout_since, store_restore, wait_for  # noqa: F401
from helpers import NOT_OBJECT as TYPE, NULL_ARG as NULL  # noqa: F401


def raw(value):
    return value if value is None or isinstance(value, bytes) else jsonc_text(value).encode() + b"\0"


@pytest.fixture
def conf(daemon, sandbox):
    """conf({"key" | "rt:key" | "info:key": value}) sets records of sysconf, rtconf, sysinfo; all come back after the test."""
    saved = []

    def put(values):
        for name, value in values.items():
            store, key = {"rt": "rtconf", "info": "sysinfo"}.get(name.rpartition(":")[0], "sysconf"), name.rpartition(":")[2]
            saved.append((store, key, sandbox.store_get(store, key)))
            store_restore(sandbox, store, key, raw(value))
    yield put
    for store, key, old in reversed(saved):
        store_restore(sandbox, store, key, old)


@pytest.fixture
def net(sandbox):
    yield lambda *args: sandbox.run(["ip", *args], check=True)
    sandbox.run(["ip", "-4", "route", "flush", "dev", "mlan0"], check=True)
    sandbox.run(["ip", "-4", "addr", "flush", "dev", "mlan0"], check=True)


class Run:
    """One revalidate request: reply, standard output, the commands keep() takes (awaiting `count`); none on the console."""

    def __init__(self, sandbox, daemon, target, value, count=0, keep=lambda c: True):
        out, console = daemon.stdout(), sandbox.console()
        sandbox.clear_cmdlog()
        self.reply = revalidate(sandbox, {target: value})
        self.out = stdout_since(sandbox, daemon, out)
        wait_for(lambda: len([c for c in sandbox.cmdlog() if keep(c)]) >= count)
        self.cmds = [c for c in sandbox.cmdlog() if keep(c)]
        assert console_after(sandbox, console) == ""

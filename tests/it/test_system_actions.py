"""Firmware upgrade, factory default, power-off and reboot: the platform scripts run in the background,
so every request is followed by a power-off whose script line marks the end of what it ran."""
import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, ask
from helpers import wait_for

APP = "/etc/app/"
FWUP, FW, OFF, RESET = APP + "gw_fwupgrade.sh", APP + "fw_upgrade.sh", APP + "gw_poweroff.sh", APP + "gw_factoryreset.sh"
MEMBERS = ["serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder"]
ALL = dict(zip(MEMBERS, ["192.168.100.10", "u-boot.bin", "uImage", "jffs2.img", "opt.img", "rootfs.squashfs",
                         "fw/v1.2_3"]))
HOSTILE = [";", "1;reboot", "$(reboot)", "`reboot`", "a b", "a\tb", "a\nb", "'", '"', "a|b", "a&", ">x", "<x",
           "*", "~", "a\\b", "(null)", "#", "a=b", "é", ""]
LONG = {m: "a" * 90 if m == "serverip" else "b" for m in MEMBERS}  # 96 characters: a command of 127


def fw(words, shown=None):
    """The command line printed (absent parts are the quoted word '(null)') and the argv the script gets."""
    return " ".join([FW] + (shown or words)) + " &\n", [[FW] + words]


def r(id, target, value, want=SUCCESS, out="", cmds=(), rc=0):
    return pytest.param(target, value, want, out, list(cmds), rc, id=id)


ROWS = [
    r("upgrade", "fw_upgrade", {"action": "start"}, cmds=[[FWUP]]),
    r("upgrade-defaults", "fw_upgrade", {"action": "startv"}, cmds=[[FWUP, "set_def"]]),
    *[r(f"upgrade-other-{v}", "fw_upgrade", v) for v in ({"action": "stop"}, {}, {"action": "START"},
                                                        {"action": 1}, {"action": None})],
    *[r(f"{t}-null", t, None, INVALID, NULL) for t in ("fw_upgrade", "firmwareupgrade")],
    *[r(f"{t}-{v!r}", t, v, INVALID, TYPE) for t in ("fw_upgrade", "firmwareupgrade")
      for v in ("start", 1, [{"action": "start"}], True)],
    r("firmware-some", "firmwareupgrade", {"serverip": "10.0.0.2", "kernel": "uImage"}, SUCCESS,
      *fw(["10.0.0.2", "(null)", "uImage"] + ["(null)"] * 4, ["10.0.0.2", "'(null)'", "uImage"] + ["'(null)'"] * 4)),
    r("firmware-all-in-order", "firmwareupgrade", dict(reversed(ALL.items())), SUCCESS, *fw([ALL[m] for m in MEMBERS])),
    r("firmware-none", "firmwareupgrade", {"other": ";reboot"}, SUCCESS, *fw(["(null)"] * 7, ["'(null)'"] * 7)),
    r("firmware-status-ignored", "firmwareupgrade", ALL, SUCCESS, *fw([ALL[m] for m in MEMBERS]), rc=3),
    r("firmware-127", "firmwareupgrade", LONG, SUCCESS, *fw([LONG[m] for m in MEMBERS])),
    *[r(f"firmware-{n}", "firmwareupgrade", dict(LONG, serverip="a" * n), INTERNAL,
        "firmware upgrade: refused: the command does not fit 128 bytes\n") for n in (91, 295)],
    *[r(f"firmware-{m}-{v!r}", "firmwareupgrade", dict(ALL, **{m: v}), INTERNAL)
      for m, v in zip(MEMBERS, [None, 1, 1.5, True, {"a": "b"}, ["x"], None])],
    *[r(f"firmware-{m}-{t!r}", "firmwareupgrade", dict(ALL, **{m: t}), INTERNAL,
        f"firmware upgrade: {m} refused: empty or unsafe characters\n") for m in ("serverip", "subfolder")
      for t in HOSTILE],
    *[r(f"factory-{v!r}", "factorydefault", v, out="do factoryDefault\n", cmds=[[RESET]]) for v in ({}, None, 1, "x")],
    *[r(f"poweroff-{v!r}", "poweroff", v, out="do poweroff\n", cmds=[[OFF]]) for v in ({}, None, [1])],
]


@pytest.mark.parametrize("target, value, want, out, cmds, rc", ROWS)
def test_system_action(sandbox, daemon, target, value, want, out, cmds, rc):
    sandbox.stub_exit(FW, rc)
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {target: value}) == (want, out)
    assert ask(sandbox, daemon, {"poweroff": {}}) == (SUCCESS, "do poweroff\n")
    ran = wait_for(lambda: len(sandbox.cmdlog()) > len(cmds) and [OFF] in sandbox.cmdlog() and sandbox.cmdlog())
    assert sorted(ran) == sorted(cmds + [[OFF]])


def kills(sandbox):
    return sandbox.read_text(INIT).count("kill 1\n") if sandbox.exists(INIT := "/var/log/hxsim/init.log") else 0


@pytest.mark.parametrize("value", [{}, None])
def test_reboot_answers_then_tells_init(sandbox, daemon, value):
    before = kills(sandbox)
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {"reboot": value}) == (SUCCESS, "")
    wait_for(lambda: kills(sandbox) > before)
    assert kills(sandbox) == before + 1 and sandbox.cmdlog() == [] and daemon.alive()

"""Firmware upgrade, factory default, power-off, reboot. The scripts run in the background: a power-off after
each request marks, by its own script line, the end of what the request ran."""
import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, ask
from helpers import wait_for

FWUP, FW, OFF, RESET = (f"/etc/app/{s}.sh" for s in ("gw_fwupgrade", "fw_upgrade", "gw_poweroff", "gw_factoryreset"))
MEMBERS = ["serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder"]
ALL = dict(zip(MEMBERS, ["192.168.100.10", "u-boot.bin", "uImage", "jffs2.img", "opt.img", "rootfs.squashfs", "fw/v1.2_3"]))
LONG = {m: "a" * 90 if m == "serverip" else "b" for m in MEMBERS}  # 96 characters: a command of 127
HOSTILE = [";", "1;reboot", "$(reboot)", "`reboot`", "a b", "a\tb", "a\nb", "'", '"', "a|b", "a&", ">x", "<x", "*", "~", "a\\b",
           "(null)", "#", "a=b", "é", ""]


def fw(value, words, shown=None, rc=0):
    """The command printed (an absent part is the quoted word '(null)') and the script's argv."""
    return "firmwareupgrade", value, SUCCESS, " ".join([FW] + (shown or words)) + " &\n", [[FW] + words], rc


ROWS = [
    ("fw_upgrade", {"action": "start"}, SUCCESS, "", [[FWUP]], 0), ("fw_upgrade", {"action": "startv"}, SUCCESS, "", [[FWUP, "set_def"]], 0),
    *[("fw_upgrade", v, SUCCESS, "", [], 0) for v in ({"action": "stop"}, {}, {"action": "START"}, {"action": 1}, {"action": None})],
    *[(t, None, INVALID, NULL, [], 0) for t in ("fw_upgrade", "firmwareupgrade")],
    *[(t, v, INVALID, TYPE, [], 0) for t in ("fw_upgrade", "firmwareupgrade") for v in ("start", 1, [{"action": "start"}], True)],
    fw({"serverip": "10.0.0.2", "kernel": "uImage"}, ["10.0.0.2", "(null)", "uImage"] + ["(null)"] * 4,
       ["10.0.0.2", "'(null)'", "uImage"] + ["'(null)'"] * 4),
    fw(dict(reversed(ALL.items())), list(ALL.values())), fw({"other": ";reboot"}, ["(null)"] * 7, ["'(null)'"] * 7),
    fw(ALL, list(ALL.values()), rc=3), fw(LONG, list(LONG.values())),
    *[("firmwareupgrade", dict(LONG, serverip="a" * n), INTERNAL,
       "firmware upgrade: refused: the command does not fit 128 bytes\n", [], 0) for n in (91, 295)],
    *[("firmwareupgrade", dict(ALL, **{m: v}), INTERNAL, "", [], 0)
      for m, v in zip(MEMBERS, [None, 1, 1.5, True, {"a": "b"}, ["x"], None])],
    *[("firmwareupgrade", dict(ALL, **{m: t}), INTERNAL, f"firmware upgrade: {m} refused: empty or unsafe characters\n", [], 0)
      for m in ("serverip", "subfolder") for t in HOSTILE],
    *[("factorydefault", v, SUCCESS, "do factoryDefault\n", [[RESET]], 0) for v in ({}, None, 1, "x")],
    *[("poweroff", v, SUCCESS, "do poweroff\n", [[OFF]], 0) for v in ({}, None, [1])],
]


@pytest.mark.parametrize("target, value, want, out, cmds, rc", ROWS)
def test_system_action(sandbox, daemon, target, value, want, out, cmds, rc):
    sandbox.stub_exit(FW, rc)  # the upgrade script's status is not reported
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {target: value}, out=out)[0] == want
    assert ask(sandbox, daemon, {"poweroff": {}}, out="do poweroff\n")[0] == SUCCESS
    wait_for(lambda: len(sandbox.cmdlog()) > len(cmds) and [OFF] in sandbox.cmdlog())
    assert sorted(sandbox.cmdlog()) == sorted(cmds + [[OFF]])


@pytest.mark.parametrize("value", [{}, None])
def test_reboot_answers_then_tells_init(sandbox, daemon, value):
    def kills():
        return sandbox.read_text(LOG).count("kill 1\n") if sandbox.exists(LOG := "/var/log/hxsim/init.log") else 0
    before = kills()
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {"reboot": value}, out="")[0] == SUCCESS
    wait_for(lambda: kills() > before)
    assert kills() == before + 1 and sandbox.cmdlog() == [] and daemon.alive()

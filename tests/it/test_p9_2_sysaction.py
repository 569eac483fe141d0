"""Part 9.2: firmware upgrade, reboot, power-off and factory default, through
the real daemon. The four platform scripts are the sandbox's stubs, so the
command log shows each script's argv; they run in the background ("... &"),
so a test waits for their line. "kill 1" reaches the sandbox's PID 1
(sim/hxinit.py), which logs it to /var/log/hxsim/init.log and carries on.
"""
import pytest

from helpers import console_after, revalidate, stdout_since, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

FWUPGRADE = "/etc/app/gw_fwupgrade.sh"
FW_UPGRADE = "/etc/app/fw_upgrade.sh"
POWEROFF = "/etc/app/gw_poweroff.sh"
FACTORYRESET = "/etc/app/gw_factoryreset.sh"
INIT_LOG = "/var/log/hxsim/init.log"
MEMBERS = ["serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder"]
ALL = {"serverip": "192.168.100.10", "bootloader": "u-boot.bin", "kernel": "uImage",
       "jffs2": "jffs2.img", "opt": "opt.img", "rootfs": "rootfs.squashfs",
       "subfolder": "fw/v1.2_3"}


@pytest.fixture
def clean(daemon, sandbox):
    sandbox.clear_cmdlog()


class Run:
    """One revalidate request for one target: its reply, what it printed and
    what it ran (synchronously) by the time the reply came. Nothing reaches
    the console."""

    def __init__(self, sandbox, daemon, target, value):
        before = daemon.stdout()
        console = sandbox.console()
        self.start = len(sandbox.cmdlog())
        self.sandbox = sandbox
        self.reply = revalidate(sandbox, {target: value})
        self.out = stdout_since(sandbox, daemon, before)
        assert console_after(sandbox, console) == ""

    def cmds(self):
        return self.sandbox.cmdlog()[self.start:]

    def wait_cmds(self, count):
        """The commands once `count` of them are logged (background ones)."""
        return wait_for(lambda: len(self.cmds()) >= count and self.cmds())

    def nothing_ran(self, daemon):
        """A power-off request afterwards logs its script: by the time that
        background line is there, nothing else may have been run."""
        marker = Run(self.sandbox, daemon, "poweroff", {})
        assert marker.wait_cmds(1) == [[POWEROFF]]
        assert self.cmds() == [[POWEROFF]]


def fw_command(*words):
    return f"{FW_UPGRADE} {' '.join(words)} &"


# fw_upgrade


def test_fw_upgrade_start_runs_script_without_argument(clean, daemon, sandbox):
    run = Run(sandbox, daemon, "fw_upgrade", {"action": "start"})
    assert run.reply == SUCCESS
    assert run.out == ""
    assert run.wait_cmds(1) == [[FWUPGRADE]]


def test_fw_upgrade_startv_runs_script_with_set_def(clean, daemon, sandbox):
    run = Run(sandbox, daemon, "fw_upgrade", {"action": "startv"})
    assert run.reply == SUCCESS
    assert run.wait_cmds(1) == [[FWUPGRADE, "set_def"]]


@pytest.mark.parametrize("value", [{"action": "stop"}, {}, {"action": "START"},
                                   {"action": 1}, {"action": None}],
                         ids=["stop", "missing", "START", "number", "null"])
def test_fw_upgrade_other_action_does_nothing(clean, daemon, sandbox, value):
    run = Run(sandbox, daemon, "fw_upgrade", value)
    assert run.reply == SUCCESS
    assert run.out == ""
    run.nothing_ran(daemon)


@pytest.mark.parametrize("target", ["fw_upgrade", "firmwareupgrade"])
def test_null_argument(clean, daemon, sandbox, target):
    run = Run(sandbox, daemon, target, None)
    assert run.reply == INVALID
    assert run.out == "Input parameter is NULL.\n"
    run.nothing_ran(daemon)


@pytest.mark.parametrize("target", ["fw_upgrade", "firmwareupgrade"])
@pytest.mark.parametrize("value", ["start", 1, [{"action": "start"}], True])
def test_not_an_object(clean, daemon, sandbox, target, value):
    run = Run(sandbox, daemon, target, value)
    assert run.reply == INVALID
    assert run.out == "Unexpected json type.\n"
    run.nothing_ran(daemon)


# firmwareupgrade


def test_firmwareupgrade_serverip_and_kernel_null_marker_elsewhere(clean, daemon, sandbox):
    """Deviation: the absent parts are passed as the quoted word '(null)',
    so the script receives the seven words with "(null)" in five places."""
    run = Run(sandbox, daemon, "firmwareupgrade", {"serverip": "10.0.0.2", "kernel": "uImage"})
    assert run.reply == SUCCESS
    null = "'(null)'"
    assert run.out == fw_command("10.0.0.2", null, "uImage", null, null, null, null) + "\n"
    assert run.wait_cmds(1) == [[FW_UPGRADE, "10.0.0.2", "(null)", "uImage", "(null)",
                                 "(null)", "(null)", "(null)"]]


def test_firmwareupgrade_all_seven_in_order(clean, daemon, sandbox):
    value = dict(reversed(list(ALL.items())))
    run = Run(sandbox, daemon, "firmwareupgrade", value)
    assert run.reply == SUCCESS
    words = [ALL[m] for m in MEMBERS]
    assert run.out == fw_command(*words) + "\n"
    assert run.wait_cmds(1) == [[FW_UPGRADE] + words]


def test_firmwareupgrade_empty_object_seven_null_markers(clean, daemon, sandbox):
    run = Run(sandbox, daemon, "firmwareupgrade", {"other": ";reboot"})
    assert run.reply == SUCCESS
    assert run.wait_cmds(1) == [[FW_UPGRADE] + ["(null)"] * 7]


def test_firmwareupgrade_script_status_not_reported(clean, daemon, sandbox):
    sandbox.stub_exit(FW_UPGRADE, 3)
    try:
        run = Run(sandbox, daemon, "firmwareupgrade", {"serverip": "10.0.0.2"})
        assert run.reply == SUCCESS
        assert run.wait_cmds(1)[0][:2] == [FW_UPGRADE, "10.0.0.2"]
    finally:
        sandbox.stub_exit(FW_UPGRADE, 0)


@pytest.mark.parametrize("member", MEMBERS)
@pytest.mark.parametrize("bad", [None, 1, 1.5, True, {"a": "b"}, ["x"]],
                         ids=["null", "int", "double", "bool", "object", "array"])
def test_firmwareupgrade_member_without_text(clean, daemon, sandbox, member, bad):
    """A member present with a value that is not a JSON string yields no
    text: "internal error", nothing printed, nothing run."""
    run = Run(sandbox, daemon, "firmwareupgrade", dict(ALL, **{member: bad}))
    assert run.reply == INTERNAL
    assert run.out == ""
    run.nothing_ran(daemon)


@pytest.mark.parametrize("text", [";", "1;reboot", "$(reboot)", "`reboot`", "a b", "a\tb",
                                  "a\nb", "'", '"', "a|b", "a&", ">x", "<x", "*", "~",
                                  "a\\b", "(null)", "#", "a=b", "é", ""],
                         ids=["semicolon", "command", "dollar", "backticks", "space", "tab",
                              "newline", "quote", "dquote", "pipe", "amp", "gt", "lt",
                              "star", "tilde", "backslash", "parens", "hash", "equals",
                              "non-ascii", "empty"])
@pytest.mark.parametrize("member", ["serverip", "subfolder"])
def test_firmwareupgrade_hostile_text_refused(clean, daemon, sandbox, member, text):
    """Safety (DESIGN.md section 8): the texts reach the shell unquoted."""
    run = Run(sandbox, daemon, "firmwareupgrade", dict(ALL, **{member: text}))
    assert run.reply == INTERNAL
    assert run.out == f"firmware upgrade: {member} refused: empty or unsafe characters\n"
    run.nothing_ran(daemon)


def long_parts(total):
    """All seven parts, one-character words but serverip, the texts adding up
    to `total` characters: the command is 31 + total characters long."""
    parts = {m: "b" for m in MEMBERS}
    parts["serverip"] = "a" * (total - 6)
    return parts


def test_firmwareupgrade_command_of_127_characters_runs(clean, daemon, sandbox):
    parts = long_parts(96)
    run = Run(sandbox, daemon, "firmwareupgrade", parts)
    assert run.reply == SUCCESS
    words = [parts[m] for m in MEMBERS]
    assert len(fw_command(*words)) == 127
    assert run.out == fw_command(*words) + "\n"
    assert run.wait_cmds(1) == [[FW_UPGRADE] + words]


@pytest.mark.parametrize("total", [97, 300])
def test_firmwareupgrade_command_over_the_buffer_refused(clean, daemon, sandbox, total):
    run = Run(sandbox, daemon, "firmwareupgrade", long_parts(total))
    assert run.reply == INTERNAL
    assert run.out == "firmware upgrade: refused: the command does not fit 128 bytes\n"
    run.nothing_ran(daemon)


# factorydefault, poweroff, reboot


@pytest.mark.parametrize("value", [{}, None, 1, "x"], ids=["object", "null", "number", "text"])
def test_factorydefault(clean, daemon, sandbox, value):
    run = Run(sandbox, daemon, "factorydefault", value)
    assert run.reply == SUCCESS
    assert run.out == "do factoryDefault\n"
    assert run.wait_cmds(1) == [[FACTORYRESET]]


@pytest.mark.parametrize("value", [{}, None, [1]], ids=["object", "null", "array"])
def test_poweroff(clean, daemon, sandbox, value):
    run = Run(sandbox, daemon, "poweroff", value)
    assert run.reply == SUCCESS
    assert run.out == "do poweroff\n"
    assert run.wait_cmds(1) == [[POWEROFF]]


def kills(sandbox):
    if not sandbox.exists(INIT_LOG):
        return 0
    return sandbox.read_text(INIT_LOG).splitlines().count("kill 1")


@pytest.mark.parametrize("value", [{}, None], ids=["object", "null"])
def test_reboot_answers_then_init_is_told(clean, daemon, sandbox, value):
    """The reply comes first; "kill 1" reaches the sandbox's init later (the
    three seconds are not measured), and the daemon keeps answering."""
    before = kills(sandbox)
    run = Run(sandbox, daemon, "reboot", value)
    assert run.reply == SUCCESS
    assert run.out == ""
    wait_for(lambda: kills(sandbox) > before)
    assert kills(sandbox) == before + 1
    assert run.cmds() == []
    after = Run(sandbox, daemon, "poweroff", {})
    assert after.reply == SUCCESS
    assert after.wait_cmds(1) == [[POWEROFF]]
    assert daemon.alive()

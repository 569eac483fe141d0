"""Part 6.2: the targets "disk_unlock" and "safely_remove" through the real
daemon.  Drive lock states live in the disk-unlock substitute's files
("/var/lib/hxsim-diskunlock/<disk>": state, attempts left, password)."""
import pytest

from hxsim import jsonc_text
from helpers import revalidate, stdout_since

LOCK_DIR = "/var/lib/hxsim-diskunlock"
SCRIPT = "/etc/app/gw_hd_safe_remove.sh"
SUCCESS = b'{ "arguments": { }, "result": "success" }'


def result(text):
    return b'{ "arguments": { }, "result": ' + jsonc_text(text).encode() + b" }"


def lock_state(text):
    return (b'{ "arguments": { "lock_state": ' + jsonc_text(text).encode()
            + b' }, "result": "success" }')


def ask(sandbox, daemon, arguments):
    before = daemon.stdout()
    reply = revalidate(sandbox, arguments)
    return reply, stdout_since(sandbox, daemon, before)


@pytest.fixture
def drives(sandbox, daemon):
    sandbox.clear_cmdlog()
    yield lambda name, text: sandbox.write(f"{LOCK_DIR}/{name}", text)
    sandbox.run(["rm", "-rf", LOCK_DIR])
    sandbox.stub_exit(SCRIPT, 0)


# disk_unlock

def test_unlock_with_only_disk_name_is_error(sandbox, daemon, drives):
    drives("sdb", "1\n3\nsecret\n")
    reply, out = ask(sandbox, daemon, {"disk_unlock": {"disk_name": "sdb"}})
    assert reply == lock_state("Error")
    assert out == "disk_unlock parameter name/passwd invalid\n"
    reply, out = ask(sandbox, daemon, {"disk_unlock": {"passwd": "secret"}})
    assert reply == lock_state("Error")
    assert out == "disk_unlock parameter name/passwd invalid\n"
    assert sandbox.read_text(f"{LOCK_DIR}/sdb") == "1\n3\nsecret\n"


@pytest.mark.parametrize("args", [{"disk_name": "sdb", "passwd": 5},
                                  {"disk_name": None, "passwd": "secret"}])
def test_unlock_with_non_string_member_is_error(sandbox, daemon, drives, args):
    reply, out = ask(sandbox, daemon, {"disk_unlock": args})
    assert reply == lock_state("Error")
    assert out == "disk_unlock parameter name/passwd NULL\n"


def test_unlock_right_password(sandbox, daemon, drives):
    drives("sdb", "1\n3\nsecret\n")
    reply, out = ask(sandbox, daemon, {"disk_unlock": {"disk_name": "sdb", "passwd": "secret"}})
    assert reply == lock_state("Unlocked")
    assert out == ""
    assert sandbox.read_text(f"{LOCK_DIR}/sdb") == "0\n3\nsecret\n"


def test_wrong_passwords_use_up_attempts(sandbox, daemon, drives):
    drives("sdb", "1\n2\nsecret\n")
    wrong = {"disk_unlock": {"disk_name": "sdb", "passwd": "guess"}}
    assert revalidate(sandbox, wrong) == lock_state("Locked")
    assert sandbox.read_text(f"{LOCK_DIR}/sdb") == "1\n1\nsecret\n"
    assert revalidate(sandbox, wrong) == lock_state("Unlocks Exceeded")
    right = {"disk_unlock": {"disk_name": "sdb", "passwd": "secret"}}
    assert revalidate(sandbox, right) == lock_state("Unlocks Exceeded")
    assert sandbox.read_text(f"{LOCK_DIR}/sdb") == "2\n0\nsecret\n"


def test_unlock_drive_without_lock_is_unlocked(sandbox, daemon, drives):
    reply = revalidate(sandbox, {"disk_unlock": {"disk_name": "sdc", "passwd": "x"}})
    assert reply == lock_state("Unlocked")


@pytest.mark.parametrize("name", ["../etc", "", "a/b"])
def test_unlock_bad_drive_name_is_error(sandbox, daemon, drives, name):
    reply = revalidate(sandbox, {"disk_unlock": {"disk_name": name, "passwd": "x"}})
    assert reply == lock_state("Error")


def test_unlock_null_arguments(sandbox, daemon, drives):
    reply, out = ask(sandbox, daemon, {"disk_unlock": None})
    assert reply == result("Invalid arguments.")
    assert out == "Input parameters are NULL.\n"


def test_unlock_arguments_not_object(sandbox, daemon, drives):
    reply, out = ask(sandbox, daemon, {"disk_unlock": "sdb"})
    assert reply == result("Invalid arguments.")
    assert out == "Unexpected json type.\n"


# safely_remove

def test_safely_remove_success(sandbox, daemon, drives):
    sandbox.stub_exit(SCRIPT, 0)
    reply = revalidate(sandbox, {"safely_remove": {"disk": "sdb"}})
    assert reply == SUCCESS
    assert sandbox.cmdlog() == [[SCRIPT, "sdb"]]


def test_safely_remove_script_exit_1_fails(sandbox, daemon, drives):
    sandbox.stub_exit(SCRIPT, 1)
    reply = revalidate(sandbox, {"safely_remove": {"disk": "sdb"}})
    assert reply == result("fail")
    assert sandbox.cmdlog() == [[SCRIPT, "sdb"]]


@pytest.mark.parametrize("args", [{}, {"disk": 1}, {"disk": None}])
def test_safely_remove_without_disk_fails(sandbox, daemon, drives, args):
    reply = revalidate(sandbox, {"safely_remove": args})
    assert reply == result("fail")
    assert sandbox.cmdlog() == []


def test_safely_remove_killed_script_fails(sandbox, daemon, drives):
    # the shell of do_system (sh -c, the script's parent) dies by a signal
    sandbox.stub(SCRIPT, 'read -r comm < /proc/$PPID/comm; [ "$comm" = sh ] && kill -9 $PPID\n'
                 "exit 3\n")
    reply, out = ask(sandbox, daemon, {"safely_remove": {"disk": "sdb"}})
    assert reply == result("fail")
    lines = out.splitlines()
    assert lines[0] == "safely remove script error"
    assert lines[1].startswith("exit illegal [") and len(lines) == 2


@pytest.mark.parametrize("disk", ["sdb;reboot", "sdb reboot", "$(reboot)", "`id`",
                                  "sdb|x", "sdb&", "sdb\nid", "a>b", "'sdb'"])
def test_safely_remove_refuses_shell_text(sandbox, daemon, drives, disk):
    reply = revalidate(sandbox, {"safely_remove": {"disk": disk}})
    assert reply == result("fail")
    assert sandbox.cmdlog() == []


def test_safely_remove_command_bound(sandbox, daemon, drives):
    # "/etc/app/gw_hd_safe_remove.sh " is 30 bytes: 33 more fill the 64-byte buffer
    fits = "s" * 33
    assert revalidate(sandbox, {"safely_remove": {"disk": fits}}) == SUCCESS
    assert revalidate(sandbox, {"safely_remove": {"disk": fits + "s"}}) == result("fail")
    assert sandbox.cmdlog() == [[SCRIPT, fits]]


def test_safely_remove_null_arguments(sandbox, daemon, drives):
    reply, out = ask(sandbox, daemon, {"safely_remove": None})
    assert reply == result("Invalid argument.")
    assert out == "Input parameter is NULL.\n"


def test_safely_remove_arguments_not_object(sandbox, daemon, drives):
    reply, out = ask(sandbox, daemon, {"safely_remove": ["sdb"]})
    assert reply == result("Invalid argument.")
    assert out == "Unexpected json type.\n"

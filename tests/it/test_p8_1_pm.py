"""Part 8.1: power management and battery, through the real daemon.

The power-management controller is the sandbox's (sim/pmcontroller.py,
reached through our libpmApi substitute): its log shows each message the
daemon sent ("21", "22 10", "23 -1", "status"); it can refuse every request
or be stopped, so that no controller answers. The battery gauge is the
sandbox's fake sysfs (set_battery); the charger test script is a stub.
"""
import re

import pytest

from helpers import revalidate, send, stdout_since, store_restore

SUCCESS = b'{ "arguments": { }, "result": "success" }'
FAIL = b'{ "arguments": { }, "result": "fail" }'
INVALID = b'{ "arguments": { }, "result": "Invalid argument." }'
CAPACITY = "/sys/class/power_supply/sp2566-0/capacity"
STATUS = "/sys/class/power_supply/sp2566-0/status"
CHARGER = "/etc/app/gw_check_charger.sh"


@pytest.fixture(scope="module")
def pm(sandbox, daemon):
    """The daemon with a controller that accepts, status 0; the stored
    sleep_timeout and the battery files are put back after each test."""
    sandbox.start_pm_controller()
    yield sandbox
    sandbox.stop_pm_controller()


@pytest.fixture
def env(pm, daemon):
    saved = pm.store_get("sysconf", "sleep_timeout")
    pm.start_pm_controller()
    pm.clear_pmc_log()
    pm.clear_cmdlog()
    yield pm
    store_restore(pm, "sysconf", "sleep_timeout", saved)
    pm.stub_exit(CHARGER, 0)
    pm.set_battery("87\n", "Discharging\n")
    pm.start_pm_controller()


def get(sandbox, daemon, *names):
    """(reply, what the daemon printed meanwhile)."""
    before = daemon.stdout()
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": list(names)}})
    return reply, stdout_since(sandbox, daemon, before)


def answer(*members):
    infos = b"{ " + b", ".join(members) + b" }" if members else b"{ }"
    return b'{ "arguments": { "confs": { }, "infos": ' + infos + b' }, "result": "success" }'


def target(sandbox, daemon, arguments):
    """(reply, what the daemon printed meanwhile)."""
    before = daemon.stdout()
    reply = revalidate(sandbox, arguments)
    return reply, stdout_since(sandbox, daemon, before)


# bat_cap, bat_charging

def test_bat_cap_with_a_newline_gives_the_number(env, daemon):
    env.set_battery("87\n", "Discharging\n")
    assert get(env, daemon, "bat_cap") == (answer(b'"bat_cap": "87"'), "")


def test_bat_cap_without_a_newline_loses_a_real_character(env, daemon):
    env.set_battery("100", "Full\n")
    assert get(env, daemon, "bat_cap") == (answer(b'"bat_cap": "10"'), "")


def test_bat_cap_reads_at_most_seven_characters_then_cuts_one(env, daemon):
    env.set_battery("123456789\n", "Full\n")
    assert get(env, daemon, "bat_cap") == (answer(b'"bat_cap": "123456"'), "")


def test_bat_charging_gives_the_first_line_without_its_newline(env, daemon):
    env.set_battery("87\n", "Charging\nsecond line\n")
    reply = get(env, daemon, "bat_charging", "bat_cap")
    assert reply == (answer(b'"bat_charging": "Charging"', b'"bat_cap": "87"'), "")


def test_bat_charging_without_a_newline_loses_a_real_character(env, daemon):
    env.set_battery("87\n", "Full")
    assert get(env, daemon, "bat_charging") == (answer(b'"bat_charging": "Ful"'), "")


def test_bat_charging_reads_at_most_31_characters_then_cuts_one(env, daemon):
    env.set_battery("87\n", "S" * 40 + "\n")
    reply = get(env, daemon, "bat_charging")
    assert reply == (answer(b'"bat_charging": "' + b"S" * 30 + b'"'), "")


def test_empty_battery_files_give_empty_strings(env, daemon):
    env.set_battery("", "")
    reply = get(env, daemon, "bat_cap", "bat_charging")
    assert reply == (answer(b'"bat_cap": ""', b'"bat_charging": ""'), "")


def test_missing_capacity_file_is_error_and_adds_nothing(env, daemon):
    env.set_battery(None, "Charging\n")
    reply = get(env, daemon, "bat_cap", "bat_charging")
    assert reply == (answer(b'"bat_charging": "Charging"'), f"Open {CAPACITY} failed.\n")


def test_missing_status_file_is_error_and_adds_nothing(env, daemon):
    env.set_battery("55\n", None)
    reply = get(env, daemon, "bat_charging", "bat_cap")
    assert reply == (answer(b'"bat_cap": "55"'), f"Open {STATUS} failed.\n")


# pmd_status

@pytest.mark.parametrize("status", [0, 5, -3, 2147483647])
def test_pmd_status_is_the_controllers_code(env, daemon, status):
    env.start_pm_controller(status=status)
    env.clear_pmc_log()
    reply = get(env, daemon, "pmd_status")
    assert reply == (answer(b'"pmd_status": "%d"' % status), "")
    assert env.pmc_log() == ["status"]


def test_pmd_status_with_a_refusing_controller_is_empty(env, daemon):
    env.start_pm_controller(refuse=True, status=7)
    env.clear_pmc_log()
    assert get(env, daemon, "pmd_status") == (answer(b'"pmd_status": ""'), "")
    assert env.pmc_log() == ["status"]


def test_pmd_status_without_a_controller_is_empty(env, daemon):
    env.stop_pm_controller()
    assert get(env, daemon, "pmd_status", "bat_cap") == (
        answer(b'"pmd_status": ""', b'"bat_cap": "87"'), "")


def test_pmd_status_with_a_controller_that_never_answers_is_empty(env, daemon):
    """libpmApi gives up after its time-out and reports failure."""
    env.start_pm_controller(hang=True)
    env.clear_pmc_log()
    assert get(env, daemon, "pmd_status") == (answer(b'"pmd_status": ""'), "")
    assert env.pmc_log() == ["status"]


# sleep_timeout item

@pytest.mark.parametrize("raw, member", [
    (b'"10"\0', b'"sleep_timeout": "10"'),
    (b"30\0", b'"sleep_timeout": 30'),
    (b'{"a": 1}\0', b'"sleep_timeout": { "a": 1 }'),
])
def test_sleep_timeout_item_keeps_the_json_value(env, daemon, raw, member):
    env.store_set("sysconf", "sleep_timeout", raw)
    assert get(env, daemon, "sleep_timeout") == (answer(member), "")


@pytest.mark.parametrize("raw", [b"ten\0", b"null\0"])
def test_sleep_timeout_item_unparsable_is_error_and_adds_nothing(env, daemon, raw):
    env.store_set("sysconf", "sleep_timeout", raw)
    assert get(env, daemon, "sleep_timeout", "bat_cap") == (answer(b'"bat_cap": "87"'), "")


def test_sleep_timeout_item_missing_adds_nothing(env, daemon):
    env.store_delete("sysconf", "sleep_timeout")
    assert get(env, daemon, "sleep_timeout", "bat_cap") == (answer(b'"bat_cap": "87"'), "")


# pmd target

def test_pmd_wakeup_sends_message_21(env, daemon):
    reply = target(env, daemon, {"pmd": {"action": "wakeup"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend auto_wakeup command success\n")
    assert env.pmc_log() == ["21"]


def test_pmd_sleep_sends_message_23_with_minus_one(env, daemon):
    reply = target(env, daemon, {"pmd": {"action": "sleep"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend immediate sleep command success\n")
    assert env.pmc_log() == ["23 -1"]


def test_pmd_sleep_refused_still_answers_success(env, daemon):
    env.start_pm_controller(refuse=True)
    env.clear_pmc_log()
    reply = target(env, daemon, {"pmd": {"action": "sleep"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend immediate sleep command fail\n")
    assert env.pmc_log() == ["23 -1"]


def test_pmd_wakeup_refused_still_answers_success(env, daemon):
    env.start_pm_controller(refuse=True)
    env.clear_pmc_log()
    reply = target(env, daemon, {"pmd": {"action": "wakeup"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend auto_wakeup command fail\n")
    assert env.pmc_log() == ["21"]


def test_pmd_without_a_controller_fails_the_send_and_answers_success(env, daemon):
    env.stop_pm_controller()
    reply = target(env, daemon, {"pmd": {"action": "sleep"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend immediate sleep command fail\n")


def test_pmd_with_a_controller_that_never_answers_fails_the_send(env, daemon):
    env.start_pm_controller(hang=True)
    env.clear_pmc_log()
    reply = target(env, daemon, {"pmd": {"action": "wakeup"}})
    assert reply == (SUCCESS, "revalidate_autowakeup\nsend auto_wakeup command fail\n")
    assert env.pmc_log() == ["21"]


@pytest.mark.parametrize("action", ["nap", "Sleep", "WAKEUP", ""])
def test_pmd_unknown_action_sends_nothing_and_answers_success(env, daemon, action):
    reply = target(env, daemon, {"pmd": {"action": action}})
    assert reply == (SUCCESS, "revalidate_autowakeup\n")
    assert env.pmc_log() == []


def test_pmd_without_action_does_nothing(env, daemon):
    assert target(env, daemon, {"pmd": {}}) == (SUCCESS, "")
    assert env.pmc_log() == []


# sleep_timeout target

@pytest.mark.parametrize("action", ["start", "restart"])
def test_sleep_timeout_target_sends_message_22_with_the_stored_value(env, daemon, action):
    env.store_set("sysconf", "sleep_timeout", b'"10"\0')
    reply = target(env, daemon, {"sleep_timeout": {"action": action}})
    assert reply == (SUCCESS, "revalidate_setSleepTimeout\nset sleep_timeout success\n")
    assert env.pmc_log() == ["22 10"]


@pytest.mark.parametrize("raw, sent", [
    (b"25\0", "22 25"),
    (b'"15min"\0', "22 15"),
    (b'"-4"\0', "22 -4"),
    (b'"abc"\0', "22 0"),
    (b'"99999999999"\0', "22 2147483647"),
    (b'"-99999999999"\0', "22 -2147483648"),
])
def test_sleep_timeout_target_converts_with_atoi(env, daemon, raw, sent):
    env.store_set("sysconf", "sleep_timeout", raw)
    reply = target(env, daemon, {"sleep_timeout": {"action": "start"}})
    assert reply == (SUCCESS, "revalidate_setSleepTimeout\nset sleep_timeout success\n")
    assert env.pmc_log() == [sent]


def test_sleep_timeout_target_refused_answers_success(env, daemon):
    env.store_set("sysconf", "sleep_timeout", b'"10"\0')
    env.start_pm_controller(refuse=True)
    env.clear_pmc_log()
    reply = target(env, daemon, {"sleep_timeout": {"action": "restart"}})
    assert reply == (SUCCESS, "revalidate_setSleepTimeout\nset sleep_timeout fail\n")
    assert env.pmc_log() == ["22 10"]


@pytest.mark.parametrize("action", ["Start", "RESTART", "stop"])
def test_sleep_timeout_target_other_case_does_nothing(env, daemon, action):
    reply = target(env, daemon, {"sleep_timeout": {"action": action}})
    assert reply == (SUCCESS, "")
    assert env.pmc_log() == []


def test_sleep_timeout_target_unparsable_value(env, daemon):
    env.store_set("sysconf", "sleep_timeout", b"ten\0")
    reply = target(env, daemon, {"sleep_timeout": {"action": "start"}})
    assert reply == (SUCCESS, "revalidate_setSleepTimeout\nFailed to parse message data\n")
    assert env.pmc_log() == []


def test_sleep_timeout_target_missing_value_is_silent(env, daemon):
    env.store_delete("sysconf", "sleep_timeout")
    reply = target(env, daemon, {"sleep_timeout": {"action": "start"}})
    assert reply == (SUCCESS, "revalidate_setSleepTimeout\n")
    assert env.pmc_log() == []


# charger_test target

@pytest.mark.parametrize("action", ["START", "start", "Restart", "restart"])
def test_charger_test_runs_the_script_in_any_case(env, daemon, action):
    reply = target(env, daemon, {"charger_test": {"action": action}})
    assert reply == (SUCCESS, "")
    assert env.cmdlog() == [[CHARGER]]


def test_charger_test_exit_1_is_fail(env, daemon):
    env.stub_exit(CHARGER, 1)
    assert target(env, daemon, {"charger_test": {"action": "start"}}) == (FAIL, "")
    assert env.cmdlog() == [[CHARGER]]


def test_charger_test_killed_by_a_signal(env, daemon):
    # do_system's "sh -c" waits for the script: the signal must end that shell.
    env.stub(CHARGER, '[ "$(cat /proc/$PPID/comm)" = sh ] && kill -9 $PPID\nkill -9 $$\n')
    reply, out = target(env, daemon, {"charger_test": {"action": "restart"}})
    assert reply == FAIL
    assert re.fullmatch(r"charger test error\nexit illegal \[\d+\] [^\n]+\n", out), out
    assert env.cmdlog() == [[CHARGER]]


@pytest.mark.parametrize("arguments", [{}, {"action": "stop"}, {"action": 1}])
def test_charger_test_without_a_start_action_is_fail(env, daemon, arguments):
    assert target(env, daemon, {"charger_test": arguments}) == (FAIL, "")
    assert env.cmdlog() == []


# common target checks

@pytest.mark.parametrize("name", ["pmd", "sleep_timeout", "charger_test"])
def test_null_target_argument_is_invalid(env, daemon, name):
    reply = target(env, daemon, {name: None})
    assert reply == (INVALID, "Input parameter is NULL.\n")
    assert env.pmc_log() == [] and env.cmdlog() == []


@pytest.mark.parametrize("name", ["pmd", "sleep_timeout", "charger_test"])
@pytest.mark.parametrize("value", ["start", 1, ["start"]])
def test_non_object_target_argument_is_invalid(env, daemon, name, value):
    reply = target(env, daemon, {name: value})
    assert reply == (INVALID, "Unexpected json type.\n")
    assert env.pmc_log() == [] and env.cmdlog() == []

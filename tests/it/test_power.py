"""Battery gauge, the power-management controller (the sandbox's logs what it got), charger test."""
import re

import pytest

from devices_util import NULL, SUCCESS, TYPE, answer, ask, result, same
from helpers import store_restore

BAT, CHARGER, ST = "/sys/class/power_supply/sp2566-0", "/etc/app/gw_check_charger.sh", ("sysconf", "sleep_timeout")
FAIL, INVALID, WAKE, SET = result("fail"), result("Invalid argument."), "revalidate_autowakeup\nsend ", "revalidate_setSleepTimeout\n"
KILLED = re.compile(r"charger test error\nexit illegal \[\d+\] [^\n]+\n")
NONE, REFUSE, HANG = None, {"refuse": True}, {"hang": True}


def r(id, req, want, out="", pmc=(), ran=0, cap="87\n", st="Discharging\n", ctl={}, sleep=b'"10"\0', rc=0):
    if isinstance(want, dict):
        want = answer(want)
    return pytest.param(req, want, out, list(pmc), [[CHARGER]] * ran, cap, st, ctl, sleep, rc, id=id)


def act(target, action):
    return {target: {"action": action}}


GAUGE, STATUS = ["bat_cap", "bat_charging"], ["pmd_status", "bat_cap"]
ROWS = [
    r("gauge-lines", GAUGE, {"bat_cap": "87", "bat_charging": "Charging"}, st="Charging\nsecond\n"),
    r("gauge-no-newline", GAUGE, {"bat_cap": "10", "bat_charging": "Ful"}, cap="100", st="Full"),
    r("gauge-long", GAUGE, {"bat_cap": "123456", "bat_charging": "S" * 30}, cap="123456789\n", st="S" * 40),
    r("gauge-empty", GAUGE, {"bat_cap": "", "bat_charging": ""}, cap="", st=""),
    r("no-capacity", GAUGE, {"bat_charging": "Full"}, f"Open {BAT}/capacity failed.\n", cap=None, st="Full\n"),
    r("no-status", GAUGE[::-1], {"bat_cap": "55"}, f"Open {BAT}/status failed.\n", cap="55\n", st=None),
    r("status", STATUS, {"pmd_status": "-3", "bat_cap": "87"}, pmc=["status"], ctl={"status": -3}),
    r("status-max", STATUS[:1], {"pmd_status": "2147483647"}, pmc=["status"], ctl={"status": 2147483647}),
    r("status-refused", STATUS[:1], {"pmd_status": ""}, pmc=["status"], ctl={"refuse": True, "status": 7}),
    r("status-hang", STATUS[:1], {"pmd_status": ""}, pmc=["status"], ctl=HANG),
    r("status-no-controller", STATUS, {"pmd_status": "", "bat_cap": "87"}, ctl=NONE),
    r("timeout-text", ["sleep_timeout"], {"sleep_timeout": "10"}),
    r("timeout-number", ["sleep_timeout"], {"sleep_timeout": 30}, sleep=b"30\0"),
    r("timeout-not-json", ["sleep_timeout", "bat_cap"], {"bat_cap": "87"}, sleep=b"ten\0"),
    r("timeout-missing", ["sleep_timeout", "bat_cap"], {"bat_cap": "87"}, sleep=None),
    r("wakeup", act("pmd", "wakeup"), SUCCESS, WAKE + "auto_wakeup command success\n", ["21"]),
    r("sleep", act("pmd", "sleep"), SUCCESS, WAKE + "immediate sleep command success\n", ["23 -1"]),
    r("sleep-refused", act("pmd", "sleep"), SUCCESS, WAKE + "immediate sleep command fail\n", ["23 -1"], ctl=REFUSE),
    r("sleep-no-controller", act("pmd", "sleep"), SUCCESS, WAKE + "immediate sleep command fail\n", ctl=NONE),
    r("wakeup-hang", act("pmd", "wakeup"), SUCCESS, WAKE + "auto_wakeup command fail\n", ["21"], ctl=HANG),
    r("pmd-other-case", act("pmd", "Sleep"), SUCCESS, WAKE[:-5]),
    r("pmd-no-action", {"pmd": {}}, SUCCESS),
    *[r(f"set-{v}", act("sleep_timeout", a), SUCCESS, SET + "set sleep_timeout success\n", [f"22 {n}"], sleep=v.encode() + b"\0")
      for a, v, n in [("start", '"10"', 10), ("restart", '"15min"', 15), ("start", "25", 25),
                      ("start", '"abc"', 0), ("start", '"99999999999"', 2147483647),
                      ("restart", '"-99999999999"', -2147483648)]],
    r("set-refused", act("sleep_timeout", "restart"), SUCCESS, SET + "set sleep_timeout fail\n", ["22 10"], ctl=REFUSE),
    r("set-other-case", act("sleep_timeout", "Start"), SUCCESS),
    r("set-not-json", act("sleep_timeout", "start"), SUCCESS, SET + "Failed to parse message data\n", sleep=b"ten\0"),
    r("set-missing", act("sleep_timeout", "start"), SUCCESS, SET, sleep=None),
    r("charger-any-case", act("charger_test", "START"), SUCCESS, ran=1),
    r("charger-exit-1", act("charger_test", "restart"), FAIL, ran=1, rc=1),
    r("charger-killed", act("charger_test", "restart"), FAIL, KILLED, ran=1, rc=None),
    r("charger-stop", act("charger_test", "stop"), FAIL),
    r("charger-no-action", {"charger_test": {}}, FAIL),
    *[r(f"{t}-null", {t: None}, INVALID, NULL) for t in ("pmd", "sleep_timeout", "charger_test")],
    *[r(f"{t}-not-object", {t: v}, INVALID, TYPE) for t, v in [("pmd", "sleep"), ("sleep_timeout", 1),
                                                                ("charger_test", ["start"])]],
]


@pytest.mark.parametrize("req, want, out, pmc, cmds, cap, st, ctl, sleep, rc", ROWS)
def test_power(sandbox, daemon, req, want, out, pmc, cmds, cap, st, ctl, sleep, rc):
    sandbox.set_battery(cap, st)
    store_restore(sandbox, *ST, sleep)
    sandbox.start_pm_controller(**ctl) if ctl is not None else sandbox.stop_pm_controller()
    if rc is None:  # the shell that waits for the script dies by a signal
        sandbox.stub(CHARGER, '[ "$(cat /proc/$PPID/comm)" = sh ] && kill -9 $PPID\nkill -9 $$\n')
    else:
        sandbox.stub_exit(CHARGER, rc)
    sandbox.clear_pmc_log()
    sandbox.clear_cmdlog()
    reply, got = ask(sandbox, daemon, None, req) if isinstance(req, list) else ask(sandbox, daemon, req)
    assert (reply, sandbox.pmc_log(), sandbox.cmdlog()) == (want, pmc, cmds) and same(got, out), got

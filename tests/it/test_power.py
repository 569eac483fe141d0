"""Battery gauge, the power-management controller (the sandbox's logs what it got), the charger test."""
import re

import pytest

from devices_util import NULL, SUCCESS as OK, TYPE, answer, ask, result
from helpers import store_restore

BAT, CHARGER, FAIL, W, T = "/sys/class/power_supply/sp2566-0/", "/etc/app/gw_check_charger.sh", result("fail"), \
    "revalidate_autowakeup\nsend ", "revalidate_setSleepTimeout\n"
G, REF, HANG = ["bat_cap", "bat_charging"], {"refuse": True}, {"hang": True}


def r(req, want, out="", pmc=(), ran=0, cap="87\n", st="Full\n", ctl={}, sleep=b'"10"\0', rc=0):
    return (req, answer(want) if isinstance(want, dict) else want, out, list(pmc), [[CHARGER]] * ran, cap, st, ctl, sleep, rc)


def a(target, action):
    return {target: {"action": action}}


ROWS = [
    r(G, {"bat_cap": "87", "bat_charging": "Charging"}, st="Charging\nsecond\n"),
    r(G, {"bat_cap": "10", "bat_charging": "Ful"}, cap="100", st="Full"), r(G, {"bat_cap": "", "bat_charging": ""}, cap="", st=""),
    r(G, {"bat_cap": "123456", "bat_charging": "S" * 30}, cap="123456789\n", st="S" * 40),
    r(G, {"bat_charging": "Full"}, f"Open {BAT}capacity failed.\n", cap=None), r(G, {"bat_cap": "87"}, f"Open {BAT}status failed.\n", st=None),
    r(["pmd_status", "bat_cap"], {"pmd_status": "-3", "bat_cap": "87"}, pmc=["status"], ctl={"status": -3}),
    r(["pmd_status"], {"pmd_status": "2147483647"}, pmc=["status"], ctl={"status": 2147483647}),
    r(["pmd_status"], {"pmd_status": ""}, pmc=["status"], ctl={"refuse": True, "status": 7}),
    r(["pmd_status"], {"pmd_status": ""}, pmc=["status"], ctl=HANG), r(["pmd_status"], {"pmd_status": ""}, ctl=None),
    r(["sleep_timeout"], {"sleep_timeout": "10"}), r(["sleep_timeout"], {"sleep_timeout": 30}, sleep=b"30\0"),
    r(["sleep_timeout", "bat_cap"], {"bat_cap": "87"}, sleep=b"ten\0"), r(["sleep_timeout"], {}, sleep=None),
    r(a("pmd", "wakeup"), OK, W + "auto_wakeup command success\n", ["21"]),
    r(a("pmd", "sleep"), OK, W + "immediate sleep command success\n", ["23 -1"]),
    r(a("pmd", "sleep"), OK, W + "immediate sleep command fail\n", ["23 -1"], ctl=REF),
    r(a("pmd", "wakeup"), OK, W + "auto_wakeup command fail\n", ["21"], ctl=HANG),
    r(a("pmd", "sleep"), OK, W + "immediate sleep command fail\n", ctl=None), r(a("pmd", "Sleep"), OK, W[:-5]), r({"pmd": {}}, OK),
    *[r(a("sleep_timeout", act), OK, T + "set sleep_timeout success\n", [f"22 {n}"], sleep=v + b"\0") for act, v, n in [
        ("start", b'"10"', 10), ("restart", b'"15min"', 15), ("start", b"25", 25), ("start", b'"abc"', 0),
        ("start", b'"99999999999"', 2147483647), ("restart", b'"-99999999999"', -2147483648)]],
    r(a("sleep_timeout", "restart"), OK, T + "set sleep_timeout fail\n", ["22 10"], ctl=REF),
    r(a("sleep_timeout", "Start"), OK), r(a("sleep_timeout", "start"), OK, T + "Failed to parse message data\n", sleep=b"ten\0"),
    r(a("sleep_timeout", "start"), OK, T, sleep=None), r(a("charger_test", "START"), OK, ran=1),
    r(a("charger_test", "restart"), FAIL, ran=1, rc=1), r(a("charger_test", "stop"), FAIL), r({"charger_test": {}}, FAIL),
    r(a("charger_test", "restart"), FAIL, re.compile(r"charger test error\nexit illegal \[\d+\] [^\n]+\n"), ran=1, rc=None),
    *[r({t: None}, result("Invalid argument."), NULL) for t in ("pmd", "sleep_timeout", "charger_test")],
    *[r({t: v}, result("Invalid argument."), TYPE) for t, v in [("pmd", "sleep"), ("sleep_timeout", 1), ("charger_test", [])]],
]


@pytest.mark.parametrize("req, want, out, pmc, cmds, cap, st, ctl, sleep, rc", ROWS)
def test_power(sandbox, daemon, req, want, out, pmc, cmds, cap, st, ctl, sleep, rc):
    sandbox.set_battery(cap, st)
    store_restore(sandbox, "sysconf", "sleep_timeout", sleep)
    sandbox.start_pm_controller(**ctl) if ctl is not None else sandbox.stop_pm_controller()
    # rc None: the shell that waits for the script dies by a signal
    sandbox.stub(CHARGER, '[ "$(cat /proc/$PPID/comm)" = sh ] && kill -9 $PPID\nkill -9 $$\n') if rc is None else \
        sandbox.stub_exit(CHARGER, rc)
    sandbox.clear_pmc_log()
    sandbox.clear_cmdlog()
    reply, _ = ask(sandbox, daemon, None, req, out) if isinstance(req, list) else ask(sandbox, daemon, req, out=out)
    assert (reply, sandbox.pmc_log(), sandbox.cmdlog()) == (want, pmc, cmds)

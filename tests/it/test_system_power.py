"""Power management, the web server, system actions and the media services: what each request runs or sends."""
import ctypes
import ctypes.util
import json
import time

import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS as OK, TYPE, answer, ask, result
from helpers import store_restore, wait_for

BAT, CHARGER, FAIL, W, T = "/sys/class/power_supply/sp2566-0/", "/etc/app/gw_check_charger.sh", result("fail"), \
    "revalidate_autowakeup\nsend ", "revalidate_setSleepTimeout\n"
G, REF = ["bat_cap", "bat_charging"], {"refuse": True}


def p(req, want, out="", pmc=(), ran=0, cap="87\n", st="Full\n", ctl={}, sleep=b'"10"\0', rc=0):
    return (req, answer(want) if isinstance(want, dict) else want, out, list(pmc), [[CHARGER]] * ran, cap, st, ctl, sleep, rc)


a = lambda target, action: {target: {"action": action}}  # noqa: E731


@pytest.mark.parametrize("req, want, out, pmc, cmds, cap, st, ctl, sleep, rc", [
    p(G, {"bat_cap": "87", "bat_charging": "Charging"}, st="Charging\nsecond\n"),
    p(G, {"bat_cap": "123456", "bat_charging": "S" * 30}, cap="123456789\n", st="S" * 40),
    p(G, {"bat_charging": "Full"}, f"Open {BAT}capacity failed.\n", cap=None),
    p(["pmd_status", "bat_cap"], {"pmd_status": "-3", "bat_cap": "87"}, pmc=["status"], ctl={"status": -3}),
    p(["pmd_status"], {"pmd_status": ""}, pmc=["status"], ctl={"refuse": True, "status": 7}),
    p(["sleep_timeout"], {"sleep_timeout": "10"}), p(["sleep_timeout"], {"sleep_timeout": 30}, sleep=b"30\0"),
    p(a("pmd", "wakeup"), OK, W + "auto_wakeup command success\n", ["21"]),
    p(a("pmd", "sleep"), OK, W + "immediate sleep command success\n", ["23 -1"]),
    p(a("pmd", "sleep"), OK, W + "immediate sleep command fail\n", ["23 -1"], ctl=REF), p(a("pmd", "Sleep"), OK, W[:-5]),
    *[p(a("sleep_timeout", act), OK, T + "set sleep_timeout success\n", [f"22 {n}"], sleep=v + b"\0") for act, v, n in [
        ("start", b'"10"', 10), ("restart", b'"15min"', 15), ("start", b'"99999999999"', 2147483647)]],
    p(a("sleep_timeout", "start"), OK, T + "Failed to parse message data\n", sleep=b"ten\0"),
    p(a("charger_test", "START"), OK, ran=1), p(a("charger_test", "restart"), FAIL, ran=1, rc=1), p(a("charger_test", "stop"), FAIL),
    p({"pmd": None}, result("Invalid argument."), NULL), p({"sleep_timeout": 1}, result("Invalid argument."), TYPE)])
def test_power(sandbox, daemon, req, want, out, pmc, cmds, cap, st, ctl, sleep, rc):
    sandbox.set_battery(cap, st)
    store_restore(sandbox, "sysconf", "sleep_timeout", sleep)
    sandbox.start_pm_controller(**ctl)
    sandbox.stub_exit(CHARGER, rc)
    sandbox.clear_pmc_log()
    sandbox.clear_cmdlog()
    reply, _ = ask(sandbox, daemon, None, req, out) if isinstance(req, list) else ask(sandbox, daemon, req, out=out)
    assert (reply, sandbox.pmc_log(), sandbox.cmdlog()) == (want, pmc, cmds)


CONF, OLD, KILL = "/etc/mini_httpd.conf", "old configuration\n", ["/usr/bin/killall", "mini_httpd"]
RUN = [KILL, ["/usr/sbin/mini_httpd", "-C", CONF]]
FIXED = "dir=/opt/web\nnochroot\nport=80\ncharset=utf-8\nlogfile=/dev/null\nuser=root\ncgipat=**.cgi\n"
SALT = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
LIBC, LIBCRYPT = ctypes.CDLL(ctypes.util.find_library("c")), ctypes.CDLL("libcrypt.so.1")
LIBC.random.restype, LIBC.srandom.argtypes = ctypes.c_long, [ctypes.c_uint]
LIBCRYPT.crypt.restype, LIBCRYPT.crypt.argtypes = ctypes.c_char_p, [ctypes.c_char_p, ctypes.c_char_p]


def salt_for(t):  # the salt comes from srandom(t)/random() for a second the request spanned
    LIBC.srandom(t)
    return (lambda v: SALT[v & 63] + SALT[(v >> 6) & 63])(LIBC.random())


START = {"action": "start"}


@pytest.mark.parametrize("name, passwd, value, want, conf, cmds, out", [  # conf: the file or a login's (name, password)
    (None, '"s"', START, OK, FIXED, RUN, ""), ('"admin"', None, {"action": "restart"}, OK, FIXED, RUN, ""),
    (None, None, {"action": "stop"}, OK, OLD, [KILL], ""), ("1234", "5678", START, OK, ("1234", "5678"), RUN, ""),
    *[('"admin"', json.dumps(p), START, OK, ("admin", p), RUN, "") for p in ["secret", "p@ss word!"]],
    ('"ad', '"x"', START, OK, OLD, [], ""), *[('"admin"', '"x"', v, OK, OLD, [], "") for v in [{}, {"action": "Start"}]],
    *[(json.dumps(n), '"x"', START, OK, OLD, [], "httpd: login name holds a newline or ':', configuration unchanged\n")
      for n in ["ad\nmin", "ad:min"]],
    (None, None, None, INVALID, OLD, [], NULL), (None, None, "start", INVALID, OLD, [], TYPE)])
def test_web_server(sandbox, daemon, name, passwd, value, want, conf, cmds, out):
    for key, text in (("httpd_auth_name", name), ("httpd_auth_passwd", passwd)):
        store_restore(sandbox, "sysconf", key, None if text is None else text.encode() + b"\0")
    sandbox.write(CONF, OLD)
    sandbox.clear_cmdlog()
    t0 = int(time.time())
    assert ask(sandbox, daemon, {"httpd": value}, out=out)[0] == want
    salts, got = {salt_for(t) for t in range(t0, int(time.time()) + 1)}, sandbox.read_text(CONF)
    if isinstance(conf, tuple):  # the password is only written hashed
        (user, password), salt = conf, got[len(FIXED) + len(conf[0]) + 10:][:2]
        conf = f"{FIXED}passport={user}:{LIBCRYPT.crypt(password.encode(), salt.encode()).decode()}\n"
        assert salt in salts and len(conf) == len(FIXED) + len(user) + 24
    assert (got, sandbox.cmdlog()) == (conf, cmds)


FWUP, FW, OFF, RESET = (f"/etc/app/{s}.sh" for s in ("gw_fwupgrade", "fw_upgrade", "gw_poweroff", "gw_factoryreset"))
MEMBERS = ["serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder"]
ALL = dict(zip(MEMBERS, ["192.168.100.10", "u-boot.bin", "uImage", "jffs2.img", "opt.img", "rootfs.squashfs", "fw/v1.2_3"]))
LONG = {m: "a" * 90 if m == "serverip" else "b" for m in MEMBERS}  # 96 characters: a command of 127


def fw(value, words, shown=None):  # the command printed (an absent part shown as '(null)') and the argv
    return "firmwareupgrade", value, OK, " ".join([FW] + (shown or words)) + " &\n", [[FW] + words]


@pytest.mark.parametrize("target, value, want, out, cmds", [
    ("fw_upgrade", START, OK, "", [[FWUP]]), ("fw_upgrade", {"action": "startv"}, OK, "", [[FWUP, "set_def"]]),
    *[("fw_upgrade", v, OK, "", []) for v in ({"action": "stop"}, {"action": 1})],
    *[(t, None, INVALID, NULL, []) for t in ("fw_upgrade", "firmwareupgrade")],
    *[(t, v, INVALID, TYPE, []) for t, v in (("fw_upgrade", "start"), ("firmwareupgrade", [START]))],
    fw({"serverip": "10.0.0.2", "kernel": "uImage"}, ["10.0.0.2", "(null)", "uImage"] + ["(null)"] * 4,
       ["10.0.0.2", "'(null)'", "uImage"] + ["'(null)'"] * 4),
    fw(dict(reversed(ALL.items())), list(ALL.values())), fw(LONG, list(LONG.values())),
    ("firmwareupgrade", dict(LONG, serverip="a" * 91), INTERNAL, "firmware upgrade: refused: the command does not fit 128 bytes\n", []),
    *[("firmwareupgrade", dict(ALL, **{m: v}), INTERNAL, "", []) for m, v in (("serverip", None), ("kernel", 1), ("opt", {"a": "b"}))],
    *[("firmwareupgrade", dict(ALL, **{m: t}), INTERNAL, f"firmware upgrade: {m} refused: empty or unsafe characters\n", [])
      for m in ("serverip", "subfolder") for t in [";", "$(reboot)", "`reboot`", "a b", "a\nb", "'", "a|b", "(null)", ""]],
    ("factorydefault", None, OK, "do factoryDefault\n", [[RESET]]), ("poweroff", [1], OK, "do poweroff\n", [[OFF]])])
def test_system_action(sandbox, daemon, target, value, want, out, cmds):
    sandbox.stub_exit(FW, 3)  # the upgrade script's status is not reported
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {target: value}, out=out)[0] == want
    # the scripts run in the background: a power-off after each request marks the end of what it ran
    assert ask(sandbox, daemon, {"poweroff": {}}, out="do poweroff\n")[0] == OK
    wait_for(lambda: len(sandbox.cmdlog()) > len(cmds) and [OFF] in sandbox.cmdlog())
    assert sorted(sandbox.cmdlog()) == sorted(cmds + [[OFF]])


def test_reboot_answers_then_tells_init(sandbox, daemon):
    sandbox.write(LOG := "/var/log/hxsim/init.log", "")
    assert ask(sandbox, daemon, {"reboot": {}}, out="")[0] == OK
    assert wait_for(lambda: sandbox.read_text(LOG) == "kill 1\n") and daemon.alive()


D, FM, USB, FREQ = "/etc/demo/", "/etc/app/gw_fm.sh", "/etc/app/gw_usbcharger.sh", ("sysconf", "fm_freq")
WD, WD_OFF, SMB, SMB_OFF, DLNA, DLNA_OFF = ([D + s + ".sh"] for s in ("webdav_start", "webdav_stop", "samba_start", "samba_stop",
                                                                    "minidlna_start", "minidlna_stop"))
ACTIONS = {"webdav": {"start": [WD], "stop": [WD_OFF], "restart": [WD_OFF, WD]},
           "samba": {"start": [SMB], "stop": [SMB_OFF], "restart": [SMB_OFF, SMB]},
           "dlna": {"start": [DLNA_OFF, DLNA], "stop": [DLNA_OFF], "restart": [DLNA_OFF, DLNA]},  # started in the background
           "fm": {"start": [[FM, "start"]], "stop": [[FM, "stop"]], "restart": [[FM, "stop"], [FM, "start"]]},
           "usbcharger": {"on": [[USB, "on"]], "off": [[USB, "off"]]}}
SET, KEEP, BAD = {"fm": {"action": "set_freq"}}, b'"87.5"\0', "Invalid FM frequency.\n"


@pytest.mark.parametrize("req, freq, want, out, cmds", [
    *[({t: {"action": a}}, KEEP, OK, "", c) for t in ACTIONS for a, c in ACTIONS[t].items()],
    *[({t: v}, KEEP, INVALID, out, []) for t in ACTIONS for v, out in ((None, NULL), ("start", TYPE))],
    *[({t: v}, KEEP, OK, "", []) for t in ACTIONS for v in ({}, {"action": "START"}, {"action": "set_freq" if t != "fm" else 1})],
    *[(SET, f + b"\0", OK, "", [[FM, "set_freq", f.strip(b'"').decode()]]) for f in (b'87.5', b'"108"', b'"76.0"')],
    (SET, None, INTERNAL, "fm_freq is not set.\n", []), (SET, b"abc\0", INTERNAL, "fm_freq is not valid JSON.\n", []),
    *[(SET, f + b"\0", INTERNAL, BAD, []) for f in (b'"87.55"', b'"75.9"', b'"108.1"', b'"87.5; reboot"', b'"$(id)"', b'""',
                                                    b'"87."', b'"1087.5"', b'true')],
    ({"usbcharger": {"action": "on"}, "samba": {"action": "restart"}, "dlna": {"action": "stop"}, **SET,
      "webdav": {"action": "start"}}, KEEP, OK, "", [[USB, "on"], SMB_OFF, SMB, DLNA_OFF, [FM, "set_freq", "87.5"], WD]),
    ({"webdav": {"action": "stop"}, **SET, "samba": {"action": "start"}}, b'"120"\0', INTERNAL, BAD, [WD_OFF])])
def test_media_request(sandbox, daemon, req, freq, want, out, cmds):
    store_restore(sandbox, *FREQ, freq)
    for argv in cmds:  # a failing script is not reported
        sandbox.stub_exit(argv[0], 1)
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, req, out=out)[0] == want
    wait_for(lambda: len(sandbox.cmdlog()) >= len(cmds))
    assert sandbox.cmdlog() == cmds
    store_restore(sandbox, *FREQ, KEEP)

"""The "lan", "wan" and "sys_event" targets: commands in order ((BG, argv) may come
any time after the entry before it), printed lines and the records they leave."""
import json
import os
import subprocess

import pytest

from helpers import revalidate, wait_for
from net_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, Run, conf, raw  # noqa: F401

STATION = {"/usr/sbin/iwpriv", "/usr/sbin/iwconfig", "/sbin/iwlist", "/usr/sbin/wpa_supplicant", "/sbin/wpa_supplicant"}
OWN = ("[SYS] ", "***** ", "Wifi: No suitable", "WiFi: Wan auto", "Input parameter", "Unexpected json")
BG, SBIN, BRCTL = "bg", "/sbin/ifconfig", "/usr/sbin/brctl"
DLNA = [["/etc/demo/minidlna_stop.sh"], (BG, ["/etc/demo/minidlna_start.sh"])]
SERVICE_STOP = [["/usr/bin/killall", "udhcpc"], [SBIN, "mlan0", "0.0.0.0"], [SBIN, "mlan0", "0.0.0.0"],
                ["/etc/app/gw_simplefw.sh", "reset"], ["/etc/app/gw_ssdpd.sh"]] + DLNA
SERVICE_START = [["/usr/bin/killall", "-9", "dnsmasq"], ["/usr/sbin/dnsmasq", "-C", "/var/tmp/dnsmasq.conf"],
                 ["/etc/app/gw_ssdpd.sh"]] + DLNA
DELIF = [[BRCTL, "delif", "br0", "mlan0"]]
MODE = {"none": "[SYS] Enter AP only mode.\n", "wireless_sta_trust": "[SYS] Enter STA only mode.\n",
        "wireless_sta": "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n",
        "wireless_sta_private": "[SYS] Enter Public Bridge (AP+STA, firewall close) mode.\n",
        "bogus": "[SYS] wan_type setting ERROR!\n"}
AUTO, NO_BSS = "WiFi: Wan auto connecting by wan_sta_ssid1\n", "Wifi: No suitable prefer BSS, stop wan auto connecting\n"
SLOTS = [f"wan_sta_{k}{i}" for i in (1, 2) for k in ("ssid", "sec", "pass", "trustmode")]
CURRENT = ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"]
CAFE, HOME = ("Cafe", "wpa2", "cafe-pass", "Station Mode"), ("Home", "wpa", "home-pass", "Public Bridge Mode")
EMPTY = ("",) * 4


def router(ifname, ip, mask, stp):
    return [[SBIN, ifname, ip, "netmask", mask], [BRCTL, "stp", ifname, stp], [BRCTL, "setfd", ifname, "0"],
            [BRCTL, "sethello", ifname, "1"], (BG, ["/usr/sbin/lan_callup.sh"])]


def slots(one, two, current=("", "", ""), copy=False):
    """Records of the slot keys (and the current hotspot); copy: moved by a store copy, its NUL inside."""
    return {**dict(zip(SLOTS, one + two)), **{k: raw(v) + b"\0" * copy for k, v in zip(CURRENT, current)}}


def udhcpc(prog, ifname, pid, script):
    return (BG, [prog, "-i", ifname, "-H", "HOST", "-p", pid, "-b", "-s", script, "-S"])


def event(action, arg=""):
    return {"action": action, "arg": arg}


# (target, value, setup, reply, commands, printed lines, records afterwards)
CASES = {
    "lan-router": ("lan", {"action": "start"}, {}, SUCCESS, router("br0", "192.168.100.1", "255.255.255.0", "off"),
                   "", {"rt:lan_if": "br0"}),
    "lan-stp": ("lan", {"action": "restart"}, {"lan_bridgestp": "on", "lan_if": "br9", "lan_ipaddr": "10.0.0.1",
                "lan_netmask": "255.0.0.0"}, SUCCESS, router("br9", "10.0.0.1", "255.0.0.0", "on"), "", {"rt:lan_if": "br9"}),
    "lan-bridge": ("lan", {"action": "start"}, {"work_mode": "bridge"}, SUCCESS,
                   [SERVICE_START[0]] + SERVICE_STOP + [[BRCTL, "addif", "br0", "mlan0"], udhcpc(
                       "/sbin/udhcpc", "br0", "/var/run/udhcpc_lan.pid", "/etc/app/gw_udhcpc_lan.script")],
                   "", {"rt:lan_if": "br0", "rt:wan_status": "WAN_DOWN"}),
    "lan-if-word": ("lan", {"action": "start"}, {"lan_if": b"br0\0"}, SUCCESS, [], "", {}),
    "wan-if-unsafe": ("wan", {"action": "stop"}, {"wan_if": "mlan0;touch /tmp/pwned"}, SUCCESS, [["/usr/bin/killall", "udhcpc"]],
                      "wan_if refused: unsafe characters\n", {}),
    "wan-stop": ("wan", {"action": "stop"}, {"rt:wan_status": "WAN_UP", "rt:wan_if": "mlan0", "rt:wan_up_time": "12"},
                 SUCCESS, SERVICE_STOP, "", {"rt:wan_status": "WAN_DOWN", "rt:wan_if": "", "rt:wan_up_time": ""}),
    "wan-restart": ("wan", {"action": "restart"}, {"wan_type": "wireless_sta"}, SUCCESS, SERVICE_STOP + DELIF,
                    MODE["wireless_sta"], {}),
    "wan-restart-tools": ("wan", {"action": "restart"}, {"whole": True, "rt:wl_tool_type": "WT", "wan_type": "wireless_sta",
                          **dict(zip(CURRENT, ("Cafe", "wpa2", "cafe-pass")))}, SUCCESS,
                          SERVICE_STOP + [["/usr/sbin/iwpriv", "mlan0", "deauth"]] + DELIF + [
                              ["/usr/sbin/iwconfig", "mlan0", "essid", "Cafe"],
                              udhcpc("/usr/sbin/udhcpc", "mlan0", "/var/run/udhcpc.pid", "/etc/app/gw_udhcpc.script")],
                          MODE["wireless_sta"] + "WiFi: Wireless Link connected.\n", {}),
    "auto-slot1-empty": ("wan", {"action": "auto"}, {**slots(EMPTY, HOME, HOME[:3]), "rt:wan_auto_retry_times": b"0\0"},
                         SUCCESS, [], NO_BSS, {**slots(EMPTY, HOME, HOME[:3]), "rt:wan_auto_retry_times": b"0\0"}),
    "auto-slot2-current": ("wan", {"action": "auto"}, {**slots(CAFE, HOME, HOME[:3]), "wan_type": "wireless_sta_private",
                           "rt:wan_auto_retry_times": b"0\0"}, SUCCESS, SERVICE_STOP + DELIF, MODE["wireless_sta_private"],
                           {**{k: raw(v) + b"\0" for k, v in zip(SLOTS, HOME + CAFE)}, **dict(zip(CURRENT, HOME)),
                            "wan_type": "wireless_sta_private", "rt:wan_auto_retry_times": b"1\0"}),
    "auto-unknown-mode": ("wan", {"action": "auto"}, {**slots(CAFE[:3] + ("Mesh Mode",), EMPTY),
                          "rt:wan_auto_retry_times": b"0\0"}, SUCCESS, SERVICE_STOP, AUTO,
                          {"wan_type": b"\0", "rt:wan_auto_retry_times": b"0\0"}),
    "auto-wan-up": ("wan", {"action": "auto"}, {**slots(CAFE, HOME, ("Other", "none", "")), "rt:wan_status": "WAN_UP",
                    "rt:wan_auto_retry_times": b"0\0"}, SUCCESS, SERVICE_STOP + DELIF, AUTO + MODE["wireless_sta_trust"], {"rt:wan_auto_retry_times": b"0\0"}),
    "dhcp-success": ("sys_event", event("SYS_EVENT_DHCP_SUCCESS", "mlan0"), {"wan_type": "wireless_sta", "ap_profile": b"[ ]\0",
                     **slots(EMPTY, EMPTY, CAFE[:3])}, SUCCESS, SERVICE_START + [["/etc/app/gw_simplefw.sh"]], "",
                     {"rt:wan_status": "WAN_UP", "rt:wifi_sta_status": "Connected",
                      **dict(zip(SLOTS, CAFE[:3] + ("Public Bridge Mode",) + EMPTY))}),
    "dhcp-success-station": ("sys_event", event("SYS_EVENT_DHCP_SUCCESS", "mlan0"), {"wan_type": "wireless_sta_trust", "rt:lan_if": "br0",
                             "ap_profile": b"[ ]\0", **slots(EMPTY, EMPTY, CAFE[:3])}, SUCCESS,
                             SERVICE_START + [["/sbin/uaputl.exe", "bss_stop"], [SBIN, "br0", "down"]], "",
                             {"wan_sta_trustmode1": "Station Mode"}),
    "dhcp-success-profiles": ("sys_event", event("SYS_EVENT_DHCP_SUCCESS", "mlan0"), {"wan_type": "wireless_sta",
                              "ap_profile": b'{ "a": 1 }\0'}, INTERNAL,
                              SERVICE_START + [["/etc/app/gw_simplefw.sh"]], "", {"rt:wan_status": "WAN_UP"}),
    "dhcp-failed": ("sys_event", event("SYS_EVENT_DHCP_FAILED"), {"rt:wifi_sta_status": "Connecting"}, SUCCESS,
                    SERVICE_STOP, "", {"rt:wifi_sta_status": "Disconnected", "rt:wan_status": "WAN_DOWN"}),
    "wifi-loaded-empty": ("sys_event", event("SYS_EVENT_WIFI_LOADED"), slots(EMPTY, EMPTY), SUCCESS, [], NO_BSS, {}),
    "wifi-loaded": ("sys_event", event("SYS_EVENT_WIFI_LOADED"), {**slots(CAFE, HOME), "rt:wan_auto_retry_times": b"0\0"},
                    SUCCESS, SERVICE_STOP + DELIF, AUTO + MODE["wireless_sta_trust"],
                    {"rt:wan_auto_retry_times": b"1\0", "wan_sta_ssid": raw("Cafe") + b"\0"}),
    "tdls-resolved": ("sys_event", event("TDLS_EVENT_RESOLVE_SUCCESS", "00:11:22:33:44:55"), {}, SUCCESS, [], "", {}),
    "sys-event-null": ("sys_event", None, {}, INVALID, [], "", {}),
    "sys-event-string": ("sys_event", "SYS_EVENT_DHCP_FAILED", {}, INVALID, [], TYPE, {}),
}
for key, value in [("lan_ipaddr", "192.168.100.1;touch /tmp/pwned"), ("lan_netmask", "255.255.255.0 $(touch /tmp/pwned)"),
                   ("lan_if", "br0|touch /tmp/pwned"), ("wan_if", "mlan0`touch /tmp/pwned`")]:
    CASES[f"unsafe-{key}"] = ("lan", {"action": "start"}, {key: value}, SUCCESS, [],
                              f"{key} refused: unsafe characters\n", {"rt:lan_if": ""})
for wan_type, line in MODE.items():
    CASES[f"wan-start-{wan_type}"] = ("wan", {"action": "start"}, {"wan_type": wan_type, "rt:wifi_sta_status": "Disconnected"},
                                      SUCCESS, DELIF, line, {"rt:wifi_sta_status": "Connecting"})
for mode, wan_type in [("Station Mode", "wireless_sta_trust"), ("Public Bridge Mode", "wireless_sta"),
                       ("Private Bridge Mode", "wireless_sta_private")]:
    one = CAFE[:3] + (mode,)
    CASES[f"auto-{wan_type}"] = ("wan", {"action": "auto"}, {**slots(one, HOME, ("Other", "none", "")),
                                 "rt:wan_auto_retry_times": b"0\0"}, SUCCESS, SERVICE_STOP + DELIF, AUTO + MODE[wan_type],
                                 {**slots(one, HOME, CAFE[:3], copy=True), "wan_type": wan_type,
                                  "rt:wan_auto_retry_times": b"1\0"})
for target, values in [("lan", ({}, {"action": "stop"}, {"action": 1})), ("wan", ({}, {"action": "reboot"}, {"action": None})),
                       ("sys_event", [event(e, "x") for e in ("SYS_EVENT_WIFI_UNLOADED", "SYS_EVENT_HD_MOUNT",
                                                              "SYS_EVENT_HD_UNMOUNT", "SYS_EVENT_OTHER", "")])]:
    for value in values:
        CASES[f"{target}-nothing-{json.dumps(value)}"] = (target, value, {}, SUCCESS, [], "", {})
for target in ("lan", "wan"):
    CASES[f"{target}-null"] = (target, None, {}, INVALID, [], NULL, {})
    CASES[f"{target}-array"] = (target, ["start"], {}, INVALID, [], TYPE, {})
for value in ({"arg": "mlan0"}, {"action": "SYS_EVENT_DHCP_FAILED"}, event("SYS_EVENT_DHCP_FAILED", 1), event(7, "mlan0")):
    CASES[f"sys-event-{json.dumps(value)}"] = ("sys_event", value, {}, INTERNAL, [], "", {})


def own_cmds(c):
    return c[0] not in STATION and not (c[0].endswith("/udhcpc") and "mlan0" in c)


def own_lines(text):
    return "".join(s for s in text.splitlines(keepends=True) if s.startswith(OWN) or "refused: unsafe" in s)


def check_cmds(cmds, expected):
    bg = [e[1] for e in expected if isinstance(e, tuple)]
    assert [c for c in cmds if c not in bg] == [e for e in expected if not isinstance(e, tuple)], cmds
    assert sorted(map(json.dumps, (c for c in cmds if c in bg))) == sorted(map(json.dumps, bg)), cmds
    for before, e in zip(expected, expected[1:]):
        if isinstance(e, tuple):
            assert cmds.index(e[1]) > cmds.index(before if isinstance(before, list) else before[1]), cmds


@pytest.mark.parametrize("target, value, setup, reply, cmds, out, after", CASES.values(), ids=CASES.keys())
def test_lan_wan_targets(daemon, sandbox, conf, target, value, setup, reply, cmds, out, after):
    setup, host = dict(setup), sandbox.run(["/bin/hostname"], check=True).stdout.decode().strip()
    whole = setup.pop("whole", False)
    # Records the request writes start out otherwise.
    conf({"rt:lan_if": "", "rt:wan_if": "", "rt:wan_status": "WAN_DOWN", "rt:wifi_sta_status": "Disconnected",
          **{k: None for k in after if k.startswith("wan_sta")}, **setup})
    sandbox.remove("/var/run/udhcpc.pid")
    cmds = [(BG, [w.replace("HOST", host) for w in c[1]]) if isinstance(c, tuple) else c for c in cmds]
    run = Run(sandbox, daemon, target, value, len(cmds), (lambda c: True) if whole else own_cmds)
    assert run.reply == reply
    check_cmds(run.cmds, cmds)
    assert (run.out if whole else own_lines(run.out)) == out
    for name, value in after.items():
        store, _, key = name.rpartition(":")
        assert sandbox.store_get({"rt": "rtconf"}.get(store, "sysconf"), key) == raw(value), name
    assert not sandbox.exists("/tmp/pwned")


@pytest.fixture
def supplicant(daemon, sandbox, conf):
    """A scripted supplicant at mlan0's control socket, the daemon attached to it."""
    fake = sandbox.popen(["/usr/bin/python3", os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakewpa.py"),
                          "/var/run/wpa_supplicant/mlan0", "/tmp/fakewpa.log"], stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, text=True)
    assert fake.stdout.readline() == "ready\n"
    conf({"rt:wl_tool_type": "WPA", "rt:lan_if": "br0"})
    assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
    yield fake
    revalidate(sandbox, {"wpa": {"action": "stop"}})
    fake.stdin.close()
    fake.wait(30)
    sandbox.remove("/var/run/wpa_supplicant/mlan0")


@pytest.mark.parametrize("text, two, current, wan_type, reason", [
    ("<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3", HOME, HOME[:3], "wireless_sta", None),
    ("<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3", EMPTY, CAFE[:3], "wireless_sta_trust", None),
    ("<3>CTRL-EVENT-SSID-NO-MATCH ", HOME, HOME[:3], "wireless_sta", b"2\0"),
], ids=["disconnected", "slot2-empty", "no-match"])
def test_armed_failure_falls_back_to_slot2(daemon, sandbox, conf, supplicant, text, two, current, wan_type, reason):
    conf({**slots(CAFE, two, CAFE[:3]), "wan_type": "wireless_sta_trust", "rt:wan_auto_retry_times": b"1\0"})
    sandbox.clear_cmdlog()
    supplicant.stdin.write(f"event {text}\n")
    supplicant.stdin.flush()
    assert supplicant.stdout.readline() == "done\n"
    wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
    moved = current != CAFE[:3]
    wait_for(lambda: (DELIF[0] if moved else [SBIN, "br0", "up"]) in sandbox.cmdlog())
    assert (DELIF[0] in sandbox.cmdlog()) == moved
    for key, value in {**slots(CAFE, two, current, copy=moved), "wan_type": wan_type}.items():
        assert sandbox.store_get("sysconf", key) == raw(value), key
    assert reason is None or sandbox.store_get("rtconf", "wifi_sta_reason") == reason

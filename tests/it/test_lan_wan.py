"""The "lan", "wan" and "sys_event" targets: commands in order ((BG, argv) may come any time after the
entry before it), the lines they print and the records they leave."""
import json

import pytest

from net_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, Run, conf, raw  # noqa: F401

STATION = {"/usr/sbin/iwpriv", "/usr/sbin/iwconfig", "/sbin/iwlist", "/usr/sbin/wpa_supplicant", "/sbin/wpa_supplicant"}  # the station's own
OWN = ("[SYS] ", "***** ", "Wifi: No suitable", "WiFi: Wan auto", "Input parameter", "Unexpected json")
BG, IFC, BRCTL = "bg", "/sbin/ifconfig", "/usr/sbin/brctl"
STOP = [["/usr/bin/killall", "udhcpc"], [IFC, "mlan0", "0.0.0.0"], [IFC, "mlan0", "0.0.0.0"], ["/etc/app/gw_simplefw.sh", "reset"],
        ["/etc/app/gw_ssdpd.sh"], ["/etc/demo/minidlna_stop.sh"], (BG, ["/etc/demo/minidlna_start.sh"])]
START = [["/usr/bin/killall", "-9", "dnsmasq"], ["/usr/sbin/dnsmasq", "-C", "/var/tmp/dnsmasq.conf"]] + STOP[4:]
DELIF, SIMPLEFW = [[BRCTL, "delif", "br0", "mlan0"]], [["/etc/app/gw_simplefw.sh"]]
MODE = {"none": "[SYS] Enter AP only mode.\n", "wireless_sta_trust": "[SYS] Enter STA only mode.\n",
        "wireless_sta": "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n",
        "wireless_sta_private": "[SYS] Enter Public Bridge (AP+STA, firewall close) mode.\n", "bogus": "[SYS] wan_type setting ERROR!\n"}
AUTO, NO_BSS = "WiFi: Wan auto connecting by wan_sta_ssid1\n", "Wifi: No suitable prefer BSS, stop wan auto connecting\n"
SLOTS, CURRENT = [f"wan_sta_{k}{i}" for i in (1, 2) for k in ("ssid", "sec", "pass", "trustmode")], ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"]
CAFE, HOME, EMPTY = ("Cafe", "wpa2", "cafe-pass", "Station Mode"), ("Home", "wpa", "home-pass", "Public Bridge Mode"), ("",) * 4
RETRY0, RETRY1, START_, RESTART, AUTO_ = {"rt:wan_auto_retry_times": b"0\0"}, {"rt:wan_auto_retry_times": b"1\0"}, {"action": "start"}, \
    {"action": "restart"}, {"action": "auto"}


def router(ifname, ip, mask, stp):
    return [[IFC, ifname, ip, "netmask", mask], [BRCTL, "stp", ifname, stp], [BRCTL, "setfd", ifname, "0"],
            [BRCTL, "sethello", ifname, "1"], (BG, ["/usr/sbin/lan_callup.sh"])]


def slots(one, two, current=("", "", ""), copy=False):
    """The slot records and the current hotspot's; copy: moved by a store copy, its NUL inside the value."""
    return {**dict(zip(SLOTS, one + two)), **{k: raw(v) + b"\0" * copy for k, v in zip(CURRENT, current)}}


def event(action, arg=""):
    return {"action": action, "arg": arg}


SUCCESS_EVENT = event("SYS_EVENT_DHCP_SUCCESS", "mlan0")
# id: (target, value, setup, reply, commands, printed lines, records afterwards)
CASES = {"lan-router": ("lan", START_, {}, SUCCESS, router("br0", "192.168.100.1", "255.255.255.0", "off"), "", {"rt:lan_if": "br0"}),
    "lan-stp": ("lan", RESTART, {"lan_bridgestp": "on", "lan_if": "br9", "lan_ipaddr": "10.0.0.1", "lan_netmask": "255.0.0.0"}, SUCCESS,
                router("br9", "10.0.0.1", "255.0.0.0", "on"), "", {"rt:lan_if": "br9"}),
    "lan-bridge": ("lan", START_, {"work_mode": "bridge"}, SUCCESS, START[:1] + STOP + [[BRCTL, "addif", "br0", "mlan0"], (BG, ["/sbin/udhcpc", "-i", "br0", "-H", "HOST", "-p", "/var/run/udhcpc_lan.pid", "-b", "-s", "/etc/app/gw_udhcpc_lan.script", "-S"])], "", {"rt:lan_if": "br0", "rt:wan_status": "WAN_DOWN"}),
    "lan-if-word": ("lan", START_, {"lan_if": b"br0\0"}, SUCCESS, [], "", {}),
    "wan-if-unsafe": ("wan", {"action": "stop"}, {"wan_if": "mlan0;touch /tmp/pwned"}, SUCCESS, STOP[:1], "wan_if refused: unsafe characters\n", {}),
    "wan-stop": ("wan", {"action": "stop"}, {"rt:wan_status": "WAN_UP", "rt:wan_if": "mlan0", "rt:wan_up_time": "12"}, SUCCESS, STOP, "",
                 {"rt:wan_status": "WAN_DOWN", "rt:wan_if": "", "rt:wan_up_time": ""}),
    "wan-restart": ("wan", RESTART, {"wan_type": "wireless_sta"}, SUCCESS, STOP + DELIF, MODE["wireless_sta"], {}),
    "auto-slot1-empty": ("wan", AUTO_, {**slots(EMPTY, HOME, HOME), **RETRY0}, SUCCESS, [], NO_BSS, {**slots(EMPTY, HOME, HOME), **RETRY0}),
    "auto-slot2-current": ("wan", AUTO_, {**slots(CAFE, HOME, HOME), "wan_type": "wireless_sta_private", **RETRY0}, SUCCESS, STOP + DELIF,
                           MODE["wireless_sta_private"], {**{k: raw(v) + b"\0" for k, v in zip(SLOTS, HOME + CAFE)}, **dict(zip(CURRENT, HOME)),
                                                          "wan_type": "wireless_sta_private", **RETRY1}),
    "auto-unknown-mode": ("wan", AUTO_, {**slots(CAFE[:3] + ("Mesh Mode",), EMPTY), **RETRY0}, SUCCESS, STOP, AUTO, {"wan_type": b"\0", **RETRY0}),
    "auto-wan-up": ("wan", AUTO_, {**slots(CAFE, HOME, ("Other", "none", "")), "rt:wan_status": "WAN_UP", **RETRY0}, SUCCESS, STOP + DELIF,
                    AUTO + MODE["wireless_sta_trust"], RETRY0),
    "dhcp-success": ("sys_event", SUCCESS_EVENT, {"wan_type": "wireless_sta", "ap_profile": b"[ ]\0", **slots(EMPTY, EMPTY, CAFE)}, SUCCESS,
                     START + SIMPLEFW, "", {"rt:wan_status": "WAN_UP", "rt:wifi_sta_status": "Connected", **dict(zip(SLOTS, CAFE[:3] + ("Public Bridge Mode",) + EMPTY))}),
    "dhcp-success-station": ("sys_event", SUCCESS_EVENT, {"wan_type": "wireless_sta_trust", "rt:lan_if": "br0", "ap_profile": b"[ ]\0",
                             **slots(EMPTY, EMPTY, CAFE)}, SUCCESS, START + [["/sbin/uaputl.exe", "bss_stop"], [IFC, "br0", "down"]], "",
                             {"wan_sta_trustmode1": "Station Mode"}),
    "dhcp-success-profiles": ("sys_event", SUCCESS_EVENT, {"wan_type": "wireless_sta", "ap_profile": b'{ "a": 1 }\0'}, INTERNAL,
                              START + SIMPLEFW, "", {"rt:wan_status": "WAN_UP"}),
    "dhcp-failed": ("sys_event", event("SYS_EVENT_DHCP_FAILED"), {"rt:wifi_sta_status": "Connecting"}, SUCCESS, STOP, "",
                    {"rt:wifi_sta_status": "Disconnected", "rt:wan_status": "WAN_DOWN"}),
    "wifi-loaded-empty": ("sys_event", event("SYS_EVENT_WIFI_LOADED"), slots(EMPTY, EMPTY), SUCCESS, [], NO_BSS, {}),
    "wifi-loaded": ("sys_event", event("SYS_EVENT_WIFI_LOADED"), {**slots(CAFE, HOME), **RETRY0}, SUCCESS, STOP + DELIF,
                    AUTO + MODE["wireless_sta_trust"], {**RETRY1, "wan_sta_ssid": raw("Cafe") + b"\0"}),
    "tdls-resolved": ("sys_event", event("TDLS_EVENT_RESOLVE_SUCCESS", "00:11:22:33:44:55"), {}, SUCCESS, [], "", {}),
    "sys-event-null": ("sys_event", None, {}, INVALID, [], "", {}), "sys-event-string": ("sys_event", "SYS_EVENT_DHCP_FAILED", {}, INVALID, [], TYPE, {}),}
CASES.update({f"unsafe-{k}": ("lan", START_, {k: v}, SUCCESS, [], f"{k} refused: unsafe characters\n", {"rt:lan_if": ""}) for k, v in [
    ("lan_ipaddr", "192.168.100.1;touch /tmp/pwned"), ("lan_netmask", "255.255.255.0 $(touch /tmp/pwned)"), ("lan_if", "br0|touch /tmp/pwned"),
    ("wan_if", "mlan0`touch /tmp/pwned`")]})
CASES.update({f"wan-start-{t}": ("wan", START_, {"wan_type": t}, SUCCESS, DELIF, line, {"rt:wifi_sta_status": "Connecting"}) for t, line in MODE.items()})
CASES.update({f"auto-{t}": ("wan", AUTO_, {**slots(CAFE[:3] + (m,), HOME, ("Other", "none", "")), **RETRY0}, SUCCESS, STOP + DELIF, AUTO + MODE[t],
                            {**slots(CAFE[:3] + (m,), HOME, CAFE, copy=True), "wan_type": t, **RETRY1}) for m, t in [
    ("Station Mode", "wireless_sta_trust"), ("Public Bridge Mode", "wireless_sta"), ("Private Bridge Mode", "wireless_sta_private")]})
CASES.update({f"{t}-nothing-{json.dumps(v)}": (t, v, {}, SUCCESS, [], "", {}) for t, values in [
    ("lan", ({}, {"action": "stop"}, {"action": 1})), ("wan", ({}, {"action": "reboot"}, {"action": None})), ("sys_event", [event(e, "x") for e in (
        "SYS_EVENT_WIFI_UNLOADED", "SYS_EVENT_HD_MOUNT", "SYS_EVENT_HD_UNMOUNT", "SYS_EVENT_OTHER", "")])] for v in values})
CASES.update({f"{t}-{json.dumps(v)}": (t, v, {}, INVALID, [], NULL if v is None else TYPE, {}) for t in ("lan", "wan") for v in (None, ["start"])})
CASES.update({f"sys-event-{json.dumps(v)}": ("sys_event", v, {}, INTERNAL, [], "", {}) for v in (
    {"arg": "mlan0"}, {"action": "SYS_EVENT_DHCP_FAILED"}, event("SYS_EVENT_DHCP_FAILED", 1), event(7, "mlan0"))})


@pytest.mark.parametrize("target, value, setup, reply, cmds, out, after", CASES.values(), ids=CASES.keys())
def test_lan_wan_targets(daemon, sandbox, conf, target, value, setup, reply, cmds, out, after):
    host = sandbox.run(["/bin/hostname"], check=True).stdout.decode().strip()
    # the records a request writes start out otherwise
    conf({"rt:lan_if": "", "rt:wan_if": "", "rt:wan_status": "WAN_DOWN", "rt:wifi_sta_status": "Disconnected", **{k: None for k in after if k.startswith("wan_sta")}, **setup})
    sandbox.remove("/var/run/udhcpc.pid")
    cmds = [(BG, [w.replace("HOST", host) for w in c[1]]) if isinstance(c, tuple) else c for c in cmds]
    run = Run(sandbox, daemon, target, value, len(cmds), lambda c: c[0] not in STATION and not (c[0].endswith("/udhcpc") and "mlan0" in c))
    bg = [e[1] for e in cmds if isinstance(e, tuple)]
    assert [c for c in run.cmds if c not in bg] == [e for e in cmds if not isinstance(e, tuple)], run.cmds
    assert sorted(map(json.dumps, (c for c in run.cmds if c in bg))) == sorted(map(json.dumps, bg)), run.cmds
    for before, e in zip(cmds, cmds[1:]):
        assert not isinstance(e, tuple) or run.cmds.index(e[1]) > run.cmds.index(before if isinstance(before, list) else before[1])
    lines = "".join(s for s in run.out.splitlines(True) if s.startswith(OWN) or "refused: unsafe" in s)
    assert (run.reply, lines) == (reply, out)
    assert {k: sandbox.store_get(*(("rtconf", k[3:]) if k[:3] == "rt:" else ("sysconf", k))) for k in after} == {k: raw(v) for k, v in after.items()}
    assert not sandbox.exists("/tmp/pwned")

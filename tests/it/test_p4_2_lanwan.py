"""Part 4.2: LAN and WAN control, through the real daemon (targets "lan",
"wan" and "sys_event").  The device programs are the sandbox's stubs, so the
command log shows what the daemon ran, in order.

Commands run in the background ("... &") log when the shell gets to them, so
each is checked to come after the command that precedes it in the spec; all
others are in exact order.  The station's own commands (Part 5.2's
wl_connect/wl_disconnect: iwpriv, iwconfig, wpa_supplicant and the station's
udhcpc on mlan0) are left out of the comparison, and so are its printed lines:
this file checks Part 4.2's commands and lines.
"""
import json

import pytest

from helpers import console_after, revalidate, stdout_since, store_restore, wait_for
from test_p5_2_sta import FakeWpa

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

SLOT_KEYS = ["wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1", "wan_sta_trustmode1",
             "wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2", "wan_sta_trustmode2"]
CURRENT_KEYS = ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"]
SYS_KEYS = (["work_mode", "lan_if", "wan_if", "lan_ipaddr", "lan_netmask", "lan_bridgestp",
             "wan_type", "wl_fw_mode", "ap_profile"] + CURRENT_KEYS + SLOT_KEYS)
RT_KEYS = ["lan_if", "wan_if", "wan_status", "wifi_sta_status", "wan_up_time", "wan_uptime",
           "wan_auto_retry_times", "wl_tool_type", "wifi_sta_reason"]
KEYS = [("sysconf", k) for k in SYS_KEYS] + [("rtconf", k) for k in RT_KEYS]

STATION_PROGRAMS = {"/usr/sbin/iwpriv", "/usr/sbin/iwconfig", "/sbin/iwlist",
                    "/usr/sbin/wpa_supplicant", "/sbin/wpa_supplicant"}
# Lines printed by Part 4.2 (and 4.1's hosts-file check, wan_get_state).
OWN_LINES = ("[SYS] ", "***** ", "Wifi: No suitable", "WiFi: Wan auto", "Input parameter",
             "Unexpected json", "uptime_start:")

BG = "bg"
DLNA = [["/etc/demo/minidlna_stop.sh"], (BG, ["/etc/demo/minidlna_start.sh"])]
SERVICE_STOP = ([["/usr/bin/killall", "udhcpc"],
                 ["/sbin/ifconfig", "mlan0", "0.0.0.0"],
                 ["/sbin/ifconfig", "mlan0", "0.0.0.0"],
                 ["/etc/app/gw_simplefw.sh", "reset"],
                 ["/etc/app/gw_ssdpd.sh"]] + DLNA)
DHCP_RESTART = [["/usr/bin/killall", "-9", "dnsmasq"],
                ["/usr/sbin/dnsmasq", "-C", "/var/tmp/dnsmasq.conf"]]
SERVICE_START = DHCP_RESTART + [["/etc/app/gw_ssdpd.sh"]] + DLNA
SIMPLEFW = [["/etc/app/gw_simplefw.sh"]]
WAN_START = [["/usr/sbin/brctl", "delif", "br0", "mlan0"]]

MODE_LINES = {
    "none": "[SYS] Enter AP only mode.\n",
    "wireless_sta_trust": "[SYS] Enter STA only mode.\n",
    "wireless_sta": "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n",
    "wireless_sta_private": "[SYS] Enter Public Bridge (AP+STA, firewall close) mode.\n",
    "bogus": "[SYS] wan_type setting ERROR!\n",
}


def jtext(value):
    """A value's JSON text as json-c renders it, with the store's NUL."""
    return json.dumps(value).replace("/", "\\/").encode() + b"\0"


def copied(value):
    """A value moved by sysConfCopy or sysConfSwap: one byte longer, its NUL
    inside the copied content (Part 3.1)."""
    return jtext(value) + b"\0"


def own_cmds(cmds):
    return [c for c in cmds if c[0] not in STATION_PROGRAMS and
            not (c[0].endswith("/udhcpc") and "mlan0" in c)]


def own_lines(text):
    return "".join(line for line in text.splitlines(keepends=True)
                   if line.startswith(OWN_LINES))


def check_cmds(cmds, expected):
    """cmds equals expected, where a (BG, argv) entry may come anywhere after
    the entry before it; all other entries are in exact order."""
    bg = [e[1] for e in expected if isinstance(e, tuple)]
    plain = [e for e in expected if not isinstance(e, tuple)]
    assert [c for c in cmds if c not in bg] == plain, cmds
    assert sorted(json.dumps(c) for c in cmds if c in bg) == sorted(map(json.dumps, bg)), cmds
    for i, e in enumerate(expected):
        if isinstance(e, tuple) and i > 0:
            before = expected[i - 1]
            assert cmds.index(e[1]) > cmds.index(before), cmds


@pytest.fixture
def lw(daemon, sandbox):
    """Every key this Part touches comes back after the test; the stubs are
    plain, the command log is empty, no DHCP client pid file."""
    saved = [(store, key, sandbox.store_get(store, key)) for store, key in KEYS]
    sandbox.remove("/var/run/udhcpc.pid")
    sandbox.clear_cmdlog()
    yield
    for store, key, raw in saved:
        store_restore(sandbox, store, key, raw)
    sandbox.remove("/var/run/udhcpc.pid")


def put(sandbox, key, value, store="sysconf"):
    sandbox.store_set(store, key, value if isinstance(value, bytes) else jtext(value))


class Run:
    """One revalidate request: its reply, Part 4.2's printed lines and commands
    (waiting for `count` of them, background ones included)."""

    def __init__(self, sandbox, daemon, target, value, count=0):
        before = daemon.stdout()
        console = sandbox.console()
        self.daemon, self.err0 = daemon, daemon.stderr()
        self.reply = revalidate(sandbox, {target: value})
        self.all_out = stdout_since(sandbox, daemon, before)
        self.out = own_lines(self.all_out)
        wait_for(lambda: len(own_cmds(sandbox.cmdlog())) >= count)
        self.cmds = own_cmds(sandbox.cmdlog())
        assert console_after(sandbox, console) == ""

    def warned(self, text):
        """The daemon's standard error since the request is exactly text
        (waited for: the reader of that pipe may lag)."""
        wait_for(lambda: self.daemon.stderr()[len(self.err0):].startswith(text))
        assert self.daemon.stderr()[len(self.err0):] == text


def hostname(sandbox):
    return sandbox.run(["/bin/hostname"], check=True).stdout.decode().strip()


# "lan"


def test_lan_start_router_mode(lw, daemon, sandbox):
    run = Run(sandbox, daemon, "lan", {"action": "start"}, 5)
    assert run.reply == SUCCESS
    check_cmds(run.cmds, [["/sbin/ifconfig", "br0", "192.168.100.1", "netmask", "255.255.255.0"],
                          ["/usr/sbin/brctl", "stp", "br0", "off"],
                          ["/usr/sbin/brctl", "setfd", "br0", "0"],
                          ["/usr/sbin/brctl", "sethello", "br0", "1"],
                          (BG, ["/usr/sbin/lan_callup.sh"])])
    assert sandbox.store_get("rtconf", "lan_if") == b'"br0"\0'
    assert run.out == ""


def test_lan_restart_router_mode_with_spanning_tree(lw, daemon, sandbox):
    put(sandbox, "lan_bridgestp", "on")
    put(sandbox, "lan_if", "br9")
    put(sandbox, "lan_ipaddr", "10.0.0.1")
    put(sandbox, "lan_netmask", "255.0.0.0")
    run = Run(sandbox, daemon, "lan", {"action": "restart"}, 5)
    assert run.reply == SUCCESS
    check_cmds(run.cmds, [["/sbin/ifconfig", "br9", "10.0.0.1", "netmask", "255.0.0.0"],
                          ["/usr/sbin/brctl", "stp", "br9", "on"],
                          ["/usr/sbin/brctl", "setfd", "br9", "0"],
                          ["/usr/sbin/brctl", "sethello", "br9", "1"],
                          (BG, ["/usr/sbin/lan_callup.sh"])])
    assert sandbox.store_get("rtconf", "lan_if") == b'"br9"\0'


def test_lan_router_command_has_trailing_blank(lw, daemon, sandbox):
    """The whole command line as the shell got it: a stub that prints "$*"
    cannot show a trailing blank, so the ifconfig stub records its last
    argument's count instead: 5 words, the trailing blank adds none."""
    sandbox.stub("/sbin/ifconfig", 'echo "$#" > /var/tmp/ifconfig_argc\n')
    try:
        run = Run(sandbox, daemon, "lan", {"action": "start"}, 5)
        assert run.reply == SUCCESS
        assert sandbox.read_text("/var/tmp/ifconfig_argc") == "4\n"
    finally:
        sandbox.stub("/sbin/ifconfig", "exit 0\n")
        sandbox.remove("/var/tmp/ifconfig_argc")


def test_lan_start_bridge_mode(lw, daemon, sandbox):
    put(sandbox, "work_mode", "bridge")
    expected = ([["/usr/bin/killall", "-9", "dnsmasq"]] + SERVICE_STOP +
                [["/usr/sbin/brctl", "addif", "br0", "mlan0"],
                 (BG, ["/sbin/udhcpc", "-i", "br0", "-H", hostname(sandbox), "-p",
                       "/var/run/udhcpc_lan.pid", "-b", "-s",
                       "/etc/app/gw_udhcpc_lan.script", "-S"])])
    run = Run(sandbox, daemon, "lan", {"action": "start"}, len(expected))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, expected)
    assert sandbox.store_get("rtconf", "lan_if") == b'"br0"\0'
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_DOWN"\0'
    assert not sandbox.exists("/var/tmp/dnsmasq.conf")


def test_lan_unparsable_lan_if_runs_nothing(lw, daemon, sandbox):
    put(sandbox, "lan_if", b"br0\0")
    run = Run(sandbox, daemon, "lan", {"action": "start"})
    assert run.reply == SUCCESS
    assert run.cmds == []


@pytest.mark.parametrize("key,value", [
    ("lan_ipaddr", "192.168.100.1;touch /tmp/pwned"),
    ("lan_netmask", "255.255.255.0 $(touch /tmp/pwned)"),
    ("lan_if", "br0|touch /tmp/pwned"),
    ("wan_if", "mlan0`touch /tmp/pwned`"),
])
def test_lan_unsafe_stored_word_is_refused(lw, daemon, sandbox, key, value):
    """Safety (README deviations, 4.2): a stored interface name or address
    that reaches the shell unquoted runs nothing when it holds a character
    the shell interprets; the lan target still answers success."""
    put(sandbox, key, value)
    run = Run(sandbox, daemon, "lan", {"action": "start"})
    assert (run.reply, run.cmds) == (SUCCESS, [])
    assert run.all_out == f"{key} refused: unsafe characters\n"
    assert not sandbox.exists("/tmp/pwned")
    assert sandbox.store_get("rtconf", "lan_if") == b'"br0"\0'


def test_wan_stop_unsafe_wan_if_runs_no_ifconfig(lw, daemon, sandbox):
    put(sandbox, "wan_if", "mlan0;touch /tmp/pwned")
    run = Run(sandbox, daemon, "wan", {"action": "stop"}, 1)
    assert run.reply == SUCCESS
    assert "wan_if refused: unsafe characters\n" in run.all_out
    assert not any(c[:1] == ["/sbin/ifconfig"] or c[:2] == [BG, ["/sbin/ifconfig"]]
                   for c in run.cmds)
    assert not sandbox.exists("/tmp/pwned")


@pytest.mark.parametrize("value", [{}, {"action": "stop"}, {"action": 1}])
def test_lan_other_actions_do_nothing(lw, daemon, sandbox, value):
    run = Run(sandbox, daemon, "lan", value)
    assert (run.reply, run.cmds, run.all_out) == (SUCCESS, [], "")


@pytest.mark.parametrize("target", ["lan", "wan"])
def test_null_argument(lw, daemon, sandbox, target):
    run = Run(sandbox, daemon, target, None)
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "Input parameter is NULL.\n")


@pytest.mark.parametrize("target", ["lan", "wan"])
def test_non_object_argument(lw, daemon, sandbox, target):
    run = Run(sandbox, daemon, target, ["start"])
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "Unexpected json type.\n")


# "wan"


@pytest.mark.parametrize("wan_type", sorted(MODE_LINES))
def test_wan_start_prints_the_mode(lw, daemon, sandbox, wan_type):
    put(sandbox, "wan_type", wan_type)
    put(sandbox, "wifi_sta_status", "Disconnected", "rtconf")
    run = Run(sandbox, daemon, "wan", {"action": "start"}, 1)
    assert run.reply == SUCCESS
    assert run.cmds == [["/usr/sbin/brctl", "delif", "br0", "mlan0"]]
    assert run.out == MODE_LINES[wan_type]
    assert sandbox.store_get("rtconf", "wifi_sta_status") == b'"Connecting"\0'


def test_wan_stop(lw, daemon, sandbox):
    put(sandbox, "wan_status", "WAN_UP", "rtconf")
    put(sandbox, "wan_if", "mlan0", "rtconf")
    put(sandbox, "wan_up_time", "12", "rtconf")
    run = Run(sandbox, daemon, "wan", {"action": "stop"}, len(SERVICE_STOP))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, SERVICE_STOP)
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_DOWN"\0'
    assert sandbox.store_get("rtconf", "wan_if") == b'""\0'
    assert sandbox.store_get("rtconf", "wan_up_time") == b'""\0'
    assert run.out == ""


def test_wan_restart_is_stop_then_start(lw, daemon, sandbox):
    put(sandbox, "wan_type", "wireless_sta")
    expected = SERVICE_STOP + WAN_START
    run = Run(sandbox, daemon, "wan", {"action": "restart"}, len(expected))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, expected)
    assert run.out == MODE_LINES["wireless_sta"]


def test_wan_restart_whole_command_log_with_wireless_tools(lw, daemon, sandbox):
    """With "wl_tool_type" "WT" Part 5.2's wl_disconnect and wl_connect run
    the wireless tools: the whole log, theirs included."""
    put(sandbox, "wl_tool_type", "WT", "rtconf")
    put(sandbox, "wan_type", "wireless_sta")
    for key, value in zip(CURRENT_KEYS, ("Cafe", "wpa2", "cafe-pass")):
        put(sandbox, key, value)
    expected = SERVICE_STOP + [["/usr/sbin/iwpriv", "mlan0", "deauth"]] + WAN_START + [
        ["/usr/sbin/iwconfig", "mlan0", "essid", "Cafe"],
        (BG, ["/usr/sbin/udhcpc", "-i", "mlan0", "-H", hostname(sandbox), "-p",
              "/var/run/udhcpc.pid", "-b", "-s", "/etc/app/gw_udhcpc.script", "-S"])]
    before = daemon.stdout()
    assert revalidate(sandbox, {"wan": {"action": "restart"}}) == SUCCESS
    out = stdout_since(sandbox, daemon, before)
    wait_for(lambda: len(sandbox.cmdlog()) >= len(expected))
    check_cmds(sandbox.cmdlog(), expected)
    assert out == MODE_LINES["wireless_sta"] + "WiFi: Wireless Link connected.\n"


@pytest.mark.parametrize("value", [{}, {"action": "reboot"}, {"action": None}])
def test_wan_other_actions_do_nothing(lw, daemon, sandbox, value):
    run = Run(sandbox, daemon, "wan", value)
    assert (run.reply, run.cmds, run.all_out) == (SUCCESS, [], "")


# wan_auto


def set_slots(sandbox, slot1, slot2, current=None):
    """Each slot (ssid, sec, pass, trustmode) or None for an empty slot."""
    for i, slot in enumerate((slot1, slot2)):
        for key, value in zip(SLOT_KEYS[4 * i:4 * i + 4], slot or ("", "", "", "")):
            put(sandbox, key, value)
    for key, value in zip(CURRENT_KEYS, current or ("", "", "")):
        put(sandbox, key, value)


def store_bytes(sandbox, keys):
    return [sandbox.store_get("sysconf", k) for k in keys]


CAFE = ("Cafe", "wpa2", "cafe-pass", "Station Mode")
HOME = ("Home", "wpa", "home-pass", "Public Bridge Mode")


def test_wan_auto_slot1_empty_changes_nothing(lw, daemon, sandbox):
    set_slots(sandbox, None, HOME, ("Home", "wpa", "home-pass"))
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    before = store_bytes(sandbox, SYS_KEYS)
    run = Run(sandbox, daemon, "wan", {"action": "auto"})
    assert run.reply == SUCCESS
    assert run.all_out == "Wifi: No suitable prefer BSS, stop wan auto connecting\n"
    assert run.cmds == []
    assert store_bytes(sandbox, SYS_KEYS) == before
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0"


def test_wan_auto_slot2_current_swaps_and_restarts(lw, daemon, sandbox):
    set_slots(sandbox, CAFE, HOME, ("Home", "wpa", "home-pass"))
    put(sandbox, "wan_type", "wireless_sta_private")
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    expected = SERVICE_STOP + WAN_START
    run = Run(sandbox, daemon, "wan", {"action": "auto"}, len(expected))
    assert run.reply == SUCCESS
    assert ["/usr/sbin/brctl", "delif", "br0", "mlan0"] in run.cmds
    assert store_bytes(sandbox, SLOT_KEYS) == [copied(v) for v in HOME + CAFE]
    assert store_bytes(sandbox, CURRENT_KEYS) == [jtext(v) for v in ("Home", "wpa", "home-pass")]
    assert sandbox.store_get("sysconf", "wan_type") == b'"wireless_sta_private"\0'
    assert run.out == MODE_LINES["wireless_sta_private"]
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"1\0"


@pytest.mark.parametrize("mode,wan_type", [
    ("Station Mode", b'"wireless_sta_trust"\0'),
    ("Public Bridge Mode", b'"wireless_sta"\0'),
    ("Private Bridge Mode", b'"wireless_sta_private"\0'),
])
def test_wan_auto_uses_slot1(lw, daemon, sandbox, mode, wan_type):
    set_slots(sandbox, ("Cafe", "wpa2", "cafe-pass", mode), HOME, ("Other", "none", ""))
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    expected = SERVICE_STOP + WAN_START
    run = Run(sandbox, daemon, "wan", {"action": "auto"}, len(expected))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, expected)
    assert store_bytes(sandbox, CURRENT_KEYS) == [copied(v) for v in ("Cafe", "wpa2", "cafe-pass")]
    assert store_bytes(sandbox, SLOT_KEYS) == [jtext(v) for v in
                                               ("Cafe", "wpa2", "cafe-pass", mode) + HOME]
    assert sandbox.store_get("sysconf", "wan_type") == wan_type
    name = json.loads(wan_type[:-1])
    assert run.out == "WiFi: Wan auto connecting by wan_sta_ssid1\n" + MODE_LINES[name]
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"1\0"


def test_wan_auto_unknown_trustmode_stores_empty_wan_type(lw, daemon, sandbox):
    set_slots(sandbox, ("Cafe", "wpa2", "cafe-pass", "Mesh Mode"), None)
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    run = Run(sandbox, daemon, "wan", {"action": "auto"}, len(SERVICE_STOP))
    assert run.reply == SUCCESS
    assert sandbox.store_get("sysconf", "wan_type") == b"\0"
    # Without a wan_type wan_start ends before its brctl command.
    assert run.out == "WiFi: Wan auto connecting by wan_sta_ssid1\n"
    assert ["/usr/sbin/brctl", "delif", "br0", "mlan0"] not in run.cmds
    # Slot 2 is empty: nothing to fall back to, so not armed.
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0"


def test_wan_auto_does_not_arm_while_the_wan_is_up(lw, daemon, sandbox):
    set_slots(sandbox, CAFE, HOME, ("Other", "none", ""))
    put(sandbox, "wan_status", "WAN_UP", "rtconf")
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    run = Run(sandbox, daemon, "wan", {"action": "auto"}, len(SERVICE_STOP) + 1)
    assert run.reply == SUCCESS
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0"


# "sys_event"


def test_dhcp_success_starts_services_and_remembers_the_hotspot(lw, daemon, sandbox):
    put(sandbox, "wan_type", "wireless_sta")
    set_slots(sandbox, None, None, ("Cafe", "wpa2", "cafe-pass"))
    put(sandbox, "ap_profile", b"[ ]\0")
    expected = SERVICE_START + SIMPLEFW
    run = Run(sandbox, daemon, "sys_event",
              {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}, len(expected))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, expected)
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_UP"\0'
    assert sandbox.store_get("rtconf", "wifi_sta_status") == b'"Connected"\0'
    assert store_bytes(sandbox, SLOT_KEYS) == [jtext(v) for v in
                                               ("Cafe", "wpa2", "cafe-pass", "Public Bridge Mode",
                                                "", "", "", "")]


def test_dhcp_success_station_only_stops_the_access_point(lw, daemon, sandbox):
    put(sandbox, "wan_type", "wireless_sta_trust")
    set_slots(sandbox, None, None, ("Cafe", "wpa2", "cafe-pass"))
    put(sandbox, "ap_profile", b"[ ]\0")
    run = Run(sandbox, daemon, "sys_event",
              {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}, len(SERVICE_START) + 1)
    assert run.reply == SUCCESS
    # No simple firewall; the AP is stopped (Part 5.3's commands) and br0 taken down last.
    assert ["/etc/app/gw_simplefw.sh"] not in run.cmds
    wait_for(lambda: ["/sbin/ifconfig", "br0", "down"] in own_cmds(sandbox.cmdlog()))
    cmds = own_cmds(sandbox.cmdlog())
    fg = [c for c in cmds if c != ["/etc/demo/minidlna_start.sh"]]
    assert fg[:len(SERVICE_START) - 1] == [e for e in SERVICE_START if not isinstance(e, tuple)]
    assert fg[-1] == ["/sbin/ifconfig", "br0", "down"]
    assert store_bytes(sandbox, SLOT_KEYS)[3] == jtext("Station Mode")


def test_dhcp_success_with_broken_profiles_is_internal_error(lw, daemon, sandbox):
    put(sandbox, "wan_type", "wireless_sta")
    put(sandbox, "ap_profile", b'{ "a": 1 }\0')
    run = Run(sandbox, daemon, "sys_event",
              {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}, len(SERVICE_START) + 1)
    assert run.reply == INTERNAL
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_UP"\0'


def test_dhcp_failed_stops_services(lw, daemon, sandbox):
    put(sandbox, "wifi_sta_status", "Connecting", "rtconf")
    run = Run(sandbox, daemon, "sys_event",
              {"action": "SYS_EVENT_DHCP_FAILED", "arg": ""}, len(SERVICE_STOP))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, SERVICE_STOP)
    assert sandbox.store_get("rtconf", "wifi_sta_status") == b'"Disconnected"\0'
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_DOWN"\0'


def test_wifi_loaded_runs_wan_auto(lw, daemon, sandbox):
    set_slots(sandbox, None, None)
    run = Run(sandbox, daemon, "sys_event", {"action": "SYS_EVENT_WIFI_LOADED", "arg": ""})
    assert run.reply == SUCCESS
    assert run.all_out == "Wifi: No suitable prefer BSS, stop wan auto connecting\n"
    assert run.cmds == []


def test_wifi_loaded_with_slots_connects_slot1_and_arms_the_fallback(lw, daemon, sandbox):
    """The issue's flow: at load wan_auto joins slot 1 and arms the one
    fall-back to slot 2 (rtconf "wan_auto_retry_times" "1")."""
    set_slots(sandbox, CAFE, HOME)
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    run = Run(sandbox, daemon, "sys_event", {"action": "SYS_EVENT_WIFI_LOADED", "arg": ""},
              len(SERVICE_STOP) + 1)
    assert run.reply == SUCCESS
    assert run.out == ("WiFi: Wan auto connecting by wan_sta_ssid1\n" +
                       MODE_LINES["wireless_sta_trust"])
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"1\0"
    assert sandbox.store_get("sysconf", "wan_sta_ssid") == copied("Cafe")


@pytest.mark.parametrize("event", ["SYS_EVENT_WIFI_UNLOADED", "SYS_EVENT_HD_MOUNT",
                                   "SYS_EVENT_HD_UNMOUNT", "SYS_EVENT_OTHER", ""])
def test_events_that_do_nothing(lw, daemon, sandbox, event):
    run = Run(sandbox, daemon, "sys_event", {"action": event, "arg": "x"})
    assert (run.reply, run.cmds, run.all_out) == (SUCCESS, [], "")


def test_tdls_resolve_success_answers_success(lw, daemon, sandbox):
    run = Run(sandbox, daemon, "sys_event",
              {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": "00:11:22:33:44:55"})
    assert run.reply == SUCCESS
    assert run.cmds == []


def test_sys_event_null_is_invalid_without_a_line(lw, daemon, sandbox):
    run = Run(sandbox, daemon, "sys_event", None)
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "")


def test_sys_event_non_object_is_invalid(lw, daemon, sandbox):
    run = Run(sandbox, daemon, "sys_event", "SYS_EVENT_DHCP_FAILED")
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "Unexpected json type.\n")


@pytest.mark.parametrize("value", [
    {"arg": "mlan0"},
    {"action": "SYS_EVENT_DHCP_FAILED"},
    {"action": "SYS_EVENT_DHCP_FAILED", "arg": 1},
    {"action": 7, "arg": "mlan0"},
])
def test_sys_event_missing_action_or_arg_is_internal_error(lw, daemon, sandbox, value):
    run = Run(sandbox, daemon, "sys_event", value)
    assert (run.reply, run.cmds, run.all_out) == (INTERNAL, [], "")


# wan_get_state


def test_private_bridge_reports_down_even_with_an_address(lw, daemon, sandbox):
    """wan_get_state is 1 for "wireless_sta_private", so the s_waninfo item
    says "Disconnected" although mlan0 holds an address."""
    put(sandbox, "wan_type", "wireless_sta_private")
    put(sandbox, "wan_if", "mlan0", "rtconf")
    sandbox.run(["ip", "addr", "add", "10.1.2.3/24", "dev", "mlan0"], check=True)
    try:
        before = daemon.stdout()
        reply = json.loads(sandbox.request(json.dumps(
            {"method": "pref-get", "arguments": {"infos": ["s_waninfo"]}}).encode()))
        out = stdout_since(sandbox, daemon, before)
    finally:
        sandbox.run(["ip", "-4", "addr", "flush", "dev", "mlan0"], check=True)
    assert reply["arguments"]["infos"]["s_waninfo"]["state"] == "Disconnected"
    assert own_lines(out) == "***** what? *****\n"


# wan_auto_retry_handler, reached through Part 5.2's supplicant events

@pytest.fixture
def supplicant(lw, daemon, sandbox):
    """The fake supplicant (tests/it/fakewpa.py, driven through Part 5.2's
    test helper) at mlan0's control socket, with the daemon attached to it
    (target "wpa") and detached afterwards."""
    fake = FakeWpa(sandbox)
    try:
        put(sandbox, "wl_tool_type", "WPA", "rtconf")
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        yield fake
    finally:
        revalidate(sandbox, {"wpa": {"action": "stop"}})
        fake.stop()


def post_event(fake, text):
    fake.send("event " + text)


def test_disconnection_while_armed_falls_back_to_slot2(supplicant, daemon, sandbox):
    set_slots(sandbox, CAFE, HOME, ("Cafe", "wpa2", "cafe-pass"))
    put(sandbox, "wan_type", "wireless_sta_trust")
    put(sandbox, "wan_auto_retry_times", b"1\0", "rtconf")
    sandbox.clear_cmdlog()
    post_event(supplicant, "<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3")
    wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
    assert store_bytes(sandbox, CURRENT_KEYS) == [copied(v) for v in HOME[:3]]
    assert sandbox.store_get("sysconf", "wan_type") == b'"wireless_sta"\0'
    assert store_bytes(sandbox, SLOT_KEYS) == [jtext(v) for v in CAFE + HOME]
    wait_for(lambda: ["/usr/sbin/brctl", "delif", "br0", "mlan0"] in sandbox.cmdlog())


def test_disconnection_while_armed_with_empty_slot2_only_disarms(supplicant, daemon, sandbox):
    set_slots(sandbox, CAFE, None, ("Cafe", "wpa2", "cafe-pass"))
    put(sandbox, "wan_type", "wireless_sta_trust")
    put(sandbox, "wan_auto_retry_times", b"1\0", "rtconf")
    before = store_bytes(sandbox, SYS_KEYS)
    sandbox.clear_cmdlog()
    post_event(supplicant, "<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3")
    wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
    assert store_bytes(sandbox, SYS_KEYS) == before
    assert ["/usr/sbin/brctl", "delif", "br0", "mlan0"] not in sandbox.cmdlog()
    # ctrl_interface(lan_if, 1) ran before the handler (Part 5.2's order).
    assert ["/sbin/ifconfig", "br0", "up"] in sandbox.cmdlog()


def test_wan_auto_then_disconnection_falls_back_once(supplicant, daemon, sandbox):
    """The issue's flow on the device, nobody else arming: slot 1 is joined
    at load, the hotspot cannot be found, slot 2 is joined; a second failure
    does not switch again."""
    set_slots(sandbox, CAFE, HOME)
    put(sandbox, "wan_auto_retry_times", b"0\0", "rtconf")
    run = Run(sandbox, daemon, "sys_event", {"action": "SYS_EVENT_WIFI_LOADED", "arg": ""},
              len(SERVICE_STOP) + 1)
    assert run.reply == SUCCESS
    assert sandbox.store_get("sysconf", "wan_sta_ssid") == copied("Cafe")
    assert sandbox.store_get("rtconf", "wan_auto_retry_times") == b"1\0"
    post_event(supplicant, "<3>CTRL-EVENT-SSID-NO-MATCH ")
    wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
    assert sandbox.store_get("sysconf", "wan_sta_ssid") == copied("Home")
    assert sandbox.store_get("sysconf", "wan_type") == b'"wireless_sta"\0'
    assert sandbox.store_get("rtconf", "wifi_sta_reason") == b"2\0"

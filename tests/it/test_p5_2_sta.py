"""Part 5.2: station mode, through the real daemon.  Connect and disconnect
are reached through Part 4.2's "wan" target (`wan_start` calls `wl_connect`,
`wan_stop` calls `wl_disconnect`).  The wpa_supplicant tool chain talks to a
scripted fake control interface (tests/it/fakewpa.py) for the exact requests
and for the events that Debian's wpa_supplicant cannot be made to send on the
sandbox's ifb mlan0; every generated "/etc/wpa_supplicant.conf" is also loaded
by the real wpa_supplicant (wired driver), and the "wpa" target starts the
real one.  The wireless-tools chain runs the iwpriv/iwconfig stubs.
"""
import ast
import json
import os
import subprocess

import pytest

from helpers import revalidate, stdout_since, store_restore, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

CONF = "/etc/wpa_supplicant.conf"
WPA_SOCKET = "/var/run/wpa_supplicant/mlan0"
WPA_PID = "/var/run/wpa_supplicant.pid"
WPA_LOG = "/tmp/fakewpa.log"
FAKEWPA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakewpa.py")

HEAD = ("update_config=1\n"
        "ctrl_interface=/var/run/wpa_supplicant\n"
        "ap_scan=1\n"
        "ctrl_interface_group=0\n"
        "bss_expiration_age=600\n"
        "\n"
        "network={\n")
UPDATED = "WiFi: wifi_sta_reconfig, Configuration file updated successfully\n"
BRIDGE = "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n"
NO_TOOL = "WiFi: Error, Wireless tool type is none\n"
WPA_FAILED = "WiFi: Do STA connect by wpa_supplicant failed\n"


def record(value):
    return json.dumps(value).encode() + b"\0"


def wpa_block(ssid, psk):
    return HEAD + f'\tssid="{ssid}"\n\tkey_mgmt=WPA-PSK\n\tpsk="{psk}"\n\tscan_ssid=1\n}}\n'


def open_block(ssid):
    return HEAD + f'\tssid="{ssid}"\n\tkey_mgmt=NONE\n\tscan_ssid=1\n}}\n'


def wep_block(ssid, key):
    return HEAD + (f'\tssid="{ssid}"\n\tkey_mgmt=NONE\n\tauth_alg=OPEN SHARED\n'
                   f'\twep_key0="{key}"\n\twep_tx_keyidx=0\n\tscan_ssid=1\n}}\n')


class FakeWpa:
    """fakewpa.py bound at the supplicant's control socket of mlan0."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.write(WPA_LOG, b"")
        self.proc = sandbox.popen(["/usr/bin/python3", FAKEWPA, WPA_SOCKET, WPA_LOG],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.proc.stdout.readline() == "ready\n"

    def send(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        assert self.proc.stdout.readline() == "done\n"

    def commands(self):
        """The requests received, in order, without ATTACH/DETACH/PING."""
        cmds = [ast.literal_eval(line.split(" ", 1)[1])
                for line in self.sandbox.read_text(WPA_LOG).splitlines()]
        return [c for c in cmds if c not in ("ATTACH", "DETACH", "PING")]

    def stop(self):
        if self.proc.poll() is None:
            self.proc.stdin.close()
            self.proc.wait(timeout=30)
        self.sandbox.remove(WPA_SOCKET)


@pytest.fixture
def conf(daemon, sandbox):
    """conf(key, value[, store]) sets a store value (None deletes it, bytes
    are stored raw); every value is put back after the test."""
    saved = []

    def put(key, value, store="sysconf"):
        saved.append((store, key, sandbox.store_get(store, key)))
        if value is None:
            sandbox.store_delete(store, key)
        else:
            sandbox.store_set(store, key, value if isinstance(value, bytes) else record(value))
    yield put
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)


@pytest.fixture
def hotspot(conf):
    """hotspot(sec, ssid, pass[, tool]): the current hotspot, a station WAN
    type and the tool type."""
    def put(sec, ssid, password, tool="WPA"):
        conf("wan_type", "wireless_sta")
        conf("wl_tool_type", tool, store="rtconf")
        for key, value in (("wan_sta_sec", sec), ("wan_sta_ssid", ssid),
                           ("wan_sta_pass", password)):
            conf(key, value)
    return put


@pytest.fixture
def fakewpa(daemon, sandbox):
    sandbox.remove(CONF)
    fake = FakeWpa(sandbox)
    try:
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        yield fake
    finally:
        revalidate(sandbox, {"wpa": {"action": "stop"}})
        fake.stop()


class Effects:
    """What one revalidate request did: reply, standard output, commands."""

    def __init__(self, sandbox, daemon, request):
        before = daemon.stdout()
        sandbox.clear_cmdlog()
        self.reply = revalidate(sandbox, request)
        self.out = stdout_since(sandbox, daemon, before)
        # Part 4.2's dlna_restart runs "minidlna_start.sh &": an earlier
        # request's background start can be logged during this one.
        self.cmds = [c for c in sandbox.cmdlog() if c != ["/etc/demo/minidlna_start.sh"]]


def wan(sandbox, daemon, action):
    return Effects(sandbox, daemon, {"wan": {"action": action}})


def read_or_none(sandbox, path):
    return sandbox.read_text(path) if sandbox.exists(path) else None


def check_with_real_supplicant(sandbox):
    """Debian's wpa_supplicant loads the generated file and starts (wired
    driver on the ifb mlan0); it is stopped again."""
    done = sandbox.run(["wpa_supplicant", "-B", "-P", "/tmp/check.pid", "-D", "wired",
                        "-i", "mlan0", "-c", CONF])
    assert (done.returncode, done.stderr) == (0, b""), done.stdout
    pid = wait_for(lambda: sandbox.exists("/tmp/check.pid")
                   and sandbox.read_text("/tmp/check.pid").strip())
    sandbox.run(["kill", pid], check=True)
    wait_for(lambda: not sandbox.exists(WPA_SOCKET))


# The "wpa" target


def test_wpa_null_argument_is_invalid(daemon, sandbox):
    e = Effects(sandbox, daemon, {"wpa": None})
    assert (e.reply, e.out, e.cmds) == (INVALID, "Input parameter is NULL.\n", [])


@pytest.mark.parametrize("value", [5, "start", ["start"]])
def test_wpa_non_object_is_invalid(daemon, sandbox, value):
    e = Effects(sandbox, daemon, {"wpa": value})
    assert (e.reply, e.out, e.cmds) == (INVALID, "Unexpected json type.\n", [])


@pytest.mark.parametrize("value", [{}, {"action": 5}], ids=["missing", "number"])
def test_wpa_without_action_is_an_internal_error(daemon, sandbox, value):
    e = Effects(sandbox, daemon, {"wpa": value})
    assert (e.reply, e.out, e.cmds) == (INTERNAL, "", [])


def test_wpa_other_action_does_nothing(daemon, sandbox):
    e = Effects(sandbox, daemon, {"wpa": {"action": "restart"}})
    assert (e.reply, e.out, e.cmds) == (SUCCESS, "", [])
    assert not sandbox.exists(WPA_SOCKET)


@pytest.mark.parametrize("driver", ["wired;reboot", "", "$(x)", "WIRED"])
def test_wpa_start_refuses_a_driver_setting_the_shell_would_read(daemon, sandbox, conf,
                                                                   driver):
    conf("wl_wpa_driver", driver, store="rtconf")
    sandbox.remove(CONF)
    e = Effects(sandbox, daemon, {"wpa": {"action": "start"}})
    assert (e.reply, e.out, e.cmds) == (INTERNAL, "", [])
    assert not sandbox.exists(CONF)


def test_wpa_start_and_stop_run_the_real_supplicant(daemon, sandbox, conf):
    """"start" writes an idle file (no network), starts wpa_supplicant with
    the driver of rtconf "wl_wpa_driver" and attaches; "stop" detaches and
    ends it."""
    conf("wl_wpa_driver", "wired", store="rtconf")
    sandbox.remove(CONF)
    e = Effects(sandbox, daemon, {"wpa": {"action": "start"}})
    assert e.reply == SUCCESS
    assert e.out.startswith(UPDATED)
    assert "WPACli: Initialize interface for wpa_supplicant successful\n" in e.out
    assert sandbox.read_text(CONF) == HEAD + "}\n"
    assert sandbox.exists(WPA_SOCKET) and sandbox.exists(WPA_PID)
    again = Effects(sandbox, daemon, {"wpa": {"action": "start"}})
    assert (again.reply, again.out) == (SUCCESS, "")
    e = Effects(sandbox, daemon, {"wpa": {"action": "stop"}})
    assert (e.reply, e.cmds) == (SUCCESS, [])
    assert not sandbox.exists(WPA_SOCKET)
    wait_for(lambda: not sandbox.exists(WPA_PID))


# Connecting with wpa_supplicant: the file and the requests


@pytest.mark.parametrize("sec, ssid, password, text", [
    ("wpapsk", "Cafe", "secret123", wpa_block("Cafe", "secret123")),
    ("WPA2", "Cafe", "secret123", wpa_block("Cafe", "secret123")),
    ("none", "Cafe", "", open_block("Cafe")),
    ("nonesuch", "Cafe", "x", open_block("Cafe")),
    ("on", "Cafe", "abcde", wep_block("Cafe", "abcde")),
    ("onyx", "Cafe", "abcde", wep_block("Cafe", "abcde")),
    ("WEP", "Cafe", "abcdefghijklm", wep_block("Cafe", "abcdefghijklm")),
    ("wpa2psk", "Cafe", "x", HEAD + '\tssid="Cafe"\n\tscan_ssid=1\n}\n'),
    ("wpapsk", "it's a \\ b;/c", "p'w;d/\\x9", wpa_block("it's a \\ b;/c", "p'w;d/\\x9")),
], ids=["wpapsk", "WPA2", "none", "none-prefix", "on", "on-prefix", "WEP", "other",
        "as-is"])
def test_connect_writes_the_file_and_selects_network_0(daemon, sandbox, hotspot, fakewpa,
                                                       sec, ssid, password, text):
    hotspot(sec, ssid, password)
    e = wan(sandbox, daemon, "start")
    assert e.reply == SUCCESS
    assert e.out == BRIDGE + UPDATED
    assert sandbox.read_text(CONF) == text
    assert fakewpa.commands() == ["RECONFIGURE", "SELECT_NETWORK 0"]
    fakewpa.stop()
    check_with_real_supplicant(sandbox)


@pytest.mark.parametrize("ssid, password", [("Ca\nfe", "x"), ("Cafe", "secret\n123")],
                         ids=["ssid-newline", "pass-newline"])
def test_connect_refuses_a_value_that_would_break_the_file(daemon, sandbox, hotspot,
                                                           fakewpa, ssid, password):
    """A newline would add a line of the client's: the file keeps its old
    bytes, nothing is sent, and the connect fails."""
    sandbox.write(CONF, "old\n")
    hotspot("wpapsk", ssid, password)
    e = wan(sandbox, daemon, "start")
    assert (e.reply, e.out) == (SUCCESS, BRIDGE + WPA_FAILED)
    assert sandbox.read_text(CONF) == "old\n"
    assert fakewpa.commands() == []


@pytest.mark.parametrize("ssid, password", [('say "hi", ok=1;\'x\'', "secret123"),
                                            ("Cafe", 'sec"ret"123')],
                         ids=["ssid-quotes", "pass-quotes"])
def test_connect_writes_quotes_as_they_are(daemon, sandbox, hotspot, fakewpa, ssid, password):
    """The supplicant reads a quoted value up to the last quote of its line,
    so a double quote inside an SSID or pass phrase is written as it is and
    the real supplicant loads the file."""
    hotspot("wpapsk", ssid, password)
    e = wan(sandbox, daemon, "start")
    assert (e.reply, e.out) == (SUCCESS, BRIDGE + UPDATED)
    assert sandbox.read_text(CONF) == wpa_block(ssid, password)
    assert fakewpa.commands() == ["RECONFIGURE", "SELECT_NETWORK 0"]
    fakewpa.stop()
    check_with_real_supplicant(sandbox)


def test_connect_fails_when_the_file_cannot_be_opened(daemon, sandbox, hotspot, fakewpa):
    hotspot("none", "Cafe", "")
    os.mkdir(sandbox.path(CONF))
    try:
        e = wan(sandbox, daemon, "start")
    finally:
        os.rmdir(sandbox.path(CONF))
    assert e.reply == SUCCESS
    assert e.out == (BRIDGE + "WiFi: wifi_sta_reconfig, open /etc/wpa_supplicant.conf file failed\n"
                     + WPA_FAILED)
    assert fakewpa.commands() == []


def test_connect_with_empty_ssid_and_security_fails(daemon, sandbox, hotspot, fakewpa):
    hotspot("", "", "secret123")
    e = wan(sandbox, daemon, "start")
    assert (e.reply, e.out) == (SUCCESS, BRIDGE + WPA_FAILED)
    assert read_or_none(sandbox, CONF) is None
    assert fakewpa.commands() == []


def test_connect_while_the_supplicant_is_absent_fails(daemon, sandbox, hotspot):
    hotspot("none", "Cafe", "")
    e = wan(sandbox, daemon, "start")
    assert e.reply == SUCCESS
    assert e.out == (BRIDGE + UPDATED
                     + "WPACli: Not connected to wpa_supplicant, command RECONFIGURE dropped\n"
                     + "WiFi: Send reconfigure to WPA failed\n" + WPA_FAILED)


def test_disconnect_removes_network_0(daemon, sandbox, hotspot, fakewpa):
    hotspot("none", "Cafe", "")
    e = wan(sandbox, daemon, "stop")
    assert e.reply == SUCCESS
    assert fakewpa.commands() == ["REMOVE_NETWORK 0"]
    assert e.out == ""


def test_disconnect_while_the_supplicant_is_absent_fails(daemon, sandbox, hotspot):
    hotspot("none", "Cafe", "")
    e = wan(sandbox, daemon, "stop")
    assert e.reply == SUCCESS
    assert e.out == ("WPACli: Not connected to wpa_supplicant, command REMOVE_NETWORK 0 dropped\n"
                     "WiFi: Send REMOVE to WPA failed\n")


# Tool types


# An absent "wl_tool_type" is no tool, like any other word: even with a
# supplicant attached nothing is written or sent.
NO_TOOLS = pytest.mark.parametrize("tool", ["none", "wt", b"not json\0", None],
                                   ids=["none", "other", "bad", "absent"])


@NO_TOOLS
def test_no_tool_type_connects_nothing(daemon, sandbox, hotspot, fakewpa, tool):
    hotspot("none", "Cafe", "", tool=tool)
    e = wan(sandbox, daemon, "start")
    assert (e.reply, e.out) == (SUCCESS, BRIDGE + NO_TOOL)
    assert e.cmds == [["/usr/sbin/brctl", "delif", "br0", "mlan0"]]
    assert read_or_none(sandbox, CONF) is None
    assert fakewpa.commands() == []


@NO_TOOLS
def test_no_tool_type_disconnects_nothing(daemon, sandbox, hotspot, fakewpa, tool):
    hotspot("none", "Cafe", "", tool=tool)
    e = wan(sandbox, daemon, "stop")
    assert e.reply == SUCCESS
    assert e.out == "WiFi: Error, None wireless tool type\n"
    assert not any("iwpriv" in c[0] for c in e.cmds)
    assert fakewpa.commands() == []


# Connecting with the wireless tools

UDHCPC = ["udhcpc", "-i", "mlan0", "-H", "hxsim", "-p", "/var/run/udhcpc.pid", "-b",
          "-s", "/etc/app/gw_udhcpc.script", "-S"]


def station_cmds(cmds):
    """The station commands of a command log (iwpriv, iwconfig, udhcpc)."""
    return [c for c in cmds if os.path.basename(c[0]) in ("iwpriv", "iwconfig", "udhcpc")]


@pytest.mark.parametrize("sec, expected", [
    ("none", [["/usr/sbin/iwpriv", "mlan0", "passphrase", "2;ssid=it's/;a//b"],
              ["/usr/sbin/iwconfig", "mlan0", "key", "off"]]),
    ("on", [["/usr/sbin/iwconfig", "mlan0", "key", "p'w/;d//x"],
            ["/usr/sbin/iwconfig", "mlan0", "key", "on"]]),
    ("WEP", [["/usr/sbin/iwconfig", "mlan0", "key", "p'w/;d//x"],
             ["/usr/sbin/iwconfig", "mlan0", "key", "on"]]),
    ("wpapsk", [["/usr/sbin/iwpriv", "mlan0", "passphrase",
                 "1;ssid=it's/;a//b;passphrase=p'w/;d//x"]]),
    ("WPA2", [["/usr/sbin/iwpriv", "mlan0", "passphrase",
               "1;ssid=it's/;a//b;passphrase=p'w/;d//x"]]),
    ("wep", []),
])
def test_wireless_tools_connect(daemon, sandbox, hotspot, sec, expected):
    """SSID and pass phrase escaped with flags 7 inside the single quotes of
    the security command, the SSID with flags 1 for "essid"; then udhcpc."""
    hotspot(sec, "it's;a/b", "p'w;d/x", tool="WT")
    e = wan(sandbox, daemon, "start")
    assert (e.reply, e.out) == (SUCCESS, BRIDGE + "WiFi: Wireless Link connected.\n")
    wait_for(lambda: any(os.path.basename(c[0]) == "udhcpc" for c in sandbox.cmdlog()))
    got = station_cmds(sandbox.cmdlog())
    assert got[:-1] == expected + [["/usr/sbin/iwconfig", "mlan0", "essid", "it's;a/b"]]
    assert [os.path.basename(got[-1][0])] + got[-1][1:] == UDHCPC


def test_wireless_tools_connect_fails_on_a_missing_key(daemon, sandbox, hotspot, conf):
    hotspot("wpapsk", "Cafe", "secret123", tool="WT")
    conf("wan_sta_pass", None)
    e = wan(sandbox, daemon, "start")
    assert e.reply == SUCCESS
    assert e.out == BRIDGE + "WiFi: Wireless Link disconnected.\n"
    assert station_cmds(e.cmds) == [["/usr/sbin/iwpriv", "mlan0", "deauth"]]
    assert ["/usr/bin/killall", "udhcpc"] in e.cmds


def test_wireless_tools_disconnect(daemon, sandbox, hotspot):
    hotspot("none", "Cafe", "", tool="WT")
    e = wan(sandbox, daemon, "stop")
    assert e.reply == SUCCESS
    assert station_cmds(e.cmds) == [["/usr/sbin/iwpriv", "mlan0", "deauth"]]


# Supplicant events (through the fake)


def rt(sandbox, key):
    return sandbox.store_get("rtconf", key)


def printed(text):
    return f"WPACli: Event from WPA [<3>{text}]\n"


def event(sandbox, daemon, fakewpa, text, key, value):
    """Sends one event and waits until rtconf key holds value; returns what
    the daemon printed and the commands run meanwhile."""
    before = daemon.stdout()
    sandbox.clear_cmdlog()
    fakewpa.send("event <3>" + text)
    wait_for(lambda: rt(sandbox, key) == value)
    out = stdout_since(sandbox, daemon, before)
    return out, sandbox.cmdlog()


def test_connected_event_starts_udhcpc_and_disarms_the_retry(daemon, sandbox, conf, fakewpa):
    conf("wan_auto_retry_times", b"1\0", store="rtconf")
    text = "CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:00:01 completed"
    out, cmds = event(sandbox, daemon, fakewpa, text, "wan_auto_retry_times", b"0\0")
    assert out == printed(text)
    wait_for(lambda: station_cmds(sandbox.cmdlog()))
    got = station_cmds(sandbox.cmdlog())
    assert [[os.path.basename(c[0])] + c[1:] for c in got] == [UDHCPC]


SLOTS = ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass", "wan_type",
         "wan_sta_ssid1", "wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2",
         "wan_sta_trustmode2"]


def sysconf_of(sandbox, keys):
    return {k: sandbox.store_get("sysconf", k) for k in keys}


def test_disconnected_event_stops_services_and_restarts_the_ap(daemon, sandbox, conf,
                                                               fakewpa):
    """With "wan_auto_retry_times" "0" the remembered hotspots stay as they are."""
    conf("wan_auto_retry_times", b"0\0", store="rtconf")
    conf("wifi_sta_reason", b"2\0", store="rtconf")
    conf("wifi_sta_status", '"Connected"', store="rtconf")
    conf("wan_sta_ssid2", "Other")
    before = sysconf_of(sandbox, SLOTS)
    text = "CTRL-EVENT-DISCONNECTED bssid=x reason=3"
    out, cmds = event(sandbox, daemon, fakewpa, text, "wifi_sta_reason", b"0\0")
    assert out == printed(text)
    wait_for(lambda: ["/sbin/ifconfig", "br0", "up"] in sandbox.cmdlog())
    cmds = sandbox.cmdlog()
    assert ["/usr/bin/killall", "udhcpc"] in cmds
    assert ["/sbin/uaputl.exe", "bss_start"] in cmds
    assert cmds.index(["/sbin/uaputl.exe", "bss_start"]) < cmds.index(
        ["/sbin/ifconfig", "br0", "up"])
    assert rt(sandbox, "wifi_sta_status") == b'"Disconnected"\0'
    assert rt(sandbox, "wan_status") == b'"WAN_DOWN"\0'
    assert sysconf_of(sandbox, SLOTS) == before
    assert rt(sandbox, "wan_auto_retry_times") == b"0\0"


@pytest.mark.parametrize("name, reason", [("CTRL-EVENT-ASSOC-REJECT bssid=x status_code=1", b"2\0"),
                                          ("CTRL-EVENT-SSID-TEMP-DISABLED id=0 ssid=\"x\"", b"1\0"),
                                          ("CTRL-EVENT-SSID-NO-MATCH ssid=\"x\"", b"2\0")],
                         ids=["assoc-reject", "temp-disabled", "no-match"])
def test_failure_events_set_status_and_reason(daemon, sandbox, conf, fakewpa, name, reason):
    conf("wan_auto_retry_times", b"0\0", store="rtconf")
    conf("wifi_sta_reason", b"9\0", store="rtconf")
    conf("wifi_sta_status", '"Connecting"', store="rtconf")
    before = sysconf_of(sandbox, SLOTS)
    out, cmds = event(sandbox, daemon, fakewpa, name, "wifi_sta_reason", reason)
    assert out == printed(name)
    assert rt(sandbox, "wifi_sta_status") == b'"Disconnected"\0'
    assert cmds == []
    assert sysconf_of(sandbox, SLOTS) == before


def test_no_match_event_falls_back_to_slot_2_when_armed(daemon, sandbox, conf, fakewpa):
    conf("wan_type", "wireless_sta")
    conf("wl_tool_type", "none", store="rtconf")
    conf("wan_auto_retry_times", b"1\0", store="rtconf")
    for key, value in (("wan_sta_ssid", "Cafe"), ("wan_sta_sec", "none"), ("wan_sta_pass", ""),
                       ("wan_sta_ssid2", "Home"), ("wan_sta_sec2", "wpapsk"),
                       ("wan_sta_pass2", "secret123"),
                       ("wan_sta_trustmode2", "Station Mode")):
        conf(key, value)
    out, cmds = event(sandbox, daemon, fakewpa, "CTRL-EVENT-SSID-NO-MATCH ssid=x",
                      "wan_auto_retry_times", b"0\0")
    # Part 4.2 copies the slot (a copy is one NUL longer, Part 3.1).
    assert sandbox.store_get("sysconf", "wan_sta_ssid").rstrip(b"\0") == b'"Home"'
    assert sandbox.store_get("sysconf", "wan_type").rstrip(b"\0") == b'"wireless_sta_trust"'
    assert rt(sandbox, "wifi_sta_reason") == b"2\0"
    assert out == (printed("CTRL-EVENT-SSID-NO-MATCH ssid=x")
                   + "WiFi: Error, None wireless tool type\n"
                   + "[SYS] Enter STA only mode.\n" + NO_TOOL)

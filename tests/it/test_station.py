"""Station mode: the supplicant's file and requests, the wireless tools' commands, the supplicant's events."""
import os

import pytest

from helpers import stdout_since, wait_for
from wifi_util import DROPPED, SUCCESS, WPA_SOCKET, Effects, conf, fakewpa, jtext  # noqa: F401

CONF = "/etc/wpa_supplicant.conf"
HEAD = ("update_config=1\nctrl_interface=/var/run/wpa_supplicant\nap_scan=1\nctrl_interface_group=0\n"
        "bss_expiration_age=600\n\nnetwork={\n")
UPDATED = "WiFi: wifi_sta_reconfig, Configuration file updated successfully\n"
BRIDGE, FAILED = "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n", "WiFi: Do STA connect by wpa_supplicant failed\n"
WPA, OPEN = '\tkey_mgmt=WPA-PSK\n\tpsk="%s"\n', "\tkey_mgmt=NONE\n"
WEP = OPEN + '\tauth_alg=OPEN SHARED\n\twep_key0="%s"\n\twep_tx_keyidx=0\n'


def network(ssid, body):
    return HEAD + f'\tssid="{ssid}"\n{body}\tscan_ssid=1\n}}\n'


def hotspot(conf, sec, ssid, password, tool="WPA"):
    conf("wl_tool_type", tool, "rtconf")
    for key, value in (("wan_type", "wireless_sta"), ("wan_sta_sec", sec), ("wan_sta_ssid", ssid), ("wan_sta_pass", password)):
        conf(key, value)


@pytest.mark.parametrize("sec, ssid, password, body", [
    ("wpapsk", "Cafe", "secret12", WPA % "secret12"), ("WPA2", "Cafe", "secret12", WPA % "secret12"), ("none", "Cafe", "", OPEN),
    ("nonesuch", "Cafe", "x", OPEN), ("on", "Cafe", "abcde", WEP % "abcde"), ("onyx", "Cafe", "abcde", WEP % "abcde"),
    ("WEP", "Cafe", "abcdefghijklm", WEP % "abcdefghijklm"), ("wpa2psk", "Cafe", "x", ""),
    ("wpapsk", "it's a \\ b;/c", "p'w;d/\\x9", WPA % "p'w;d/\\x9"), ("wpapsk", 'say "hi", ok=1;\'x\'', "secret12", WPA % "secret12"),
    ("wpapsk", "Cafe", 'sec"ret"123', WPA % 'sec"ret"123')])
def test_connect_writes_the_file_the_real_supplicant_loads(daemon, sandbox, conf, fakewpa, sec, ssid, password, body):
    hotspot(conf, sec, ssid, password)
    e = Effects(sandbox, daemon, {"wan": {"action": "start"}})
    assert (e.reply, e.out, fakewpa.commands()) == (SUCCESS, BRIDGE + UPDATED, ["RECONFIGURE", "SELECT_NETWORK 0"])
    assert sandbox.read_text(CONF) == network(ssid, body)
    fakewpa.stop()
    done = sandbox.run(["wpa_supplicant", "-B", "-P", "/tmp/check.pid", "-D", "wired", "-i", "mlan0", "-c", CONF])
    assert (done.returncode, done.stderr) == (0, b""), done.stdout
    sandbox.run(["kill", wait_for(lambda: sandbox.exists("/tmp/check.pid") and sandbox.read_text("/tmp/check.pid").strip())])
    wait_for(lambda: not sandbox.exists(WPA_SOCKET))


@pytest.mark.parametrize("action, sec, ssid, password, tool, out, file, sent", [
    ("start", "wpapsk", "Ca\nfe", "x", "WPA", BRIDGE + FAILED, "old\n", []),
    ("start", "wpapsk", "Cafe", "secret\n123", "WPA", BRIDGE + FAILED, "old\n", []),
    ("start", "", "", "secret123", "WPA", BRIDGE + FAILED, "old\n", []),
    ("start", "none", "Cafe", "", "WPA", BRIDGE + f"WiFi: wifi_sta_reconfig, open {CONF} file failed\n" + FAILED, None, []),
    ("start", "none", "Cafe", "", "WPA", BRIDGE + UPDATED + DROPPED % "RECONFIGURE" + "WiFi: Send reconfigure to WPA failed\n"
     + FAILED, network("Cafe", OPEN), None), ("stop", "none", "Cafe", "", "WPA", "", "old\n", ["REMOVE_NETWORK 0"]),
    ("stop", "none", "Cafe", "", "WPA", DROPPED % "REMOVE_NETWORK 0" + "WiFi: Send REMOVE to WPA failed\n", "old\n", None),
] + [(action, "none", "Cafe", "", tool, out, "old\n", []) for tool in ("none", "wt", b"not json\0", None) for action, out in (
    ("start", BRIDGE + "WiFi: Error, Wireless tool type is none\n"), ("stop", "WiFi: Error, None wireless tool type\n"))])
def test_supplicant_requests_and_refusals(daemon, sandbox, request, conf, action, sec, ssid, password, tool, out, file, sent):
    """sent None: no supplicant; file None: the file cannot be opened."""
    fake = None if sent is None else request.getfixturevalue("fakewpa")
    hotspot(conf, sec, ssid, password, tool)
    sandbox.write(CONF, "old\n") if file else (sandbox.remove(CONF), os.mkdir(sandbox.path(CONF)))
    try:
        e = Effects(sandbox, daemon, {"wan": {"action": action}})
    finally:
        file or os.rmdir(sandbox.path(CONF))
    assert (e.reply, e.out, fake and fake.commands(), file and sandbox.read_text(CONF)) == (SUCCESS, out, sent, file)
    assert not [c for c in e.cmds if "iw" in c[0] or "udhcpc" in c[0]]


KILL, DEAUTH = ["/usr/bin/killall", "udhcpc"], ["/usr/sbin/iwpriv", "mlan0", "deauth"]
ESSID, PRIV, KEY = ["/usr/sbin/iwconfig", "mlan0", "essid", "it's;a/b"], ["/usr/sbin/iwpriv", "mlan0", "passphrase"], [
    "/usr/sbin/iwconfig", "mlan0", "key"]
UDHCPC = ["/usr/sbin/udhcpc", "-i", "mlan0", "-H", "hxsim", "-p", "/var/run/udhcpc.pid", "-b", "-s", "/etc/app/gw_udhcpc.script", "-S"]
UP, WPA_CMD, WEP_CMD = "WiFi: Wireless Link connected.\n", [PRIV + ["1;ssid=it's/;a//b;passphrase=p'w/;d//x"], ESSID, UDHCPC], [
    KEY + ["p'w/;d//x"], KEY + ["on"], ESSID, UDHCPC]


@pytest.mark.parametrize("action, sec, password, out, cmds", [
    ("start", "none", "p'w;d/x", UP, [PRIV + ["2;ssid=it's/;a//b"], KEY + ["off"], ESSID, UDHCPC]),
    ("start", "on", "p'w;d/x", UP, WEP_CMD), ("start", "WEP", "p'w;d/x", UP, WEP_CMD), ("start", "wpapsk", "p'w;d/x", UP, WPA_CMD),
    ("start", "WPA2", "p'w;d/x", UP, WPA_CMD), ("start", "wep", "p'w;d/x", UP, [ESSID, UDHCPC]),
    ("start", "wpapsk", None, "WiFi: Wireless Link disconnected.\n", [KILL, DEAUTH]), ("stop", "none", "x", None, [KILL, DEAUTH])])
def test_wireless_tools_escape_the_texts_in_their_commands(daemon, sandbox, conf, action, sec, password, out, cmds):
    hotspot(conf, sec, "it's;a/b", password, tool="WT")
    e = Effects(sandbox, daemon, {"wan": {"action": action}})
    tools = lambda: [c for c in sandbox.cmdlog() if os.path.basename(c[0]) in ("iwpriv", "iwconfig", "udhcpc", "killall")]  # noqa
    wait_for(lambda: len(tools()) >= len(cmds))
    assert (e.reply, e.out, tools()) == (SUCCESS, out and BRIDGE + out or "", cmds)


SLOTS = ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass", "wan_type", "wan_sta_ssid1"] + [
    "wan_sta_%s2" % k for k in ("ssid", "sec", "pass", "trustmode")]
FALLBACK = "WiFi: Error, None wireless tool type\n[SYS] Enter STA only mode.\nWiFi: Error, Wireless tool type is none\n"


@pytest.mark.parametrize("event, armed, reason", [
    ("CTRL-EVENT-ASSOC-REJECT bssid=x status_code=1", False, b"2\0"), ('CTRL-EVENT-SSID-TEMP-DISABLED id=0', False, b"1\0"),
    ('CTRL-EVENT-SSID-NO-MATCH ssid="x"', False, b"2\0"), ('CTRL-EVENT-SSID-NO-MATCH ssid="x"', True, b"2\0"),
    ("CTRL-EVENT-DISCONNECTED bssid=x reason=3", False, b"0\0"), ("CTRL-EVENT-CONNECTED - Connection to x", True, b"9\0")])
def test_supplicant_events(daemon, sandbox, conf, fakewpa, event, armed, reason):
    hotspot(conf, "none", "Cafe", "", tool="none")
    for key, value in (("wan_auto_retry_times", b"%d\0" % armed), ("wifi_sta_reason", b"9\0"), ("wifi_sta_status", "Connecting")):
        conf(key, value, "rtconf")
    for key, value in zip(SLOTS[5:], ("Home", "wpapsk", "secret123", "Station Mode")):
        conf(key, value)
    before, slots, fallback = daemon.stdout(), [sandbox.store_get("sysconf", k) for k in SLOTS], armed and "NO-MATCH" in event
    sandbox.clear_cmdlog()
    fakewpa.tell("event <3>" + event)
    wait_for(lambda: [sandbox.store_get("rtconf", k) for k in ("wan_auto_retry_times", "wifi_sta_reason")] == [b"0\0", reason])
    out, cmds = stdout_since(sandbox, daemon, before), sandbox.cmdlog()
    assert out == "WPACli: Event from WPA [<3>%s]\n" % event + (FALLBACK if fallback else "")
    if fallback:  # the slot is copied: one NUL longer
        assert [sandbox.store_get("sysconf", k) for k in SLOTS[0:4:3]] == [b'"Home"\0\0', jtext("wireless_sta_trust")]
        return
    assert [sandbox.store_get("sysconf", k) for k in SLOTS] == slots
    assert sandbox.store_get("rtconf", "wifi_sta_status") == jtext("Connecting" if "-CONNECTED" in event else "Disconnected")
    if "DISCONNECTED" in event:
        wait_for(lambda: ["/sbin/ifconfig", "br0", "up"] in sandbox.cmdlog())
        cmds = sandbox.cmdlog()
        assert KILL in cmds and cmds.index(["/sbin/uaputl.exe", "bss_start"]) < cmds.index(["/sbin/ifconfig", "br0", "up"])
        assert sandbox.store_get("rtconf", "wan_status") == jtext("WAN_DOWN")
    assert [c for c in cmds if not c[0].endswith("udhcpc")] == [] or "DISCONNECTED" in event

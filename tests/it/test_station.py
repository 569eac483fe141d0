"""Station mode: the supplicant client, file and events, the wireless tools, joining a hotspot, the saved profiles."""
import json
import os
import threading

import pytest

from helpers import revalidate, stdout_since, wait_for
from hxfakes import dhcp_lease_script, wpa_state
from wifi_util import (DROPPED, INTERNAL, INVALID, NOT_OBJECT, NULL_ARG, SUCCESS, WPA_SOCKET, Effects, FakeWpa, conf,
                       fakewpa, jtext)  # noqa: F401

CONF = "/etc/wpa_supplicant.conf"
HEAD = ("update_config=1\nctrl_interface=/var/run/wpa_supplicant\nap_scan=1\nctrl_interface_group=0\n"
        "bss_expiration_age=600\n\nnetwork={\n")
UPDATED = "WiFi: wifi_sta_reconfig, Configuration file updated successfully\n"
BRIDGE, FAILED = "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.\n", "WiFi: Do STA connect by wpa_supplicant failed\n"
WPA, OPEN = '\tkey_mgmt=WPA-PSK\n\tpsk="%s"\n', "\tkey_mgmt=NONE\n"
WEP = OPEN + '\tauth_alg=OPEN SHARED\n\twep_key0="%s"\n\twep_tx_keyidx=0\n'


def network(ssid, body): return HEAD + f'\tssid="{ssid}"\n{body}\tscan_ssid=1\n}}\n'


def hotspot(conf, sec, ssid, password, tool="WPA"):
    conf("wl_tool_type", tool, "rtconf")
    for key, value in (("wan_type", "wireless_sta"), ("wan_sta_sec", sec), ("wan_sta_ssid", ssid), ("wan_sta_pass", password)):
        conf(key, value)


@pytest.mark.parametrize("sec, ssid, password, body", [
    ("WPA2", "Cafe", 'sec"ret"123', WPA % 'sec"ret"123'), ("none", "Cafe", "", OPEN), ("wpa2psk", "Cafe", "x", ""),
    ("on", "Cafe", "abcde", WEP % "abcde"), ("wpapsk", 'say "hi", ok=1;\'x\'', "secret12", WPA % "secret12"),
    ("wpapsk", "it's a \\ b;/c", "p'w;d/\\x9", WPA % "p'w;d/\\x9")])
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
    ("start", "none", "Cafe", "", "WPA", BRIDGE + f"WiFi: wifi_sta_reconfig, open {CONF} file failed\n" + FAILED, None, []),
    ("start", "none", "Cafe", "", "WPA", BRIDGE + UPDATED + DROPPED % "RECONFIGURE" + "WiFi: Send reconfigure to WPA failed\n"
     + FAILED, network("Cafe", OPEN), None), ("stop", "none", "Cafe", "", "WPA", "", "old\n", ["REMOVE_NETWORK 0"]),
    ("stop", "none", "Cafe", "", "WPA", DROPPED % "REMOVE_NETWORK 0" + "WiFi: Send REMOVE to WPA failed\n", "old\n", None),
] + [(action, "none", "Cafe", "", tool, out, "old\n", []) for tool in ("none", None) for action, out in (
    ("start", BRIDGE + "WiFi: Error, Wireless tool type is none\n"), ("stop", "WiFi: Error, None wireless tool type\n"))])
def test_supplicant_requests_and_refusals(daemon, sandbox, request, conf, action, sec, ssid, password, tool, out, file, sent):
    fake = None if sent is None else request.getfixturevalue("fakewpa")  # sent None: no supplicant
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
    ("start", "on", "p'w;d/x", UP, WEP_CMD), ("start", "wpapsk", "p'w;d/x", UP, WPA_CMD),
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
    ('CTRL-EVENT-SSID-NO-MATCH ssid="x"', True, b"2\0"), ("CTRL-EVENT-DISCONNECTED bssid=x reason=3", False, b"0\0"),
    ("CTRL-EVENT-CONNECTED - Connection to x", True, b"9\0")])
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
    assert [c for c in cmds if not c[0].endswith("udhcpc")] == [] or "DISCONNECTED" in event


START, STOP, DISCOVER = {"wpa": {"action": "start"}}, {"wpa": {"action": "stop"}}, "TDLS_DISCOVER ff:ff:ff:ff:ff:ff"
SELECTED = "WPACli: Selected interface 'mlan0'\n"
INIT_OUT = SELECTED + "WPACli: Initialize interface for wpa_supplicant successful\n"
CONNECTED, SCAN = "<3>CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:00:01 completed", "<3>CTRL-EVENT-SCAN-STARTED "
STALE = ("import os, socket; os.makedirs('/var/run/wpa_supplicant', exist_ok=True); "
         "socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind('%s')" % WPA_SOCKET)
EVENT = "WPACli: Event from WPA [%s]\n"


def udhcpc(sandbox): return [c for c in sandbox.cmdlog() if c[0].endswith("/udhcpc")]


@pytest.mark.parametrize("script, reply, out", [
    ("", SUCCESS, INIT_OUT), ("reply ATTACH\tFAIL\\n", INTERNAL, SELECTED + "WPACli: Failed to attach to wpa_supplicant\n"),
    ("stale", INTERNAL, SELECTED + f"WPACli: Failed to open connection to wpa_supplicant on {WPA_SOCKET}\n")],
    ids=["attached", "attach-refused", "stale-socket"])
def test_start_attaches_once_and_again_after_a_failure(daemon, sandbox, script, reply, out):
    script == "stale" and sandbox.run(["/usr/bin/python3", "-c", STALE], check=True)
    fake = None if script == "stale" else FakeWpa(sandbox)
    try:
        fake and script and fake.tell(script)
        assert (lambda e: (e.reply, e.out))(Effects(sandbox, daemon, START)) == (reply, out)
        fake = fake or FakeWpa(sandbox)
        fake.tell("reply ATTACH\tOK\\n")
        assert Effects(sandbox, daemon, START).out == ("" if reply == SUCCESS else INIT_OUT)
        attaches = [sender for sender, cmd in fake.log() if cmd == "ATTACH"]
        assert len(set(attaches)) == len(attaches) == (2 if script.startswith("reply") else 1)
    finally:
        revalidate(sandbox, STOP)
        fake and fake.stop()


def test_each_start_registers_again_until_the_slots_are_full(daemon, sandbox, fakewpa):
    assert [Effects(sandbox, daemon, START).out for _ in "12"] == ["", "WPACli: Exceed Maximum EH count\n" * 2]
    sandbox.clear_cmdlog()
    fakewpa.tell("event " + CONNECTED)
    wait_for(lambda: len(udhcpc(sandbox)) == 2)
    assert udhcpc(sandbox) == [UDHCPC] * 2


@pytest.mark.parametrize("event, extra, runs", [
    (CONNECTED, "", 1), ("<3>CTRL-EVENT-CONNECTED", "", 0), ("<3>CTRL-EVENT-BSS-REMOVED 0 x", None, 0),
    ("<3>TDLS-DISC-RESP peer=02:00:00:00:00:02", "TDLS: Discovered peer 02:00:00:00:00:02\n", 0),
    ("<3>TDLS-LINK-UP 02:00:00:00:00:02", "TDLS: Link up\n", 0), ("<3>TDLS-LINK-DOWN 0", "TDLS: Link down\n", 0)])
def test_event_reaches_the_handlers_of_its_prefix(daemon, sandbox, fakewpa, event, extra, runs):
    before = daemon.stdout()
    sandbox.clear_cmdlog()
    fakewpa.tell("event " + event)
    fakewpa.tell("event " + SCAN)
    wait_for(lambda: EVENT % SCAN in daemon.stdout()[len(before):] and len(udhcpc(sandbox)) >= runs)
    assert stdout_since(sandbox, daemon, before) == ("" if extra is None else EVENT % event + extra) + EVENT % SCAN
    assert udhcpc(sandbox) == [UDHCPC] * runs


@pytest.mark.parametrize("how, result, out", [
    ("sent", "scanning", ""), ("timeout", "failed", "WPACli: Show event message from WPA: [%s]\nWPACli: '%s' command "
                                "timed out.\nWPACli: wpa_cli_send: Failed, -2\n%s" % (SCAN, DISCOVER, EVENT % SCAN)),
    ("gone", "failed", f"WPACli: '{DISCOVER}' command failed.\nWPACli: wpa_cli_send: Failed, -1\n")])
def test_command_reply_is_consumed_and_failures_reported(daemon, sandbox, fakewpa, how, result, out):
    {"gone": fakewpa.stop, "timeout": lambda: fakewpa.tell("silent " + DISCOVER)}.get(how, lambda: 0)()
    before, got = daemon.stdout(), []
    request = json.dumps({"method": "pref-get", "arguments": {"confs": [], "infos": ["s_scantdlsdevice"]}}).encode()
    (t := threading.Thread(target=lambda: got.append(sandbox.request(request, timeout=60)))).start()
    how == "timeout" and wait_for(lambda: DISCOVER in fakewpa.commands()) and fakewpa.tell("event-to-all " + SCAN)
    t.join()
    assert json.loads(got[0])["arguments"]["infos"]["s_scantdlsdevice"] == result
    wait_for(lambda: daemon.stdout()[len(before):].endswith(out))
    assert stdout_since(sandbox, daemon, before) == out
    if how == "sent":  # on the command connection, not the monitor
        assert fakewpa.log()[-1][1] == DISCOVER and fakewpa.log()[-1][0] != fakewpa.log()[0][0]


@pytest.mark.parametrize("driver, value, reply, out", [("wired", None, INVALID, NULL_ARG), ("wired", {}, INTERNAL, ""),
    ("wired", {"action": "restart"}, SUCCESS, ""), ("wired", ["start"], INVALID, NOT_OBJECT)] + [
    (d, START["wpa"], INTERNAL, "") for d in ("wired;x", "", "WIRED")])
def test_wpa_target_refusals(daemon, sandbox, conf, driver, value, reply, out):
    conf("wl_wpa_driver", driver, "rtconf")
    sandbox.remove("/etc/wpa_supplicant.conf")
    assert (lambda e: (e.reply, e.out, e.cmds))(Effects(sandbox, daemon, {"wpa": value})) == (reply, out, [])
    assert not sandbox.exists("/etc/wpa_supplicant.conf") and not sandbox.exists(WPA_SOCKET)


@pytest.mark.parametrize("name", ["Cafe", 'say "hi", ok=1;\'x\''], ids=["plain", "double-quotes"])
def test_join_lose_and_fall_back(daemon, sandbox, name):
    sandbox.stub("/sbin/udhcpc", dhcp_lease_script())
    for store, key, value in (("rtconf", "wl_wpa_driver", "wired"), ("rtconf", "wl_tool_type", "WPA"),
                              ("sysconf", "wan_type", "wireless_sta"), ("sysconf", "wan_sta_ssid", name),
                              ("sysconf", "wan_sta_sec", "none"), ("sysconf", "wan_sta_pass", ""),
                              ("sysconf", "ap_profile", []), ("rtconf", "wan_status", "WAN_DOWN")):
        sandbox.store_set(store, key, jtext(value))
    sandbox.remove(CONF)
    try:
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        assert sandbox.read_text(CONF) == HEAD + "}\n" and sandbox.exists("/var/run/wpa_supplicant.pid")
        sandbox.clear_cmdlog()
        assert revalidate(sandbox, {"wan": {"action": "start"}}) == SUCCESS
        assert sandbox.read_text(CONF) == network(name, "\tkey_mgmt=NONE\n")
        wait_for(lambda: sandbox.store_get("sysconf", "wan_sta_ssid1") == jtext(name))
        assert (wpa_state(sandbox)["wpa_state"], sandbox.store_get("rtconf", "wan_status")) == ("COMPLETED", jtext("WAN_UP"))
        assert sandbox.run(["wpa_cli", "-i", "mlan0", "get_network", "0", "ssid"]).stdout == f'"{name}"'.encode()
        assert [c[0] for c in sandbox.cmdlog() if c[0].endswith("udhcpc")] == ["/usr/sbin/udhcpc"]
        for key, value in (("ssid2", "Home"), ("sec2", "none"), ("pass2", ""), ("trustmode2", "Station Mode")):
            sandbox.store_set("sysconf", "wan_sta_" + key, jtext(value))
        sandbox.store_set("rtconf", "wan_auto_retry_times", b"1\0")
        sandbox.clear_cmdlog()
        assert sandbox.run(["wpa_cli", "-i", "mlan0", "disconnect"]).stdout == b"OK\n"
        wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
        assert sandbox.read_text(CONF) == network("Home", "\tkey_mgmt=NONE\n")
        wait_for(lambda: wpa_state(sandbox).get("ssid") == "Home" and wpa_state(sandbox)["wpa_state"] == "COMPLETED")
        wait_for(lambda: sandbox.store_get("rtconf", "wan_status") == jtext("WAN_UP"))
        assert sandbox.store_get("rtconf", "wifi_sta_status") == jtext("Connected")
    finally:
        assert revalidate(sandbox, {"wpa": {"action": "stop"}}) == SUCCESS
        assert not sandbox.exists(WPA_SOCKET)
        wait_for(lambda: not sandbox.exists("/var/run/wpa_supplicant.pid"))


PSLOTS = ["wan_sta_%s%d" % (k, n) for n in (1, 2) for k in ("ssid", "sec", "pass", "trustmode")]
CAFE, HOME = ["Cafe", "wpa2", "cafe-pass", "Station Mode"], ["Home", "wpa", "home-pass", "Public Bridge Mode"]
PARK, NEW, CAFE2 = ["Park", "none", "", "Private Bridge Mode"], "new", ["Cafe", "wpa2", "new-pass", "Public Bridge Mode"]
ODD = ["100%% free %s", "wpa2", "p%d%%x%", "Station Mode"]
WAN_TYPES = {"Station Mode": "wireless_sta_trust", "Public Bridge Mode": "wireless_sta"}
WAN_STOP = [["/usr/bin/killall", "udhcpc"]] + [["/sbin/ifconfig", "mlan0", "0.0.0.0"]] * 2 + [
    ["/etc/app/gw_simplefw.sh", "reset"], ["/etc/app/gw_ssdpd.sh"], ["/etc/demo/minidlna_stop.sh"]]
REMOVE = DROPPED % "REMOVE_NETWORK 0" + "WiFi: Send REMOVE to WPA failed\n"
DHCP_LEASE = {"sys_event": {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}}


def jsonc(profiles, ids):  # as json-c renders the list, with the store's NUL
    return ("[ %s ]" % ", ".join("{ %s }" % ", ".join('"%s": %s' % (k, json.dumps(v)) for k, v in zip(
        ("id", "essid", "encrypt", "pass", "workmode"), [i] + p)) for p, i in zip(profiles, ids)) if profiles
            else "[ ]").encode() + b"\0"


def stored(sandbox): return [sandbox.store_get("sysconf", k) for k in ["ap_profile"] + PSLOTS]


def store(sandbox, conf, profiles, current=None):
    conf("ap_profile", profiles if isinstance(profiles, bytes) else jsonc(profiles, [1, 2]))
    texts = [] if isinstance(profiles, bytes) else [x for p in profiles for x in p]
    for key, value in list(zip(PSLOTS, texts + [""] * 8)) + list(zip(("wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"), current or [])):
        conf(key, value)
    current and conf("wan_type", WAN_TYPES.get(current[3], "wireless_sta_private" if current[3] else "none"))
    return stored(sandbox)


def slots(profiles): return [jtext(x) for x in [x for p in profiles for x in p] + [""] * (8 - 4 * len(profiles))]


def warned(daemon, err0, text):
    wait_for(lambda: daemon.stderr()[len(err0):].startswith(text))
    assert daemon.stderr()[len(err0):] == text


@pytest.mark.parametrize("before, current, after, ids", [
    ([CAFE], HOME, [CAFE, HOME], [1, NEW]), ([CAFE, HOME], CAFE2, [CAFE2, HOME], [NEW, 2]),
    ([CAFE, HOME], PARK, [HOME, PARK], [2, NEW]), ([], ODD, [ODD], [NEW])],
    ids=["second", "same-replaced", "third-drops-oldest", "percent"])
def test_dhcp_lease_remembers_the_hotspot(daemon, sandbox, conf, before, current, after, ids):
    store(sandbox, conf, before, current)
    assert Effects(sandbox, daemon, DHCP_LEASE).reply == SUCCESS
    got = [p["id"] for p in json.loads(sandbox.store_get("sysconf", "ap_profile")[:-1])]
    assert all(isinstance(i, int) and i not in (1, 2) if want == NEW else i == want for i, want in zip(got, ids))
    # the slot keys were written with each text as a printf format: "%%" gives "%"
    assert stored(sandbox) == [jsonc(after, got)] + slots([[x and x.replace("%%", "%") for x in p] for p in after])


@pytest.mark.parametrize("raw, warning", [
    (b"not json\0", "failed to parse evbuf."), (b'[ "Cafe" ]\0', None),
    (b'[ { "essid": "A" }, { "essid": "B" }, { "essid": "C" } ]\0', "Invalid length of approfiles.")])
def test_unusable_list_is_an_internal_error(daemon, sandbox, conf, raw, warning):
    before, err0 = store(sandbox, conf, raw, CAFE), daemon.stderr()
    assert (Effects(sandbox, daemon, DHCP_LEASE).reply, stored(sandbox)) == (INTERNAL, before)
    warned(daemon, err0, "" if warning is None else "[warn] approfiles_sysconf_get: %s\n\n" % warning)


def forget(*names): return {"action": "forget", "essid": list(names)}


LISTED = "".join('[debug] approfiles_sysconf_get: profile %d: id %d, essid "%s", encrypt "%s", workmode "%s".\n\n' % (
    i, i + 1, *p[:2], p[3]) for i, p in enumerate([CAFE, HOME]))
NOT_FOUND = '[debug] gw_profiles_forget: forget essid is "Nope".\n\n' + LISTED + "[warn] profile_forget: Not found the forget ssid.\n\n"
IN_USE = ('[debug] gw_profiles_forget: forget essid is "Cafe".\n\n' + LISTED + "[debug] approfiles_sysconf_set: profiles to be "
          'set is %s.\n\n[debug] gw_wan_status_check: wan_sta_ssid is "Cafe", essid is "Cafe".\n\n' % jsonc([HOME], [2])[:-1].decode())
ALL = "[debug] gw_profiles_forget: forget all ap profile list.\n\n[debug] approfiles_sysconf_set: profiles to be set is [ ].\n\n"
BAD = "[warn] gw_profiles_forget: Invalid input parameters.\n\n"


@pytest.mark.parametrize("value, current, reply, left, out, err", [
    (forget(), None, SUCCESS, [], REMOVE, ALL), (forget("Cafe"), CAFE, SUCCESS, [1], REMOVE, IN_USE),
    (forget("Home"), CAFE, SUCCESS, [0], "", None), (forget("Home", "Cafe"), None, SUCCESS, [], "", None),
    (forget("Nope"), None, INTERNAL, None, "", NOT_FOUND), (forget("Home", "Nope", "Cafe"), None, INTERNAL, [0], "", None),
    ({"action": "forget"}, None, INTERNAL, None, "", BAD), (["forget"], None, INVALID, None, NOT_OBJECT, "")])
def test_forget(daemon, sandbox, conf, value, current, reply, left, out, err):
    before = store(sandbox, conf, [CAFE, HOME], current)
    conf("wan_status", "WAN_UP" if current else "WAN_DOWN", "rtconf")
    err0, e = daemon.stderr(), Effects(sandbox, daemon, {"ap_profiles": value})
    assert (e.reply, e.out, e.cmds) == (reply, out, WAN_STOP if out == REMOVE else [])
    kept = left is not None and [[CAFE, HOME][i] for i in left]
    assert stored(sandbox) == (before if left is None else [jsonc(kept, [i + 1 for i in left])] + slots(kept))
    assert sandbox.store_get("rtconf", "wan_status") == jtext("WAN_UP" if current and out != REMOVE else "WAN_DOWN")
    err is None or warned(daemon, err0, err)

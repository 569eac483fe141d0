"""Scans and access-point lists, the station's link, the AP's channel, cut-through, TDLS (tests run in file order)."""
import json

import pytest

from helpers import revalidate, stdout_since, wait_for
from hxfakes import link_output, printing, scan_cell as cell, scan_output
from wifi_util import DROPPED, INTERNAL, INVALID, NOT_OBJECT, SUCCESS, answer, conf, fakewpa, get  # noqa: F401

IWLIST, IWCONFIG, UAP, CUT, GATE = "/sbin/iwlist", "/usr/sbin/iwconfig", "/sbin/uaputl.exe", "/etc/app/gw_cutthrough.sh", "/tmp/gate"
WPA2, EAP = "IE: IEEE 802.11i/WPA2 Version 1", "Authentication Suites (1) : 802.1x"


SCAN = scan_output([
    cell("00:24:01:D3:A0:BE", '"HomeNet"', "Frequency:2.437 GHz (Channel 6)", "Signal level=-52", "Encryption key:on", WPA2),
    cell("9C:D6:43:11:22:33", '"Cafe Guest"', "Frequency:2.412 GHz (Channel 1)", "Signal level=-78", "Encryption key:off"),
    cell("00:1A:2B:3C:4D:5E", '"Office"', "Frequency:2.462 GHz (Channel 11)", "Signal level=-61", "IE: WPA Version 1", WPA2),
    cell("00:90:4C:AA:BB:CC", '""', "Frequency:2.437 GHz (Channel 6)", "Signal level=-45", WPA2),
    cell("00:0F:66:01:02:03", '"OldRouter"', "Frequency:2.452 GHz (Channel 9)", "Signal level=-84", "Encryption key:on"),
    cell("00:24:01:D3:A0:C0", '"HomeNet"', "Channel:149\n          Frequency:5.745 GHz", "Signal level=-40", WPA2),
    cell("34:12:98:76:54:32", "off/any/hidden", "Frequency:2.422 GHz", "Signal level:-88", WPA2, EAP),
    cell("02:11:22:33:44:55", '"Corp "Lab""', "Frequency:2.437 GHz (Channel 6)", "Signal level=-70", WPA2, EAP)])
CELLS = [b'{ "ssid": "%s", "bssid": "%s", "channel": "%s", "signal": "%s", "security": "%s" }' % c for c in [
    (b"HomeNet", b"00:24:01:D3:A0:BE", b"6", b"-52", b"WPA2-PSK"), (b"Cafe Guest", b"9C:D6:43:11:22:33", b"1", b"-78", b"NONE"),
    (b"Office", b"00:1A:2B:3C:4D:5E", b"11", b"-61", b"WPA\\/WPA2-PSK"), (b"", b"00:90:4C:AA:BB:CC", b"6", b"-45", b"WPA2-PSK"),
    (b"OldRouter", b"00:0F:66:01:02:03", b"9", b"-84", b"WEP"), (b"HomeNet", b"00:24:01:D3:A0:C0", b"149", b"-40", b"WPA2-PSK"),
    (b"", b"34:12:98:76:54:32", b"3", b"-88", b"WPA2-EAP"), (b'Corp \\"Lab\\"', b"02:11:22:33:44:55", b"6", b"-70", b"WPA2-EAP")]]


def lists(state, cells, named):
    return answer(b'"s_scanapresult": { "state": "%s", "aps": [ %s ] }' % (state, b", ".join(cells)),
                  b'"s_aplist": [ %s ]' % b", ".join(named)).replace(b"[  ]", b"[ ]")


def test_scan_thread_runs_once_at_a_time_and_lists_the_strongest_first(daemon, sandbox):
    assert get(sandbox, "s_scanapresult", "s_aplist") == lists(b"idle", [], [])
    sandbox.stub(IWLIST, f"while [ ! -e {GATE} ]; do sleep 0.05; done\n" + printing(SCAN))
    sandbox.clear_cmdlog()
    try:
        assert [get(sandbox, "s_scanap") for _ in "12"] == [answer(b'"s_scanap": "%s"' % s) for s in (b"scanning", b"busy")]
        assert get(sandbox, "s_scanapresult", "s_aplist") == lists(b"scanning", [], [])
    finally:
        sandbox.write(GATE, b"")
    wait_for(lambda: b'"done"' in get(sandbox, "s_scanapresult"))
    assert get(sandbox, "s_scanapresult", "s_aplist") == lists(b"done", CELLS, [CELLS[i] for i in (5, 2, 7, 1, 4)])
    assert sandbox.cmdlog() == [[IWLIST, "mlan0", "scan"]]


ODD = "".join([  # a 32-byte SSID, a 17-character address, a clamped level
    cell("00:11:22:33:44:55:66", '"%s"' % ("0123456789" * 4), "Frequency:2.472 GHz", "Signal level=-1"),
    cell("00:11:22:33:44:5G", '"open', "Frequency:2.484 GHz", "Signal level=-99999999999999999999", "Encryption key:on",
         "IE: WPA Version 1"),
    cell("00:00:00:00:00:02", '"y"', "Frequency:2.477 GHz", "Signal level=-3", "IE: WPA Version 1", WPA2, EAP)])


@pytest.mark.parametrize("body, aps", [
    ("echo 'mlan0     Interface doesn'\"'\"'t support scanning : Device or resource busy' >&2\nexit 255\n", []),
    (printing(ODD), [["01234567890123456789012345678901", "00:11:22:33:44:55", "13", "-1", "NONE"],
                     ["", "", "14", "-99999", "WPA-PSK"], ["y", "00:00:00:00:00:02", "0", "-3", "WPA/WPA2-EAP"]])],
    ids=["failing", "odd"])
def test_scan_replaces_the_list(daemon, sandbox, body, aps):
    sandbox.stub(IWLIST, body)
    try:
        assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "scanning"')
        wait_for(lambda: b'"done"' in get(sandbox, "s_scanapresult"))
    finally:
        sandbox.stub(IWLIST, "exit 0\n")
    got = json.loads(get(sandbox, "s_scanapresult"))["arguments"]["infos"]["s_scanapresult"]["aps"]
    assert [list(a.values()) for a in got] == aps


CONNECTED = link_output("HomeNet", "2.437 GHz", "00:24:01:D3:A0:BE", "72 Mb/s", -52)


@pytest.mark.parametrize("item, program, body, setting, member", [
    ("s_staconninfo", IWCONFIG, printing(CONNECTED), None, b'{ "state": "connected", "ssid": "HomeNet", "bssid": '
     b'"00:24:01:D3:A0:BE", "channel": "6", "signal": "-52", "bitrate": "72 Mb\\/s" }'),
    ("s_wl_channel", UAP, printing("AP settings:\nChannel = 11\nChannel Select Mode = Manual\nChannel List:\nChannel = 1\n"),
     "6", b'"11"'),
    ("s_wl_channel", UAP, "echo 'ERR:UAP_BSS_CONFIG is not supported by uap0'\nexit 1\n", "6", b'"6"'),
    ("s_wl_channel", UAP, "exit 1\n", None, b'"0"')], ids=["link-up", "channel", "setting", "none"])
def test_link_and_channel(daemon, sandbox, conf, item, program, body, setting, member):
    item == "s_wl_channel" and conf("wl_channel", setting)
    sandbox.stub(program, body)
    sandbox.clear_cmdlog()
    try:
        assert get(sandbox, item) == answer(b'"%s": %s' % (item.encode(), member))
    finally:
        sandbox.stub(program, "exit 0\n")
    assert sandbox.cmdlog() == [[program, "mlan0" if program == IWCONFIG else "sys_config"]]


def test_cut_through(daemon, sandbox):
    status = [answer(b'"cutthrough_status": "%s"' % s) for s in (b"off", b"on")]
    sandbox.stub(CUT, "exit 0\n")
    sandbox.clear_cmdlog()
    before, got = daemon.stdout(), [get(sandbox, "cutthrough_status")]
    for value in ({"action": "start"}, {"action": "stop"}, {}, "start"):
        got += [revalidate(sandbox, {"cut_through": value}), get(sandbox, "cutthrough_status")]
    assert got == [status[0], SUCCESS, status[1]] + [SUCCESS, status[0]] * 2 + [INVALID, status[0]]
    assert (stdout_since(sandbox, daemon, before), sandbox.cmdlog()) == (NOT_OBJECT, [[CUT, "start"], [CUT, "stop"]])


PEER, PEER2, BROADCAST = "02:1a:11:f0:4c:7e", "02:1a:11:f0:4c:80", "TDLS_DISCOVER ff:ff:ff:ff:ff:ff"
RESOLVE = {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": PEER2}}


def tdls(state, peer=""): return answer(('"s_tdlsstatus": { "state": "%s", "peer": "%s" }' % (state, peer)).encode())


@pytest.mark.parametrize("request_, reply, out", [
    ({"tdls": {"action": "start", "peer": PEER}}, INTERNAL, DROPPED % ("TDLS_SETUP " + PEER)),
    ({"tdls": {"action": "start", "peer": PEER[:-1]}}, INVALID, ""), ({"tdls": ["start"]}, INVALID, NOT_OBJECT),
    ({"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": "nobody"}}, SUCCESS, "TDLS: Invalid peer address\n")])
def test_tdls_without_supplicant(daemon, sandbox, request_, reply, out):
    before = daemon.stdout()
    assert get(sandbox, "s_scantdlsdevice", "s_scantdlsdeviceresult") == answer(
        b'"s_scantdlsdevice": "failed"', b'"s_scantdlsdeviceresult": [ ]')
    assert (revalidate(sandbox, request_), get(sandbox, "s_tdlsstatus")) == (reply, tdls("idle"))
    assert stdout_since(sandbox, daemon, before) == DROPPED % BROADCAST + out


def test_tdls_discovery_setup_link_and_teardown(daemon, sandbox, fakewpa):
    assert get(sandbox, "s_scantdlsdevice") == answer(b'"s_scantdlsdevice": "scanning"')
    before, peers = daemon.stdout(), (PEER, PEER2, PEER, PEER.upper(), "02:1a:11:f0:4c:7x", PEER + "0")
    for peer in peers:
        fakewpa.tell("event <3>TDLS-DISC-RESP " + peer)
    fakewpa.tell("event <3>TDLS-LINK-UP " + PEER)
    found = answer(b'"s_scantdlsdeviceresult": [ { "mac": "%s" }, { "mac": "%s" } ]' % (PEER.encode(), PEER2.encode()))
    wait_for(lambda: "TDLS: Link up\n" in daemon.stdout()[len(before):])
    assert get(sandbox, "s_scantdlsdeviceresult") == found
    assert stdout_since(sandbox, daemon, before) == "".join("WPACli: Event from WPA [<3>TDLS-DISC-RESP %s]\n" % p + (
        "TDLS: Discovered peer %s\n" % p) * (p in peers[:4]) for p in peers) + f"WPACli: Event from WPA [<3>TDLS-LINK-UP {PEER}]\nTDLS: Link up\n"
    assert revalidate(sandbox, {"tdls": {"action": "start", "peer": None}}) == INVALID
    assert [revalidate(sandbox, {"tdls": {"action": "start"}}), get(sandbox, "s_tdlsstatus")] == [SUCCESS, tdls("connecting", PEER)]
    before = daemon.stdout()  # a set-up under way refuses any other
    assert [revalidate(sandbox, r) for r in ({"tdls": {"action": "start", "peer": PEER2}}, RESOLVE)] == [INTERNAL, SUCCESS]
    assert stdout_since(sandbox, daemon, before) == "TDLS: Connecting, reject TDLS setup request\n" * 2
    fakewpa.tell("event <3>TDLS-LINK-UP " + PEER)
    wait_for(lambda: get(sandbox, "s_tdlsstatus") == tdls("connected", PEER))
    assert [revalidate(sandbox, {"tdls": {"action": "stop"}}), get(sandbox, "s_tdlsstatus")] == [SUCCESS, tdls("idle")]
    fakewpa.tell("silent TDLS_SETUP " + PEER2)  # the supplicant does not answer: the set-up fails
    request = json.dumps({"method": "revalidate", "arguments": {"tdls": {"action": "start", "peer": PEER2}}})
    assert sandbox.request(request.encode(), timeout=60) == INTERNAL and get(sandbox, "s_tdlsstatus") == tdls("idle")
    assert fakewpa.commands() == [BROADCAST, "TDLS_SETUP " + PEER, "TDLS_TEARDOWN " + PEER, "TDLS_SETUP " + PEER2]

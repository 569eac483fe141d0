"""Wi-Fi scanning, the access-point lists, the station's link, the AP's
channel, TDLS peer links and cut-through (the "-" rows of Part 2.2 that
belong to Wi-Fi; behaviour in README), through the real daemon.

The scan thread runs "/sbin/iwlist mlan0 scan"; its stub prints a fixture
of the Marvell wext driver's real output.  The daemon is shared by the
module, so the scan tests run in file order: before any scan, then the
thread's lifecycle, then the lists it left.
"""
import ast
import json
import os
import subprocess

import pytest

from helpers import revalidate, send, stdout_since, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
IWLIST = "/sbin/iwlist"
IWCONFIG = "/usr/sbin/iwconfig"
UAPUTL = "/sbin/uaputl.exe"
CUTTHROUGH = "/etc/app/gw_cutthrough.sh"
GATE = "/tmp/hx_scan_gate"
FIXTURES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "fixtures")


def fixture(name):
    with open(os.path.join(FIXTURES, name)) as f:
        return f.read()


def printing(text):
    """A stub body that prints text exactly."""
    return f"cat <<'HXEOF'\n{text}HXEOF\n"


def get(sandbox, *names):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": list(names)}})


def answer(*members):
    infos = b"{ " + b", ".join(members) + b" }" if members else b"{ }"
    return b'{ "arguments": { "confs": { }, "infos": ' + infos + b' }, "result": "success" }'


def ap(ssid, bssid, channel, signal, security):
    return (b'{ "ssid": "%s", "bssid": "%s", "channel": "%s", "signal": "%s", "security": "%s" }'
            % (ssid, bssid, channel, signal, security))


# The cells of iwlist_mlan0_scan.txt, in the scan's order.
CELLS = [
    ap(b"HomeNet", b"00:24:01:D3:A0:BE", b"6", b"-52", b"WPA2-PSK"),
    ap(b"Cafe Guest", b"9C:D6:43:11:22:33", b"1", b"-78", b"NONE"),
    ap(b"Office", b"00:1A:2B:3C:4D:5E", b"11", b"-61", b"WPA\\/WPA2-PSK"),
    ap(b"", b"00:90:4C:AA:BB:CC", b"6", b"-45", b"WPA2-PSK"),
    ap(b"OldRouter", b"00:0F:66:01:02:03", b"9", b"-84", b"WEP"),
    ap(b"HomeNet", b"00:24:01:D3:A0:C0", b"149", b"-40", b"WPA2-PSK"),
    ap(b"", b"34:12:98:76:54:32", b"3", b"-88", b"WPA2-EAP"),
    ap(b'Corp \\"Lab\\"', b"02:11:22:33:44:55", b"6", b"-70", b"WPA2-EAP"),
]


def result(state, cells):
    aps = b"[ " + b", ".join(cells) + b" ]" if cells else b"[ ]"
    return b'"s_scanapresult": { "state": "%s", "aps": %s }' % (state, aps)


def scan_done(sandbox):
    return b'"state": "done"' in get(sandbox, "s_scanapresult")


@pytest.fixture
def iwlist(sandbox):
    yield lambda text: sandbox.stub(IWLIST, printing(text))
    sandbox.stub(IWLIST, "exit 0\n")


# s_scanap, s_scanapresult, s_aplist


def test_before_any_scan_the_lists_are_empty(daemon, sandbox):
    assert get(sandbox, "s_scanapresult", "s_aplist") == answer(
        result(b"idle", []), b'"s_aplist": [ ]')


def test_scan_thread_lifecycle(daemon, sandbox):
    """Started, busy while running, then its result; the stub waits for a
    gate file so that the second request finds the thread running."""
    sandbox.remove(GATE)
    sandbox.stub(IWLIST, f"while [ ! -e {GATE} ]; do sleep 0.05; done\n"
                 + printing(fixture("iwlist_mlan0_scan.txt")))
    sandbox.clear_cmdlog()
    try:
        assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "scanning"')
        assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "busy"')
        assert get(sandbox, "s_scanapresult") == answer(result(b"scanning", []))
    finally:
        sandbox.write(GATE, b"")
    wait_for(lambda: scan_done(sandbox))
    assert get(sandbox, "s_scanapresult") == answer(result(b"done", CELLS))
    assert sandbox.cmdlog() == [[IWLIST, "mlan0", "scan"]]


def test_aplist_named_strongest_first_one_per_ssid(daemon, sandbox):
    assert get(sandbox, "s_aplist") == answer(
        b'"s_aplist": [ ' + b", ".join([CELLS[5], CELLS[2], CELLS[7], CELLS[1], CELLS[4]])
        + b" ]")


def test_empty_scan_replaces_the_list(daemon, sandbox, iwlist):
    iwlist(fixture("iwlist_mlan0_empty.txt"))
    assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "scanning"')
    wait_for(lambda: scan_done(sandbox))
    assert get(sandbox, "s_scanapresult", "s_aplist") == answer(
        result(b"done", []), b'"s_aplist": [ ]')


def test_failing_scan_is_an_empty_list(daemon, sandbox):
    sandbox.stub(IWLIST, "echo 'mlan0     Interface doesn'\"'\"'t support scanning : Device or"
                 " resource busy' >&2\nexit 255\n")
    assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "scanning"')
    wait_for(lambda: scan_done(sandbox))
    assert get(sandbox, "s_scanapresult") == answer(result(b"done", []))
    sandbox.stub(IWLIST, "exit 0\n")


def test_scan_list_is_bounded_to_64_cells(daemon, sandbox, iwlist):
    iwlist("mlan0     Scan completed :\n" + "".join(
        f"          Cell {n + 1:02d} - Address: 00:50:43:00:00:{n:02X}\n"
        f'                    ESSID:"net{n}"\n'
        f"                    Frequency:2.412 GHz (Channel 1)\n"
        f"                    Quality=50/100  Signal level=-{n} dBm  Noise level=-95 dBm\n"
        f"                    Encryption key:off\n" for n in range(80)))
    assert get(sandbox, "s_scanap") == answer(b'"s_scanap": "scanning"')
    wait_for(lambda: scan_done(sandbox))
    aps = json.loads(get(sandbox, "s_scanapresult"))["arguments"]["infos"]["s_scanapresult"]["aps"]
    assert [a["ssid"] for a in aps] == [f"net{n}" for n in range(64)]


# s_staconninfo


def test_staconninfo_connected(daemon, sandbox):
    sandbox.stub(IWCONFIG, printing(fixture("iwconfig_mlan0_connected.txt")))
    sandbox.clear_cmdlog()
    assert get(sandbox, "s_staconninfo") == answer(
        b'"s_staconninfo": { "state": "connected", "ssid": "HomeNet",'
        b' "bssid": "00:24:01:D3:A0:BE", "channel": "6", "signal": "-52",'
        b' "bitrate": "72 Mb\\/s" }')
    assert sandbox.cmdlog() == [[IWCONFIG, "mlan0"]]


@pytest.mark.parametrize("body", [printing(fixture("iwconfig_mlan0_idle.txt")),
                                  "echo 'mlan0     No such device' >&2\nexit 1\n"])
def test_staconninfo_disconnected(daemon, sandbox, body):
    sandbox.stub(IWCONFIG, body)
    assert get(sandbox, "s_staconninfo") == answer(
        b'"s_staconninfo": { "state": "disconnected", "ssid": "", "bssid": "", "channel": "",'
        b' "signal": "", "bitrate": "" }')


# s_wl_channel


def test_wl_channel_from_sys_config(daemon, sandbox):
    sandbox.stub(UAPUTL, printing(fixture("uaputl_sys_config.txt")))
    sandbox.clear_cmdlog()
    try:
        assert get(sandbox, "s_wl_channel") == answer(b'"s_wl_channel": "11"')
        assert sandbox.cmdlog() == [[UAPUTL, "sys_config"]]
    finally:
        sandbox.stub(UAPUTL, "exit 0\n")


def test_wl_channel_falls_back_to_the_setting(daemon, sandbox):
    sandbox.stub(UAPUTL, "echo 'ERR:UAP_BSS_CONFIG is not supported by uap0'\nexit 1\n")
    try:
        assert get(sandbox, "s_wl_channel") == answer(b'"s_wl_channel": "6"')
        saved = sandbox.store_get("sysconf", "wl_channel")
        sandbox.store_delete("sysconf", "wl_channel")
        try:
            assert get(sandbox, "s_wl_channel") == answer(b'"s_wl_channel": "0"')
        finally:
            sandbox.store_set("sysconf", "wl_channel", saved)
    finally:
        sandbox.stub(UAPUTL, "exit 0\n")


# cut_through, cutthrough_status


def test_cut_through_start_and_stop(daemon, sandbox):
    sandbox.stub(CUTTHROUGH, "exit 0\n")
    assert get(sandbox, "cutthrough_status") == answer(b'"cutthrough_status": "off"')
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"cut_through": {"action": "start"}}) == SUCCESS
    assert get(sandbox, "cutthrough_status") == answer(b'"cutthrough_status": "on"')
    assert revalidate(sandbox, {"cut_through": {"action": "stop"}}) == SUCCESS
    assert get(sandbox, "cutthrough_status") == answer(b'"cutthrough_status": "off"')
    assert sandbox.cmdlog() == [[CUTTHROUGH, "start"], [CUTTHROUGH, "stop"]]


def test_cut_through_failing_script_keeps_the_status(daemon, sandbox):
    sandbox.stub(CUTTHROUGH, "exit 1\n")
    assert revalidate(sandbox, {"cut_through": {"action": "start"}}) == INTERNAL
    assert get(sandbox, "cutthrough_status") == answer(b'"cutthrough_status": "off"')


def test_cut_through_common_target_shape(daemon, sandbox):
    sandbox.stub(CUTTHROUGH, "exit 0\n")
    sandbox.clear_cmdlog()
    before = daemon.stdout()
    assert revalidate(sandbox, {"cut_through": {"action": "restart"}}) == SUCCESS
    assert revalidate(sandbox, {"cut_through": {}}) == SUCCESS
    assert revalidate(sandbox, {"cut_through": "start"}) == INVALID
    assert stdout_since(sandbox, daemon, before) == "Unexpected json type.\n"
    assert sandbox.cmdlog() == []


# TDLS without a supplicant


def test_tdls_items_before_any_peer(daemon, sandbox):
    assert get(sandbox, "s_scantdlsdeviceresult", "s_tdlsstatus") == answer(
        b'"s_scantdlsdeviceresult": [ ]',
        b'"s_tdlsstatus": { "state": "idle", "peer": "" }')


def test_tdls_without_supplicant_fails(daemon, sandbox):
    before = daemon.stdout()
    assert get(sandbox, "s_scantdlsdevice") == answer(b'"s_scantdlsdevice": "failed"')
    assert revalidate(sandbox, {"tdls": {"action": "start", "peer": "aa:bb:cc:dd:ee:ff"}}) \
        == INTERNAL
    assert revalidate(sandbox, {"tdls": {"action": "stop"}}) == SUCCESS
    out = stdout_since(sandbox, daemon, before)
    assert out == ("WPACli: Not connected to wpa_supplicant, command TDLS_DISCOVER"
                   " ff:ff:ff:ff:ff:ff dropped\n"
                   "WPACli: Not connected to wpa_supplicant, command TDLS_SETUP"
                   " aa:bb:cc:dd:ee:ff dropped\n")
    assert get(sandbox, "s_tdlsstatus") == answer(
        b'"s_tdlsstatus": { "state": "idle", "peer": "" }')


@pytest.mark.parametrize("value", [{"action": "start"}, {"action": "start", "peer": "nobody"},
                                   {"action": "start", "peer": 5}])
def test_tdls_start_needs_a_peer(daemon, sandbox, value):
    assert revalidate(sandbox, {"tdls": value}) == INVALID


def test_tdls_common_target_shape(daemon, sandbox):
    before = daemon.stdout()
    assert revalidate(sandbox, {"tdls": {"action": "pause"}}) == SUCCESS
    assert revalidate(sandbox, {"tdls": ["start"]}) == INVALID
    assert stdout_since(sandbox, daemon, before) == "Unexpected json type.\n"


# TDLS through the supplicant's control interface (a fake supplicant; the
# events reach the handler through Part 5.1's dispatch and Part 5.2's
# registration of the "TDLS" prefix).

WPA_SOCKET = "/var/run/wpa_supplicant/mlan0"
WPA_LOG = "/tmp/fakewpa.log"
PEER = "02:1a:11:f0:4c:7e"
PEER2 = "02:1a:11:f0:4c:80"


class FakeWpa:
    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.write(WPA_LOG, b"")
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakewpa.py")
        self.proc = sandbox.popen(["/usr/bin/python3", script, WPA_SOCKET, WPA_LOG],
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
        self.proc.stdin.close()
        self.proc.wait(timeout=30)
        self.sandbox.remove(WPA_SOCKET)


@pytest.fixture
def fakewpa(daemon, sandbox):
    fake = FakeWpa(sandbox)
    try:
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        yield fake
    finally:
        revalidate(sandbox, {"wpa": {"action": "stop"}})
        fake.stop()


def status(sandbox):
    return get(sandbox, "s_tdlsstatus")


def tdls_status(state, peer):
    return answer(b'"s_tdlsstatus": { "state": "%s", "peer": "%s" }'
                  % (state.encode(), peer.encode()))


def test_tdls_discovery_setup_link_and_teardown(daemon, sandbox, fakewpa):
    assert get(sandbox, "s_scantdlsdevice") == answer(b'"s_scantdlsdevice": "scanning"')
    before = daemon.stdout()
    fakewpa.send(f"event <3>TDLS-DISC-RESP {PEER}")
    fakewpa.send(f"event <3>TDLS-DISC-RESP {PEER2}")
    fakewpa.send(f"event <3>TDLS-DISC-RESP {PEER}")
    found = answer(b'"s_scantdlsdeviceresult": [ { "mac": "%s" }, { "mac": "%s" } ]'
                   % (PEER.encode(), PEER2.encode()))
    wait_for(lambda: get(sandbox, "s_scantdlsdeviceresult") == found)
    assert stdout_since(sandbox, daemon, before) == "".join(
        f"WPACli: Event from WPA [<3>TDLS-DISC-RESP {p}]\nTDLS: Discovered peer {p}\n"
        for p in (PEER, PEER2, PEER))

    # "start" without a peer takes the first discovered one
    assert revalidate(sandbox, {"tdls": {"action": "start"}}) == SUCCESS
    assert status(sandbox) == tdls_status("connecting", PEER)
    # while it is being set up, any further set-up is refused, also the one
    # of Part 4.2's "TDLS_EVENT_RESOLVE_SUCCESS"
    before = daemon.stdout()
    assert revalidate(sandbox, {"tdls": {"action": "start", "peer": PEER2}}) == INTERNAL
    assert revalidate(sandbox, {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS",
                                              "arg": PEER2}}) == SUCCESS
    assert stdout_since(sandbox, daemon, before) == \
        "TDLS: Connecting, reject TDLS setup request\n" * 2

    fakewpa.send(f"event <3>TDLS-LINK-UP {PEER}")
    wait_for(lambda: status(sandbox) == tdls_status("connected", PEER))
    assert revalidate(sandbox, {"tdls": {"action": "stop"}}) == SUCCESS
    assert status(sandbox) == tdls_status("idle", "")
    assert fakewpa.commands() == ["TDLS_DISCOVER ff:ff:ff:ff:ff:ff", f"TDLS_SETUP {PEER}",
                                  f"TDLS_TEARDOWN {PEER}"]


def test_tdls_link_down_event_ends_the_link(daemon, sandbox, fakewpa):
    assert revalidate(sandbox, {"tdls": {"action": "start", "peer": PEER2}}) == SUCCESS
    fakewpa.send(f"event <3>TDLS-LINK-UP {PEER2}")
    wait_for(lambda: status(sandbox) == tdls_status("connected", PEER2))
    fakewpa.send(f"event <3>TDLS-LINK-DOWN {PEER2}")
    wait_for(lambda: status(sandbox) == tdls_status("idle", ""))
    # a new set-up is accepted again
    assert revalidate(sandbox, {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS",
                                              "arg": PEER}}) == SUCCESS
    assert status(sandbox) == tdls_status("connecting", PEER)
    assert revalidate(sandbox, {"tdls": {"action": "stop"}}) == SUCCESS
    assert fakewpa.commands() == [f"TDLS_SETUP {PEER2}", f"TDLS_SETUP {PEER}",
                                  f"TDLS_TEARDOWN {PEER}"]


def test_tdls_refused_setup_by_the_supplicant(daemon, sandbox, fakewpa):
    """A request the supplicant does not answer times out (the library's
    time-out): the set-up fails and no link is being set up."""
    fakewpa.send("silent TDLS_SETUP " + PEER)
    request = {"method": "revalidate",
               "arguments": {"tdls": {"action": "start", "peer": PEER}}}
    assert sandbox.request(json.dumps(request).encode(), timeout=60) == INTERNAL
    assert status(sandbox) == tdls_status("idle", "")

"""The supplicant control client and the "wpa" target, against a scripted fake supplicant."""
import json
import threading

import pytest

from helpers import revalidate, stdout_since, wait_for
from wifi_util import (DROPPED, INTERNAL, INVALID, NOT_OBJECT, NULL_ARG, SUCCESS, WPA_SOCKET, Effects, FakeWpa,
                       conf, fakewpa)  # noqa: F401

START, STOP, DISCOVER = {"wpa": {"action": "start"}}, {"wpa": {"action": "stop"}}, "TDLS_DISCOVER ff:ff:ff:ff:ff:ff"
SELECTED = "WPACli: Selected interface 'mlan0'\n"
INIT_OUT = SELECTED + "WPACli: Initialize interface for wpa_supplicant successful\n"
CONNECTED, SCAN = "<3>CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:00:01 completed", "<3>CTRL-EVENT-SCAN-STARTED "
UDHCPC = ["/usr/sbin/udhcpc", "-i", "mlan0", "-H", "hxsim", "-p", "/var/run/udhcpc.pid", "-b", "-s",
          "/etc/app/gw_udhcpc.script", "-S"]
STALE = ("import os, socket; os.makedirs('/var/run/wpa_supplicant', exist_ok=True); "
         "socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind('%s')" % WPA_SOCKET)


def printed(event):
    return "WPACli: Event from WPA [%s]\n" % event


def udhcpc(sandbox):
    return [c for c in sandbox.cmdlog() if c[0].endswith("/udhcpc")]


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
    (CONNECTED, "", 1), ("CTRL-EVENT-CONNECTED - x", "", 1), ("<3>CTRL-EVENT-CONNECTED", "", 0),
    ("<3CTRL-EVENT-CONNECTED - x", "", 0), ("<3>CTRL-EVENT-SCAN-RESULTS ", "", 0), ("<3>CTRL-EVENT-BSS-REMOVED 0 x", None, 0),
    ("<3>TDLS-DISC-RESP peer=02:00:00:00:00:02", "TDLS: Discovered peer 02:00:00:00:00:02\n", 0), ("TDLS-DISC-RESP ", "", 0),
    ("<3>TDLS-LINK-UP 02:00:00:00:00:02", "TDLS: Link up\n", 0), ("<3>TDLS-LINK-DOWN 0", "TDLS: Link down\n", 0)])
def test_event_reaches_the_handlers_of_its_prefix(daemon, sandbox, fakewpa, event, extra, runs):
    before = daemon.stdout()
    sandbox.clear_cmdlog()
    fakewpa.tell("event " + event)
    fakewpa.tell("event " + SCAN)
    wait_for(lambda: printed(SCAN) in daemon.stdout()[len(before):] and len(udhcpc(sandbox)) >= runs)
    assert stdout_since(sandbox, daemon, before) == ("" if extra is None else printed(event) + extra) + printed(SCAN)
    assert udhcpc(sandbox) == [UDHCPC] * runs


@pytest.mark.parametrize("how, result, out", [
    ("sent", "scanning", ""), ("timeout", "failed", "WPACli: Show event message from WPA: [%s]\nWPACli: '%s' command "
                                "timed out.\nWPACli: wpa_cli_send: Failed, -2\n%s" % (SCAN, DISCOVER, printed(SCAN))),
    ("gone", "failed", f"WPACli: '{DISCOVER}' command failed.\nWPACli: wpa_cli_send: Failed, -1\n"),
    ("detached", "failed", DROPPED % DISCOVER)])
def test_command_reply_is_consumed_and_failures_reported(daemon, sandbox, fakewpa, how, result, out):
    {"gone": fakewpa.stop, "detached": lambda: revalidate(sandbox, STOP),
     "timeout": lambda: fakewpa.tell("silent " + DISCOVER)}.get(how, lambda: 0)()
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


def test_stop_detaches_and_closes(daemon, sandbox, fakewpa):
    monitor = fakewpa.log()[0][0]
    assert revalidate(sandbox, STOP) == SUCCESS
    assert fakewpa.log()[-1] == (monitor, "DETACH") and not sandbox.exists(monitor)
    before = daemon.stdout()
    fakewpa.tell("event-to-all " + CONNECTED)
    assert stdout_since(sandbox, daemon, before) == ""


@pytest.mark.parametrize("driver, value, reply, out", [("wired", None, INVALID, NULL_ARG), ("wired", {}, INTERNAL, ""),
    ("wired", {"action": 5}, INTERNAL, ""), ("wired", {"action": "restart"}, SUCCESS, "")] + [
    ("wired", v, INVALID, NOT_OBJECT) for v in (5, "start", ["start"])] + [
    (d, START["wpa"], INTERNAL, "") for d in ("wired;reboot", "", "$(x)", "WIRED", "a" * 64)])
def test_wpa_target_refusals(daemon, sandbox, conf, driver, value, reply, out):
    conf("wl_wpa_driver", driver, "rtconf")
    sandbox.remove("/etc/wpa_supplicant.conf")
    assert (lambda e: (e.reply, e.out, e.cmds))(Effects(sandbox, daemon, {"wpa": value})) == (reply, out, [])
    assert not sandbox.exists("/etc/wpa_supplicant.conf") and not sandbox.exists(WPA_SOCKET)

"""The media and device services: what each action runs, and the stored FM frequency that reaches the shell."""
import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, ask
from helpers import pref_set, store_restore, wait_for

D, FM, USB, FREQ = "/etc/demo/", "/etc/app/gw_fm.sh", "/etc/app/gw_usbcharger.sh", ("sysconf", "fm_freq")
WD, WD_OFF, SMB, SMB_OFF, DLNA, DLNA_OFF = ([D + s + ".sh"] for s in ("webdav_start", "webdav_stop", "samba_start", "samba_stop",
                                                                    "minidlna_start", "minidlna_stop"))
ACTIONS = {"webdav": {"start": [WD], "stop": [WD_OFF], "restart": [WD_OFF, WD]},
           "samba": {"start": [SMB], "stop": [SMB_OFF], "restart": [SMB_OFF, SMB]},
           "dlna": {"start": [DLNA_OFF, DLNA], "stop": [DLNA_OFF], "restart": [DLNA_OFF, DLNA]},  # started in the background
           "fm": {"start": [[FM, "start"]], "stop": [[FM, "stop"]], "restart": [[FM, "stop"], [FM, "start"]]},
           "usbcharger": {"on": [[USB, "on"]], "off": [[USB, "off"]]}}
OTHER = [{}, {"action": "START"}, {"action": "start "}, {"action": ""}, {"action": 1}, {"action": None}, {"action": ["start"]},
         {"cmd": "start"}] + [{"action": a} for a in ("start", "on", "off", "set_freq")]
SET, KEEP, BAD = {"fm": {"action": "set_freq"}}, b'"87.5"\0', "Invalid FM frequency.\n"
ROWS = [
    *[({t: {"action": a}}, KEEP, SUCCESS, "", c, f) for t in ACTIONS for a, c in ACTIONS[t].items() for f in (0, 1)],
    *[({t: None}, KEEP, INVALID, NULL, [], 0) for t in ACTIONS],
    *[({t: v}, KEEP, INVALID, TYPE, [], 0) for t in ACTIONS for v in (0, 87.5, "start", [], [{}], True)],
    *[({t: v}, KEEP, SUCCESS, "", [], 0) for t in ACTIONS for v in OTHER
      if v.get("action") not in list(ACTIONS[t]) + ["set_freq"] * (t == "fm")],
    ({"samba": {"action": "stop", "path": "/; reboot"}}, KEEP, SUCCESS, "", [SMB_OFF], 0),
    *[(SET, f + b"\0", SUCCESS, "", [[FM, "set_freq", f.strip(b'"').decode()]], 0)
      for f in (b'87.5', b'"107.9"', b'76', b'"108"', b'108.0', b'"76.0"')],
    *[(SET, f, INTERNAL, "fm_freq is not set.\n", [], 0) for f in (None, b"\0")],
    *[(SET, f + b"\0", INTERNAL, "fm_freq is not valid JSON.\n", [], 0) for f in (b"abc", b"{", b'"87.5')],
    *[(SET, f + b"\0", INTERNAL, BAD, [], 0) for f in (
        b'"abc"', b'"87.55"', b'87.55', b'"120"', b'120', b'"75.9"', b'"108.1"', b'"87.5; reboot"', b'"$(id)"', b'"87.5`id`"',
        b'"87.5\\n"', b'" 87.5"', b'""', b'"87."', b'".5"', b'"87,5"', b'"1087.5"', b'-87.5', b'8.75e1', b'true', b'{ "freq": 87.5 }',
        b'[ 87.5 ]')],
    ({"usbcharger": {"action": "on"}, "samba": {"action": "restart"}, "dlna": {"action": "stop"}, **SET,
      "webdav": {"action": "start"}}, KEEP, SUCCESS, "", [[USB, "on"], SMB_OFF, SMB, DLNA_OFF, [FM, "set_freq", "87.5"], WD], 0),
    ({"webdav": {"action": "stop"}, **SET, "samba": {"action": "start"}}, b'"120"\0', INTERNAL, BAD, [WD_OFF], 0),  # ends the request
]


@pytest.mark.parametrize("req, freq, want, out, cmds, failing", ROWS)
def test_media_request(sandbox, daemon, req, freq, want, out, cmds, failing):
    assert sandbox.store_get(*FREQ) == KEEP  # the factory value
    store_restore(sandbox, *FREQ, freq)
    for argv in cmds:  # a failing script is not reported
        sandbox.stub_exit(argv[0], failing)
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, req, out=out)[0] == want
    wait_for(lambda: len(sandbox.cmdlog()) >= len(cmds))
    assert sandbox.cmdlog() == cmds
    store_restore(sandbox, *FREQ, KEEP)


def test_set_freq_after_pref_set_of_a_number(sandbox, daemon):
    assert pref_set(sandbox, {"fm_freq": 99.1}) == SUCCESS and sandbox.store_get(*FREQ) == b"99.1\0"
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, SET, out="")[0] == SUCCESS and sandbox.cmdlog() == [[FM, "set_freq", "99.1"]]

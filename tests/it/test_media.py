"""The media and device services (webdav, samba, dlna, fm, usbcharger): what each action runs, and the
stored FM frequency that reaches the shell."""
import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, TYPE, ask
from helpers import pref_set, store_restore, wait_for

D, FM, USB, FREQ = "/etc/demo/", "/etc/app/gw_fm.sh", "/etc/app/gw_usbcharger.sh", ("sysconf", "fm_freq")
WD_ON, WD_OFF, SMB_ON, SMB_OFF = [D + "webdav_start.sh"], [D + "webdav_stop.sh"], [D + "samba_start.sh"], [D + "samba_stop.sh"]
DLNA_ON, DLNA_OFF = [D + "minidlna_start.sh"], [D + "minidlna_stop.sh"]  # started in the background
ACTIONS = {
    "webdav": {"start": [WD_ON], "stop": [WD_OFF], "restart": [WD_OFF, WD_ON]},
    "samba": {"start": [SMB_ON], "stop": [SMB_OFF], "restart": [SMB_OFF, SMB_ON]},
    "dlna": {"start": [DLNA_OFF, DLNA_ON], "stop": [DLNA_OFF], "restart": [DLNA_OFF, DLNA_ON]},
    "fm": {"start": [[FM, "start"]], "stop": [[FM, "stop"]], "restart": [[FM, "stop"], [FM, "start"]]},
    "usbcharger": {"on": [[USB, "on"]], "off": [[USB, "off"]]},
}
KEEP, BAD_FREQ = object(), "Invalid FM frequency.\n"
OTHER = [{}, {"action": "START"}, {"action": "start "}, {"action": ""}, {"action": 1}, {"action": None},
         {"action": ["start"]}, {"cmd": "start"}] + [{"action": a} for a in ("start", "on", "off", "set_freq")]


def r(id, req, want=SUCCESS, out="", cmds=(), freq=KEEP, failing=False):
    return pytest.param(req, freq, want, out, list(cmds), failing, id=id)


ROWS = [
    *[r(f"{t}-{a}", {t: {"action": a}}, cmds=c) for t in ACTIONS for a, c in ACTIONS[t].items()],
    *[r(f"{t}-failing", {t: {"action": a}}, cmds=ACTIONS[t][a], failing=True) for t, a in
      [("webdav", "restart"), ("samba", "start"), ("dlna", "start"), ("fm", "stop"), ("usbcharger", "on")]],
    *[r(f"{t}-null", {t: None}, INVALID, NULL) for t in ACTIONS],
    *[r(f"{t}-{v!r}", {t: v}, INVALID, TYPE) for t in ACTIONS for v in (0, 87.5, "start", [], [{}], True)],
    *[r(f"{t}-other-{v}", {t: v}) for t in ACTIONS for v in OTHER
      if v.get("action") not in list(ACTIONS[t]) + ["set_freq"] * (t == "fm")],
    r("extra-member", {"samba": {"action": "stop", "path": "/; reboot"}}, cmds=[SMB_OFF]),
    *[r(f"freq-{f!r}", {"fm": {"action": "set_freq"}}, cmds=[[FM, "set_freq", t]], freq=f + b"\0") for f, t in [
        (b'87.5', "87.5"), (b'"107.9"', "107.9"), (b'76', "76"), (b'"108"', "108"), (b'108.0', "108.0"),
        (b'"76.0"', "76.0")]],
    r("freq-missing", {"fm": {"action": "set_freq"}}, INTERNAL, "fm_freq is not set.\n", freq=None),
    r("freq-empty", {"fm": {"action": "set_freq"}}, INTERNAL, "fm_freq is not set.\n", freq=b"\0"),
    *[r(f"freq-not-json-{f!r}", {"fm": {"action": "set_freq"}}, INTERNAL, "fm_freq is not valid JSON.\n",
        freq=f + b"\0") for f in (b"abc", b"{", b'"87.5')],
    *[r(f"freq-refused-{f!r}", {"fm": {"action": "set_freq"}}, INTERNAL, BAD_FREQ, freq=f + b"\0") for f in (
        b'"abc"', b'"87.55"', b'87.55', b'"120"', b'120', b'"75.9"', b'"108.1"', b'"87.5; reboot"', b'"$(id)"',
        b'"87.5`id`"', b'"87.5\\n"', b'" 87.5"', b'""', b'"87."', b'".5"', b'"87,5"', b'"1087.5"', b'-87.5',
        b'8.75e1', b'true', b'{ "freq": 87.5 }', b'[ 87.5 ]')],
    r("in-request-order", {"usbcharger": {"action": "on"}, "samba": {"action": "restart"}, "dlna": {"action": "stop"},
                           "fm": {"action": "set_freq"}, "webdav": {"action": "start"}},
      cmds=[[USB, "on"], SMB_OFF, SMB_ON, DLNA_OFF, [FM, "set_freq", "87.5"], WD_ON]),
    r("failure-ends-request", {"webdav": {"action": "stop"}, "fm": {"action": "set_freq"},
                               "samba": {"action": "start"}}, INTERNAL, BAD_FREQ, [WD_OFF], freq=b'"120"\0'),
]


@pytest.fixture(scope="module")
def factory_freq(sandbox, daemon):
    assert sandbox.store_get(*FREQ) == b'"87.5"\0'
    return b'"87.5"\0'


@pytest.mark.parametrize("req, freq, want, out, cmds, failing", ROWS)
def test_media_request(sandbox, daemon, factory_freq, req, freq, want, out, cmds, failing):
    store_restore(sandbox, *FREQ, factory_freq if freq is KEEP else freq)
    for argv in cmds:
        sandbox.stub_exit(argv[0], 1 if failing else 0)
    sandbox.clear_cmdlog()
    reply, got = ask(sandbox, daemon, req)
    wait_for(lambda: len(sandbox.cmdlog()) >= len(cmds))
    assert (reply, got, sandbox.cmdlog()) == (want, out, cmds)


def test_set_freq_after_pref_set_of_a_number(sandbox, daemon):
    assert pref_set(sandbox, {"fm_freq": 99.1}) == SUCCESS
    assert sandbox.store_get(*FREQ) == b"99.1\0"
    sandbox.clear_cmdlog()
    assert ask(sandbox, daemon, {"fm": {"action": "set_freq"}}) == (SUCCESS, "")
    assert sandbox.cmdlog() == [[FM, "set_freq", "99.1"]]

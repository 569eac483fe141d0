"""The media and device wrappers, rows "-" of Part 2.2: "webdav", "samba",
"dlna", "fm" and "usbcharger", through the real daemon. Their scripts are the
sandbox's stubs, so the command log shows exactly what each action ran.
"""
import pytest

from helpers import console_after, pref_set, revalidate, stdout_since, store_restore, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

NULL_LINE = "Input parameter is NULL.\n"
TYPE_LINE = "Unexpected json type.\n"

WEBDAV_START = ["/etc/demo/webdav_start.sh"]
WEBDAV_STOP = ["/etc/demo/webdav_stop.sh"]
SAMBA_START = ["/etc/demo/samba_start.sh"]
SAMBA_STOP = ["/etc/demo/samba_stop.sh"]
DLNA_STOP = ["/etc/demo/minidlna_stop.sh"]
DLNA_START = ["/etc/demo/minidlna_start.sh"]  # run in the background ("&")
FM = "/etc/app/gw_fm.sh"
USB = "/etc/app/gw_usbcharger.sh"

# target -> {action: the command log it gives}, every action of each target.
ACTIONS = {
    "webdav": {"start": [WEBDAV_START], "stop": [WEBDAV_STOP],
               "restart": [WEBDAV_STOP, WEBDAV_START]},
    "samba": {"start": [SAMBA_START], "stop": [SAMBA_STOP],
              "restart": [SAMBA_STOP, SAMBA_START]},
    "dlna": {"start": [DLNA_STOP, DLNA_START], "stop": [DLNA_STOP],
             "restart": [DLNA_STOP, DLNA_START]},
    "fm": {"start": [[FM, "start"]], "stop": [[FM, "stop"]],
           "restart": [[FM, "stop"], [FM, "start"]]},
    "usbcharger": {"on": [[USB, "on"]], "off": [[USB, "off"]]},
}
TARGETS = sorted(ACTIONS)
TARGET_ACTIONS = [(t, a) for t in TARGETS for a in sorted(ACTIONS[t])]

NOT_OBJECTS = [0, 87.5, "start", [], [{"action": "start"}], True]
NOT_OBJECT_IDS = ["int", "double", "string", "empty-array", "array", "boolean"]

# Actions that are no action of any of these targets: ignored, success.
OTHER_ACTIONS = [{}, {"action": "START"}, {"action": "start "}, {"action": "update"},
                 {"action": ""}, {"action": 1}, {"action": None}, {"action": ["start"]},
                 {"cmd": "start"}]
OTHER_IDS = ["missing", "upper-case", "trailing-space", "update", "empty", "number",
             "null", "array", "other-member"]

FREQ = ("sysconf", "fm_freq")


@pytest.fixture
def media(daemon, sandbox):
    """The factory fm_freq comes back after each test; an empty command log."""
    saved = sandbox.store_get(*FREQ)
    sandbox.clear_cmdlog()
    yield
    store_restore(sandbox, *FREQ, saved)


class Run:
    """One revalidate request: its reply, what it printed, what it ran
    (waiting for `count` commands, background ones included)."""

    def __init__(self, sandbox, daemon, arguments, count=0):
        before = daemon.stdout()
        console = sandbox.console()
        self.reply = revalidate(sandbox, arguments)
        self.out = stdout_since(sandbox, daemon, before)
        wait_for(lambda: len(sandbox.cmdlog()) >= count)
        self.cmds = sandbox.cmdlog()
        assert console_after(sandbox, console) == ""


def set_freq(sandbox, daemon, raw):
    """fm "set_freq" with fm_freq stored as the raw bytes `raw` (None: absent)."""
    store_restore(sandbox, *FREQ, raw)
    return Run(sandbox, daemon, {"fm": {"action": "set_freq"}})


def test_factory_fm_freq(media, sandbox):
    assert sandbox.store_get(*FREQ) == b'"87.5"\0'


# Every action of every target


@pytest.mark.parametrize("target,action", TARGET_ACTIONS)
def test_action_runs_its_scripts(media, daemon, sandbox, target, action):
    expected = ACTIONS[target][action]
    run = Run(sandbox, daemon, {target: {"action": action}}, len(expected))
    assert (run.reply, run.out, run.cmds) == (SUCCESS, "", expected)


@pytest.mark.parametrize("target", TARGETS)
def test_failing_scripts_are_ignored(media, daemon, sandbox, target):
    action = sorted(ACTIONS[target])[0]
    expected = ACTIONS[target][action]
    for argv in expected:
        sandbox.stub_exit(argv[0], 1)
    try:
        run = Run(sandbox, daemon, {target: {"action": action}}, len(expected))
    finally:
        for argv in expected:
            sandbox.stub_exit(argv[0], 0)
    assert run.reply == SUCCESS
    assert run.cmds == expected


# The common shape: null, not an object, no known action

# value -> (reply, printed lines): nothing of these runs a command.
SHAPE = ([(None, (INVALID, NULL_LINE))] +
         [(v, (INVALID, TYPE_LINE)) for v in NOT_OBJECTS] +
         [(v, (SUCCESS, "")) for v in OTHER_ACTIONS])
SHAPE_IDS = ["null"] + NOT_OBJECT_IDS + OTHER_IDS


@pytest.mark.parametrize("value,expected", SHAPE, ids=SHAPE_IDS)
@pytest.mark.parametrize("target", TARGETS)
def test_common_shape(media, daemon, sandbox, target, value, expected):
    run = Run(sandbox, daemon, {target: value})
    assert (run.reply, run.out, run.cmds) == expected + ([],)


@pytest.mark.parametrize("target", ["webdav", "samba", "dlna", "fm"])
def test_usbcharger_words_are_no_service_actions(media, daemon, sandbox, target):
    for action in ("on", "off"):
        assert Run(sandbox, daemon, {target: {"action": action}}).reply == SUCCESS
    assert sandbox.cmdlog() == []


def test_service_words_are_no_usbcharger_actions(media, daemon, sandbox):
    for action in ("start", "stop", "restart", "set_freq"):
        assert Run(sandbox, daemon, {"usbcharger": {"action": action}}).reply == SUCCESS
    assert sandbox.cmdlog() == []


@pytest.mark.parametrize("target", ["webdav", "samba", "dlna", "usbcharger"])
def test_set_freq_is_fm_only(media, daemon, sandbox, target):
    run = Run(sandbox, daemon, {target: {"action": "set_freq"}})
    assert run.reply == SUCCESS
    assert run.cmds == []


def test_extra_members_are_ignored(media, daemon, sandbox):
    run = Run(sandbox, daemon, {"samba": {"action": "stop", "path": "/; reboot"}})
    assert run.reply == SUCCESS
    assert run.cmds == [SAMBA_STOP]


# fm "set_freq": the stored frequency reaches the shell


@pytest.mark.parametrize("raw,freq", [
    (b'87.5\0', "87.5"), (b'"107.9"\0', "107.9"), (b'"87.5"\0', "87.5"),
    (b'76\0', "76"), (b'"108"\0', "108"), (b'108.0\0', "108.0"), (b'"76.0"\0', "76.0"),
], ids=["number", "string", "factory", "lowest", "highest", "highest-tenths", "lowest-tenths"])
def test_set_freq_runs_script(media, daemon, sandbox, raw, freq):
    run = set_freq(sandbox, daemon, raw)
    assert (run.reply, run.out, run.cmds) == (SUCCESS, "", [[FM, "set_freq", freq]])


def test_set_freq_after_pref_set_of_a_number(media, daemon, sandbox):
    assert pref_set(sandbox, {"fm_freq": 99.1}) == SUCCESS
    assert sandbox.store_get(*FREQ) == b"99.1\0"
    run = Run(sandbox, daemon, {"fm": {"action": "set_freq"}})
    assert run.reply == SUCCESS
    assert run.cmds == [[FM, "set_freq", "99.1"]]


def test_set_freq_without_key_fails(media, daemon, sandbox):
    run = set_freq(sandbox, daemon, None)
    assert (run.reply, run.out, run.cmds) == (INTERNAL, "fm_freq is not set.\n", [])


@pytest.mark.parametrize("raw,line", [
    (b"abc\0", "fm_freq is not valid JSON.\n"), (b"{\0", "fm_freq is not valid JSON.\n"),
    (b'"87.5\0', "fm_freq is not valid JSON.\n"), (b"\0", "fm_freq is not set.\n"),
], ids=["word", "brace", "open-quote", "empty"])
def test_set_freq_with_stored_text_not_json_fails(media, daemon, sandbox, raw, line):
    run = set_freq(sandbox, daemon, raw)
    assert (run.reply, run.out, run.cmds) == (INTERNAL, line, [])


@pytest.mark.parametrize("raw", [
    b'"abc"\0', b'"87.55"\0', b'87.55\0', b'"120"\0', b'120\0', b'"75.9"\0',
    b'"108.1"\0', b'"87.5; reboot"\0', b'"$(id)"\0', b'"87.5`id`"\0',
    b'"87.5\\n"\0', b'" 87.5"\0', b'""\0', b'"87."\0', b'".5"\0', b'"87,5"\0',
    b'"1087.5"\0', b'-87.5\0', b'8.75e1\0', b'true\0', b'{ "freq": 87.5 }\0',
    b'[ 87.5 ]\0',
], ids=["word", "two-decimals", "two-decimals-number", "too-high", "too-high-number",
        "below-76", "above-108", "command", "substitution", "backquotes", "newline",
        "leading-space", "empty-string", "no-decimal-digit", "no-integer-part", "comma",
        "four-digits", "negative", "exponent", "boolean", "object", "array"])
def test_set_freq_refuses_what_is_no_frequency(media, daemon, sandbox, raw):
    run = set_freq(sandbox, daemon, raw)
    assert (run.reply, run.out, run.cmds) == (INTERNAL, "Invalid FM frequency.\n", [])


# Several targets in one request (Part 2.4 walks them in order)


def test_several_targets_run_in_request_order(media, daemon, sandbox):
    run = Run(sandbox, daemon, {"usbcharger": {"action": "on"},
                                "samba": {"action": "restart"},
                                "dlna": {"action": "stop"},
                                "fm": {"action": "set_freq"},
                                "webdav": {"action": "start"}})
    assert (run.reply, run.out) == (SUCCESS, "")
    assert run.cmds == [[USB, "on"], SAMBA_STOP, SAMBA_START, DLNA_STOP,
                        [FM, "set_freq", "87.5"], WEBDAV_START]


def test_failing_target_stops_the_request(media, daemon, sandbox):
    sandbox.store_set(*FREQ, b'"120"\0')
    run = Run(sandbox, daemon, {"webdav": {"action": "stop"},
                                "fm": {"action": "set_freq"},
                                "samba": {"action": "start"}})
    assert (run.reply, run.out, run.cmds) == (INTERNAL, "Invalid FM frequency.\n", [WEBDAV_STOP])

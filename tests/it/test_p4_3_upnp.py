"""Part 4.3: the UPnP port-mapping service, through the real daemon. The
device programs (killall, iptables, miniupnpd) are the sandbox's stubs, so the
command log shows exactly what the daemon ran; the generated
"/var/tmp/miniupnpd.conf" is compared byte for byte, and checked with Debian's
real miniupnpd when the host has it.
"""
import pytest

from helpers import console_after, pref_set, revalidate, stdout_since, store_restore, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'

CONF = "/var/tmp/miniupnpd.conf"
LEASES = "/var/tmp/upnp.leases"
PID = "/var/run/miniupnpd.pid"
START = "/usr/sbin/miniupnpd -f /var/tmp/miniupnpd.conf"

STOP_CMDS = [
    ["/usr/bin/killall", "miniupnpd"],
    ["/opt/sbin/iptables", "-t", "nat", "-F", "UPNP_NAT_PREROUTING_CHAIN"],
    ["/opt/sbin/iptables", "-F", "UPNP_FORWARD_CHAIN"],
]
START_CMD = ["/usr/sbin/miniupnpd", "-f", "/var/tmp/miniupnpd.conf"]

FIXED_LINES = ("secure_mode=yes\n"
               "upnp_forward_chain=UPNP_FORWARD_CHAIN\n"
               "upnp_nat_chain=UPNP_NAT_PREROUTING_CHAIN\n"
               "system_uptime=yes\n"
               "lease_file=/var/tmp/upnp.leases\n")


def conf_text(wan_if, lan_ipaddr, natpmp):
    return (f"ext_ifname={wan_if}\n"
            f"listening_ip={lan_ipaddr}\n"
            "enable_upnp=yes\n"
            f"enable_natpmp={natpmp}\n" + FIXED_LINES)


KEYS = [("sysconf", "upnp"), ("sysconf", "upnp_natpmp"), ("sysconf", "lan_ipaddr"),
        ("rtconf", "wan_if")]


@pytest.fixture
def upnp(daemon, sandbox):
    """Factory keys and stubs come back after each test; no generated files,
    an empty command log."""
    saved = [(store, key, sandbox.store_get(store, key)) for store, key in KEYS]
    for p in (CONF, LEASES, PID):
        sandbox.remove(p)
    sandbox.clear_cmdlog()
    yield
    for store, key, raw in saved:
        store_restore(sandbox, store, key, raw)
    for p in ("/usr/bin/killall", "/opt/sbin/iptables", "/usr/sbin/miniupnpd"):
        sandbox.stub(p, "exit 0\n")


class Run:
    """One revalidate request: its reply, what it printed, what it ran."""

    def __init__(self, sandbox, daemon, value):
        before = daemon.stdout()
        console = sandbox.console()
        self.reply = revalidate(sandbox, {"upnp": value})
        self.out = stdout_since(sandbox, daemon, before)
        self.cmds = sandbox.cmdlog()
        assert console_after(sandbox, console) == ""


def upnp_on(sandbox):
    assert pref_set(sandbox, {"upnp": "on"}) == SUCCESS


# Edge cases worth testing


def test_wan_down_writes_empty_ext_ifname_and_starts(upnp, daemon, sandbox):
    upnp_on(sandbox)
    assert sandbox.store_get("rtconf", "wan_if") == b'""\0'
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert sandbox.read_text(CONF) == conf_text("", "192.168.100.1", "no")
    assert run.cmds == STOP_CMDS + [START_CMD]
    assert run.out == f"action:restart\nrevalidate_setUpnp\n{START}\n"


def test_off_and_restart_stops_flushes_removes_leases_starts_nothing(upnp, daemon, sandbox):
    sandbox.write(PID, "123\n")
    sandbox.write(LEASES, "TCP:8080:192.168.100.5:80:1700000000:game\n")
    assert sandbox.store_get("sysconf", "upnp") == b'"off"\0'
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert not sandbox.exists(PID)
    assert not sandbox.exists(LEASES)
    assert not sandbox.exists(CONF)
    assert run.out == "action:restart\nrevalidate_setUpnp\n"


# Writing the file and starting


def test_start_with_wan_up_and_natpmp_on(upnp, daemon, sandbox):
    upnp_on(sandbox)
    assert pref_set(sandbox, {"upnp_natpmp": "on", "lan_ipaddr": "10.0.0.1"}) == SUCCESS
    sandbox.store_set("rtconf", "wan_if", b'"mlan0"\0')
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    assert sandbox.read_text(CONF) == conf_text("mlan0", "10.0.0.1", "yes")
    assert run.cmds == STOP_CMDS + [START_CMD]
    assert run.out == f"action:start\nrevalidate_setUpnp\n{START}\n"


@pytest.mark.parametrize("natpmp", ["off", "On", "on ", "yes", ""])
def test_natpmp_other_than_on_is_no(upnp, daemon, sandbox, natpmp):
    upnp_on(sandbox)
    assert pref_set(sandbox, {"upnp_natpmp": natpmp}) == SUCCESS
    assert Run(sandbox, daemon, {"action": "restart"}).reply == SUCCESS
    assert sandbox.read_text(CONF) == conf_text("", "192.168.100.1", "no")


@pytest.mark.parametrize("value", ["On", "ON", "on ", "yes", "", 1, True],
                         ids=["On", "ON", "trailing-space", "yes", "empty", "one", "true"])
def test_upnp_other_than_on_starts_nothing(upnp, daemon, sandbox, value):
    assert pref_set(sandbox, {"upnp": value}) == SUCCESS
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert not sandbox.exists(CONF)


def test_renewal_truncates_an_older_file(upnp, daemon, sandbox):
    upnp_on(sandbox)
    sandbox.write(CONF, "x" * 2000 + "\n")
    assert Run(sandbox, daemon, {"action": "restart"}).reply == SUCCESS
    assert sandbox.read_text(CONF) == conf_text("", "192.168.100.1", "no")


def test_stop_steps_run_in_order(upnp, daemon, sandbox):
    """killall sees the pid file and the leases; both flushes run after the
    pid file is gone and before the leases go; the start comes last."""
    seen = "/var/log/hxsim/upnp-seen"
    probe = (f'p=n; [ -e {PID} ] && p=y; l=n; [ -e {LEASES} ] && l=y\n'
             f'echo "$(basename $0) pid=$p leases=$l" >> {seen}\n')
    for p in ("/usr/bin/killall", "/opt/sbin/iptables", "/usr/sbin/miniupnpd"):
        sandbox.stub(p, probe)
    sandbox.remove(seen)
    sandbox.write(PID, "123\n")
    sandbox.write(LEASES, "")
    upnp_on(sandbox)
    assert Run(sandbox, daemon, {"action": "restart"}).reply == SUCCESS
    assert sandbox.read_text(seen) == ("killall pid=y leases=y\n"
                                       "iptables pid=n leases=y\n"
                                       "iptables pid=n leases=y\n"
                                       "miniupnpd pid=n leases=n\n")


def test_failing_commands_still_succeed(upnp, daemon, sandbox):
    for p in ("/usr/bin/killall", "/opt/sbin/iptables", "/usr/sbin/miniupnpd"):
        sandbox.stub_exit(p, 1)
    upnp_on(sandbox)
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS + [START_CMD]


# The target's actions


@pytest.mark.parametrize("action", ["stop", "update", "Start", ""],
                         ids=["stop", "update", "Start", "empty"])
def test_other_actions_print_and_do_nothing(upnp, daemon, sandbox, action):
    upnp_on(sandbox)
    run = Run(sandbox, daemon, {"action": action})
    assert run.reply == SUCCESS
    assert run.cmds == []
    assert not sandbox.exists(CONF)
    assert run.out == f"action:{action}\nrevalidate_setUpnp\n"


def test_non_string_action_is_no_action(upnp, daemon, sandbox):
    """A target's action word is a JSON string; a number is no action at all."""
    upnp_on(sandbox)
    run = Run(sandbox, daemon, {"action": 5})
    assert (run.reply, run.cmds, run.out) == (SUCCESS, [], "")


@pytest.mark.parametrize("value", [{}, {"action": None}, {"Action": "start"}],
                         ids=["empty", "null-action", "other-member"])
def test_no_action_prints_and_does_nothing(upnp, daemon, sandbox, value):
    upnp_on(sandbox)
    run = Run(sandbox, daemon, value)
    assert run.reply == SUCCESS
    assert run.cmds == []
    assert run.out == ""


def test_null_argument_is_invalid(upnp, daemon, sandbox):
    run = Run(sandbox, daemon, None)
    assert run.reply == INVALID
    assert run.out == "Input parameter is NULL.\n"
    assert run.cmds == []


@pytest.mark.parametrize("value", ["restart", ["restart"], 1, True],
                         ids=["string", "array", "number", "true"])
def test_non_object_argument_is_invalid(upnp, daemon, sandbox, value):
    run = Run(sandbox, daemon, value)
    assert run.reply == INVALID
    assert run.out == "Unexpected json type.\n"
    assert run.cmds == []


# Failure handling: the service is not started, the file may be partial


def test_missing_wan_if_leaves_an_empty_file(upnp, daemon, sandbox):
    upnp_on(sandbox)
    sandbox.store_delete("rtconf", "wan_if")
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert sandbox.read_text(CONF) == ""
    assert run.out == "action:restart\nrevalidate_setUpnp\n"


def test_lan_ipaddr_not_json_stops_after_the_first_line(upnp, daemon, sandbox):
    upnp_on(sandbox)
    sandbox.store_set("sysconf", "lan_ipaddr", b"word\0")
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert sandbox.read_text(CONF) == "ext_ifname=\n"


def test_natpmp_not_json_stops_after_the_third_line(upnp, daemon, sandbox):
    upnp_on(sandbox)
    sandbox.store_set("sysconf", "upnp_natpmp", b"{\0")
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.cmds == STOP_CMDS
    assert sandbox.read_text(CONF) == \
        "ext_ifname=\nlistening_ip=192.168.100.1\nenable_upnp=yes\n"


def test_upnp_not_json_starts_nothing(upnp, daemon, sandbox):
    sandbox.store_set("sysconf", "upnp", b"on\0")
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert not sandbox.exists(CONF)


def test_unwritable_file_starts_nothing(upnp, daemon, sandbox):
    """A directory in the file's place: it cannot be opened for writing."""
    upnp_on(sandbox)
    sandbox.run(["mkdir", CONF], check=True)
    try:
        run = Run(sandbox, daemon, {"action": "restart"})
        assert run.reply == SUCCESS
        assert run.cmds == STOP_CMDS
    finally:
        sandbox.run(["rmdir", CONF], check=True)


# Safety (DESIGN.md section 8): a value with a newline would add a line to
# the file; it is refused like a value that does not parse.


def test_lan_ipaddr_with_a_newline_is_refused(upnp, daemon, sandbox):
    upnp_on(sandbox)
    assert pref_set(sandbox, {"lan_ipaddr": "192.168.100.1\nenable_natpmp=yes"}) == SUCCESS
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.cmds == STOP_CMDS
    assert sandbox.read_text(CONF) == "ext_ifname=\n"


def test_wan_if_with_a_newline_is_refused(upnp, daemon, sandbox):
    upnp_on(sandbox)
    sandbox.store_set("rtconf", "wan_if", b'"mlan0\\nsecure_mode=no"\0')
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.cmds == STOP_CMDS
    assert sandbox.read_text(CONF) == ""


# The real miniupnpd reads the generated file


def test_real_miniupnpd_reads_the_file(upnp, daemon, sandbox):
    """miniupnpd -d (foreground) names what it enabled in its start line:
    "NAT-PMP/PCP" for enable_natpmp=yes, "UPnP-IGD" for enable_upnp=yes, and
    the ext_ifname. A line it cannot read is reported as "invalid option in
    file ..." and "Error reading configuration file"."""
    real = sandbox.real("/usr/sbin/miniupnpd")
    if real is None:
        pytest.skip("Debian's miniupnpd (package miniupnpd-iptables) is not installed")
    upnp_on(sandbox)
    assert pref_set(sandbox, {"upnp_natpmp": "on"}) == SUCCESS
    sandbox.store_set("rtconf", "wan_if", b'"mlan0"\0')
    assert Run(sandbox, daemon, {"action": "restart"}).reply == SUCCESS
    log, pid = "/var/log/hxsim/miniupnpd.out", "/var/log/hxsim/miniupnpd.sh-pid"
    sandbox.remove(log)
    p = sandbox.popen(["sh", "-c", f"echo $$ > {pid}; exec {real} -d -f {CONF} "
                       f"-P /var/tmp/miniupnpd-test.pid > {log} 2>&1"])
    try:
        wait_for(lambda: sandbox.exists(log) and "listening on port" in sandbox.read_text(log))
    finally:
        sandbox.run(["sh", "-c", f"kill $(cat {pid})"])
        p.wait(30)
    out = sandbox.read_text(log)
    assert "starting NAT-PMP/PCP UPnP-IGD ext if mlan0 " in out
    assert "invalid option" not in out and "error" not in out.lower()

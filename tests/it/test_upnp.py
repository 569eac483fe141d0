"""The "upnp" target: /var/tmp/miniupnpd.conf byte for byte, the commands around it,
and the real miniupnpd reading the file."""
import pytest

from net_util import INVALID, NULL, SUCCESS, TYPE, Run, conf  # noqa: F401

CONF, LEASES, PID = "/var/tmp/miniupnpd.conf", "/var/tmp/upnp.leases", "/var/run/miniupnpd.pid"
PROGRAMS = ("/usr/bin/killall", "/opt/sbin/iptables", "/usr/sbin/miniupnpd")
STOP = [["/usr/bin/killall", "miniupnpd"], ["/opt/sbin/iptables", "-t", "nat", "-F", "UPNP_NAT_PREROUTING_CHAIN"],
        ["/opt/sbin/iptables", "-F", "UPNP_FORWARD_CHAIN"]]
START = STOP + [["/usr/sbin/miniupnpd", "-f", CONF]]
ON = {"upnp": "on"}


def conf_text(wan_if="", lan="192.168.100.1", natpmp="no"):
    return (f"ext_ifname={wan_if}\nlistening_ip={lan}\nenable_upnp=yes\nenable_natpmp={natpmp}\nsecure_mode=yes\n"
            "upnp_forward_chain=UPNP_FORWARD_CHAIN\nupnp_nat_chain=UPNP_NAT_PREROUTING_CHAIN\n"
            "system_uptime=yes\nlease_file=/var/tmp/upnp.leases\n")


def printed(action, started=False):
    return f"action:{action}\nrevalidate_setUpnp\n" + ("/usr/sbin/miniupnpd -f /var/tmp/miniupnpd.conf\n" * started)


# (setup, value, reply, output, commands, miniupnpd.conf or None)
CASES = {
    "wan-down": (ON, {"action": "restart"}, SUCCESS, printed("restart", True), START, conf_text()),
    "wan-up-natpmp": ({"upnp": "on", "upnp_natpmp": "on", "lan_ipaddr": "10.0.0.1", "rt:wan_if": "mlan0"},
                      {"action": "start"}, SUCCESS, printed("start", True), START, conf_text("mlan0", "10.0.0.1", "yes")),
    "renewal": (dict(ON, old=True), {"action": "restart"}, SUCCESS, printed("restart", True), START, conf_text()),
    "failing-programs": (dict(ON, fail=True), {"action": "restart"}, SUCCESS, printed("restart", True), START,
                         conf_text()),
    "off": ({}, {"action": "restart"}, SUCCESS, printed("restart"), STOP, None),
    "no-wan-if": (dict(ON, **{"rt:wan_if": None}), {"action": "restart"}, SUCCESS, printed("restart"), STOP, ""),
    "lan-word": (dict(ON, lan_ipaddr=b"word\0"), {"action": "restart"}, SUCCESS, printed("restart"), STOP,
                 "ext_ifname=\n"),
    "lan-newline": (dict(ON, lan_ipaddr="192.168.100.1\nenable_natpmp=yes"), {"action": "restart"}, SUCCESS,
                    printed("restart"), STOP, "ext_ifname=\n"),
    "wan-if-newline": (dict(ON, **{"rt:wan_if": "mlan0\nsecure_mode=no"}), {"action": "restart"}, SUCCESS,
                       printed("restart"), STOP, ""),
    "natpmp-broken": (dict(ON, upnp_natpmp=b"{\0"), {"action": "restart"}, SUCCESS, printed("restart"), STOP,
                      "ext_ifname=\nlistening_ip=192.168.100.1\nenable_upnp=yes\n"),
    "upnp-word": ({"upnp": b"on\0"}, {"action": "restart"}, SUCCESS, printed("restart"), STOP, None),
    "conf-dir": (dict(ON, dir=True), {"action": "restart"}, SUCCESS, printed("restart"), STOP, None),
    "null": (ON, None, INVALID, NULL, [], None),
    "no-action-number": (ON, {"action": 5}, SUCCESS, "", [], None),
}
for natpmp in ("off", "On", "on ", "yes", ""):
    CASES[f"natpmp-{natpmp!r}"] = (dict(ON, upnp_natpmp=natpmp), {"action": "restart"}, SUCCESS,
                                   printed("restart", True), START, conf_text())
for upnp in ("On", "ON", "on ", "yes", "", 1, True):
    CASES[f"upnp-{upnp!r}"] = ({"upnp": upnp}, {"action": "start"}, SUCCESS, printed("start"), STOP, None)
for action in ("stop", "update", "Start", ""):
    CASES[f"action-{action!r}"] = (ON, {"action": action}, SUCCESS, printed(action), [], None)
for value in ({}, {"action": None}, {"Action": "start"}):
    CASES[f"no-action-{value}"] = (ON, value, SUCCESS, "", [], None)
for value in ("restart", ["restart"], 1, True):
    CASES[f"argument-{value!r}"] = (ON, value, INVALID, TYPE, [], None)


@pytest.fixture
def clean(daemon, sandbox):
    yield
    for p in PROGRAMS:
        sandbox.stub(p, "exit 0\n")
    for p in (CONF, LEASES, PID):
        sandbox.remove(p)


@pytest.mark.parametrize("setup, value, reply, out, cmds, text", CASES.values(), ids=CASES.keys())
def test_upnp_target(daemon, sandbox, conf, clean, setup, value, reply, out, cmds, text):
    """The stop step kills the service and removes its pid file and leases."""
    setup = dict(setup)
    sandbox.remove(CONF)
    if setup.pop("old", False):
        sandbox.write(CONF, "x" * 2000 + "\n")
    for p in PROGRAMS if setup.pop("fail", False) else ():
        sandbox.stub_exit(p, 1)
    folder = setup.pop("dir", False)
    if folder:
        sandbox.run(["mkdir", CONF], check=True)
    sandbox.write(PID, "123\n")
    sandbox.write(LEASES, "TCP:8080:192.168.100.5:80:1700000000:game\n")
    conf(setup)
    try:
        run = Run(sandbox, daemon, "upnp", value)
    finally:
        if folder:
            sandbox.run(["rmdir", CONF], check=True)
    assert (run.reply, run.out, run.cmds) == (reply, out, cmds)
    assert (sandbox.exists(PID), sandbox.exists(LEASES)) == (not cmds, not cmds)
    assert (sandbox.read_text(CONF) if sandbox.exists(CONF) else None) == text


def test_stop_steps_run_in_order(daemon, sandbox, conf, clean):
    """killall still sees the pid file and the leases, the flushes only the leases, the start neither."""
    seen = "/var/log/hxsim/upnp-seen"
    for p in PROGRAMS:
        sandbox.stub(p, f'p=n; [ -e {PID} ] && p=y; l=n; [ -e {LEASES} ] && l=y\n'
                        f'echo "$(basename $0) pid=$p leases=$l" >> {seen}\n')
    sandbox.remove(seen)
    sandbox.write(PID, "123\n")
    sandbox.write(LEASES, "")
    conf(ON)
    assert Run(sandbox, daemon, "upnp", {"action": "restart"}).reply == SUCCESS
    assert sandbox.read_text(seen) == ("killall pid=y leases=y\niptables pid=n leases=y\n"
                                       "iptables pid=n leases=y\nminiupnpd pid=n leases=n\n")


def test_real_miniupnpd_accepts_the_file(daemon, sandbox, conf, clean):
    """Run in the foreground inside the sandbox until it listens (it names what the file enabled)."""
    real = sandbox.real("/usr/sbin/miniupnpd")
    if real is None:
        pytest.skip("miniupnpd is not installed (scripts/install-deps)")
    conf({"upnp": "on", "upnp_natpmp": "on", "rt:wan_if": "mlan0"})
    assert Run(sandbox, daemon, "upnp", {"action": "restart"}).reply == SUCCESS
    script = (f"{real} -d -f {CONF} -P /var/tmp/miniupnpd-test.pid >/var/tmp/mu.out 2>&1 & m=$!; i=0\n"
              "while kill -0 $m && ! grep -q 'listening on port' /var/tmp/mu.out && [ $i -lt 1200 ]; do\n"
              "sleep 0.1; i=$((i + 1)); done; kill -INT $m; wait $m; cat /var/tmp/mu.out")
    done = sandbox.run(["sh", "-c", script], timeout=180)
    out = done.stdout.decode()
    assert "starting NAT-PMP/PCP UPnP-IGD ext if mlan0 " in out and "listening on port" in out, out
    assert "invalid option" not in out and "error" not in out.lower(), out

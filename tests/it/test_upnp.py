"""The "upnp" target: miniupnpd.conf byte for byte, the commands around it, and the real miniupnpd reading the file."""
import pytest

from net_util import INVALID, NULL, SUCCESS, TYPE, Run, conf  # noqa: F401

CONF, LEASES, PID = "/var/tmp/miniupnpd.conf", "/var/tmp/upnp.leases", "/var/run/miniupnpd.pid"
PROGRAMS = ("/usr/bin/killall", "/opt/sbin/iptables", "/usr/sbin/miniupnpd")
STOP = [["/usr/bin/killall", "miniupnpd"], ["/opt/sbin/iptables", "-t", "nat", "-F", "UPNP_NAT_PREROUTING_CHAIN"], ["/opt/sbin/iptables", "-F", "UPNP_FORWARD_CHAIN"]]
START, ON, RESTART = STOP + [["/usr/sbin/miniupnpd", "-f", CONF]], {"upnp": "on"}, {"action": "restart"}
FIRST, SEEN = "ext_ifname=\n", "/var/tmp/seen"
ORDER = {"killall": "pid=y leases=y", "iptables": "pid=n leases=y", "miniupnpd": "pid=n leases=n"}


def conf_text(wan_if="", lan="192.168.100.1", natpmp="no"):
    return (f"ext_ifname={wan_if}\nlistening_ip={lan}\nenable_upnp=yes\nenable_natpmp={natpmp}\nsecure_mode=yes\nupnp_forward_chain="
            "UPNP_FORWARD_CHAIN\nupnp_nat_chain=UPNP_NAT_PREROUTING_CHAIN\nsystem_uptime=yes\nlease_file=/var/tmp/upnp.leases\n")


def printed(action, started=False):
    return f"action:{action}\nrevalidate_setUpnp\n" + "/usr/sbin/miniupnpd -f /var/tmp/miniupnpd.conf\n" * started


# id: (records, value, reply, printed, commands, miniupnpd.conf or None); "old": a longer file was there, "fail": programs fail
CASES = {"wan-down": (ON, RESTART, SUCCESS, printed("restart", 1), START, conf_text()),
    "wan-up-natpmp": ({**ON, "upnp_natpmp": "on", "lan_ipaddr": "10.0.0.1", "rt:wan_if": "mlan0"}, {"action": "start"}, SUCCESS,
                      printed("start", 1), START, conf_text("mlan0", "10.0.0.1", "yes")),
    "renewal": ({**ON, "old": 1}, RESTART, SUCCESS, printed("restart", 1), START, conf_text()),
    "failing-programs": ({**ON, "fail": 1}, RESTART, SUCCESS, printed("restart", 1), START, conf_text()),
    "off": ({}, RESTART, SUCCESS, printed("restart"), STOP, None), "upnp-word": ({"upnp": b"on\0"}, RESTART, SUCCESS, printed("restart"), STOP, None),
    "no-wan-if": ({**ON, "rt:wan_if": None}, RESTART, SUCCESS, printed("restart"), STOP, ""),
    "lan-word": ({**ON, "lan_ipaddr": b"word\0"}, RESTART, SUCCESS, printed("restart"), STOP, FIRST),
    "lan-newline": ({**ON, "lan_ipaddr": "192.168.100.1\nenable_natpmp=yes"}, RESTART, SUCCESS, printed("restart"), STOP, FIRST),
    "wan-if-newline": ({**ON, "rt:wan_if": "mlan0\nsecure_mode=no"}, RESTART, SUCCESS, printed("restart"), STOP, ""),
    "natpmp-broken": ({**ON, "upnp_natpmp": b"{\0"}, RESTART, SUCCESS, printed("restart"), STOP, conf_text()[:55]),
    "conf-dir": ({**ON, "dir": 1}, RESTART, SUCCESS, printed("restart"), STOP, None),
    "null": (ON, None, INVALID, NULL, [], None), "no-action-number": (ON, {"action": 5}, SUCCESS, "", [], None),
    **{f"natpmp-{v!r}": ({**ON, "upnp_natpmp": v}, RESTART, SUCCESS, printed("restart", 1), START, conf_text()) for v in ("off", "On", "on ", "yes", "")},
    **{f"upnp-{v!r}": ({"upnp": v}, {"action": "start"}, SUCCESS, printed("start"), STOP, None) for v in ("On", "ON", "on ", "yes", "", 1, True)},
    **{f"action-{a!r}": (ON, {"action": a}, SUCCESS, printed(a), [], None) for a in ("stop", "update", "Start", "")},
    **{f"no-action-{v}": (ON, v, SUCCESS, "", [], None) for v in ({}, {"action": None}, {"Action": "start"})},
    **{f"argument-{v!r}": (ON, v, INVALID, TYPE, [], None) for v in ("restart", ["restart"], 1, True)},}


@pytest.fixture
def clean(daemon, sandbox):
    yield
    for p in PROGRAMS:
        sandbox.stub(p, "exit 0\n")
    for p in (CONF, LEASES, PID, SEEN):
        sandbox.remove(p)


@pytest.mark.parametrize("setup, value, reply, out, cmds, text", CASES.values(), ids=CASES.keys())
def test_upnp_target(daemon, sandbox, conf, clean, setup, value, reply, out, cmds, text):
    """Each program notes whether the pid file and the leases are still there: the stop step removes them after the kill."""
    setup, folder = dict(setup), setup.get("dir")
    sandbox.remove(CONF) or sandbox.remove(SEEN)
    sandbox.write(CONF, "x" * 2000 + "\n") if setup.pop("old", 0) else None
    for p in PROGRAMS:
        sandbox.stub(p, f'p=n; [ -e {PID} ] && p=y; l=n; [ -e {LEASES} ] && l=y\necho "$(basename $0) pid=$p leases=$l" >> {SEEN}\n' f'exit {setup.pop("fail", 0)}\n')
    sandbox.run(["mkdir", CONF], check=True) if folder else None
    sandbox.write(PID, "123\n") or sandbox.write(LEASES, "TCP:8080:192.168.100.5:80:1700000000:game\n")
    conf({k: v for k, v in setup.items() if k != "dir"})
    try:
        run = Run(sandbox, daemon, "upnp", value)
    finally:
        sandbox.run(["rmdir", CONF], check=True) if folder else None
    assert (run.reply, run.out, run.cmds, sandbox.exists(PID), sandbox.exists(LEASES)) == (reply, out, cmds, not cmds, not cmds)
    assert (sandbox.read_text(CONF) if sandbox.exists(CONF) else None) == text
    assert (sandbox.read_text(SEEN) if cmds else "") == "".join(f"{n} {ORDER[n]}\n" for n in (c[0].rsplit("/")[-1] for c in cmds))


def test_real_miniupnpd_accepts_the_file(daemon, sandbox, conf, clean):
    """In the foreground inside the sandbox until it listens; its start line names what the file enabled."""
    real = sandbox.real("/usr/sbin/miniupnpd")
    if real is None:
        pytest.skip("miniupnpd is not installed (scripts/install-deps)")
    conf({"upnp": "on", "upnp_natpmp": "on", "rt:wan_if": "mlan0"})
    assert Run(sandbox, daemon, "upnp", RESTART).reply == SUCCESS
    out = sandbox.run(["sh", "-c", f"{real} -d -f {CONF} -P /var/tmp/m.pid >/var/tmp/m.out 2>&1 & m=$!; i=0\nwhile kill -0 $m && ! grep -q "
                       "'listening on port' /var/tmp/m.out && [ $i -lt 1200 ]; do sleep 0.1; i=$((i + 1)); done; kill -INT $m; wait $m; "
                       "cat /var/tmp/m.out"], timeout=180).stdout.decode()
    assert "starting NAT-PMP/PCP UPnP-IGD ext if mlan0 " in out and "listening on port" in out, out
    assert "invalid option" not in out and "error" not in out.lower(), out

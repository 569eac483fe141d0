"""Hostile client text, stored with pref-set or sent in the request, against
every kind of place it reaches: unquoted, single- and double-quoted shell
words, generated files, fixed-size command buffers, the target's name.
Against a run with a benign text, the hostile one runs no command and no
argv word more, never the injected program, and writes no line of its own."""
import json
import os

import pytest

from hxdaemon import all_pids, proc_status
from helpers import pref_set, revalidate, store_restore, wait_for

INJECT, MARKER = "/sbin/reboot", "/tmp/pwned"
PAYLOADS = {"squote": f"';{INJECT};'", "dquote": f'";{INJECT};"', "semicolon": f";{INJECT}", "and": f"&&touch {MARKER}",
            "dollar": f"$({INJECT})", "backtick": f"`{INJECT}`", "ifs": f"$IFS{INJECT}", "newline": f"\nevil=1\n{INJECT}\n",
            "cr": f"\revil=1\r{INJECT}", "fmt": "%n%n%s%s", "nul": f"\0;{INJECT}", "long": "A" * 300, "dotdot": "/../../etc/passwd"}
FILES = "/var/tmp/dnsmasq.conf /var/tmp/hosts /var/tmp/miniupnpd.conf /mnt/rwdata/uaputl.conf /etc/wpa_supplicant.conf /etc/mini_httpd.conf".split()
STA = {"wan_type": "wireless_sta", "wan_sta_sec": "wpapsk", "wan_sta_ssid": "Cafe", "wan_sta_pass": "secret123"}
ROUTE = {"id": "1", "dest": "10.1.0.0", "subnet": "255.255.0.0", "gw": "192.168.100.254", "metric": "2", "inf": "LAN"}
FW = {"serverip": "10.0.0.9", "bootloader": "b.bin", "kernel": "k", "jffs2": "j", "opt": "o", "rootfs": "r", "subfolder": "fw/1"}
# (id, target, stored key[.list member] or .request member, benign text, store setup; "rt." keys are run-time)
CASES = [
    ("dhcp-domain", {"dhcp": {"action": "restart"}}, "dhcp_domain_name", "trip.lan", {}),
    ("upnp", {"upnp": {"action": "restart"}}, "lan_ipaddr", "192.168.100.1", {"upnp": "on"}),
    ("uap", {"wl": {"action": "update"}}, "wl_ssid", "HX-Travel", {"wl": "on"}),
    ("wpa-conf", {"wan": {"action": "start"}}, "wan_sta_ssid", "Cafe", {**STA, "rt.wl_tool_type": "WPA"}),
    ("wt-quoted", {"wan": {"action": "start"}}, "wan_sta_pass", "secret123", {**STA, "rt.wl_tool_type": "WT"}),
    ("httpd", {"httpd": {"action": "restart"}}, "httpd_auth_name", "admin", {"httpd_auth_passwd": "secret"}),
    ("lan-unquoted", {"lan": {"action": "start"}}, "lan_ipaddr", "192.168.100.1", {"work_mode": "router"}),
    ("wan-unquoted", {"wan": {"action": "stop"}}, "wan_if", "mlan0", {"wan_type": "none", "rt.wl_tool_type": "WT"}),
    ("fm", {"fm": {"action": "set_freq"}}, "fm_freq", "87.5", {}),
    ("route", {"staticroute": {"action": "commitall"}}, "routes_static.dest", "10.1.0.0", {"rt.wan_if": "mlan0", "rt.lan_if": "br0"}),
    ("firmware", {"firmwareupgrade": FW}, ".kernel", "k", {}), ("safely-remove", {"safely_remove": {"disk": "sda"}}, ".disk", "sda", {}),
    ("disk-unlock", {"disk_unlock": {"disk_name": "sda", "passwd": "pw"}}, ".disk_name", "sda", {}),
    ("sys-event", {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": "x"}}, ".arg", "x", {}),
    ("target-name", {"dhcp": {"action": "restart"}}, "", "dhcp", {}),
]


def live(pid, ns):
    try:
        return os.readlink(f"/proc/{pid}/ns/pid") == ns and proc_status(pid)["State"][0] != "Z"
    except (OSError, KeyError, IndexError):
        return False


def run(sandbox, request):
    """The commands run until every process the request started has ended, and the files' lines."""
    ns, _ = os.readlink(f"/proc/{sandbox.init_pid}/ns/pid"), sandbox.clear_cmdlog()
    before = {p for p in all_pids() if live(p, ns)}
    assert revalidate(sandbox, request).startswith(b'{ "arguments": ')
    wait_for(lambda: not {p for p in all_pids() if live(p, ns)} - before, interval=0.01)
    return sandbox.cmdlog(), [line for f in FILES if sandbox.exists(f) for line in sandbox.read_text(f).split("\n")]


@pytest.mark.parametrize("pid", PAYLOADS)
@pytest.mark.parametrize("case", CASES, ids=[c[0] for c in CASES])
def test_hostile_text_runs_and_writes_nothing_more(daemon, sandbox, case, pid):
    _, request, where, benign, setup = case
    key, _, member = where.partition(".")
    setup = {**setup, **({key: None} if key else {})}
    places = {k: ("rtconf", k[3:]) if k.startswith("rt.") else ("sysconf", k) for k in setup}
    saved = {k: sandbox.store_get(*places[k]) for k in setup}
    [sandbox.store_set(*places[k], json.dumps(v).encode() + b"\0") for k, v in setup.items() if v is not None]

    def place(text):
        if not key:
            return {t: dict(v, **{member: text}) for t, v in request.items()} if member else {text: request["dhcp"]}
        assert pref_set(sandbox, {key: [dict(ROUTE, **{member: text})] if member else text}).endswith(b'"success" }')
        return request
    try:
        (good, good_lines), (bad, bad_lines) = run(sandbox, place(benign)), run(sandbox, place(benign + PAYLOADS[pid]))
        for cmd in sorted(bad, key=len, reverse=True):      # each benign command stands for one
            fits = [c for c in good if c[0] == cmd[0] and len(c) >= len(cmd)]
            assert fits and os.path.basename(cmd[0]) != "reboot", f"extra command {cmd}\nbenign {good}"
            good.remove(min(fits, key=len))
        assert not sandbox.exists(MARKER) and not [line for line in bad_lines if line.startswith(("evil", INJECT))]
    finally:
        for k, raw in saved.items():
            store_restore(sandbox, *places[k], raw)

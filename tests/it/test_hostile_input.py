"""Hostile client text, stored with pref-set or sent in the request, against
every kind of place it reaches: unquoted, single- and double-quoted shell
words, generated files and fixed-size command buffers.  Against a run with a
benign text, the hostile one runs no command more and no argv word more,
never the injected program, writes no line of its own, and the daemon
still answers."""
import json
import os

import pytest

from hxdaemon import all_pids, proc_status
from helpers import pref_set, revalidate, send, store_restore, wait_for

INJECT, MARKER = "/sbin/reboot", "/tmp/pwned"
PAYLOADS = {"squote": f"';{INJECT};'", "dquote": f'";{INJECT};"', "semicolon": f";{INJECT}", "and": f"&&touch {MARKER}",
            "dollar": f"$({INJECT})", "backtick": f"`{INJECT}`", "ifs": f"$IFS{INJECT}", "newline": f"\nevil=1\n{INJECT}\n",
            "cr": f"\revil=1\r{INJECT}", "fmt": "%n%n%s%s", "nul": f"\0;{INJECT}", "long": "A" * 300, "dotdot": "/../../etc/passwd"}
STA = {"wan_type": "wireless_sta", "wan_sta_sec": "wpapsk", "wan_sta_ssid": "Cafe", "wan_sta_pass": "secret123"}
ROUTES = {"routes_static": [{"id": "1", "dest": "10.1.0.0", "subnet": "255.255.0.0", "gw": "192.168.100.254", "metric": "2", "inf": "LAN"}]}
# (id, target, stored key or request member, benign text, sysconf setup, rtconf setup)
CASES = [
    ("dhcp", {"dhcp": {"action": "restart"}}, "lan_if", "br0", {}, {}),
    ("dhcp-domain", {"dhcp": {"action": "restart"}}, "dhcp_domain_name", "trip.lan", {}, {}),
    ("upnp", {"upnp": {"action": "restart"}}, "lan_ipaddr", "192.168.100.1", {"upnp": "on"}, {}),
    ("uap", {"wl": {"action": "update"}}, "wl_ssid", "HX-Travel", {"wl": "on"}, {}),
    ("wpa-conf", {"wan": {"action": "start"}}, "wan_sta_ssid", "Cafe", STA, {"wl_tool_type": "WPA"}),
    ("wt-quoted", {"wan": {"action": "start"}}, "wan_sta_pass", "secret123", STA, {"wl_tool_type": "WT"}),
    ("httpd", {"httpd": {"action": "restart"}}, "httpd_auth_name", "admin", {"httpd_auth_passwd": "secret"}, {}),
    ("lan-unquoted", {"lan": {"action": "start"}}, "lan_ipaddr", "192.168.100.1", {"work_mode": "router"}, {}),
    ("wan-unquoted", {"wan": {"action": "stop"}}, "wan_if", "mlan0", {"wan_type": "none"}, {"wl_tool_type": "WT"}),
    ("fm", {"fm": {"action": "set_freq"}}, "fm_freq", "87.5", {}, {}),
    ("route", {"staticroute": {"action": "commitall"}}, "routes_static.dest", "10.1.0.0", ROUTES, {"wan_if": "mlan0", "lan_if": "br0"}),
    ("firmware", {"firmwareupgrade": {"serverip": "10.0.0.9", "bootloader": "b.bin", "kernel": "k", "jffs2": "j",
                                      "opt": "o", "rootfs": "r", "subfolder": "fw/1"}}, ".kernel", "k", {}, {}),
    ("safely-remove", {"safely_remove": {"disk": "sda"}}, ".disk", "sda", {}, {}),
    ("disk-unlock", {"disk_unlock": {"disk_name": "sda", "passwd": "pw"}}, ".disk_name", "sda", {}, {}),
    ("tdls", {"tdls": {"action": "start", "peer": "00:11:22:33:44:55"}}, ".peer", "00:11:22:33:44:55", {}, {}),
    ("sys-event", {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": "x"}}, ".arg", "x", {}, {}),
    ("hostile-name", {"dhcp": {"action": "restart"}}, "", "dhcp", {}, {}),
]


def sandbox_pids(sandbox):
    ns, found = os.readlink(f"/proc/{sandbox.init_pid}/ns/pid"), set()
    for p in all_pids():
        try:
            if os.readlink(f"/proc/{p}/ns/pid") == ns and proc_status(p)["State"][0] != "Z":
                found.add(p)
        except (OSError, KeyError, IndexError):
            pass
    return found


def run(sandbox, request):
    """The reply, the commands run until every process it started has ended, and /var/tmp, /etc and /mnt/rwdata lines."""
    sandbox.clear_cmdlog()
    before = sandbox_pids(sandbox)
    reply = revalidate(sandbox, request)
    wait_for(lambda: not (sandbox_pids(sandbox) - before), interval=0.01)
    files = ("/var/tmp/dnsmasq.conf", "/var/tmp/hosts", "/var/tmp/miniupnpd.conf", "/mnt/rwdata/uaputl.conf",
             "/etc/wpa_supplicant.conf", "/etc/mini_httpd.conf")
    return reply, sandbox.cmdlog(), [line for f in files if sandbox.exists(f) for line in sandbox.read_text(f).split("\n")]


@pytest.mark.parametrize("pid", PAYLOADS)
@pytest.mark.parametrize("case", CASES, ids=[c[0] for c in CASES])
def test_hostile_text_runs_and_writes_nothing_more(daemon, sandbox, case, pid):
    name, request, where, benign, conf, rt = case
    saved = [(s, k, sandbox.store_get(s, k)) for s, d in (("sysconf", conf), ("rtconf", rt)) for k in [*d, where.split(".")[0]] if k]
    for s, d in (("sysconf", conf), ("rtconf", rt)):
        for k, v in d.items():
            sandbox.store_set(s, k, json.dumps(v).encode() + b"\0")

    def place(text):
        if name == "hostile-name":
            return {text: request["dhcp"]}
        if where.startswith("."):
            return {k: dict(v, **{where[1:]: text}) for k, v in request.items()}
        key, _, member = where.partition(".")
        value = [dict(ROUTES[key][0], **{member: text})] if member else text
        assert pref_set(sandbox, {key: value}) == b'{ "arguments": { }, "result": "success" }'
        return request
    try:
        sandbox.remove(MARKER)
        good = run(sandbox, place(benign))
        bad = run(sandbox, place(benign + PAYLOADS[pid]))
        assert not sandbox.exists(MARKER)
        pool = list(good[1])
        for cmd in sorted(bad[1], key=len, reverse=True):      # each benign command stands for one
            fits = [c for c in pool if c[0] == cmd[0] and len(c) >= len(cmd)]
            assert fits and os.path.basename(cmd[0]) != "reboot", f"extra command {cmd}\nbenign {good[1]}"
            pool.remove(min(fits, key=len))
        assert not [line for line in bad[2] if line not in good[2] and line.startswith(("evil", INJECT))]
        assert send(sandbox, {"method": "pref-get", "arguments": {"confs": ["upnp"]}}).endswith(b'"result": "success" }')
    finally:
        for s, k, raw in saved:
            store_restore(sandbox, s, k, raw)

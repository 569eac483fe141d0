"""Hostile client text through the real daemon (DESIGN.md section 8): every
revalidate target that builds a shell command or writes a configuration
file, every client text that reaches it (a member of the request, or a value
stored with pref-set that the target reads later), and a table of injection
payloads: quotes, command separators, command substitutions, $IFS, newline
and carriage return, printf formats, over-long texts, "..", a NUL and
non-string JSON types.

Each test runs the same target twice, first with a benign text, then with
the hostile one, and compares the two runs:

- every command of the hostile run is a command of the benign run (each
  benign command stands for one): the same program with at most as many
  argv words, so the text is at most one literal argument, or the command
  is not run at all; a hostile null that makes the Part take its failure
  path may instead fit a run with the key missing.  The injected commands
  are a stub (/sbin/reboot, logged when it runs) and "touch /tmp/pwned",
  whose marker file must not exist;
- each generated file holds no line beyond the benign file's: never more
  lines, and its lines stand, in order, for benign lines (the same key
  "SSID=", "interface=" ..., or, for a line without "=", the same last
  word); each of wpa_supplicant.conf's quoted values is one line, read by
  the supplicant up to the line's last quote;
- the reply is the target's success or the refusal result its Part uses;
- the daemon still answers.

A run ends when every process that it started in the sandbox has ended, so
background commands ("... &") are in the log before the runs are compared.
A request over 4096 bytes (the 5000-character payload) gets no reply and
changes nothing (README "Limits").

Each case is one text of one target; the texts that are only compared with
fixed words (actions), that only reach a file, or that share a check with a
text tested with every payload get a subset of the payloads (payload_ids).
Texts in the request itself are in test_hostile_request.py.
"""
import json
import os
import re

import pytest

from hxdaemon import all_pids, proc_status
from helpers import pref_set, revalidate, send, store_restore, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'


def result(text):
    return b'{ "arguments": { }, "result": ' + json.dumps(text).encode() + b" }"


INVALID = result("invalid arguments")
INTERNAL = result("internal error")
SYNC_INTERNAL = result("sync_internal_error")
FAIL = result("fail")
TOO_LONG = b""          # over 4096 bytes: no reply, connection closed (README "Limits")

MARKER = "/tmp/pwned"
INJECT = "/sbin/reboot"

DNSMASQ_CONF = "/var/tmp/dnsmasq.conf"
DNSMASQ_HOSTS = "/var/tmp/hosts"
UPNP_CONF = "/var/tmp/miniupnpd.conf"
UAP_CONF = "/mnt/rwdata/uaputl.conf"
WPA_CONF = "/etc/wpa_supplicant.conf"
HTTPD_CONF = "/etc/mini_httpd.conf"
SHARE = "/tmp/media/share"

# (id, hostile value made from the benign text)
# The injected texts are short, so that they fit the shortest command
# buffers (64 bytes for safely_remove, 128 for firmwareupgrade) and are
# refused for their characters, not for their length.
PAYLOADS = [
    ("squote", lambda b: b + f"';{INJECT};'"),
    ("dquote", lambda b: b + f'";{INJECT};"'),
    ("semicolon", lambda b: b + f";{INJECT}"),
    ("and", lambda b: b + f"&&touch {MARKER}"),
    ("pipe", lambda b: b + f"|{INJECT}"),
    ("dollar", lambda b: b + f"$({INJECT})"),
    ("backtick", lambda b: b + f"`{INJECT}`"),
    ("ifs", lambda b: b + f"$IFS{INJECT}"),
    ("newline", lambda b: b + f"\nevil=1\n{INJECT}\n"),
    ("cr", lambda b: b + f"\revil=1\r{INJECT}\r"),
    ("fmt-n", lambda b: b + "%n%n%n%n"),
    ("fmt-s", lambda b: b + "%s%s%s%s%s%s"),
    ("long300", lambda b: b + "A" * 300),
    ("long5000", lambda b: b + "A" * 5000),
    ("dotdot", lambda b: ".."),
    ("passwd", lambda b: "../../etc/passwd"),
    ("nul", lambda b: b + f"\0;{INJECT}"),
    ("number", lambda b: 7),
    ("object", lambda b: {"a": f";{INJECT}"}),
    ("array", lambda b: [f";{INJECT}"]),
    ("null", lambda b: None),
    ("true", lambda b: True),
]
PAYLOAD_IDS = [p[0] for p in PAYLOADS]
# Subsets for texts that are only compared with fixed words (actions) and for
# texts that only reach a generated file.
ACTION_IDS = ["semicolon", "newline", "fmt-n", "long5000", "object", "null"]
FILE_IDS = ["dquote", "semicolon", "newline", "cr", "fmt-s", "long300", "long5000", "nul",
            "object", "array", "null"]
SHELL_IDS = ["squote", "dquote", "semicolon", "and", "pipe", "dollar", "backtick", "ifs"]


# Runs and comparisons


def sandbox_pids(sandbox):
    """Host pids of the live (not zombie) processes of the sandbox."""
    ns = os.readlink(f"/proc/{sandbox.init_pid}/ns/pid")
    found = set()
    for p in all_pids():
        try:
            if os.readlink(f"/proc/{p}/ns/pid") == ns and proc_status(p)["State"][0] != "Z":
                found.add(p)
        except (OSError, KeyError, IndexError):
            pass
    return found


class Run:
    """One request: its reply, every command run until the processes it
    started have ended, and the generated files (None when absent)."""

    def __init__(self, sandbox, request, files, hook=None):
        for f in files:
            sandbox.remove(f)
        sandbox.remove(MARKER)
        sandbox.clear_cmdlog()
        before = sandbox_pids(sandbox)
        if hook is not None:
            hook.before(sandbox)
        self.reply = revalidate(sandbox, request)
        if hook is not None:
            hook.after(sandbox, self)
        wait_for(lambda: not (sandbox_pids(sandbox) - before), interval=0.01)
        self.cmds = sandbox.cmdlog()
        self.files = {f: read_or_none(sandbox, f) for f in files}
        self.pwned = sandbox.exists(MARKER)


def read_or_none(sandbox, path):
    return sandbox.read_text(path) if os.path.isfile(sandbox.path(path)) else None


def unmatched(allowed, hostile):
    """The first hostile command that is not one of the allowed commands'
    programs with at most as many argv words (each allowed command stands
    for one hostile command), or None."""
    pool = list(allowed)
    for cmd in sorted(hostile, key=len, reverse=True):
        fits = [c for c in pool if c[0] == cmd[0] and len(c) >= len(cmd)]
        if not fits:
            return cmd
        pool.remove(min(fits, key=len))
    return None


def no_extra_commands(baselines, hostile):
    """The hostile commands fit one baseline: no extra command, no extra
    argv word split from the text; no injected program ran."""
    assert all(os.path.basename(c[0]) != "reboot" for c in hostile), hostile
    misfits = [unmatched(b, hostile) for b in baselines]
    assert None in misfits, f"extra command {misfits[0]}\nbenign {baselines[0]}\nhostile {hostile}"


def line_matches(bl, hl):
    """hl can stand for the benign line bl: same key, or same last word."""
    if "=" in bl:
        return hl.startswith(bl.split("=", 1)[0] + "=")
    if " " in bl:
        return hl.endswith(" " + bl.rsplit(" ", 1)[-1])
    return hl == bl


def no_extra_lines(path, benign, hostile):
    """The hostile file holds no line beyond the benign one's lines: never
    more lines, and its lines stand, in order, for benign lines (a refusal or
    a value that does not parse leaves lines out)."""
    if hostile is None:
        return
    assert benign is not None, f"{path} written only in the hostile run"
    b, h = benign.split("\n"), hostile.split("\n")
    assert len(h) <= len(b), f"{path}: {len(h)} lines, benign {len(b)}\n{hostile!r}"
    if h[-1] == "":
        h.pop()         # after the last newline
    j = 0
    for hl in h:
        while j < len(b) and not line_matches(b[j], hl):
            j += 1
        assert j < len(b), f"{path}: line {hl!r} is not a benign line\n{hostile!r}"
        j += 1
    if path == WPA_CONF:
        # the quoted values: the supplicant reads each up to the last quote
        # of its line, so the line must end with it
        for hl in h:
            if re.match(r"\t(ssid|psk|wep_key0)=", hl):
                assert re.fullmatch(r'\t\w+=".*"', hl), hl


def compare(benign, hostile, replies, missing=None):
    """missing: a run without the value (the Part's failure path), which the
    hostile run may follow instead of the benign one."""
    assert benign.reply in replies, benign.reply
    assert hostile.reply in replies, hostile.reply
    assert not hostile.pwned and not benign.pwned
    no_extra_commands([benign.cmds] + ([missing.cmds] if missing else []), hostile.cmds)
    for path in benign.files:
        no_extra_lines(path, benign.files[path], hostile.files[path])


def answers(sandbox, daemon):
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": ["upnp"]}})
    assert reply.endswith(b'"result": "success" }'), reply
    assert daemon.alive()


# Fixtures

# The stubs' argv logger, in Perl instead of Python for this module only:
# the same JSON line per run ($0 first), in one append, in a few milliseconds
# rather than a Python start-up, so that the tables fit their time.
FAST_LOG_ARGV = r"""#!/usr/bin/perl
open(my $f, ">>", "/var/log/hxsim/cmd.log") or exit 1;
my @a = map { my $s = $_; $s =~ s/([\\"])/\\$1/g;
              $s =~ s/([\x00-\x1f\x7f])/sprintf("\\u%04x", ord($1))/ge; "\"$s\"" } @ARGV;
syswrite($f, "[" . join(", ", @a) . "]\n");
"""


@pytest.fixture(scope="module", autouse=True)
def fast_log(sandbox):
    from hxsim import LOG_ARGV
    original = sandbox.read(LOG_ARGV)
    sandbox.write(LOG_ARGV, FAST_LOG_ARGV, mode=0o755)
    sandbox.clear_cmdlog()
    sandbox.run([LOG_ARGV, "/x", "a\"b\\c", "d\ne", "f'g"], check=True)
    assert sandbox.cmdlog() == [["/x", "a\"b\\c", "d\ne", "f'g"]]
    yield
    sandbox.write(LOG_ARGV, original, mode=0o755)


@pytest.fixture
def keep(daemon, sandbox):
    """keep(store, key[, value]): the key's raw value is put back after the
    test; value (bytes, or a value stored as its JSON text) is set now."""
    saved = []

    def remember(store, key, value=...):
        saved.append((store, key, sandbox.store_get(store, key)))
        if value is not ...:
            raw = value if isinstance(value, bytes) else json.dumps(value).encode() + b"\0"
            sandbox.store_set(store, key, raw)
    yield remember
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)


def stored(sandbox, key, store="sysconf"):
    raw = sandbox.store_get(store, key)
    return None if raw is None else json.loads(raw.rstrip(b"\0"))


def payload_ids(case_id):
    """The payloads of a case: a text compared only with fixed words (an
    action) gets ACTION_IDS, a text that only reaches a generated file
    FILE_IDS, every other text all of PAYLOADS."""
    if case_id.endswith("-action"):
        return ACTION_IDS
    if case_id in FILE_ONLY:
        return FILE_IDS
    if case_id in UNQUOTED_CHECKED:
        return SHELL_IDS + ["newline", "nul", "null"]
    if case_id in COMPARED_ONLY:
        return ACTION_IDS
    return PAYLOAD_IDS


def params(cases, xfail=None):
    """One test per (case, payload)."""
    out = []
    for case in cases:
        for pid, make in PAYLOADS:
            if pid not in payload_ids(case[0]):
                continue
            reason = (xfail or {}).get((case[0], pid))
            marks = [pytest.mark.xfail(strict=True, reason=reason)] if reason else []
            out.append(pytest.param(case, pid, make, id=f"{case[0]}-{pid}", marks=marks))
    return out


# Texts stored with pref-set and read later by a target


STATIC = [{"mac": "00:11:22:33:44:55", "ip": "192.168.100.50"}]
BLACK = [{"mac": "de:ad:be:ef:00:01"}]
ROUTES = [{"id": "1", "dest": "10.1.0.0", "subnet": "255.255.0.0", "gw": "192.168.100.254",
           "metric": "2", "inf": "LAN"}]

DHCP = ({"dhcp": {"action": "restart"}}, [DNSMASQ_CONF, DNSMASQ_HOSTS], [SUCCESS])
UPNP = ({"upnp": {"action": "restart"}}, [UPNP_CONF], [SUCCESS])
WL = ({"wl": {"action": "update"}}, [UAP_CONF], [SUCCESS])
WAN = ({"wan": {"action": "start"}}, [WPA_CONF], [SUCCESS])
HTTPD = ({"httpd": {"action": "restart"}}, [HTTPD_CONF], [SUCCESS])
LAN = ({"lan": {"action": "start"}}, [], [SUCCESS])
WAN_STOP = ({"wan": {"action": "stop"}}, [], [SUCCESS])
FM = ({"fm": {"action": "set_freq"}}, [], [SUCCESS, INTERNAL])
SLEEP = ({"sleep_timeout": {"action": "start"}}, [], [SUCCESS])
ROUTE = ({"staticroute": {"action": "commitall"}}, [], [SUCCESS, INTERNAL])

WL_ON = {("sysconf", "wl"): "on"}
UPNP_ON = {("sysconf", "upnp"): "on"}
ROUTE_IFS = {("rtconf", "wan_if"): "mlan0", ("rtconf", "lan_if"): "br0"}


def sta(tool, sec, **values):
    setup = {("sysconf", "wan_type"): "wireless_sta", ("rtconf", "wl_tool_type"): tool,
             ("sysconf", "wan_sta_sec"): sec}
    setup.update({("sysconf", k): v for k, v in values.items()})
    return setup


# (id, key, (list, member) or None, benign text, target, setup)
STORE_CASES = [
    ("dhcp-lan_if", "lan_if", None, "br0", DHCP, {}),
    ("dhcp-range_start", "dhcp_range_start", None, "192.168.100.100", DHCP, {}),
    ("dhcp-range_end", "dhcp_range_end", None, "192.168.100.200", DHCP, {}),
    ("dhcp-lease_time", "dhcp_lease_time", None, "1440", DHCP, {}),
    ("dhcp-netmask", "lan_netmask", None, "255.255.255.0", DHCP, {}),
    ("dhcp-dns1", "dhcp_static_dns1", None, "8.8.8.8", DHCP, {}),
    ("dhcp-dns3", "dhcp_static_dns3", None, "1.1.1.1", DHCP, {}),
    ("dhcp-wins", "dhcp_wins_server", None, "192.168.100.5", DHCP, {}),
    ("dhcp-domain", "dhcp_domain_name", None, "trip.lan", DHCP, {}),
    ("dhcp-lan_ipaddr", "lan_ipaddr", None, "192.168.100.1", DHCP, {}),
    ("dhcp-static_mac", "dhcp_staticlist", (STATIC, "mac"), "00:11:22:33:44:55", DHCP, {}),
    ("dhcp-static_ip", "dhcp_staticlist", (STATIC, "ip"), "192.168.100.50", DHCP, {}),
    ("dhcp-black_mac", "dhcp_blacklist", (BLACK, "mac"), "de:ad:be:ef:00:01", DHCP, {}),
    ("upnp-lan_ipaddr", "lan_ipaddr", None, "192.168.100.1", UPNP, UPNP_ON),
    ("upnp-natpmp", "upnp_natpmp", None, "on", UPNP, UPNP_ON),
    ("wl-ssid", "wl_ssid", None, "HX-Travel", WL, WL_ON),
    ("wl-wpa_key", "wl_wpa_key", None, "hxtravel1234", WL, WL_ON),
    ("wl-country", "wl_country", None, "US", WL, WL_ON),
    ("wl-channel", "wl_channel", None, "6", WL, WL_ON),
    ("wpa-ssid", "wan_sta_ssid", None, "Cafe", WAN, sta("WPA", "wpapsk", wan_sta_pass="secret1")),
    ("wpa-pass", "wan_sta_pass", None, "secret123", WAN, sta("WPA", "wpapsk", wan_sta_ssid="Cafe")),
    ("wpa-wep_key", "wan_sta_pass", None, "abcde", WAN, sta("WPA", "WEP", wan_sta_ssid="Cafe")),
    ("wt-ssid", "wan_sta_ssid", None, "Cafe", WAN, sta("WT", "wpapsk", wan_sta_pass="secret1")),
    ("wt-pass", "wan_sta_pass", None, "secret123", WAN, sta("WT", "wpapsk", wan_sta_ssid="Cafe")),
    ("wt-open_ssid", "wan_sta_ssid", None, "Cafe", WAN, sta("WT", "none", wan_sta_pass="")),
    ("wt-wep_key", "wan_sta_pass", None, "abcde", WAN, sta("WT", "WEP", wan_sta_ssid="Cafe")),
    ("httpd-name", "httpd_auth_name", None, "admin", HTTPD,
     {("sysconf", "httpd_auth_passwd"): "secret"}),
    ("httpd-passwd", "httpd_auth_passwd", None, "secret", HTTPD,
     {("sysconf", "httpd_auth_name"): "admin"}),
    ("route-dest", "routes_static", (ROUTES, "dest"), "10.1.0.0", ROUTE, ROUTE_IFS),
    ("route-subnet", "routes_static", (ROUTES, "subnet"), "255.255.0.0", ROUTE, ROUTE_IFS),
    ("route-gw", "routes_static", (ROUTES, "gw"), "192.168.100.254", ROUTE, ROUTE_IFS),
    ("route-metric", "routes_static", (ROUTES, "metric"), "2", ROUTE, ROUTE_IFS),
    ("route-inf", "routes_static", (ROUTES, "inf"), "LAN", ROUTE, ROUTE_IFS),
    ("fm-freq", "fm_freq", None, "87.5", FM, {}),
    ("sleep_timeout-value", "sleep_timeout", None, "10", SLEEP, {}),
    ("lan-lan_if", "lan_if", None, "br0", LAN, {("sysconf", "work_mode"): "router"}),
    ("lan-ipaddr", "lan_ipaddr", None, "192.168.100.1", LAN,
     {("sysconf", "work_mode"): "router"}),
    ("lan-netmask", "lan_netmask", None, "255.255.255.0", LAN,
     {("sysconf", "work_mode"): "router"}),
    ("lan-bridge_wan_if", "wan_if", None, "mlan0", LAN, {("sysconf", "work_mode"): "bridge"}),
    ("wan-wan_if", "wan_if", None, "mlan0", WAN_STOP,
     {("sysconf", "wan_type"): "none", ("rtconf", "wl_tool_type"): "WT"}),
]

# Texts checked with the same function as a member tested with every payload.
UNQUOTED_CHECKED = {"firmwareupgrade-bootloader", "firmwareupgrade-kernel",
                    "firmwareupgrade-jffs2", "firmwareupgrade-opt", "firmwareupgrade-rootfs"}
# Texts that reach neither a shell nor a file.
COMPARED_ONLY = {"disk_unlock-passwd", "owner_chg-value", "datetime-time",
                 "sleep_timeout-value"}
FILE_ONLY = {"wl-ssid", "wl-wpa_key", "wl-country", "wpa-ssid", "wpa-pass", "wpa-wep_key",
             "upnp-lan_ipaddr", "dhcp-static_mac", "httpd-passwd",
             "dhcp-range_start", "dhcp-range_end", "dhcp-lease_time", "dhcp-netmask",
             "dhcp-dns1", "dhcp-dns3", "dhcp-wins", "dhcp-domain", "dhcp-static_ip",
             "dhcp-black_mac", "upnp-natpmp", "wl-channel"}

# A value that does not give a text (null) makes the wireless-tools connect
# fail, which stops the WAN (Part 5.2): compared with the key missing too.
FAILURE_PATH = {"wt-ssid", "wt-pass", "wt-open_ssid", "wt-wep_key"}

# Stored texts that reach the shell unquoted (Part 4.2's lan_set, wan_start
# and wan_service_stop format sysconf "lan_if", "lan_ipaddr", "lan_netmask"
# and "wan_if" into "/sbin/ifconfig %s ..." and "/usr/sbin/brctl ... %s")
# are refused with a character outside gwutil_shell_safe's set: fewer
# commands than the benign run, none extra.


def placed(key_path, value):
    """The store value with value at its place."""
    if key_path is None:
        return value
    elements, member = key_path
    out = json.loads(json.dumps(elements))
    out[0][member] = value
    return out


@pytest.mark.parametrize("case, pid, make", params(STORE_CASES))
def test_stored_text(daemon, sandbox, keep, case, pid, make):
    """pref-set stores the hostile text as it is (a request over 4096 bytes
    is not read); the target that reads it runs nothing more and writes no
    line more than with the benign text."""
    name, key, path, benign_text, (request, files, replies), setup = case
    for (store, skey), value in setup.items():
        keep(store, skey, value)
    keep("sysconf", key)
    hostile_value = make(benign_text)

    assert pref_set(sandbox, {key: placed(path, benign_text)}) == SUCCESS
    benign = Run(sandbox, request, files)
    reply = pref_set(sandbox, {key: placed(path, hostile_value)})
    if pid == "long5000":
        assert reply == TOO_LONG
        assert stored(sandbox, key) == placed(path, benign_text)
    else:
        assert reply == SUCCESS
        assert stored(sandbox, key) == placed(path, hostile_value)
    hostile = Run(sandbox, request, files)
    missing = None
    if name in FAILURE_PATH:
        sandbox.store_delete("sysconf", key)
        missing = Run(sandbox, request, files)
    compare(benign, hostile, replies, missing)
    answers(sandbox, daemon)

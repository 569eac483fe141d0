"""hxctl, the command-line client (DESIGN.md section 1; protocol of spec
Parts 1.2 and 2.1).

The request and failure paths run on the host against a small fake server
on a socket in a temporary directory; nothing else of the host is touched.
The last tests run hxctl inside the sandbox against the real daemon.
"""
import json
import os
import select
import socket
import subprocess
import tempfile
import threading
import time

import pytest

from hxsim import REPO, build_command

BUILD = os.environ.get("HX_BUILD") or os.path.join(REPO, "build")
# A cross build's hxctl runs on the host through its emulator (qemu-user).
HXCTL = build_command(BUILD, "hxctl")
TRY = "Try 'hxctl --help' for more information.\n"
SUCCESS = b'{ "arguments": { }, "result": "success" }'


class FakeDaemon:
    """Serves one connection as hxsrvd's transport does: one read is the
    whole request; then it answers per its arguments and keeps the
    connection open until the client closes it.

    pieces: reply bytes, written one by one with `delay` seconds between;
    close: close right after the request without a reply (after pieces);
    pieces=None and close=False: never answer."""

    def __init__(self, path, pieces=(SUCCESS,), delay=0.0, close=False):
        self.pieces, self.delay, self.close = pieces, delay, close
        self.request = None
        self.later = b""            # whatever arrived after the first read
        self.eof_before_reply = None
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen(1)
        self.listener.settimeout(20)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        try:
            conn, _ = self.listener.accept()
        except socket.timeout:
            return
        with conn:
            conn.settimeout(20)
            self.request = conn.recv(1 << 20)
            # The client must keep its write side open until the reply.
            ready, _, _ = select.select([conn], [], [], 0.2)
            self.eof_before_reply = bool(ready) and conn.recv(1, socket.MSG_PEEK) == b""
            for i, piece in enumerate(self.pieces or ()):
                if i:
                    time.sleep(self.delay)
                conn.sendall(piece)
            if self.close:
                return
            self._drain(conn)

    def _drain(self, conn):
        try:
            while True:
                chunk = conn.recv(4096)
                if not chunk:
                    return
                self.later += chunk
        except OSError:
            return

    def finish(self):
        self.thread.join(30)
        self.listener.close()
        assert not self.thread.is_alive()


@pytest.fixture
def sockdir():
    # Short path: a Unix socket path holds at most 107 bytes.
    with tempfile.TemporaryDirectory(prefix="hxctl-") as d:
        yield d


@pytest.fixture
def serve(sockdir):
    servers = []

    def start(**kw):
        server = FakeDaemon(os.path.join(sockdir, "sock"), **kw)
        servers.append(server)
        return server

    yield start
    for server in servers:
        server.listener.close()


def run(*args, input=b""):
    return subprocess.run([*HXCTL, *args], input=input, capture_output=True, timeout=60)


def exchange(server, sockdir, *args, input=b""):
    """Runs hxctl against server; checks that the request came in one piece
    of more than 8 bytes and that the write side stayed open."""
    r = run("-s", os.path.join(sockdir, "sock"), *args, input=input)
    server.finish()
    assert server.request is not None and len(server.request) > 8
    assert server.later == b""
    assert server.eof_before_reply is False
    return r


def ordered(value):
    """value as json.loads(..., object_pairs_hook=list) gives it, so that
    comparing also compares member order."""
    if isinstance(value, dict):
        return [(k, ordered(v)) for k, v in value.items()]
    if isinstance(value, list):
        return [ordered(v) for v in value]
    return value


def parsed(data):
    return json.loads(data, object_pairs_hook=list)


def request_of(method, arguments, **tag):
    return ordered({"method": method, "arguments": arguments, **tag})


# --------------------------------------------------------------------------
# The request of every form
# --------------------------------------------------------------------------

FORMS = [
    (["get", "lan_ipaddr"],
     request_of("pref-get", {"confs": ["lan_ipaddr"]})),
    (["get", "lan_ipaddr", "wl_ssid", "lan_ipaddr"],
     request_of("pref-get", {"confs": ["lan_ipaddr", "wl_ssid", "lan_ipaddr"]})),
    (["info", "s_time"],
     request_of("pref-get", {"infos": ["s_time"]})),
    (["info", "s_time", "fwup_status"],
     request_of("pref-get", {"infos": ["s_time", "fwup_status"]})),
    (["set", 'wl_ssid="Trip"'],
     request_of("pref-set", {"confs": {"wl_ssid": "Trip"}})),
    (["set", "wl_ssid=Trip"],
     request_of("pref-set", {"confs": {"wl_ssid": "Trip"}})),
    (["set", "a=5", "b=[1, 2]", 'c={"d":{"e":null}}', "f=null", "g=true",
      "h=-1.5e3", 'i=" spaced "'],
     request_of("pref-set", {"confs": {"a": 5, "b": [1, 2], "c": {"d": {"e": None}},
                                       "f": None, "g": True, "h": -1500.0,
                                       "i": " spaced "}})),
    # Not JSON text as a whole: each is sent as the string it is.
    (["set", "empty=", "eq=a=b", "two=1 2", "quote='x'", "nan=NaN", "True=True",
      "comma=[1,]", "slash=/tmp/a", "word=on"],
     request_of("pref-set", {"confs": {"empty": "", "eq": "a=b", "two": "1 2",
                                       "quote": "'x'", "nan": "NaN", "True": "True",
                                       "comma": "[1,]", "slash": "/tmp/a",
                                       "word": "on"}})),
    (["set", "a=1", "a=2"],
     request_of("pref-set", {"confs": {"a": 2}})),
    (["revalidate", "dhcp", "restart"],
     request_of("revalidate", {"dhcp": {"action": "restart"}})),
    (["revalidate", "dhcp"],
     request_of("revalidate", {"dhcp": {}})),
    (["revalidate", "sys_event", "SYS_EVENT_DHCP_SUCCESS", "arg=mlan0"],
     request_of("revalidate", {"sys_event": {"action": "SYS_EVENT_DHCP_SUCCESS",
                                             "arg": "mlan0"}})),
    (["revalidate", "sync_signal", "stop"],
     request_of("revalidate", {"sync_signal": {"action": "stop"}})),
    (["revalidate", "wl", "update", "n=3", 'list=["a"]', "word=x y"],
     request_of("revalidate", {"wl": {"action": "update", "n": 3,
                                           "list": ["a"], "word": "x y"}})),
    (["revalidate", "owner_chg", "user=2", 'name="Ann"'],
     request_of("revalidate", {"owner_chg": {"user": 2, "name": "Ann"}})),
    (["--tag", "7", "get", "a"],
     request_of("pref-get", {"confs": ["a"]}, tag=7)),
    (["--tag", '{"id":[1,"x"]}', "revalidate", "dhcp", "stop"],
     request_of("revalidate", {"dhcp": {"action": "stop"}}, tag={"id": [1, "x"]})),
    (["--tag", "job-1", "set", "x=1"],
     request_of("pref-set", {"confs": {"x": 1}}, tag="job-1")),
]


@pytest.mark.parametrize("args,expected", FORMS, ids=[" ".join(f[0]) for f in FORMS])
def test_request_of_each_form(serve, sockdir, args, expected):
    server = serve()
    r = exchange(server, sockdir, *args)
    assert parsed(server.request) == expected
    assert (r.returncode, r.stdout, r.stderr) == (
        0, b'{"arguments":{},"result":"success"}\n', b"")


RAW = [
    ('{"method":"pref-get","arguments":{"confs":["x"]}}'),
    (' {"method" : "revalidate", "arguments":{}, "tag":[1]} '),
    ('{"method":"bogus"'),
]


@pytest.mark.parametrize("text", RAW)
def test_raw_from_argument_is_sent_exactly(serve, sockdir, text):
    server = serve()
    r = exchange(server, sockdir, "raw", text)
    assert server.request == text.encode()
    assert (r.returncode, r.stderr) == (0, b"")


def test_raw_from_stdin_is_sent_exactly(serve, sockdir):
    text = b'{"method":"revalidate",\n "arguments":{"dhcp":{"action":"restart"}}}\n'
    server = serve()
    r = exchange(server, sockdir, "raw", input=text)
    assert server.request == text
    assert (r.returncode, r.stdout, r.stderr) == (
        0, b'{"arguments":{},"result":"success"}\n', b"")


def test_raw_from_stdin_ends_at_its_first_nul(serve, sockdir):
    text = b'{"method":"revalidate","arguments":{}}'
    server = serve()
    r = exchange(server, sockdir, "raw", input=text + b"\0{junk")
    assert server.request == text
    assert (r.returncode, r.stderr) == (0, b"")


def test_hxctl_needs_nothing_of_the_cpp_runtime():
    """Scripts start hxctl on every call: it must not load libstdc++ (an
    owner's cleanup around a json-c call would need its unwinder unless
    hxctl is built without exceptions)."""
    r = subprocess.run(["readelf", "--dyn-syms", "-W", HXCTL[-1]], capture_output=True,
                       timeout=60, check=True)
    cxx = [line for line in r.stdout.decode().splitlines()
           if "@GLIBCXX" in line or "@CXXABI" in line]
    assert cxx == []


def test_long_request_arrives_in_one_piece(serve, sockdir):
    # Just under the 4096 bytes that the daemon's libevent reads at once.
    keys = ["key_%02d_%s" % (i, "k" * 40) for i in range(80)]
    server = serve()
    exchange(server, sockdir, "get", *keys)
    assert 4000 < len(server.request) < 4096
    assert parsed(server.request) == request_of("pref-get", {"confs": keys})


# --------------------------------------------------------------------------
# Replies and exit status
# --------------------------------------------------------------------------

def test_reply_printed_compact(serve, sockdir):
    reply = (b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1", '
             b'"l": [ 1, 2 ], "p": "\\/tmp" } }, "result": "success", "tag": 7 }')
    server = serve(pieces=[reply])
    r = exchange(server, sockdir, "--tag", "7", "get", "lan_ipaddr", "l", "p")
    assert (r.returncode, r.stderr) == (0, b"")
    assert r.stdout == (b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1",'
                        b'"l":[1,2],"p":"\\/tmp"}},"result":"success","tag":7}\n')


def test_reply_printed_pretty(serve, sockdir):
    reply = (b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1", '
             b'"l": [ 1, 2 ], "e": { } } }, "result": "success" }')
    server = serve(pieces=[reply])
    r = exchange(server, sockdir, "-p", "get", "lan_ipaddr")
    assert (r.returncode, r.stderr) == (0, b"")
    assert r.stdout == (b'{\n'
                        b'  "arguments":{\n'
                        b'    "confs":{\n'
                        b'      "lan_ipaddr":"192.168.100.1",\n'
                        b'      "l":[\n'
                        b'        1,\n'
                        b'        2\n'
                        b'      ],\n'
                        b'      "e":{\n'
                        b'      }\n'
                        b'    }\n'
                        b'  },\n'
                        b'  "result":"success"\n'
                        b'}\n')


def test_reply_split_over_writes_is_read_whole(serve, sockdir):
    pieces = [b'{ "arguments": { "confs": { "lan_ip', b'addr": "192.168.100.1" } }, "res',
              b'ult": "succ', b'ess" }']
    server = serve(pieces=pieces, delay=0.3)
    r = exchange(server, sockdir, "get", "lan_ipaddr")
    assert (r.returncode, r.stderr) == (0, b"")
    assert r.stdout == b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1"}},"result":"success"}\n'


def test_text_after_the_reply_is_ignored(serve, sockdir):
    server = serve(pieces=[SUCCESS + b'{ "result": "internal error" }'])
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        0, b'{"arguments":{},"result":"success"}\n', b"")


def test_error_result_exits_1(serve, sockdir):
    server = serve(pieces=[b'{"arguments":{},"result":"internal error"}'])
    r = exchange(server, sockdir, "set", "product_model=x")
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'{"arguments":{},"result":"internal error"}\n', b"hxctl: internal error\n")


def test_error_result_with_newline_is_one_line(serve, sockdir):
    server = serve(pieces=[b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'])
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'{"arguments":{"confs":{}},"result":"Database open failed!\\n"}\n',
        b"hxctl: Database open failed!\n")


def test_error_result_keeps_tag(serve, sockdir):
    server = serve(pieces=[b'{ "arguments": { }, "result": "system busy", "tag": "t" }'])
    r = exchange(server, sockdir, "--tag", "t", "revalidate", "dhcp", "restart")
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'{"arguments":{},"result":"system busy","tag":"t"}\n', b"hxctl: system busy\n")


def test_non_string_result_exits_1(serve, sockdir):
    server = serve(pieces=[b'{"result":5}'])
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (1, b'{"result":5}\n', b"hxctl: 5\n")


def test_reply_without_result_exits_1(serve, sockdir):
    server = serve(pieces=[b'[ 1 ]'])
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'[1]\n', b'hxctl: reply without "result"\n')


def test_closed_without_reply_exits_2(serve, sockdir):
    server = serve(pieces=None, close=True)
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"", b"hxctl: connection closed without a complete reply\n")


def test_closed_within_reply_exits_2(serve, sockdir):
    server = serve(pieces=[b'{ "arguments": { }, "res'], close=True)
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"", b"hxctl: connection closed without a complete reply\n")


def test_no_answer_times_out_exits_2(serve, sockdir):
    server = serve(pieces=None)
    r = exchange(server, sockdir, "-t", "1", "revalidate", "dhcp", "restart")
    assert (r.returncode, r.stdout, r.stderr) == (2, b"", b"hxctl: no reply after 1 s\n")


def test_part_of_a_reply_then_silence_times_out(serve, sockdir):
    server = serve(pieces=[b'{ "arguments": { } '])
    r = exchange(server, sockdir, "-t", "1", "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (2, b"", b"hxctl: no reply after 1 s\n")


def test_malformed_reply_exits_2(serve, sockdir):
    server = serve(pieces=[b'{ "result": success }'])
    r = exchange(server, sockdir, "get", "a")
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"", b"hxctl: malformed reply: unexpected character\n")


def test_no_socket_exits_3(sockdir):
    path = os.path.join(sockdir, "none")
    r = run("-s", path, "get", "lan_ipaddr")
    assert (r.returncode, r.stdout, r.stderr) == (
        3, b"", b"hxctl: cannot connect to %s: No such file or directory\n" % path.encode())


def test_socket_nobody_listens_exits_3(sockdir):
    path = os.path.join(sockdir, "dead")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.bind(path)
    try:
        r = run("-s", path, "get", "lan_ipaddr")
    finally:
        s.close()
    assert (r.returncode, r.stdout, r.stderr) == (
        3, b"", b"hxctl: cannot connect to %s: Connection refused\n" % path.encode())


def test_socket_path_too_long_exits_3():
    path = "/tmp/" + "x" * 120
    r = run("-s", path, "get", "lan_ipaddr")
    assert (r.returncode, r.stdout, r.stderr) == (
        3, b"", b"hxctl: cannot connect to %s: socket path too long\n" % path.encode())


# --------------------------------------------------------------------------
# Usage
# --------------------------------------------------------------------------

USAGE = [
    ([], "missing command"),
    (["bogus"], "unknown command 'bogus'"),
    (["get"], "get needs at least one KEY"),
    (["info"], "info needs at least one ITEM"),
    (["set"], "set needs at least one KEY=JSON"),
    (["set", "novalue"], "'novalue' is not NAME=VALUE"),
    (["set", "a=1", "=5"], "'=5' is not NAME=VALUE"),
    (["revalidate"], "revalidate needs a TARGET"),
    (["revalidate", "dhcp", "restart", "bad"], "'bad' is not NAME=VALUE"),
    (["revalidate", "sys_event", "arg=1", "X"], "'X' is not NAME=VALUE"),
    (["raw", "{}", "{}"], "raw takes at most one JSON text"),
    (["raw", ""], "empty request"),
    (["--tag", "1", "raw", '{"method":"x","arguments":{}}'],
     "--tag cannot be added to a raw request"),
    (["-t", "0", "get", "a"], "bad time-out '0': whole seconds from 1 to 2000000 expected"),
    (["-t", "1.5", "get", "a"], "bad time-out '1.5': whole seconds from 1 to 2000000 expected"),
    (["-t", "2000001", "get", "a"],
     "bad time-out '2000001': whole seconds from 1 to 2000000 expected"),
    (["-t"], "option '-t' needs an argument"),
    (["-s"], "option '-s' needs an argument"),
    (["--tag"], "option '--tag' needs an argument"),
    (["-x", "get", "a"], "unknown option '-x'"),
    (["--bogus", "get", "a"], "unknown option '--bogus'"),
]


@pytest.mark.parametrize("args,message", USAGE, ids=[" ".join(u[0]) or "none" for u in USAGE])
def test_usage_error_exits_64_without_connecting(sockdir, args, message):
    path = os.path.join(sockdir, "sock")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    listener.listen(1)
    try:
        r = run("-s", path, *args)
        listener.setblocking(False)
        with pytest.raises(BlockingIOError):
            listener.accept()
    finally:
        listener.close()
    assert (r.returncode, r.stdout, r.stderr) == (
        64, b"", ("hxctl: %s\n" % message + TRY).encode())


def test_raw_with_empty_stdin_is_a_usage_error(sockdir):
    r = run("-s", os.path.join(sockdir, "none"), "raw", input=b"")
    assert (r.returncode, r.stdout, r.stderr) == (64, b"", ("hxctl: empty request\n" + TRY).encode())


@pytest.mark.parametrize("flag", ["-h", "--help"])
def test_help_shows_every_form_and_exit_status(flag):
    r = run(flag, "get", "a")
    assert (r.returncode, r.stderr) == (0, b"")
    text = r.stdout.decode()
    assert text.startswith(
        "Usage: hxctl [-s PATH] [-t SECONDS] [-p] [--tag JSON] COMMAND [ARG...]\n")
    for line in [
            "  get KEY...", "    hxctl get lan_ipaddr wl_ssid\n",
            "  info ITEM...", "    hxctl info s_time\n",
            "  set KEY=JSON...", "    hxctl set wl_ssid='\"Trip\"' wl_wpa_key=secret123\n",
            "  revalidate TARGET [ACTION] [NAME=JSON...]\n",
            "    hxctl revalidate dhcp restart\n",
            "    hxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0\n",
            "  raw [JSON]", "    hxctl raw '{\"method\":\"pref-get\",\"arguments\":{}}'\n",
            "| hxctl raw\n",
            "  -s PATH ", "(default /var/tmp/socket)", "    hxctl -s /tmp/socket get lan_ipaddr\n",
            "  -t SECONDS ", "(default 30)", "    hxctl -t 120 revalidate wan restart\n",
            "  -p ", "    hxctl -p info s_time\n",
            "  --tag JSON ", "    hxctl --tag 7 get lan_ipaddr\n",
            "  -h, --help ",
            "  0   the reply's \"result\" is \"success\"\n",
            "  1   the reply's \"result\" is anything else",
            "  2   no complete reply",
            "  3   the request could not be sent",
            "  64  usage error\n"]:
        assert line in text


def test_man_page_renders_cleanly_and_names_every_form():
    page = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "hxctl.1")
    r = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", page],
                       capture_output=True, timeout=60)
    assert (r.returncode, r.stderr) == (0, b"")
    text = subprocess.run(["groff", "-man", "-Tascii", "-P-cbou", page],
                          capture_output=True, timeout=60, check=True,
                          env={**os.environ, "MANWIDTH": "80"}).stdout.decode()
    for word in ["hxctl get lan_ipaddr", "hxctl info s_time", "hxctl set wl_ssid=",
                 "hxctl revalidate dhcp restart",
                 "hxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0",
                 "hxctl revalidate sync_signal stop", "hxctl raw", "/var/tmp/socket",
                 "EXIT STATUS", "64"]:
        assert word in text, word


# --------------------------------------------------------------------------
# Against the real daemon in the sandbox
# --------------------------------------------------------------------------

def sandbox_hxctl(sandbox, *args, input=None):
    return sandbox.run(["/usr/bin/hxctl", *args], input=input)


def stored_json(sandbox, key):
    raw = sandbox.store_get("sysconf", key)
    assert raw is not None
    return json.loads(raw.split(b"\0")[0])


def test_daemon_get_lan_ipaddr(sandbox, daemon):
    value = stored_json(sandbox, "lan_ipaddr")
    r = sandbox_hxctl(sandbox, "get", "lan_ipaddr")
    assert (r.returncode, r.stderr) == (0, b"")
    assert r.stdout == b'{"arguments":{"confs":{"lan_ipaddr":%s},"infos":{}},"result":"success"}\n' % (
        json.dumps(value).encode())


def test_daemon_get_unknown_key_pretty(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "-p", "get", "nonexistent_key")
    assert (r.returncode, r.stderr) == (0, b"")
    assert r.stdout == b'{\n  "arguments":{\n    "confs":{\n    },\n    "infos":{\n    }\n  },\n  "result":"success"\n}\n'


def test_daemon_set_product_model_fails(sandbox, daemon):
    before = sandbox.store_get("sysconf", "product_model")
    r = sandbox_hxctl(sandbox, "set", "product_model=x")
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'{"arguments":{},"result":"internal error"}\n', b"hxctl: internal error\n")
    assert sandbox.store_get("sysconf", "product_model") == before


def test_daemon_set_plain_word_stores_json_string(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "set", "wl_ssid=Trip Two")
    assert (r.returncode, r.stdout, r.stderr) == (0, b'{"arguments":{},"result":"success"}\n', b"")
    assert stored_json(sandbox, "wl_ssid") == "Trip Two"
    r = sandbox_hxctl(sandbox, "get", "wl_ssid")
    assert r.stdout == b'{"arguments":{"confs":{"wl_ssid":"Trip Two"},"infos":{}},"result":"success"}\n'


def test_daemon_raw_with_tag(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "raw", '{"method":"revalidate","arguments":{},"tag":7}')
    assert (r.returncode, r.stdout, r.stderr) == (
        0, b'{"arguments":{},"result":"success","tag":7}\n', b"")


def test_daemon_method_not_found_from_stdin(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "raw", input=b'{"method":"bogus","arguments":{}}\n')
    assert (r.returncode, r.stdout, r.stderr) == (
        1, b'{"arguments":{},"result":"method not found"}\n', b"hxctl: method not found\n")


def test_daemon_malformed_request_closes_without_reply(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "raw", '{"method": "pref-get", "arguments":')
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"", b"hxctl: connection closed without a complete reply\n")


def test_daemon_short_request_gets_no_reply(sandbox, daemon):
    r = sandbox_hxctl(sandbox, "-t", "1", "raw", "{}")
    assert (r.returncode, r.stdout, r.stderr) == (2, b"", b"hxctl: no reply after 1 s\n")

"""hxctl, the command-line client: on the host against a fake server on a
socket in a temporary directory, then inside the sandbox against hxsrvd."""
import os
import select
import socket
import subprocess
import tempfile
import threading
import time

import pytest

from hxsim import REPO, build_command

HXCTL = build_command(os.environ.get("HX_BUILD") or os.path.join(REPO, "build"), "hxctl")
SUCCESS = b'{ "arguments": { }, "result": "success" }'
OK = (0, b'{"arguments":{},"result":"success"}\n', b"")
TRY = b"Try 'hxctl --help' for more information.\n"
CLOSED = b"hxctl: connection closed without a complete reply\n"


@pytest.fixture
def sock():
    with tempfile.TemporaryDirectory(prefix="hxctl-") as d:  # a socket path holds at most 107 bytes
        yield os.path.join(d, "sock")


def hxctl(sock, args, stdin=b""):
    r = subprocess.run([*HXCTL, "-s", sock, *args], input=stdin, capture_output=True, timeout=60)
    return r.returncode, r.stdout, r.stderr


def exchange(sock, args, stdin=b"", pieces=(SUCCESS,), close=False, delay=0.0):
    """hxctl against a server that takes one read as the request, writes the
    pieces and, unless close, reads until the client closes: (request, result)."""
    seen = {}

    def serve():
        conn = ls.accept()[0]
        with conn:
            seen["request"] = conn.recv(1 << 20)
            seen["eof"] = bool(select.select([conn], [], [], 0.2)[0]) and conn.recv(1, socket.MSG_PEEK) == b""
            for i, piece in enumerate(pieces or ()):
                time.sleep(delay if i else 0)
                conn.sendall(piece)
            seen["later"] = b"" if close else b"".join(iter(lambda: conn.recv(4096), b""))
    with socket.socket(socket.AF_UNIX) as ls:
        ls.bind(sock)
        ls.listen(1)
        t = threading.Thread(target=serve, daemon=True)
        t.start()
        result = hxctl(sock, args, stdin)
        t.join(30)
    os.unlink(sock)
    assert (seen["eof"], seen["later"]) == (False, b"")  # the write side stays open until the reply
    return seen["request"], result


KEYS = ["key_%02d_%s" % (i, "k" * 40) for i in range(80)]  # just under the daemon's 4096-byte read
FORMS = [
    ("get lan_ipaddr wl_ssid lan_ipaddr".split(), b'{"method":"pref-get","arguments":{"confs":["lan_ipaddr","wl_ssid","lan_ipaddr"]}}'),
    ("info s_time fwup_status".split(), b'{"method":"pref-get","arguments":{"infos":["s_time","fwup_status"]}}'),
    (["set", 'w="Trip"', "a=5", "b=[1, 2]", 'c={"d":{"e":null}}', "f=null", "g=true", "h=-1.5e3", 'i=" x "'],
     b'{"method":"pref-set","arguments":{"confs":{"w":"Trip","a":5,"b":[1,2],"c":{"d":{"e":null}},"f":null,"g":true,'
     b'"h":-1.5e3,"i":" x "}}}'),
    (["set", "empty=", "eq=a=b", "two=1 2", "q='x'", "nan=NaN", "True=True", "comma=[1,]", "slash=/tmp/a", "w=on"],
     b'{"method":"pref-set","arguments":{"confs":{"empty":"","eq":"a=b","two":"1 2","q":"\'x\'","nan":"NaN",'
     b'"True":"True","comma":"[1,]","slash":"\\/tmp\\/a","w":"on"}}}'),
    ("set a=1 a=2".split(), b'{"method":"pref-set","arguments":{"confs":{"a":2}}}'),
    ("revalidate dhcp restart".split(), b'{"method":"revalidate","arguments":{"dhcp":{"action":"restart"}}}'),
    ("revalidate dhcp".split(), b'{"method":"revalidate","arguments":{"dhcp":{}}}'),
    ("revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0".split(),
     b'{"method":"revalidate","arguments":{"sys_event":{"action":"SYS_EVENT_DHCP_SUCCESS","arg":"mlan0"}}}'),
    (["revalidate", "wl", "update", "n=3", 'l=["a"]', "w=x y"],
     b'{"method":"revalidate","arguments":{"wl":{"action":"update","n":3,"l":["a"],"w":"x y"}}}'),
    ("revalidate owner_chg user=2 name=Ann".split(), b'{"method":"revalidate","arguments":{"owner_chg":{"user":2,"name":"Ann"}}}'),
    ("--tag 7 get a".split(), b'{"method":"pref-get","arguments":{"confs":["a"]},"tag":7}'),
    (["--tag", '{"id":[1,"x"]}', "revalidate", "dhcp", "stop"],
     b'{"method":"revalidate","arguments":{"dhcp":{"action":"stop"}},"tag":{"id":[1,"x"]}}'),
    ("--tag job-1 set x=1".split(), b'{"method":"pref-set","arguments":{"confs":{"x":1}},"tag":"job-1"}'),
    (["get", *KEYS], b'{"method":"pref-get","arguments":{"confs":["' + '","'.join(KEYS).encode() + b'"]}}'),
    (["raw", ' {"method" : "revalidate", "arguments":{}, "tag":[1]} '], b' {"method" : "revalidate", "arguments":{}, "tag":[1]} '),
    (["raw", '{"method":"bogus"'], b'{"method":"bogus"'),
    (["raw"], b'{"method":"revalidate",\n "arguments":{}}\n', b'{"method":"revalidate",\n "arguments":{}}\n'),
    (["raw"], b'{"method":"revalidate","arguments":{}}', b'{"method":"revalidate","arguments":{}}\0{junk'),  # ends at a NUL
]


@pytest.mark.parametrize("args, sent, stdin", [(*f, b"")[:3] for f in FORMS], ids=[" ".join(f[0])[:40] for f in FORMS])
def test_request_of_each_form(sock, args, sent, stdin):
    assert exchange(sock, args, stdin) == (sent, OK)


REPLY = (b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1", "l": [ 1, 2 ], "p": "\\/tmp", "e": { } } },'
         b' "result": "success", "tag": 7 }')


@pytest.mark.parametrize("args, pieces, close, out", [
    ([], [REPLY], False, (0, b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1","l":[1,2],"p":"\\/tmp","e":{}}},'
                             b'"result":"success","tag":7}\n', b"")),
    (["-p"], [REPLY], False, (0, b'{\n  "arguments":{\n    "confs":{\n      "lan_ipaddr":"192.168.100.1",\n      "l":[\n'
                                 b'        1,\n        2\n      ],\n      "p":"\\/tmp",\n      "e":{\n      }\n    }\n  },\n'
                                 b'  "result":"success",\n  "tag":7\n}\n', b"")),
    ([], [REPLY[:20], REPLY[20:50], REPLY[50:]], False, (0, b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1",'
                                                            b'"l":[1,2],"p":"\\/tmp","e":{}}},"result":"success","tag":7}\n', b"")),
    ([], [SUCCESS + b'{ "result": "internal error" }'], False, OK),
    ([], [b'{"arguments":{},"result":"internal error"}'], False,
     (1, b'{"arguments":{},"result":"internal error"}\n', b"hxctl: internal error\n")),
    ([], [b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n", "tag": "t" }'], False,
     (1, b'{"arguments":{"confs":{}},"result":"Database open failed!\\n","tag":"t"}\n', b"hxctl: Database open failed!\n")),
    ([], [b'{"result":5}'], False, (1, b'{"result":5}\n', b"hxctl: 5\n")),
    ([], [b"[ 1 ]"], False, (1, b"[1]\n", b'hxctl: reply without "result"\n')),
    ([], None, True, (2, b"", CLOSED)),
    ([], [b'{ "arguments": { }, "res'], True, (2, b"", CLOSED)),
    (["-t", "1"], None, False, (2, b"", b"hxctl: no reply after 1 s\n")),
    (["-t", "1"], [b'{ "arguments": { } '], False, (2, b"", b"hxctl: no reply after 1 s\n")),
    ([], [b'{ "result": success }'], False, (2, b"", b"hxctl: malformed reply: unexpected character\n")),
], ids=["compact", "pretty", "split", "text-after", "error", "newline-tag", "not-string", "no-result", "closed",
        "closed-within", "silent", "silent-within", "malformed"])
def test_reply_and_exit_status(sock, args, pieces, close, out):
    assert exchange(sock, [*args, "get", "a"], pieces=pieces, close=close, delay=0.3)[1] == out


def test_request_not_delivered_exits_3(sock):
    assert hxctl(sock, ["get", "a"]) == (3, b"", b"hxctl: cannot connect to %s: No such file or directory\n" % sock.encode())
    with socket.socket(socket.AF_UNIX) as s:
        s.bind(sock)
        assert hxctl(sock, ["get", "a"]) == (3, b"", b"hxctl: cannot connect to %s: Connection refused\n" % sock.encode())
    for path, why in (("/tmp/" + "x" * 102, b"No such file or directory"), ("/tmp/" + "x" * 103, b"socket path too long")):
        assert hxctl(path, ["get", "a"]) == (3, b"", b"hxctl: cannot connect to %s: %s\n" % (path.encode(), why))


T = "whole seconds from 1 to 2000000 expected"
USAGE = [("", "missing command"), ("bogus", "unknown command 'bogus'"), ("get", "get needs at least one KEY"),
         ("info", "info needs at least one ITEM"), ("set", "set needs at least one KEY=JSON"),
         ("set novalue", "'novalue' is not NAME=VALUE"), ("set a=1 =5", "'=5' is not NAME=VALUE"),
         ("revalidate", "revalidate needs a TARGET"), ("revalidate dhcp restart bad", "'bad' is not NAME=VALUE"),
         ("revalidate sys_event arg=1 X", "'X' is not NAME=VALUE"), ("raw {} {}", "raw takes at most one JSON text"),
         ("raw", "empty request"), ("--tag 1 raw {}", "--tag cannot be added to a raw request"),
         ("-t 0 get a", f"bad time-out '0': {T}"), ("-t 1.5 get a", f"bad time-out '1.5': {T}"),
         ("-t 2000001 get a", f"bad time-out '2000001': {T}"), ("-t", "option '-t' needs an argument"),
         ("-s", "option '-s' needs an argument"), ("--tag", "option '--tag' needs an argument"),
         ("-x get a", "unknown option '-x'"), ("--bogus get a", "unknown option '--bogus'")]


def test_usage_error_exits_64_without_connecting(sock):
    with socket.socket(socket.AF_UNIX) as ls:
        ls.bind(sock)
        ls.listen(1)
        for args, message in USAGE:
            assert hxctl(sock, args.split()) == (64, b"", b"hxctl: %s\n%s" % (message.encode(), TRY)), args
        ls.setblocking(False)
        with pytest.raises(BlockingIOError):
            ls.accept()
    os.unlink(sock)  # the edges of the time-out are accepted
    assert [exchange(sock, ["-t", t, "get", "a"])[1] for t in ("1", "2000000")] == [OK, OK]


def test_help_shows_every_form_and_exit_status():
    for flag in ("-h", "--help"):
        r = subprocess.run([*HXCTL, flag, "get", "a"], capture_output=True, timeout=60)
        assert (r.returncode, r.stderr) == (0, b"")
        assert r.stdout.startswith(b"Usage: hxctl [-s PATH] [-t SECONDS] [-p] [--tag JSON] COMMAND [ARG...]\n")
        for line in [b"\n  get KEY...  ", b"\n  info ITEM...  ", b"\n  set KEY=JSON...  ", b"\n  raw [JSON]  ",
                     b"\n  revalidate TARGET [ACTION] [NAME=JSON...]\n", b"(default /var/tmp/socket)\n", b"(default 30)\n",
                     b"\n  0   the reply's \"result\" is \"success\"\n", b"\n  64  usage error\n"]:
            assert line in r.stdout, line


def test_hxctl_needs_nothing_of_the_cpp_runtime():
    """Scripts start hxctl on every call: it must not load libstdc++."""
    r = subprocess.run(["readelf", "--dyn-syms", "-W", HXCTL[-1]], capture_output=True, timeout=60, check=True)
    assert [s for s in r.stdout.decode().splitlines() if "@GLIBCXX" in s or "@CXXABI" in s] == []


@pytest.mark.parametrize("cmd, out", [
    ("hxctl get lan_ipaddr", b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1"},"infos":{}},"result":"success"}\n'),
    ("hxctl -p get none", b'{\n  "arguments":{\n    "confs":{\n    },\n    "infos":{\n    }\n  },\n  "result":"success"\n}\n'),
    ("hxctl set product_model=x; sysconf get product_model", (0, b'{"arguments":{},"result":"internal error"}\n"HX-R1"\n',
                                                              b"hxctl: internal error\n")),
    ("hxctl set 'wl_ssid=Trip Two' && sysconf get wl_ssid", b'{"arguments":{},"result":"success"}\n"Trip Two"\n'),
    ("sysconf set wl_ssid '\"S\"' && hxctl get wl_ssid", b'{"arguments":{"confs":{"wl_ssid":"S"},"infos":{}},"result":"success"}\n'),
    ("hxctl set 'wl_ssid=[\"a/b\", 1]' >/dev/null && sysconf get wl_ssid", b'[ "a\\/b", 1 ]\n'),
    ("hxctl raw '{\"method\":\"revalidate\",\"arguments\":{},\"tag\":7}'", b'{"arguments":{},"result":"success","tag":7}\n'),
    ("echo '{\"method\":\"bogus\",\"arguments\":{}}' | hxctl raw",
     (1, b'{"arguments":{},"result":"method not found"}\n', b"hxctl: method not found\n")),
    ("hxctl raw '{\"method\": \"pref-get\", \"arguments\":'", (2, b"", CLOSED)),
    ("hxctl -t 1 raw {}", (2, b"", b"hxctl: no reply after 1 s\n")),  # too short to be a request
], ids=["get", "pretty", "read-only", "set-word", "sysconf-set", "set-json", "tag", "no-method", "malformed", "short"])
def test_against_the_daemon(sandbox, daemon, cmd, out):
    r = sandbox.run(["/bin/sh", "-c", cmd])
    assert (r.returncode, r.stdout, r.stderr) == (out if isinstance(out, tuple) else (0, out, b""))

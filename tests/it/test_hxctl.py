"""hxctl on the host against a fake server on a socket of its own, then inside the sandbox against hxsrvd."""
import os
import re
import select
import shlex
import socket
import subprocess
import tempfile
import threading
import time

import pytest

from hxsim import REPO, build_command

HXCTL = build_command(os.environ.get("HX_BUILD") or os.path.join(REPO, "build"), "hxctl")
SUCCESS, OK = b'{ "arguments": { }, "result": "success" }', (0, b'{"arguments":{},"result":"success"}\n', b"")
CLOSED, SILENT = b"hxctl: connection closed without a complete reply\n", b"hxctl: no reply after 1 s\n"


@pytest.fixture
def sock():
    with tempfile.TemporaryDirectory(prefix="hxctl-") as d:  # a socket path holds at most 107 bytes
        yield os.path.join(d, "sock")


def hxctl(sock, args, stdin=b""):
    r = subprocess.run([*HXCTL, "-s", sock, *args], input=stdin, capture_output=True, timeout=60)
    return r.returncode, r.stdout, r.stderr


def exchange(sock, args, stdin=b"", pieces=(SUCCESS,), close=False):
    """(request, result) against a server that takes one read as the request, writes pieces, reads till closed."""
    seen = {}

    def serve():
        with ls.accept()[0] as conn:
            seen["request"] = conn.recv(1 << 20)
            seen["eof"] = bool(select.select([conn], [], [], 0.2)[0]) and conn.recv(1, socket.MSG_PEEK) == b""
            for i, piece in enumerate(pieces or ()):
                time.sleep(0.3 if i else 0)
                conn.sendall(piece)
            seen["later"] = b"" if close else b"".join(iter(lambda: conn.recv(4096), b""))
    with socket.socket(socket.AF_UNIX) as ls:
        ls.bind(sock)
        ls.listen(1)
        (t := threading.Thread(target=serve, daemon=True)).start()
        result = hxctl(sock, args, stdin)
        t.join(30)
    os.unlink(sock)
    assert (seen["eof"], seen["later"]) == (False, b"")  # the write side stays open until the reply
    return seen["request"], result


RAW = ' {"method" : "revalidate", "arguments":{}, "tag":[1]} '
FORMS = [  # arguments, standard input, the request (after '{"method":' unless raw)
    ("get a b a", b"", b'"pref-get","arguments":{"confs":["a","b","a"]}}'),
    ("info s_time fwup_status", b"", b'"pref-get","arguments":{"infos":["s_time","fwup_status"]}}'),
    ("""set 'w="T"' a=5 'b=[1, 2]' 'c={"d":{"e":null}}' f=null g=true h=-1.5e3 'i=" x "'""", b"",
     b'"pref-set","arguments":{"confs":{"w":"T","a":5,"b":[1,2],"c":{"d":{"e":null}},"f":null,"g":true,"h":-1.5e3,"i":" x "}}}'),
    ("set empty= eq=a=b 'two=1 2' \"q='x'\" nan=NaN True=True comma=[1,] slash=/tmp/a w=on", b"",
     b'"pref-set","arguments":{"confs":{"empty":"","eq":"a=b","two":"1 2","q":"\'x\'","nan":"NaN","True":"True",'
     b'"comma":"[1,]","slash":"\\/tmp\\/a","w":"on"}}}'),
    ("revalidate dhcp", b"", b'"revalidate","arguments":{"dhcp":{}}}'),
    ("revalidate dhcp restart", b"", b'"revalidate","arguments":{"dhcp":{"action":"restart"}}}'),
    ("revalidate wl update n=3 'l=[\"a\"]' 'w=x y'", b"", b'"revalidate","arguments":{"wl":{"action":"update","n":3,"l":["a"],"w":"x y"}}}'),
    ("revalidate owner_chg user=2 name=Ann", b"", b'"revalidate","arguments":{"owner_chg":{"user":2,"name":"Ann"}}}'),
    ("--tag 7 get a", b"", b'"pref-get","arguments":{"confs":["a"]},"tag":7}'),
    ("--tag job-1 set x=1", b"", b'"pref-set","arguments":{"confs":{"x":1}},"tag":"job-1"}'),
    ("raw " + shlex.quote(RAW), b"", RAW.encode()), ("raw", b'{"method":\n"x"}\n', b'{"method":\n"x"}\n'),
    ("raw", b'{"method":"revalidate"}\0{junk', b'{"method":"revalidate"}'),  # standard input ends at its first NUL
]


@pytest.mark.parametrize("args, stdin, sent", FORMS, ids=[f[0][:40] for f in FORMS])
def test_request_of_each_form(sock, args, stdin, sent):
    assert exchange(sock, shlex.split(args), stdin) == (sent if sent[:1] in b"{ " else b'{"method":' + sent, OK)


REPLY = b'{ "arguments": { "confs": { "l": [ 1, 2 ], "p": "\\/tmp", "e": { } } }, "result": "success", "tag": 7 }'
COMPACT = (0, b'{"arguments":{"confs":{"l":[1,2],"p":"\\/tmp","e":{}}},"result":"success","tag":7}\n', b"")


@pytest.mark.parametrize("args, pieces, close, out", [("", [REPLY], False, COMPACT),
    ("-p", [REPLY], False, (0, b'{\n  "arguments":{\n    "confs":{\n      "l":[\n        1,\n        2\n      ],\n      "p":"\\/tmp",'
                               b'\n      "e":{\n      }\n    }\n  },\n  "result":"success",\n  "tag":7\n}\n', b"")),
    ("", [REPLY[:20], REPLY[20:50], REPLY[50:]], False, COMPACT), ("", [SUCCESS + b'{ "result": "internal error" }'], False, OK),
    ("", [b'{"result":"internal error"}'], False, (1, b'{"result":"internal error"}\n', b"hxctl: internal error\n")),
    ("", [b'{ "result": "Open failed!\\n", "tag": "t" }'], False, (1, b'{"result":"Open failed!\\n","tag":"t"}\n', b"hxctl: Open failed!\n")),
    ("", [b'{"result":5}'], False, (1, b'{"result":5}\n', b"hxctl: 5\n")), ("", None, True, (2, b"", CLOSED)),
    ("", [b"[ 1 ]"], False, (1, b"[1]\n", b'hxctl: reply without "result"\n')), ("-t 1", None, False, (2, b"", SILENT)),
    ("", [b'{ "arguments": { }, "res'], True, (2, b"", CLOSED)), ("-t 1", [b'{ "arguments": { } '], False, (2, b"", SILENT)),
    ("", [b'{ "result": success }'], False, (2, b"", b"hxctl: malformed reply: unexpected character\n")),
], ids=["compact", "pretty", "split", "text-after", "error", "newline", "number", "closed", "no-result", "silent",
        "closed-within", "silent-within", "malformed"])
def test_reply_and_exit_status(sock, args, pieces, close, out):
    assert exchange(sock, [*args.split(), "get", "a"], pieces=pieces, close=close)[1] == out


def test_request_not_delivered_exits_3(sock):
    with socket.socket(socket.AF_UNIX) as nobody_listens:
        nobody_listens.bind(sock)
        for path, why in ((sock, "Connection refused"), (sock + "x", "No such file or directory"),
                          ("/tmp/" + "x" * 102, "No such file or directory"), ("/tmp/" + "x" * 103, "socket path too long")):
            assert hxctl(path, ["get", "a"]) == (3, b"", b"hxctl: cannot connect to %s: %s\n" % (path.encode(), why.encode()))


T = "whole seconds from 1 to 2000000 expected"
USAGE = [("", "missing command"), ("bogus", "unknown command 'bogus'"), ("get", "get needs at least one KEY"), ("raw", "empty request"),
         ("info", "info needs at least one ITEM"), ("set", "set needs at least one KEY=JSON"), ("-x", "unknown option '-x'"), ("-t", "option '-t' needs an argument"),
         ("set novalue", "'novalue' is not NAME=VALUE"), ("set a=1 =5", "'=5' is not NAME=VALUE"), ("revalidate", "revalidate needs a TARGET"),
         ("revalidate dhcp restart bad", "'bad' is not NAME=VALUE"), ("revalidate sys_event arg=1 X", "'X' is not NAME=VALUE"),
         ("raw {} {}", "raw takes at most one JSON text"), ("--tag 1 raw {}", "--tag cannot be added to a raw request"),
         ("-t 0 get a", f"bad time-out '0': {T}"), ("-t 1.5 get a", f"bad time-out '1.5': {T}"), ("-s", "option '-s' needs an argument"),
         ("-t 2000001 get a", f"bad time-out '2000001': {T}"), ("--tag", "option '--tag' needs an argument"), ("--bogus get a", "unknown option '--bogus'")]


def test_usage_error_exits_64_without_connecting(sock):
    with socket.socket(socket.AF_UNIX) as ls:
        ls.bind(sock)
        ls.listen(1)
        for args, message in USAGE:
            assert hxctl(sock, args.split()) == (64, b"", b"hxctl: %s\nTry 'hxctl --help' for more information.\n" % message.encode())
        ls.setblocking(False)
        with pytest.raises(BlockingIOError):
            ls.accept()
    os.unlink(sock)
    assert [exchange(sock, ["-t", t, "get", "a"])[1] for t in ("1", "2000000")] == [OK, OK]  # the time-out's edges


def test_help_and_no_cpp_runtime():
    status, text, err = hxctl("/none", ["-h", "get", "a"])
    assert (status, err, text, text.count(b"hxctl ")) == (0, b"", hxctl("/none", ["--help"])[1], 12)  # usage, every example
    assert text.split(b"\n")[0] == b"Usage: hxctl [-s PATH] [-t SECONDS] [-p] [--tag JSON] COMMAND [ARG...]"
    assert b"\n  revalidate TARGET [ACTION] [NAME=JSON...]\n" in text and text.endswith(b"\n  64  usage error\n")
    # scripts start hxctl on every call: it must neither load libstdc++ nor carry a static copy of the runtime
    syms = subprocess.run(["readelf", "--syms", "-W", HXCTL[-1]], capture_output=True, timeout=60, check=True).stdout
    assert [s for s in syms.decode().splitlines() if re.search(r"@GLIBCXX|@CXXABI|_ZSt\d+__throw|__gxx_personality|__cxa_(?!finalize)|_Zn[wa]|_Zd[la]", s)] == []


def test_against_the_daemon(sandbox, daemon):
    r = sandbox.run(["/bin/sh", "-c", "hxctl get lan_ipaddr; hxctl set product_model=x; sysconf get product_model"])
    assert (r.returncode, r.stdout, r.stderr) == (0, b'{"arguments":{"confs":{"lan_ipaddr":"192.168.100.1"},"infos":{}},"result":"success"}\n'
                                                  b'{"arguments":{},"result":"internal error"}\n"HX-R1"\n', b"hxctl: internal error\n")

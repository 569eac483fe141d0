"""The connection server over the real socket: one whole request per
connection and read, and clients that misbehave."""
import fcntl
import json
import os
import struct
import termios

import pytest

from helpers import console_after, read_reply, recv_until_closed, wait_for

REQUEST, REPLY = b'{"method":"revalidate","arguments":{"video":{}}}', b'{ "arguments": { }, "result": "success" }'
PARSE_ERROR, TIMED_OUT = "protocol parse error\nerror on client connection\n", "client connection timed out\n"


def unread(sock):
    return struct.unpack("i", fcntl.ioctl(sock.fileno(), termios.FIONREAD, b"\0" * 4))[0]


@pytest.mark.parametrize("parts, out, reply", [
    ([REQUEST, REQUEST], "", REPLY),                # the reply, then the second request closes it
    ([b"{}", REQUEST], "Invalid input", b""),       # the NUL added to the short input stays in the buffer
    ([b'{"a":12}', REQUEST], "Invalid input", b""), ([b'{"a": 12}'], "invalid arguments.\n", b'{ "arguments": { }, "result": "no method name" }'),
    ([REQUEST[:20]], "", b""), ([b'{"method": "pref-get", "arguments": }'], "", b""), ([b"not json at all"], "", b""),
], ids=["second-request", "short", "eight-bytes", "nine-bytes", "split", "malformed", "words"])
def test_one_request_per_read_and_connection(daemon, sandbox, parts, out, reply):
    mark, before = sandbox.console(), daemon.stdout()
    (s := sandbox.connect()).sendall(parts[0])
    if out or reply:
        wait_for(lambda: daemon.stdout()[len(before):] == out)
        assert read_reply(s, len(reply)) == reply
        with pytest.raises(BlockingIOError):    # still open, nothing more written
            s.settimeout(0) or s.recv(16)
        assert console_after(sandbox, mark) == ""
        if len(parts) == 1:
            return
        s.sendall(parts[1])
    assert (recv_until_closed(s), console_after(sandbox, mark)) == (b"", PARSE_ERROR)


def test_closes_are_reported(daemon, sandbox):
    mark = sandbox.console()
    sandbox.connect().close()                   # silent
    (s := sandbox.connect()).sendall(REQUEST)
    wait_for(lambda: unread(s) == len(REPLY))
    s.close()                                   # unread data resets the peer: a read error
    assert wait_for(lambda: console_after(sandbox, mark)) == "read error on client connection\n"
    socks = [sandbox.connect() for _ in range(50)]
    assert [s.sendall(REQUEST) for s in socks] and [read_reply(s, len(REPLY)) for s in socks] == [REPLY] * 50


@pytest.mark.skipif(os.environ.get("HX_VALGRIND") == "1", reason="waits for the 60 s time-out; ASan runs it")
def test_slow_and_stalled_clients_do_not_hold_up_others(daemon, sandbox):
    """A reply larger than a socket buffer never read, one read late, a half request, an idle client."""
    saved = sandbox.store_snapshot("sysconf")
    big = json.dumps({"method": "pref-get", "arguments": {"confs": sorted(k[:-1].decode() for k in saved)}}).encode()
    for key in [k for k in sorted(saved) if k not in (b"product_model\0", b"product_description\0", b"lan_ipaddr\0")][:36]:
        sandbox.store_set("sysconf", key[:-1], json.dumps("/" * 3900).encode() + b"\0")
    try:
        assert len(expected := sandbox.request(big, timeout=60)) > 212992
        mark, (stalled, late, half, idle) = sandbox.console(), [sandbox.connect(150) for _ in range(4)]
        [s.sendall(text) for s, text in ((stalled, big), (late, big), (half, b'{"metho'))]
        assert [sandbox.request(REQUEST) for _ in range(5)] == [REPLY] * 5
        assert 0 < unread(stalled) < len(expected)
        assert read_reply(late, len(expected)) == expected and not late.close()
        assert recv_until_closed(half, 150) == recv_until_closed(idle, 150) == b""
        assert expected.startswith(partial := recv_until_closed(stalled, 150)) and len(partial) < len(expected)
        assert console_after(sandbox, mark) == TIMED_OUT * 3
    finally:
        for key, raw in saved.items():
            sandbox.store_set("sysconf", key[:-1], raw)

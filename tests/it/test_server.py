"""The connection server over the real socket: one whole request per
connection and read, its limits, and clients that misbehave."""
import errno
import fcntl
import json
import os
import resource
import socket
import struct
import termios

import pytest

from helpers import console_after, recv_until_closed, wait_for

REQUEST = b'{"method":"revalidate","arguments":{"video":{}}}'
REPLY = b'{ "arguments": { }, "result": "success" }'
PARSE_ERROR = "protocol parse error\nerror on client connection\n"
TIMED_OUT = "client connection timed out\n"


def unread(sock):
    return struct.unpack("i", fcntl.ioctl(sock.fileno(), termios.FIONREAD, b"\0" * 4))[0]


def read_reply(sock, size, timeout=60):
    sock.settimeout(timeout)
    data = b""
    while len(data) < size:
        chunk = sock.recv(65536)
        assert chunk, "closed after %r" % data
        data += chunk
    return data


@pytest.mark.parametrize("parts, out, reply", [
    ([REQUEST, REQUEST], "", REPLY),                # the reply, then the second request closes it
    ([b"{}", REQUEST], "Invalid input", b""),       # the NUL added to the short input stays in the buffer
    ([b'{"a":12}', REQUEST], "Invalid input", b""),
    ([b'{"a": 12}'], "", b'{ "arguments": { }, "result": "no method name" }'),
    ([REQUEST[:20]], "", b""), ([b'{"method": "pref-get", "arguments": }'], "", b""),
    ([b"this is not json"], "", b""), ([b'{"method" "revalidate", "arguments": {}}'], "", b""),
], ids=["second-request", "short", "eight-bytes", "nine-bytes", "split", "malformed", "words", "no-colon"])
def test_one_request_per_read_and_connection(daemon, sandbox, parts, out, reply):
    mark, before = sandbox.console(), daemon.stdout()
    s = sandbox.connect()
    s.sendall(parts[0])
    if out:
        wait_for(lambda: daemon.stdout() != before)
        assert daemon.stdout()[len(before):] == out
    if out or reply:
        assert read_reply(s, len(reply)) == reply
        s.setblocking(False)
        with pytest.raises(BlockingIOError):    # still open, nothing more written
            s.recv(16)
        s.setblocking(True)
        assert console_after(sandbox, mark) == ""
        if len(parts) == 1:
            return
        s.sendall(parts[1])
    assert recv_until_closed(s) == b""
    assert console_after(sandbox, mark) == PARSE_ERROR


def test_closes_are_reported(daemon, sandbox):
    mark = sandbox.console()
    sandbox.connect().close()                   # silent
    s = sandbox.connect()
    s.sendall(REQUEST)
    wait_for(lambda: unread(s) == len(REPLY))
    s.close()                                   # unread data resets the peer: a read error
    wait_for(lambda: console_after(sandbox, mark))
    assert console_after(sandbox, mark) == "read error on client connection\n"
    socks = [sandbox.connect() for _ in range(50)]
    for s in socks:
        s.sendall(REQUEST)
    assert [read_reply(s, len(REPLY)) for s in socks] == [REPLY] * 50


@pytest.mark.skipif(os.environ.get("HX_VALGRIND") == "1", reason="waits for the 60 s time-out; ASan runs it")
def test_slow_and_stalled_clients_do_not_hold_up_others(daemon, sandbox):
    """A reply larger than a socket buffer to a client that never reads, one
    read late, a half request and an idle client: others are served meanwhile."""
    saved = sandbox.store_snapshot("sysconf")
    keys = sorted(k[:-1].decode() for k in saved)
    big = {"method": "pref-get", "arguments": {"confs": keys}}
    for key in [k for k in keys if k not in ("product_model", "product_description", "lan_ipaddr")][:36]:
        sandbox.request({"method": "pref-set", "arguments": {"confs": {key: "/" * 3900}}})
    try:
        expected = sandbox.request(big, timeout=60)
        assert len(expected) > 212992
        mark = sandbox.console()
        stalled, late, half, idle = (sandbox.connect(150) for _ in range(4))
        for s in (stalled, late):
            s.sendall(json.dumps(big).encode())
        half.sendall(b'{"metho')
        for _ in range(5):
            assert sandbox.request(REQUEST) == REPLY
        assert 0 < unread(stalled) < len(expected)
        assert read_reply(late, len(expected)) == expected
        late.close()
        assert recv_until_closed(half, 150) == recv_until_closed(idle, 150) == b""
        partial = recv_until_closed(stalled, 150)
        assert expected.startswith(partial) and len(partial) < len(expected)
        assert console_after(sandbox, mark) == TIMED_OUT * 3
    finally:
        for key, raw in saved.items():
            sandbox.store_set("sysconf", key[:-1], raw)


def test_no_descriptor_left_pauses_accept_then_recovers(daemon, sandbox, tmp_path):
    """The line once per shortage; the held clients are served; no spinning on accept."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, 4000)), hard))
    fds = daemon.fd_count()
    daemon_soft = resource.prlimit(daemon.host_pid, resource.RLIMIT_NOFILE)[0]
    daemon.limit_descriptors(64)
    mark, held = sandbox.console(), []
    try:
        for _ in range(1000):
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            s.setblocking(False)
            try:
                s.connect(sandbox.path("/var/tmp/socket"))
                held.append(s)
            except OSError as e:
                assert e.errno == errno.EAGAIN
                s.close()
        wait_for(lambda: console_after(sandbox, mark) == "failed to accept ipc connection\n")
        assert len(held) > 64
        held[0].setblocking(True)
        held[0].sendall(b'{"method":"pref-get","arguments":{"confs":["lan_ipaddr"]}}')
        assert read_reply(held[0], 70) == b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
        trace = str(tmp_path / "accept4.trace")
        tracer = daemon.strace("accept4", trace)
        try:
            wait_for(lambda: open(trace).read().count("accept4(") >= 2)
        finally:
            daemon.end_strace(tracer)
        assert open(trace).read().count("accept4(") <= 10
        assert console_after(sandbox, mark) == "failed to accept ipc connection\n"
    finally:
        for s in held:
            s.close()
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    wait_for(lambda: daemon.fd_count() == fds)
    daemon.limit_descriptors(daemon_soft)
    assert sandbox.request(REQUEST) == REPLY

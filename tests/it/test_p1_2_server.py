"""Part 1.2: the connection server, over the real socket of the real daemon."""
import errno
import fcntl
import socket
import struct
import termios

import pytest

from helpers import console_after, recv_until_closed, wait_for

REQUEST = b'{"method":"revalidate","arguments":{"video":{}}}'
REPLY = b'{ "arguments": { }, "result": "success" }'
PARSE_ERROR = "protocol parse error\nerror on client connection\n"


def still_open(sock):
    """True when the daemon has neither closed nor written anything."""
    sock.setblocking(False)
    try:
        data = sock.recv(16)
    except OSError as e:
        assert e.errno in (errno.EAGAIN, errno.EWOULDBLOCK)
        return True
    finally:
        sock.setblocking(True)
    assert data == b"", data
    return False


def read_reply(sock, size, timeout=30):
    sock.settimeout(timeout)
    data = b""
    while len(data) < size:
        chunk = sock.recv(4096)
        assert chunk, "closed after %r" % data
        data += chunk
    return data


def test_reply_is_bare_json_and_connection_stays_open(daemon, sandbox):
    s = sandbox.connect()
    s.sendall(REQUEST)
    assert read_reply(s, len(REPLY)) == REPLY
    assert still_open(s)
    s.close()


def test_short_request_invalid_input_no_reply(daemon, sandbox):
    mark = sandbox.console()
    before = daemon.stdout()
    s = sandbox.connect()
    s.sendall(b"{}")
    wait_for(lambda: daemon.stdout() != before)
    assert daemon.stdout()[len(before):] == "Invalid input"
    assert still_open(s)
    s.close()
    assert console_after(sandbox, mark) == ""


def test_eight_bytes_is_invalid_nine_is_a_request(daemon, sandbox):
    before = daemon.stdout()
    s = sandbox.connect()
    s.sendall(b'{"a":12}')
    wait_for(lambda: daemon.stdout() != before)
    assert daemon.stdout()[len(before):] == "Invalid input"
    s.close()
    nine = b'{"a": 12}'
    assert len(nine) == 9
    assert sandbox.request(nine) == b'{ "arguments": { }, "result": "no method name" }'


def test_request_after_invalid_input_fails_to_parse(daemon, sandbox):
    """The zero byte appended to the short input stays in the buffer."""
    before = daemon.stdout()
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(b"{}")
    wait_for(lambda: daemon.stdout() != before)
    s.sendall(REQUEST)
    assert recv_until_closed(s) == b""
    assert console_after(sandbox, mark) == PARSE_ERROR


def test_split_request_first_part_fails_and_closes(daemon, sandbox):
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(REQUEST[:20])
    assert recv_until_closed(s) == b""
    assert console_after(sandbox, mark) == PARSE_ERROR
    with pytest.raises(OSError):
        s.sendall(REQUEST[20:])
        s.sendall(REQUEST[20:])
    s.close()


def test_malformed_json_closes_without_reply(daemon, sandbox):
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(b'{"method": "pref-get", "arguments": }')
    assert recv_until_closed(s) == b""
    assert console_after(sandbox, mark) == PARSE_ERROR


def test_second_request_on_same_connection_closes(daemon, sandbox):
    s = sandbox.connect()
    s.sendall(REQUEST)
    assert read_reply(s, len(REPLY)) == REPLY
    mark = sandbox.console()
    s.sendall(REQUEST)
    assert recv_until_closed(s) == b""
    assert console_after(sandbox, mark) == PARSE_ERROR


def test_peer_close_is_silent(daemon, sandbox):
    mark = sandbox.console()
    s = sandbox.connect()
    s.close()
    s = sandbox.connect()
    s.sendall(REQUEST)
    assert read_reply(s, len(REPLY)) == REPLY
    s.close()
    assert sandbox.request(REQUEST) == REPLY
    assert console_after(sandbox, mark) == ""


def test_close_with_unread_reply_is_a_read_error(daemon, sandbox):
    """Closing a Unix socket with unread data resets the peer (ECONNRESET),
    which libevent reports as a read error."""
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(REQUEST)
    wait_for(lambda: unread_bytes(s) == len(REPLY))
    s.close()
    wait_for(lambda: console_after(sandbox, mark) != "")
    assert console_after(sandbox, mark) == "read error on client connection\n"
    assert sandbox.request(REQUEST) == REPLY


def unread_bytes(sock):
    return struct.unpack("i", fcntl.ioctl(sock.fileno(), termios.FIONREAD, b"\0" * 4))[0]


def test_many_clients_at_once(daemon, sandbox):
    socks = [sandbox.connect() for _ in range(50)]
    for s in socks:
        s.sendall(REQUEST)
    for s in socks:
        assert read_reply(s, len(REPLY)) == REPLY
        s.close()


def test_idle_client_times_out_after_60_s(daemon, sandbox):
    mark = sandbox.console()
    s = sandbox.connect()
    assert recv_until_closed(s, timeout=120) == b""
    assert console_after(sandbox, mark) == "client connection timed out\n"
    assert sandbox.request(REQUEST) == REPLY

"""Descriptors exhausted by 1000 connections (Part 1.2, "failed to accept ipc
connection"): with no descriptor free the daemon stops accepting instead of
spinning on accept, writes the console line once for the shortage, serves
the clients it holds, and accepts again as soon as a client is released."""
import errno
import json
import resource
import socket

import pytest

from helpers import console_after, wait_for

LIMIT = 64
ATTEMPTS = 1000
GET = {"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}
GET_REPLY = (b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1" }, '
             b'"infos": { } }, "result": "success" }')
OPEN_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
SUCCESS = b'{ "arguments": { }, "result": "success" }'
VIDEO = {"method": "revalidate", "arguments": {"video": {}}}
ACCEPT_FAILED = "failed to accept ipc connection\n"
STORES = ("sysconf", "rtconf", "sysinfo")
# A paused listener retries once a second; a spinning one calls accept4
# thousands of times while the retries below are counted.
RETRIES_SEEN = 2
MAX_ACCEPTS = 10


@pytest.fixture(scope="module")
def daemon(sandbox):
    d = sandbox.start_daemon()
    d.limit_descriptors(LIMIT)
    yield d
    assert d.stop() == 0


@pytest.fixture
def many_files():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, 4 * ATTEMPTS)), hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def open_connections(sandbox, count):
    """Non-blocking connects: those beyond the daemon's slots and its listen
    backlog are refused (EAGAIN) and closed; the others are returned."""
    held = []
    for _ in range(count):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.setblocking(False)
        try:
            s.connect(sandbox.path("/var/tmp/socket"))
        except OSError as e:
            assert e.errno == errno.EAGAIN
            s.close()
            continue
        held.append(s)
    return held


def reply_on(sock, request):
    sock.setblocking(True)
    sock.settimeout(60)
    sock.sendall(json.dumps(request).encode())
    data = b""
    while not data.endswith(b"}"):
        chunk = sock.recv(4096)
        assert chunk
        data += chunk
    return data


def accept_calls(path):
    with open(path) as f:
        return sum(1 for line in f if "accept4(" in line)


def test_exhausted_descriptors_pause_accept_then_recover(sandbox, daemon, many_files,
                                                         tmp_path):
    fds_before = daemon.fd_count()
    stores = {s: sandbox.store_snapshot(s) for s in STORES}
    mark = sandbox.console()
    held = open_connections(sandbox, ATTEMPTS)
    wait_for(lambda: console_after(sandbox, mark) == ACCEPT_FAILED)
    assert len(held) > LIMIT
    # The first clients were accepted: they are served, but no descriptor
    # is left to open the store with.
    assert reply_on(held[0], GET) == OPEN_FAILED
    assert reply_on(held[1], VIDEO) == SUCCESS

    trace = str(tmp_path / "accept4.trace")
    tracer = daemon.strace("accept4", trace)
    try:
        wait_for(lambda: accept_calls(trace) >= RETRIES_SEEN)
    finally:
        daemon.end_strace(tracer)
    assert RETRIES_SEEN <= accept_calls(trace) <= MAX_ACCEPTS
    assert console_after(sandbox, mark) == ACCEPT_FAILED

    for s in held:
        s.close()
    wait_for(lambda: daemon.fd_count() == fds_before)
    assert sandbox.request(GET) == GET_REPLY
    assert sandbox.request(VIDEO) == SUCCESS
    text = console_after(sandbox, mark)
    assert text == ACCEPT_FAILED * text.count(ACCEPT_FAILED)
    assert {s: sandbox.store_snapshot(s) for s in STORES} == stores
    wait_for(lambda: daemon.fd_count() == fds_before)

"""Shared by the Wi-Fi tests: replies, settings put back after each test, one request's effects, a fake supplicant."""
import ast
import json
import os
import subprocess

import pytest

from helpers import INTERNAL, INVALID, NOT_OBJECT, NULL_ARG, SUCCESS, revalidate, send, stdout_since, store_restore  # noqa: F401
WPA_SOCKET, FAKE_LOG = "/var/run/wpa_supplicant/mlan0", "/tmp/fakewpa.log"
DROPPED = "WPACli: Not connected to wpa_supplicant, command %s dropped\n"


def jtext(value): return json.dumps(value).replace("/", "\\/").encode() + b"\0"


def get(sandbox, *names): return send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": list(names)}})


def answer(*m): return b'{ "arguments": { "confs": { }, "infos": { %s } }, "result": "success" }' % b", ".join(m)


@pytest.fixture
def conf(daemon, sandbox):
    saved = []  # conf(key, value, store): None deletes, bytes are stored raw
    yield lambda key, value, store="sysconf": (saved.append((store, key, sandbox.store_get(store, key))), (
        sandbox.store_delete(store, key) if value is None else
        sandbox.store_set(store, key, value if isinstance(value, bytes) else jtext(value))))
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)


class Effects:
    def __init__(self, sandbox, daemon, request):
        before = daemon.stdout()
        sandbox.clear_cmdlog()
        self.reply = revalidate(sandbox, request)
        self.out = stdout_since(sandbox, daemon, before)
        # an earlier request's background media-server start may be logged meanwhile
        self.cmds = [c for c in sandbox.cmdlog() if c != ["/etc/demo/minidlna_start.sh"]]


class FakeWpa:
    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.write(FAKE_LOG, b"")
        self.proc = sandbox.popen(["/usr/bin/python3", os.path.join(os.path.dirname(__file__), "fakewpa.py"), WPA_SOCKET,
                                   FAKE_LOG], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.proc.stdout.readline() == "ready\n"

    def tell(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        assert self.proc.stdout.readline() == "done\n"

    def log(self):  # (sender, command) of each request
        return [(s, ast.literal_eval(c)) for s, c in (x.split(" ", 1) for x in self.sandbox.read_text(FAKE_LOG).splitlines())]

    def commands(self): return [cmd for _, cmd in self.log() if cmd not in ("ATTACH", "DETACH")]

    def stop(self):
        self.proc.poll() is None and (self.proc.stdin.close(), self.proc.wait(timeout=30))
        self.sandbox.remove(WPA_SOCKET)


@pytest.fixture
def fakewpa(daemon, sandbox):
    fake = FakeWpa(sandbox)
    try:
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        yield fake
    finally:
        revalidate(sandbox, {"wpa": {"action": "stop"}})
        fake.stop()

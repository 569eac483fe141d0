"""Requests of the device tests, each with what the daemon printed meanwhile."""
import json
import re

from hxsim import jsonc_text
from helpers import console_after, send, stdout_since


def result(text):
    return jsonc_text({"arguments": {}, "result": text}).encode()


def answer(infos):
    return jsonc_text({"arguments": {"confs": {}, "infos": infos}, "result": "success"}).encode()


SUCCESS, INVALID, INTERNAL = result("success"), result("invalid arguments"), result("internal error")
NULL, TYPE = "Input parameter is NULL.\n", "Unexpected json type.\n"


def ask(sandbox, daemon, targets=None, infos=()):
    """A revalidate of targets, or a pref-get of infos: (reply, standard output meanwhile).
    Nothing may reach the console."""
    before, console = daemon.stdout(), sandbox.console()
    args = {"confs": [], "infos": list(infos)} if targets is None else targets
    reply = send(sandbox, {"method": "pref-get" if targets is None else "revalidate", "arguments": args})
    out = stdout_since(sandbox, daemon, before)
    assert console_after(sandbox, console) == ""
    return reply, out


def infos(sandbox, *names):
    return json.loads(send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": list(names)}}))[
        "arguments"]["infos"]


def same(out, want):
    """Output against its exact text, or a pattern where it holds a process id."""
    return bool(want.fullmatch(out)) if isinstance(want, re.Pattern) else out == want

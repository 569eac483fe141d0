import json
import re

from hxsim import jsonc_text
from helpers import INTERNAL, INVALID, SUCCESS, console_after, result, send, stdout_since  # noqa: F401
from helpers import NOT_OBJECT as TYPE, NULL_ARG as NULL  # noqa: F401


def answer(infos):
    return jsonc_text({"arguments": {"confs": {}, "infos": infos}, "result": "success"}).encode()




def matches(out, got):
    return out is None or (out.fullmatch(got) if isinstance(out, re.Pattern) else got == out)


def ask(sandbox, daemon, targets=None, infos=None, out=None):  # nothing may reach the console
    before, console = daemon.stdout(), sandbox.console()
    reply = send(sandbox, {"method": "revalidate", "arguments": targets} if infos is None else
                 {"method": "pref-get", "arguments": {"confs": [], "infos": infos}})
    got = stdout_since(sandbox, daemon, before)
    assert console_after(sandbox, console) == "" and matches(out, got), got
    return reply, got


def infos(sandbox, *names):
    return json.loads(send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": names}}))["arguments"]["infos"]

"""The web server's configuration file and restart; the login's hash is checked against crypt(3) with
the salt glibc's srandom(t)/random() gives for a second the request spanned."""
import ctypes
import ctypes.util
import json
import time

import pytest

from devices_util import INVALID, NULL, SUCCESS, TYPE, ask
from helpers import store_restore

CONF, OLD = "/etc/mini_httpd.conf", "old configuration\n"
KILL, START = ["/usr/bin/killall", "mini_httpd"], ["/usr/sbin/mini_httpd", "-C", CONF]
FIXED = "dir=/opt/web\nnochroot\nport=80\ncharset=utf-8\nlogfile=/dev/null\nuser=root\ncgipat=**.cgi\n"
SALT = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
REFUSED = "httpd: login name holds a newline or ':', configuration unchanged\n"
LIBC, LIBCRYPT = ctypes.CDLL(ctypes.util.find_library("c")), ctypes.CDLL("libcrypt.so.1")
LIBC.random.restype, LIBC.srandom.argtypes = ctypes.c_long, [ctypes.c_uint]
LIBCRYPT.crypt.restype, LIBCRYPT.crypt.argtypes = ctypes.c_char_p, [ctypes.c_char_p, ctypes.c_char_p]


def salt_for(t):
    LIBC.srandom(t)
    v = LIBC.random()
    return SALT[v & 63] + SALT[(v >> 6) & 63]


def r(id, name, passwd, conf=FIXED, cmds=(KILL, START), out="", value={"action": "start"}, want=SUCCESS):
    return pytest.param(name, passwd, value, want, conf, list(cmds), out, id=id)


ROWS = [
    r("no-name", None, '"secret"'), r("empty-name", '""', '"secret"', value={"action": "restart"}),
    r("no-password", '"admin"', None), r("stop", None, None, OLD, [KILL], value={"action": "stop"}),
    *[r(f"login-{i}", '"admin"', json.dumps(p), ("admin", p), value={"action": "restart"})
      for i, p in enumerate(["secret", "", "p@ss word!", "a\nb", "longer than eight"])],
    r("login-not-text", "1234", "5678", ("1234", "5678")),
    *[r(f"not-json-{i}", n, p, OLD, []) for i, (n, p) in enumerate([("admin", '"x"'), ('"admin"', "x"), ('"ad', '"x"')])],
    *[r(f"name-refused-{n!r}", json.dumps(n), '"x"', OLD, [], REFUSED) for n in ["ad\nmin", "ad:min", "admin\n", ":"]],
    *[r(f"action-{v}", '"admin"', '"x"', OLD, [], value=v) for v in [{}, {"action": "Start"}, {"action": "update"},
                                                                     {"action": 1}, {"action": None}]],
    r("null", None, None, OLD, [], NULL, None, INVALID),
    *[r(f"not-object-{v!r}", None, None, OLD, [], TYPE, v, INVALID) for v in ["start", 1, ["start"], True]],
]


@pytest.mark.parametrize("name, passwd, value, want, conf, cmds, out", ROWS)
def test_web_server(sandbox, daemon, name, passwd, value, want, conf, cmds, out):
    for key, text in (("httpd_auth_name", name), ("httpd_auth_passwd", passwd)):
        store_restore(sandbox, "sysconf", key, None if text is None else text.encode() + b"\0")
    sandbox.write(CONF, OLD)
    sandbox.clear_cmdlog()
    t0 = int(time.time())
    assert ask(sandbox, daemon, {"httpd": value}) == (want, out)
    t1 = int(time.time())
    assert sandbox.cmdlog() == cmds
    got = sandbox.read_text(CONF)
    if isinstance(conf, tuple):  # the password is written only hashed: one passport line whatever it holds
        user, password = conf
        salt = got[len(FIXED) + len(user) + 10:][:2]
        assert salt in {salt_for(t) for t in range(t0, t1 + 1)}
        conf = f"{FIXED}passport={user}:{LIBCRYPT.crypt(password.encode(), salt.encode()).decode()}\n"
        assert len(conf) == len(FIXED) + len(user) + 24
    assert got == conf

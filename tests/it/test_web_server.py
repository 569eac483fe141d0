"""The web server's configuration and restart; the login hash is checked against crypt(3), its salt against
glibc's srandom(t)/random() for a second the request spanned."""
import ctypes
import ctypes.util
import json
import time

import pytest

from devices_util import INVALID, NULL, SUCCESS, TYPE, ask
from helpers import store_restore

CONF, OLD, KILL = "/etc/mini_httpd.conf", "old configuration\n", ["/usr/bin/killall", "mini_httpd"]
RUN = [KILL, ["/usr/sbin/mini_httpd", "-C", CONF]]
FIXED = "dir=/opt/web\nnochroot\nport=80\ncharset=utf-8\nlogfile=/dev/null\nuser=root\ncgipat=**.cgi\n"
SALT = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
LIBC, LIBCRYPT = ctypes.CDLL(ctypes.util.find_library("c")), ctypes.CDLL("libcrypt.so.1")
LIBC.random.restype, LIBC.srandom.argtypes = ctypes.c_long, [ctypes.c_uint]
LIBCRYPT.crypt.restype, LIBCRYPT.crypt.argtypes = ctypes.c_char_p, [ctypes.c_char_p, ctypes.c_char_p]


def salt_for(t):
    LIBC.srandom(t)
    v = LIBC.random()
    return SALT[v & 63] + SALT[(v >> 6) & 63]


START, RESTART = {"action": "start"}, {"action": "restart"}
ROWS = [  # (stored name, stored password, httpd argument, reply, file: text or (name, password) of a login, commands, output)
    (None, '"s"', START, SUCCESS, FIXED, RUN, ""), ('""', '"s"', RESTART, SUCCESS, FIXED, RUN, ""),
    ('"admin"', None, START, SUCCESS, FIXED, RUN, ""), (None, None, {"action": "stop"}, SUCCESS, OLD, [KILL], ""),
    *[('"admin"', json.dumps(p), RESTART, SUCCESS, ("admin", p), RUN, "") for p in ["secret", "", "p@ss word!", "a\nb", "x" * 17]],
    ("1234", "5678", START, SUCCESS, ("1234", "5678"), RUN, ""),  # a name that is no JSON text: its JSON text
    *[(n, p, START, SUCCESS, OLD, [], "") for n, p in [("admin", '"x"'), ('"admin"', "x"), ('"ad', '"x"')]],
    *[(json.dumps(n), '"x"', START, SUCCESS, OLD, [], "httpd: login name holds a newline or ':', configuration unchanged\n")
      for n in ["ad\nmin", "ad:min", "admin\n", ":"]],
    *[('"admin"', '"x"', v, SUCCESS, OLD, [], "") for v in [{}, {"action": "Start"}, {"action": "update"}, {"action": 1},
                                                            {"action": None}]],
    (None, None, None, INVALID, OLD, [], NULL), *[(None, None, v, INVALID, OLD, [], TYPE) for v in ["start", 1, ["start"], True]],
]


@pytest.mark.parametrize("name, passwd, value, want, conf, cmds, out", ROWS)
def test_web_server(sandbox, daemon, name, passwd, value, want, conf, cmds, out):
    for key, text in (("httpd_auth_name", name), ("httpd_auth_passwd", passwd)):
        store_restore(sandbox, "sysconf", key, None if text is None else text.encode() + b"\0")
    sandbox.write(CONF, OLD)
    sandbox.clear_cmdlog()
    t0 = int(time.time())
    assert ask(sandbox, daemon, {"httpd": value}, out=out)[0] == want
    salts, got = {salt_for(t) for t in range(t0, int(time.time()) + 1)}, sandbox.read_text(CONF)
    if isinstance(conf, tuple):  # the password is only written hashed: one passport line whatever it holds
        (user, password), salt = conf, got[len(FIXED) + len(conf[0]) + 10:][:2]
        conf = f"{FIXED}passport={user}:{LIBCRYPT.crypt(password.encode(), salt.encode()).decode()}\n"
        assert salt in salts and len(conf) == len(FIXED) + len(user) + 24
    assert (got, sandbox.cmdlog()) == (conf, cmds)

"""Part 9.1: the web server's configuration, through the real daemon. The
device's mini_httpd and killall are the sandbox's stubs, so the command log
shows what the daemon ran; "/etc/mini_httpd.conf" is compared byte for byte
and the login's hash is checked against crypt(3) called here through ctypes,
with the salt that glibc's srandom(t)/random() gives for the request's second.
"""
import ctypes
import ctypes.util
import json
import time

import pytest

from helpers import console_after, revalidate, send, stdout_since, store_restore

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'

CONF = "/etc/mini_httpd.conf"
KILL = ["/usr/bin/killall", "mini_httpd"]
START = ["/usr/sbin/mini_httpd", "-C", "/etc/mini_httpd.conf"]
FIXED = ("dir=/opt/web\n"
         "nochroot\n"
         "port=80\n"
         "charset=utf-8\n"
         "logfile=/dev/null\n"
         "user=root\n"
         "cgipat=**.cgi\n")
OLD = "old configuration\n"
SALT = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
REFUSED = "httpd: login name holds a newline or ':', configuration unchanged\n"

NAME, PASSWD = "httpd_auth_name", "httpd_auth_passwd"

LIBC = ctypes.CDLL(ctypes.util.find_library("c"))
LIBC.random.restype = ctypes.c_long
LIBC.srandom.argtypes = [ctypes.c_uint]
LIBCRYPT = ctypes.CDLL("libcrypt.so.1")
LIBCRYPT.crypt.restype = ctypes.c_char_p
LIBCRYPT.crypt.argtypes = [ctypes.c_char_p, ctypes.c_char_p]


def salt_for(t):
    """The salt of Part 9.1 step 4 for the time t, from glibc itself."""
    LIBC.srandom(t)
    v = LIBC.random()
    return SALT[v & 63] + SALT[(v >> 6) & 63]


def crypt(passwd, salt):
    return LIBCRYPT.crypt(passwd.encode(), salt.encode()).decode()


def json_text(text):
    """A JSON string literal of text, as pref-set would store it."""
    return json.dumps(text)


def raw(text):
    """A store value as pref-set writes it: the JSON text plus its NUL."""
    return text.encode() + b"\0"


@pytest.fixture
def httpd(daemon, sandbox):
    """The two keys come back after each test; an older configuration file
    is in place and the command log is empty."""
    saved = [(key, sandbox.store_get("sysconf", key)) for key in (NAME, PASSWD)]
    sandbox.write(CONF, OLD)
    sandbox.clear_cmdlog()
    yield
    for key, value in saved:
        store_restore(sandbox, "sysconf", key, value)


def login(sandbox, name, passwd):
    """Stores the raw JSON texts (None deletes the key)."""
    for key, text in ((NAME, name), (PASSWD, passwd)):
        store_restore(sandbox, "sysconf", key, None if text is None else raw(text))


class Run:
    """One "httpd" request: its reply, what it printed, what it ran, the
    whole seconds before and after it."""

    def __init__(self, sandbox, daemon, value):
        before = daemon.stdout()
        console = sandbox.console()
        start = len(sandbox.cmdlog())
        self.t0 = int(time.time())
        self.reply = revalidate(sandbox, {"httpd": value})
        self.t1 = int(time.time())
        self.out = stdout_since(sandbox, daemon, before)
        self.cmds = sandbox.cmdlog()[start:]
        self.conf = sandbox.read_text(CONF)
        assert console_after(sandbox, console) == ""


def passport(run, name, passwd):
    """Checks the file: seven fixed lines and one passport line whose hash
    is crypt(passwd, salt) for a salt of a second the request spanned."""
    assert run.conf.startswith(FIXED)
    line = run.conf[len(FIXED):]
    prefix = f"passport={name}:"
    assert line.startswith(prefix) and line.endswith("\n")
    digest = line[len(prefix):-1]
    salt = digest[:2]
    assert salt in {salt_for(t) for t in range(run.t0, run.t1 + 1)}
    assert digest == crypt(passwd, salt)
    assert len(digest) == 13
    return digest


# Edge cases worth testing


def test_no_name_seven_lines_and_server_without_login(httpd, daemon, sandbox):
    login(sandbox, None, '"secret"')
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    assert run.conf == FIXED
    assert run.cmds == [KILL, START]
    assert run.out == ""


def test_empty_name_same_as_missing_even_with_password(httpd, daemon, sandbox):
    login(sandbox, '""', '"secret"')
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.conf == FIXED
    assert run.cmds == [KILL, START]


def test_name_with_missing_password_no_login(httpd, daemon, sandbox):
    login(sandbox, '"admin"', None)
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    assert run.conf == FIXED
    assert run.cmds == [KILL, START]


def test_two_starts_in_one_second_same_salt(httpd, daemon, sandbox):
    """Repeats the pair until both requests fell within one second; the two
    files are then identical (and the salt is that second's)."""
    login(sandbox, '"admin"', '"secret"')
    for _ in range(20):
        first = Run(sandbox, daemon, {"action": "start"})
        second = Run(sandbox, daemon, {"action": "start"})
        if first.t0 == second.t1:
            break
    else:
        pytest.fail("no pair of starts fell within one second")
    assert passport(first, "admin", "secret") == passport(second, "admin", "secret")
    assert first.conf == second.conf
    assert first.conf[len(FIXED) + len("passport=admin:"):][:2] == salt_for(first.t0)


def test_stop_kills_every_mini_httpd(httpd, daemon, sandbox):
    run = Run(sandbox, daemon, {"action": "stop"})
    assert run.reply == SUCCESS
    assert run.cmds == [KILL]
    assert run.conf == OLD


# Login


@pytest.mark.parametrize("passwd", ["secret", "", "p@ss word!", "a\nb", "longer than eight"],
                         ids=["plain", "empty", "spaces", "newline", "long"])
def test_login_passport_line(httpd, daemon, sandbox, passwd):
    """The password is only written hashed: any text, a newline included,
    gives exactly one passport line."""
    login(sandbox, '"admin"', json_text(passwd))
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    passport(run, "admin", passwd)
    assert run.conf.count("\n") == 8
    assert run.cmds == [KILL, START]
    assert run.out == ""


def test_non_string_name_counts_as_its_json_text(httpd, daemon, sandbox):
    login(sandbox, "1234", "5678")
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    passport(run, "1234", "5678")


# Texts that are not JSON, refusals


@pytest.mark.parametrize("name, passwd", [("admin", '"secret"'), ('"admin"', "secret"),
                                          ('"admin', '"x"')],
                         ids=["name", "password", "unterminated"])
def test_not_json_leaves_file_and_server_alone(httpd, daemon, sandbox, name, passwd):
    login(sandbox, name, passwd)
    run = Run(sandbox, daemon, {"action": "restart"})
    assert run.reply == SUCCESS
    assert run.conf == OLD
    assert run.cmds == []
    assert run.out == ""


@pytest.mark.parametrize("name", ["ad\nmin", "ad:min", "admin\n", ":"],
                         ids=["newline", "colon", "trailing-newline", "only-colon"])
def test_name_with_newline_or_colon_refused(httpd, daemon, sandbox, name):
    """Deviation (DESIGN.md section 8): the name would add a line or split
    the passport entry; the file and the server are left alone."""
    login(sandbox, json_text(name), '"secret"')
    run = Run(sandbox, daemon, {"action": "start"})
    assert run.reply == SUCCESS
    assert run.conf == OLD
    assert run.cmds == []
    assert run.out == REFUSED


# Target arguments


@pytest.mark.parametrize("value", [{}, {"action": "Start"}, {"action": "update"},
                                   {"action": 1}, {"action": None}],
                         ids=["missing", "Start", "update", "number", "null"])
def test_unknown_or_missing_action_does_nothing(httpd, daemon, sandbox, value):
    run = Run(sandbox, daemon, value)
    assert run.reply == SUCCESS
    assert run.cmds == []
    assert run.conf == OLD
    assert run.out == ""


def test_null_argument(httpd, daemon, sandbox):
    run = Run(sandbox, daemon, None)
    assert run.reply == INVALID
    assert run.out == "Input parameter is NULL.\n"
    assert run.cmds == []


@pytest.mark.parametrize("value", ["start", 1, ["start"], True])
def test_not_an_object(httpd, daemon, sandbox, value):
    run = Run(sandbox, daemon, value)
    assert run.reply == INVALID
    assert run.out == "Unexpected json type.\n"
    assert run.cmds == []
    assert run.conf == OLD


def test_daemon_still_answers(httpd, daemon, sandbox):
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [NAME]}})
    assert reply.endswith(b'"result": "success" }')

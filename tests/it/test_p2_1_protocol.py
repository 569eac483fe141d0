"""Part 2.1: request protocol and method dispatch, over the real socket of the
real daemon in the device sandbox.

Replies are compared as bytes: json-c's default rendering, members in the
order "arguments", "result", "tag".
"""
import pytest

from helpers import console_after, recv_until_closed, send, stdout_since, wait_for

PARSE_ERROR = "protocol parse error\nerror on client connection\n"
INVALID_PARAMETERS = "request_exec: invalid parameters.\n"
SUCCESS = b'{ "arguments": { }, "result": "success" }'


def exchange(sandbox, daemon, request):
    """(reply bytes, standard output printed, console written) of one request."""
    mark = sandbox.console()
    before = daemon.stdout()
    reply = send(sandbox, request)
    return reply, stdout_since(sandbox, daemon, before), console_after(sandbox, mark)


# Edge cases worth testing


def test_tag_7_echoed_after_empty_arguments_and_success(daemon, sandbox):
    reply, out, console = exchange(
        sandbox, daemon, b'{"method":"revalidate","arguments":{},"tag":7}')
    assert reply == b'{ "arguments": { }, "result": "success", "tag": 7 }'
    assert out == ""
    assert console == ""


def test_bogus_method_gets_method_not_found_without_tag(daemon, sandbox):
    reply, out, console = exchange(sandbox, daemon, b'{"method":"bogus","arguments":{}}')
    assert reply == b'{ "arguments": { }, "result": "method not found" }'
    assert out == ""
    assert console == ""


def test_pref_get_without_arguments_is_invalid_arguments(daemon, sandbox):
    reply, out, _ = exchange(sandbox, daemon, b'{"method":"pref-get"}')
    assert reply == b'{ "arguments": { }, "result": "invalid arguments" }'
    assert out == "invalid arguments.\n"


def test_arguments_5_without_method_is_no_method_name(daemon, sandbox):
    """The method check overrides the arguments error; the arguments check
    still prints its line."""
    reply, out, _ = exchange(sandbox, daemon, b'{"arguments":5}')
    assert reply == b'{ "arguments": { }, "result": "no method name" }'
    assert out == "invalid arguments.\n"


@pytest.mark.parametrize("tag, rendered", [
    ("abc", b'"abc"'),
    ("", b'""'),
    ("a/b", b'"a\\/b"'),
    ([1, "two", None], b'[ 1, "two", null ]'),
    ([], b"[ ]"),
    ({"id": [1, 2], "k": {}}, b'{ "id": [ 1, 2 ], "k": { } }'),
    ({}, b"{ }"),
    (True, b"true"),
    (2.5, b"2.5"),
    (-3, b"-3"),
], ids=["string", "empty-string", "slash", "array", "empty-array", "object",
        "empty-object", "true", "double", "negative"])
def test_non_object_and_object_tags_echoed_unchanged(daemon, sandbox, tag, rendered):
    request = {"method": "revalidate", "arguments": {}, "tag": tag}
    assert send(sandbox, request) == SUCCESS[:-2] + b', "tag": ' + rendered + b" }"


def test_null_tag_is_echoed(daemon, sandbox):
    """A "tag" member holding null is present, so it is echoed (README)."""
    assert send(sandbox, b'{"method":"revalidate","arguments":{},"tag":null}') == \
        b'{ "arguments": { }, "result": "success", "tag": null }'


# Failure table


def test_text_not_json_no_reply_console_and_connection_closed(daemon, sandbox):
    mark = sandbox.console()
    before = daemon.stdout()
    s = sandbox.connect()
    s.sendall(b'{"method": "revalidate", "arguments": {]}')
    assert recv_until_closed(s) == b""
    s.close()
    assert console_after(sandbox, mark) == PARSE_ERROR
    assert stdout_since(sandbox, daemon, before) == ""


@pytest.mark.parametrize("text", [
    b"this is not json",
    b'{"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"',
    b'{"method" "revalidate", "arguments": {}}',
], ids=["words", "truncated", "missing-colon"])
def test_malformed_json_variants_close_without_reply(daemon, sandbox, text):
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(text)
    assert recv_until_closed(s) == b""
    s.close()
    assert console_after(sandbox, mark) == PARSE_ERROR


@pytest.mark.parametrize("text", [
    b"null      ",
    b"[1, 2, 3]",
    b'[{"method":"revalidate","arguments":{}}]',
    b'"abcdefgh"',
    b"123456789",
    b"true      ",
], ids=["null", "array", "array-of-request", "string", "number", "true"])
def test_json_not_an_object_no_reply_printed_connection_stays_open(daemon, sandbox, text):
    """No reply, "request_exec: invalid parameters." on standard output; the
    bytes are consumed and the connection stays open, so a later request on
    it is read behind the leading zero byte, fails to parse and closes it
    (Part 1.2)."""
    assert len(text) > 8
    mark = sandbox.console()
    before = daemon.stdout()
    s = sandbox.connect()
    s.sendall(text)
    wait_for(lambda: daemon.stdout()[len(before):] == INVALID_PARAMETERS)
    assert console_after(sandbox, mark) == ""
    s.sendall(b'{"method":"revalidate","arguments":{},"tag":1}')
    assert recv_until_closed(s) == b""
    s.close()
    assert console_after(sandbox, mark) == PARSE_ERROR
    assert stdout_since(sandbox, daemon, before) == INVALID_PARAMETERS


@pytest.mark.parametrize("method", ["pref-get", "pref-set", "revalidate"])
@pytest.mark.parametrize("arguments", [[{"confs": ["lan_ipaddr"]}], "x", 5, True],
                         ids=["array", "string", "number", "true"])
def test_arguments_not_an_object_is_invalid_arguments(daemon, sandbox, method, arguments):
    """The request layer answers before the handler is called: only its own
    line is printed, none of the handler's."""
    reply, out, _ = exchange(sandbox, daemon, {"method": method, "arguments": arguments})
    assert reply == b'{ "arguments": { }, "result": "invalid arguments" }'
    assert out == "invalid arguments.\n"


@pytest.mark.parametrize("method", ["pref-get", "pref-set", "revalidate"])
def test_arguments_absent_is_invalid_arguments(daemon, sandbox, method):
    reply, out, _ = exchange(sandbox, daemon, {"method": method, "tag": "t"})
    assert reply == b'{ "arguments": { }, "result": "invalid arguments", "tag": "t" }'
    assert out == "invalid arguments.\n"


def test_arguments_null_counts_as_absent(daemon, sandbox):
    reply, out, _ = exchange(sandbox, daemon, b'{"method":"revalidate","arguments":null}')
    assert reply == b'{ "arguments": { }, "result": "invalid arguments" }'
    assert out == "invalid arguments.\n"


def test_method_absent_is_no_method_name(daemon, sandbox):
    reply, out, _ = exchange(sandbox, daemon, b'{"arguments":{},"tag":[1]}')
    assert reply == b'{ "arguments": { }, "result": "no method name", "tag": [ 1 ] }'
    assert out == ""


def test_method_null_counts_as_absent(daemon, sandbox):
    reply, out, _ = exchange(sandbox, daemon, b'{"method":null,"arguments":{}}')
    assert reply == b'{ "arguments": { }, "result": "no method name" }'
    assert out == ""


@pytest.mark.parametrize("name", ["Pref-Get", "REVALIDATE", "pref_set", "revalidate ",
                                  " pref-get", "pref-", "", 5],
                         ids=["capitalised", "upper", "underscore", "trailing-space",
                              "leading-space", "prefix", "empty", "number"])
def test_unknown_method_is_method_not_found(daemon, sandbox, name):
    reply, out, _ = exchange(sandbox, daemon, {"method": name, "arguments": {}})
    assert reply == b'{ "arguments": { }, "result": "method not found" }'
    assert out == ""


def test_unknown_method_with_absent_arguments_is_method_not_found(daemon, sandbox):
    """The method error overrides the arguments error, whose line is printed."""
    reply, out, _ = exchange(sandbox, daemon, b'{"method":"bogus","tag":"x"}')
    assert reply == b'{ "arguments": { }, "result": "method not found", "tag": "x" }'
    assert out == "invalid arguments.\n"


def test_tag_echoed_on_error_reply(daemon, sandbox):
    assert send(sandbox, b'{"method":"bogus","arguments":{},"tag":{"n":1}}') == \
        b'{ "arguments": { }, "result": "method not found", "tag": { "n": 1 } }'


def test_reply_members_in_order_arguments_result_tag(daemon, sandbox):
    """Whatever the order of the request's members."""
    assert send(sandbox, b'{"tag":"first","arguments":{},"method":"revalidate"}') == \
        b'{ "arguments": { }, "result": "success", "tag": "first" }'


def test_other_request_members_are_ignored(daemon, sandbox):
    reply, out, console = exchange(
        sandbox, daemon,
        b'{"method":"revalidate","arguments":{},"result":"x","extra":[1],"Tag":2}')
    assert reply == SUCCESS
    assert out == ""
    assert console == ""


def test_handler_error_text_is_the_result(daemon, sandbox):
    """pref-set with no "confs" member: the handler's text reaches the client
    unchanged, with the reply's empty "arguments"."""
    assert send(sandbox, b'{"method":"pref-set","arguments":{},"tag":0}') == \
        b'{ "arguments": { }, "result": "internal error", "tag": 0 }'


def test_handler_output_kept_in_reply_arguments(daemon, sandbox):
    assert send(sandbox, b'{"method":"pref-get","arguments":{"confs":["lan_ipaddr"]}}') == (
        b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1" }, "infos": { } },'
        b' "result": "success" }')


def test_connection_stays_open_after_a_reply(daemon, sandbox):
    """The reply is the bare JSON text and the server does not close; a
    second request on the connection is the one that closes it."""
    mark = sandbox.console()
    s = sandbox.connect()
    s.sendall(b'{"method":"revalidate","arguments":{},"tag":7}')
    want = b'{ "arguments": { }, "result": "success", "tag": 7 }'
    got = b""
    s.settimeout(30)
    while len(got) < len(want):
        chunk = s.recv(4096)
        assert chunk, got
        got += chunk
    assert got == want
    s.sendall(b'{"method":"revalidate","arguments":{},"tag":8}')
    assert recv_until_closed(s) == b""
    s.close()
    assert console_after(sandbox, mark) == PARSE_ERROR

"""Request shapes, pref-get, pref-set, the revalidate walk and its system-busy guard."""
import pytest

from helpers import REVALIDATE_NAMES, console_after, send, stdout_since, store_restore, wait_for


R = lambda result, arguments=b"{ }", tag=b"": b'{ "arguments": ' + arguments + b', "result": "' + result + b'"' + tag + b" }"  # noqa: E731
G = lambda confs=b"": R(b"success", b'{ "confs": ' + (b"{ %s }" % confs if confs else b"{ }") + b', "infos": { } }')  # noqa: E731
INV, OK, BUSY = R(b"invalid arguments"), R(b"success"), R(b"system busy")
PG, PS, RV = b'{"method":"pref-get","arguments":', b'{"method":"pref-set","arguments":', b'{"method":"revalidate","arguments":'
ONGOING = b'{"upgrade_stage": "ongoing"}\0'


@pytest.mark.parametrize("request_, reply, out", [
    (RV + b'{},"tag":7}', R(b"success", tag=b', "tag": 7'), ""),
    (b'{"tag":{"a":"x/y"},"method":"revalidate","result":"x","arguments":{}}', R(b"success", tag=b', "tag": { "a": "x\\/y" }'), ""),
    (b'{"method":"bogus","tag":"x"}', R(b"method not found", tag=b', "tag": "x"'), "invalid arguments.\n"),
    (b'{"method":"REVALIDATE","arguments":{}}', R(b"method not found"), ""),
    (b'{"arguments":5}', R(b"no method name"), "invalid arguments.\n"),
    (b'{"method":null,"arguments":{},"tag":null}', R(b"no method name", tag=b', "tag": null'), ""),
    (RV + b'null}', INV, "invalid arguments.\n"), (PS + b'[1]}', INV, "invalid arguments.\n"),
    (PG + b'{}}', G(), "No confs field.\nNo info field.\n"),
    (PG + b'{"confs":"x"}}', G(), "confs invalid data.\nNo info field.\n"),
    (PG + b'{"confs":["lan_ipaddr","x","lan_ipaddr",5],"infos":{}}}', G(b'"lan_ipaddr": "192.168.100.1"'), "infos invalid data.\n"),
    (PG + b'{"confs":["wl_channel_list","wl_fw_mode","dhcp_staticlist","dhcp_static_dns1","wl_security"]}}',
     G(b'"wl_channel_list": [ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11 ], "wl_fw_mode": 0, "dhcp_staticlist": [ ], '
       b'"dhcp_static_dns1": "", "wl_security": "wpapsk\\/wpa2psk"'), "No info field.\n"),
    (b"[1, 2, 3]", b"", "request_exec: invalid parameters.\n"),
], ids=["tag", "tag-object", "no-method-wins", "unknown-method", "no-method", "null-method", "null-arguments",
        "arguments-array", "get-empty", "confs-string", "get", "get-types", "not-an-object"])
def test_request_shapes(daemon, sandbox, request_, reply, out):
    mark, before = sandbox.console(), daemon.stdout()
    if reply:
        assert send(sandbox, request_) == reply
    else:
        s = sandbox.connect()
        s.sendall(request_)
        wait_for(lambda: daemon.stdout()[len(before):] == out)
        s.close()
    assert (stdout_since(sandbox, daemon, before), console_after(sandbox, mark)) == (out, "")


@pytest.mark.parametrize("confs, reply, err, stored", [
    (b'{"user3_name":"on","user2_name":{"a":[1,null],"c":"d/e"}}', OK, "", [b'"on"', b'{ "a": [ 1, null ], "c": "d\\/e" }']),
    (b'{"user3_name":null}', OK, "", [b"null", b'"Owner2"']),
    (b'{"user3_name":"A","product_model":"X","user2_name":"B"}', R(b"internal error"),
     "[warn] Set invalid sysconf key product_model.\n\n", [b'"A"', b'"Owner2"']),
    (b'{"user3_name":"A","new_key":"x"}', R(b"internal error"), "[warn] Set invalid sysconf key new_key.\n\n", [b'"A"', b'"Owner2"']),
    (b'{}', OK, "", [b'"Owner3"', b'"Owner2"']),
    (b'["user3_name"]', R(b"internal error"), "[warn] confs not required type data.\n\n", [b'"Owner3"', b'"Owner2"']),
], ids=["values", "null", "refused-key", "new-key", "empty", "not-an-object"])
def test_pref_set_stores_json_text(daemon, sandbox, confs, reply, err, stored):
    keys = ["user3_name", "user2_name", "product_model", "new_key"]
    saved = [sandbox.store_get("sysconf", k) for k in keys]
    before = daemon.stderr()
    try:
        assert (send(sandbox, PS + b'{"confs":' + confs + b"}}"), daemon.stderr()[len(before):]) == (reply, err)
        assert [sandbox.store_get("sysconf", k) for k in keys] == [s + b"\0" for s in stored] + [b'"HX-R1"\0', None]
        want = b", ".join(b'"%s": %s' % (k.encode(), s) for k, s in zip(keys, stored) if s and s != b"null")
        assert send(sandbox, PG + b'{"confs":["user3_name","user2_name"],"infos":[]}}') == G(want)
    finally:
        for k, raw in zip(keys, saved):
            store_restore(sandbox, "sysconf", k, raw)


@pytest.mark.parametrize("fwup, arguments, reply, out", [
    (ONGOING, b'{"bogus":1,"Reboot":{},"":2}', OK, ""), (ONGOING, b'{"bogus":1,"Video":2,"video":3}', BUSY, ""),
    (b'{ "progress": 40, "upgrade_stage": "ongoing" }\0', b'{"reboot":{}}', BUSY, ""),
    (b"word\0", b'{"owner_chg":{}}', BUSY, ""), (b"null\0", b'{"video":{}}', BUSY, ""), (b"word\0", b'{"x":1}', OK, ""),
    *[(raw, b'{"video":{}}', OK, "") for raw in (None, b'{"upgrade_stage": "Ongoing"}\0', b'{"upgrade_stage": "ongoingx"}\0',
      b'{"upgrade_stage": ["ongoing"]}\0', b'{"Upgrade_stage": "ongoing"}\0', b'"ongoing"\0', b"1\0")],
    (b'{"upgrade_stage": "done"}\0', b'{"video":null,"video2":1,"ipsec":"x","thumbnail":[],"owner_chg":{}}', OK, ""),
    (None, b'{"video":1,"dhcp":5,"upnp":{"action":"start"}}', INV, "Unexpected json type.\n"),
    (None, b'{"dhcp":null,"video":1}', INV, "Input parameter is NULL.\n"),
], ids=["unknown-only", "known-after-unknown", "ongoing", "not-json", "null-text", "not-json-unknown", "absent",
        "capitalised", "longer", "array", "other-key", "bare-string", "number", "noop-targets", "failure-ends-walk", "null-value"])
def test_revalidate_walk_and_busy_guard(daemon, sandbox, fwup, arguments, reply, out):
    saved = sandbox.store_get("rtconf", "fwup_status")
    store_restore(sandbox, "rtconf", "fwup_status", fwup)
    mark, before, cmds = sandbox.console(), daemon.stdout(), len(sandbox.cmdlog())
    try:
        assert send(sandbox, RV + arguments + b"}") == reply
        if fwup == ONGOING:     # every target is known: refused before it runs
            assert [send(sandbox, RV + b'{"%s":{"action":"start"}}}' % n.encode()) for n in REVALIDATE_NAMES] == [BUSY] * 41
    finally:
        store_restore(sandbox, "rtconf", "fwup_status", saved)
    assert stdout_since(sandbox, daemon, before) == out
    assert (console_after(sandbox, mark), sandbox.cmdlog()[cmds:]) == ("", [])

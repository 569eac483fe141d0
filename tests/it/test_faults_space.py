"""Full file systems: "/var/tmp" (the socket, the generated configuration
files) and "/mnt/rwdata" (the persistent and product stores) are small
tmpfs mounts inside the sandbox, mounted before the daemon starts, and are
filled until ENOSPC.  Writes fail, the daemon answers every request, and a
store write that the file system refuses leaves every old value readable."""
import json

import pytest

from helpers import revalidate, stdout_since

GET = {"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}
GET_REPLY = (b'{ "arguments": { "confs": { "lan_ipaddr": "192.168.100.1" }, '
             b'"infos": { } }, "result": "success" }')
SUCCESS = b'{ "arguments": { }, "result": "success" }'
DHCP = {"dhcp": {"action": "restart"}}
DHCP_OUT = "***** wan_type: none *****\ndnsmasq -C /var/tmp/dnsmasq.conf\n"
DNSMASQ_CONF = "/var/tmp/dnsmasq.conf"
HOSTS = "/var/tmp/hosts"
NOT_INSERTED = "[warn] Item not inserted. \n\n"
LONG = "Z" * 3500            # one request must stay within one 4096-byte read
STORES = ("sysconf", "rtconf", "sysinfo")


@pytest.fixture(scope="module")
def daemon(sandbox):
    sandbox.mount_tmpfs("/var/tmp", "256k")
    sandbox.mount_tmpfs("/mnt/rwdata", "256k")
    d = sandbox.start_daemon()
    yield d
    assert d.stop() == 0


@pytest.fixture
def full(sandbox):
    """full(dir) fills dir's file system and returns the filling file's
    path; the space is freed after the test at the latest."""
    fills = []

    def fill(d):
        fills.append(sandbox.fill_fs(d))
        return fills[-1]
    yield fill
    for f in fills:
        sandbox.remove(f)


def snapshot(sandbox):
    return {store: sandbox.store_snapshot(store) for store in STORES}


def stderr_since(daemon, before):
    text = daemon.stderr()
    assert text.startswith(before)
    return text[len(before):]


def test_full_var_tmp_config_file_empty_daemon_answers(sandbox, daemon, full):
    out = daemon.stdout()
    assert revalidate(sandbox, DHCP) == SUCCESS
    assert stdout_since(sandbox, daemon, out) == DHCP_OUT
    good = sandbox.read(DNSMASQ_CONF)
    stores = snapshot(sandbox)
    for p in (DNSMASQ_CONF, HOSTS):
        sandbox.remove(p)
    filling = full("/var/tmp")
    out = daemon.stdout()
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, DHCP) == SUCCESS
    # The renewal fails, so dnsmasq is stopped and not started (Part 4.1).
    assert stdout_since(sandbox, daemon, out) == ""
    assert sandbox.cmdlog() == [["/usr/bin/killall", "-9", "dnsmasq"]]
    assert sandbox.read(DNSMASQ_CONF) == b""
    assert sandbox.request(GET) == GET_REPLY
    assert snapshot(sandbox) == stores
    sandbox.remove(filling)
    assert revalidate(sandbox, DHCP) == SUCCESS
    assert sandbox.read(DNSMASQ_CONF) == good


def writable_keys(sandbox):
    keys = sorted(k[:-1].decode() for k in sandbox.store_keys("sysconf"))
    return [k for k in keys if k not in ("product_model", "product_description", "lan_ipaddr")]


def test_full_rwdata_refused_store_writes_keep_old_values(sandbox, daemon, full):
    stores = snapshot(sandbox)
    every = {"method": "pref-get", "arguments": {"confs": writable_keys(sandbox)}}
    answer = sandbox.request(every)
    full("/mnt/rwdata")
    keys = writable_keys(sandbox)[:6]
    err = daemon.stderr()
    for key in keys:
        request = {"method": "pref-set", "arguments": {"confs": {key: LONG}}}
        assert sandbox.request(request) == SUCCESS
    assert stderr_since(daemon, err) == NOT_INSERTED * len(keys)
    assert snapshot(sandbox) == stores
    assert sandbox.request(every) == answer
    assert sandbox.request(GET) == GET_REPLY


def test_rwdata_space_back_store_writes_again(sandbox, daemon):
    before = sandbox.store_snapshot("sysconf")
    key = writable_keys(sandbox)[0]
    request = {"method": "pref-set", "arguments": {"confs": {key: LONG}}}
    try:
        assert sandbox.request(request) == SUCCESS
        assert sandbox.store_get("sysconf", key) == json.dumps(LONG).encode() + b"\0"
    finally:
        sandbox.store_set("sysconf", key, before[key.encode() + b"\0"])
    assert sandbox.store_snapshot("sysconf") == before

"""Part 2.5: status items of the system, the network and the owners, through
the real daemon on the factory-default device (and the four items left to
the implementer: s_waninfo, s_logs, s_routesactive, s_upnplist).

Requests name "confs": [] so that pref-get prints nothing of its own; what
an item prints is then all of standard output.  The test that records a
clock correction (`dtime`) through "datetime" runs last: the correction
stays for the life of the module's daemon.
"""
import ctypes
import json
import re
import socket
import struct
import time

import pytest

from hxsim import jsonc_text
from helpers import revalidate, send, stdout_since, store_restore

SUCCESS = b'{ "arguments": { }, "result": "success" }'
LEASES = "/var/tmp/dnsmasq.leases"
UPNP_LEASES = "/var/tmp/upnp.leases"
TOS_LOG = "/mnt/rwdata/tos.log"
UAPUTL = "/sbin/uaputl.exe"
RESOLV = "/etc/resolv.conf"
UDHCPC_PID = "/var/run/udhcpc.pid"

OWNERS = (b'"owner_list": { "active_user": "user0_name", "user0_name": "Default user",'
          b' "user0_icon": "0", "user1_name": "Owner1", "user1_icon": "1",'
          b' "user2_name": "Owner2", "user2_icon": "2", "user3_name": "Owner3",'
          b' "user3_icon": "3" }')
OSINFO = (b'"s_osinfo": "Linux HX-R1 2.6.32.68 #1 PREEMPT Mon Mar 4 10:00:00 UTC 2024 mips'
          b' GNU\\/Linux"')
BOARDINFO = b'"s_boardinfo": "HX-R1 main board rev A, 32MB RAM, Marvell SD8787 Wi-Fi"'

# What the Marvell micro-AP utility prints for "sta_list" (uaputl.c:
# "Number of STA = %d\n\n", then per station "STA %d information:",
# a rule, "MAC Address: " with print_mac's lower-case hex, "Power mfg
# status: %s", "Rssi : %d dBm" and a blank line).
STA_LIST = """Number of STA = 2

STA 1 information:
=====================
MAC Address: 00:50:43:21:0a:b1
Power mfg status: active
Rssi : -45 dBm

STA 2 information:
=====================
MAC Address: 8c:85:90:12:34:56
Power mfg status: power save
Rssi : -71 dBm

"""


def get(sandbox, *names):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": list(names)}})


def answer(*members):
    """The reply of a pref-get whose infos hold these member texts."""
    infos = b"{ " + b", ".join(members) + b" }" if members else b"{ }"
    return b'{ "arguments": { "confs": { }, "infos": ' + infos + b' }, "result": "success" }'


def member(name, value):
    return f"{jsonc_text(name)}: {jsonc_text(value)}".encode()


def infos_of(reply):
    return json.loads(reply)["arguments"]["infos"]


def ask(sandbox, daemon, *names):
    """(reply, what the daemon printed meanwhile)."""
    before = daemon.stdout()
    reply = get(sandbox, *names)
    return reply, stdout_since(sandbox, daemon, before)


def inside(sandbox, *argv):
    return sandbox.run(list(argv), check=True).stdout.decode()


def uptime_inside(sandbox):
    return float(inside(sandbox, "cat", "/proc/uptime").split()[0])


def mac_of(sandbox, ifname):
    return inside(sandbox, "cat", f"/sys/class/net/{ifname}/address").strip().upper()


@pytest.fixture
def conf(daemon, sandbox):
    """conf(key, value[, store]): None deletes, bytes are stored raw, any other
    value as its JSON text; every value is put back after the test."""
    saved = []

    def put(key, value, store="sysconf"):
        saved.append((store, key, sandbox.store_get(store, key)))
        if value is None:
            sandbox.store_delete(store, key)
        else:
            raw = value if isinstance(value, bytes) else jsonc_text(value).encode() + b"\0"
            sandbox.store_set(store, key, raw)
    yield put
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)


@pytest.fixture
def net(sandbox):
    """net(*ip_args) runs `ip ...` inside; mlan0's addresses and routes are
    flushed afterwards."""
    def ip(*args):
        done = sandbox.run(["ip", *args])
        assert done.returncode == 0, done.stderr
    yield ip
    sandbox.run(["ip", "-4", "route", "flush", "dev", "mlan0"], check=True)
    sandbox.run(["ip", "-4", "addr", "flush", "dev", "mlan0"], check=True)


@pytest.fixture
def files(sandbox):
    """files(path, text) writes a file inside; each is removed (or put back)
    after the test."""
    saved = []

    def write(path, text):
        saved.append((path, sandbox.read(path) if sandbox.exists(path) else None))
        sandbox.write(path, text)
    yield write
    for path, data in reversed(saved):
        if data is None:
            sandbox.remove(path)
        else:
            sandbox.write(path, data)


# The factory device


def test_every_item_on_the_factory_device(daemon, sandbox):
    """The items whose answer does not depend on the clock, the kernel or
    the host, in one request, in request order."""
    br0 = mac_of(sandbox, "br0")
    reply, out = ask(sandbox, daemon, "p_model", "p_description", "s_osinfo", "s_boardinfo",
                     "s_rootfsver", "fw_version", "wl_radio", "ws_state", "fwup_status",
                     "owner_list", "s_wan_gw", "s_laninfo", "s_stalist", "s_dhcpleases",
                     "s_waninfo", "s_routesactive", "s_upnplist", "s_logs")
    assert reply == answer(
        b'"p_model": "HX-R1"', b'"p_description": "HX Travel Router"', OSINFO, BOARDINFO,
        b'"s_rootfsver": "HX-R1_V1.0.0_20240304"', b'"fw_version": "HX-R1_V1.0.0_20240304"',
        b'"wl_radio": "on"', b'"ws_state": "off"', b'"fwup_status": { "upgrade_stage": "idle" }',
        OWNERS, b'"s_wan_gw": ""',
        b'"s_laninfo": { "mac": "%s", "ip": "192.168.100.1", "netmask": "255.255.255.0",'
        b' "mtu": "1500" }' % br0.encode(),
        b'"s_stalist": [ ]', b'"s_dhcpleases": [ ]',
        b'"s_waninfo": { "mac": "N\\/A", "ip": "N\\/A", "netmask": "N\\/A", "mtu": "N\\/A",'
        b' "wan_uptime": "N\\/A", "state": "Disconnected" }',
        b'"s_routesactive": [ { "dest": "192.168.100.0", "gw": "0.0.0.0",'
        b' "subnet": "255.255.255.0", "metric": "0", "default": "no", "inf": "br0(LAN)" } ]',
        b'"s_upnplist": [ ]', b'"s_logs": [ ]')
    # wan_get_state (Part 4.2) on the factory WAN type
    assert out == "***** wan_type: none *****\n"


def test_unknown_names_beside_items_are_skipped(daemon, sandbox):
    assert get(sandbox, "P_MODEL", "p_model", "s_time ") == answer(b'"p_model": "HX-R1"')


# s_time


def test_s_time_is_the_clock_in_decimal(daemon, sandbox):
    before = int(time.time())
    reply = get(sandbox, "s_time")
    after = int(time.time())
    m = re.fullmatch(rb'\{ "arguments": \{ "confs": \{ \}, "infos": \{ "s_time": "(\d+)" \} \},'
                     rb' "result": "success" \}', reply)
    assert m, reply
    assert before <= int(m.group(1)) <= after


def test_s_time_twice_gives_one_member(daemon, sandbox):
    reply = get(sandbox, "s_time", "s_time")
    assert reply.count(b'"s_time"') == 1
    assert list(infos_of(reply)) == ["s_time"]


# s_sysinfo


class SysInfo(ctypes.Structure):
    _fields_ = [("uptime", ctypes.c_long), ("loads", ctypes.c_ulong * 3),
                ("totalram", ctypes.c_ulong), ("freeram", ctypes.c_ulong),
                ("sharedram", ctypes.c_ulong), ("bufferram", ctypes.c_ulong),
                ("totalswap", ctypes.c_ulong), ("freeswap", ctypes.c_ulong),
                ("procs", ctypes.c_ushort), ("pad", ctypes.c_ushort),
                ("totalhigh", ctypes.c_ulong), ("freehigh", ctypes.c_ulong),
                ("mem_unit", ctypes.c_uint), ("_f", ctypes.c_char * 8)]


def host_sysinfo():
    info = SysInfo()
    assert ctypes.CDLL(None, use_errno=True).sysinfo(ctypes.byref(info)) == 0
    return info


def test_s_sysinfo_members(daemon, sandbox):
    up0 = uptime_inside(sandbox)
    reply, out = ask(sandbox, daemon, "s_sysinfo")
    up1 = uptime_inside(sandbox)
    m = re.fullmatch(rb'\{ "arguments": \{ "confs": \{ \}, "infos": \{ "s_sysinfo": \{'
                     rb' "uptime": "(\d+)", "loads": "(\d+\.\d\d, \d+\.\d\d, \d+\.\d\d)",'
                     rb' "totalram": "(\d+)", "freeram": "(\d+)" \} \} \}, "result": "success" \}',
                     reply)
    assert m, reply
    assert int(up0) <= int(m.group(1)) <= int(up1) + 1
    assert int(m.group(4)) <= int(m.group(3))
    if not sandbox.emulator:
        # unscaled: the kernel's own count in its own units
        assert int(m.group(3)) == host_sysinfo().totalram
    assert out == ""


# Run-time texts: s_osinfo, s_boardinfo, s_rootfsver / fw_version


def test_uname_absent_adds_nothing(daemon, sandbox, conf):
    conf("uname", None, store="rtconf")
    reply, out = ask(sandbox, daemon, "s_osinfo", "s_boardinfo")
    assert reply == answer(BOARDINFO)
    assert out == ""


def test_values_are_taken_as_text_not_parsed(daemon, sandbox, conf):
    conf("uname", b'"quoted" {not json\0', store="rtconf")
    conf("boardinfo", b"\0", store="rtconf")  # empty counts as missing
    assert get(sandbox, "s_osinfo", "s_boardinfo") == \
        answer(b'"s_osinfo": "\\"quoted\\" {not json"')


def test_rootfs_version_of_two_lines_gives_the_first(daemon, sandbox, conf):
    conf("rootfs.ver", b"HX-R1_V1.0.1_20240401\nbuilt by ci\n\0", store="rtconf")
    assert get(sandbox, "s_rootfsver", "fw_version") == answer(
        b'"s_rootfsver": "HX-R1_V1.0.1_20240401"', b'"fw_version": "HX-R1_V1.0.1_20240401"')


def test_rootfs_version_is_bounded_by_its_64_byte_field(daemon, sandbox, conf):
    conf("rootfs.ver", b"V" * 80 + b"\0", store="rtconf")
    assert get(sandbox, "fw_version") == answer(b'"fw_version": "' + b"V" * 63 + b'"')


def test_rootfs_version_absent_adds_nothing(daemon, sandbox, conf):
    conf("rootfs.ver", None, store="rtconf")
    reply, out = ask(sandbox, daemon, "s_rootfsver", "fw_version", "p_model")
    assert reply == answer(b'"p_model": "HX-R1"')
    assert out == ""


# Parsed values: p_model, p_description, wl_radio, ws_state, fwup_status


def test_wl_radio_absent_is_the_empty_string(daemon, sandbox, conf):
    conf("wl_radio", None, store="rtconf")
    assert get(sandbox, "wl_radio") == answer(b'"wl_radio": ""')


def test_wl_radio_on_in_quotes_is_the_string_on(daemon, sandbox, conf):
    conf("wl_radio", b'"on"\0', store="rtconf")
    assert get(sandbox, "wl_radio") == answer(b'"wl_radio": "on"')


def test_run_time_states_absent_are_empty_strings(daemon, sandbox, conf):
    conf("ws_state", None, store="rtconf")
    conf("fwup_status", None, store="rtconf")
    assert get(sandbox, "ws_state", "fwup_status") == \
        answer(b'"ws_state": ""', b'"fwup_status": ""')


def test_run_time_states_keep_their_json_type(daemon, sandbox, conf):
    conf("ws_state", b"[ 1, 2 ]\0", store="rtconf")
    conf("fwup_status", b'{"upgrade_stage": "done", "progress": 100}\0', store="rtconf")
    assert get(sandbox, "ws_state", "fwup_status") == answer(
        b'"ws_state": [ 1, 2 ]', b'"fwup_status": { "upgrade_stage": "done", "progress": 100 }')


def test_unparsable_run_time_state_adds_nothing(daemon, sandbox, conf):
    """A script wrote the word on without quotes: "ERROR", nothing added."""
    conf("wl_radio", b"on\0", store="rtconf")
    conf("ws_state", b"null\0", store="rtconf")
    reply, out = ask(sandbox, daemon, "wl_radio", "ws_state", "p_model")
    assert reply == answer(b'"p_model": "HX-R1"')
    assert out == ""


def test_product_keys_missing_or_unparsable_add_nothing(daemon, sandbox):
    saved = [sandbox.store_get("sysinfo", k) for k in ("product_model", "product_description")]
    try:
        sandbox.store_delete("sysinfo", "product_model")
        sandbox.store_set("sysinfo", "product_description", b"HX Travel Router\0")
        reply, out = ask(sandbox, daemon, "p_model", "p_description", "wl_radio")
        assert reply == answer(b'"wl_radio": "on"')
        assert out == ""
    finally:
        store_restore(sandbox, "sysinfo", "product_model", saved[0])
        store_restore(sandbox, "sysinfo", "product_description", saved[1])


# owner_list


def test_owner_list_with_user2_icon_missing_stops_before_it(daemon, sandbox, conf):
    """The members before "user2_icon": "active_user" and the five user
    members "user0_name" to "user2_name" (the spec's edge case counts these
    five; its algorithm keeps every member added before the missing key)."""
    conf("user2_icon", None)
    reply, out = ask(sandbox, daemon, "owner_list", "p_model")
    assert reply == answer(
        b'"owner_list": { "active_user": "user0_name", "user0_name": "Default user",'
        b' "user0_icon": "0", "user1_name": "Owner1", "user1_icon": "1",'
        b' "user2_name": "Owner2" }',
        b'"p_model": "HX-R1"')
    assert out == ""


def test_owner_list_stops_at_an_unparsable_value(daemon, sandbox, conf):
    conf("user0_icon", b"zero\0")
    assert get(sandbox, "owner_list") == answer(
        b'"owner_list": { "active_user": "user0_name", "user0_name": "Default user" }')


def test_owner_list_first_key_missing_leaves_an_empty_object(daemon, sandbox, conf):
    conf("active_user", None)
    assert get(sandbox, "owner_list") == answer(b'"owner_list": { }')


def test_owner_list_keeps_value_types(daemon, sandbox, conf):
    conf("user3_icon", 7)
    conf("user3_name", {"first": "Ann"})
    assert infos_of(get(sandbox, "owner_list"))["owner_list"]["user3_icon"] == 7
    assert get(sandbox, "owner_list").endswith(
        b'"user3_name": { "first": "Ann" }, "user3_icon": 7 } } }, "result": "success" }')


def test_owner_chg_does_nothing_and_succeeds(daemon, sandbox):
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"owner_chg": {"user1_name": "x"}}) == SUCCESS
    assert sandbox.cmdlog() == []


# s_wan_gw


def test_s_wan_gw_without_wan_if_is_na(daemon, sandbox, conf):
    conf("wan_if", None, store="rtconf")
    assert get(sandbox, "s_wan_gw") == answer(b'"s_wan_gw": "N\\/A"')


def test_s_wan_gw_short_wan_if_is_na(daemon, sandbox, conf):
    """Two bytes with the NUL: shorter than 3."""
    conf("wan_if", b"5\0", store="rtconf")
    assert get(sandbox, "s_wan_gw") == answer(b'"s_wan_gw": "N\\/A"')


def test_s_wan_gw_unparsable_wan_if_adds_nothing(daemon, sandbox, conf):
    conf("wan_if", b"mlan0\0", store="rtconf")
    assert get(sandbox, "s_wan_gw", "p_model") == answer(b'"p_model": "HX-R1"')


def test_s_wan_gw_is_the_default_route_of_the_wan(daemon, sandbox, conf, net):
    conf("wan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    net("route", "add", "default", "via", "10.1.2.254", "dev", "mlan0")
    reply, out = ask(sandbox, daemon, "s_wan_gw")
    assert reply == answer(b'"s_wan_gw": "10.1.2.254"')
    assert out == ""


def test_s_wan_gw_without_a_route_is_empty(daemon, sandbox, conf, net):
    conf("wan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    assert get(sandbox, "s_wan_gw") == answer(b'"s_wan_gw": ""')


# s_wan_dns


def test_s_wan_dns_two_servers(daemon, sandbox, files):
    files(RESOLV, "# written by udhcpc\nsearch lan\nnameserver 10.1.2.254\n"
          "nameserver 8.8.4.4\n")
    reply, out = ask(sandbox, daemon, "s_wan_dns")
    assert reply == answer(b'"s_wan_dns": "10.1.2.254, 8.8.4.4"')
    assert out == ""


def test_s_wan_dns_no_servers_is_empty(daemon, sandbox, files):
    files(RESOLV, "search lan\n")
    assert get(sandbox, "s_wan_dns") == answer(b'"s_wan_dns": ""')


def test_s_wan_dns_without_resolv_conf_is_na(daemon, sandbox, files):
    files(RESOLV, "")
    sandbox.remove(RESOLV)
    assert get(sandbox, "s_wan_dns") == answer(b'"s_wan_dns": "N\\/A"')


# s_laninfo


def test_s_laninfo_missing_lan_if_leaves_the_object_empty(daemon, sandbox, conf):
    conf("lan_if", None, store="rtconf")
    assert get(sandbox, "s_laninfo") == answer(b'"s_laninfo": { }')


@pytest.mark.parametrize("raw", [b"\"\0", b"br0\0", b'"br0\0'], ids=["2-bytes", "bare", "open"])
def test_s_laninfo_short_or_unparsable_lan_if_leaves_the_object_empty(daemon, sandbox, conf,
                                                                       raw):
    conf("lan_if", raw, store="rtconf")
    assert get(sandbox, "s_laninfo") == answer(b'"s_laninfo": { }')


def test_s_laninfo_of_an_unknown_interface_is_the_zeroed_record(daemon, sandbox, conf):
    """The result of if_fetch is not looked at."""
    conf("lan_if", "br9", store="rtconf")
    assert get(sandbox, "s_laninfo") == answer(
        b'"s_laninfo": { "mac": "00:00:00:00:00:00", "ip": "", "netmask": "", "mtu": "0" }')


def test_s_laninfo_of_mlan0(daemon, sandbox, conf, net):
    conf("lan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.1.2.3/16", "dev", "mlan0")
    net("link", "set", "mlan0", "mtu", "1400")
    try:
        assert get(sandbox, "s_laninfo") == answer(
            b'"s_laninfo": { "mac": "%s", "ip": "10.1.2.3", "netmask": "255.255.0.0",'
            b' "mtu": "1400" }' % mac_of(sandbox, "mlan0").encode())
    finally:
        net("link", "set", "mlan0", "mtu", "1500")


# s_stalist


@pytest.fixture
def uaputl(sandbox):
    yield lambda text: sandbox.stub(UAPUTL, f"cat <<'EOF'\n{text}EOF\n")
    sandbox.stub(UAPUTL, "exit 0\n")


def test_s_stalist_two_stations(daemon, sandbox, uaputl):
    uaputl(STA_LIST)
    sandbox.clear_cmdlog()
    reply, out = ask(sandbox, daemon, "s_stalist")
    assert reply == answer(b'"s_stalist": [ { "mac": "00:50:43:21:0a:b1", "rssi": "-45" },'
                           b' { "mac": "8c:85:90:12:34:56", "rssi": "-71" } ]')
    assert sandbox.cmdlog() == [[UAPUTL, "sta_list"]]
    assert out == ""


def test_s_stalist_no_station_is_an_empty_array(daemon, sandbox, uaputl):
    uaputl("Number of STA = 0\n\n")
    assert get(sandbox, "s_stalist") == answer(b'"s_stalist": [ ]')


def test_s_stalist_failing_utility_is_an_empty_array(daemon, sandbox, uaputl):
    sandbox.stub(UAPUTL, "echo 'ERR:UAP_GET_STA_LIST is not supported by uap0'\nexit 1\n")
    assert get(sandbox, "s_stalist") == answer(b'"s_stalist": [ ]')


def test_s_stalist_is_bounded_to_32_stations(daemon, sandbox, uaputl):
    text = "Number of STA = 40\n\n" + "".join(
        f"STA {n + 1} information:\n=====================\nMAC Address: 00:50:43:00:00:{n:02x}\n"
        f"Power mfg status: active\nRssi : -{n} dBm\n\n" for n in range(40))
    uaputl(text)
    stations = infos_of(get(sandbox, "s_stalist"))["s_stalist"]
    assert stations == [{"mac": f"00:50:43:00:00:{n:02x}", "rssi": f"-{n}"} for n in range(32)]


# s_dhcpleases


def lease_reply(leases):
    return answer(member("s_dhcpleases", leases))


def test_s_dhcpleases_lines(daemon, sandbox, files):
    """A four-field line is left out; a lease whose end lies in the past
    shows a negative expires; clientid keeps the line's newline."""
    now = int(time.time())
    files(LEASES, f"{now + 600} aa:bb:cc:dd:ee:01 192.168.100.101 phone 01:aa:bb:cc:dd:ee:01\n"
                  f"{now + 900} aa:bb:cc:dd:ee:02 192.168.100.102 laptop\n"
                  f"{now - 100} aa:bb:cc:dd:ee:03 192.168.100.103 * *\n")
    t0 = int(time.time())
    reply, out = ask(sandbox, daemon, "s_dhcpleases")
    t1 = int(time.time())
    leases = infos_of(reply)["s_dhcpleases"]
    assert len(leases) == 2
    first, second = (int(lease["expires"]) for lease in leases)
    assert now + 600 - t1 <= first <= now + 600 - t0
    assert now - 100 - t1 <= second <= now - 100 - t0 < 0
    assert reply == lease_reply([
        {"expires": str(first), "mac": "aa:bb:cc:dd:ee:01", "ipaddr": "192.168.100.101",
         "hostname": "phone", "clientid": "01:aa:bb:cc:dd:ee:01\n"},
        {"expires": str(second), "mac": "aa:bb:cc:dd:ee:03", "ipaddr": "192.168.100.103",
         "hostname": "*", "clientid": "*\n"}])
    assert b'"clientid": "*\\n"' in reply
    assert out == ""


def test_s_dhcpleases_without_the_file_is_an_empty_array(daemon, sandbox, files):
    files(LEASES, "")
    assert get(sandbox, "s_dhcpleases") == answer(b'"s_dhcpleases": [ ]')
    sandbox.remove(LEASES)
    assert get(sandbox, "s_dhcpleases") == answer(b'"s_dhcpleases": [ ]')


def test_s_dhcpleases_only_the_blank_separates(daemon, sandbox, files):
    """Two blanks make an empty field; a line without a final newline keeps
    none; a sixth field is dropped."""
    files(LEASES, "0  aa:bb:cc:dd:ee:01 10.0.0.1 host id extra\n"
                  "0 aa:bb:cc:dd:ee:02 10.0.0.2 host id")
    leases = infos_of(get(sandbox, "s_dhcpleases"))["s_dhcpleases"]
    assert [(x["mac"], x["ipaddr"], x["hostname"], x["clientid"]) for x in leases] == [
        ("", "aa:bb:cc:dd:ee:01", "10.0.0.1", "host"),
        ("aa:bb:cc:dd:ee:02", "10.0.0.2", "host", "id")]


def test_s_dhcpleases_long_line_is_several_lines(daemon, sandbox, files):
    """The 4096-byte buffer takes 4095 characters of the line; the rest is
    a line of one field, left out."""
    now = int(time.time())
    head = f"{now + 60} aa:bb:cc:dd:ee:01 10.0.0.1 host "
    files(LEASES, head + "c" * 5000 + "\n")
    leases = infos_of(get(sandbox, "s_dhcpleases"))["s_dhcpleases"]
    assert len(leases) == 1
    assert leases[0]["clientid"] == "c" * (4095 - len(head))


# s_waninfo


def test_s_waninfo_wan_up(daemon, sandbox, conf, net):
    conf("wan_type", "wireless_sta")
    conf("wan_if", "mlan0", store="rtconf")
    conf("wan_uptime", "5", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    up0 = uptime_inside(sandbox)
    reply, out = ask(sandbox, daemon, "s_waninfo")
    up1 = uptime_inside(sandbox)
    uptime = int(infos_of(reply)["s_waninfo"]["wan_uptime"])
    assert int(up0) - 5 <= uptime <= int(up1) + 1 - 5
    assert reply == answer(
        b'"s_waninfo": { "mac": "%s", "ip": "10.1.2.3", "netmask": "255.255.255.0",'
        b' "mtu": "1500", "wan_uptime": "%d", "state": "Connected" }'
        % (mac_of(sandbox, "mlan0").encode(), uptime))
    assert out == "uptime_start:5\n"


def test_s_waninfo_connecting(daemon, sandbox, conf, files):
    """No address yet, the DHCP client running."""
    conf("wan_type", "wireless_sta_trust")
    conf("wan_if", "mlan0", store="rtconf")
    files(UDHCPC_PID, "4242\n")
    reply, out = ask(sandbox, daemon, "s_waninfo")
    assert reply == answer(
        b'"s_waninfo": { "mac": "%s", "ip": "N\\/A", "netmask": "N\\/A", "mtu": "1500",'
        b' "wan_uptime": "N\\/A", "state": "Connecting" }' % mac_of(sandbox, "mlan0").encode())
    assert out == ""


def test_s_waninfo_private_bridge_reports_disconnected(daemon, sandbox, conf, net):
    """wan_get_state's deliberate 1 for "wireless_sta_private" (Part 4.2)."""
    conf("wan_type", "wireless_sta_private")
    conf("wan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    reply, out = ask(sandbox, daemon, "s_waninfo")
    assert infos_of(reply)["s_waninfo"] == {
        "mac": mac_of(sandbox, "mlan0"), "ip": "10.1.2.3", "netmask": "255.255.255.0",
        "mtu": "1500", "wan_uptime": "N/A", "state": "Disconnected"}
    assert out == "***** what? *****\n"


def test_s_waninfo_unparsable_wan_uptime(daemon, sandbox, conf, net):
    conf("wan_type", "wireless_sta")
    conf("wan_if", "mlan0", store="rtconf")
    conf("wan_uptime", b"soon\0", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    reply, out = ask(sandbox, daemon, "s_waninfo")
    assert infos_of(reply)["s_waninfo"]["wan_uptime"] == "N/A"
    assert infos_of(reply)["s_waninfo"]["state"] == "Connected"
    assert out == ""


def test_s_waninfo_unknown_interface(daemon, sandbox, conf):
    conf("wan_type", "wireless_sta")
    conf("wan_if", "mlan7", store="rtconf")
    reply, out = ask(sandbox, daemon, "s_waninfo")
    assert reply == answer(
        b'"s_waninfo": { "mac": "N\\/A", "ip": "N\\/A", "netmask": "N\\/A", "mtu": "N\\/A",'
        b' "wan_uptime": "N\\/A", "state": "Disconnected" }')
    assert out == ""


# s_routesactive


def dotted(hex_text):
    """An address column of /proc/net/route as the kernel means it."""
    return socket.inet_ntoa(struct.pack("=L", int(hex_text, 16)))


def test_s_routesactive_one_object_per_route(daemon, sandbox, conf, net):
    conf("wan_if", "mlan0", store="rtconf")
    net("addr", "add", "10.1.2.3/24", "dev", "mlan0")
    net("route", "add", "default", "via", "10.1.2.254", "dev", "mlan0", "metric", "5")
    net("route", "add", "172.16.0.0/12", "via", "10.1.2.1", "dev", "mlan0")
    table = inside(sandbox, "cat", "/proc/net/route").splitlines()[1:]
    reply, out = ask(sandbox, daemon, "s_routesactive")
    expected = []
    for line in table:
        f = line.split()
        mark = {"mlan0": "(WAN)", "br0": "(LAN)"}.get(f[0], "")
        expected.append({"dest": dotted(f[1]), "gw": dotted(f[2]), "subnet": dotted(f[7]),
                         "metric": f[6], "default": "yes" if f[1] == f[7] == "00000000" else "no",
                         "inf": f[0] + mark})
    assert len(expected) == 4
    assert reply == answer(member("s_routesactive", expected))
    assert {"dest": "0.0.0.0", "gw": "10.1.2.254", "subnet": "0.0.0.0", "metric": "5",
            "default": "yes", "inf": "mlan0(WAN)"} in infos_of(reply)["s_routesactive"]
    assert b'{ "dest": "172.16.0.0", "gw": "10.1.2.1", "subnet": "255.240.0.0", "metric": "0",' \
           b' "default": "no", "inf": "mlan0(WAN)" }' in reply
    assert out == ""


def test_s_routesactive_without_run_time_names_marks_nothing(daemon, sandbox, conf):
    conf("wan_if", None, store="rtconf")
    conf("lan_if", b"br0\0", store="rtconf")  # not JSON
    assert get(sandbox, "s_routesactive") == answer(
        b'"s_routesactive": [ { "dest": "192.168.100.0", "gw": "0.0.0.0",'
        b' "subnet": "255.255.255.0", "metric": "0", "default": "no", "inf": "br0" } ]')


# s_upnplist


def test_s_upnplist_lines(daemon, sandbox, files):
    """miniupnpd's lease_file lines "PROTO:EPORT:IADDR:IPORT:TIMESTAMP:DESC";
    the description may hold colons; other lines are left out."""
    files(UPNP_LEASES, "TCP:8080:192.168.100.101:80:1795003600:web server: port 80\n"
                       "UDP:5000:192.168.100.102:5000:0:\n"
                       "UDP:6000:192.168.100.102\n"
                       "TCP:2222:192.168.100.103:22:0:ssh/shell\n")
    reply, out = ask(sandbox, daemon, "s_upnplist")
    assert reply == answer(
        b'"s_upnplist": [ { "proto": "TCP", "eport": "8080", "iaddr": "192.168.100.101",'
        b' "iport": "80", "desc": "web server: port 80" },'
        b' { "proto": "UDP", "eport": "5000", "iaddr": "192.168.100.102", "iport": "5000",'
        b' "desc": "" },'
        b' { "proto": "TCP", "eport": "2222", "iaddr": "192.168.100.103", "iport": "22",'
        b' "desc": "ssh\\/shell" } ]')
    assert out == ""


# s_logs


def test_s_logs_lines(daemon, sandbox, files):
    """busybox syslogd's lines "Mmm dd hh:mm:ss HOST FACILITY.PRIORITY MSG";
    lines of another shape are left out."""
    files(TOS_LOG, "Nov 22 21:58:51 HX-R1 syslog.info syslogd started: BusyBox v1.36.1\n"
                   "Nov 22 21:58:52 HX-R1 user.notice hxsrvd[231]: WAN up: mlan0\n"
                   "Dec  1 08:00:00 HX-R1 daemon.info dnsmasq-dhcp[300]: DHCPACK(br0)"
                   " 192.168.100.101 aa:bb:cc:dd:ee:01 phone\n"
                   "continuation without a stamp\n"
                   "Dec  1 08:00:01 HX-R1 <13> message without owner\n")
    reply, out = ask(sandbox, daemon, "s_logs")
    assert reply == answer(member("s_logs", [
        {"date": "Nov 22", "time": "21:58:51", "hostname": "HX-R1", "priority": "syslog.info",
         "owner": "syslogd started", "content": "BusyBox v1.36.1"},
        {"date": "Nov 22", "time": "21:58:52", "hostname": "HX-R1", "priority": "user.notice",
         "owner": "hxsrvd[231]", "content": "WAN up: mlan0"},
        {"date": "Dec 1", "time": "08:00:00", "hostname": "HX-R1", "priority": "daemon.info",
         "owner": "dnsmasq-dhcp[300]",
         "content": "DHCPACK(br0) 192.168.100.101 aa:bb:cc:dd:ee:01 phone"},
        {"date": "Dec 1", "time": "08:00:01", "hostname": "HX-R1", "priority": "<13>",
         "owner": "", "content": "message without owner"}]))
    assert b'{ "date": "Nov 22", "time": "21:58:51", "hostname": "HX-R1",' \
           b' "priority": "syslog.info", "owner": "syslogd started",' \
           b' "content": "BusyBox v1.36.1" }' in reply
    assert out == ""


# The clock correction (last: it stays for the daemon's life)


def test_past_lease_gets_the_clock_correction_of_datetime(daemon, sandbox, files):
    """"datetime" records the forward jump (the sandbox cannot set the clock,
    but setSystime does not look at that result); a lease whose end lies
    before now then has the jump added."""
    jump = 200000
    t0 = int(time.time())
    target = t0 + jump
    assert revalidate(sandbox, {"datetime": {"action": "set", "time": target}}) == SUCCESS
    t1 = int(time.time())
    # dtime = target - (the daemon's time then), within [target - t1, target - t0]
    end = t1 - 1000
    files(LEASES, f"{end} aa:bb:cc:dd:ee:01 192.168.100.101 phone *\n"
                  f"{t1 + 3600} aa:bb:cc:dd:ee:02 192.168.100.102 tablet *\n")
    n0 = int(time.time())
    leases = infos_of(get(sandbox, "s_dhcpleases"))["s_dhcpleases"]
    n1 = int(time.time())
    past, future = (int(lease["expires"]) for lease in leases)
    assert end + (target - t1) - n1 <= past <= end + (target - t0) - n0
    assert past > 0
    # an end not before now gets no correction
    assert t1 + 3600 - n1 <= future <= t1 + 3600 - n0

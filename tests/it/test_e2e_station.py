"""End to end: the device joins an open hotspot as a station, with Debian's
real wpa_supplicant (wired driver on the sandbox's ifb mlan0, started by the
"wpa" target), the real events it sends, a DHCP client stub that behaves as
the device's udhcpc and its script do, and every Part on the way: 4.1 (the
hosts file), 4.2 (WAN, system events, fall-back), 5.1 (control client),
5.2 (station), 5.3 (access point), 5.4 (saved profiles).
"""
import json

import pytest

from helpers import revalidate, wait_for

SUCCESS = b'{ "arguments": { }, "result": "success" }'
CONF = "/etc/wpa_supplicant.conf"
HOSTS = "/var/tmp/hosts"
HOSTS_UP = "192.168.100.1 www.HX-R1.hxtravel\n"
WPA_SOCKET = "/var/run/wpa_supplicant/mlan0"

# What the device's udhcpc and /etc/app/gw_udhcpc.script do on a lease,
# in the background so that the daemon, which runs udhcpc, is not held up.
UDHCPC = """(
ip addr add 10.0.0.2/24 dev mlan0 2>/dev/null
ip route replace default via 10.0.0.1 dev mlan0
sysconf --store rtconf set wan_if '"mlan0"'
hxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0
) >/dev/null 2>&1 &
"""


def open_file(ssid):
    return ("update_config=1\nctrl_interface=/var/run/wpa_supplicant\nap_scan=1\n"
            "ctrl_interface_group=0\nbss_expiration_age=600\n\nnetwork={\n"
            f'\tssid="{ssid}"\n\tkey_mgmt=NONE\n\tscan_ssid=1\n}}\n')


def text(value):
    return json.dumps(value).encode() + b"\0"


def rt(sandbox, key):
    return sandbox.store_get("rtconf", key)


def sys(sandbox, key):
    return sandbox.store_get("sysconf", key)


def wpa_cli(sandbox, *args):
    done = sandbox.run(["wpa_cli", "-p", "/var/run/wpa_supplicant", "-i", "mlan0", *args])
    assert done.returncode == 0, done.stderr
    return done.stdout


def wpa_state(sandbox):
    out = wpa_cli(sandbox, "status").decode()
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


@pytest.fixture
def station(daemon, sandbox):
    sandbox.stub("/sbin/udhcpc", UDHCPC)
    sandbox.store_set("rtconf", "wl_wpa_driver", text("wired"))
    sandbox.store_set("rtconf", "wl_tool_type", text("WPA"))
    for key, value in (("wan_type", "wireless_sta"), ("wan_sta_ssid", "Cafe"),
                       ("wan_sta_sec", "none"), ("wan_sta_pass", "")):
        sandbox.store_set("sysconf", key, text(value))
    sandbox.remove(CONF)
    yield
    revalidate(sandbox, {"wpa": {"action": "stop"}})


def test_join_an_open_hotspot_lose_it_and_fall_back_to_slot_2(daemon, sandbox, station):
    assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
    assert sandbox.exists(WPA_SOCKET)

    # Join: wan start -> file, RECONFIGURE, SELECT_NETWORK 0 -> the real
    # supplicant's CTRL-EVENT-CONNECTED -> udhcpc -> SYS_EVENT_DHCP_SUCCESS.
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"wan": {"action": "start"}}) == SUCCESS
    assert sandbox.read_text(CONF) == open_file("Cafe")
    wait_for(lambda: rt(sandbox, "wan_status") == b'"WAN_UP"\0')
    wait_for(lambda: sys(sandbox, "wan_sta_ssid1") == b'"Cafe"\0')
    assert wpa_state(sandbox)["wpa_state"] == "COMPLETED"
    assert wpa_state(sandbox)["ssid"] == "Cafe"
    assert rt(sandbox, "wifi_sta_status") == b'"Connected"\0'
    assert rt(sandbox, "wan_auto_retry_times") == b"0\0"
    assert rt(sandbox, "wan_if") == b'"mlan0"\0'
    cmds = sandbox.cmdlog()
    assert [c[0] for c in cmds if c[0].endswith("udhcpc")] == ["/usr/sbin/udhcpc"]
    assert ["/usr/bin/killall", "-9", "dnsmasq"] in cmds
    assert ["/usr/sbin/dnsmasq", "-C", "/var/tmp/dnsmasq.conf"] in cmds
    assert sandbox.read_text(HOSTS) == HOSTS_UP
    profiles = json.loads(sys(sandbox, "ap_profile")[:-1])
    assert [{k: p[k] for k in ("essid", "encrypt", "pass", "workmode")} for p in profiles] == [
        {"essid": "Cafe", "encrypt": "none", "pass": "", "workmode": "Public Bridge Mode"}]
    assert [sys(sandbox, k) for k in ("wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1",
                                      "wan_sta_trustmode1", "wan_sta_ssid2")] == [
        b'"Cafe"\0', b'"none"\0', b'""\0', b'"Public Bridge Mode"\0', b'""\0']

    # A second remembered hotspot in slot 2, and the fall-back armed.
    for key, value in (("wan_sta_ssid2", "Home"), ("wan_sta_sec2", "none"),
                       ("wan_sta_pass2", ""), ("wan_sta_trustmode2", "Station Mode")):
        sandbox.store_set("sysconf", key, text(value))
    sandbox.store_set("rtconf", "wan_auto_retry_times", b"1\0")

    # Lose the link: the real supplicant's CTRL-EVENT-DISCONNECTED.
    sandbox.clear_cmdlog()
    assert wpa_cli(sandbox, "disconnect") == b"OK\n"
    wait_for(lambda: rt(sandbox, "wan_auto_retry_times") == b"0\0")
    cmds = sandbox.cmdlog()
    stopped = cmds.index(["/usr/bin/killall", "udhcpc"])
    ap = cmds.index(["/sbin/uaputl.exe", "bss_start"])
    lan_up = cmds.index(["/sbin/ifconfig", "br0", "up"])
    restart = cmds.index(["/usr/sbin/brctl", "delif", "br0", "mlan0"])
    assert stopped < ap < lan_up < restart
    assert rt(sandbox, "wifi_sta_reason") == b"0\0"

    # Slot 2 became the current hotspot; the WAN comes up on it.
    assert sys(sandbox, "wan_sta_ssid").rstrip(b"\0") == b'"Home"'
    assert sys(sandbox, "wan_type").rstrip(b"\0") == b'"wireless_sta_trust"'
    assert sandbox.read_text(CONF) == open_file("Home")
    wait_for(lambda: wpa_state(sandbox).get("ssid") == "Home"
             and wpa_state(sandbox)["wpa_state"] == "COMPLETED")
    wait_for(lambda: rt(sandbox, "wan_status") == b'"WAN_UP"\0')
    wait_for(lambda: ["/sbin/uaputl.exe", "bss_stop"] in sandbox.cmdlog())
    assert rt(sandbox, "wifi_sta_status") == b'"Connected"\0'


def test_join_a_hotspot_whose_name_holds_double_quotes(daemon, sandbox, station):
    """The supplicant reads a quoted SSID up to the last quote of its line, so
    a name with double quotes is written as it is, joined and remembered."""
    name = 'say "hi", ok=1;\'x\''
    sandbox.store_set("sysconf", "wan_sta_ssid", text(name))
    sandbox.store_set("sysconf", "ap_profile", b"[ ]\0")
    sandbox.store_set("rtconf", "wan_status", text("WAN_DOWN"))
    assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
    assert revalidate(sandbox, {"wan": {"action": "start"}}) == SUCCESS
    assert sandbox.read_text(CONF) == open_file(name)
    wait_for(lambda: wpa_state(sandbox)["wpa_state"] == "COMPLETED")
    assert wpa_cli(sandbox, "get_network", "0", "ssid") == f'"{name}"'.encode()
    wait_for(lambda: rt(sandbox, "wan_status") == b'"WAN_UP"\0')
    wait_for(lambda: sys(sandbox, "wan_sta_ssid1") == text(name))

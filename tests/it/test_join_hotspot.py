"""The device joins an open hotspot with the real wpa_supplicant (wired driver), a DHCP client
stub that acts as the device's, loses the link and falls back to the second saved hotspot."""
import json

import pytest

from helpers import revalidate, wait_for
from test_station import CONF, HEAD, network
from wifi_util import SUCCESS, WPA_SOCKET, jtext

# What udhcpc and its script do on a lease, in the background so as not to hold up the daemon.
UDHCPC = ("(ip addr add 10.0.0.2/24 dev mlan0; ip route replace default via 10.0.0.1 dev mlan0\n"
          "sysconf --store rtconf set wan_if '\"mlan0\"'\nhxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0\n"
          ") >/dev/null 2>&1 &\n")


def wpa_state(sandbox):
    out = sandbox.run(["wpa_cli", "-i", "mlan0", "status"], check=True).stdout.decode()
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


@pytest.mark.parametrize("name", ["Cafe", 'say "hi", ok=1;\'x\''], ids=["plain", "double-quotes"])
def test_join_lose_and_fall_back(daemon, sandbox, name):
    sandbox.stub("/sbin/udhcpc", UDHCPC)
    for store, key, value in (("rtconf", "wl_wpa_driver", "wired"), ("rtconf", "wl_tool_type", "WPA"),
                              ("sysconf", "wan_type", "wireless_sta"), ("sysconf", "wan_sta_ssid", name),
                              ("sysconf", "wan_sta_sec", "none"), ("sysconf", "wan_sta_pass", ""),
                              ("sysconf", "ap_profile", []), ("rtconf", "wan_status", "WAN_DOWN")):
        sandbox.store_set(store, key, jtext(value))
    sandbox.remove(CONF)
    try:
        assert revalidate(sandbox, {"wpa": {"action": "start"}}) == SUCCESS
        assert sandbox.read_text(CONF) == HEAD + "}\n" and sandbox.exists("/var/run/wpa_supplicant.pid")
        sandbox.clear_cmdlog()
        assert revalidate(sandbox, {"wan": {"action": "start"}}) == SUCCESS
        assert sandbox.read_text(CONF) == network(name, "\tkey_mgmt=NONE\n")
        wait_for(lambda: sandbox.store_get("sysconf", "wan_sta_ssid1") == jtext(name))
        assert (wpa_state(sandbox)["wpa_state"], sandbox.store_get("rtconf", "wan_status")) == ("COMPLETED", jtext("WAN_UP"))
        assert sandbox.run(["wpa_cli", "-i", "mlan0", "get_network", "0", "ssid"]).stdout == f'"{name}"'.encode()
        assert [{k: p[k] for k in ("essid", "encrypt", "pass", "workmode")} for p in json.loads(
            sandbox.store_get("sysconf", "ap_profile")[:-1])] == [
            {"essid": name, "encrypt": "none", "pass": "", "workmode": "Public Bridge Mode"}]
        assert [c[0] for c in sandbox.cmdlog() if c[0].endswith("udhcpc")] == ["/usr/sbin/udhcpc"]
        for key, value in (("ssid2", "Home"), ("sec2", "none"), ("pass2", ""), ("trustmode2", "Station Mode")):
            sandbox.store_set("sysconf", "wan_sta_" + key, jtext(value))
        sandbox.store_set("rtconf", "wan_auto_retry_times", b"1\0")
        sandbox.clear_cmdlog()
        assert sandbox.run(["wpa_cli", "-i", "mlan0", "disconnect"]).stdout == b"OK\n"
        wait_for(lambda: sandbox.store_get("rtconf", "wan_auto_retry_times") == b"0\0")
        cmds = sandbox.cmdlog()
        assert cmds.index(["/usr/bin/killall", "udhcpc"]) < cmds.index(["/sbin/uaputl.exe", "bss_start"]) < cmds.index(
            ["/sbin/ifconfig", "br0", "up"]) < cmds.index(["/usr/sbin/brctl", "delif", "br0", "mlan0"])
        assert sandbox.read_text(CONF) == network("Home", "\tkey_mgmt=NONE\n")
        wait_for(lambda: wpa_state(sandbox).get("ssid") == "Home" and wpa_state(sandbox)["wpa_state"] == "COMPLETED")
        wait_for(lambda: sandbox.store_get("rtconf", "wan_status") == jtext("WAN_UP"))
        assert sandbox.store_get("rtconf", "wifi_sta_status") == jtext("Connected")
    finally:
        assert revalidate(sandbox, {"wpa": {"action": "stop"}}) == SUCCESS
        assert not sandbox.exists(WPA_SOCKET)
        wait_for(lambda: not sandbox.exists("/var/run/wpa_supplicant.pid"))

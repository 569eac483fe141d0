"""The demo device as a user sees it through the daemon: the hotspots in a scan, the clients, the disk and the SD card,
the battery draining while unplugged, a backup of the card, and joining the open hotspot (tests run in file order)."""
import json

import pytest

from helpers import SUCCESS, pref_set, revalidate, send, wait_for
from hxdemo import CLIENTS, HOTSPOTS, JOIN, JOIN_KEYS, UPSTREAM, Demo


@pytest.fixture(scope="module")
def demo(sandbox, daemon):
    with Demo(sandbox, interval=3600) as d:  # the tests drain the battery themselves
        yield d


def info(sandbox, name):
    return json.loads(send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": [name]}}))["arguments"]["infos"].get(name)


@pytest.mark.parametrize("item, shown, want", [
    ("s_stalist", lambda v: [(s["mac"], s["rssi"]) for s in v], [(c.mac, str(c.rssi)) for c in CLIENTS]),
    ("s_dhcpleases", lambda v: [(x["hostname"], x["mac"], x["ipaddr"]) for x in v], [(c.name, c.mac, c.ip) for c in CLIENTS]),
    ("diskstatus", lambda v: [(p["label"], p["type"], p["capacity"]) for p in v["partition_detail"]],
     [("USB_A1", "fat", "7.45G"), ("sdcard", "fat", "29.72G")]),
    ("disk_list", lambda v: [(d["disk_name"], d["disk_vendor"], d["media_type"]) for d in v["disk_detail"]],
     [("sda", "USB Disk", "0"), ("sdb", "Generic SD Reader", "1")]),
    ("sdcard_status", lambda v: v, "in"), ("pmd_status", lambda v: v, "0")], ids=["stations", "leases", "share", "disks", "card", "power"])
def test_item(sandbox, demo, item, shown, want):
    assert shown(info(sandbox, item)) == want


def test_scan_lists_the_hotspots_strongest_first(sandbox, demo):
    assert info(sandbox, "s_scanap") == "scanning"
    wait_for(lambda: info(sandbox, "s_scanapresult")["state"] == "done")
    assert [(a["ssid"], a["bssid"], a["channel"], a["signal"], a["security"]) for a in info(sandbox, "s_aplist")] == [
        (h.ssid, h.bssid, str(h.channel), str(h.signal), h.security) for h in sorted(HOTSPOTS, key=lambda h: -h.signal)]


@pytest.mark.parametrize("level, status, after", [(87, "Discharging", 86), (5, "Discharging", 5), (40, "Charging", 40)])
def test_battery_drains_while_unplugged(sandbox, demo, level, status, after):
    sandbox.set_battery(f"{level}\n", f"{status}\n")
    assert (demo.drain_step(), info(sandbox, "bat_cap")) == (after, str(after))


def test_sd_card_backup(sandbox, demo):
    assert revalidate(sandbox, {"sd_copy": {"action": "start"}}) == SUCCESS
    logs = wait_for(lambda: (v := info(sandbox, "sd_backup_logs") or {}).get("log_num") == "1" and v["log_list"][0])
    assert (logs["result"], logs["file_count"], logs["des"].rsplit("/", 1)[1]) == ("success", "3", "SD Card 32GB 1A2B-3C4D")


def test_joining_the_open_hotspot_brings_the_wan_up(sandbox, demo):
    assert (pref_set(sandbox, JOIN_KEYS), revalidate(sandbox, {"wan": {"action": "start"}})) == (SUCCESS, SUCCESS)
    wan = wait_for(lambda: (v := info(sandbox, "s_waninfo") or {}).get("state") == "Connected" and v)
    assert (wan["ip"], info(sandbox, "s_staconninfo")["ssid"]) == (UPSTREAM["address"].split("/")[0], JOIN.ssid)

"""Factory-default stores (sim/factory/*.json) hold every key that spec.md reads.

Pure Python: reads the four JSON files of sim/factory and nothing else.
Run with: /usr/bin/python3 -m pytest -q tests/it/test_factory.py
"""
import ipaddress
import json
import re
from pathlib import Path

import pytest

FACTORY = Path(__file__).resolve().parents[2] / "sim" / "factory"

# Part 3.1: the daemon's key index holds 127 persistent keys; keys beyond it
# are not writable by clients.
KEY_INDEX_SIZE = 127

# Part 3.1: the two read-only keys of the key index (table sysconf_key_ro).
READ_ONLY_KEYS = ["product_model", "product_description"]

# ---------------------------------------------------------------------------
# Persistent store (sysconf): every key a Part reads or writes.
# ---------------------------------------------------------------------------
SYSCONF_KEYS = {
    # Part 2.5: owner_list (table ownerlist) and the owner_chg target
    "2.5": ["active_user",
            "user0_name", "user0_icon", "user1_name", "user1_icon",
            "user2_name", "user2_icon", "user3_name", "user3_icon"],
    # Part 3.1: the read-only keys are in the persistent store's index
    "3.1": READ_ONLY_KEYS,
    # Part 4.1: DHCP and DNS server configuration
    "4.1": ["lan_if", "dhcp_range_start", "dhcp_range_end", "dhcp_lease_time",
            "lan_netmask", "dhcp_static_dns1", "dhcp_static_dns2",
            "dhcp_static_dns3", "lan_ipaddr", "dhcp_wins_server",
            "dhcp_domain_name", "dhcp_staticlist", "dhcp_blacklist",
            "dhcp_server"],
    # Part 4.2: LAN and WAN control (wl_fw_mode: check_wifi_fw_version)
    "4.2": ["work_mode", "lan_if", "wan_if", "lan_ipaddr", "lan_netmask",
            "lan_bridgestp", "wan_type",
            "wan_sta_ssid", "wan_sta_sec", "wan_sta_pass",
            "wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1",
            "wan_sta_trustmode1",
            "wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2",
            "wan_sta_trustmode2",
            "wl_fw_mode"],
    # Part 4.3: UPnP port-mapping service
    "4.3": ["lan_ipaddr", "upnp_natpmp", "upnp"],
    # Part 4.4: static routes, system time (timezone is written by datetime)
    "4.4": ["routes_static", "timezone"],
    # Part 5.2: station mode, the current hotspot
    "5.2": ["wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"],
    # Part 5.3: access point configuration (wl_channel_list and
    # wl_max_sta_number are written by wifi_ap_reconfig)
    "5.3": ["wl", "wl_country", "wl_ssid", "wl_band", "wl_beacon_period",
            "wl_tx_power_level", "wl_rts_threshold", "wl_frag_threshold",
            "wl_dtim_period", "wl_channel", "wl_channel_5g", "wl_ap_mac",
            "wl_broadcast_ssid", "wl_fw_mode", "wl_max_sta_number",
            "wl_preamble_type", "wl_security", "wl_wpa_auth_mode",
            "wl_wep_auth_mode", "wl_wep_key_index",
            "wl_wep_key0", "wl_wep_key1", "wl_wep_key2", "wl_wep_key3",
            "wl_wpa_encryption", "wl_wpa_key", "wl_channel_list"],
    # Part 5.4: saved network profiles, the list and the eight slot keys
    "5.4": ["ap_profile",
            "wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1",
            "wan_sta_trustmode1",
            "wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2",
            "wan_sta_trustmode2",
            "wan_sta_ssid", "wan_sta_sec", "wan_sta_pass", "wan_type"],
    # Part 7.2: SD-card copy, the owner folder
    "7.2": ["active_user"],
    # Part 8.1: power management, sleep time-out
    "8.1": ["sleep_timeout"],
    # Part 9.1: web server login
    "9.1": ["httpd_auth_name", "httpd_auth_passwd"],
    # the "fm" target (row "-" of Part 2.2, system/media.c)
    "-": ["fm_freq"],
}

# ---------------------------------------------------------------------------
# Run-time store (rtconf): every key a Part reads or writes.  Each is in
# exactly one of rtconf.json (stored as JSON text) or rtconf-raw.json
# (stored as plain text).
# ---------------------------------------------------------------------------
RTCONF_KEYS = {
    # Part 2.4: system-busy guard
    "2.4": ["fwup_status"],
    # Part 2.5: status items (wan_uptime: the WAN uptime of s_waninfo)
    "2.5": ["uname", "boardinfo", "rootfs.ver", "wl_radio", "ws_state",
            "fwup_status", "wan_if", "lan_if", "wan_uptime"],
    # Part 4.2: LAN and WAN control
    "4.2": ["lan_if", "wan_if", "wan_status", "wifi_sta_status",
            "wan_up_time", "wan_uptime", "wan_auto_retry_times"],
    # Part 4.3: UPnP port-mapping service
    "4.3": ["wan_if"],
    # Part 4.4: static routes
    "4.4": ["wan_if", "lan_if"],
    # Part 5.2: station mode
    "5.2": ["wl_tool_type", "wifi_sta_status", "wifi_sta_reason",
            "wan_auto_retry_times", "lan_if"],
    # Part 5.3: access point configuration
    "5.3": ["wl_radio", "wan_if"],
    # Part 5.4: saved network profiles (gw_wan_status_check)
    "5.4": ["wan_status"],
    # Part 7.1: sync tasks (copy-script protocol)
    "7.1": ["sync_result", "sync_progress"],
    # Part 7.2: SD-card copy and backup log
    "7.2": ["sd_state", "first_mnt_dir"],
}

# Where each run-time key's real stored form belongs.
# Plain text: read "as a string" (Part 2.5), compared as text (Part 4.2/5.2),
# or written plain by the daemon (Part 7.1 "-1"/"0", Part 5.2 reason digits).
RTCONF_RAW_KEYS = ["uname", "boardinfo", "rootfs.ver", "wan_auto_retry_times",
                   "wifi_sta_reason", "sync_result", "sync_progress"]
# JSON text: parsed by the reader (Parts 2.4, 2.5, 4.2, 4.3, 4.4, 5.2, 5.4, 7.2).
RTCONF_JSON_KEYS = ["lan_if", "wan_if", "wan_status", "wifi_sta_status",
                    "wan_up_time", "wan_uptime", "wl_tool_type", "wl_radio",
                    "ws_state", "fwup_status", "sd_state", "first_mnt_dir"]

# ---------------------------------------------------------------------------
# Product-information store (sysinfo).
# ---------------------------------------------------------------------------
SYSINFO_KEYS = {
    # Part 2.5: p_model, p_description
    "2.5": ["product_model", "product_description"],
    # Part 4.1: hosts file
    "4.1": ["product_model"],
}


def _load(name):
    with open(FACTORY / name, encoding="utf-8") as f:
        return json.load(f)


def _flat(groups):
    return sorted({k for keys in groups.values() for k in keys})


@pytest.fixture(scope="module")
def sysconf():
    return _load("sysconf.json")


@pytest.fixture(scope="module")
def rtconf():
    return _load("rtconf.json")


@pytest.fixture(scope="module")
def rtconf_raw():
    return _load("rtconf-raw.json")


@pytest.fixture(scope="module")
def sysinfo():
    return _load("sysinfo.json")


@pytest.mark.parametrize("name", ["sysconf.json", "rtconf.json",
                                  "rtconf-raw.json", "sysinfo.json"])
def test_file_is_json_object(name):
    assert isinstance(_load(name), dict)


def test_sysconf_fits_key_index(sysconf):
    assert len(sysconf) <= KEY_INDEX_SIZE


@pytest.mark.parametrize("part", sorted(SYSCONF_KEYS))
def test_sysconf_has_keys_of_part(sysconf, part):
    missing = [k for k in SYSCONF_KEYS[part] if k not in sysconf]
    assert missing == []


@pytest.mark.parametrize("part", sorted(RTCONF_KEYS))
def test_rtconf_has_keys_of_part(rtconf, rtconf_raw, part):
    missing = [k for k in RTCONF_KEYS[part]
               if k not in rtconf and k not in rtconf_raw]
    assert missing == []


@pytest.mark.parametrize("part", sorted(SYSINFO_KEYS))
def test_sysinfo_has_keys_of_part(sysinfo, part):
    missing = [k for k in SYSINFO_KEYS[part] if k not in sysinfo]
    assert missing == []


def test_read_only_keys_in_sysconf_and_sysinfo(sysconf, sysinfo):
    for key in READ_ONLY_KEYS:
        assert key in sysconf and key in sysinfo
        assert sysconf[key] == sysinfo[key]
        assert isinstance(sysinfo[key], str) and sysinfo[key]


def test_rtconf_files_disjoint(rtconf, rtconf_raw):
    assert sorted(set(rtconf) & set(rtconf_raw)) == []


def test_rtconf_raw_values_are_strings(rtconf_raw):
    assert {k: type(v).__name__ for k, v in rtconf_raw.items()
            if not isinstance(v, str)} == {}


def test_rtconf_placement(rtconf, rtconf_raw):
    assert sorted(RTCONF_RAW_KEYS + RTCONF_JSON_KEYS) == _flat(RTCONF_KEYS)
    assert [k for k in RTCONF_RAW_KEYS if k not in rtconf_raw] == []
    assert [k for k in RTCONF_JSON_KEYS if k not in rtconf] == []


def test_sysconf_value_types(sysconf):
    # Part 5.3: wl_fw_mode is an integer; Part 5.3 writes wl_max_sta_number
    # as the plain text 6 or 8.
    assert sysconf["wl_fw_mode"] in (0, 1)
    assert sysconf["wl_max_sta_number"] == (8 if sysconf["wl_fw_mode"] else 6)
    # Parts 4.1, 4.4, 5.3, 5.4: JSON arrays.
    for key in ("dhcp_staticlist", "dhcp_blacklist", "routes_static",
                "ap_profile", "wl_channel_list"):
        assert isinstance(sysconf[key], list), key
    assert len(sysconf["ap_profile"]) <= 2  # Part 5.4: two slots
    # Everything else is a JSON string (on/off words, addresses, numbers
    # written through "%s").
    others = {k: v for k, v in sysconf.items()
              if k not in ("wl_fw_mode", "wl_max_sta_number", "dhcp_staticlist",
                           "dhcp_blacklist", "routes_static", "ap_profile",
                           "wl_channel_list")}
    assert {k: type(v).__name__ for k, v in others.items()
            if not isinstance(v, str)} == {}


def test_sysconf_values_fit_their_readers(sysconf):
    lan = ipaddress.ip_interface(
        f'{sysconf["lan_ipaddr"]}/{sysconf["lan_netmask"]}')
    start = ipaddress.ip_address(sysconf["dhcp_range_start"])
    end = ipaddress.ip_address(sysconf["dhcp_range_end"])
    assert start in lan.network and end in lan.network and start <= end
    assert sysconf["dhcp_lease_time"].isdigit()          # Part 4.1 ",%sm"
    assert sysconf["sleep_timeout"].isdigit()            # Part 8.1 atoi
    assert re.fullmatch(r"GMT[+-]\d+", sysconf["timezone"])  # Part 4.4
    assert sysconf["wan_type"] in ("none", "wireless_sta_trust",
                                   "wireless_sta", "wireless_sta_private")
    assert sysconf["wl_band"] in ("2.4GHz", "5GHz")      # Part 5.3
    assert sysconf["wl_security"] in ("none", "wep", "wpapsk/wpa2psk")
    assert 8 <= len(sysconf["wl_wpa_key"]) <= 63         # WPA pass phrase
    assert sysconf["active_user"] in ("user0_name", "user1_name",
                                      "user2_name", "user3_name")
    # Part 5.3: no value written into uaputl.conf holds a newline.
    assert [k for k, v in sysconf.items()
            if isinstance(v, str) and "\n" in v] == []


def test_rtconf_values_fit_their_readers(rtconf, rtconf_raw):
    # Part 2.4: anything but a non-"ongoing" object would refuse every target.
    fwup = rtconf["fwup_status"]
    assert isinstance(fwup, dict) and fwup.get("upgrade_stage") != "ongoing"
    assert rtconf["wl_tool_type"] in ("WT", "WPA")       # Part 5.2
    assert rtconf["wan_status"] in ("WAN_UP", "WAN_DOWN")  # Parts 4.2, 5.4
    assert rtconf["sd_state"] in ("on", "off")           # Part 7.2
    for key in ("lan_if", "wan_if"):                     # Part 4.4: 16 bytes
        assert isinstance(rtconf[key], str) and len(rtconf[key]) < 16
    # Part 2.5: first line of rootfs.ver goes into a 64-byte field.
    assert len(rtconf_raw["rootfs.ver"].split("\n")[0]) < 64
    # Parts 7.1, 4.2: plain texts that are parsed or compared.
    assert json.loads(rtconf_raw["sync_result"]) == -1
    assert json.loads(rtconf_raw["sync_progress"]) == 0
    assert rtconf_raw["wan_auto_retry_times"] in ("0", "1")

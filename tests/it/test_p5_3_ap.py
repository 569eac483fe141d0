"""Part 5.3: access point configuration, through the real daemon: the "wl"
target writes "/mnt/rwdata/uaputl.conf" from the stores and the country table
"/etc/config/80211d_domain.conf" (a fixture in Marvell's format, written into
the sandbox here), writes "wl_channel_list" and "wl_max_sta_number" back and
empties rtconf "wl_radio"; "wl", "wl_radio" and "wl_power_save_mode" drive the
(stub) "/sbin/uaputl.exe".  Store values are put back after each test.

What the bodies left to the implementer run (wifi/ap.c):
  wl start    "wl" not "off": rewrite the file, then the BSS start sequence;
              "wl" "off" (or unreadable): nothing
  wl stop     the BSS stop command
  wl restart  wl stop, then wl start
  wl update   rewrite the file only (no command)
  wl_radio    on/off: "uaputl.exe sys_cfg_radio_ctl 1|0", rtconf "wl_radio"
              := "\"on\"" / "\"off\""
  wl_power_save_mode start/restart: "uaputl.exe pscfg 2"

The country-table parser's corner cases are unit-tested on fixture files
(tests/unit/test_ap_country.c).
"""
import json
import os

import pytest

from helpers import revalidate, send, stdout_since, store_restore

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'

CONF = "/mnt/rwdata/uaputl.conf"
DOMAIN = "/etc/config/80211d_domain.conf"
UAPUTL = "/sbin/uaputl.exe"

START_CMDS = [[UAPUTL, "sys_cfg_11n", "0"],
              [UAPUTL, "sys_config", CONF],
              [UAPUTL, "sys_cfg_2040_coex", "0"],
              [UAPUTL, "sys_cfg_pkt_fwd_ctl", "1"],
              [UAPUTL, "bss_start"]]
STOP_CMDS = [[UAPUTL, "bss_stop"]]

# The layout of Marvell's 80211d_domain.conf (uaputl's config directory):
# countries after "COUNTRY: <domain>", then per domain triplets of first
# channel, number of channels and maximum transmit power, comma-separated.
DOMAIN_TABLE = """\
/* Domain and country mapping are in this section */
/* Domain name followed by supported countries */

COUNTRY: DOMAIN_CODE_FCC1 US UZ CA CO DO GT MX PA PR TW NZ BO BZ VE
COUNTRY: DOMAIN_CODE_ETSI AT BE CH CZ DE DK ES FI FR GB GR IE IT NL NO PL PT SE
COUNTRY: DOMAIN_CODE_MKK JP


/* Domain specific sub-band information */
/* Domain name followed by set of triplets separated by comma */
/* 1st number in triplet is First channel, */
/* 2nd number in triplet is Number of channels followed from the First channel  */
/* 3rd number in triplet is Max-TX-power in dbm */

DOMAIN: DOMAIN_CODE_FCC1    1 11 30
DOMAIN: DOMAIN_CODE_ETSI    1 13 20
DOMAIN: DOMAIN_CODE_MKK     1 14 23
DOMAIN: DOMAIN_CODE_MKK2    1 14 23
DOMAIN: DOMAIN_CODE_TEST1  1 11 30, 36 1 17, 40 1 17,  44 1 17,  48 1 17, 165 1 23,
DOMAIN: DOMAIN_CODE_END
"""

US_OUT = "Match success for Country = US in conf. \nno_of_chan = 11 \n"

RATE_24 = "Rate=0x82,0x84,0x8b,0x96,0x0c,0x12,0x18,0x24,0x30,0x48,0x60,0x6c\n"
RATE_5 = "Rate=0x8c,0x98,0xb0,0x48,0x60,0x6c\n"
CHANS_11 = "ChanList=1,2,3,4,5,6,7,8,9,10,11\n"
JSON_11 = b"[ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11 ]\0"

# The factory-default device (sim/factory/sysconf.json), whole file.
FACTORY_CONF = (
    'ap_config={\n'
    'SSID="HX-Travel"\n'
    'BeaconPeriod=100\n'
    'Channel=6,2\n'
    + CHANS_11 +
    'Band=0\n'
    'RxAntenna=0\n'
    'TxAntenna=1\n'
    + RATE_24 +
    'TxPowerLevel=13\n'
    'BroadcastSSID=1\n'
    'RTSThreshold=2347\n'
    'FragThreshold=2346\n'
    'DTIMPeriod=1\n'
    'RadioControl=1\n'
    'MCBCdataRate=0\n'
    'TxDataRate=0\n'
    'PktFwdCtl=1\n'
    'StaAgeoutTimer=1800\n'
    'PSStaAgeoutTimer=288000\n'
    'MaxStaNum=6\n'
    'PreambleType=0\n'
    'Retrylimit=7\n'
    'AuthMode=0\n'
    'Protocol=32\n'
    'RSNReplayProtection=0\n'
    'PairwiseUpdateTimeout=100\n'
    'PairwiseHandshakeRetries=3\n'
    'GroupwiseUpdateTimeout=100\n'
    'GroupwiseHandshakeRetries=3\n'
    'KeyIndex=0\n'
    'Key_0=0000000000\n'
    'Key_1=0000000000\n'
    'Key_2=0000000000\n'
    'Key_3=0000000000\n'
    'PwkCipherWPA2=8\n'
    'GwkCipher=8\n'
    'PSK="hxtravel1234"\n'
    'GroupRekeyTime= 86400\n'
    'Enable11n=1\n'
    'HTCapInfo=0x117e\n'
    'AMPDU=0x03\n'
    '11d_enable=1\n'
    'country=US\n'
    '}\n'
    'ap_mac_filter={\n'
    'FilterMode=0\n'
    'Count=0\n'
    '}\n')

# Lines of the factory file up to (not including) a given line.
FACTORY_LINES = FACTORY_CONF.splitlines(keepends=True)


def upto(line):
    return "".join(FACTORY_LINES[:FACTORY_LINES.index(line)])


def record(value):
    """A store value as pref-set stores it: JSON text and its NUL."""
    return json.dumps(value).encode() + b"\0"


class Effects:
    """What one request did: the reply, standard output, the commands run and
    the file (None when absent)."""

    def __init__(self, sandbox, daemon, request):
        out = daemon.stdout()
        sandbox.clear_cmdlog()
        self.reply = revalidate(sandbox, request)
        self.out = stdout_since(sandbox, daemon, out)
        self.cmds = sandbox.cmdlog()
        self.conf = sandbox.read_text(CONF) if sandbox.exists(CONF) else None


@pytest.fixture(scope="module", autouse=True)
def domain_table(sandbox):
    sandbox.write(DOMAIN, DOMAIN_TABLE)


@pytest.fixture
def conf(daemon, sandbox):
    """conf(key, value[, store]) sets a store value (None deletes it, bytes
    are stored raw); every value is put back after the test, and the file,
    the written-back keys and "wl_radio" are reset."""
    saved = [(s, k, sandbox.store_get(s, k)) for s, k in
             (("sysconf", "wl_channel_list"), ("sysconf", "wl_max_sta_number"),
              ("rtconf", "wl_radio"))]

    def put(key, value, store="sysconf"):
        saved.append((store, key, sandbox.store_get(store, key)))
        if value is None:
            sandbox.store_delete(store, key)
        else:
            sandbox.store_set(store, key, value if isinstance(value, bytes) else record(value))
    sandbox.remove(CONF)
    yield put
    for store, key, raw in reversed(saved):
        store_restore(sandbox, store, key, raw)
    sandbox.remove(CONF)
    sandbox.write(DOMAIN, DOMAIN_TABLE)


def update(sandbox, daemon):
    return Effects(sandbox, daemon, {"wl": {"action": "update"}})


# The whole file and the written-back keys


def test_factory_device_whole_file(daemon, sandbox, conf):
    conf("wl_max_sta_number", 8)
    conf("wl_channel_list", b"[ 1 ]\0")
    e = update(sandbox, daemon)
    assert (e.reply, e.out, e.cmds) == (SUCCESS, US_OUT, [])
    assert e.conf == FACTORY_CONF
    assert sandbox.store_get("sysconf", "wl_channel_list") == JSON_11
    assert sandbox.store_get("sysconf", "wl_max_sta_number") == b"6\0"
    assert sandbox.store_get("rtconf", "wl_radio") == b"\0"


def test_wl_radio_item_is_empty_after_a_rewrite(daemon, sandbox, conf):
    conf("wl_radio", b'"on"\0', "rtconf")
    update(sandbox, daemon)
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": ["wl_radio"]}})
    assert reply == (b'{ "arguments": { "confs": { }, "infos": { "wl_radio": "" } }, '
                     b'"result": "success" }')


def test_fw_mode_gives_eight_stations(daemon, sandbox, conf):
    conf("wl_fw_mode", 1)
    e = update(sandbox, daemon)
    assert e.conf == FACTORY_CONF.replace("MaxStaNum=6\n", "MaxStaNum=8\n")
    assert sandbox.store_get("sysconf", "wl_max_sta_number") == b"8\0"


def test_wl_off_leaves_previous_file_untouched(daemon, sandbox, conf):
    conf("wl", "off")
    conf("wl_radio", b'"on"\0', "rtconf")
    sandbox.write(CONF, "previous\n")
    for action in ("update", "start"):
        e = Effects(sandbox, daemon, {"wl": {"action": action}})
        assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", [], "previous\n")
    e = Effects(sandbox, daemon, {"wl": {"action": "restart"}})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", STOP_CMDS, "previous\n")
    assert sandbox.store_get("rtconf", "wl_radio") == b'"on"\0'


# Channels and bands


def test_5ghz_channel_165_with_aes(daemon, sandbox, conf):
    conf("wl_band", "5GHz")
    conf("wl_channel_5g", "165")
    e = update(sandbox, daemon)
    expected = (FACTORY_CONF.replace("Channel=6,2\n", "Channel=165\n")
                .replace(CHANS_11, "ChanList=36,40,44,48,149,153,157,161,165\n")
                .replace("Band=0\n", "Band=1\n")
                .replace(RATE_24, RATE_5)
                .replace("HTCapInfo=0x117e\n", "HTCapInfo=0x117c\n"))
    assert e.conf == expected
    assert "Enable11n=1\nHTCapInfo=0x117c\nAMPDU=0x03\n" in e.conf
    assert sandbox.store_get("sysconf", "wl_channel_list") == \
        b"[ 36, 40, 44, 48, 149, 153, 157, 161, 165 ]\0"


@pytest.mark.parametrize("band,key,channel,line", [
    ("2.4GHz", "wl_channel", "6", "Channel=6,2\n"),
    ("2.4GHz", "wl_channel", "7", "Channel=7,4\n"),
    ("2.4GHz", "wl_channel", "1", "Channel=1,2\n"),
    ("2.4GHz", "wl_channel", "11", "Channel=11,4\n"),
    ("2.4GHz", "wl_channel", "0", "Channel=0 1\n"),
    ("5GHz", "wl_channel_5g", "36", "Channel=36,2\n"),
    ("5GHz", "wl_channel_5g", "157", "Channel=157,2\n"),
    ("5GHz", "wl_channel_5g", "40", "Channel=40,4\n"),
    ("5GHz", "wl_channel_5g", "161", "Channel=161,4\n"),
    ("5GHz", "wl_channel_5g", "52", "Channel=52\n"),
    ("5GHz", "wl_channel_5g", "0", "Channel=0 1\n"),
])
def test_channel_line(daemon, sandbox, conf, band, key, channel, line):
    conf("wl_band", band)
    conf(key, channel)
    e = update(sandbox, daemon)
    assert e.conf.splitlines(keepends=True)[3] == line
    assert "HTCapInfo=0x117e\n" in e.conf


def test_unknown_band_is_24ghz(daemon, sandbox, conf):
    conf("wl_band", "60GHz")
    e = update(sandbox, daemon)
    assert e.out == US_OUT + "Band Setting Error!\n"
    assert e.conf == FACTORY_CONF


@pytest.mark.parametrize("country,out,chans,json_list,code", [
    ("DE", "Match success for Country = DE in conf. \nno_of_chan = 13 \n",
     "ChanList=1,2,3,4,5,6,7,8,9,10,11,12,13\n",
     b"[ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13 ]\0", "DE"),
    ("JP", "Match success for Country = JP in conf. \nno_of_chan = 14 \n",
     "ChanList=1,2,3,4,5,6,7,8,9,10,11,12,13,14\n",
     b"[ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14 ]\0", "JP"),
    # Only the first three characters are used.
    ("JP-long", "Match success for Country = JP- in conf. \nno_of_chan = 14 \n",
     "ChanList=1,2,3,4,5,6,7,8,9,10,11,12,13,14\n",
     b"[ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14 ]\0", "JP-"),
    ("ZZ", "No match found for Country = ZZ in conf. \n", CHANS_11, JSON_11, "US"),
])
def test_country_channel_list(daemon, sandbox, conf, country, out, chans, json_list, code):
    if country == "JP-long":
        # "JP-" is the code looked up, listed in the table after JP.
        sandbox.write(DOMAIN, DOMAIN_TABLE.replace(" JP\n", " JP JP-\n"))
    conf("wl_country", country)
    e = update(sandbox, daemon)
    assert e.out == out
    assert e.conf == (FACTORY_CONF.replace(CHANS_11, chans)
                      .replace("country=US\n", f"country={code}\n"))
    assert sandbox.store_get("sysconf", "wl_channel_list") == json_list


def test_missing_country(daemon, sandbox, conf):
    conf("wl_country", None)
    e = update(sandbox, daemon)
    assert e.out == "[WIFI] Country Code key not exist in sysconf!\n"
    assert e.conf == FACTORY_CONF
    assert sandbox.store_get("sysconf", "wl_channel_list") == JSON_11


def test_empty_country(daemon, sandbox, conf):
    conf("wl_country", "")
    e = update(sandbox, daemon)
    assert e.out == "[WIFI] Country Code value error in sysconf!\n"
    assert e.conf == FACTORY_CONF


def test_missing_country_table(daemon, sandbox, conf):
    conf("wl_country", "DE")
    sandbox.remove(DOMAIN)
    e = update(sandbox, daemon)
    assert (e.reply, e.out) == (SUCCESS, "File: 80211d_domain.conf opening Error\n")
    assert e.conf == FACTORY_CONF
    assert sandbox.store_get("sysconf", "wl_channel_list") == JSON_11


# Security


def test_wep_keys(daemon, sandbox, conf):
    conf("wl_security", "wep")
    conf("wl_wep_auth_mode", "shared")
    conf("wl_wep_key_index", "2")
    conf("wl_wep_key0", "0123456789")
    conf("wl_wep_key1", "abcdefghijklm")
    conf("wl_wep_key2", "a,b=c")
    conf("wl_wep_key3", "")
    e = update(sandbox, daemon)
    expected = (FACTORY_CONF.replace("AuthMode=0\nProtocol=32\n", "AuthMode=1\nProtocol=2\n")
                .replace("KeyIndex=0\nKey_0=0000000000\nKey_1=0000000000\nKey_2=0000000000\n",
                         'KeyIndex=2\nKey_0=0123456789\nKey_1="abcdefghijklm"\n'
                         'Key_2="a\\,b\\=c"\n')
                .replace("PwkCipherWPA2=8\nGwkCipher=8\n", "")
                .replace("Enable11n=1\nHTCapInfo=0x117e\nAMPDU=0x03\n", "Enable11n=0\n"))
    assert e.conf == expected


def test_ssid_and_pass_phrase_are_escaped(daemon, sandbox, conf):
    conf("wl_ssid", "Cafe,Bar=Wifi")
    conf("wl_wpa_key", "p=a,ss")
    e = update(sandbox, daemon)
    assert e.conf == (FACTORY_CONF.replace('SSID="HX-Travel"', 'SSID="Cafe\\,Bar\\=Wifi"')
                      .replace('PSK="hxtravel1234"', 'PSK="p\\=a\\,ss"'))


def test_open_network(daemon, sandbox, conf):
    conf("wl_security", "none")
    conf("wl_wep_auth_mode", "shared")
    conf("wl_wpa_encryption", "tkip")
    conf("wl_wpa_key", "")
    e = update(sandbox, daemon)
    assert e.conf == (FACTORY_CONF.replace("Protocol=32\n", "Protocol=1\n")
                      .replace("PwkCipherWPA2=8\nGwkCipher=8\n", "")
                      .replace('PSK="hxtravel1234"\n', "")
                      .replace("Enable11n=1\nHTCapInfo=0x117e\nAMPDU=0x03\n", "Enable11n=0\n"))


@pytest.mark.parametrize("auth,encryption,protocol,ciphers,ht", [
    ("wpapsk", "tkip", "Protocol=8\n", "PwkCipherWPA=4\nGwkCipher=4\n", "Enable11n=0\n"),
    ("wpa2psk", "tkipaesmixed", "Protocol=32\n", "PwkCipherWPA2=12\nGwkCipher=4\n", None),
    ("wpapskwpa2pskmixed", "aes", "Protocol=40\n",
     "PwkCipherWPA=8\nPwkCipherWPA2=8\nGwkCipher=8\n", None),
    ("wpapskwpa2pskmixed", "tkipaesmixed", "Protocol=40\n",
     "PwkCipherWPA=12\nPwkCipherWPA2=12\nGwkCipher=4\n", None),
    ("wpa3", "aes", "", "GwkCipher=8\n", None),
    ("wpa2psk", "none", "Protocol=32\n", "", None),
])
def test_wpa_modes(daemon, sandbox, conf, auth, encryption, protocol, ciphers, ht):
    conf("wl_wpa_auth_mode", auth)
    conf("wl_wpa_encryption", encryption)
    e = update(sandbox, daemon)
    expected = (FACTORY_CONF.replace("Protocol=32\n", protocol)
                .replace("PwkCipherWPA2=8\nGwkCipher=8\n", ciphers))
    if ht:
        expected = expected.replace("Enable11n=1\nHTCapInfo=0x117e\nAMPDU=0x03\n", ht)
    assert e.conf == expected


def test_unknown_security_writes_no_protocol(daemon, sandbox, conf):
    conf("wl_security", "wpa-enterprise")
    e = update(sandbox, daemon)
    assert e.conf == (FACTORY_CONF.replace("Protocol=32\n", "")
                      .replace("PwkCipherWPA2=8\nGwkCipher=8\n", ""))


def test_other_settings(daemon, sandbox, conf):
    conf("wl_ap_mac", "00:11:22:33:44:55")
    conf("wl_broadcast_ssid", "off")
    conf("wl_preamble_type", "long")
    e = update(sandbox, daemon)
    assert e.conf == (FACTORY_CONF.replace(CHANS_11, "AP_MAC=00:11:22:33:44:55\n" + CHANS_11)
                      .replace("BroadcastSSID=1\n", "BroadcastSSID=0\n")
                      .replace("PreambleType=0\n", "PreambleType=1\n"))


# Failures: a key that does not parse, or holds a newline, ends the file


@pytest.mark.parametrize("key,value,line", [
    ("wl_ssid", b"{bad\0", "SSID=\"HX-Travel\"\n"),
    ("wl_beacon_period", b"{bad\0", "BeaconPeriod=100\n"),
    ("wl_dtim_period", None, "DTIMPeriod=1\n"),
    ("wl_fw_mode", b"[\0", "MaxStaNum=6\n"),
    ("wl_wep_key2", b"{\0", "Key_2=0000000000\n"),
    ("wl_wpa_encryption", b"{\0", "PwkCipherWPA2=8\n"),
])
def test_unparsable_key_leaves_partial_file(daemon, sandbox, conf, key, value, line):
    conf(key, value)
    conf("wl_radio", b'"on"\0', "rtconf")
    e = update(sandbox, daemon)
    assert (e.reply, e.out, e.cmds) == (SUCCESS, US_OUT, [])
    assert e.conf == upto(line)
    assert sandbox.store_get("rtconf", "wl_radio") == b"\0"


@pytest.mark.parametrize("key,value,line", [
    ("wl_ssid", "Trip\nRadioControl=0", "SSID=\"HX-Travel\"\n"),
    ("wl_channel", "6\nBand=1", "Channel=6,2\n"),
    ("wl_ap_mac", "00:11:22:33:44:55\nMaxStaNum=64", CHANS_11),
    ("wl_wep_key1", "abc\nx", "Key_1=0000000000\n"),
    ("wl_wpa_key", "secret\nAuthMode=0", 'PSK="hxtravel1234"\n'),
])
def test_newline_in_a_value_ends_the_file(daemon, sandbox, conf, key, value, line):
    conf(key, value)
    e = update(sandbox, daemon)
    assert e.reply == SUCCESS
    assert e.conf == upto(line)


def test_newline_in_country_writes_nothing(daemon, sandbox, conf):
    conf("wl_country", "U\nS")
    sandbox.write(CONF, "previous\n")
    e = update(sandbox, daemon)
    assert (e.reply, e.out, e.conf) == (SUCCESS, "", "previous\n")


def test_unparsable_wl_writes_nothing(daemon, sandbox, conf):
    conf("wl", b"{\0")
    e = Effects(sandbox, daemon, {"wl": {"action": "start"}})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", [], None)


# Command sequences of the "wl" target


def test_wl_start(daemon, sandbox, conf):
    e = Effects(sandbox, daemon, {"wl": {"action": "start"}})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, US_OUT, START_CMDS, FACTORY_CONF)


def test_wl_stop(daemon, sandbox, conf):
    e = Effects(sandbox, daemon, {"wl": {"action": "stop"}})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", STOP_CMDS, None)


def test_wl_restart(daemon, sandbox, conf):
    e = Effects(sandbox, daemon, {"wl": {"action": "restart"}})
    assert (e.reply, e.out, e.cmds, e.conf) == \
        (SUCCESS, US_OUT, STOP_CMDS + START_CMDS, FACTORY_CONF)


def test_start_redirects_to_console(daemon, sandbox, conf):
    """The two BSS commands' output goes to the console."""
    sandbox.stub(UAPUTL, 'echo "uaputl $*"\n')
    try:
        mark = sandbox.console()
        Effects(sandbox, daemon, {"wl": {"action": "restart"}})
        text = sandbox.console()[len(mark):]
    finally:
        sandbox.stub(UAPUTL, "exit 0\n")
    assert text == "uaputl bss_stop\nuaputl bss_start\n"


@pytest.mark.parametrize("value", [{}, {"action": "reload"}, {"action": 5}])
def test_wl_unknown_action(daemon, sandbox, conf, value):
    e = Effects(sandbox, daemon, {"wl": value})
    assert (e.reply, e.out, e.cmds, e.conf) == (SUCCESS, "", [], None)


# "wl_radio" and "wl_power_save_mode"


def test_radio_on_and_off(daemon, sandbox, conf):
    conf("wl_radio", None, "rtconf")
    e = Effects(sandbox, daemon, {"wl_radio": {"action": "off"}})
    assert (e.reply, e.out, e.cmds) == \
        (SUCCESS, "action:off\nrevalidate_setWlRadio\n", [[UAPUTL, "sys_cfg_radio_ctl", "0"]])
    assert sandbox.store_get("rtconf", "wl_radio") == b'"off"\0'
    e = Effects(sandbox, daemon, {"wl_radio": {"action": "on"}})
    assert (e.reply, e.out, e.cmds) == \
        (SUCCESS, "action:on\nrevalidate_setWlRadio\n", [[UAPUTL, "sys_cfg_radio_ctl", "1"]])
    assert sandbox.store_get("rtconf", "wl_radio") == b'"on"\0'
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": ["wl_radio"]}})
    assert reply == (b'{ "arguments": { "confs": { }, "infos": { "wl_radio": "on" } }, '
                     b'"result": "success" }')


@pytest.mark.parametrize("value,out", [
    ({"action": "toggle"}, "action:toggle\nrevalidate_setWlRadio\n"),
    ({}, "action:(null)\nrevalidate_setWlRadio\n"),
])
def test_radio_unknown_action(daemon, sandbox, conf, value, out):
    conf("wl_radio", b'"on"\0', "rtconf")
    e = Effects(sandbox, daemon, {"wl_radio": value})
    assert (e.reply, e.out, e.cmds) == (SUCCESS, out, [])
    assert sandbox.store_get("rtconf", "wl_radio") == b'"on"\0'


@pytest.mark.parametrize("action", ["start", "restart"])
def test_power_save_mode(daemon, sandbox, conf, action):
    e = Effects(sandbox, daemon, {"wl_power_save_mode": {"action": action}})
    assert (e.reply, e.out, e.cmds) == \
        (SUCCESS, "revalidate_setWlPowerSaveMode\n", [[UAPUTL, "pscfg", "2"]])


@pytest.mark.parametrize("value", [{"action": "stop"}, {}])
def test_power_save_mode_other_action(daemon, sandbox, conf, value):
    e = Effects(sandbox, daemon, {"wl_power_save_mode": value})
    assert (e.reply, e.out, e.cmds) == (SUCCESS, "revalidate_setWlPowerSaveMode\n", [])


@pytest.mark.parametrize("target", ["wl", "wl_radio", "wl_power_save_mode"])
def test_null_argument_is_invalid(daemon, sandbox, conf, target):
    e = Effects(sandbox, daemon, {target: None})
    assert (e.reply, e.out, e.cmds, e.conf) == (INVALID, "Input parameter is NULL.\n", [], None)


@pytest.mark.parametrize("target", ["wl", "wl_radio", "wl_power_save_mode"])
@pytest.mark.parametrize("value", [5, "start", [{"action": "start"}]])
def test_non_object_argument_is_invalid(daemon, sandbox, conf, target, value):
    e = Effects(sandbox, daemon, {target: value})
    assert (e.reply, e.out, e.cmds, e.conf) == (INVALID, "Unexpected json type.\n", [], None)

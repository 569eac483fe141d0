"""The access point's file from the stores and the country table, and the wl, wl_radio and power-save commands."""
import functools
import re

import pytest

from wifi_util import INVALID, NOT_OBJECT, NULL_ARG, SUCCESS, Effects, answer, conf, get  # noqa: F401

CONF, DOMAIN, UAP = "/mnt/rwdata/uaputl.conf", "/etc/config/80211d_domain.conf", "/sbin/uaputl.exe"
TABLE = ("/* countries, then per domain: first channel, channels, power */\nCOUNTRY: DOMAIN_CODE_FCC1 US CA\n"
         "COUNTRY: DOMAIN_CODE_ETSI DE FR\nCOUNTRY: DOMAIN_CODE_MKK JP\nDOMAIN: DOMAIN_CODE_FCC1 1 11 30\n"
         "DOMAIN: DOMAIN_CODE_ETSI 1 13 20\nDOMAIN: DOMAIN_CODE_MKK 1 14 23\nDOMAIN: DOMAIN_CODE_END\n")
US, C11 = "Match success for Country = US in conf. \nno_of_chan = 11 \n", "ChanList=1,2,3,4,5,6,7,8,9,10,11\n"
R24, HT = "Rate=0x82,0x84,0x8b,0x96,0x0c,0x12,0x18,0x24,0x30,0x48,0x60,0x6c\n", "Enable11n=1\nHTCapInfo=0x117e\nAMPDU=0x03\n"
WPA2, KEYS = "PwkCipherWPA2=8\nGwkCipher=8\n", "KeyIndex=0\nKey_0=0000000000\nKey_1=0000000000\nKey_2=0000000000\n"
FACTORY = ('ap_config={|SSID="HX-Travel"|BeaconPeriod=100|Channel=6,2|%s|Band=0|RxAntenna=0|TxAntenna=1|%s|TxPowerLevel=13|'
           "BroadcastSSID=1|RTSThreshold=2347|FragThreshold=2346|DTIMPeriod=1|RadioControl=1|MCBCdataRate=0|TxDataRate=0|"
           "PktFwdCtl=1|StaAgeoutTimer=1800|PSStaAgeoutTimer=288000|MaxStaNum=6|PreambleType=0|Retrylimit=7|AuthMode=0|"
           "Protocol=32|RSNReplayProtection=0|PairwiseUpdateTimeout=100|PairwiseHandshakeRetries=3|GroupwiseUpdateTimeout=100|"
           'GroupwiseHandshakeRetries=3|%sKey_3=0000000000|%sPSK="hxtravel1234"|GroupRekeyTime= 86400|%s11d_enable=1|'
           "country=US|}|ap_mac_filter={|FilterMode=0|Count=0|}|").replace("|", "\n") % (C11[:-1], R24[:-1], KEYS, WPA2, HT)
FIVE = [("Band=0", "Band=1"), (R24, "Rate=0x8c,0x98,0xb0,0x48,0x60,0x6c\n"), (C11, "ChanList=36,40,44,48,149,153,157,161,165\n")]
NO11N, C1 = [(HT, "Enable11n=0\n")], "ChanList=1,2,3,4,5,6,7,8,9,10,11,12,13"
A, E, K = "wl_wpa_auth_mode", "wl_wpa_encryption", "DOMAIN_CODE_" + "K" * 50  # K: a 62-byte prefix


def ch(band, channel, line): return [{"wl_band": band, "wl_channel_5g" if band == "5GHz" else "wl_channel": channel},
                                   FIVE * (band == "5GHz") + [("Channel=6,2\n", line + "\n")], US]


# id: [settings ("table": the country table), changes to the factory file (a line: the file ends before it), output]
ROWS = {
    "factory": [{}, [], US], "fw-mode": [{"wl_fw_mode": 1}, [("MaxStaNum=6", "MaxStaNum=8")], US],
    "5g-165": [{"wl_band": "5GHz", "wl_channel_5g": "165"}, FIVE + [("6,2\n", "165\n"), ("117e", "117c")], US],
    **{f"{b[0]}g-{c}": ch(b, c, line) for b, c, line in [
        ("2.4GHz", "7", "Channel=7,4"), ("2.4GHz", "1", "Channel=1,2"), ("2.4GHz", "0", "Channel=0 1"),
        ("5GHz", "157", "Channel=157,2"), ("5GHz", "40", "Channel=40,4"), ("5GHz", "52", "Channel=52")]},
    "three-chars": [{"wl_country": "JP-long", "table": TABLE.replace(" JP\n", " JP JP-\n").replace(  # 63-byte
        "DOMAIN: DOMAIN_CODE_MKK", f"DOMAIN: {K}X 1 11 30\nDOMAIN: {K}M").replace("DOMAIN_CODE_MKK", K + "M")},
                    [(C11, C1 + ",14\n"), ("=US", "=JP-")], US.replace("US", "JP-").replace("11", "14")],
    "ZZ": [{"wl_country": "ZZ"}, [], "No match found for Country = ZZ in conf. \n"],
    "no-table": [{"wl_country": "DE", "table": None}, [], "File: 80211d_domain.conf opening Error\n"],
    "wep": [{"wl_security": "wep", "wl_wep_auth_mode": "shared", "wl_wep_key_index": "2", "wl_wep_key0": "0123456789",
             "wl_wep_key1": "abcdefghijklm", "wl_wep_key2": "a,b=c", "wl_wep_key3": ""}, [
        ("AuthMode=0\nProtocol=32", "AuthMode=1\nProtocol=2"), (WPA2, ""),
        (KEYS, 'KeyIndex=2\nKey_0=0123456789\nKey_1="abcdefghijklm"\nKey_2="a\\,b\\=c"\n')] + NO11N, US],
    "escaped": [{"wl_ssid": "Cafe,Bar=Wifi", "wl_wpa_key": "p=a,ss"},
                [('"HX-Travel"', '"Cafe\\,Bar\\=Wifi"'), ('"hxtravel1234"', '"p\\=a\\,ss"')], US],
    "open": [{"wl_security": "none", "wl_wep_auth_mode": "shared", E: "tkip", "wl_wpa_key": ""},
             [("=32", "=1"), (WPA2, ""), ('PSK="hxtravel1234"\n', "")] + NO11N, US],
    "wpa-tkip": [{A: "wpapsk", E: "tkip"}, [("=32", "=8"), (WPA2, "PwkCipherWPA=4\nGwkCipher=4\n")] + NO11N, US],
    "both-mixed": [{A: "wpapskwpa2pskmixed", E: "tkipaesmixed"},
                   [("=32", "=40"), (WPA2, "PwkCipherWPA=12\nPwkCipherWPA2=12\nGwkCipher=4\n")], US],
    "wpa3": [{A: "wpa3", E: "aes"}, [("Protocol=32\n", ""), (WPA2, "GwkCipher=8\n")], US],
    **{key.split("|")[0]: [{key[3:].split("|")[0]: value}, key.split("|")[1], US] for key, value in [
        ("no-wl_ssid|SSID=", b"{bad\0"), ("no-wl_dtim_period|DTIM", None), ("no-wl_wep_key2|Key_2", b"{\0"),
        ("nl-wl_ssid|SSID=", "Trip\nRadioControl=0"), ("nl-wl_wpa_key|PSK=", "s\nAuthMode=0")]},
}


@pytest.fixture(autouse=True)
def clean(sandbox, conf):
    sandbox.write(DOMAIN, TABLE)
    sandbox.remove(CONF)
    conf("wl_radio", b'"was"\0', "rtconf")


def settle(sandbox, conf, settings):
    for key, value in settings.items():
        (conf(key, value) if key != "table" else sandbox.write(DOMAIN, value) if value else sandbox.remove(DOMAIN))


@pytest.mark.parametrize("settings, changes, out", ROWS.values(), ids=ROWS.keys())
def test_update_writes_the_file_and_the_derived_keys(daemon, sandbox, conf, settings, changes, out):
    conf("wl_max_sta_number", 99)
    conf("wl_channel_list", b"[ 1 ]\0")
    settle(sandbox, conf, settings)
    e = Effects(sandbox, daemon, {"wl": {"action": "update"}})
    file = (FACTORY[:FACTORY.index(changes)] if isinstance(changes, str)
            else functools.reduce(lambda text, change: text.replace(*change), changes, FACTORY))
    assert (e.reply, e.out, e.cmds, sandbox.read_text(CONF), sandbox.store_get("rtconf", "wl_radio")) == (
        SUCCESS, out, [], file, b"\0")
    if file.endswith("Count=0\n}\n"):
        chans, most = re.search("ChanList=(.*)\n", file)[1].replace(",", ", "), re.search("MaxStaNum=(.*)\n", file)[1]
        assert [sandbox.store_get("sysconf", k) for k in ("wl_channel_list", "wl_max_sta_number")] == [
            b"[ %s ]\0" % chans.encode(), most.encode() + b"\0"]


START = [[UAP, "sys_cfg_11n", "0"], [UAP, "sys_config", CONF], [UAP, "sys_cfg_2040_coex", "0"],
         [UAP, "sys_cfg_pkt_fwd_ctl", "1"], [UAP, "bss_start"]]


@pytest.mark.parametrize("settings, value, out, cmds", [
    ({}, {"action": "start"}, US, START), ({}, {"action": "stop"}, "", [[UAP, "bss_stop"]]),
    ({}, {"action": "restart"}, US, [[UAP, "bss_stop"]] + START), ({}, {}, "", []), ({}, {"action": "reload"}, "", []),
    ({"wl": "off"}, {"action": "restart"}, "", [[UAP, "bss_stop"]])],
    ids=["start", "stop", "restart", "none", "other", "off"])
def test_wl_actions(daemon, sandbox, conf, settings, value, out, cmds):
    settle(sandbox, conf, settings)
    sandbox.write(CONF, "previous\n")
    sandbox.stub(UAP, 'echo "uaputl $*"\n')
    try:
        console = sandbox.console()
        e = Effects(sandbox, daemon, {"wl": value})
        bss = sandbox.console()[len(console):]  # the BSS commands print on the console
    finally:
        sandbox.stub(UAP, "exit 0\n")
    out += "".join("uaputl %s\n" % " ".join(c[1:]) for c in cmds if not c[1].startswith("bss_"))
    file = FACTORY if out else "previous\n"
    assert (e.reply, e.out, e.cmds, sandbox.read_text(CONF)) == (SUCCESS, out, cmds, file)
    assert bss == "".join("uaputl %s\n" % c[1] for c in cmds if c[1].startswith("bss_"))
    assert sandbox.store_get("rtconf", "wl_radio") == (b"\0" if out else b'"was"\0')


R, PS = "revalidate_setWlRadio\n", "revalidate_setWlPowerSaveMode\n"


@pytest.mark.parametrize("target, value, reply, out, cmds, radio", [
    ("wl_radio", {"action": "off"}, SUCCESS, "action:off\n" + R, [[UAP, "sys_cfg_radio_ctl", "0"]], "off"),
    ("wl_radio", {"action": "on"}, SUCCESS, "action:on\n" + R, [[UAP, "sys_cfg_radio_ctl", "1"]], "on"),
    ("wl_radio", {"action": "toggle"}, SUCCESS, "action:toggle\n" + R, [], "was"),
    ("wl_radio", {}, SUCCESS, "action:(null)\n" + R, [], "was")] + [
    ("wl_power_save_mode", {"action": a} if a else {}, SUCCESS, PS, [[UAP, "pscfg", "2"]] * a.endswith("start"), "was")
    for a in ("start", "restart", "stop", "")] + [
    (target, value, INVALID, out, [], "was") for target in ("wl", "wl_radio", "wl_power_save_mode")
    for value, out in ((None, NULL_ARG), (5, NOT_OBJECT), ("start", NOT_OBJECT), ([{}], NOT_OBJECT))])
def test_radio_and_power_save(daemon, sandbox, target, value, reply, out, cmds, radio):
    e = Effects(sandbox, daemon, {target: value})
    assert (e.reply, e.out, e.cmds, sandbox.exists(CONF)) == (reply, out, cmds, False)
    assert get(sandbox, "wl_radio") == answer(b'"wl_radio": "%s"' % radio.encode())

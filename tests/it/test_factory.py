"""The factory-default stores (sim/factory) in the form their readers take; reads the JSON files only."""
import ipaddress
import json
from pathlib import Path


def test_values_fit_their_readers():
    sc, rt, raw, info = (json.loads((Path(__file__).parents[2] / f"sim/factory/{n}.json").read_text())
                         for n in ("sysconf", "rtconf", "rtconf-raw", "sysinfo"))
    assert len(sc) <= 127 and sc["product_model"] == info["product_model"]  # every key in the daemon's key index
    assert set(rt) & set(raw) == set() and [k for k, v in raw.items() if not isinstance(v, str)] == []
    assert rt["fwup_status"].get("upgrade_stage") != "ongoing"  # else every target is refused as busy
    lan = ipaddress.ip_interface(f'{sc["lan_ipaddr"]}/{sc["lan_netmask"]}').network
    assert {ipaddress.ip_address(sc[k]) in lan for k in ("dhcp_range_start", "dhcp_range_end")} == {True}
    assert [k for k, v in sc.items() if isinstance(v, str) and "\n" in v] == []  # values go into config files

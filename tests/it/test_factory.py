"""The factory-default stores (sim/factory) in the form their readers take.
Pure Python: reads the four JSON files and nothing else."""
import ipaddress
import json
from pathlib import Path

FACTORY = Path(__file__).resolve().parents[2] / "sim" / "factory"


def test_values_fit_their_readers():
    sysconf, rtconf, raw, info = (json.loads((FACTORY / f"{n}.json").read_text())
                                  for n in ("sysconf", "rtconf", "rtconf-raw", "sysinfo"))
    assert len(sysconf) <= 127  # every persistent key in the daemon's key index
    assert [sysconf[k] for k in ("product_model", "product_description")] == [info["product_model"],
                                                                              info["product_description"]]
    assert set(rtconf) & set(raw) == set() and [k for k, v in raw.items() if not isinstance(v, str)] == []
    assert rtconf["fwup_status"].get("upgrade_stage") != "ongoing"  # else every target is refused as busy
    assert sysconf["wl_max_sta_number"] == (8 if sysconf["wl_fw_mode"] else 6)
    lan = ipaddress.ip_interface(f'{sysconf["lan_ipaddr"]}/{sysconf["lan_netmask"]}').network
    assert ipaddress.ip_address(sysconf["dhcp_range_start"]) in lan and ipaddress.ip_address(sysconf["dhcp_range_end"]) in lan
    assert [k for k, v in sysconf.items() if isinstance(v, str) and "\n" in v] == []  # values go into config files

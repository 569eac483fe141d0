"""A lively demo device: `with Demo(sandbox): ...` on a started sandbox whose
daemon runs (hxsim --demo) puts hotspots in range of the station's scan, two
clients on the access point, a USB disk with a share, an SD card ready to
back up and a battery that drains while unplugged.

Only the open hotspot (JOIN) can be joined: the supplicant is Debian's real
one on the sandbox's wired link, where no access point ever answers the
WPA key handshake, so a protected hotspot stays associated and never
connects; and the DHCP client stub hands out an address only while the
supplicant is connected to JOIN."""
import json
import os
import shlex
import threading
import time
from typing import NamedTuple

from hxfakes import (CARD_DIR, COPY_SCRIPT, IWCONFIG, IWLIST, PARTITIONS, SYNC_LOG, UAPUTL, UDHCPC, USB_DIR,
                     VOL_ID, copy_script, dhcp_lease_script, link_output, plug_usb_and_card, printing,
                     scan_cell, scan_output, station_list)
from hxsim import BATTERY, load_factory


class Hotspot(NamedTuple):
    ssid: str
    bssid: str
    channel: int
    signal: int
    security: str   # as the scan reports it: "NONE", "WPA2-PSK", "WPA/WPA2-PSK"

    def cell(self):
        lines = {"NONE": ["Encryption key:off"],
                 "WPA2-PSK": ["Encryption key:on", "IE: IEEE 802.11i/WPA2 Version 1"],
                 "WPA/WPA2-PSK": ["Encryption key:on", "IE: WPA Version 1", "IE: IEEE 802.11i/WPA2 Version 1"]}
        return scan_cell(self.bssid, f'"{self.ssid}"', f"Frequency:{self.frequency} (Channel {self.channel})",
                         f"Signal level={self.signal}", *lines[self.security])

    @property
    def frequency(self):
        return f"{2.407 + 0.005 * self.channel:.3f} GHz"


class Client(NamedTuple):
    name: str
    mac: str
    ip: str
    rssi: int


HOTSPOTS = (
    Hotspot("Harbour Cafe", "9C:D6:43:5E:21:07", 1, -58, "NONE"),
    Hotspot("Seaview Apartments", "00:24:01:D3:A0:BE", 6, -67, "WPA2-PSK"),
    Hotspot("Marina Office", "00:1A:2B:3C:4D:5E", 11, -81, "WPA/WPA2-PSK"),
)
JOIN = HOTSPOTS[0]
# The station keys that join JOIN (pref-set, then revalidate "wan" "start").
JOIN_KEYS = {"wan_type": "wireless_sta", "wan_sta_ssid": JOIN.ssid, "wan_sta_sec": "none", "wan_sta_pass": ""}
# What JOIN's DHCP server hands out.
UPSTREAM = {"address": "10.42.0.57/24", "gateway": "10.42.0.1"}

_LAN = load_factory("sysconf").get("lan_ipaddr", "192.168.100.1").rsplit(".", 1)[0]
CLIENTS = (
    Client("annas-iphone", "6e:3a:91:c4:0b:12", f"{_LAN}.137", -48),
    Client("toms-laptop", "8c:16:45:2e:9b:d1", f"{_LAN}.112", -63),
)
LEASES = "/var/tmp/dnsmasq.leases"

SHARE_FILES = {"Documents/packing-list.txt": "passport\ncharger\nsunscreen\n",
               "Music/README.txt": "Songs for the road.\n", "Movies/README.txt": "Films for the flight.\n"}
PHOTOS = ("DCIM/100HXCAM/IMG_0001.JPG", "DCIM/100HXCAM/IMG_0002.JPG", "DCIM/100HXCAM/IMG_0003.JPG")

START_LEVEL, FLOOR, INTERVAL = 87, 5, 20.0


def _partition_kib(name):
    """The size in KiB that PARTITIONS gives the partition NAME."""
    return next(int(line.split()[2]) for line in PARTITIONS.splitlines()[2:] if line.split()[3] == name)


def _joined(ssid):
    """Shell test: the real supplicant is connected to ssid."""
    return ('s=$(wpa_cli -i mlan0 status 2>/dev/null)\n'
            f'printf "%s\\n" "$s" | grep -qx wpa_state=COMPLETED && '
            f'printf "%s\\n" "$s" | grep -qxF {shlex.quote("ssid=" + ssid)} || exit 0\n')


class Demo:
    """Sets the demo device up on entry; on exit stops the battery thread
    and the power-management controller (the supplicant and the stubs'
    background processes die with the sandbox).  The battery loses one
    percent every `interval` seconds while its status reads "Discharging",
    from `start` down to `floor`; drain_step() does one such step now."""

    def __init__(self, sandbox, interval=INTERVAL, start=START_LEVEL, floor=FLOOR):
        self.sb = sandbox
        self.interval, self.start, self.floor = interval, start, floor
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._thread = None

    def __enter__(self):
        self.sb.set_battery(f"{self.start}\n", "Discharging\n")
        self.sb.start_pm_controller()
        self._access_point()
        self._storage()
        self._station()
        self._thread = threading.Thread(target=self._drain, name="hxdemo-battery", daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stop.set()
        if self._thread:
            self._thread.join()
        try:
            self.sb.stop_pm_controller()
        except (OSError, RuntimeError):
            pass    # the sandbox is gone already

    # the battery

    def drain_step(self):
        """Lowers the capacity by one while unplugged, never below the
        floor; returns the capacity now."""
        with self._lock:
            level = int(self.sb.read_text(f"{BATTERY}/capacity"))
            if self.sb.read_text(f"{BATTERY}/status").strip() == "Discharging" and level > self.floor:
                level -= 1
                self.sb.write(f"{BATTERY}/capacity", f"{level}\n")
            return level

    def _drain(self):
        while not self._stop.wait(self.interval):
            try:
                self.drain_step()
            except (OSError, ValueError):
                continue    # no gauge, or one a person wrote by hand
            except RuntimeError:
                return      # the sandbox stopped

    # the parts of the device

    def _access_point(self):
        """The clients: associated stations and their DHCP leases."""
        self.sb.stub(UAPUTL, '[ "$1" = sta_list ] || exit 0\n'
                     + printing(station_list([(c.mac, c.rssi) for c in CLIENTS])))
        expires = int(time.time()) + 24 * 3600
        self.sb.write(LEASES, "".join(f"{expires} {c.mac} {c.ip} {c.name} 01:{c.mac}\n" for c in CLIENTS))

    def _storage(self):
        """The USB disk's share and the SD card, mounted as the hot-plug
        scripts mount them, and the copy script of the card's backup."""
        plug_usb_and_card(self.sb)
        for path, part in ((USB_DIR, "sda1"), (CARD_DIR, "sdb")):
            self.sb.run(["mkdir", "-p", path], check=True)
            self.sb.mount_tmpfs(path, f"{_partition_kib(part)}k")
        self.sb.set_mtab(f"/dev/sda1 {USB_DIR} vfat rw 0 0\n/dev/sdb1 {CARD_DIR} vfat rw 0 0\n")
        self.sb.stub(VOL_ID, "echo vfat\n")
        for path, text in SHARE_FILES.items():
            self.sb.write(f"{USB_DIR}/{path}", text)
        taken = int(time.time()) - 3 * 24 * 3600
        times = [taken + n * 3600 for n in range(len(PHOTOS))]
        for path, t in zip(PHOTOS, times):
            self.sb.write(f"{CARD_DIR}/{path}", f"demo photo {os.path.basename(path)}\n")
            os.utime(self.sb.path(f"{CARD_DIR}/{path}"), (t, t))
        first, last = os.path.basename(PHOTOS[0]), os.path.basename(PHOTOS[-1])
        self.sb.stub(COPY_SCRIPT, copy_script(
            f"$(date +%F);;log_id=$(($(cat {shlex.quote(SYNC_LOG)} 2>/dev/null | grep -c log_id) + 1))"
            f";;result=success;;sync_type=manual;;dest_dir=$3;;file_count={len(PHOTOS)}"
            f";;oldest_file={first};;oldest_time={times[0]};;newest_file={last};;newest_time={times[-1]}"))

    def _station(self):
        """The scan, the link and the lease of JOIN, and the supplicant
        running on the sandbox's wired link."""
        self.sb.stub(IWLIST, printing(scan_output(h.cell() for h in HOTSPOTS)))
        self.sb.stub(IWCONFIG, '[ "$*" = mlan0 ] || exit 0\n' + _joined(JOIN.ssid) + printing(
            link_output(JOIN.ssid, JOIN.frequency, JOIN.bssid, "54 Mb/s", JOIN.signal)))
        gateway = UPSTREAM["gateway"]
        self.sb.stub(UDHCPC, '[ "$2" = mlan0 ] || exit 0\n' + _joined(JOIN.ssid) + dhcp_lease_script(
            UPSTREAM["address"], gateway,
            f"echo nameserver {gateway} > /etc/resolv.conf\n"
            "sysconf --store rtconf set wan_uptime \"\\\"$(cut -d. -f1 /proc/uptime)\\\"\"\n"))
        self.sb.store_set("rtconf", "wl_wpa_driver", b'"wired"\0')
        reply = self.sb.request({"method": "revalidate", "arguments": {"wpa": {"action": "start"}}})
        if json.loads(reply or b"{}").get("result") != "success":
            raise RuntimeError(f"the supplicant did not start: {reply!r}")

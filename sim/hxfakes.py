"""What the device's programs print and do, for the stubs that stand in for
them in the sandbox: the access-point scan, the access point's station list,
the station's DHCP client, the supplicant's state, and a USB disk with an SD
card in the card reader for the backup.  The integration tests and the demo
device (hxdemo.py) build their stubs from these."""
import shlex

SHARE = "/tmp/media/share"
IWLIST = "/sbin/iwlist"
IWCONFIG = "/usr/sbin/iwconfig"
UAPUTL = "/sbin/uaputl.exe"
UDHCPC = "/sbin/udhcpc"
BLKID = "/sbin/blkid"
VOL_ID = "/lib/udev/vol_id"
COPY_SCRIPT = "/etc/app/sync/gw_copy_prog.sh"

# The USB disk and the card as the hot-plug scripts mount them: the first
# disk's first partition, and the card under its fixed directory.
USB_DIR, CARD_DIR = f"{SHARE}/USB_A1", f"{SHARE}/sdcard"
SYNC_LOG = f"{USB_DIR}/.log/sync.log"
# The daemon takes the disk on this port for the SD card.
CARD_READER_PORT = "usb1/1-1/1-1.4"
USB_DISK = ("sda", "USB", "Disk", 15628288)           # 8 GB
CARD_DISK = ("sdb", "Generic", "SD Reader", 62333952)  # 32 GB
CARD_BLKID = '/dev/sdb1: LABEL="SD" UUID="1A2B-3C4D" TYPE="vfat"'
PARTITIONS = ("major minor  #blocks  name\n\n"
              f"   8 0 {USB_DISK[3] // 2} sda\n   8 1 {USB_DISK[3] // 2 - 1024} sda1\n"
              f"   8 16 {CARD_DISK[3] // 2} sdb\n")


def printing(text):
    """A stub body that prints text exactly."""
    return f"cat <<'HXEOF'\n{text}HXEOF\n"


def scan_cell(mac, essid, freq, level, *lines):
    """One cell of "iwlist mlan0 scan": essid as printed (quotes included),
    freq the frequency line, level e.g. "Signal level=-52", then more lines
    (encryption, information elements)."""
    return "".join("          %s\n" % x for x in (
        f"Cell 01 - Address: {mac}", f"ESSID:{essid}", "Mode:Master", freq,
        f"Quality=50/100  {level} dBm  Noise level=-95 dBm") + lines)


def scan_output(cells):
    return "mlan0     Scan completed :\n" + "".join(cells)


def link_output(essid, freq, bssid, bitrate, level):
    """What "iwconfig mlan0" prints while the station is joined: essid
    unquoted, freq e.g. "2.437 GHz", bitrate e.g. "72 Mb/s", level in dBm."""
    return (f'mlan0     IEEE 802.11-DS  ESSID:"{essid}"  \n'
            f"          Mode:Managed  Frequency:{freq}  Access Point: {bssid}   \n"
            f"          Bit Rate={bitrate}   Tx-Power=13 dBm   \n"
            f"          Link Quality=68/100  Signal level={level} dBm  Noise level=-95 dBm\n")


def station_list(stations):
    """What "uaputl.exe sta_list" prints for stations [(mac, rssi), ...]."""
    return f"Number of STA = {len(stations)}\n\n" + "".join(
        f"STA {n} information:\n=====================\nMAC Address: {mac}\n"
        f"Power mfg status: active\nRssi : {rssi} dBm\n\n"
        for n, (mac, rssi) in enumerate(stations, 1))


def dhcp_lease_script(address="10.0.0.2/24", gateway="10.0.0.1", more=""):
    """What udhcpc and its script do on a lease, in the background so as not
    to hold up the daemon: the address and default route on mlan0, rtconf
    "wan_if", the shell lines more, then the success event."""
    return (f"(ip addr add {address} dev mlan0; ip route replace default via {gateway} dev mlan0\n"
            "sysconf --store rtconf set wan_if '\"mlan0\"'\n" + more +
            "hxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0\n"
            ") >/dev/null 2>&1 &\n")


def wpa_state(sandbox):
    """The real supplicant's "status" on mlan0, as a dict."""
    out = sandbox.run(["wpa_cli", "-i", "mlan0", "status"], check=True).stdout.decode()
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


def plug_usb_and_card(sandbox):
    """USB_DISK on a plain port and CARD_DISK in the card reader, as the
    hot-plug scripts leave them: /proc/partitions, rtconf "sd_state" on and
    "first_mnt_dir" USB_DIR; blkid prints CARD_BLKID.  Mounting and filling
    the directories is the caller's."""
    sandbox.add_disk(*USB_DISK, usb_port_path="usb1/1-1/1-1.1")
    sandbox.add_disk(*CARD_DISK, usb_port_path=CARD_READER_PORT)
    sandbox.set_partitions(PARTITIONS)
    sandbox.store_set("rtconf", "first_mnt_dir", f'"{USB_DIR}"\0'.encode())
    sandbox.store_set("rtconf", "sd_state", b'"on"\0')
    sandbox.stub(BLKID, f"echo {shlex.quote(CARD_BLKID)}\n")


def copy_script(record):
    """The copy script of a sync task: for an SD-card copy (first argument 1)
    it copies CARD_DIR into the destination ($3) and appends record, a
    backup log line (double-quoted: "$3" and $(...) expand), to the USB
    disk's log; then it stores the result and posts the end of the copy."""
    return (f'[ "$1" = 1 ] && cp -a {CARD_DIR}/. "$3"/ && mkdir -p {USB_DIR}/.log\n'
            f'echo "{record}" >> {SYNC_LOG}\n'
            "sysconf --store rtconf --raw set sync_result 1\n"
            "hxctl revalidate sync_signal stop > /dev/null\n")

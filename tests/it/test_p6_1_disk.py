"""Part 6.1: disk inventory ("diskstatus", "disk_list", "disk_probe") through
the real daemon, on fake /proc/partitions, /etc/mtab and /sys/block trees and
real tmpfs file systems mounted under the share root (statfs is real).

The share root gets a 1 MiB tmpfs for the module: every directory in it
reports 256 blocks of 4096 bytes, none used, so a partition shows
"1.0M" / "0K" / "1.0M".  The 512-byte block case cannot be made here
(no file system in the sandbox reports f_bsize 512 without a loop device);
its arithmetic is unit-tested (tests/unit/test_format_capacity.c).
"""
import pytest

from hxsim import jsonc_text
from helpers import send, stdout_since

SHARE = "/tmp/media/share"
VOL_ID = "/lib/udev/vol_id"
HEADER = "major minor  #blocks  name\n\n"
# vol_id -t NODE: fat for sda1, ext4 otherwise
VOL_ID_SCRIPT = 'case "$2" in /dev/sda1) echo vfat ;; *) echo ext4 ;; esac\n'
ONE_MIB = {"capacity": "1.0M", "used": "0K", "avai": "1.0M"}
LOCK_DIR = "/var/lib/hxsim-diskunlock"


def partitions(*rows):
    return HEADER + "".join(f"   8 {minor:>8} {blocks:>10} {name}\n"
                            for minor, blocks, name in rows)


def mtab(*entries):
    return "".join(f"{node} {d} {t} rw 0 0\n" for node, d, t in entries)


def answer(name, value):
    return (b'{ "arguments": { "confs": { }, "infos": { ' + jsonc_text(name).encode()
            + b": " + jsonc_text(value).encode() + b' } }, "result": "success" }')


def ask(sandbox, daemon, name):
    before = daemon.stdout()
    reply = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": [name]}})
    return reply, stdout_since(sandbox, daemon, before)


def inside(sandbox, *argv):
    return sandbox.run(list(argv), check=True)


@pytest.fixture(scope="module")
def share(sandbox, daemon):
    inside(sandbox, "mount", "-t", "tmpfs", "-o", "size=1m", "hxshare", SHARE)
    yield
    sandbox.run(["umount", "-l", SHARE])


@pytest.fixture
def disks(sandbox, share):
    """A clean slate: no disks, no mounts, the vol_id stub of VOL_ID_SCRIPT;
    mount points made with dirs(); all undone afterwards."""
    made = []

    def dirs(*paths):
        for p in paths:
            inside(sandbox, "mkdir", "-p", p)
            made.append(p)
    sandbox.set_partitions(HEADER)
    sandbox.set_mtab("")
    sandbox.stub(VOL_ID, VOL_ID_SCRIPT)
    sandbox.clear_cmdlog()
    yield dirs
    for p in reversed(made):
        sandbox.run(["umount", p])
        sandbox.run(["rmdir", p])
    sandbox.set_partitions(HEADER)
    sandbox.set_mtab("")
    sandbox.run(["sh", "-c", "rm -rf /sys/block/* " + LOCK_DIR])
    sandbox.stub(VOL_ID, VOL_ID_SCRIPT)


def disk(name, vendor, media_type, total, parts):
    return {"disk_name": name, "disk_vendor": vendor, "media_type": media_type,
            "total_capacity": total, "partition_detail": parts}


def list_part(label, type_, sizes=ONE_MIB):
    return {"label": label, "type": type_, **sizes}


def status_part(label, type_, sizes=ONE_MIB):
    return {**sizes, "label": label, "type": type_}


# diskstatus

def test_no_disk_mounted(sandbox, daemon, disks):
    reply, out = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {"total_capacity": "0K", "partition_num": "0",
                                          "partition_detail": []})
    assert out == "di.sector_num = 0\n"


def test_diskstatus_share_summary(sandbox, daemon, disks):
    big = f"{SHARE}/USB_A2"
    disks(f"{SHARE}/USB_A1", big, f"{SHARE}/RAM", "/tmp/elsewhere")
    inside(sandbox, "mount", "-t", "tmpfs", "-o", "size=2g", "hxbig", big)
    sandbox.add_disk("sda", "ATA", "Disk", 2097152)
    sandbox.add_disk("sdb", "SD", "Card", 4096)
    sandbox.set_mtab(mtab(("rootfs", "/", "rootfs"),
                          ("/dev/sda1", f"{SHARE}/USB_A1", "vfat"),
                          ("ramdisk", f"{SHARE}/RAM", "ramfs"),
                          ("/dev/sdb1", "/tmp/elsewhere", "ext4"),
                          ("/dev/sda2", big, "ext4"),
                          ("/dev/sdb1", f"{SHARE}/missing", "ext4")))
    reply, out = ask(sandbox, daemon, "diskstatus")
    # every disk's partitions; the total is the first entry's disk (sda)
    assert reply == answer("diskstatus", {
        "total_capacity": "1.00G", "partition_num": "2", "partition_detail": [
            status_part("USB_A1", "fat"),
            status_part("USB_A2", "ext4", {"capacity": "2.00G", "used": "0K", "avai": "2.00G"})]})
    assert out == "di.sector_num = 2\n"
    assert sandbox.cmdlog() == [[VOL_ID, "-t", "/dev/sda1"], [VOL_ID, "-t", "/dev/sda2"]]


def test_diskstatus_disk_name_from_first_entry_only(sandbox, daemon, disks):
    disks(f"{SHARE}/TMP", f"{SHARE}/USB_A1")
    sandbox.add_disk("sda", "ATA", "Disk", 2097152)
    sandbox.set_mtab(mtab(("hxtmp", f"{SHARE}/TMP", "tmpfs"),
                          ("/dev/sda1", f"{SHARE}/USB_A1", "vfat")))
    reply, _ = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "0K", "partition_num": "2", "partition_detail": [
            status_part("TMP", "ext4"), status_part("USB_A1", "fat")]})


def test_diskstatus_label_bounded_to_63(sandbox, daemon, disks):
    name = "L" * 100
    disks(f"{SHARE}/{name}")
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(("/dev/sda1", f"{SHARE}/{name}", "vfat")))
    reply, _ = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "1.0M", "partition_num": "1",
        "partition_detail": [status_part("L" * 63, "fat")]})


def test_diskstatus_without_size_file_is_empty(sandbox, daemon, disks):
    disks(f"{SHARE}/USB_A1")
    sandbox.set_mtab(mtab(("/dev/sda1", f"{SHARE}/USB_A1", "vfat")))
    reply, out = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", "")
    assert out == "fopen failed\n"


def test_diskstatus_without_mtab_is_empty(sandbox, daemon, disks):
    sandbox.remove("/etc/mtab")
    reply, out = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", "")
    assert out == "open /etc/mtab failed\n"


# file-system type through vol_id

@pytest.mark.parametrize("printed, shown", [
    ("vfat", "fat"), ("ext4", "ext4"), ("abcdefghij", "abcdefghij"),
    ("abcdefghijk", "Unknown"), ("", "")])
def test_vol_id_answer(sandbox, daemon, disks, printed, shown):
    disks(f"{SHARE}/USB_A1")
    sandbox.stub(VOL_ID, f"echo '{printed}'\n")
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(("/dev/sda1", f"{SHARE}/USB_A1", "vfat")))
    reply, _ = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "1.0M", "partition_num": "1",
        "partition_detail": [status_part("USB_A1", shown)]})


@pytest.mark.parametrize("lines, shown", [
    (["probing", "vfat"], "fat"),
    (["x" * 40, "ext4"], "ext4"),
    (["vfat", "abcdefghijklmno"], "Unknown"),
    (["vfat", "y" * 40], "Unknown"),
    (["vfat", ""], ""),
], ids=["two-lines", "long-line-first", "last-15", "last-40", "last-empty"])
def test_vol_id_last_line_is_the_answer(sandbox, daemon, disks, lines, shown):
    """vol_id may print more than one line: the type is its last line."""
    disks(f"{SHARE}/USB_A1")
    sandbox.stub(VOL_ID, "printf '%s\\n' " + " ".join(f"'{line}'" for line in lines) + "\n")
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(("/dev/sda1", f"{SHARE}/USB_A1", "vfat")))
    reply, _ = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "1.0M", "partition_num": "1",
        "partition_detail": [status_part("USB_A1", shown)]})


def test_vol_id_missing_gives_unknown(sandbox, daemon, disks):
    disks(f"{SHARE}/USB_A1")
    sandbox.remove(VOL_ID)
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(("/dev/sda1", f"{SHARE}/USB_A1", "vfat")))
    reply, out = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "1.0M", "partition_num": "1",
        "partition_detail": [status_part("USB_A1", "Unknown")]})
    assert out == "vol_id not exist\ndi.sector_num = 1\n"


def test_vol_id_never_sees_shell_text(sandbox, daemon, disks):
    disks(f"{SHARE}/USB_A1")
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(("/dev/sda1;reboot", f"{SHARE}/USB_A1", "vfat")))
    reply, _ = ask(sandbox, daemon, "diskstatus")
    assert reply == answer("diskstatus", {
        "total_capacity": "1.0M", "partition_num": "1",
        "partition_detail": [status_part("USB_A1", "Unknown")]})
    assert sandbox.cmdlog() == []


# disk_list

def test_disk_list(sandbox, daemon, disks):
    disks(*(f"{SHARE}/{d}" for d in ("USB_A10", "USB_A2", "USB_A", "SD_B1")))
    sandbox.set_partitions(partitions((0, 1048576, "sda"), (2, 1, "sda2"), (10, 1, "sda10"),
                                      (16, 4096, "sdb"), (17, 1, "sdb1")))
    sandbox.add_disk("sda", "ATA" + " " * 5, "Flash Disk", 2097152)
    sandbox.add_disk("sdb", "Generic", "SD Reader", 8192, usb_port_path="usb1/1-1/1-1.3")
    sandbox.set_mtab(mtab(("/dev/sda10", f"{SHARE}/USB_A10", "ext4"),
                          ("/dev/sdb1", f"{SHARE}/SD_B1", "vfat"),
                          ("/dev/sda2", f"{SHARE}/USB_A2", "ext4"),
                          ("/dev/sda", f"{SHARE}/USB_A", "ext4")))
    reply, out = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "2", "disk_detail": [
        disk("sda", "ATA" + " " * 6 + "Flash Disk", "1", "1.00G", [
            list_part("USB_A", "ext4"), list_part("USB_A2", "ext4"),
            list_part("USB_A10", "ext4")]),
        disk("sdb", "Generic SD Reader", "0", "4.0M", [list_part("SD_B1", "ext4")])]})
    assert out == ""


def test_disk_list_nothing_mounted(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 512, "sda")))
    sandbox.add_disk("sda", "ATA", "Disk", 1023 * 2)
    reply, _ = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "1", "disk_detail": [
        disk("sda", "ATA Disk", "1", "1023K", [])]})


def test_disk_list_scan_keeps_whole_sd_disks(sandbox, daemon, disks):
    sandbox.set_partitions(HEADER + " 179        0    7761920 mmcblk0\n"
                           "   7        8       1024 loop8\n"
                           "   8        0       1024 sda\n"
                           "   8        1       1024 sda1\n")
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    reply, _ = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "1", "disk_detail": [
        disk("sda", "ATA Disk", "1", "1.0M", [])]})


def test_nine_disks_report_eight(sandbox, daemon, disks):
    names = [f"sd{c}" for c in "abcdefghi"]
    sandbox.set_partitions(partitions(*((16 * i, 1024, n) for i, n in enumerate(names))))
    for n in names:
        sandbox.add_disk(n, "V", n, 2048)
    reply, _ = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "8", "disk_detail": [
        disk(n, f"V {n}", "1", "1.0M", []) for n in names[:8]]})
    reply, _ = ask(sandbox, daemon, "disk_probe")
    assert reply == answer("disk_probe", {"disk_num": "8", "lock_info": [
        {"disk_name": n, "lock_state": "Unlocked"} for n in names[:8]]})


def test_seventeen_partitions_report_sixteen(sandbox, daemon, disks):
    disks(*(f"{SHARE}/P{i}" for i in range(1, 18)))
    sandbox.set_partitions(partitions((0, 1024, "sda")))
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.set_mtab(mtab(*((f"/dev/sda{i}", f"{SHARE}/P{i}", "ext4")
                            for i in range(17, 0, -1))))
    reply, _ = ask(sandbox, daemon, "disk_list")
    # the first sixteen mount entries (17 down to 2), sorted
    assert reply == answer("disk_list", {"disk_num": "1", "disk_detail": [
        disk("sda", "ATA Disk", "1", "1.0M",
             [list_part(f"P{i}", "ext4") for i in range(2, 18)])]})
    reply, out = ask(sandbox, daemon, "diskstatus")
    assert out == "di.sector_num = 16\n"


def test_missing_model_empties_disk_list(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 1024, "sda"), (16, 1024, "sdb")))
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.add_disk("sdb", "ATA", "Disk", 2048)
    sandbox.remove("/sys/block/sdb/device/model")
    reply, out = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", "")
    assert out == "open model file failed\n"


def test_missing_vendor_empties_disk_list(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 1024, "sda")))
    reply, out = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", "")
    assert out == "open vendor file failed\n"


def test_media_type_without_link(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 1024, "sda")))
    for f, text in (("device/vendor", "ATA\n"), ("device/model", "Disk\n"), ("size", "4\n")):
        sandbox.write(f"/sys/block/sda/{f}", text)
    reply, out = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "1", "disk_detail": [
        disk("sda", "ATA Disk", "0", "2K", [])]})
    assert out == "readlink for media_type error\n"


def test_disk_list_without_size_file(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 1024, "sda")))
    sandbox.add_disk("sda", "ATA", "Disk", 2048)
    sandbox.remove("/sys/block/sda/size")
    reply, out = ask(sandbox, daemon, "disk_list")
    assert reply == answer("disk_list", {"disk_num": "1", "disk_detail": [
        disk("sda", "ATA Disk", "0", "0K", [])]})
    assert out == "fopen failed\n"


# disk_probe

def test_disk_probe_lock_states(sandbox, daemon, disks):
    sandbox.set_partitions(partitions((0, 1024, "sda"), (16, 1024, "sdb"),
                                      (32, 1024, "sdc"), (48, 1024, "sdd")))
    sandbox.write(f"{LOCK_DIR}/sdb", "1\n3\nsecret\n")
    sandbox.write(f"{LOCK_DIR}/sdc", "2\n0\nsecret\n")
    sandbox.write(f"{LOCK_DIR}/sdd", "garbage\n")
    reply, _ = ask(sandbox, daemon, "disk_probe")
    assert reply == answer("disk_probe", {"disk_num": "4", "lock_info": [
        {"disk_name": "sda", "lock_state": "Unlocked"},
        {"disk_name": "sdb", "lock_state": "Locked"},
        {"disk_name": "sdc", "lock_state": "Unlocks Exceeded"},
        {"disk_name": "sdd", "lock_state": "Error"}]})


def test_disk_probe_no_disks(sandbox, daemon, disks):
    reply, _ = ask(sandbox, daemon, "disk_probe")
    assert reply == answer("disk_probe", {"disk_num": "0", "lock_info": []})

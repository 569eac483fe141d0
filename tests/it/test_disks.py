"""Disks on fake /proc/partitions, /etc/mtab and /sys/block over 1 MiB tmpfs mounts; unlocking and removing drives."""
import re

import pytest

from devices_util import NULL, SUCCESS, TYPE, answer, ask, result
from hxsim import jsonc_text

SHARE, VOL_ID, LOCKS, HEADER = "/tmp/media/share", "/lib/udev/vol_id", "/var/lib/hxsim-diskunlock/", "major minor  #blocks  name\n\n"
M, SDA, A1 = {"capacity": "1.0M", "used": "0K", "avai": "1.0M"}, ("sda", "ATA", "Disk", 2048), ("/dev/sda1", "USB_A1", "vfat")


def parts(*names):
    return HEADER + "".join(f"   8 {16 * i:>8} 1024 {n}\n" for i, n in enumerate(names))


def status(total, *labels):
    return {"diskstatus": {"total_capacity": total, "partition_num": str(len(labels)),
                           "partition_detail": [{**(s[2:] or [M])[0], "label": s[0], "type": s[1]} for s in labels]}}


def listing(*disks):
    return {"disk_list": {"disk_num": str(len(disks)), "disk_detail": [
        {"disk_name": n, "disk_vendor": v, "media_type": m, "total_capacity": c,
         "partition_detail": [{"label": l, "type": t, **M} for l, t in p]} for n, v, m, c, p in disks]}}


def r(id, item, want, out=None, cmds=None, p=HEADER, disks=(), mtab=(), rm=(), vol='case "$2" in /dev/sda1) echo vfat ;; *) echo ext4 ;; esac', files={}):
    return pytest.param(item, want, out, cmds, p, disks, mtab, rm, vol, files, id=id)


ROWS = [
    r("status-share-only", "diskstatus", status("1.00G", ("USB_A1", "fat"), ("BIG", "ext4", {"capacity": "2.00G", "used": "0K", "avai": "2.00G"})), "di.sector_num = 2\n",
      [[VOL_ID, "-t", "/dev/sda1"], [VOL_ID, "-t", "/dev/sda2"]], disks=[("sda", "ATA", "Disk", 2097152), ("sdb", "SD", "Card", 4096)],
      mtab=[("rootfs", "/", "rootfs"), A1, ("ramdisk", "RAM", "ramfs"), ("/dev/sdb1", "/tmp/elsewhere", "ext4"),
            ("/dev/sda2", "BIG", "ext4"), ("/dev/sdb1", "missing", "ext4")]),
    r("status-no-mtab", "diskstatus", {"diskstatus": ""}, "open /etc/mtab failed\n", rm=["/etc/mtab"]),
    *[r(f"vol-id-{i}", "diskstatus", status("1.0M", ("USB_A1", t)), disks=[SDA], mtab=[A1],
        vol="printf '%s\\n' " + " ".join(f"'{x}'" for x in lines)) for i, (lines, t) in enumerate([
            (["abcdefghijk"], "Unknown"), (["probing", "vfat"], "fat"), (["vfat", "y" * 15], "Unknown")])],
    r("vol-id-missing", "diskstatus", status("1.0M", ("USB_A1", "Unknown")), "vol_id not exist\ndi.sector_num = 1\n",
      rm=[VOL_ID], disks=[SDA], mtab=[A1]),
    r("vol-id-no-shell", "diskstatus", status("1.0M", ("USB_A1", "Unknown")), cmds=[], disks=[SDA],
      mtab=[("/dev/sda1;reboot", "USB_A1", "vfat")]),
    r("list", "disk_list", listing(("sda", "ATA" + " " * 6 + "Flash Disk", "1", "1.00G", [("USB_A", "ext4"), ("USB_A2", "ext4"), ("USB_A10", "ext4")]),
                                   ("sdb", "Generic SD Reader", "0", "4.0M", [("SD_B1", "ext4")])),
      p=parts("sda", "sda2", "sda10", "sdb", "sdb1"), disks=[("sda", "ATA" + " " * 5, "Flash Disk", 2097152), ("sdb", "Generic", "SD Reader", 8192, "usb1/1-1/1-1.3")],
      mtab=[("/dev/sda10", "USB_A10", "ext4"), ("/dev/sdb1", "SD_B1", "vfat"), ("/dev/sda2", "USB_A2", "ext4"), ("/dev/sda", "USB_A", "ext4")]),
    r("list-sd-disks-only", "disk_list", listing(("sda", "ATA Disk", "1", "1.0M", [])), disks=[SDA],
      p=HEADER + " 179 0 7761920 mmcblk0\n   7 8 1024 loop8\n   8 0 1024 sda\n   8 1 1024 sda1\n"),
    r("list-16-partitions", "disk_list", listing(("sda", "ATA Disk", "1", "1.0M", [(f"P{i}", "ext4") for i in range(2, 18)])),
      p=parts("sda"), disks=[SDA], mtab=[(f"/dev/sda{i}", f"P{i}", "ext4") for i in range(17, 0, -1)]),
    r("probe", "disk_probe", {"disk_probe": {"disk_num": "4", "lock_info": [{"disk_name": n, "lock_state": s} for n, s in [
        ("sda", "Unlocked"), ("sdb", "Locked"), ("sdc", "Unlocks Exceeded"), ("sdd", "Error")]]}},
      p=parts("sda", "sdb", "sdc", "sdd"), files={f"{LOCKS}sdb": "1\n3\ns\n", f"{LOCKS}sdc": "2\n0\ns\n", f"{LOCKS}sdd": "garbage\n"}),
]


@pytest.mark.parametrize("item, want, out, cmds, p, disks, mtab, rm, vol, files", ROWS)
def test_disk_item(sandbox, daemon, item, want, out, cmds, p, disks, mtab, rm, vol, files):
    sandbox.run(["sh", "-c", f"mountpoint -q {SHARE} || mount -t tmpfs -o size=1m hxshare {SHARE}; "
                 f"umount {SHARE}/*; rm -rf {SHARE}/* /sys/block/* {LOCKS}"])
    sandbox.set_partitions(p)
    sandbox.stub(VOL_ID, vol + "\n")
    for d in disks:
        sandbox.add_disk(*d)
    for f, text in files.items():
        sandbox.write(f if f.startswith("/") else f"/sys/block/sda/{f}", text)
    mtab = [(n, d if d.startswith("/") else f"{SHARE}/{d}", t) for n, d, t in mtab]
    for _, d, _ in mtab:
        sandbox.run(["mkdir", "-p", d]) if "missing" not in d else None
    if any(d.endswith("BIG") for _, d, _ in mtab):
        sandbox.run(["mount", "-t", "tmpfs", "-o", "size=2g", "hxbig", f"{SHARE}/BIG"], check=True)
    sandbox.set_mtab("".join(f"{n} {d} {t} rw 0 0\n" for n, d, t in mtab))
    for f in rm:
        sandbox.remove(f)
    sandbox.clear_cmdlog()
    out = f"di.sector_num = {want[item]['partition_num']}\n" if out is None and item == "diskstatus" else out or ""
    assert ask(sandbox, daemon, None, [item]) == (answer(want), out)
    assert cmds is None or sandbox.cmdlog() == cmds


SCRIPT, FAIL, BAD = "/etc/app/gw_hd_safe_remove.sh", result("fail"), "disk_unlock parameter name/passwd "
ERROR, LOCKED, FREE, EXCEEDED = (jsonc_text({"arguments": {"lock_state": s}, "result": "success"}).encode()
                                 for s in ("Error", "Locked", "Unlocked", "Unlocks Exceeded"))


def u(args, want, out="", lock="1\n3\ns\n", after=None):  # the unlock substitute keeps "state\ntries left\npassword\n"
    return {"disk_unlock": args}, lock, want, out, lock if after is None else after, [], 0


def rm(disk, want=FAIL, ran=False, rc=0, out=""):
    return {"safely_remove": {"disk": disk} if isinstance(disk, str) else disk}, None, want, out, None, [[SCRIPT, disk]] * ran, rc


@pytest.mark.parametrize("req, lock, want, out, after, cmds, rc", [
    u({"disk_name": "sdb"}, ERROR, BAD + "invalid\n"), u({"disk_name": "sdb", "passwd": 5}, ERROR, BAD + "NULL\n"),
    u({"disk_name": "sdb", "passwd": "s"}, FREE, after="0\n3\ns\n"), u({"disk_name": "sdc", "passwd": "x"}, FREE),
    u({"disk_name": "sdb", "passwd": "x"}, LOCKED, lock="1\n2\ns\n", after="1\n1\ns\n"),
    u({"disk_name": "sdb", "passwd": "x"}, EXCEEDED, lock="1\n1\ns\n", after="2\n0\ns\n"),
    u({"disk_name": "sdb", "passwd": "s"}, EXCEEDED, lock="2\n0\ns\n"),
    *[u({"disk_name": n, "passwd": "x"}, ERROR) for n in ("../etc", "")],
    u(None, result("Invalid arguments."), "Input parameters are NULL.\n"), u("sdb", result("Invalid arguments."), TYPE),
    rm("sdb", SUCCESS, ran=True), rm("sdb", ran=True, rc=1), *[rm(v) for v in [{}, {"disk": 1}]],
    rm("sdb", ran=True, rc=None, out=re.compile(r"safely remove script error\nexit illegal \[[^\n]*\n")),
    *[rm(d) for d in ["sdb;reboot", "$(reboot)", "`id`", "sdb|x", "sdb\nid", "'sdb'"]],
    rm("s" * 33, SUCCESS, ran=True), rm("s" * 34),  # the script's path and a space take 30 of 64 bytes
    rm(None, result("Invalid argument."), out=NULL), rm(["sdb"], result("Invalid argument."), out=TYPE)])
def test_unlock_and_remove(sandbox, daemon, req, lock, want, out, after, cmds, rc):
    sandbox.run(["rm", "-rf", LOCKS])
    sandbox.write(LOCKS + "sdb", lock) if lock else None
    # rc None: the shell that waits for the script dies by a signal
    sandbox.stub(SCRIPT, 'read -r c < /proc/$PPID/comm; [ "$c" = sh ] && kill -9 $PPID\nexit 3\n') if rc is None else \
        sandbox.stub_exit(SCRIPT, rc)
    sandbox.clear_cmdlog()
    assert (ask(sandbox, daemon, req, out=out)[0], sandbox.cmdlog()) == (want, cmds)
    assert (sandbox.read_text(LOCKS + "sdb") if lock else None) == after

"""Disk inventory on fake /proc/partitions, /etc/mtab and /sys/block, over real tmpfs mounts under the share
root (1 MiB: "1.0M" used "0K")."""
import pytest

from devices_util import answer, ask

SHARE, VOL_ID, LOCKS, HEADER = "/tmp/media/share", "/lib/udev/vol_id", "/var/lib/hxsim-diskunlock", "major minor  #blocks  name\n\n"
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


ONE = dict(disks=[SDA], mtab=[A1])
P17 = [(f"/dev/sda{i}", f"P{i}", "ext4") for i in range(17, 0, -1)]
ROWS = [
    r("status-none", "diskstatus", status("0K"), "di.sector_num = 0\n"),
    r("status-share-only", "diskstatus", status("1.00G", ("USB_A1", "fat"), ("BIG", "ext4", {"capacity": "2.00G", "used": "0K", "avai": "2.00G"})), "di.sector_num = 2\n",
      [[VOL_ID, "-t", "/dev/sda1"], [VOL_ID, "-t", "/dev/sda2"]], disks=[("sda", "ATA", "Disk", 2097152), ("sdb", "SD", "Card", 4096)],
      mtab=[("rootfs", "/", "rootfs"), A1, ("ramdisk", "RAM", "ramfs"), ("/dev/sdb1", "/tmp/elsewhere", "ext4"),
            ("/dev/sda2", "BIG", "ext4"), ("/dev/sdb1", "missing", "ext4")]),
    r("status-disk-of-first", "diskstatus", status("0K", ("TMP", "ext4"), ("USB_A1", "fat")), disks=[SDA],
      mtab=[("hxtmp", "TMP", "tmpfs"), A1]),
    r("status-label-63", "diskstatus", status("1.0M", ("L" * 63, "fat")), disks=[SDA], mtab=[("/dev/sda1", "L" * 100, "vfat")]),
    r("status-no-size", "diskstatus", {"diskstatus": ""}, "fopen failed\n", mtab=[A1]),
    r("status-no-mtab", "diskstatus", {"diskstatus": ""}, "open /etc/mtab failed\n", rm=["/etc/mtab"]),
    *[r(f"vol-id-{i}", "diskstatus", status("1.0M", ("USB_A1", t)), vol="printf '%s\\n' " + " ".join(f"'{x}'" for x in lines), **ONE)
      for i, (lines, t) in enumerate([(["vfat"], "fat"), (["ext4"], "ext4"), (["abcdefghij"], "abcdefghij"),
                                      (["abcdefghijk"], "Unknown"), ([""], ""), (["probing", "vfat"], "fat"),
                                      (["x" * 40, "ext4"], "ext4"), (["vfat", "y" * 15], "Unknown"),
                                      (["vfat", "y" * 40], "Unknown"), (["vfat", ""], "")])],
    r("vol-id-missing", "diskstatus", status("1.0M", ("USB_A1", "Unknown")), "vol_id not exist\ndi.sector_num = 1\n",
      rm=[VOL_ID], **ONE),
    r("vol-id-no-shell", "diskstatus", status("1.0M", ("USB_A1", "Unknown")), cmds=[], disks=[SDA],
      mtab=[("/dev/sda1;reboot", "USB_A1", "vfat")]),
    r("list", "disk_list", listing(("sda", "ATA" + " " * 6 + "Flash Disk", "1", "1.00G", [("USB_A", "ext4"), ("USB_A2", "ext4"), ("USB_A10", "ext4")]),
                                   ("sdb", "Generic SD Reader", "0", "4.0M", [("SD_B1", "ext4")])),
      p=parts("sda", "sda2", "sda10", "sdb", "sdb1"), disks=[("sda", "ATA" + " " * 5, "Flash Disk", 2097152), ("sdb", "Generic", "SD Reader", 8192, "usb1/1-1/1-1.3")],
      mtab=[("/dev/sda10", "USB_A10", "ext4"), ("/dev/sdb1", "SD_B1", "vfat"), ("/dev/sda2", "USB_A2", "ext4"), ("/dev/sda", "USB_A", "ext4")]),
    r("list-unmounted", "disk_list", listing(("sda", "ATA Disk", "1", "1023K", [])), p=parts("sda"), disks=[("sda", "ATA", "Disk", 2046)]),
    r("list-sd-disks-only", "disk_list", listing(("sda", "ATA Disk", "1", "1.0M", [])), disks=[SDA],
      p=HEADER + " 179 0 7761920 mmcblk0\n   7 8 1024 loop8\n   8 0 1024 sda\n   8 1 1024 sda1\n"),
    r("list-eight-disks", "disk_list", listing(*((n, f"V {n}", "1", "1.0M", []) for n in "sda sdb sdc sdd sde sdf sdg sdh".split())),
      p=parts(*"sda sdb sdc sdd sde sdf sdg sdh sdi".split()), disks=[(n, "V", n, 2048) for n in "sda sdb sdc sdd sde sdf sdg sdh sdi".split()]),
    r("probe-eight-disks", "disk_probe", {"disk_probe": {"disk_num": "8", "lock_info": [
        {"disk_name": n, "lock_state": "Unlocked"} for n in "sda sdb sdc sdd sde sdf sdg sdh".split()]}},
      p=parts(*"sda sdb sdc sdd sde sdf sdg sdh sdi".split())),
    r("list-16-partitions", "disk_list", listing(("sda", "ATA Disk", "1", "1.0M", [(f"P{i}", "ext4") for i in range(2, 18)])),
      p=parts("sda"), disks=[SDA], mtab=P17),
    r("status-16-partitions", "diskstatus", None, "di.sector_num = 16\n", disks=[SDA], mtab=P17),
    r("list-no-model", "disk_list", {"disk_list": ""}, "open model file failed\n", p=parts("sda", "sdb"), disks=[SDA, ("sdb",) + SDA[1:]],
      rm=["/sys/block/sdb/device/model"]),
    r("list-no-vendor", "disk_list", {"disk_list": ""}, "open vendor file failed\n", p=parts("sda")),
    r("list-no-link", "disk_list", listing(("sda", "ATA Disk", "0", "2K", [])), "readlink for media_type error\n", p=parts("sda"),
      files={"device/vendor": "ATA\n", "device/model": "Disk\n", "size": "4\n"}),
    r("list-no-size", "disk_list", listing(("sda", "ATA Disk", "0", "0K", [])), "fopen failed\n", p=parts("sda"), disks=[SDA],
      rm=["/sys/block/sda/size"]),
    r("probe", "disk_probe", {"disk_probe": {"disk_num": "4", "lock_info": [{"disk_name": n, "lock_state": s} for n, s in [
        ("sda", "Unlocked"), ("sdb", "Locked"), ("sdc", "Unlocks Exceeded"), ("sdd", "Error")]]}},
      p=parts("sda", "sdb", "sdc", "sdd"), files={f"{LOCKS}/sdb": "1\n3\ns\n", f"{LOCKS}/sdc": "2\n0\ns\n", f"{LOCKS}/sdd": "garbage\n"}),
    r("probe-none", "disk_probe", {"disk_probe": {"disk_num": "0", "lock_info": []}}),
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
    reply, got = ask(sandbox, daemon, None, [item])
    if out is None:
        out = f"di.sector_num = {want[item]['partition_num']}\n" if item == "diskstatus" else ""
    assert (reply if want is None else answer(want), got) == (reply, out)
    assert cmds is None or sandbox.cmdlog() == cmds

"""Backing up the SD card onto the first USB disk (a tmpfs at USB_A1) and its backup log. The card is sdb
on the card-reader port, 62333952 sectors (named 32GB); the copy script stub copies the card, appends
a log record and posts "sync_signal" "stop"."""
import re

import pytest

from devices_util import INTERNAL, INVALID, NULL, SUCCESS, answer, ask, infos, result, same
from helpers import revalidate, send, stdout_since, store_restore, wait_for

SCRIPT, SHARE = "/etc/app/sync/gw_copy_prog.sh", "/tmp/media/share"
USB, CARD, BLKID = f"{SHARE}/USB_A1", f"{SHARE}/sdcard", "/sbin/blkid"
DEST, LOG = f"{USB}/Owner1/Backup/SD Card 32GB 1A2B-3C4D", f"{USB}/.log/sync.log"
SYNC_INTERNAL, BUSY, LOW = result("sync_internal_error"), result("sync_task_busy"), result("sync_low_battery_power")
PARTITIONS = "major minor  #blocks  name\n\n   8 0 7814144 sda\n   8 1 7813120 sda1\n   8 16 31166976 sdb\n"
COPY = f"""[ "$1" = 1 ] && cp -a {CARD}/. "$3"/
mkdir -p {USB}/.log
echo "2026-11-22;;log_id=1;;result=success;;sync_type=manual;;dest_dir=$3;;file_count=1;;oldest_file=p1.jpg\
;;oldest_time=100;;newest_file=p1.jpg;;newest_time=200" >> {LOG}
sysconf --store rtconf --raw set sync_result 1
hxctl revalidate sync_signal stop > /dev/null
"""
STORES = {("rtconf", "first_mnt_dir"): f'"{USB}"'.encode() + b"\0", ("rtconf", "sd_state"): b'"on"\0',
          ("sysconf", "active_user"): b'"user1_name"\0'}
BLKID_LINE, RUN_BLKID, DLNA = '/dev/sdb1: LABEL="SD" UUID="1A2B-3C4D" TYPE="vfat"', ["/usr/sbin/blkid", "/dev/sdb1"], \
    ["/etc/demo/minidlna_stop.sh"]


@pytest.fixture
def sd(sandbox, daemon):
    sandbox.add_disk("sda", "USB", "Disk", 15628288, usb_port_path="usb1/1-1/1-1.1")
    sandbox.add_disk("sdb", "Generic", "SD Reader", 62333952)
    sandbox.set_partitions(PARTITIONS)
    sandbox.run(["sh", "-c", f"mkdir -p {USB} {CARD}/DCIM && echo photo > {CARD}/DCIM/p1.jpg && "
                 f"(mountpoint -q {USB} || mount -t tmpfs tmpfs {USB}) && rm -rf {USB}/* {USB}/.log"], check=True)
    for key, raw in STORES.items():
        sandbox.store_set(*key, raw)
    sandbox.stub(BLKID, f"echo '{BLKID_LINE}'\n")
    sandbox.stub(SCRIPT, COPY)
    sandbox.set_battery("87\n", "Discharging\n")
    sandbox.clear_cmdlog()
    return sandbox


def r(id, want=SUCCESS, dest=DEST, out=None, action="start", raw={}, blkid=BLKID_LINE, card=True, bat="87\n",
      cmds=None):
    return pytest.param(action, want, dest, out, raw, blkid, card, bat, cmds, id=id)


PLAIN, FOUND = f"{USB}/Owner1/Backup/SD Card", "\nget sdcard, name = sdb\nsd name = SD Card 32GB 1A2B-3C4D\n"
ROWS = [
    r("copied", cmds=[RUN_BLKID, DLNA, [SCRIPT, "1", f"{SHARE}/", DEST]], out=re.compile(re.escape(FOUND) + "(?s:.*)")),
    r("no-card", dest=PLAIN, card=None, out=re.compile(r"(?s).*\nget disk list successfully, buy can't find sdcard\n.*")),
    r("disk-list-fails", dest=PLAIN, card=False),
    r("charging", bat=("1\n", "Charging\n")), r("battery-2", bat=("2\n", "Discharging\n")),
    r("battery-low", LOW, None, bat=("1\n", "Discharging\n")),
    r("card-off", result("sync_no_sdcard_found"), None, "no sdcard found\n", raw={("rtconf", "sd_state"): b'"off"\0'},
      cmds=[]),
    r("cancel-card-off", result("sync_no_sdcard_found"), None, "no sdcard found\n", "cancel",
      raw={("rtconf", "sd_state"): b'"off"\0'}, cmds=[]),
    *[r(f"{a}-does-nothing", dest=None, out=FOUND, action=a, cmds=[RUN_BLKID]) for a in ("pause", "other")],
    *[r(f"{k}-{v!r}", SYNC_INTERNAL, None, m + "\n", raw={(s, k): v}) for s, k, v, m in [
        ("rtconf", "sd_state", None, "rtConfGet error for sd_state"),
        ("rtconf", "sd_state", b"on\0", "token parse error for sd_state"),
        ("rtconf", "first_mnt_dir", None, "rtConfGet error for first_mnt_dir"),
        ("rtconf", "first_mnt_dir", b"{\0", "token parse error for first_mnt_dir"),
        ("rtconf", "first_mnt_dir", b'"/mnt/usb"\0', "MOUNT_DIR error"),
        ("sysconf", "active_user", None, "sysConfGet error for active_user name"),
        ("sysconf", "active_user", b"user1\0", "token parse error for active_user")]],
    r("unsafe-uuid", SYNC_INTERNAL, None, blkid='/dev/sdb1: UUID="$(reboot)" TYPE="vfat"'),
]


@pytest.mark.parametrize("action, want, dest, out, raw, blkid, card, bat, cmds", ROWS)
def test_sd_copy(sd, daemon, action, want, dest, out, raw, blkid, card, bat, cmds):
    for key, value in raw.items():
        store_restore(sd, *key, value)
    sd.stub(BLKID, f"echo '{blkid}'\n")
    if card is None:
        sd.remove_disk("sdb")
        sd.set_partitions(PARTITIONS.split("   8 16")[0])
    elif card is False:
        sd.remove("/sys/block/sdb/device/model")
    sd.set_battery(*bat) if isinstance(bat, tuple) else None
    before = daemon.stdout()
    assert revalidate(sd, {"sd_copy": {"action": action}}) == want
    if dest:
        wait_for(lambda: daemon.stdout().count("sync_result = ") > before.count("sync_result = "))
        assert sd.read(f"{dest}/DCIM/p1.jpg") == b"photo\n"
    got = stdout_since(sd, daemon, before)
    assert out is None or same(got, out), got
    assert [c for c in sd.cmdlog() if c[0] == SCRIPT] == ([[SCRIPT, "1", f"{SHARE}/", dest]] if dest else [])
    assert cmds is None or sd.cmdlog() == cmds
    assert dest or not sd.exists(f"{USB}/Owner1")


@pytest.mark.parametrize("value, want", [(None, INVALID), ({}, INVALID), ({"action": 1}, INTERNAL)])
def test_sd_copy_arguments(sd, daemon, value, want):
    assert revalidate(sd, {"sd_copy": value}) == want and sd.cmdlog() == []


def test_busy_then_cancel(sd, daemon):
    sd.stub(SCRIPT, "exit 0\n")
    assert revalidate(sd, {"sd_copy": {"action": "start"}}) == SUCCESS
    wait_for(lambda: infos(sd, "backup_stat")["backup_stat"][0]["status"] == "2" and len(sd.cmdlog()) == 3)
    assert revalidate(sd, {"sd_copy": {"action": "start"}}) == BUSY
    sd.clear_cmdlog()
    sd.set_battery("0\n", "Discharging\n")  # a cancel is not held back by the battery
    assert revalidate(sd, {"sd_copy": {"action": "cancel"}}) == SUCCESS
    assert sd.cmdlog() == [["/usr/bin/killall", "-9", "mcp"], ["/usr/bin/killall", "-9", "find"]]
    seen = daemon.stdout().count("sync_result = ")
    assert revalidate(sd, {"sync_signal": {"action": "stop"}}) == SUCCESS
    wait_for(lambda: daemon.stdout().count("sync_result = ") > seen)
    assert infos(sd, "backup_stat")["backup_stat"][0]["status"] == "5"


def test_backup_log(sd, daemon):
    assert ask(sd, daemon, None, ["sd_backup_logs"]) == (answer({"sd_backup_logs": {
        "log_num": "0", "log_id_latest": "0", "log_list": []}}), "")
    revalidate(sd, {"sd_copy": {"action": "start"}})
    wait_for(lambda: sd.exists(LOG))
    assert send(sd, {"method": "pref-get", "arguments": {"confs": [], "infos": ["sd_backup_logs"]}}) == answer(
        {"sd_backup_logs": {"log_num": "1", "log_id_latest": "1", "log_list": [{
            "id": "1", "result": "success", "type": "manual", "des": DEST, "file_count": "1", "oldest_file": "p1.jpg",
            "oldest_time": "100", "newest_file": "p1.jpg", "newest_time": "200"}]}})
    for raw, message in [(None, "rtConfGet error for first_mnt_dir"), (b"not json\0", "token parse error for first_mnt_dir")]:
        store_restore(sd, "rtconf", "first_mnt_dir", raw)
        assert ask(sd, daemon, None, ["sd_backup_logs"]) == (answer({}), message + "\n")


@pytest.mark.parametrize("sd_state, mtab, value", [
    (b'"on"\0', f"/dev/sdb1 {CARD} vfat", "in"), (b'"on"\0', f"/dev/sda1 {USB} vfat", "out"),
    (b'"on"\0', f"tmpfs {CARD} tmpfs", "out"), (None, f"/dev/sdb1 {CARD}1 vfat", "in"),
    (b'"off"\0', f"/dev/sdb1 {CARD} vfat", "out"), (b"on\0", f"/dev/sdb1 {CARD} vfat", "out"),
    (b'"on"\0', None, "umount failed: open /etc/mtab failed\n")])
def test_card_status(sd, daemon, sd_state, mtab, value):
    store_restore(sd, "rtconf", "sd_state", sd_state)
    sd.remove("/etc/mtab") if mtab is None else sd.set_mtab(mtab + " rw 0 0\n")
    want = (answer({}), value) if mtab is None else (answer({"sdcard_status": value}), "")
    assert ask(sd, daemon, None, ["sdcard_status"]) == want

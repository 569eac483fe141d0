"""Backing up the SD card (sdb, 32GB) onto the first USB disk (a tmpfs); the COPY stub copies the card, appends a log
record, stores the result and posts "sync_signal" "stop"."""
import re

import pytest

from devices_util import INVALID, SUCCESS, answer, ask, matches, result
from helpers import revalidate, stdout_since, store_restore, wait_for
from hxfakes import BLKID, CARD_BLKID, CARD_DIR, COPY_SCRIPT, PARTITIONS, SHARE, USB_DIR, copy_script, plug_usb_and_card

SCRIPT, USB, CARD, UUID, PARTS = COPY_SCRIPT, USB_DIR, CARD_DIR, CARD_BLKID, PARTITIONS
DEST, LOG, PLAIN = f"{USB}/Owner1/Backup/SD Card 32GB 1A2B-3C4D", f"{USB}/.log/sync.log", f"{USB}/Owner1/Backup/SD Card"
SYNC_INTERNAL, NO_CARD, LOW = result("sync_internal_error"), result("sync_no_sdcard_found"), result("sync_low_battery_power")
FOUND = "\nget sdcard, name = sdb\nsd name = SD Card 32GB 1A2B-3C4D\n"
COPY = copy_script("2026-11-22;;log_id=1;;result=success;;sync_type=manual;;dest_dir=$3;;file_count=1;;oldest_file=p1.jpg"
                   ";;oldest_time=100;;newest_file=p1.jpg;;newest_time=200")


@pytest.fixture
def sd(sandbox, daemon):
    plug_usb_and_card(sandbox)
    sandbox.run(["sh", "-c", f"mkdir -p {USB} {CARD}/DCIM && echo photo > {CARD}/DCIM/p1.jpg && "
                 f"(mountpoint -q {USB} || mount -t tmpfs tmpfs {USB}) && rm -rf {USB}/* {USB}/.log"], check=True)
    sandbox.store_set("sysconf", "active_user", b'"user1_name"\0')
    sandbox.stub(SCRIPT, COPY)
    sandbox.set_battery("87\n", "Discharging\n")
    sandbox.clear_cmdlog()
    return sandbox


def r(want=SUCCESS, dest=DEST, out=None, action="start", raw={}, blkid=UUID, card=True, bat=("87\n", "Full\n"), cmds=None):
    return {"action": action} if action else None, want, dest, out, raw, blkid, card, bat, cmds


@pytest.mark.parametrize("value, want, dest, out, raw, blkid, card, bat, cmds", [
    r(out=re.compile(re.escape(FOUND) + "(?s:.*)"), cmds=[["/usr/sbin/blkid", "/dev/sdb1"], ["/etc/demo/minidlna_stop.sh"],
                                                          [SCRIPT, "1", f"{SHARE}/", DEST]]),
    r(dest=PLAIN, card=None, out=re.compile(r"(?s).*\nget disk list successfully, buy can't find sdcard\n.*")),
    r(dest=PLAIN, card=False), r(bat=("1\n", "Charging\n")), r(LOW, None, bat=("1\n", "Discharging\n")),
    r(NO_CARD, None, "no sdcard found\n", raw={("rtconf", "sd_state"): b'"off"\0'}, cmds=[]),
    r(SUCCESS, None, FOUND, "pause", cmds=[["/usr/sbin/blkid", "/dev/sdb1"]]),
    *[r(SYNC_INTERNAL, None, m + "\n", raw={(s, k): v}) for s, k, v, m in [
        ("rtconf", "sd_state", b"on\0", "token parse error for sd_state"),
        ("rtconf", "first_mnt_dir", None, "rtConfGet error for first_mnt_dir"),
        ("rtconf", "first_mnt_dir", b'"/mnt/usb"\0', "MOUNT_DIR error"),
        ("sysconf", "active_user", b"user1\0", "token parse error for active_user")]],
    r(SYNC_INTERNAL, None, blkid='/dev/sdb1: UUID="$(reboot)" TYPE="vfat"'), r(INVALID, None, action=None, cmds=[])])
def test_sd_copy(sd, daemon, value, want, dest, out, raw, blkid, card, bat, cmds):
    for key, v in raw.items():
        store_restore(sd, *key, v)
    sd.stub(BLKID, f"echo '{blkid}'\n")
    if card is None:
        sd.remove_disk("sdb")
        sd.set_partitions(PARTS.split("   8 16")[0])
    elif card is False:
        sd.remove("/sys/block/sdb/device/model")
    sd.set_battery(*bat)
    before = daemon.stdout()
    assert revalidate(sd, {"sd_copy": value}) == want
    if dest:
        wait_for(lambda: daemon.stdout().count("sync_result = ") > before.count("sync_result = "))
        assert sd.read(f"{dest}/DCIM/p1.jpg") == b"photo\n"
    got = stdout_since(sd, daemon, before)
    assert matches(out, got), got
    assert [c for c in sd.cmdlog() if c[0] == SCRIPT] == ([[SCRIPT, "1", f"{SHARE}/", dest]] if dest else [])
    assert (cmds is None or sd.cmdlog() == cmds) and (dest or not sd.exists(f"{USB}/Owner1"))


def test_backup_log(sd, daemon):
    logs = {"log_num": "0", "log_id_latest": "0", "log_list": []}
    assert ask(sd, daemon, None, ["sd_backup_logs"], "")[0] == answer({"sd_backup_logs": logs})
    start, _ = daemon.stdout(), revalidate(sd, {"sd_copy": {"action": "start"}})
    wait_for(lambda: "sync_result = " in daemon.stdout()[len(start):])     # the worker's last line
    assert ask(sd, daemon, None, ["sd_backup_logs"])[0] == answer({"sd_backup_logs": {"log_num": "1", "log_id_latest": "1", "log_list": [{
        "id": "1", "result": "success", "type": "manual", "des": DEST, "file_count": "1", "oldest_file": "p1.jpg", "oldest_time": "100",
        "newest_file": "p1.jpg", "newest_time": "200"}]}})
    store_restore(sd, "rtconf", "first_mnt_dir", b"not json\0")
    assert ask(sd, daemon, None, ["sd_backup_logs"], "token parse error for first_mnt_dir\n")[0] == answer({})

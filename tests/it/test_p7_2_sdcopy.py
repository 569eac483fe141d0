"""Part 7.2: SD-card copy and backup log, through the real daemon.

The device: a USB disk (sda, port 1-1.1) and an SD card on the card-reader
port (sdb, "usb1/1-1/1-1.4", 62333952 sectors = 31 914 983 424 bytes, named
32GB) under the fake /sys/block and /proc/partitions; the blkid stub prints
the card's UUID; the first USB disk is a tmpfs mounted at
/tmp/media/share/USB_A1; the card's files are in /tmp/media/share/sdcard.
The copy-script stub copies the card into the destination (a task of type
1), appends a record to the backup log "/.log/sync.log" on the first disk,
stores "sync_result" 1 and posts "sync_signal" "stop".
"""
import json

import pytest

from helpers import revalidate, send, stdout_since, wait_for

SCRIPT = "/etc/app/sync/gw_copy_prog.sh"
BLKID = "/sbin/blkid"
BLKID_RUN = "/usr/sbin/blkid"  # found on PATH (merged /usr: the same stub)
MINIDLNA_STOP = "/etc/demo/minidlna_stop.sh"
SHARE = "/tmp/media/share"
USB = f"{SHARE}/USB_A1"
CARD = f"{SHARE}/sdcard"
LOG = f"{USB}/.log/sync.log"
FOLDER = "SD Card 32GB 1A2B-3C4D"
DEST = f"{USB}/Owner1/Backup/{FOLDER}"
BLKID_LINE = '/dev/sdb1: LABEL="SD" UUID="1A2B-3C4D" TYPE="vfat"'
PARTITIONS = """major minor  #blocks  name

   8        0    7814144 sda
   8        1    7813120 sda1
   8       16   31166976 sdb
   8       17   31162880 sdb1
"""


def reply(result):
    return ('{ "arguments": { }, "result": "%s" }' % result).encode()


SUCCESS = reply("success")
INVALID = reply("invalid arguments")
INTERNAL = reply("internal error")
SYNC_INTERNAL = reply("sync_internal_error")
BUSY = reply("sync_task_busy")
LOW = reply("sync_low_battery_power")
NO_CARD = reply("sync_no_sdcard_found")

COPY = """case "$1" in
1) cp -a /tmp/media/share/sdcard/. "$3"/ ;;
*) cp -a "$2" "$3"/ ;;
esac
mkdir -p /tmp/media/share/USB_A1/.log
N=$(($(cat /tmp/media/share/USB_A1/.log/sync.log 2>/dev/null | wc -l) + 1))
echo "2026-11-22;;log_id=$N;;result=success;;sync_type=manual;;dest_dir=$3;;file_count=1\
;;oldest_file=p1.jpg;;oldest_time=100;;newest_file=p1.jpg;;newest_time=200" \
>> /tmp/media/share/USB_A1/.log/sync.log
sysconf --store rtconf --raw set sync_result 1
hxctl revalidate sync_signal stop > /dev/null
"""
HOLD = "exit 0\n"


def sd_copy(sandbox, action):
    return revalidate(sandbox, {"sd_copy": {"action": action}})


def infos(sandbox, item):
    r = send(sandbox, {"method": "pref-get", "arguments": {"confs": [], "infos": [item]}})
    return json.loads(r)["arguments"]["infos"]


def status(sandbox):
    return infos(sandbox, "backup_stat")["backup_stat"][0]["status"]


def script_runs(sandbox):
    return [argv for argv in sandbox.cmdlog() if argv[0] == SCRIPT]


def results_seen(daemon):
    # The worker prints "sync_result = N" before it sets the status, so the
    # tests wait for the status itself rather than read it after the print.
    return daemon.stdout().count("sync_result = ")


def run_copy(sandbox, daemon):
    """sd_copy "start" with the COPY stub, to the end of the task."""
    seen = results_seen(daemon)
    result = sd_copy(sandbox, "start")
    if result == SUCCESS:
        wait_for(lambda: results_seen(daemon) > seen)
    return result


@pytest.fixture(scope="module")
def device(daemon, sandbox):
    sandbox.add_disk("sda", "USB", "Disk", 15628288, usb_port_path="usb1/1-1/1-1.1")
    sandbox.add_disk("sdb", "Generic", "SD Reader", 62333952)
    sandbox.set_partitions(PARTITIONS)
    sandbox.run(["mkdir", "-p", USB, CARD + "/DCIM"], check=True)
    sandbox.run(["mount", "-t", "tmpfs", "tmpfs", USB], check=True)
    sandbox.write(f"{CARD}/DCIM/p1.jpg", b"photo\n")
    yield
    sandbox.run(["umount", USB])


@pytest.fixture
def sd(device, daemon, sandbox):
    sandbox.stub(BLKID, f"echo '{BLKID_LINE}'\n")
    sandbox.stub(SCRIPT, COPY)
    sandbox.store_set("rtconf", "first_mnt_dir", b'"/tmp/media/share/USB_A1"\0')
    sandbox.store_set("rtconf", "sd_state", b'"on"\0')
    sandbox.store_set("sysconf", "active_user", b'"user1_name"\0')
    sandbox.set_battery("87\n", "Discharging\n")
    sandbox.run(["sh", "-c", f"rm -rf {USB}/* {USB}/.log"], check=True)
    sandbox.add_disk("sdb", "Generic", "SD Reader", 62333952)
    sandbox.set_partitions(PARTITIONS)
    sandbox.clear_cmdlog()
    yield
    sandbox.stub(SCRIPT, HOLD)


def test_start_copies_the_card(daemon, sandbox, sd):
    before = daemon.stdout()
    assert run_copy(sandbox, daemon) == SUCCESS
    wait_for(lambda: status(sandbox) == "4")
    log = sandbox.cmdlog()
    assert log[0] == [BLKID_RUN, "/dev/sdb1"]
    assert log[1] == [MINIDLNA_STOP]
    assert log[2] == [SCRIPT, "1", f"{SHARE}/", DEST]
    assert sandbox.read(f"{DEST}/DCIM/p1.jpg") == b"photo\n"
    out = stdout_since(sandbox, daemon, before)
    assert out.startswith("\nget sdcard, name = sdb\nsd name = SD Card 32GB 1A2B-3C4D\n")


def test_backup_logs_read_the_log_the_script_wrote(daemon, sandbox, sd):
    assert run_copy(sandbox, daemon) == SUCCESS
    r = send(sandbox, {"method": "pref-get",
                       "arguments": {"confs": [], "infos": ["sd_backup_logs"]}})
    dest = DEST.replace("/", "\\/")
    assert r == (
        b'{ "arguments": { "confs": { }, "infos": { "sd_backup_logs": { "log_num": "1", '
        b'"log_id_latest": "1", "log_list": [ { "id": "1", "result": "success", '
        b'"type": "manual", "des": "' + dest.encode() + b'", "file_count": "1", '
        b'"oldest_file": "p1.jpg", "oldest_time": "100", "newest_file": "p1.jpg", '
        b'"newest_time": "200" } ] } } }, "result": "success" }')


def test_log_of_51_records_keeps_50(daemon, sandbox, sd):
    lines = "".join(";;log_id=%d;;dest_dir=d%d\n" % (i, i) for i in range(1, 52))
    sandbox.write(LOG, ("header line\n" + lines).encode())
    logs = infos(sandbox, "sd_backup_logs")["sd_backup_logs"]
    assert logs["log_num"] == "50"
    assert logs["log_id_latest"] == "51"
    assert len(logs["log_list"]) == 50
    assert logs["log_list"][0]["id"] == "51" and logs["log_list"][0]["des"] == "d51"
    assert [x["id"] for x in logs["log_list"][1:]] == [str(i) for i in range(2, 51)]


def test_log_defaults_manual_and_success(daemon, sandbox, sd):
    sandbox.write(LOG, b";;log_id=4;;dest_dir=x\n;;log_id=2;;result=failed;;sync_type=auto\n")
    logs = infos(sandbox, "sd_backup_logs")["sd_backup_logs"]
    assert logs["log_num"] == "2" and logs["log_id_latest"] == "4"
    first, second = logs["log_list"]
    assert (first["result"], first["type"]) == ("success", "manual")
    assert (second["result"], second["type"]) == ("failed", "auto")
    assert first["file_count"] == "0" and first["oldest_file"] == ""


def test_log_missing_is_empty(daemon, sandbox, sd):
    assert infos(sandbox, "sd_backup_logs") == {
        "sd_backup_logs": {"log_num": "0", "log_id_latest": "0", "log_list": []}}


@pytest.mark.parametrize("raw, message", [
    (None, "rtConfGet error for first_mnt_dir"),
    (b"not json\0", "token parse error for first_mnt_dir"),
])
def test_log_without_first_mnt_dir(daemon, sandbox, sd, raw, message):
    if raw is None:
        sandbox.store_delete("rtconf", "first_mnt_dir")
    else:
        sandbox.store_set("rtconf", "first_mnt_dir", raw)
    before = daemon.stdout()
    assert infos(sandbox, "sd_backup_logs") == {}
    assert stdout_since(sandbox, daemon, before) == message + "\n"


def test_pause_changes_nothing(daemon, sandbox, sd):
    last = infos(sandbox, "backup_stat")
    assert sd_copy(sandbox, "pause") == SUCCESS
    assert sd_copy(sandbox, "other") == SUCCESS
    # the destination is worked out (blkid runs), nothing is started
    assert sandbox.cmdlog() == [[BLKID_RUN, "/dev/sdb1"]] * 2
    assert infos(sandbox, "backup_stat") == last
    assert not sandbox.exists(f"{USB}/Owner1")


def test_no_card_gives_plain_folder(daemon, sandbox, sd):
    sandbox.remove_disk("sdb")
    sandbox.set_partitions(PARTITIONS.split("   8       16")[0])
    before = daemon.stdout()
    assert run_copy(sandbox, daemon) == SUCCESS
    assert script_runs(sandbox) == [[SCRIPT, "1", f"{SHARE}/", f"{USB}/Owner1/Backup/SD Card"]]
    assert sandbox.exists(f"{USB}/Owner1/Backup/SD Card/DCIM/p1.jpg")
    assert "\nget disk list successfully, buy can't find sdcard\n" in \
        stdout_since(sandbox, daemon, before)


def test_disk_list_failure_gives_plain_folder(daemon, sandbox, sd):
    sandbox.remove(f"/sys/block/sdb/device/model")
    assert run_copy(sandbox, daemon) == SUCCESS
    assert script_runs(sandbox) == [[SCRIPT, "1", f"{SHARE}/", f"{USB}/Owner1/Backup/SD Card"]]


@pytest.mark.parametrize("line, folder", [
    ('/dev/sdb1: LABEL="SD" UUID="1A2B-3C4D"', FOLDER),
    ('/dev/sdb1: LABEL="SD" TYPE="vfat"', "SD Card 32GB 0000-0000"),
])
def test_uuid_variants(daemon, sandbox, sd, line, folder):
    sandbox.stub(BLKID, f"echo '{line}'\n")
    assert run_copy(sandbox, daemon) == SUCCESS
    assert script_runs(sandbox) == [[SCRIPT, "1", f"{SHARE}/", f"{USB}/Owner1/Backup/{folder}"]]


@pytest.mark.parametrize("user, folder", [
    (b'"user0_name"\0', "Default user"),
    (b'"user3_name"\0', "Owner3"),
    (b'"nobody"\0', ""),
])
def test_owner_folders(daemon, sandbox, sd, user, folder):
    sandbox.store_set("sysconf", "active_user", user)
    assert run_copy(sandbox, daemon) == SUCCESS
    assert script_runs(sandbox) == [[SCRIPT, "1", f"{SHARE}/", f"{USB}/{folder}/Backup/{FOLDER}"]]


def test_card_off(daemon, sandbox, sd):
    sandbox.store_set("rtconf", "sd_state", b'"off"\0')
    before = daemon.stdout()
    assert sd_copy(sandbox, "start") == NO_CARD
    assert sd_copy(sandbox, "cancel") == NO_CARD
    assert stdout_since(sandbox, daemon, before) == "no sdcard found\n" * 2
    assert sandbox.cmdlog() == []


@pytest.mark.parametrize("store, key, raw, message", [
    ("rtconf", "sd_state", None, "rtConfGet error for sd_state"),
    ("rtconf", "sd_state", b"on\0", "token parse error for sd_state"),
    ("rtconf", "first_mnt_dir", None, "rtConfGet error for first_mnt_dir"),
    ("rtconf", "first_mnt_dir", b"{\0", "token parse error for first_mnt_dir"),
    ("rtconf", "first_mnt_dir", b'"/mnt/usb"\0', "MOUNT_DIR error"),
    ("sysconf", "active_user", None, "sysConfGet error for active_user name"),
    ("sysconf", "active_user", b"user1\0", "token parse error for active_user"),
])
def test_internal_errors(daemon, sandbox, sd, store, key, raw, message):
    if raw is None:
        sandbox.store_delete(store, key)
    else:
        sandbox.store_set(store, key, raw)
    before = daemon.stdout()
    assert sd_copy(sandbox, "start") == SYNC_INTERNAL
    assert stdout_since(sandbox, daemon, before) == message + "\n"
    assert script_runs(sandbox) == []


def test_unsafe_card_folder_is_refused(daemon, sandbox, sd):
    """DESIGN.md 8: a UUID that the shell would expand inside double quotes."""
    sandbox.stub(BLKID, """echo '/dev/sdb1: UUID="$(reboot)" TYPE="vfat"'\n""")
    assert sd_copy(sandbox, "start") == SYNC_INTERNAL
    assert script_runs(sandbox) == []


@pytest.mark.parametrize("value, result", [
    (None, INVALID),
    ({}, INVALID),
    ({"action": 1}, INTERNAL),
])
def test_bad_arguments(daemon, sandbox, sd, value, result):
    assert revalidate(sandbox, {"sd_copy": value}) == result
    assert sandbox.cmdlog() == []


@pytest.mark.parametrize("capacity, state, result", [
    ("1\n", "Discharging\n", LOW),
    ("1\n", "Charging\n", SUCCESS),
    ("2\n", "Discharging\n", SUCCESS),
])
def test_battery_guard(daemon, sandbox, sd, capacity, state, result):
    sandbox.set_battery(capacity, state)
    assert run_copy(sandbox, daemon) == result
    assert len(script_runs(sandbox)) == (result == SUCCESS)


def test_busy_and_cancel(daemon, sandbox, sd):
    sandbox.stub(SCRIPT, HOLD)
    assert sd_copy(sandbox, "start") == SUCCESS
    wait_for(lambda: status(sandbox) == "2" and script_runs(sandbox))
    assert sd_copy(sandbox, "start") == BUSY
    sandbox.clear_cmdlog()
    sandbox.set_battery("0\n", "Discharging\n")  # cancel comes before the battery guard
    assert sd_copy(sandbox, "cancel") == SUCCESS
    assert sandbox.cmdlog() == [["/usr/bin/killall", "-9", "mcp"],
                                ["/usr/bin/killall", "-9", "find"]]
    assert status(sandbox) == "5"
    seen = results_seen(daemon)
    assert revalidate(sandbox, {"sync_signal": {"action": "stop"}}) == SUCCESS
    wait_for(lambda: results_seen(daemon) > seen)
    assert status(sandbox) == "5"


@pytest.mark.parametrize("sd_state, mtab, value", [
    (b'"on"\0', "/dev/sdb1 /tmp/media/share/sdcard vfat rw 0 0\n", "in"),
    (b'"on"\0', "/dev/sda1 /tmp/media/share/USB_A1 vfat rw 0 0\n", "out"),
    (b'"on"\0', "tmpfs /tmp/media/share/sdcard tmpfs rw 0 0\n", "out"),
    (None, "/dev/sdb1 /tmp/media/share/sdcard1 vfat rw 0 0\n", "in"),
    (b'"off"\0', "/dev/sdb1 /tmp/media/share/sdcard vfat rw 0 0\n", "out"),
    (b'on\0', "/dev/sdb1 /tmp/media/share/sdcard vfat rw 0 0\n", "out"),
])
def test_sdcard_status(daemon, sandbox, sd, sd_state, mtab, value):
    if sd_state is None:
        sandbox.store_delete("rtconf", "sd_state")
    else:
        sandbox.store_set("rtconf", "sd_state", sd_state)
    sandbox.set_mtab(mtab)
    assert infos(sandbox, "sdcard_status") == {"sdcard_status": value}


def test_sdcard_status_without_mtab(daemon, sandbox, sd):
    sandbox.remove("/etc/mtab")
    before = daemon.stdout()
    assert infos(sandbox, "sdcard_status") == {}
    assert stdout_since(sandbox, daemon, before) == "umount failed: open /etc/mtab failed\n"
    sandbox.set_mtab("")

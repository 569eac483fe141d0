"""The device sandbox.

Runs hxsrvd and the device's stub programs with the device's exact paths, in
private mount, net, pid, uts and ipc namespaces, on an overlay of the host's
root whose upper layer is a tmpfs that exists only inside the mount namespace.
CAP_SYS_TIME, CAP_SYS_BOOT (and a few more, DROP_CAPS) are dropped from the
bounding and inheritable sets of every process inside.

The host reaches the sandbox's files through /proc/<init pid>/root; path()
resolves symlinks inside the sandbox so an absolute link (/var/run -> /run)
never leads back to the host.
"""
import atexit
import dbm.gnu
import errno
import ipaddress
import json
import os
import pty
import re
import resource
import select
import shlex
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import tty
import uuid

from hxdaemon import SOCKET, Daemon, all_pids, children, detaches, proc_status, wait_until
from hxfactory import FACTORY, json_record, jsonc_text, load_factory, plain_record

__all__ = ["Sandbox", "Daemon", "jsonc_text", "load_factory", "wait_until", "all_pids",
           "build_emulator", "build_command"]

SIM = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(SIM)

DROP_CAPS = "-sys_time,-sys_boot,-sys_module,-sys_rawio,-mknod"
SETPRIV = ["/usr/bin/setpriv", f"--inh-caps={DROP_CAPS}", f"--bounding-set={DROP_CAPS}"]
PATH_INSIDE = "/usr/sbin:/usr/bin:/sbin:/bin"
PASS_ENV = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS")

LOG_DIR = "/var/log/hxsim"
# A cross build's binaries (see _install_emulated).
TARGET_DIR = "/usr/lib/hxsim/target"
EMU_DIR = "/usr/lib/hxsim/emu"
CMD_LOG = LOG_DIR + "/cmd.log"
LOG_ARGV = "/usr/lib/hxsim/log-argv"
BATTERY = "/sys/class/power_supply/sp2566-0"
DISK_DEVICES = "/usr/lib/hxsim/sys/devices"

STORES = {
    "sysconf": "/mnt/rwdata/sysconf.gdbm",
    "rtconf": "/var/run/rtconf.gdbm",
    "sysinfo": "/mnt/rwdata/sysinfo.gdbm",
}
BINARIES = {
    "hxsrvd": "/usr/sbin/hxsrvd",
    "hxctl": "/usr/bin/hxctl",
    "sysconf": "/usr/bin/sysconf",
}
DIRS = (
    "/var/tmp", "/var/run", "/mnt/rwdata", "/tmp/media/share",
    "/var/run/wpa_supplicant", "/etc/app", "/etc/app/sync", "/etc/demo",
    "/etc/config", "/opt/web", LOG_DIR,
)
# Device programs replaced by stubs that log their argv to CMD_LOG and exit 0.
# With Debian's merged /usr, /sbin/x and /usr/sbin/x are one file, on PATH.
STUBS = (
    "/etc/app/gw_ssdpd.sh", "/etc/app/gw_simplefw.sh",
    "/etc/app/gw_udhcpc.script", "/etc/app/gw_udhcpc_lan.script",
    "/etc/app/gw_hd_safe_remove.sh", "/etc/app/gw_check_charger.sh",
    "/etc/app/gw_poweroff.sh", "/etc/app/gw_factoryreset.sh",
    "/etc/app/gw_fwupgrade.sh", "/etc/app/fw_upgrade.sh",
    "/etc/app/sync/gw_copy_prog.sh",
    "/etc/demo/minidlna_stop.sh", "/etc/demo/minidlna_start.sh",
    "/etc/demo/webdav_start.sh", "/etc/demo/webdav_stop.sh",
    "/etc/demo/samba_start.sh", "/etc/demo/samba_stop.sh",
    "/etc/app/gw_fm.sh", "/etc/app/gw_usbcharger.sh",
    "/usr/sbin/lan_callup.sh",
    "/sbin/uaputl.exe", "/usr/sbin/iwpriv", "/usr/sbin/iwconfig", "/sbin/iwlist",
    "/sbin/udhcpc", "/lib/udev/vol_id", "/sbin/blkid",
    "/usr/sbin/firewall", "/opt/sbin/iptables",
    "/usr/sbin/miniupnpd", "/usr/sbin/mini_httpd", "/usr/sbin/dnsmasq",
    "/usr/sbin/brctl", "/usr/bin/killall", "/sbin/ifconfig", "/sbin/route",
    "/sbin/reboot", "/sbin/poweroff", "/sbin/halt", "/sbin/shutdown",
)
# Real programs that stubs replaced, kept here (Sandbox.real, pass_through).
REAL_DIR = "/usr/lib/hxsim/real"
PMC_SCRIPT = "/usr/lib/hxsim/pmcontroller.py"
PMC_LOG = LOG_DIR + "/pmc.log"
LOG_ARGV_TEXT = """#!/usr/bin/python3 -SE
import json, os, sys
fd = os.open("%s", os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
os.write(fd, (json.dumps(sys.argv[1:]) + "\\n").encode())
""" % CMD_LOG
MARKER = re.compile(rb"\0hxsim-sync-[0-9a-f]{32}\0")


def build_emulator(build_dir):
    """The emulator command of a cross build (cmake/toolchain-*.cmake), e.g.
    ["qemu-mipsel", "-L", "/opt/hxsrvd-sysroot/mipsel-linux-gnu"], from the
    file BUILD/hx-emulator that CMakeLists.txt writes; [] for a native build."""
    try:
        with open(os.path.join(build_dir, "hx-emulator")) as f:
            return [line for line in f.read().splitlines() if line]
    except FileNotFoundError:
        return []


def build_command(build_dir, name):
    """The argv that runs the program NAME of build_dir on the host (outside
    any sandbox): through the build's emulator for a cross build.  Tests that
    compare what two builds write (a byte-order test runs build-s390x's
    sysconf and the native one) start their programs with it."""
    return [*build_emulator(build_dir), os.path.join(build_dir, name)]


def _lan_cidr():
    conf = load_factory("sysconf")
    try:
        addr = f"{conf['lan_ipaddr']}/{conf['lan_netmask']}"
        return ipaddress.IPv4Interface(addr).with_prefixlen
    except (KeyError, ValueError):
        return "192.168.100.1/24"


class Sandbox:
    """build_dir: where hxsrvd, hxctl and sysconf are ($HX_BUILD, else build/).
    A cross build's binaries run through its emulator (build_emulator), the
    daemon and the tools alike. wrapper ($HX_WRAPPER) goes in front of the
    daemon's command: for a native build, e.g. valgrind; for a cross build it
    replaces the emulator for the daemon, so it must be one (e.g. "qemu-mipsel
    -L ROOT -strace")."""

    def __init__(self, build_dir=None, seed=True, wrapper=None):
        self.build_dir = build_dir or os.environ.get("HX_BUILD") or os.path.join(REPO, "build")
        self.seed = seed
        if wrapper is None:
            wrapper = shlex.split(os.environ.get("HX_WRAPPER", ""))
        self.wrapper = list(wrapper)
        self.emulator = build_emulator(self.build_dir)
        self.state = None
        self.init_pid = None
        self._unshare = None
        self._procs = []
        self._daemons = []

    # life cycle

    def start(self):
        if self._unshare:
            return self
        _, hard = resource.getrlimit(resource.RLIMIT_CORE)
        resource.setrlimit(resource.RLIMIT_CORE, (0, hard))
        self.state = tempfile.mkdtemp(prefix="hxsim.", dir="/tmp")
        os.mkdir(os.path.join(self.state, "mnt"))
        open(self.console_log, "wb").close()
        atexit.register(self.stop)
        argv = ["setpriv", "--pdeathsig", "KILL",
                "unshare", "--mount", "--net", "--pid", "--uts", "--ipc",
                "--fork", "--kill-child", "--propagation", "private",
                *SETPRIV, "--", "/bin/sh", os.path.join(SIM, "sandbox-init.sh"),
                self.state, SIM, _lan_cidr()]
        # Always bound read-only at its own path: a checkout under /tmp or
        # /var/tmp would be hidden by the sandbox's own tmpfs there.
        argv.append(REPO)
        with open(os.path.join(self.state, "init.err"), "wb") as err:
            self._unshare = subprocess.Popen(
                argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=err, start_new_session=True)
        try:
            self._wait_ready()
            self._prepare()
        except BaseException:
            self.stop()
            raise
        return self

    def _wait_ready(self):
        out = self._unshare.stdout
        ready, _, _ = select.select([out], [], [], 30)
        line = out.readline() if ready else b""
        out.close()
        if line != b"ready\n":
            with open(os.path.join(self.state, "init.err"), errors="replace") as f:
                raise RuntimeError("sandbox did not start:\n" + f.read())
        self.init_pid = children(self._unshare.pid)[0]
        self._pidns = os.readlink(f"/proc/{self.init_pid}/ns/pid")
        self._mntns = os.readlink(f"/proc/{self.init_pid}/ns/mnt")

    def _prepare(self):
        for d in DIRS:
            os.makedirs(self.path(d), exist_ok=True)
        self.write(LOG_ARGV, LOG_ARGV_TEXT, mode=0o755)
        for p in STUBS:
            self._keep_real(p)
            self.stub(p, "exit 0\n")
        for name, dest in BINARIES.items():
            src = os.path.join(self.build_dir, name)
            if not os.path.isfile(src):
                continue
            if self.emulator:
                self._install_emulated(name, src, dest)
            else:
                self._replace(dest)
                shutil.copy(src, self.path(dest))
                os.chmod(self.path(dest), 0o755)
        self.set_battery("87\n", "Discharging\n")
        self.set_mtab("")
        if self.seed:
            self._seed()

    def _install_emulated(self, name, src, dest):
        """A cross build's binary goes to TARGET_DIR/NAME; DEST (the device's
        path) becomes a script that runs it through the emulator, so the
        binary can be run by its path, as on the device, without binfmt_misc.
        The emulator is started through a symbolic link named NAME, so the
        process's name (comm: pkill -x, killall) is NAME, as it would be with
        binfmt_misc; the program's argv[0] is the path the script was run by
        ($0: DEST, also when found on PATH)."""
        program = shutil.which(self.emulator[0])
        if not program:
            raise RuntimeError(f"{self.emulator[0]} (the emulator of {self.build_dir}) "
                               "is not installed: run scripts/install-cross-deps")
        target = f"{TARGET_DIR}/{name}"
        self._replace(target)
        shutil.copy(src, self.path(target))
        os.chmod(self.path(target), 0o755)
        link = f"{EMU_DIR}/{name}"
        self._replace(link)
        os.symlink(program, self._resolve(link, follow=False))
        args = shlex.join(self.emulator[1:])
        self._replace(dest)
        self.write(dest, f'#!/bin/sh\nexec {link} -0 "$0" {args} {target} "$@"\n', mode=0o755)

    def daemon_command(self, args=()):
        """The argv that start_daemon runs inside the sandbox."""
        if self.emulator and self.wrapper:
            return [*self.wrapper, f"{TARGET_DIR}/hxsrvd", *args]
        return [*self.wrapper, BINARIES["hxsrvd"], *args]

    def _seed(self):
        tool = self.exists(BINARIES["sysconf"])
        for store in STORES:
            values = load_factory(store)
            if tool and values:
                with open(os.path.join(FACTORY, store + ".json"), "rb") as f:
                    self.write(f"/usr/lib/hxsim/factory/{store}.json", f.read())
                self.run(["sysconf", "--store", store, "load",
                          f"/usr/lib/hxsim/factory/{store}.json"], check=True)
            else:
                with self._db(store, "c"):
                    pass
                for key, value in values.items():
                    self.store_set(store, key, json_record(value))
        for key, value in load_factory("rtconf-raw").items():
            self.store_set("rtconf", key, plain_record(value))

    def stop(self):
        if not self._unshare:
            return
        atexit.unregister(self.stop)
        if self.init_pid:
            try:
                os.kill(self.init_pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        for p in [self._unshare] + self._procs:
            try:
                p.wait(10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        for d in self._daemons:
            d._close()
        shutil.rmtree(self.state, ignore_errors=True)
        self._unshare = None
        self.init_pid = None
        self._procs = []
        self._daemons = []

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    @property
    def console_log(self):
        return os.path.join(self.state, "console.log")

    # files

    def _resolve(self, p, follow=True):
        if not self.init_pid:
            raise RuntimeError("sandbox not started")
        if os.readlink(f"/proc/{self.init_pid}/ns/mnt") != self._mntns:
            raise RuntimeError("the sandbox's init is gone")
        root = f"/proc/{self.init_pid}/root"
        todo = [c for c in p.split("/") if c]
        done = []
        hops = 0
        while todo:
            c = todo.pop(0)
            if c == ".":
                continue
            if c == "..":
                done = done[:-1]
                continue
            host = "/".join([root, *done, c])
            if (todo or follow) and os.path.islink(host):
                hops += 1
                if hops > 40:
                    raise OSError(errno.ELOOP, "too many links", p)
                target = os.readlink(host)
                if target.startswith("/"):
                    done = []
                todo = [t for t in target.split("/") if t] + todo
                continue
            done.append(c)
        return "/".join([root, *done])

    def path(self, p):
        """Host path of the sandbox's path p, symlinks resolved inside the sandbox."""
        return self._resolve(p)

    def read(self, p):
        with open(self.path(p), "rb") as f:
            return f.read()

    def read_text(self, p):
        return self.read(p).decode()

    def write(self, p, data, mode=None):
        host = self.path(p)
        os.makedirs(os.path.dirname(host), exist_ok=True)
        with open(host, "wb") as f:
            f.write(data.encode() if isinstance(data, str) else data)
        if mode is not None:
            os.chmod(host, mode)

    def exists(self, p):
        return os.path.exists(self.path(p))

    def remove(self, p):
        """Remove p itself (a final symlink is removed, not followed); no error if absent."""
        try:
            os.unlink(self._resolve(p, follow=False))
        except FileNotFoundError:
            pass

    def _replace(self, p):
        host = self._resolve(p, follow=False)
        os.makedirs(os.path.dirname(host), exist_ok=True)
        if os.path.lexists(host):
            os.unlink(host)

    # processes

    def _argv(self, argv, env):
        e = {"PATH": PATH_INSIDE, "HOME": "/root", "LANG": "C"}
        e.update({k: os.environ[k] for k in PASS_ENV if k in os.environ})
        e.update(env or {})
        return ["nsenter", f"--target={self.init_pid}", "--mount", "--net",
                "--pid", "--uts", "--ipc", "--root", "--wd", "--",
                *SETPRIV, "--", "/usr/bin/env", "-i", "--",
                *[f"{k}={v}" for k, v in e.items()], *argv]

    def popen(self, argv, env=None, stdout=None, stderr=None, stdin=None, **kw):
        """Popen of argv inside the sandbox. The Popen's pid is the host-side
        nsenter, whose child is the command; its returncode is the command's."""
        p = subprocess.Popen(self._argv(argv, env), stdin=stdin, stdout=stdout,
                             stderr=stderr, **kw)
        self._procs = [q for q in self._procs if q.poll() is None] + [p]
        return p

    def run(self, argv, input=None, timeout=60, env=None, check=False):
        if isinstance(input, str):
            input = input.encode()
        p = self.popen(argv, env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       stdin=subprocess.PIPE if input is not None else subprocess.DEVNULL)
        try:
            out, err = p.communicate(input, timeout)
        except subprocess.TimeoutExpired:
            self._kill_tree(p)
            out, err = p.communicate()
            raise subprocess.TimeoutExpired(argv, timeout, out, err) from None
        done = subprocess.CompletedProcess(argv, p.returncode, out, err)
        if check:
            done.check_returncode()
        return done

    def _kill_tree(self, p):
        for child in children(p.pid):
            try:
                os.kill(child, signal.SIGKILL)
            except ProcessLookupError:
                pass
        p.kill()

    def host_pid(self, ns_pid):
        """Host pid of the sandbox process whose pid inside is ns_pid, or None."""
        for p in all_pids():
            try:
                if (proc_status(p)["NSpid"][-1] == str(ns_pid)
                        and os.readlink(f"/proc/{p}/ns/pid") == self._pidns):
                    return p
            except (OSError, KeyError, IndexError):
                pass
        return None

    def start_daemon(self, args=("-f",), env=None, wait=True):
        """Run /usr/sbin/hxsrvd ARGS (behind the wrapper, if any) inside.

        Standard output is a pty in raw mode (so stdio is line-buffered as on
        the device's console), copied by a thread to STATE/hxsrvd-N.stdout;
        standard error goes straight to STATE/hxsrvd-N.stderr."""
        n = len(self._daemons)
        base = os.path.join(self.state, f"hxsrvd-{n}")
        master, slave = pty.openpty()
        tty.setraw(slave)
        with open(base + ".stderr", "wb") as err:
            proc = self.popen(self.daemon_command(args), env,
                              stdin=subprocess.DEVNULL, stdout=slave, stderr=err,
                              start_new_session=True)
        os.close(slave)
        d = Daemon(self, proc, master, base, detaches(args))
        self._daemons.append(d)
        if wait:
            d._wait_ready(30)
        return d

    # sockets

    def connect(self, timeout=10):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        try:
            s.connect(self.path(SOCKET))
        except BaseException:
            s.close()
            raise
        return s

    def request(self, data, timeout=10):
        if isinstance(data, dict):
            data = json.dumps(data)
        if isinstance(data, str):
            data = data.encode()
        got = b""
        deadline = time.monotonic() + timeout
        with self.connect(timeout) as s:
            s.sendall(data)
            while not _complete_json(got):
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                s.settimeout(left)
                try:
                    chunk = s.recv(65536)
                except (socket.timeout, ConnectionResetError):
                    break
                if not chunk:
                    break
                got += chunk
        return got

    # console and command log

    def console_bytes(self):
        """All bytes written to the sandbox's /dev/console so far."""
        marker = b"\0hxsim-sync-" + uuid.uuid4().hex.encode() + b"\0"
        fd = os.open(self.path("/dev/console"), os.O_WRONLY | os.O_NONBLOCK)
        try:
            os.write(fd, marker)
        finally:
            os.close(fd)

        def upto_marker():
            with open(self.console_log, "rb") as f:
                data = f.read()
            at = data.find(marker)
            return None if at < 0 else [MARKER.sub(b"", data[:at])]
        found = wait_until(upto_marker, 10)
        if not found:
            raise TimeoutError("console drainer did not copy the sync marker")
        return found[0]

    def console(self):
        return self.console_bytes().decode(errors="replace")

    def cmdlog(self):
        if not self.exists(CMD_LOG):
            return []
        return [json.loads(line) for line in self.read_text(CMD_LOG).splitlines()]

    def clear_cmdlog(self):
        self.write(CMD_LOG, b"")

    def stub(self, p, script_text):
        """Make p a stub: log its argv ($0 first, as executed), then run script_text."""
        self._replace(p)
        self.write(p, f'#!/bin/sh\n{LOG_ARGV} "$0" "$@"\n{script_text}', mode=0o755)

    def stub_exit(self, p, status):
        self.stub(p, f"exit {int(status)}\n")

    def real(self, p):
        """Sandbox path of the real program that the stub at p replaced (kept
        when the host has one, e.g. dnsmasq, route), or None."""
        kept = f"{REAL_DIR}/{os.path.basename(p)}"
        return kept if self.exists(kept) else None

    def pass_through(self, p):
        """The stub at p logs its argv, then runs the real program."""
        kept = self.real(p)
        if kept is None:
            raise FileNotFoundError(f"no real program kept for {p}")
        self.stub(p, f'exec {kept} "$@"\n')

    def _keep_real(self, p):
        host = self.path(p)
        if os.path.isfile(host) and os.access(host, os.X_OK):
            os.makedirs(self.path(REAL_DIR), exist_ok=True)
            shutil.copy2(host, self.path(f"{REAL_DIR}/{os.path.basename(p)}"))

    # stores

    def _db(self, store, flag):
        host = self.path(STORES[store])
        deadline = time.monotonic() + 5
        while True:
            try:
                return dbm.gnu.open(host, flag, 0o664)
            except dbm.gnu.error:
                if time.monotonic() > deadline or not os.path.exists(host):
                    raise
                time.sleep(0.02)

    def store_get(self, store, key):
        if not self.exists(STORES[store]):
            return None
        return self._read(store, lambda db: db.get(_key(key)))

    def _read(self, store, fn):
        """fn(db) on the store opened without gdbm's lock ("u"): a reader's
        lock would make a daemon's write that meets it fail, so a
        test polling a store could lose the very write it waits for.  A read
        that meets a write half-way is retried."""
        deadline = time.monotonic() + 5
        while True:
            try:
                with self._db(store, "ru") as db:
                    return fn(db)
            except dbm.gnu.error:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.02)

    def store_set(self, store, key, value):
        with self._db(store, "c") as db:
            db[_key(key)] = value

    def store_delete(self, store, key):
        with self._db(store, "w") as db:
            if _key(key) in db:
                del db[_key(key)]

    def store_snapshot(self, store):
        """Every record of the store, {key with its NUL: raw value}; None when
        the file is absent."""
        if not self.exists(STORES[store]):
            return None
        return self._read(store, lambda db: {k: db[k] for k in db.keys()})

    def hold_store(self, store, flag="w"):
        """A process inside that holds STORE open with dbm.gnu FLAG ("w": the
        writer's exclusive lock, "r": a reader's shared lock) until its
        standard input is closed (release_store)."""
        code = ("import dbm.gnu, sys\n"
                "db = dbm.gnu.open(sys.argv[1], sys.argv[2])\n"
                "print('held', flush=True)\n"
                "sys.stdin.read()\n"
                "db.close()\n")
        p = self.popen(["/usr/bin/python3", "-c", code, STORES[store], flag],
                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if p.stdout.readline() != b"held\n":
            raise RuntimeError(f"could not hold {STORES[store]} with flag {flag}")
        return p

    @staticmethod
    def release_store(holder):
        holder.stdin.close()
        holder.wait(timeout=30)

    def store_keys(self, store):
        """Keys as stored, each with its trailing NUL, in gdbm's order."""
        if not self.exists(STORES[store]):
            return []
        return self._read(store, lambda db: db.keys())

    # fake kernel files

    def set_battery(self, capacity_text, status_text):
        """None removes the file (the gauge cannot be opened)."""
        for name, text in (("capacity", capacity_text), ("status", status_text)):
            if text is None:
                self.remove(f"{BATTERY}/{name}")
            else:
                self.write(f"{BATTERY}/{name}", text)

    def set_partitions(self, text):
        self.write("/proc/partitions", text)

    def set_mtab(self, text):
        if os.path.islink(self._resolve("/etc/mtab", follow=False)):
            self.remove("/etc/mtab")
        self.write("/etc/mtab", text)

    def add_disk(self, name, vendor, model, size_sectors, usb_port_path="usb1/1-1/1-1.4"):
        """A disk under /sys/block: NAME is a symlink whose target holds
        usb_port_path, to a directory with device/vendor, device/model, size."""
        dev = f"{DISK_DEVICES}/{usb_port_path}/host0/block/{name}"
        self.write(f"{dev}/device/vendor", f"{vendor}\n")
        self.write(f"{dev}/device/model", f"{model}\n")
        self.write(f"{dev}/size", f"{size_sectors}\n")
        self._replace(f"/sys/block/{name}")
        os.symlink("../.." + dev, self._resolve(f"/sys/block/{name}", follow=False))

    def remove_disk(self, name):
        self.remove(f"/sys/block/{name}")

    # small file systems

    def mount_tmpfs(self, p, size):
        """Mounts a tmpfs of SIZE (mount's size=, e.g. "256k") over the
        directory p inside the sandbox, with p's files copied onto it."""
        saved = {n: self.read(f"{p}/{n}") for n in os.listdir(self.path(p))
                 if os.path.isfile(self.path(f"{p}/{n}"))}
        mode = "%o" % (os.stat(self.path(p)).st_mode & 0o7777)
        self.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode={mode}",
                  "hxsim-small", p], check=True)
        for name, data in saved.items():
            self.write(f"{p}/{name}", data)

    def fill_fs(self, p, name=".hxsim-fill"):
        """Fills the file system of directory p with the file p/NAME until
        ENOSPC; returns that file's sandbox path (remove it to free space)."""
        fill = f"{p}/{name}"
        self.run(["/bin/sh", "-c", f"cat /dev/zero > {shlex.quote(fill)}"])
        return fill

    # power-management controller (sim/pmcontroller.py)

    def start_pm_controller(self, refuse=False, status=0, hang=False):
        """Replace any running controller by one that answers failure
        (refuse) or success, with status for pmc_get_system_status; with
        hang it never answers (the client times out)."""
        self.stop_pm_controller()
        with open(os.path.join(SIM, "pmcontroller.py"), "rb") as f:
            self.write(PMC_SCRIPT, f.read(), mode=0o755)
        argv = ["/usr/bin/python3", PMC_SCRIPT, "--status", str(int(status))]
        argv += (["--refuse"] if refuse else []) + (["--hang"] if hang else [])
        self._pmc = self.popen(argv,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self._pmc.stdout.readline() != b"ready\n":
            raise RuntimeError("the power-management controller did not start")

    def stop_pm_controller(self):
        """No controller answers afterwards."""
        pmc, self._pmc = getattr(self, "_pmc", None), None
        if pmc is not None and pmc.poll() is None:
            pmc.stdin.close()
            pmc.wait(timeout=30)

    def pmc_log(self):
        """The controller's log lines ("21", "22 10", "23 -1", "status")."""
        return self.read_text(PMC_LOG).splitlines() if self.exists(PMC_LOG) else []

    def clear_pmc_log(self):
        self.write(PMC_LOG, b"")


def _key(key):
    return (key.encode() if isinstance(key, str) else key) + b"\0"


def _complete_json(data):
    text = data.decode(errors="replace").lstrip()
    if not text:
        return False
    try:
        json.JSONDecoder().raw_decode(text)
        return True
    except ValueError:
        return False



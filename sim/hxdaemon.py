"""hxsrvd running inside a Sandbox (hxsim.py), and the /proc helpers both use."""
import os
import resource
import select
import signal
import subprocess
import threading
import time

SOCKET = "/var/tmp/socket"
PID_FILE = "/var/run/hxsrvd.pid"
REAPED_LOG = "/var/log/hxsim/reaped.log"


def proc_status(pid):
    fields = {}
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            key, _, value = line.partition(":")
            fields[key] = value.split()
    return fields


def all_pids():
    return [int(n) for n in os.listdir("/proc") if n.isdigit()]


def children(pid):
    found = []
    for p in all_pids():
        try:
            if int(proc_status(p)["PPid"][0]) == pid:
                found.append(p)
        except (OSError, KeyError, IndexError):
            pass
    return found


def wait_until(cond, timeout, step=0.01):
    deadline = time.monotonic() + timeout
    while True:
        value = cond()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(step)


def detaches(args):
    """Whether hxsrvd ARGS forks into the background (-d and
    -f keep it in the foreground, -h only prints usage)."""
    for a in args:
        if a in ("--foreground", "--debug", "--help") or (
                a.startswith("-") and not a.startswith("--") and set(a) & set("dfh")):
            return False
    return True


class Daemon:
    """hxsrvd in a sandbox (Sandbox.start_daemon).

    host_pid is the hxsrvd process itself: with -f/-d/-h the nsenter's child
    (under a wrapper such as valgrind or qemu-user, the same process); when
    detached, the pid in /var/run/hxsrvd.pid. None until known. A detached
    start that never writes its own pid file (e.g. a second instance) makes
    start_daemon(wait=True) raise TimeoutError; use -f for such tests."""

    def __init__(self, sandbox, proc, master, base, detached):
        self.sandbox = sandbox
        self.proc = proc
        self.detached = detached
        self.host_pid = None
        self.ns_pid = None
        self.stdout_path = base + ".stdout"
        self.stderr_path = base + ".stderr"
        self._pidfd = None
        self._out = bytearray()
        self._out_file = open(self.stdout_path, "wb")
        self._master = master
        os.set_blocking(master, False)
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._drain_loop, daemon=True)
        self._thread.start()
        if not detached:
            wait_until(self._find_fg_pid, 10)

    def _track(self, host_pid):
        try:
            self._pidfd = os.pidfd_open(host_pid)
            self.ns_pid = int(proc_status(host_pid)["NSpid"][-1])
        except OSError:
            return False
        self.host_pid = host_pid
        return True

    def _find_fg_pid(self):
        kids = children(self.proc.pid)
        if kids:
            return self._track(kids[0])
        return self.proc.poll() is not None

    def _find_detached_pid(self):
        try:
            ns_pid = int(self.sandbox.read_text(PID_FILE).split()[0])
        except (OSError, ValueError, IndexError):
            return False
        if ns_pid in {d.ns_pid for d in self.sandbox._daemons if d is not self}:
            return False
        host = self.sandbox.host_pid(ns_pid)
        return host is not None and self._track(host)

    def _listening(self):
        sb = self.sandbox
        held = set()
        for pid in [self.host_pid] + children(self.host_pid):
            try:
                for fd in os.listdir(f"/proc/{pid}/fd"):
                    held.add(os.readlink(f"/proc/{pid}/fd/{fd}"))
            except OSError:
                pass
        with open(f"/proc/{sb.init_pid}/net/unix") as f:
            for line in f.readlines()[1:]:
                cols = line.split()
                if (len(cols) >= 8 and cols[7] == SOCKET and int(cols[3], 16) & 0x10000
                        and f"socket:[{cols[6]}]" in held):
                    return True
        return False

    def _wait_ready(self, timeout):
        deadline = time.monotonic() + timeout
        if self.detached:
            try:
                code = self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                code = None
            if code != 0:
                return
            wait_until(self._find_detached_pid, deadline - time.monotonic(), 0.02)
        if self.host_pid is None:
            if self.detached:
                raise TimeoutError(f"hxsrvd wrote no {PID_FILE}:\n{self.stderr()}")
            return
        ready = wait_until(lambda: not self.alive() or self._listening(),
                            deadline - time.monotonic(), 0.02)
        if not ready:
            raise TimeoutError(f"hxsrvd does not listen on {SOCKET}:\n{self.stderr()}")

    def _drain(self):
        while True:
            try:
                chunk = os.read(self._master, 65536)
            except BlockingIOError:
                return True
            except OSError:
                return False
            if not chunk:
                return False
            self._out += chunk
            self._out_file.write(chunk)
            self._out_file.flush()

    def _drain_loop(self):
        while True:
            master = self._master
            if master is None:
                return
            try:
                select.select([master], [], [], 0.5)
            except (OSError, ValueError):
                return
            with self._lock:
                if self._master is None or not self._drain():
                    return

    def stdout(self):
        with self._lock:
            if self._master is not None:
                self._drain()
            return self._out.decode(errors="replace")

    def stderr(self):
        with open(self.stderr_path, "rb") as f:
            return f.read().decode(errors="replace")

    def alive(self):
        if self._pidfd is None:
            return self.proc.poll() is None and not self.detached
        readable, _, _ = select.select([self._pidfd], [], [], 0)
        return not readable

    def signal(self, sig):
        if self._pidfd is None:
            raise ProcessLookupError("hxsrvd's pid is not known")
        signal.pidfd_send_signal(self._pidfd, sig)

    def wait(self, timeout=30):
        if not self.detached or self._pidfd is None:
            return self._wait_foreground(timeout)
        readable, _, _ = select.select([self._pidfd], [], [], timeout)
        if not readable:
            raise subprocess.TimeoutExpired("hxsrvd", timeout)
        codes = wait_until(self._reaped_codes, 5)
        if not codes:
            raise subprocess.TimeoutExpired("hxsrvd", timeout)
        return codes[-1]

    def _wait_foreground(self, timeout):
        """nsenter follows job control: when hxsrvd stops, nsenter stops
        itself and waits for a SIGCONT of its own, which a test that
        continued hxsrvd never sends.  Such a wrapper is continued here once
        hxsrvd is no longer stopped."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                return self.proc.wait(0.1)
            except subprocess.TimeoutExpired:
                if time.monotonic() > deadline:
                    raise
            if (process_state(self.proc.pid) == "T"
                    and process_state(self.host_pid) != "T"):
                os.kill(self.proc.pid, signal.SIGCONT)

    def _reaped_codes(self):
        try:
            lines = self.sandbox.read_text(REAPED_LOG).splitlines()
        except OSError:
            return []
        return [int(c) for p, c in (line.split() for line in lines) if int(p) == self.ns_pid]

    def fd_count(self):
        """How many descriptors the daemon's process holds now."""
        return len(os.listdir(f"/proc/{self.host_pid}/fd"))

    def limit_descriptors(self, soft):
        """Lowers the daemon's RLIMIT_NOFILE soft limit to SOFT (prlimit(2)
        from the host; descriptors already open stay open)."""
        _, hard = resource.prlimit(self.host_pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.host_pid, resource.RLIMIT_NOFILE, (soft, hard))

    def strace(self, syscall, out_path):
        """strace -f of the running daemon, tracing SYSCALL to out_path; stop
        it with end_strace. Returns once strace is attached."""
        p = subprocess.Popen(["strace", "-f", "-qq", "-e", f"trace={syscall}",
                              "-o", out_path, "-p", str(self.host_pid)],
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE)
        wait_until(lambda: self._traced() or p.poll() is not None, 30)
        return p

    def _traced(self):
        return int(proc_status(self.host_pid)["TracerPid"][0]) != 0

    def end_strace(self, p):
        p.send_signal(signal.SIGINT)
        p.wait(30)
        wait_until(lambda: not self._traced(), 30)

    def stop(self, timeout=10):
        """SIGTERM, then SIGKILL after timeout; returns the exit status."""
        if self.alive():
            try:
                self.signal(signal.SIGTERM)
                return self.wait(timeout)
            except subprocess.TimeoutExpired:
                self.signal(signal.SIGKILL)
        return self.wait(timeout)

    def _close(self):
        with self._lock:
            if self._master is not None:
                self._drain()
                os.close(self._master)
                self._master = None
        self._thread.join(2)
        self._out_file.close()
        if self._pidfd is not None:
            os.close(self._pidfd)
            self._pidfd = None


def process_state(pid):
    """The state letter of /proc/PID/stat ("R", "S", "T", "Z"...), or None."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError, TypeError):
        return None

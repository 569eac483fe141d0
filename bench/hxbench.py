"""The benchmarks of hxsrvd (bench/README.md); bench/run calls this.

Everything runs in one device sandbox (sim/hxsim.py): hxsrvd, the floor
server (hxfloor), the load generator (hxload) and the spawn timer (hxspawn).
Every latency figure is taken in alternating rounds against hxsrvd and the
floor, so each ratio compares runs seconds apart.
"""
import argparse
import datetime
import json
import os
import platform
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(BENCH)
sys.path.insert(0, os.path.join(REPO, "sim"))

from hxsim import Sandbox, children, wait_until  # noqa: E402

SOCKET = "/var/tmp/socket"
FLOOR_SOCKET = "/var/tmp/floor.socket"
WORK = "/var/tmp/bench"          # inside the sandbox: requests, replies, latencies
HXSRVD = "/usr/sbin/hxsrvd"

KEYS = ["lan_ipaddr", "lan_netmask", "lan_if", "wl_ssid", "wl_channel",
        "dhcp_range_start", "dhcp_range_end", "wan_type", "work_mode", "timezone"]
REQUESTS = {
    "get10": {"method": "pref-get", "arguments": {"confs": KEYS}},
    "infos": {"method": "pref-get", "arguments": {"infos": ["s_time", "s_sysinfo"]}},
    # The factory value, so the store and every other reply keep their size.
    "set1": {"method": "pref-set", "arguments": {"confs": {"wl_ssid": "HX-Travel"}}},
    "video": {"method": "revalidate", "arguments": {"video": {}}},
}
MIX = ["get10", "infos", "set1", "video"]
SETTLE = 0.1    # s for a server to take the last client's close before a sample

# name, request, clients, held connections, label, note
SCENARIOS = [
    ("get10", "get10", 1, 0, "pref-get, 10 keys", ""),
    ("infos", "infos", 1, 0, "pref-get, infos s_time + s_sysinfo", "INFOS"),
    ("set1", "set1", 1, 0, "pref-set, 1 key", ""),
    ("video", "video", 1, 0, "revalidate video (no-op)", ""),
    ("conc100", "get10", 100, 0, "pref-get 10 keys, 100 clients at once",
     "latency per request, 100 in flight"),
    ("held500", "get10", 1, 500, "pref-get 10 keys, 500 connections held open",
     "ratio to the floor holding 500 too"),
]

FULL = dict(mem_starts=5, rounds=4, n=5000, n_conc=10000, n_held=5000, warmup=300, mixed=100_000,
            mixed_warm=5000, starts=30, spawns=300, cg=(1000, 5000))
QUICK = dict(mem_starts=3, rounds=2, n=500, n_conc=1000, n_held=500, warmup=50, mixed=5000,
             mixed_warm=500, starts=5, spawns=30, cg=(100, 300))


def log(*a):
    print(*a, file=sys.stderr, flush=True)


# ---------------------------------------------------------------- machine

def machine():
    cpu = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    return {"cpu": cpu, "cpus": os.cpu_count(), "kernel": platform.release(),
            "arch": platform.machine(), "memory_kib": _meminfo("MemTotal")}


def _meminfo(key):
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return None


def build_info(build):
    info = {"dir": build}
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            for line in f:
                m = re.match(r"(CMAKE_BUILD_TYPE|CMAKE_C_COMPILER|CMAKE_STRIP|HX_SANITIZE|"
                             r"CMAKE_HOME_DIRECTORY):\w+=(.*)", line)
                if m:
                    info[m.group(1)] = m.group(2)
    except OSError:
        pass
    try:
        src = info.get("CMAKE_HOME_DIRECTORY", REPO)
        info["git"] = subprocess.run(["git", "-C", src, "describe", "--always", "--dirty"],
                                     capture_output=True, text=True).stdout.strip() or "?"
    except OSError:
        pass
    return info


def _loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def _emulator(build):
    """The emulator line of a cross build (BUILD/hx-emulator), [] when native."""
    try:
        with open(os.path.join(build, "hx-emulator")) as f:
            return [x for x in f.read().splitlines() if x]
    except OSError:
        return []


def sizes(build, info):
    strip = info.get("CMAKE_STRIP") or "strip"
    out = {}
    with tempfile.TemporaryDirectory() as tmp:
        for name in ("hxsrvd", "hxctl", "sysconf"):
            src = os.path.join(build, name)
            dst = os.path.join(tmp, name)
            subprocess.run([strip, "--strip-all", "-o", dst, src], check=True)
            out[name] = {"stripped": os.path.getsize(dst), "file": os.path.getsize(src)}
    return out


# ---------------------------------------------------------------- sandbox helpers

class Bench:
    def __init__(self, sb, tools, cpu):
        self.sb = sb
        self.tools = tools
        self.pin = ["taskset", "-c", str(cpu)] if cpu is not None else []
        self.fd_prefix = []

    def tool(self, name):
        return os.path.join(self.tools, name)

    def run(self, argv, **kw):
        return self.sb.run(self.pin + argv, timeout=kw.pop("timeout", 900), **kw)

    def load(self, sock, req, n, warmup, clients=1, hold=0, lat=None, reply=None, pause=None):
        argv = [self.tool("hxload"), "-s", sock, "-f", f"{WORK}/{req}.req", "-n", str(n),
                "-w", str(warmup), "-c", str(clients)]
        if hold:
            argv += ["-H", str(hold)]
        if lat:
            argv += ["-L", lat]
        if reply:
            argv += ["-o", reply]
        if pause is None:
            r = self.run(argv, check=False)
            if r.returncode != 0:
                raise RuntimeError(f"hxload failed: {r.stderr.decode()}")
            return json.loads(r.stdout)
        # Held connections with a pause: pause(held_line) runs while they are open.
        p = self.sb.popen(self.pin + argv + ["-P"], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        held = json.loads(p.stdout.readline())
        pause(held)
        p.stdin.write(b"go\n")
        p.stdin.flush()
        out, err = p.communicate(timeout=900)
        if p.returncode != 0:
            raise RuntimeError(f"hxload failed: {err.decode()}")
        return json.loads(out)

    def listening(self, path):
        with open(f"/proc/{self.sb.init_pid}/net/unix") as f:
            for line in f.readlines()[1:]:
                cols = line.split()
                if len(cols) >= 8 and cols[7] == path and int(cols[3], 16) & 0x10000:
                    return True
        return False

    def start_server(self, argv, sock, name, env=None):
        """Starts argv inside (standard output to /dev/null, as a detached
        daemon's is); returns (Popen, host pid of the server) once sock is
        listening.  Nothing else may be listening on sock."""
        if self.listening(sock):
            raise RuntimeError(f"{sock} is still listening before {name} starts")
        err = open(os.path.join(self.sb.state, f"{name}.stderr"), "ab")
        p = self.sb.popen(self.fd_prefix + self.pin + argv, env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=err, start_new_session=True)
        err.close()
        pid = wait_until(lambda: (children(p.pid) or [None])[0], 10)
        if pid and argv[0] == "strace":
            # The server is strace's child; strace ends when it does.
            tracer = pid
            pid = wait_until(lambda: (children(tracer) or [None])[0], 10)
        if not pid or not wait_until(lambda: self.listening(sock) or p.poll() is not None,
                                     60, 0.005) or p.poll() is not None:
            raise RuntimeError(f"{name} did not start: {self.stderr(name)}")
        return p, pid

    def stderr(self, name):
        try:
            with open(os.path.join(self.sb.state, f"{name}.stderr"), errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def stop_server(self, proc, pid):
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        try:
            proc.wait(120)
        except subprocess.TimeoutExpired:
            os.kill(pid, signal.SIGKILL)
            proc.wait()

    def floor(self, reply_file):
        return self.start_server([self.tool("hxfloor"), "-s", FLOOR_SOCKET, "-r", reply_file],
                                 FLOOR_SOCKET, "hxfloor")

    def daemon(self):
        return self.start_server([HXSRVD, "-f"], SOCKET, "hxsrvd")

    def latencies(self, path):
        with open(self.sb.path(path)) as f:
            return [int(x) for x in f]


SHARED_BY_ALL = re.compile(r"/(libc\.so\.6|ld-linux[^/]*\.so[^/]*)$")


def own_private(pid):
    """Private memory as if nothing else mapped the program's own files (its
    binary and its libraries other than libc and ld.so): the resident pages of
    those mappings plus the private dirty pages of all others.  On this PC
    Private_Clean depends on what else runs (another sandbox's hxctl maps
    libjson-c's pages too); on the device only libc and ld.so are shared by
    every process."""
    total, own = 0, False
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            head = line.split()
            if re.match(r"^[0-9a-f]+-[0-9a-f]+ ", line):
                path = head[5] if len(head) >= 6 else ""
                own = path.startswith("/") and not SHARED_BY_ALL.search(path)
            elif head and head[0] == "Rss:" and own:
                total += int(head[1])
            elif head and head[0] == "Private_Dirty:" and not own:
                total += int(head[1])
    return total


def mappings(pid):
    """Resident KiB by mapped file (base name) or [heap], [stack], [anon]."""
    out, cur = {}, None
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            head = line.split()
            if re.match(r"^[0-9a-f]+-[0-9a-f]+ ", line):
                path = head[5] if len(head) >= 6 else "[anon]"
                cur = os.path.basename(path) if path.startswith("/") else path
            elif head and head[0] == "Rss:" and int(head[1]):
                out[cur] = out.get(cur, 0) + int(head[1])
    return dict(sorted(out.items(), key=lambda kv: -kv[1]))


def anon_size(pid):
    """Virtual size (KiB) of the heap and the anonymous mappings: the memory
    the allocator has taken from the kernel, touched or not."""
    total, anon = 0, False
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            head = line.split()
            if re.match(r"^[0-9a-f]+-[0-9a-f]+ ", line):
                anon = len(head) < 6 or head[5] == "[heap]"
            elif head and head[0] == "Size:" and anon:
                total += int(head[1])
    return total


def memory(pid):
    """Resident and private memory (KiB) from smaps_rollup, and open descriptors."""
    m = {"own_private_kib": own_private(pid), "anon_size_kib": anon_size(pid)}
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            parts = line.split()
            if len(parts) >= 3 and parts[2] == "kB":
                m[parts[0].rstrip(":")] = int(parts[1])
    return {"own_private_kib": m["own_private_kib"], "anon_size_kib": m["anon_size_kib"],
            "rss_kib": m["Rss"], "pss_kib": m["Pss"],
            "private_clean_kib": m["Private_Clean"], "private_dirty_kib": m["Private_Dirty"],
            "private_kib": m["Private_Clean"] + m["Private_Dirty"],
            "anonymous_kib": m.get("Anonymous"), "fds": len(os.listdir(f"/proc/{pid}/fd"))}


def cpu_times(pid):
    """(user s, system s, on-CPU ns) of pid so far."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    tick = os.sysconf("SC_CLK_TCK")
    with open(f"/proc/{pid}/schedstat") as f:
        run_ns = int(f.read().split()[0])
    return int(fields[11]) / tick, int(fields[12]) / tick, run_ns


def stats(samples, wall):
    s = sorted(samples)
    n = len(s)
    if n == 0:
        return {"n": 0}

    def rank(p):
        k = (n * p + 99) // 100
        return s[max(k, 1) - 1]
    return {"n": n, "median_us": rank(50) / 1000, "p99_us": rank(99) / 1000,
            "max_us": s[-1] / 1000, "mean_us": statistics.fmean(s) / 1000,
            "rps": n / wall if wall else None}


# ---------------------------------------------------------------- phases

def write_requests(sb):
    os.makedirs(sb.path(WORK), exist_ok=True)
    for name, req in REQUESTS.items():
        sb.write(f"{WORK}/{name}.req", json.dumps(req) + "\n")
    sb.write(f"{WORK}/mix.req", "".join(json.dumps(REQUESTS[k]) + "\n" for k in MIX))


def record_reply(b, req):
    """The daemon's reply to req, kept as the floor's fixed reply."""
    path = f"{WORK}/{req}.reply"
    b.load(SOCKET, req, 1, 0, reply=path)
    return path, b.sb.read(path).decode()


def memory_after_start(b, start, stop, k):
    """Median over k fresh starts of each figure right after start-up (the
    clean pages that count as private vary by a few pages from start to
    start); min and max of the private figure beside it."""
    samples = []
    for _ in range(k):
        proc, pid = start()
        samples.append(memory(pid))
        maps = mappings(pid)
        stop(proc, pid)
    out = {key: statistics.median_low([m[key] for m in samples]) for key in samples[0]}
    out["private_kib_min"] = min(m["private_kib"] for m in samples)
    out["private_kib_max"] = max(m["private_kib"] for m in samples)
    out["starts"] = k
    out["resident_by_mapping"] = maps
    return out


def memory_sequence(b, start, cfg, name, sock):
    """Memory of one server with nothing else that maps its libraries
    running (a page mapped by two processes is not private to either): after
    start, after a warm-up of mixed requests, after cfg['mixed'] more, with
    500 connections held (twice), after they closed."""
    seq = {"start": memory_after_start(b, start, b.stop_server, cfg["mem_starts"])}
    proc, pid = start()
    seq["start_this"] = memory(pid)
    b.load(sock, "mix", cfg["mixed_warm"], 0)
    time.sleep(SETTLE)
    seq["warm"] = memory(pid)
    seq["warm"]["requests"] = cfg["mixed_warm"]
    log(f"  {name}: {cfg['mixed']} mixed requests")
    seq["series"] = []
    done = cfg["mixed_warm"]
    for _ in range(5):
        r = b.load(sock, "mix", cfg["mixed"] // 5, 0)
        done += cfg["mixed"] // 5
        time.sleep(SETTLE)
        m = memory(pid)
        seq["series"].append({"requests": done, "rss_kib": m["rss_kib"],
                              "private_kib": m["private_kib"],
                              "anonymous_kib": m["anonymous_kib"],
                              "anon_size_kib": m["anon_size_kib"]})
    seq["mixed"] = memory(pid)
    seq["mixed"]["requests"] = done
    seq["mixed_load"] = _load_summary(r)
    base = seq["start_this"]["fds"]
    for tag in ("held", "held2"):
        def sample(held, tag=tag):
            # hxload maps json-c too: the figures are taken as they are.
            time.sleep(0.2)
            seq[tag] = memory(pid)
            seq[tag]["held_open"] = held["held_open"]
        r = b.load(sock, "get10", 1000, 0, hold=500, pause=sample)
        seq[tag + "_load"] = _load_summary(r)
        wait_until(lambda: memory(pid)["fds"] <= base, 10)
        seq["after_close" if tag == "held" else "after_close2"] = memory(pid)
    b.stop_server(proc, pid)
    return seq


def heap_check(b, cfg):
    """Heap bytes in use (glibc mallinfo2, through bench/hxheap.cpp preloaded
    into a separate hxsrvd, with the thread cache off so that the figure is
    exact) after the warm-up and after each fifth of the mixed requests: a
    leak grows them; allocator fragmentation does not."""
    out = f"{WORK}/heap.txt"
    proc, pid = b.start_server([HXSRVD, "-f"], SOCKET, "hxsrvd-heap",
                               env={"LD_PRELOAD": b.tool("libhxheap.so"), "HXHEAP_OUT": out,
                                    # Chunks in the thread cache count as in use.
                                    "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"})
    series = []

    def sample(requests):
        time.sleep(SETTLE)
        n = len(series)
        os.kill(pid, signal.SIGRTMIN + 3)
        lines = wait_until(lambda: [x for x in b.sb.read_text(out).splitlines() if x][n:], 10)
        in_use, mmapped, arena = (int(x) for x in lines[0].split())
        series.append({"requests": requests, "in_use": in_use, "mmapped": mmapped,
                       "arena": arena})
    b.sb.write(out, "")
    sample(0)
    b.load(SOCKET, "mix", cfg["mixed_warm"], 0)
    done = cfg["mixed_warm"]
    sample(done)
    for _ in range(5):
        b.load(SOCKET, "mix", cfg["mixed"] // 5, 0)
        done += cfg["mixed"] // 5
        sample(done)
    growth = series[-1]["in_use"] - series[1]["in_use"]
    for tag in ("held 500, closed", "again"):
        b.load(SOCKET, "get10", 1000, 0, hold=500)
        done += 1000
        sample(done)
        series[-1]["after"] = tag
    b.stop_server(proc, pid)
    return {"series": series, "growth_after_warmup": growth,
            "growth_second_hold": series[-1]["in_use"] - series[-2]["in_use"]}


def _load_summary(r):
    keys = ("n", "errors", "rps", "eagain", "held_open", "held_refused",
            "held_closed_by_server", "hold_s")
    return {k: r[k] for k in keys if k in r}


def latency_scenario(b, cfg, scen, reply_file, dpid):
    name, req, clients, hold, _, _ = scen
    n = {1: cfg["n"]}.get(clients, cfg["n_conc"]) if not hold else cfg["n_held"]
    fproc, fpid = b.floor(reply_file)
    samples = {"hxsrvd": [], "floor": []}
    wall = {"hxsrvd": 0.0, "floor": 0.0}
    loads = {"hxsrvd": [], "floor": []}
    cpu = {"hxsrvd": [0.0, 0.0, 0], "floor": [0.0, 0.0, 0]}
    try:
        for rnd in range(cfg["rounds"]):
            order = [("hxsrvd", SOCKET, dpid), ("floor", FLOOR_SOCKET, fpid)]
            if rnd % 2:
                order.reverse()
            for who, sock, pid in order:
                lat = f"{WORK}/{name}-{who}-{rnd}.lat"
                before = cpu_times(pid)
                r = b.load(sock, req, n, cfg["warmup"], clients=clients, hold=hold, lat=lat)
                after = cpu_times(pid)
                for i in range(3):
                    cpu[who][i] += after[i] - before[i]
                samples[who] += b.latencies(lat)
                wall[who] += r["wall_s"]
                loads[who].append(_load_summary(r))
    finally:
        b.stop_server(fproc, fpid)
    out = {}
    for who in samples:
        out[who] = stats(samples[who], wall[who])
        # Server CPU per request (warm-up requests included in the count).
        per = cfg["rounds"] * (n + cfg["warmup"])
        out[who]["cpu_us"] = cpu[who][2] / 1000 / per
        out[who]["cpu_user_us"] = cpu[who][0] * 1e6 / per
        out[who]["cpu_sys_us"] = cpu[who][1] * 1e6 / per
        out[who]["errors"] = sum(x["errors"] for x in loads[who])
        if hold:
            out[who]["held_refused"] = sum(x["held_refused"] for x in loads[who])
            out[who]["held_closed_by_server"] = sum(x["held_closed_by_server"]
                                                    for x in loads[who])
            out[who]["held_open_min"] = min(x["held_open"] for x in loads[who])
            out[who]["hold_s_max"] = max(x["hold_s"] for x in loads[who])
        if clients > 1:
            out[who]["eagain"] = sum(x["eagain"] for x in loads[who])
    out["ratio_median"] = out["hxsrvd"]["median_us"] / out["floor"]["median_us"]
    return out


def startup(b, cfg, reply_file):
    out = {}
    for who, argv, sock in (("hxsrvd", [HXSRVD, "-f"], SOCKET),
                            ("floor", [b.tool("hxfloor"), "-s", FLOOR_SOCKET, "-r", reply_file],
                             FLOOR_SOCKET)):
        r = b.run(b.fd_prefix + [b.tool("hxspawn"), "--startup", sock, "-n", str(cfg["starts"]),
                                 "-w", "2", *argv], check=True)
        j = json.loads(r.stdout)
        out[who] = {k: {"median_us": j[k]["median_ns"] / 1000, "p99_us": j[k]["p99_ns"] / 1000,
                        "max_us": j[k]["max_ns"] / 1000, "n": j[k]["n"]}
                    for k in ("listen", "reply")}
        out[who]["failed"] = j["failed"]
    return out


def spawn_pair(b, cfg, argv):
    """argv against /bin/true, in turn."""
    r = b.run([b.tool("hxspawn"), "-n", str(cfg["spawns"]), "-w", "10", "/bin/true", "::",
               *argv], check=True)
    j = json.loads(r.stdout)
    conv = {k: {"median_us": j[k]["median_ns"] / 1000, "p99_us": j[k]["p99_ns"] / 1000,
                "max_us": j[k]["max_ns"] / 1000, "n": j[k]["n"], "failed": j[k]["failed"]}
            for k in ("a", "b")}
    return {"true": conv["a"], "cmd": conv["b"], "argv": argv,
            "ratio_median": conv["b"]["median_us"] / conv["a"]["median_us"]}


CLIENT_ROWS = [
    ("hxctl", ["/usr/bin/hxctl", "get", "lan_ipaddr"], "hxctl get lan_ipaddr"),
    ("help", ["/usr/bin/hxctl", "--help"], "hxctl --help (no connection: exec, json-c loaded)"),
    ("floor", ["/usr/bin/hxctl", "-s", FLOOR_SOCKET, "get", "lan_ipaddr"],
     "hxctl get lan_ipaddr against the floor"),
]


def client(b, cfg, reply_file):
    """hxctl as a whole process against /bin/true; two more rows split its
    cost: --help (process and libraries, no request) and the floor as the
    server (the request without the daemon's work)."""
    out = {}
    for key, argv, _ in CLIENT_ROWS:
        if key == "floor":
            fproc, fpid = b.floor(reply_file)
            out[key] = spawn_pair(b, cfg, argv)
            b.stop_server(fproc, fpid)
        else:
            out[key] = spawn_pair(b, cfg, argv)
    out["ratio_median"] = out["hxctl"]["ratio_median"]
    return out


def fd_limit(b):
    r = b.sb.run(["sh", "-c", "ulimit -Sn; ulimit -Hn"], check=True)
    soft, hard = r.stdout.decode().split()
    return {"soft": soft, "hard": hard}


def console_lines(sb):
    """The console's lines, less those of the bench's own SIGTERMs."""
    try:
        lines = sb.console_bytes().decode(errors="replace").splitlines()
    except OSError:
        return []
    return [x for x in lines if not re.fullmatch(r"received fatal signal 15, attempting to exit "
                                                 r"cleanly", x)]


# ---------------------------------------------------------------- verdicts

def verdicts(res):
    lat = res["latency"]
    mem = res["memory"]
    d, f = mem["hxsrvd"], mem["floor"]
    held = lat["held500"]
    growth_priv = d["mixed"]["private_kib"] - d["warm"]["private_kib"]
    growth_own = d["mixed"]["own_private_kib"] - d["warm"]["own_private_kib"]
    growth_anon = d["mixed"]["anon_size_kib"] - d["warm"]["anon_size_kib"]
    growth_rss = d["mixed"]["rss_kib"] - d["warm"]["rss_kib"]
    held_ok = (held["hxsrvd"]["held_refused"] == 0 and held["hxsrvd"]["held_closed_by_server"] == 0
               and held["hxsrvd"]["errors"] == 0 and d["held"]["held_open"] == 500)
    t = [
        ("pref-get 10 keys, median <= 1.5x floor",
         f"{lat['get10']['ratio_median']:.2f}x", lat["get10"]["ratio_median"] <= 1.5),
        (f"no memory growth over {d['mixed']['requests'] - d['warm']['requests']:,} mixed requests",
         f"heap in use {res['heap']['growth_after_warmup']:+d} B, heap and anonymous mappings "
         f"{growth_anon:+d} KiB; resident {growth_rss:+d} KiB, own {growth_own:+d} KiB, "
         f"private {growth_priv:+d} KiB", res["heap"]["growth_after_warmup"] <= 0 and
         growth_anon <= 0),
        ("no memory growth from holding 500 connections a second time",
         f"heap in use {res['heap']['growth_second_hold']:+d} B; resident "
         f"{d['after_close2']['rss_kib'] - d['after_close']['rss_kib']:+d} KiB, heap and anonymous "
         f"mappings {d['after_close2']['anon_size_kib'] - d['after_close']['anon_size_kib']:+d} "
         f"KiB", res["heap"]["growth_second_hold"] <= 0),
        ("private memory after start <= 512 KiB (Private_Clean + Private_Dirty)",
         f"{d['start']['private_kib']} KiB ({d['start']['private_clean_kib']} + "
         f"{d['start']['private_dirty_kib']})", d["start"]["private_kib"] <= 512),
        ("the same, counting its binary and libraries whole (\"own\": as if nothing else "
         "mapped them, as on the device)", f"{d['start']['own_private_kib']} KiB",
         d["start"]["own_private_kib"] <= 512),
        ("resident after start <= 1.2x floor",
         f"{d['start']['rss_kib'] / f['start']['rss_kib']:.2f}x",
         d["start"]["rss_kib"] <= 1.2 * f["start"]["rss_kib"]),
        ("hxctl get <= 1.2x /bin/true", f"{res['client']['ratio_median']:.2f}x",
         res["client"]["ratio_median"] <= 1.2),
        ("500 open connections: none refused, client not slowed beyond 2x floor",
         f"{held['ratio_median']:.2f}x, refused {held['hxsrvd']['held_refused']}, "
         f"closed {held['hxsrvd']['held_closed_by_server']}",
         held_ok and held["ratio_median"] <= 2.0),
        ("descriptors after the run equal to before",
         f"{res['fds_before']} -> {res['fds_after']} (memory run: {d['start_this']['fds']} -> "
         f"{d['after_close2']['fds']})",
         res["fds_after"] == res["fds_before"] and
         d["after_close2"]["fds"] == d["start_this"]["fds"]),
    ]
    return [{"target": a, "measured": m, "met": bool(ok)} for a, m, ok in t]


# ---------------------------------------------------------------- table

def fmt_us(x):
    return f"{x:.1f}" if x < 1000 else f"{x:,.0f}"


def table(res):
    m = res["machine"]
    out = [f"hxsrvd benchmarks, {res['date']}{' (quick)' if res['quick'] else ''}",
           f"machine: {m['cpu']}, {m['cpus']} CPUs, Linux {m['kernel']} {m['arch']}; "
           f"{res['pinning']}",
           f"build: {res['build']['dir']} ({res['build'].get('CMAKE_BUILD_TYPE', '?')}, "
           f"{os.path.basename(res['build'].get('CMAKE_C_COMPILER', '?'))}, source "
           f"{res['build'].get('CMAKE_HOME_DIRECTORY', '?')} at {res['build'].get('git', '?')})",
           f"load average before / after: {res.get('loadavg_before', '?')} / "
           f"{res.get('loadavg_after', '?')}", ""]
    out += ["Latency per request (us) and requests/s; ratio = hxsrvd median / floor median",
            "",
            "| scenario | reply B | hxsrvd median | p99 | max | req/s | floor median | p99 | max "
            "| req/s | ratio |",
            "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|"]
    for name, _, _, _, label, note in SCENARIOS:
        s = res["latency"][name]
        d, f = s["hxsrvd"], s["floor"]
        if note == "INFOS":
            infos = s["reply"].get("arguments", {}).get("infos")
            note = ("items not built yet: infos answered empty" if infos == {} else
                    f"answers {', '.join(infos)}" if isinstance(infos, dict) else "")
        lab = label + (f" ({note})" if note else "")
        out.append(f"| {lab} | {s['reply_bytes']} | {fmt_us(d['median_us'])} | "
                   f"{fmt_us(d['p99_us'])} | {fmt_us(d['max_us'])} | {d['rps']:,.0f} | "
                   f"{fmt_us(f['median_us'])} | {fmt_us(f['p99_us'])} | {fmt_us(f['max_us'])} | "
                   f"{f['rps']:,.0f} | {s['ratio_median']:.2f} |")
    h = res["latency"]["held500"]
    out.append(f"| 500 held, ratio to the floor without held connections | | | | | | | | | | "
               f"{h['hxsrvd']['median_us'] / res['latency']['get10']['floor']['median_us']:.2f} |")
    out += ["", "Server CPU per request (us: on-CPU time from /proc/PID/schedstat; user and "
            "system from /proc/PID/stat, 10 ms ticks)", "",
            "| scenario | hxsrvd CPU | user | system | floor CPU | user | system | ratio |",
            "|---|--:|--:|--:|--:|--:|--:|--:|"]
    for name, _, _, _, label, _ in SCENARIOS:
        d, f = res["latency"][name]["hxsrvd"], res["latency"][name]["floor"]
        out.append(f"| {label} | {d['cpu_us']:.1f} | {d['cpu_user_us']:.1f} | "
                   f"{d['cpu_sys_us']:.1f} | {f['cpu_us']:.1f} | {f['cpu_user_us']:.1f} | "
                   f"{f['cpu_sys_us']:.1f} | {d['cpu_us'] / f['cpu_us']:.2f} |")
    out += ["", "Memory (KiB, /proc/PID/smaps_rollup; private = Private_Clean + Private_Dirty; "
            "own = private if nothing else mapped the program's binary and its libraries "
            "other than libc and ld.so, from /proc/PID/smaps)",
            "", "| when | hxsrvd resident | private | own | fds | floor resident "
            "| private | own | fds |", "|---|--:|--:|--:|--:|--:|--:|--:|--:|"]
    d, f = res["memory"]["hxsrvd"], res["memory"]["floor"]
    labels = [("start", f"after start (median of {d['start']['starts']} starts)"),
              ("warm", f"after {d['warm']['requests']:,} mixed requests (warm-up)"),
              ("mixed", f"after {d['mixed']['requests']:,} mixed requests"),
              ("held", "500 connections open (hxload running)"),
              ("after_close", "after they closed"),
              ("held2", "500 connections open again"),
              ("after_close2", "after they closed")]
    for key, lab in labels:
        out.append(f"| {lab} | {d[key]['rss_kib']} | {d[key]['private_kib']} | "
                   f"{d[key]['own_private_kib']} | {d[key]['fds']} | {f[key]['rss_kib']} | "
                   f"{f[key]['private_kib']} | {f[key]['own_private_kib']} | {f[key]['fds']} |")
    out.append(f"| after start: private clean + dirty | | {d['start']['private_clean_kib']} + "
               f"{d['start']['private_dirty_kib']} | | | | {f['start']['private_clean_kib']} + "
               f"{f['start']['private_dirty_kib']} | | |")
    for who, x in (("hxsrvd", d), ("floor", f)):
        out += ["", f"{who} after start, resident KiB by mapping: " + ", ".join(
            f"{k} {v}" for k, v in x["start"]["resident_by_mapping"].items())]
    ser = d["series"]
    w = d["warm"]
    out += ["", "hxsrvd during the mixed requests (KiB; anonymous = resident anonymous pages, "
            "size = virtual size of heap and anonymous mappings): " + ", ".join(
                f"{x['requests']:,}: resident {x['rss_kib']}, private {x['private_kib']}, "
                f"anonymous {x['anonymous_kib']}, size {x['anon_size_kib']}"
                for x in [dict(w, anonymous_kib=w["anonymous_kib"])] + ser)]
    h = res["heap"]["series"]
    out += ["", "hxsrvd heap in use (bytes, glibc mallinfo2, a separate instance with "
            "bench/hxheap.cpp preloaded): " + ", ".join(
                f"{x['requests']:,}{' (' + x['after'] + ')' if 'after' in x else ''}: "
                f"{x['in_use']:,} (arena {x['arena'] // 1024} KiB)" for x in h)]
    c, su = res["client"], res["startup"]
    out += ["", "Processes (us; fork + exec + wait, each row in turn with /bin/true)", "",
            "| what | median | p99 | max | /bin/true median | ratio |", "|---|--:|--:|--:|--:|--:|"]
    for key, _, lab in CLIENT_ROWS:
        x = c[key]
        out.append(f"| {lab} | {fmt_us(x['cmd']['median_us'])} | {fmt_us(x['cmd']['p99_us'])} | "
                   f"{fmt_us(x['cmd']['max_us'])} | {fmt_us(x['true']['median_us'])} | "
                   f"{x['ratio_median']:.2f} |")
    out += ["", "Start-up (us; exec to the first successful connect, and to the reply to a "
            "first request on it)", "", "| server | to listening | p99 | to first reply | p99 "
            "| ratio |", "|---|--:|--:|--:|--:|--:|"]
    for who in ("hxsrvd", "floor"):
        li, rp = su[who]["listen"], su[who]["reply"]
        out.append(f"| {who} | {fmt_us(li['median_us'])} | {fmt_us(li['p99_us'])} | "
                   f"{fmt_us(rp['median_us'])} | {fmt_us(rp['p99_us'])} | "
                   f"{rp['median_us'] / su['floor']['reply']['median_us']:.2f} |")
    out += ["", "Size (bytes, stripped / as built)", "", "| binary | stripped | as built |",
            "|---|--:|--:|"]
    for name, s in res["size"].items():
        out.append(f"| {name} | {s['stripped']:,} | {s['file']:,} |")
    out += ["", "Targets", "", "| target | measured | verdict |", "|---|---|---|"]
    for t in res["targets"]:
        out.append(f"| {t['target']} | {t['measured']} | {'met' if t['met'] else 'MISSED'} |")
    out.append("")
    out.append(f"fd limit inside the sandbox: soft {res['fd_limit']['soft']}, "
               f"hard {res['fd_limit']['hard']}{res['fd_note']}")
    return "\n".join(out)


# ---------------------------------------------------------------- callgrind

def cg_total(text):
    for line in text.splitlines():
        if line.startswith("summary:") or line.startswith("totals:"):
            return int(line.split()[1])
    raise RuntimeError("no totals in callgrind output")


def cg_functions(path):
    r = subprocess.run(["callgrind_annotate", "--inclusive=no", "--auto=no", "--threshold=100",
                        path],
                       capture_output=True, text=True, check=True)
    funcs = {}
    for line in r.stdout.splitlines():
        m = re.match(r"^\s*([\d,]+)\s+(?:\([^)]*\)\s+)?(\S.*?)\s*$", line)
        if m and ":" in m.group(2) and "PROGRAM TOTALS" not in m.group(2):
            name = re.sub(r"^.*?:", "", m.group(2), count=1)
            name = re.sub(r"'\d+$", "", re.sub(r"\s+\[.*\]$", "", name))
            lib = re.search(r"\[(.*)\]$", m.group(2))
            key = f"{name} [{os.path.basename(lib.group(1)) if lib else '?'}]"
            funcs[key] = funcs.get(key, 0) + int(m.group(1).replace(",", ""))
    return funcs


# Functions whose inclusive cost (callees included, so rows overlap) says
# where hxsrvd's instructions go.
CG_INCLUSIVE = [
    ("doread", "the read callback: the whole request"),
    ("json_tokener_parse_verbose", "every JSON parse: the request and the 10 stored values"),
    ("json_tokener_parse", "parses of the 10 stored values"),
    ("json_tokener_new", "tokeners made (one per parse)"),
    ("newlocale", "json-c's per-parse locale switch (with duplocale, freelocale)"),
    ("duplocale", ""),
    ("freelocale", ""),
    ("gdbm_open", "store open"),
    ("gdbm_fetch", "10 fetches"),
    ("gdbm_close", "store close"),
    ("ipc_resp_func", "reply rendering and buffering"),
    ("json_object_put", "freeing request and reply objects"),
    ("bufferevent_new", "connection set-up"),
]


def cg_inclusive(path):
    r = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--auto=no", "--threshold=100",
                        path], capture_output=True, text=True, check=True)
    wanted = {name for name, _ in CG_INCLUSIVE}
    found = {}
    for line in r.stdout.splitlines():
        m = re.match(r"^\s*([\d,]+)\s+(?:\([^)]*\)\s+)?\S*?:(\w+)(?:'\d+)?\s+\[", line)
        if m and m.group(2) in wanted and m.group(2) not in found:
            found[m.group(2)] = int(m.group(1).replace(",", ""))
    return found


def strace_calls(text):
    calls = {}
    for line in text.splitlines():
        parts = line.split()
        if (len(parts) >= 5 and parts[-1].isidentifier() and parts[3].isdigit()
                and parts[-1] != "total"):
            calls[parts[-1]] = int(parts[3])
    return calls


def _check(load, n):
    if load["errors"] or load["n"] != n:
        raise RuntimeError(f"load of {n} requests failed: {load}")


def run_callgrind(b, cfg, outdir):
    """Instructions (callgrind) and system calls (strace -c) per request of
    pref-get 10 keys, hxsrvd and floor, by differencing runs of N1 and N2
    requests so that start-up and exit cancel out."""
    n1, n2 = cfg["cg"]
    sb = b.sb
    proc, pid = b.daemon()
    reply_file, reply = record_reply(b, "get10")
    b.stop_server(proc, pid)
    res = {"requests": [n1, n2], "reply_bytes": len(reply)}
    for who in ("hxsrvd", "floor"):
        argv, sock = (([HXSRVD, "-f"], SOCKET) if who == "hxsrvd" else
                      ([b.tool("hxfloor"), "-s", FLOOR_SOCKET, "-r", reply_file], FLOOR_SOCKET))
        ir, files, sys_calls = {}, {}, {}
        for n in (n1, n2):
            out = f"{WORK}/cg-{who}-{n}.out"
            log(f"  callgrind: {who}, {n} requests")
            p, hpid = b.start_server(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                                      *argv], sock, f"cg-{who}")
            _check(b.load(sock, "get10", n, 0), n)
            b.stop_server(p, hpid)
            ir[n] = cg_total(sb.read_text(out))
            files[n] = os.path.join(outdir, f"cg-{who}-{n}.out")
            shutil.copy(sb.path(out), files[n])
            st = f"{WORK}/strace-{who}-{n}.txt"
            p, hpid = b.start_server(["strace", "-c", "-o", st, *argv], sock, f"st-{who}")
            _check(b.load(sock, "get10", n, 0), n)
            b.stop_server(p, hpid)
            sys_calls[n] = strace_calls(sb.read_text(st))
        i1, i2 = cg_inclusive(files[n1]), cg_inclusive(files[n2])
        inclusive = {k: round((i2.get(k, 0) - i1.get(k, 0)) / (n2 - n1), 1)
                     for k, _ in CG_INCLUSIVE if k in i1 or k in i2}
        f1, f2 = cg_functions(files[n1]), cg_functions(files[n2])
        per_fn = {k: (f2.get(k, 0) - f1.get(k, 0)) / (n2 - n1) for k in set(f1) | set(f2)}
        top = sorted(per_fn.items(), key=lambda kv: -kv[1])[:25]
        calls = {k: (sys_calls[n2].get(k, 0) - sys_calls[n1].get(k, 0)) / (n2 - n1)
                 for k in set(sys_calls[n1]) | set(sys_calls[n2])}
        res[who] = {"instructions": ir, "per_request": (ir[n2] - ir[n1]) / (n2 - n1),
                    "startup_and_exit": ir[n1] - n1 * (ir[n2] - ir[n1]) / (n2 - n1),
                    "top_functions": [{"function": k, "per_request": round(v, 1)} for k, v in top],
                    "inclusive_per_request": inclusive,
                    "syscalls_per_request": {k: round(v, 2) for k, v in
                                             sorted(calls.items(), key=lambda kv: -kv[1])
                                             if round(v, 2) != 0},
                    "syscalls_total_per_request": round(sum(calls.values()), 2)}
    res["ratio"] = res["hxsrvd"]["per_request"] / res["floor"]["per_request"]
    return res


def cg_table(res):
    out = [f"callgrind, pref-get 10 keys ({res['date']}{', quick' if res['quick'] else ''}; "
           f"runs of {res['callgrind']['requests'][0]} and {res['callgrind']['requests'][1]} "
           f"requests, differenced)", "",
           "| server | instructions/request | system calls/request | start-up + exit (instr.) |",
           "|---|--:|--:|--:|"]
    c = res["callgrind"]
    for who in ("hxsrvd", "floor"):
        out.append(f"| {who} | {c[who]['per_request']:,.0f} | "
                   f"{c[who]['syscalls_total_per_request']:.1f} | "
                   f"{c[who]['startup_and_exit']:,.0f} |")
    out.append(f"| ratio | {c['ratio']:.2f} | "
               f"{c['hxsrvd']['syscalls_total_per_request'] / c['floor']['syscalls_total_per_request']:.2f} | |")
    inc = c["hxsrvd"]["inclusive_per_request"]
    out += ["", "hxsrvd: instructions per request inside these functions (callees included; "
            "rows overlap)", "", "| function | what | instr./request |", "|---|---|--:|"]
    for name, what in CG_INCLUSIVE:
        if name in inc:
            out.append(f"| {name} | {what} | {inc[name]:,.0f} |")
    for who in ("hxsrvd", "floor"):
        out += ["", f"{who}: instructions per request by function (self cost, top 15)", "",
                "| function | instr./request |", "|---|--:|"]
        for t in c[who]["top_functions"][:15]:
            out.append(f"| {t['function']} | {t['per_request']:,.0f} |")
        out += ["", f"{who}: system calls per request: " +
                ", ".join(f"{k} {v:g}" for k, v in c[who]["syscalls_per_request"].items())]
    return "\n".join(out)


# ---------------------------------------------------------------- main

def save(res, text, prefix):
    """PREFIX latest.json and .md, and a dated copy of the JSON (not for
    --quick, which writes PREFIX quick.json and .md only)."""
    rdir = os.path.join(BENCH, "results")
    os.makedirs(rdir, exist_ok=True)
    stamp = res["date"].replace(":", "").replace(" ", "_")
    data = json.dumps(res, indent=1) + "\n"
    name = prefix + ("quick" if res["quick"] else "latest")
    paths = [os.path.join(rdir, f"{name}.json")]
    if not res["quick"]:
        paths.append(os.path.join(rdir, f"{prefix}{stamp}.json"))
    for p in paths:
        with open(p, "w") as f:
            f.write(data)
    with open(os.path.join(rdir, f"{name}.md"), "w") as f:
        f.write(text + "\n")
    return paths + [os.path.join(rdir, f"{name}.md")]


def main():
    ap = argparse.ArgumentParser(prog="bench/run")
    ap.add_argument("--build", default=os.path.join(REPO, "build"))
    ap.add_argument("--tools", default=os.path.join(BENCH, "build"))
    ap.add_argument("--quick", action="store_true")
    ap.add_argument("--callgrind", action="store_true")
    ap.add_argument("--cpu", default="last",
                    help="CPU that every bench process is pinned to ('last', a number, or 'none')")
    a = ap.parse_args()
    cfg = QUICK if a.quick else FULL
    build = os.path.abspath(a.build)
    cpu = None if a.cpu == "none" else (os.cpu_count() - 1 if a.cpu == "last" else int(a.cpu))
    emulator = _emulator(build)
    if emulator:
        log(f"warning: {build} is a cross build run through {' '.join(emulator)}: "
            "its timings measure the emulator, not the device")
    info = build_info(build)
    if info.get("HX_SANITIZE") == "ON":
        log(f"warning: {build} is a sanitizer build: its time and memory are the sanitizer's")
    res = {"date": datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S"), "quick": a.quick,
           "machine": machine(), "build": info,
           "pinning": (f"hxsrvd, floor and clients pinned to CPU {cpu} (one core, as on the device)"
                       if cpu is not None else "not pinned"),
           "requests": REQUESTS, "emulator": emulator}
    res["loadavg_before"] = _loadavg()
    with Sandbox(build_dir=build) as sb:
        b = Bench(sb, os.path.abspath(a.tools), cpu)
        write_requests(sb)
        lim = fd_limit(b)
        res["fd_limit"] = lim
        need = 500 + 64
        res["fd_note"] = ""
        if lim["soft"] != "unlimited" and int(lim["soft"]) < need:
            b.fd_prefix = ["prlimit", f"--nofile={need}:{max(need, int(lim['hard']))}", "--"]
            res["fd_note"] = f"; raised to {need} for hxsrvd and the floor (prlimit)"
        if a.callgrind:
            with tempfile.TemporaryDirectory() as tmp:
                res["callgrind"] = run_callgrind(b, cfg, tmp)
            text = cg_table(res)
            print(text)
            for p in save(res, text, "callgrind-"):
                log(f"wrote {p}")
            return 0
        res["size"] = sizes(build, res["build"])

        log("start-up")
        proc, pid = b.daemon()
        replies = {}
        for req in REQUESTS:
            replies[req] = record_reply(b, req)
        b.stop_server(proc, pid)
        floor_reply = replies["get10"][0]
        res["startup"] = startup(b, cfg, floor_reply)

        mem = {}
        log("memory: hxsrvd alone")
        mem["hxsrvd"] = memory_sequence(b, b.daemon, cfg, "hxsrvd", SOCKET)
        log("memory: heap check (hxsrvd with bench/hxheap.cpp preloaded)")
        res["heap"] = heap_check(b, cfg)
        log("memory: floor alone")
        mem["floor"] = memory_sequence(b, lambda: b.floor(floor_reply), cfg, "floor",
                                       FLOOR_SOCKET)
        res["memory"] = mem

        dproc, dpid = b.daemon()
        res["fds_before"] = memory(dpid)["fds"]
        log("client: hxctl against /bin/true")
        res["client"] = client(b, cfg, floor_reply)

        res["latency"] = {}
        for scen in SCENARIOS:
            log(f"latency: {scen[4]}")
            name, req = scen[0], scen[1]
            r = latency_scenario(b, cfg, scen, replies[req][0], dpid)
            r["reply_bytes"] = len(replies[req][1])
            r["request"] = REQUESTS[req]
            r["reply"] = json.loads(replies[req][1])
            res["latency"][name] = r
        wait_until(lambda: memory(dpid)["fds"] <= res["fds_before"], 10)
        res["fds_after"] = memory(dpid)["fds"]
        res["memory_end"] = memory(dpid)
        b.stop_server(dproc, dpid)
        res["daemon_stderr"] = b.stderr("hxsrvd")
        res["console"] = console_lines(sb)
    res["loadavg_after"] = _loadavg()
    res["targets"] = verdicts(res)
    text = table(res)
    print(text)
    if res["daemon_stderr"]:
        log("hxsrvd standard error:\n" + res["daemon_stderr"])
    if res["console"]:
        log("console:\n" + "\n".join(res["console"][-20:]))
    for p in save(res, text, ""):
        log(f"wrote {p}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

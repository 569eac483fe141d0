"""The soak run of hxsrvd (bench/README.md, "Soak"); bench/soak calls this.

One hxsrvd in a fresh device sandbox answers N mixed requests from C clients
at once (bench/hxload -m: every reply is parsed and its "result" checked).
Its resident memory, heap in use and open descriptors are sampled after
start, after a warm-up and after every tenth of the run.  The run passes when
every request got its expected answer, the descriptor count never moves,
VmRSS stays within TOLERANCE_KIB and the heap bytes in use within
HEAP_TOLERANCE_B of the warm-up sample.
"""
import argparse
import datetime
import json
import os
import signal
import sys
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(BENCH)
sys.path.insert(0, os.path.join(REPO, "sim"))
sys.path.insert(0, BENCH)

from hxsim import Sandbox, wait_until  # noqa: E402
from hxbench import HXSRVD, SOCKET, WORK, Bench, build_info, log, machine  # noqa: E402

# Growth allowed after the warm-up (bench/README.md, "Soak" says why):
# resident, for the top of the heap that glibc grows and trims as the number
# of connections open at once varies; heap bytes in use (exact: thread cache
# off), for a one-off growth such as libevent's descriptor table doubling.
TOLERANCE_KIB = 64
HEAP_TOLERANCE_B = 4096
DEFAULT_REQUESTS = 1_000_000

KEYS10 = ["lan_ipaddr", "lan_netmask", "lan_if", "wl_ssid", "wl_channel",
          "dhcp_range_start", "dhcp_range_end", "wan_type", "work_mode", "timezone"]


def get(confs=None, infos=None):
    args = {}
    if confs:
        args["confs"] = confs
    if infos:
        args["infos"] = infos
    return json.dumps({"method": "pref-get", "arguments": args})


def setc(confs):
    return json.dumps({"method": "pref-set", "arguments": {"confs": confs}})


def reval(targets):
    return json.dumps({"method": "revalidate", "arguments": targets})


# (expected "result" or "-" for a close without reply, request, share).
# Only targets and items that run no program: the sandbox's stubs are Python
# processes.  Each pref-set pair alternates a key between two values.
MIX = [
    ("success", get(KEYS10), 16),
    ("success", get(["active_user", "user0_name", "user1_name", "user1_icon"]), 4),
    ("success", get(infos=["s_time", "s_sysinfo"]), 6),
    ("success", get(infos=["bat_cap", "bat_charging", "fwup_status", "wl_radio"]), 6),
    ("success", get(infos=["owner_list", "ws_state", "p_model", "s_synctasklist",
                           "sdcard_status", "pmd_status"]), 4),
    ("success", get(["wl_ssid"], ["s_osinfo", "sleep_timeout", "backup_stat"]), 4),
    ("success", setc({"wl_ssid": "HX-Travel-A"}), 4),
    ("success", setc({"user1_name": "Soak-1", "user1_icon": "2"}), 2),
    ("success", setc({"wl_ssid": "HX-Travel-B"}), 4),
    ("success", setc({"user1_name": "Soak-2", "user1_icon": "3"}), 2),
    ("success", reval({"video": {}}), 6),
    ("success", reval({"owner_chg": {}}), 4),
    ("success", reval({"thumbnail": {}, "ipsec": {}, "video2": {}}), 2),
    ("success", reval({"sleep_timeout": {}}), 2),
    # malformed: not JSON (closed without reply), then error replies
    ("-", '{"method": "pref-get", "arguments": {"confs": [}', 1),
    ("-", "this is not JSON at all", 1),
    ("method not found", '{"method": "pref-delete", "arguments": {}}', 1),
    ("method not found", '{"method": 7, "arguments": {}}', 1),
    ("invalid arguments", '{"method": "pref-get", "arguments": ["lan_ipaddr"]}', 1),
    ("invalid arguments", '{"method": "revalidate"}', 1),
    ("internal error", setc(["wl_ssid"]), 1),
    ("internal error", setc({"no_such_key_soak": 1}), 1),
    ("Invalid argument.", reval({"sleep_timeout": 5}), 1),
]


def mix_lines():
    """The request file of hxload -m: the shares interleaved, so that the
    clients meet every kind of request all the time."""
    left = [[expect, req, n] for expect, req, n in MIX]
    lines = []
    while any(x[2] for x in left):
        for x in left:
            if x[2]:
                lines.append(f"{x[0]}\t{x[1]}")
                x[2] -= 1
    return lines


def share_malformed():
    bad = sum(n for expect, _, n in MIX if expect != "success")
    return bad / sum(n for _, _, n in MIX)


def status_kib(pid):
    out = {}
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            key, _, rest = line.partition(":")
            if key in ("VmRSS", "RssAnon", "RssFile", "VmHWM"):
                out[key] = int(rest.split()[0])
    return out


class Soak:
    def __init__(self, b, requests, clients):
        self.b = b
        self.requests = requests
        self.clients = clients
        self.samples = []
        self.totals = {}
        self.heap_out = f"{WORK}/soak-heap.txt"

    def start(self):
        self.b.sb.write(self.heap_out, "")
        # libhxheap answers SIGRTMIN+3 with glibc's mallinfo2; the thread
        # cache off makes "in use" exact (cached chunks count as in use).
        env = {"LD_PRELOAD": self.b.tool("libhxheap.so"), "HXHEAP_OUT": self.heap_out,
               "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
        self.proc, self.pid = self.b.start_server([HXSRVD, "-f"], SOCKET, "hxsrvd", env=env)
        self.fds0 = len(os.listdir(f"/proc/{self.pid}/fd"))

    def heap(self):
        n = len(self.samples)
        os.kill(self.pid, signal.SIGRTMIN + 3)
        lines = wait_until(lambda: [x for x in self.b.sb.read_text(self.heap_out).splitlines()
                                    if x][n:], 10)
        in_use, _mmapped, arena = (int(x) for x in lines[0].split())
        return in_use, arena

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def sample(self, label, done):
        # The daemon may not have taken the last clients' closes yet.
        wait_until(lambda: self.fds() == self.fds0, 5, 0.01)
        time.sleep(0.05)
        in_use, arena = self.heap()
        s = {"label": label, "requests": done, "fds": self.fds(), **status_kib(self.pid),
             "heap_in_use": in_use, "arena_kib": arena // 1024}
        self.samples.append(s)
        log(f"soak: {label}: {done} requests, VmRSS {s['VmRSS']} KiB, "
            f"heap {in_use} B, fds {s['fds']}")

    def load(self, n):
        argv = [self.b.tool("hxload"), "-m", "-s", SOCKET, "-f", f"{WORK}/soak.req",
                "-n", str(n), "-w", "0", "-c", str(self.clients), "-t", "30000"]
        r = self.b.run(argv, check=False, timeout=7200)
        if r.stderr:
            log(r.stderr.decode(errors="replace").rstrip())
        if r.returncode != 0:
            raise RuntimeError(f"hxload failed ({r.returncode})")
        out = json.loads(r.stdout)
        for k in ("errors", "checked", "closed_as_expected", "eagain", "connect_errors",
                  "eof", "timeouts", "malformed", "bad_result", "trailing"):
            self.totals[k] = self.totals.get(k, 0) + out[k]
        self.totals["requested"] = self.totals.get("requested", 0) + n

    def run(self, warmup):
        self.b.sb.write(f"{WORK}/soak.req", "\n".join(mix_lines()) + "\n")
        self.start()
        self.sample("after start", 0)
        self.load(warmup)
        self.sample("after warm-up", warmup)
        done = warmup
        for k in range(1, 11):
            n = self.requests * k // 10 - self.requests * (k - 1) // 10
            self.load(n)
            done += n
            self.sample(f"{k}/10", done)
        self.alive = self.proc.poll() is None
        self.b.stop_server(self.proc, self.pid)


def stderr_summary(text):
    """The daemon's standard error, which holds a warning for each of the
    many malformed requests: its line count and first lines."""
    lines = [x for x in text.splitlines() if x]
    return {"daemon_stderr_lines": len(lines), "daemon_stderr_head": lines[:20]}


def verdict(soak, tolerance):
    base = soak.samples[1]
    runs = soak.samples[1:]
    t = soak.totals
    fds = sorted({s["fds"] for s in soak.samples})
    growth = max(s["VmRSS"] for s in runs) - base["VmRSS"]
    heap = max(s["heap_in_use"] for s in runs) - base["heap_in_use"]
    answered = t["checked"] + t["closed_as_expected"]
    checks = [
        ("every request answered as expected",
         t["errors"] == 0 and answered == t["requested"],
         f"{answered:,} of {t['requested']:,} ({t['checked']:,} replies checked, "
         f"{t['closed_as_expected']:,} non-JSON requests closed without reply), "
         f"{t['errors']} errors"),
        ("descriptors exactly constant", fds == [soak.fds0],
         f"{' / '.join(str(x) for x in fds)} (after start: {soak.fds0})"),
        (f"VmRSS after the warm-up within +{tolerance} KiB", growth <= tolerance,
         f"max {growth:+d} KiB over the warm-up sample"),
        (f"heap in use after the warm-up within +{HEAP_TOLERANCE_B} B",
         heap <= HEAP_TOLERANCE_B, f"max {heap:+,d} B over the warm-up sample"),
        ("daemon still running at the end", soak.alive, "yes" if soak.alive else "no"),
    ]
    return checks, {"rss_growth_kib": growth, "heap_growth_b": heap}


def table(res):
    out = [f"hxsrvd soak, {res['date']}  ",
           f"machine: {res['machine']['cpu']}, {res['machine']['cpus']} CPUs, "
           f"{res['machine']['kernel']}  ",
           f"build: {res['build'].get('dir')} ({res['build'].get('CMAKE_BUILD_TYPE')}), source "
           f"{res['build'].get('git', '?')}  ",
           f"{res['requests']:,} mixed requests after a warm-up of {res['warmup']:,}, "
           f"{res['clients']} clients at once, one request per connection; "
           f"{res['malformed_share']:.0%} malformed; hxsrvd with bench/hxheap.cpp preloaded, "
           "glibc thread cache off", "",
           "| sample | requests | VmRSS KiB | ΔRSS KiB | RssAnon KiB | RssFile KiB | "
           "heap in use B | Δheap B | arena KiB | fds |",
           "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|"]
    base = res["samples"][1]
    for s in res["samples"]:
        warm = s is not res["samples"][0]
        d_rss = f"{s['VmRSS'] - base['VmRSS']:+d}" if warm else ""
        d_heap = f"{s['heap_in_use'] - base['heap_in_use']:+,d}" if warm else ""
        out.append(f"| {s['label']} | {s['requests']:,} | {s['VmRSS']} | {d_rss} | "
                   f"{s['RssAnon']} | {s['RssFile']} | {s['heap_in_use']:,} | {d_heap} | "
                   f"{s['arena_kib']} | {s['fds']} |")
    out += ["", "| check | measured | verdict |", "|---|---|---|"]
    for name, ok, measured in res["checks"]:
        out.append(f"| {name} | {measured} | {'pass' if ok else 'FAIL'} |")
    out += ["", f"stub programs run by the daemon during the run: {res['programs_run']}  ",
            f"wall time: {res['wall_s']:.0f} s; result: {'PASS' if res['ok'] else 'FAIL'}"]
    return "\n".join(out)


def save(res, text):
    """soak-latest.md, .json and a dated soak-DATE.md; a run shorter than the
    default (run-reliability --quick, the smoke test) writes soak-quick.md and
    .json only, not kept in git."""
    rdir = os.path.join(BENCH, "results")
    os.makedirs(rdir, exist_ok=True)
    name = "soak-latest" if res["requests"] >= DEFAULT_REQUESTS else "soak-quick"
    paths = [os.path.join(rdir, f"{name}.md")]
    if name == "soak-latest":
        stamp = res["date"].replace(":", "").replace(" ", "_")
        paths.append(os.path.join(rdir, f"soak-{stamp}.md"))
    for p in paths:
        with open(p, "w") as f:
            f.write(text + "\n")
    with open(os.path.join(rdir, f"{name}.json"), "w") as f:
        json.dump(res, f, indent=1)
    return paths


def main():
    ap = argparse.ArgumentParser(prog="bench/soak")
    ap.add_argument("--requests", type=int, default=DEFAULT_REQUESTS)
    ap.add_argument("--clients", type=int, default=20)
    ap.add_argument("--build", default=os.path.join(REPO, "build"))
    ap.add_argument("--tools", default=os.path.join(BENCH, "build"))
    a = ap.parse_args()
    if a.requests < 10 or a.clients < 1:
        ap.error("--requests must be at least 10 and --clients at least 1")
    build = os.path.abspath(a.build)
    warmup = max(2000, a.requests // 20)
    res = {"date": datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S"),
           "machine": machine(), "build": build_info(build),
           "requests": a.requests, "warmup": warmup, "clients": a.clients,
           "malformed_share": share_malformed(), "mix": MIX}
    t0 = time.monotonic()
    with Sandbox(build_dir=build) as sb:
        soak = Soak(Bench(sb, os.path.abspath(a.tools), None), a.requests, a.clients)
        soak.run(warmup)
        res["programs_run"] = len(sb.cmdlog())
        res.update(stderr_summary(soak.b.stderr("hxsrvd")))
    res["wall_s"] = time.monotonic() - t0
    res["samples"], res["totals"] = soak.samples, soak.totals
    res["checks"], res["growth"] = verdict(soak, TOLERANCE_KIB)
    res["ok"] = all(ok for _, ok, _ in res["checks"])
    text = table(res)
    print(text)
    for p in save(res, text):
        log(f"wrote {p}")
    return 0 if res["ok"] else 1


if __name__ == "__main__":
    sys.exit(main())

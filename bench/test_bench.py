"""Smoke test of the bench tools (not part of ./run-tests; no timing is
asserted):  /usr/bin/python3 -m pytest -q bench/test_bench.py

Builds the tools into bench/build, checks hxload's end-of-reply detection
and counts against hxfloor serving awkward replies in the sandbox, its mixed
mode (-m) against hxsrvd, hxspawn, that no tool loads the C++ runtime, and
that `bench/run --quick` and a short `bench/soak` complete."""
import json
import os
import subprocess
import sys

import pytest

BENCH = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(BENCH)
TOOLS = os.path.join(BENCH, "build")
sys.path.insert(0, os.path.join(REPO, "sim"))
sys.path.insert(0, BENCH)

import hxbench  # noqa: E402
from hxsim import Sandbox  # noqa: E402

REQ = '{"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}\n'


@pytest.fixture(scope="module")
def bench():
    subprocess.run(["cmake", "-S", BENCH, "-B", TOOLS], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", TOOLS], check=True, stdout=subprocess.DEVNULL)
    with Sandbox(build_dir=os.environ.get("HX_BUILD", os.path.join(REPO, "build"))) as sb:
        b = hxbench.Bench(sb, TOOLS, None)
        sb.write("/var/tmp/bench/req.req", REQ)
        yield b


def floor_load(b, reply, clients=1, n=50, extra=()):
    b.sb.write("/var/tmp/bench/reply", reply)
    proc, pid = b.floor("/var/tmp/bench/reply")
    try:
        r = b.run([b.tool("hxload"), "-s", hxbench.FLOOR_SOCKET, "-f", "/var/tmp/bench/req.req",
                   "-n", str(n), "-w", "5", "-c", str(clients), *extra], check=True)
    finally:
        b.stop_server(proc, pid)
    return json.loads(r.stdout)


@pytest.mark.parametrize("clients", [1, 8])
def test_reply_end_is_found_past_braces_in_strings(bench, clients):
    reply = ('{ "arguments": { "a": "}{]\\"\\\\", "b": [ 1, { "c": "]}" } ], "d": "\\u007d" }, '
             '"result": "success" }')
    r = floor_load(bench, reply, clients)
    assert r["errors"] == 0 and r["n"] == 50
    assert r["reply_bytes"] == [len(reply.encode())]


def test_reply_that_is_not_a_success_is_counted(bench):
    r = floor_load(bench, '{ "arguments": { }, "result": "internal error" }', n=10)
    assert r["bad_result"] == 1 and r["n"] == 10


def test_reply_that_is_not_an_object_is_counted(bench):
    r = floor_load(bench, '[ 1, 2 ]', n=3)
    assert r["malformed"] == 3 + 5 and r["n"] == 0


def test_held_connections_stay_open(bench):
    r = floor_load(bench, '{ "result": "success" }', n=20, extra=["-H", "40"])
    assert (r["held_open"], r["held_refused"], r["held_closed_by_server"]) == (40, 0, 0)


def test_spawn_counts_failures(bench):
    r = json.loads(bench.run([bench.tool("hxspawn"), "-n", "5", "-w", "0", "/bin/true", "::",
                              "/bin/false"], check=True).stdout)
    assert (r["a"]["n"], r["a"]["failed"], r["b"]["failed"]) == (5, 0, 5)


@pytest.mark.parametrize("tool", ["hxload", "hxfloor", "hxspawn", "libhxheap.so"])
def test_tools_need_nothing_of_the_cpp_runtime(bench, tool):
    """The floor must stay the smallest server, and a library that hxload
    maps too would no longer count as the measured server's own memory."""
    r = subprocess.run(["readelf", "--dyn-syms", "-W", bench.tool(tool)], capture_output=True,
                       check=True)
    assert [line for line in r.stdout.decode().splitlines()
            if "@GLIBCXX" in line or "@CXXABI" in line] == []


MIXED = [
    'success\t{"method": "revalidate", "arguments": {"video": {}}}',
    'method not found\t{"method": "nothing", "arguments": {}}',
    '-\tthis is not JSON at all',
]


@pytest.mark.parametrize("clients", [1, 3])
def test_mixed_mode_checks_every_reply(bench, clients):
    """hxload -m against hxsrvd: every reply's result is checked, a request
    that is not JSON must be closed without reply; a wrong expectation is
    counted for every reply, not only the first."""
    lines = MIXED + ['internal error\t{"method": "revalidate", "arguments": {"video": {}}}']
    bench.sb.write("/var/tmp/bench/mixed.req", "\n".join(lines) + "\n")
    proc, pid = bench.daemon()
    try:
        r = json.loads(bench.run([bench.tool("hxload"), "-m", "-s", hxbench.SOCKET, "-f",
                                  "/var/tmp/bench/mixed.req", "-n", "40", "-w", "0",
                                  "-c", str(clients)], check=True).stdout)
    finally:
        bench.stop_server(proc, pid)
    assert (r["checked"], r["closed_as_expected"], r["bad_result"], r["errors"]) == (20, 10, 10, 10)


def test_soak_passes_a_short_run():
    build = os.environ.get("HX_BUILD", os.path.join(REPO, "build"))
    r = subprocess.run([os.path.join(BENCH, "soak"), "--requests", "2000", "--clients", "4",
                        "--build", build], capture_output=True, text=True, timeout=900)
    assert r.returncode == 0, r.stdout + r.stderr
    assert "| descriptors exactly constant |" in r.stdout and "result: PASS" in r.stdout


def test_run_quick_writes_its_results():
    env = dict(os.environ)
    build = env.get("HX_BUILD", os.path.join(REPO, "build"))
    r = subprocess.run([os.path.join(BENCH, "run"), "--quick", "--build", build],
                       capture_output=True, text=True, timeout=900)
    assert r.returncode == 0, r.stderr
    assert "| pref-get, 10 keys |" in r.stdout
    with open(os.path.join(BENCH, "results", "quick.json")) as f:
        res = json.load(f)
    assert {t["target"] for t in res["targets"]} and res["latency"]["get10"]["hxsrvd"]["n"] > 0
    assert res["latency"]["get10"]["hxsrvd"]["errors"] == 0

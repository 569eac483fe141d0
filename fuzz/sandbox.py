#!/usr/bin/python3
"""Runs one fuzz target inside a fresh device sandbox (sim/hxsim.py).

    sandbox.py --build DIR --out OUT [--seed DIR] TARGET [LIBFUZZER ARGS...]
    sandbox.py --build DIR --repro FILE TARGET [LIBFUZZER ARGS...]

The seed corpus (fuzz/corpus/TARGET unless --seed names another) is copied
to the sandbox's /var/tmp/fuzz (thrown away with the sandbox); the fuzzer's
working corpus and artifacts live there and are copied to OUT/corpus and
OUT/ on the host when the run ends.  The fuzzer's output goes to standard error; the exit status is the
fuzzer's.  With --repro, the target runs once on FILE (a crash file)
instead."""
import argparse
import os
import shutil
import subprocess
import sys

FUZZ = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(FUZZ), "sim"))
from hxsim import Sandbox  # noqa: E402

WORK = "/var/tmp/fuzz"


def copy_tree(src, dst):
    os.makedirs(dst, exist_ok=True)
    for name in os.listdir(src):
        shutil.copy(os.path.join(src, name), os.path.join(dst, name))


def run(sb, argv, env):
    """The fuzzer's exit status; 1 when a stub program of the sandbox ran
    (the seam let a command through)."""
    p = sb.popen(argv, env=env, stdin=subprocess.DEVNULL, stdout=sys.stderr)
    try:
        status = p.wait()
    except KeyboardInterrupt:
        p.terminate()
        status = p.wait()
    ran = sb.cmdlog()
    if ran:
        print(f"sandbox.py: programs ran past the seam:\n{ran}", file=sys.stderr)
        status = status or 1
    return status


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", required=True)
    ap.add_argument("--out")
    ap.add_argument("--repro")
    ap.add_argument("--seed", help="seed corpus (default fuzz/corpus/TARGET)")
    ap.add_argument("target")
    ap.add_argument("args", nargs=argparse.REMAINDER)
    a = ap.parse_args()
    binary = os.path.join(os.path.abspath(a.build), "fuzz", a.target)
    if (a.out is None) == (a.repro is None):
        ap.error("one of --out and --repro is needed")
    with Sandbox(build_dir=os.path.abspath(a.build)) as sb:
        env = {"HX_FUZZ_SANDBOX": "1"}
        if a.repro:
            sb.write(WORK + "/repro", open(a.repro, "rb").read())
            return run(sb, [binary, *a.args, WORK + "/repro"], env)
        seed = a.seed or os.path.join(FUZZ, "corpus", a.target)
        copy_tree(seed, sb.path(WORK + "/corpus"))
        os.makedirs(sb.path(WORK + "/artifacts"), exist_ok=True)
        argv = [binary, f"-artifact_prefix={WORK}/artifacts/",
                *a.args, WORK + "/corpus"]
        status = run(sb, argv, env)
        out = os.path.abspath(a.out)
        copy_tree(sb.path(WORK + "/artifacts"), out)
        shutil.rmtree(os.path.join(out, "corpus"), ignore_errors=True)
        copy_tree(sb.path(WORK + "/corpus"), os.path.join(out, "corpus"))
    return status


if __name__ == "__main__":
    sys.exit(main())

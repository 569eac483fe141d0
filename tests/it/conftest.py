"""Fixtures: a fresh device sandbox per test module and hxsrvd running in it.
Sandbox tests are skipped unless run as root."""
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), "sim"))
from hxsim import Sandbox  # noqa: E402

# HX_VALGRIND=1 runs every daemon under memcheck; a module fails on any error
# or definite leak in its logs, or on any sanitizer report of its daemons.
VALGRIND_LOGS = "/var/log/hxsim"
VALGRIND = ["valgrind", "-q", "--leak-check=full", "--show-leak-kinds=definite",
            "--errors-for-leak-kinds=definite", f"--log-file={VALGRIND_LOGS}/valgrind.%p.log"]


def need_root():
    if os.geteuid() != 0:
        pytest.skip("the device sandbox needs root (namespaces, mounts); run as root")


def findings(sb, valgrind):
    found = []
    for d, prefix, suffix, marks in ((sb.state, "hxsrvd-", ".stderr", ("Sanitizer", "runtime error:")),
                                     (sb.path(VALGRIND_LOGS), "valgrind.", "", ("",))):
        for name in sorted(os.listdir(d)) if valgrind or prefix == "hxsrvd-" else ():
            if name.startswith(prefix) and name.endswith(suffix):
                with open(os.path.join(d, name), errors="replace") as f:
                    text = f.read()
                if text and any(m in text for m in marks):
                    found.append(f"{name}:\n{text}")
    return found


@pytest.fixture(scope="module")
def sandbox():
    need_root()
    valgrind = os.environ.get("HX_VALGRIND") == "1"
    sb = Sandbox(wrapper=VALGRIND if valgrind else None).start()
    yield sb
    try:
        found = findings(sb, valgrind)
    finally:
        sb.stop()
    if found:
        pytest.fail("errors reported in hxsrvd:\n" + "\n".join(found))


@pytest.fixture(scope="module")
def daemon(sandbox):
    if not os.path.isfile(os.path.join(sandbox.build_dir, "hxsrvd")):
        pytest.skip(f"{sandbox.build_dir}/hxsrvd is not built")
    d = sandbox.start_daemon()
    yield d
    d.stop()

"""Fixtures: a fresh device sandbox per test module (root only) and hxsrvd in it."""
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


def findings(sb, valgrind):
    logs = [(sb.state, n, ("Sanitizer", "runtime error:")) for n in os.listdir(sb.state) if n.startswith("hxsrvd-") and n.endswith(".stderr")]
    logs += [(sb.path(VALGRIND_LOGS), n, ("",)) for n in os.listdir(sb.path(VALGRIND_LOGS)) if valgrind and n.startswith("valgrind.")]
    texts = [(n, open(os.path.join(d, n), errors="replace").read(), marks) for d, n, marks in sorted(logs)]
    return [f"{n}:\n{text}" for n, text, marks in texts if text and any(m in text for m in marks)]


@pytest.fixture(scope="module")
def sandbox():
    if os.geteuid() != 0:
        pytest.skip("the device sandbox needs root (namespaces, mounts); run as root")
    sb = Sandbox(wrapper=VALGRIND if (valgrind := os.environ.get("HX_VALGRIND") == "1") else None).start()
    yield sb
    try:
        found = findings(sb, valgrind)
    finally:
        sb.stop()
    assert not found, "errors reported in hxsrvd:\n" + "\n".join(found)


@pytest.fixture(scope="module")
def daemon(sandbox):
    if not os.path.isfile(os.path.join(sandbox.build_dir, "hxsrvd")):
        pytest.skip(f"{sandbox.build_dir}/hxsrvd is not built")
    yield (d := sandbox.start_daemon())
    d.stop()

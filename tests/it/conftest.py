"""Fixtures for the integration tests: a fresh device sandbox per test module
(sim/hxsim.py) and hxsrvd running in it. Sandbox tests are skipped unless
run as root; tests that need no sandbox (test_factory.py) still run."""
import os
import sys

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "sim"))

from hxsim import Sandbox  # noqa: E402


def need_root():
    if os.geteuid() != 0:
        pytest.skip("the device sandbox needs root (namespaces, mounts); run as root")


# With HX_VALGRIND=1 every daemon started through start_daemon() runs under
# valgrind memcheck, and a module fails if any of its logs reports an error
# or a definite leak.
VALGRIND_LOGS = "/var/log/hxsim"
VALGRIND = ["valgrind", "-q", "--leak-check=full", "--show-leak-kinds=definite",
            "--errors-for-leak-kinds=definite",
            f"--log-file={VALGRIND_LOGS}/valgrind.%p.log"]


def valgrind_findings(sb):
    """The contents of every non-empty valgrind log of the sandbox."""
    logs = sb.path(VALGRIND_LOGS)
    found = []
    for name in sorted(os.listdir(logs)):
        if name.startswith("valgrind.") and os.path.getsize(os.path.join(logs, name)):
            with open(os.path.join(logs, name), errors="replace") as f:
                found.append(f"{name}:\n{f.read()}")
    return found


SANITIZER_MARKS = ("Sanitizer", "runtime error:")


def sanitizer_findings(sb):
    """Standard error of every daemon of the sandbox that holds an
    AddressSanitizer, LeakSanitizer or UndefinedBehaviorSanitizer report."""
    found = []
    for name in sorted(os.listdir(sb.state)):
        if name.startswith("hxsrvd-") and name.endswith(".stderr"):
            with open(os.path.join(sb.state, name), errors="replace") as f:
                text = f.read()
            if any(mark in text for mark in SANITIZER_MARKS):
                found.append(f"{name}:\n{text}")
    return found


@pytest.fixture(scope="module")
def sandbox():
    need_root()
    valgrind = os.environ.get("HX_VALGRIND") == "1"
    sb = Sandbox(wrapper=VALGRIND if valgrind else None).start()
    yield sb
    try:
        findings = sanitizer_findings(sb)
        findings += valgrind_findings(sb) if valgrind else []
    finally:
        sb.stop()
    if findings:
        pytest.fail("errors reported in hxsrvd:\n" + "\n".join(findings))


@pytest.fixture(scope="module")
def daemon(sandbox):
    binary = os.path.join(sandbox.build_dir, "hxsrvd")
    if not os.path.isfile(binary):
        pytest.skip(f"{binary} is not built")
    d = sandbox.start_daemon()
    yield d
    d.stop()

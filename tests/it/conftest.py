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


@pytest.fixture(scope="module")
def sandbox():
    need_root()
    sb = Sandbox().start()
    yield sb
    sb.stop()


@pytest.fixture(scope="module")
def daemon(sandbox):
    binary = os.path.join(sandbox.build_dir, "hxsrvd")
    if not os.path.isfile(binary):
        pytest.skip(f"{binary} is not built")
    d = sandbox.start_daemon()
    yield d
    d.stop()

"""Small helpers shared by the integration tests."""
import time


def wait_for(predicate, timeout=30.0, interval=0.05):
    """Polls predicate until it is true; fails the test after timeout seconds.
    This waits for an outcome; it never asserts on how long it took."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("condition not reached within %.0f s" % timeout)
        time.sleep(interval)


def console_after(sandbox, mark):
    """Console text written since `mark`, an earlier sandbox.console()."""
    text = sandbox.console()
    assert text.startswith(mark)
    return text[len(mark):]

"""Small helpers shared by the integration tests."""
import json
import time

# A request of 8 bytes or fewer prints "Invalid input" (Part 1.2) and nothing
# else prints it here: it marks the end of what earlier requests printed.
SYNC_REQUEST = b"{}"
SYNC_OUT = "Invalid input"

# The revalidate-target table of Part 2.2, in table order.
REVALIDATE_NAMES = [
    "wan", "lan", "dhcp", "wl", "wl_radio", "wl_power_save_mode", "firewall",
    "upnp", "datetime", "staticroute", "httpd", "fw_upgrade", "uploadsysconf",
    "factorydefault", "reboot", "poweroff", "video", "video2", "webdav", "dlna",
    "ipsec", "fm", "usbcharger", "firmwareupgrade", "pmd", "sleep_timeout",
    "thumbnail", "samba", "createsynctask", "cancelsynctask", "disk_unlock",
    "safely_remove", "charger_test", "tdls", "cut_through", "wpa", "owner_chg",
    "sd_copy", "sync_signal", "sys_event", "ap_profiles",
]


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


def send(sandbox, request):
    """One request on a fresh connection; the complete reply (b"" if none).
    A request that is not bytes is sent as its JSON text."""
    if not isinstance(request, bytes):
        request = json.dumps(request).encode()
    return sandbox.request(request)


def revalidate(sandbox, arguments):
    return send(sandbox, {"method": "revalidate", "arguments": arguments})


def pref_set(sandbox, confs):
    return send(sandbox, {"method": "pref-set", "arguments": {"confs": confs}})


def stdout_since(sandbox, daemon, before):
    """What the daemon printed on standard output since `before` (an earlier
    daemon.stdout()), up to a marker printed by a later short request."""
    s = sandbox.connect()
    try:
        s.sendall(SYNC_REQUEST)
        wait_for(lambda: daemon.stdout()[len(before):].endswith(SYNC_OUT))
    finally:
        s.close()
    out = daemon.stdout()
    assert out.startswith(before)
    return out[len(before):-len(SYNC_OUT)]


def recv_until_closed(sock, timeout=30):
    """Everything received until the peer closes the connection."""
    sock.settimeout(timeout)
    data = b""
    while True:
        chunk = sock.recv(4096)
        if not chunk:
            return data
        data += chunk


def umask_of(daemon):
    """The daemon's umask, from the host's /proc."""
    with open(f"/proc/{daemon.host_pid}/status") as f:
        for line in f:
            if line.startswith("Umask:"):
                return int(line.split()[1], 8)
    raise AssertionError("no Umask line")


def store_restore(sandbox, store, key, raw):
    """Puts back a raw value read earlier with sandbox.store_get: None (the
    key was absent) deletes the key."""
    if raw is None:
        sandbox.store_delete(store, key)
    else:
        sandbox.store_set(store, key, raw)

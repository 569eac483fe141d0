import json
import time

# A request of 8 bytes or fewer prints "Invalid input", which nothing else prints: a marker.
SYNC_REQUEST, SYNC_OUT = b"{}", "Invalid input"



def result(text):
    """A reply with no arguments and this result."""
    return b'{ "arguments": { }, "result": "%s" }' % text.encode()


SUCCESS, INVALID, INTERNAL = result("success"), result("invalid arguments"), result("internal error")
NULL_ARG, NOT_OBJECT = "Input parameter is NULL.\n", "Unexpected json type.\n"

# The revalidate targets, in the daemon's table order.
REVALIDATE_NAMES = """wan lan dhcp wl wl_radio wl_power_save_mode firewall upnp datetime staticroute httpd fw_upgrade
    uploadsysconf factorydefault reboot poweroff video video2 webdav dlna ipsec fm usbcharger firmwareupgrade pmd
    sleep_timeout thumbnail samba createsynctask cancelsynctask disk_unlock safely_remove charger_test tdls cut_through
    wpa owner_chg sd_copy sync_signal sys_event ap_profiles""".split()


def wait_for(predicate, timeout=30.0, interval=0.05):
    """Polls predicate until it is true (its value); fails after timeout seconds."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() > deadline:
            raise AssertionError("condition not reached within %.0f s" % timeout)
        time.sleep(interval)
    return value


def console_after(sandbox, mark):
    """Console text written since `mark`, an earlier sandbox.console()."""
    assert (text := sandbox.console()).startswith(mark)
    return text[len(mark):]


def send(sandbox, request):
    """One request (bytes, or sent as its JSON text) on a fresh connection; the whole reply."""
    return sandbox.request(request if isinstance(request, bytes) else json.dumps(request).encode())


def revalidate(sandbox, arguments):
    return send(sandbox, {"method": "revalidate", "arguments": arguments})


def pref_set(sandbox, confs):
    return send(sandbox, {"method": "pref-set", "arguments": {"confs": confs}})


def stdout_since(sandbox, daemon, before):
    """Standard output since `before` (an earlier daemon.stdout()), up to a later marker."""
    with sandbox.connect() as s:
        s.sendall(SYNC_REQUEST)
        wait_for(lambda: daemon.stdout()[len(before):].endswith(SYNC_OUT))
    assert (out := daemon.stdout()).startswith(before)
    return out[len(before):-len(SYNC_OUT)]


def read_reply(sock, size, timeout=60):
    """Up to size bytes: the daemon leaves the connection open after its reply."""
    sock.settimeout(timeout)
    data = b""
    while len(data) < size and (chunk := sock.recv(65536)):
        data += chunk
    return data


def recv_until_closed(sock, timeout=30):
    return read_reply(sock, float("inf"), timeout)


def umask_of(daemon):
    with open(f"/proc/{daemon.host_pid}/status") as f:
        return next(int(line.split()[1], 8) for line in f if line.startswith("Umask:"))


def store_restore(sandbox, store, key, raw):
    """Puts back a raw value read with sandbox.store_get (None: deletes the key)."""
    if raw is None:
        sandbox.store_delete(store, key)
    else:
        sandbox.store_set(store, key, raw)

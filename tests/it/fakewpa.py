"""fakewpa.py SOCKET LOG: a supplicant control socket; logs "SENDER REPR", answers "OK\\n" unless told on stdin:
"reply CMD<TAB>TEXT", "silent CMD", "event TEXT" (to attached clients), "event-to-all TEXT"."""
import os, select, socket, sys  # noqa: E401

path, log_path = sys.argv[1:3]
os.makedirs(os.path.dirname(path), exist_ok=True)
os.path.exists(path) and os.unlink(path)
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(path)
replies, silent, attached, seen, log = {}, set(), [], [], open(log_path, "a", buffering=1)
print("ready", flush=True)
while True:
    ready, out = select.select([s, sys.stdin], [], [])[0], []
    if s in ready:
        data, sender = s.recvfrom(8192)
        cmd = data.decode(errors="replace")
        log.write("%s %r\n" % (sender, cmd))
        seen += [] if sender in seen else [sender]
        if cmd in ("ATTACH", "DETACH"):
            attached = [a for a in attached if a != sender] + [sender] * (cmd == "ATTACH")
        out = [] if cmd in silent else [(replies.get(cmd, b"OK\n"), sender)]
    if sys.stdin in ready:
        verb, _, arg = (sys.stdin.readline() or "quit").rstrip("\n").partition(" ")
        if verb == "quit":
            break
        if verb == "reply":
            replies[arg.split("\t")[0]] = arg.split("\t")[1].replace("\\n", "\n").encode()
        silent |= {arg} if verb == "silent" else set()
        out = [(arg.encode(), c) for c in (seen if verb == "event-to-all" else attached)] if verb[:5] == "event" else []
    for data, to in out:
        try:
            s.sendto(data, to)
        except OSError:
            pass
    sys.stdin in ready and print("done", flush=True)

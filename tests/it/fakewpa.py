#!/usr/bin/python3
"""A scripted fake wpa_supplicant control interface, run inside the sandbox.

    fakewpa.py SOCKET LOG

Binds the Unix datagram socket SOCKET (e.g. /var/run/wpa_supplicant/mlan0)
and answers each request datagram with one reply datagram, as the real
supplicant does: "ATTACH" and "DETACH" add and remove the sender from the
attached clients; every other command gets its scripted reply (default
"OK\\n"; "PING" gets "PONG\\n"). Each request is appended to LOG as
"<sender> <command>" (one line, the command as repr of its text).

Lines on standard input script it:
    reply CMD<TAB>TEXT   CMD is answered with TEXT (\\n escapes a newline)
    silent CMD           CMD gets no reply at all (the client times out)
    event TEXT           TEXT is sent to every attached client
    event-to-all TEXT    the same; also to clients that did not attach
"ready" is printed on standard output once the socket is bound, and "done"
after each input line has been carried out.
"""
import os
import select
import socket
import sys


def main():
    path, log_path = sys.argv[1], sys.argv[2]
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.exists(path):
        os.unlink(path)
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(path)
    replies = {"PING": b"PONG\n"}
    silent = set()
    attached, seen = [], []
    log = open(log_path, "a", buffering=1)
    print("ready", flush=True)
    while True:
        ready, _, _ = select.select([s, sys.stdin], [], [])
        if s in ready:
            data, sender = s.recvfrom(8192)
            cmd = data.decode(errors="replace")
            log.write("%s %r\n" % (sender, cmd))
            if sender not in seen:
                seen.append(sender)
            if cmd == "ATTACH" and sender not in attached:
                attached.append(sender)
            if cmd == "DETACH" and sender in attached:
                attached.remove(sender)
            if cmd in silent:
                continue
            reply = replies.get(cmd, b"OK\n")
            try:
                s.sendto(reply, sender)
            except OSError:
                pass
        if sys.stdin in ready:
            line = sys.stdin.readline()
            if not line:
                return
            verb, _, arg = line.rstrip("\n").partition(" ")
            if verb == "reply":
                cmd, _, text = arg.partition("\t")
                replies[cmd] = text.replace("\\n", "\n").encode()
            elif verb == "silent":
                silent.add(arg)
            elif verb in ("event", "event-to-all"):
                for client in list(attached if verb == "event" else seen):
                    try:
                        s.sendto(arg.encode(), client)
                    except OSError:
                        pass
            print("done", flush=True)


if __name__ == "__main__":
    main()

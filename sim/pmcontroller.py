#!/usr/bin/python3 -SE
"""The sandbox's power-management controller: the peer of libpmApi's
substitute (platform/pmapi/pmApi.h has the protocol). Each request is
appended to LOG as one line ("21", "22 10", "23 -1", "status"), then
answered: "FAIL" with --refuse, else "OK" (with the --status code for
"STATUS"); with --hang it logs but never answers, until the client
gives up (libpmApi's time-out) and closes. Prints "ready" once it listens; ends, removing its socket, when
its standard input closes."""
import argparse
import os
import select
import socket
import sys

SOCKET = "/var/run/pmc.sock"
LOG = "/var/log/hxsim/pmc.log"


def answer(line, args):
    words = line.split()
    if words == ["STATUS"]:
        entry = "status"
        reply = "FAIL" if args.refuse else f"OK {args.status}"
    elif len(words) in (2, 3) and words[0] == "MSG":
        entry = " ".join(words[1:])
        reply = "FAIL" if args.refuse else "OK"
    else:
        entry = "bad " + line
        reply = "FAIL"
    with open(LOG, "a") as log:
        log.write(entry + "\n")
    return reply + "\n"


def serve_one(conn, args):
    data = b""
    with conn:
        while not data.endswith(b"\n") and len(data) < 256:
            chunk = conn.recv(256)
            if not chunk:
                return
            data += chunk
        reply = answer(data.decode(errors="replace").strip(), args)
        if args.hang:
            while conn.recv(256):
                pass
            return
        conn.sendall(reply.encode())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--refuse", action="store_true")
    parser.add_argument("--status", type=int, default=0)
    parser.add_argument("--hang", action="store_true")
    args = parser.parse_args()
    os.makedirs(os.path.dirname(LOG), exist_ok=True)
    try:
        os.unlink(SOCKET)
    except FileNotFoundError:
        pass
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(SOCKET)
    server.listen(8)
    print("ready", flush=True)
    try:
        while True:
            ready, _, _ = select.select([server, sys.stdin], [], [])
            if sys.stdin in ready and not os.read(sys.stdin.fileno(), 256):
                return
            if server in ready:
                conn, _ = server.accept()
                conn.settimeout(30)
                try:
                    serve_one(conn, args)
                except OSError:
                    pass
    finally:
        os.unlink(SOCKET)


if __name__ == "__main__":
    main()

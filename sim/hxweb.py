"""The web console in the sandbox: Debian's mini_httpd on the configuration
hxsrvd writes, serving the page of web/ and hxctl as /opt/web/api.cgi, and a
forward from 127.0.0.1:PORT on the host to its port 80 in the sandbox's own
network (which nothing outside the sandbox reaches).

    with Web(sb, port=8080) as web:
        print(web.url)
"""
import ctypes
import os
import select
import shutil
import socket
import threading

from hxsim import LOG_ARGV, REPO, wait_until

WEB_DIR = "/opt/web"
HTTPD = "/usr/sbin/mini_httpd"
KILLALL = "/usr/bin/killall"
# The configuration Debian's mini_httpd is started on.
DEBIAN_CONF = "/var/run/hxsim-mini_httpd.conf"
CLONE_NEWNET = 0x40000000

# Debian's mini_httpd has no "passport=" line; the login it knows is a
# .htpasswd file in the served folder, holding the same crypt(3) hash.
HTTPD_WRAPPER = """#!/bin/sh
{log} "$0" "$@"
[ "$1" = -C ] && [ -r "$2" ] || exec {real} "$@"
dir=$(sed -n 's/^dir=//p' "$2" | tail -n 1)
login=$(sed -n 's/^passport=//p' "$2" | tail -n 1)
if [ -n "$login" ]; then
	printf '%s\\n' "$login" > "$dir/.htpasswd"
else
	rm -f "$dir/.htpasswd"
fi
grep -v '^passport=' "$2" > {conf}
exec {real} -C {conf}
"""
# "killall mini_httpd" really stops the server (and waits, so that the next
# start can bind the port); other names stay logged only.  A CGI program's
# helpers stay zombies until it exits, and the bridge is waiting for the
# daemon, which is waiting here: they are not waited for.
KILLALL_STUB = """#!/bin/sh
{log} "$0" "$@"
[ "$*" = mini_httpd ] || exit 0
pkill -x mini_httpd
for i in $(seq 100); do
	ps -C mini_httpd -o stat= | grep -qv '^Z' || exit 0
	sleep 0.05
done
pkill -KILL -x mini_httpd
"""


def install_page(sb):
    """The page's files in /opt/web and api.cgi, a link to hxctl."""
    src = os.path.join(REPO, "web")
    for name in sorted(os.listdir(src)) if os.path.isdir(src) else ():
        shutil.copy2(os.path.join(src, name), sb.path(f"{WEB_DIR}/{name}"))
    sb.run(["ln", "-sfn", "/usr/bin/hxctl", f"{WEB_DIR}/api.cgi"], check=True)


def install_httpd(sb):
    real = sb.real(HTTPD)
    if real is None:
        raise FileNotFoundError("Debian's mini_httpd is not installed (package mini-httpd)")
    sb.write(HTTPD, HTTPD_WRAPPER.format(log=LOG_ARGV, real=real, conf=DEBIAN_CONF), mode=0o755)
    sb.write(KILLALL, KILLALL_STUB.format(log=LOG_ARGV), mode=0o755)


class Forward:
    """127.0.0.1:port on the host to 127.0.0.1:80 in the sandbox, one thread
    a connection."""

    def __init__(self, netns_pid, port):
        self.pid = netns_pid
        self.listener = socket.create_server(("127.0.0.1", port))
        self.port = self.listener.getsockname()[1]
        self.open = set()  # the connections being served, closed by close()
        self.lock = threading.Lock()
        self.acceptor = threading.Thread(target=self._accept, daemon=True)
        self.acceptor.start()

    def close(self):
        # shutdown wakes the thread blocked in accept(); close alone would not
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.acceptor.join(5)
        with self.lock:
            for s in self.open:
                try:
                    s.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _connect_inside(self):
        """A connection to port 80 made from the sandbox's network namespace
        (setns changes only this thread's)."""
        libc = ctypes.CDLL(None, use_errno=True)
        fd = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY)
        try:
            if libc.setns(fd, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
        finally:
            os.close(fd)
        # The server may be restarting ("killall", then a start that binds
        # the port in the background): wait for it as a browser's retry would.
        def attempt():
            try:
                return socket.create_connection(("127.0.0.1", 80), timeout=10)
            except ConnectionRefusedError:
                return None
        if (server := wait_until(attempt, 30, 0.05)) is None:
            raise ConnectionRefusedError("nothing listens on port 80 in the sandbox")
        return server

    def _serve(self, client):
        with client:
            try:
                server = self._connect_inside()
            except OSError:
                return
            with server:
                server.settimeout(None)
                with self.lock:
                    self.open |= {client, server}
                try:
                    self._pump(client, server)
                except OSError:
                    pass  # either side reset or closed: the connection ends
                with self.lock:
                    self.open -= {client, server}

    def _pump(self, client, server):
        head = b""
        while b"\r\n\r\n" not in head and len(head) < 65536:
            data = client.recv(65536)
            if not data:
                return
            head += data
        end = head.find(b"\r\n\r\n") + 4 if b"\r\n\r\n" in head else len(head)
        server.sendall(head[:end])
        # Debian's mini_httpd loses a CGI program's answer when the body came
        # in the same read as the header (with it, or soon after): hand the
        # body over only once the server has read the header.
        self._wait_read(server.getsockname()[1])
        server.sendall(head[end:])
        # Until the server has answered and closed; the client may close its
        # side first.
        readers = [client, server]
        while ready := select.select(readers, [], [], 300)[0]:
            for s in ready:
                data = s.recv(65536)
                if s is server and not data:
                    return
                if data:
                    (client if s is server else server).sendall(data)
                else:
                    readers.remove(client)
                    server.shutdown(socket.SHUT_WR)

    def _wait_read(self, port):
        """Until the server's side of the connection from port has nothing
        left unread (its receive queue in /proc/net/tcp*) or is gone, at most
        30 s (a loaded machine may take long to let it accept and read)."""
        wait_until(lambda: not any(self._unread(port)), 30)

    def _unread(self, port):
        queues = []
        for name in ("tcp", "tcp6"):
            with open(f"/proc/{self.pid}/net/{name}") as f:
                rows = [line.split() for line in f.readlines()[1:]]
            queues += [int(r[4].split(":")[1], 16) for r in rows
                       if r[1].endswith(":0050") and r[2].endswith(f":{port:04X}")]
        return queues


class Web:
    """Debian's mini_httpd, started by hxsrvd, and the forward to it."""

    def __init__(self, sb, port=8080):
        self.sb, self.port, self.forward = sb, port, None

    @property
    def url(self):
        return f"http://127.0.0.1:{self.forward.port}/"

    def __enter__(self):
        install_page(self.sb)
        install_httpd(self.sb)
        self.sb.run(["hxctl", "revalidate", "httpd", "start"], check=True)
        self.forward = Forward(self.sb.init_pid, self.port)
        return self

    def __exit__(self, *exc):
        self.forward.close()

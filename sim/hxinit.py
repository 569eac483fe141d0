"""PID 1 of the sandbox: reaps orphans, and logs the signals it is sent
("kill 1" sends SIGTERM) to /var/log/hxsim/init.log instead of dying.

Each reaped orphan is logged to /var/log/hxsim/reaped.log as "PID STATUS",
STATUS as subprocess's returncode (negative for a signal).
"""
import os
import signal

LOG = "/var/log/hxsim"
LOGGED = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT,
          signal.SIGUSR1, signal.SIGUSR2)


def append(name, line):
    fd = os.open(f"{LOG}/{name}", os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    try:
        os.write(fd, line.encode() + b"\n")
    finally:
        os.close(fd)


def on_signal(sig, _frame):
    if sig == signal.SIGTERM:
        append("init.log", "kill 1")
    else:
        append("init.log", f"kill -{signal.Signals(sig).name[3:]} 1")


def reap():
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return
        append("reaped.log", f"{pid} {os.waitstatus_to_exitcode(status)}")


def main():
    os.makedirs(LOG, exist_ok=True)
    for sig in LOGGED:
        signal.signal(sig, on_signal)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
    os.write(1, b"ready\n")
    null = os.open("/dev/null", os.O_RDWR)
    os.dup2(null, 0)
    os.dup2(null, 1)
    os.close(null)
    while True:
        reap()
        signal.sigtimedwait({signal.SIGCHLD}, 5)


main()

#!/usr/bin/env python3
"""Runs a command the way an operator meets it, for the tests.

  console.py pty   SECONDS INPUT_FILE -- COMMAND...   on a pseudo-terminal; INPUT_FILE is typed at
                                                      once, before any prompt. Prints "status N",
                                                      then each read of the terminal as "read: "
                                                      and its bytes (backslash-escaped), one a line,
                                                      with a line "pause" before a read that came a
                                                      second or more after the one before it.
  console.py head  SECONDS BYTES -- COMMAND...        standard input empty, standard output a pipe
                                                      from which BYTES are read; then the pipe is
                                                      closed. Prints "bytes N", "running yes|no"
                                                      (still running a moment after the close;
                                                      it is then killed) and the bytes read.
Either ends the command and says "timeout" when it takes longer than SECONDS.
"""
import os
import pty
import select
import signal
import subprocess
import sys
import time


def escaped(data):
    return data.decode("latin-1").encode("unicode_escape").decode("ascii")


def run_pty(seconds, typed, command):
    pid, master = pty.fork()
    if pid == 0:
        os.execvp(command[0], command)
    os.write(master, typed)
    deadline = time.monotonic() + seconds
    reads = []
    last = time.monotonic()
    while time.monotonic() < deadline:
        ready, _, _ = select.select([master], [], [], 0.05)
        if ready:
            try:
                data = os.read(master, 65536)
            except OSError:
                data = b""
            if not data:
                break
            if reads and time.monotonic() - last >= 1:
                reads.append(None)
            last = time.monotonic()
            reads.append(data)
        else:
            done, status = os.waitpid(pid, os.WNOHANG)
            if done:
                print("status %d" % os.waitstatus_to_exitcode(status))
                show(reads)
                return
    else:
        os.kill(pid, signal.SIGKILL)
        print("timeout")
    _, status = os.waitpid(pid, 0)
    print("status %d" % os.waitstatus_to_exitcode(status))
    show(reads)


def show(reads):
    for data in reads:
        print("pause" if data is None else "read: " + escaped(data))


def run_head(seconds, count, command):
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    deadline = time.monotonic() + seconds
    data = b""
    fd = child.stdout.fileno()
    while len(data) < count and time.monotonic() < deadline:
        ready, _, _ = select.select([fd], [], [], 0.05)
        if ready:
            chunk = os.read(fd, count - len(data))
            if not chunk:
                break
            data += chunk
    if len(data) < count and time.monotonic() >= deadline:
        print("timeout")
    child.stdout.close()
    time.sleep(0.3)
    running = child.poll() is None
    if running:
        child.kill()
    child.wait()
    print("bytes %d" % len(data))
    print("running %s" % ("yes" if running else "no"))
    print("status %d" % child.returncode)
    sys.stdout.write(escaped(data) + "\n")


def main():
    mode, seconds = sys.argv[1], float(sys.argv[2])
    command = sys.argv[sys.argv.index("--") + 1:]
    if mode == "pty":
        with open(sys.argv[3], "rb") as f:
            run_pty(seconds, f.read(), command)
    else:
        run_head(seconds, int(sys.argv[3]), command)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""on_terminal.py TEXT KEYS COMMAND...: runs COMMAND on a new pseudo-terminal, waits (20 s at
most) until TEXT appears on it, types KEYS (Python escapes: \\x04 is Ctrl-D), and waits for the
command to end. Prints what the terminal showed; the status is 0 when TEXT appeared and the
command ended, 1 otherwise."""
import os
import pty
import select
import sys
import time


def main():
    text, keys, command = sys.argv[1].encode(), sys.argv[2].encode().decode("unicode_escape").encode(), sys.argv[3:]
    pid, fd = pty.fork()
    if pid == 0:
        os.execvp(command[0], command)
    shown = b""
    deadline = time.time() + 20
    typed = False
    ended = False
    while time.time() < deadline:
        if not typed and text in shown.replace(b"\r\n", b" ").replace(b"\n", b" "):
            os.write(fd, keys)
            typed = True
        ready, _, _ = select.select([fd], [], [], 0.2)
        if ready:
            try:
                data = os.read(fd, 4096)
            except OSError:  # the terminal's other side has closed: the command has ended
                data = b""
            if not data:
                break
            shown += data
    try:
        done, _ = os.waitpid(pid, 0 if time.time() < deadline else os.WNOHANG)
        ended = done == pid
    except ChildProcessError:
        ended = True
    if not ended:
        os.kill(pid, 9)
    sys.stdout.write(shown.decode(errors="replace"))
    return 0 if typed and ended else 1


sys.exit(main())

"""A program on a terminal of its own."""
import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time

from world import die_with_parent, wait_until


def set_width(descriptor, columns):
    fcntl.ioctl(descriptor, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))


class Terminal:
    """Runs a program as the leader of a session on a new terminal; records all that the terminal shows."""

    def __init__(self, arguments, environment=None, columns=80, stdout=None):
        """With `stdout` the output goes to that file, and the terminal has the rest."""
        self.shown = b""
        self.status = None
        self.pid, self._terminal = pty.fork()
        if self.pid == 0:
            self._become(arguments, environment, columns, stdout)
        os.set_blocking(self._terminal, False)

    @staticmethod
    def _become(arguments, environment, columns, stdout):
        try:
            die_with_parent()
            set_width(0, columns)
            if stdout:
                os.dup2(os.open(stdout, os.O_WRONLY | os.O_CREAT | os.O_TRUNC), 1)
            os.execve(arguments[0], arguments, {"PATH": "/usr/bin:/bin", "LC_ALL": "C", **(environment or {})})
        finally:
            os._exit(126)

    def read(self):
        """Reads what has arrived; true while there may be more."""
        if not select.select([self._terminal], [], [], 0.005)[0]:
            return True
        try:
            got = os.read(self._terminal, 65536)
        except OSError:  # no process has the other side open any more
            return False
        self.shown += got
        return bool(got)

    def shows(self, text, deadline_seconds=30):
        """Waits until this was shown; `text` is bytes, or a pattern, one match of which is enough."""
        def is_there():
            return text.search(self.shown) if isinstance(text, re.Pattern) else text in self.shown
        end = time.monotonic() + deadline_seconds
        while not is_there():
            assert self.read() or is_there(), f"it ended before it showed {text!r}; it shows {self.shown!r}"
            assert time.monotonic() < end, f"{text!r} is not shown within {deadline_seconds} s, but {self.shown!r}"

    def echoes(self):
        return bool(termios.tcgetattr(self._terminal)[3] & termios.ECHO)

    def type(self, text):
        os.write(self._terminal, text)

    def resize(self, columns):
        set_width(self._terminal, columns)

    def stop(self):
        """Stops the terminal's output, as a person does by Ctrl-S; returns all that it has shown."""
        side = os.open(f"/proc/{self.pid}/fd/2", os.O_WRONLY | os.O_NOCTTY | os.O_NONBLOCK)
        self.type(b"\x13")
        wait_until(lambda: not select.select([], [side], [], 0)[1], "the terminal to stop")
        os.close(side)
        while select.select([self._terminal], [], [], 0)[0]:
            self.read()
        return self.shown

    def go_on(self):
        self.type(b"\x11")

    def finish(self, deadline_seconds=60):
        """Waits for the end; returns the exit code, or minus the signal's number. Everything was read then."""
        end = time.monotonic() + deadline_seconds
        while self.read():
            assert time.monotonic() < end, f"no end within {deadline_seconds} s; shown: {self.shown!r}"
            if os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) and not select.select(
                    [self._terminal], [], [], 0)[0]:
                break
        _, status = os.waitpid(self.pid, 0)
        self.status = status
        return os.waitstatus_to_exitcode(status)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self._terminal)

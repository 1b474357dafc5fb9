"""A line that says how far it is, where somebody looks on; and texts beside it."""
from __future__ import annotations

import os
import shutil
import sys
import time
import unicodedata

ERASE_LINE = "\r\x1b[K"
# In seconds.
_BETWEEN_DRAWINGS = 0.1


class Progress:
    """The line of progress on standard error, if that is a terminal, and lines of text on standard output."""

    def __init__(self) -> None:
        self._is_drawn = sys.stderr.isatty() and os.environ.get("TERM") != "dumb"
        self._is_shown = False
        self._next = 0.0

    def show(self, text: str) -> None:
        """Draws the line, unless it was drawn a moment ago. Without a terminal nothing is written."""
        now = time.monotonic()
        if not self._is_drawn or now < self._next or not self._is_in_foreground():
            return
        self._next = now + _BETWEEN_DRAWINGS
        # The last column stays free: some terminals begin a new line when it is filled.
        columns = shutil.get_terminal_size().columns - 1
        sys.stderr.write(ERASE_LINE + fit(text, columns))
        sys.stderr.flush()
        self._is_shown = True

    def say(self, text: str) -> None:
        """A line on standard output; control characters are escaped."""
        self.erase()
        print(escaped(text), flush=True)

    def complain(self, text: str) -> None:
        """A line on standard error; control characters are escaped."""
        self.erase()
        print(escaped(text), file=sys.stderr, flush=True)

    def erase(self) -> None:
        """Takes the line away."""
        if self._is_shown:
            sys.stderr.write(ERASE_LINE)
            sys.stderr.flush()
            self._is_shown = False

    @staticmethod
    def _is_in_foreground() -> bool:
        try:
            return os.tcgetpgrp(sys.stderr.fileno()) == os.getpgrp()
        except OSError:
            return True


def escaped(text: str) -> str:
    """The text with what steers a terminal, and what is no UTF-8, written as `\\xNN` or `\\uNNNN`."""
    return "".join(
        character if character == "\t" or unicodedata.category(character) not in ("Cc", "Cf", "Cs", "Zl", "Zp")
        else _escape(ord(character)) for character in text)


def _escape(code: int) -> str:
    if 0xDC80 <= code <= 0xDCFF:
        # A byte that is no UTF-8, as Python keeps it.
        code -= 0xDC00
    return f"\\x{code:02x}" if code < 0x100 else f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def fit(text: str, columns: int) -> str:
    """As much of the text as so many columns of a terminal hold, in one line."""
    line, used = [], 0
    for character in escaped(text).replace("\t", " "):
        used += 1 if ord(character) < 0x80 else 2
        if used > columns:
            break
        line.append(character)
    return "".join(line)

"""The progress line for a person at a terminal, and the texts printed beside it."""
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
    """Draws the progress line on standard error if that is a terminal, and prints lines of text."""

    def __init__(self) -> None:
        self._is_drawn = sys.stderr.isatty() and os.environ.get("TERM") != "dumb"
        self._is_shown = False
        self._next = 0.0

    def show(self, text: str) -> None:
        """Draws the line, at most every 0.1 seconds. Does nothing without a terminal or in the background."""
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
        """Prints a line on standard output; control characters are escaped."""
        self.erase()
        print(escaped(text), flush=True)

    def complain(self, text: str) -> None:
        """Prints a line on standard error; control characters are escaped."""
        self.erase()
        print(escaped(text), file=sys.stderr, flush=True)

    def erase(self) -> None:
        """Erases the progress line if it is shown."""
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
    """The text with control characters, and bytes that are no UTF-8, written as `\\xNN` or `\\uNNNN`."""
    return "".join(
        character if character == "\t" or unicodedata.category(character) not in ("Cc", "Cf", "Cs", "Zl", "Zp")
        else _escape(ord(character)) for character in text)


def _escape(code: int) -> str:
    if 0xDC80 <= code <= 0xDCFF:
        # A byte that is no UTF-8: Python's "surrogateescape" adds 0xDC00.
        code -= 0xDC00
    return f"\\x{code:02x}" if code < 0x100 else f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def fit(text: str, columns: int) -> str:
    """As much of the text as fits into that many columns of a terminal, in one line."""
    line, used = [], 0
    for character in escaped(text).replace("\t", " "):
        used += 1 if ord(character) < 0x80 else 2
        if used > columns:
            break
        line.append(character)
    return "".join(line)

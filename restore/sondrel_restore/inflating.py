"""Files that gzip has compressed, read in this process: no program is started for each of a thousand archives."""
from __future__ import annotations

import io
import zlib
from typing import IO

# Of what is read, and of what comes out of it at once: what the bytes inflate to is a source host's affair.
_CHUNK = 1 << 18
# For zlib: with the head and the sum of gzip.
_GZIP = 31


class Inflated(io.RawIOBase):
    """What a compressed file has, forward only; to be read by a buffered reader.

    Its parts follow each other, as gzip has it, and zeros may fill it up. zlib.error where it is damaged, EOFError
    where it ends in the middle. The file stays the caller's.
    """

    def __init__(self, file: IO[bytes]) -> None:
        super().__init__()
        self._file = file
        self._inflate = zlib.decompressobj(_GZIP)
        self._given = b""

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: bytearray | memoryview) -> int:  # type: ignore[override]
        """The next bytes; 0 at the end."""
        while self._has_more():
            plain = self._inflate.decompress(self._given, len(buffer))
            self._given = self._inflate.unconsumed_tail or self._inflate.unused_data
            if plain:
                buffer[:len(plain)] = plain
                return len(plain)
        return 0

    def _has_more(self) -> bool:
        """Takes more of the file where that is needed; False at its end."""
        if self._inflate.eof and not self._next_part():
            return False
        if not self._given:
            self._given = self._file.read(_CHUNK)
            if not self._given:
                raise EOFError("it ends in the middle")
        return True

    def _next_part(self) -> bool:
        """After the end of one; False where there is none."""
        while True:
            self._given = self._given.lstrip(b"\0") or self._file.read(_CHUNK)
            if not self._given:
                return False
            if self._given[0]:
                self._inflate = zlib.decompressobj(_GZIP)
                return True

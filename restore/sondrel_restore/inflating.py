"""Decompresses gzip in this process: to start a program for each of a thousand archives would be slow."""
from __future__ import annotations

import io
import zlib
from typing import IO

# Bytes per read of the file. BufferedReader limits the output: the source host decides how far the data inflate.
_CHUNK = 1 << 18
# Value of zlib's wbits for the gzip format, with its header and checksum.
_GZIP = 31


class Inflated(io.RawIOBase):
    """The content of a compressed file, forward only; wrap it in a buffered reader.

    As in gzip, the file may consist of several parts and be padded with zeros. Raises zlib.error if it is damaged or
    has more than `most` bytes, and EOFError if it is truncated. The caller closes the file.
    """

    def __init__(self, file: IO[bytes], most: int) -> None:
        super().__init__()
        self._file = file
        self._most = most
        self._left = most
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
                self._left -= len(plain)
                if self._left < 0:
                    raise zlib.error(f"it has more than the {self._most:,} bytes that the description names for its"
                                     " content")
                buffer[:len(plain)] = plain
                return len(plain)
        return 0

    def _has_more(self) -> bool:
        """Reads more of the file if needed; False at its end."""
        if self._inflate.eof and not self._next_part():
            return False
        if not self._given:
            self._given = self._file.read(_CHUNK)
            if not self._given:
                raise EOFError("it ends in the middle")
        return True

    def _next_part(self) -> bool:
        """Begins the next gzip part after the end of one; False if there is none."""
        while True:
            self._given = self._given.lstrip(b"\0") or self._file.read(_CHUNK)
            if not self._given:
                return False
            if self._given[0]:
                self._inflate = zlib.decompressobj(_GZIP)
                return True

"""The list of what was unpacked from an archive, one line for each path. It is too long for the journal."""
from __future__ import annotations

import contextlib
import dataclasses
import json
import os


@dataclasses.dataclass(frozen=True, slots=True)
class Made:
    """A path that apply made. `kind` is "f", "d" or "l"; `mtime` is in nanoseconds; `target` is for symbolic links."""

    path: str
    kind: str
    size: int
    mtime: int
    mode: int
    uid: int
    gid: int
    target: str

    @staticmethod
    def directory(path: str) -> Made:
        """The entry of a directory. Its attributes are not recorded: they do not matter for undo."""
        return Made(path, "d", 0, 0, 0, 0, 0, "")


class Manifest:
    """A manifest that is being written. Each line goes to the kernel before the path that it names is made."""

    def __init__(self, path: str, keep: dict[str, Made]) -> None:
        """`keep` is what an interrupted apply left in the file."""
        self._path = path
        self._kept = keep
        self._file: int | None = None
        self.made: dict[str, Made] = {}

    def open(self) -> None:
        """Opens the file, and writes the kept entries to it again."""
        self._file = os.open(self._path, os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_TRUNC, 0o600)
        for made in self._kept.values():
            self._write(made)

    def close(self) -> None:
        """Closes the file. Its content stays for the next apply."""
        if self._file is not None:
            os.close(self._file)
            self._file = None

    def add(self, made: Made) -> None:
        """Adds an entry. If a path has several lines, the last one counts."""
        if self.made.get(made.path) == made:
            return
        self.made[made.path] = made
        self._write(made)

    def drop(self, path: str) -> None:
        """Removes an entry whose path was not made after all. Its line stays in the file, which does no harm."""
        self.made.pop(path, None)

    def replace(self, path: str) -> None:
        """Atomically writes the entries as the manifest `path`, then closes and removes this file."""
        temporary = path + ".new"
        with open(temporary, "w", encoding="ascii") as file:
            for made in self.made.values():
                file.write(_line(made))
            file.flush()
            os.fsync(file.fileno())
        os.rename(temporary, path)
        self.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self._path)

    def _write(self, made: Made) -> None:
        assert self._file is not None
        line = _line(made).encode("ascii")
        while line:
            line = line[os.write(self._file, line):]


def _line(made: Made) -> str:
    return json.dumps([made.path, made.kind, made.size, made.mtime, made.mode, made.uid, made.gid, made.target],
                      separators=(",", ":")) + "\n"


def read_manifest(path: str, *, may_be_cut: bool = False) -> dict[str, Made]:
    """The entries of a manifest in its order; empty if the file is missing. `may_be_cut` allows a cut last line."""
    made: dict[str, Made] = {}
    try:
        file = open(path, encoding="ascii")
    except FileNotFoundError:
        return made
    with file:
        for line in file:
            if may_be_cut and not line.endswith("\n"):
                break
            each = Made(*json.loads(line))
            made.pop(each.path, None)
            made[each.path] = each
    return made

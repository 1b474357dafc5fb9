"""What was unpacked of an archive, one line for each path; too much for the journal."""
from __future__ import annotations

import contextlib
import dataclasses
import json
import os


@dataclasses.dataclass(frozen=True, slots=True)
class Made:
    """A path that was made. `kind` is "f", "d" or "l"; `mtime` is in nanoseconds; `target` is a symbolic link's."""

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
        """Of a directory only that it was made counts."""
        return Made(path, "d", 0, 0, 0, 0, 0, "")


class Manifest:
    """A manifest that grows: a line is handed to the kernel before the path that it names is made."""

    def __init__(self, path: str, keep: dict[str, Made]) -> None:
        """`keep` is what the file has from an apply that was broken off."""
        self._path = path
        self._kept = keep
        self._file: int | None = None
        self.made: dict[str, Made] = {}

    def open(self) -> None:
        """Opens the file, with what is kept."""
        self._file = os.open(self._path, os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_TRUNC, 0o600)
        for made in self._kept.values():
            self._write(made)

    def close(self) -> None:
        """Closes the file; what was written stays for the next apply."""
        if self._file is not None:
            os.close(self._file)
            self._file = None

    def add(self, made: Made) -> None:
        """Takes it in; a later line of a path counts."""
        if self.made.get(made.path) == made:
            return
        self.made[made.path] = made
        self._write(made)

    def drop(self, path: str) -> None:
        """It was not made in the end; a kept line of it does no harm."""
        self.made.pop(path, None)

    def replace(self, path: str) -> None:
        """Writes what was made as the manifest `path`, as a whole, and ends this one."""
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
    """What a manifest has, in its order; nothing if there is none. Its last line may be cut, if that is expected."""
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

"""Finds, checks and removes what an apply made on this host, without following links."""
from __future__ import annotations

import contextlib
import dataclasses
import errno
import os
import stat
from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING

from sondrel_restore.archives import Member
from sondrel_restore.hostfiles import open_directory
from sondrel_restore.kind import Facts, RestoreError
from sondrel_restore.manifest import Made

if TYPE_CHECKING:
    from sondrel_restore.restore import Restore

DIRECTORY = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
TEMPORARY = ".sondrel-restore.new"
# The mode of files while they are written; finished files hardly ever have it.
HALF_MODE = 0o200
# How many paths a note names for each kind of remark.
_NAMED = 3

# Says why a member is left out; "" if it is not.
WhyNot = Callable[[Member], str]


@dataclasses.dataclass
class Notes:
    """Remarks for the end of a run, each with the number of its paths and the first of them."""

    found: dict[str, list[str]] = dataclasses.field(default_factory=dict)
    counts: dict[str, int] = dataclasses.field(default_factory=dict)

    def add(self, what: str, path: str) -> None:
        """Counts a path under a remark."""
        self.counts[what] = self.counts.get(what, 0) + 1
        first = self.found.setdefault(what, [])
        if len(first) < _NAMED and path not in first:
            first.append(path)

    def texts(self) -> Iterator[str]:
        """One text for each remark."""
        for what, paths in self.found.items():
            count = self.counts[what]
            more = f" and {count - len(paths)} more" if count > len(paths) else ""
            yield f"{what}: {', '.join(paths)}{more}"


def about_name(name: str, directory: int) -> os.stat_result | None:
    """The status of a directory's entry, without following a link; None if there is no such entry."""
    try:
        return os.stat(name, dir_fd=directory, follow_symlinks=False)
    except FileNotFoundError:
        return None


@contextlib.contextmanager
def directory_of(path: str) -> Iterator[int | None]:
    """A descriptor of the parent directory; None if it is gone or reached through a link that is not trusted."""
    with contextlib.ExitStack() as stack:
        try:
            directory: int | None = stack.enter_context(open_directory(os.path.dirname(path)))
        except (FileNotFoundError, NotADirectoryError, RestoreError):
            directory = None
        yield directory


def is_same(made: Made, there: os.stat_result, target: str) -> bool:
    """Whether what is there is what was made, as far as its status shows; the content is not read."""
    if made.kind == "l":
        return (stat.S_ISLNK(there.st_mode) and target == made.target
                and (there.st_uid, there.st_gid) == (made.uid, made.gid))
    if made.kind == "d":
        return stat.S_ISDIR(there.st_mode)
    return stat.S_ISREG(there.st_mode) and (
        there.st_size, there.st_mtime_ns, stat.S_IMODE(there.st_mode) & 0o7707, there.st_uid, there.st_gid) == (
        made.size, made.mtime, made.mode & 0o7707, made.uid, made.gid)


def remove_made(made: Made, name: str, directory: int) -> str:
    """Removes what was made. Returns why it was not removed, or "" if it is gone."""
    there = about_name(name, directory)
    if there is None:
        return ""
    if made.kind == "d":
        if not stat.S_ISDIR(there.st_mode):
            return "is something else here"
        try:
            os.rmdir(name, dir_fd=directory)
        except OSError as error:
            if error.errno not in (errno.ENOTEMPTY, errno.EBUSY):
                raise
            return "has files that were made here"
        return ""
    target = os.readlink(name, dir_fd=directory) if stat.S_ISLNK(there.st_mode) else ""
    if not is_same(made, there, target):
        return "was changed here"
    os.unlink(name, dir_fd=directory)
    return ""


def facts_of(restore: Restore, identifier: str) -> Facts:
    """The journal's facts of an object; empty if there are none."""
    entry = restore.journal.entry(identifier)
    return entry.facts if entry else {}

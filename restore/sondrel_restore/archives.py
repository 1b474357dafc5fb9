"""Archives as the agent makes them (tar, pax format, with or without gzip), read in one pass and in constant memory.

Nothing in an archive is believed: its size and sum are held against the description first, names are checked, and what
steers the reading has limits.
"""
from __future__ import annotations

import contextlib
import dataclasses
import errno
import hashlib
import io
import os
import stat
import tarfile
import zlib
from collections.abc import Callable, Iterable, Iterator, Sequence
from pathlib import Path
from typing import IO

from sondrel_restore.inflating import Inflated
from sondrel_restore.kind import RestoreError

# Of what describes one member: names, attributes, where the holes of a file are.
_LARGEST_HEADER = 8 << 20
# Of a list of names.
_LARGEST_LIST = 1 << 30
_CHUNK = 1 << 20
_XATTR = "SCHILY.xattr."
_ACL_ACCESS, _ACL_DEFAULT = "SCHILY.acl.access", "SCHILY.acl.default"


@dataclasses.dataclass(frozen=True)
class Member:
    """A member of an archive. `path` is absolute and has no `..`; empty if the name in the archive is none of these.

    `kind` is "file", "directory", "link" (symbolic, to `target`), "hard link" (to the absolute path `target`, empty
    if its name is not allowed), or what else it is. `uid` and `gid` are the source host's, `mtime` is in nanoseconds.
    """

    path: str
    raw_name: str
    kind: str
    target: str
    size: int
    mode: int
    mtime: int
    user: str
    uid: int
    group: str
    gid: int
    attributes: dict[str, bytes]
    acl: str
    default_acl: str
    extents: tuple[tuple[int, int], ...] | None


class Archive:
    """An archive of the session."""

    def __init__(self, path: Path, size: int, md5sum: str, *, remedy: str = "fetch it again") -> None:
        """`remedy` is what to do where it is not here as it should be."""
        self.path = path
        self.size = size
        self.md5sum = md5sum
        self._remedy = remedy
        self._is_checked = False

    def check(self) -> None:
        """RestoreError if it is not there, or not the one of the description by size and sum."""
        if not self._is_checked:
            with self._opened() as file:
                self._check(file)

    def members(self) -> Iterator[tuple[Member, Contents]]:
        """Each member in turn, with the bytes of it, which can be read until the next one is asked for.

        Checks the sum before. Members that were packed again come again: the later one counts.
        """
        with self._opened() as file:
            self._check(file)
            yield from _members(file, self.path)

    def names(self) -> set[str]:
        """The absolute paths of all members."""
        return {member.path for member, _ in self.members()} - {""}

    def read(self, path: str, *, limit: int = 16 << 20) -> bytes:
        """The bytes of the regular file of that absolute path; RestoreError if there is none, or more than `limit`."""
        found = self.read_all([path], limit=limit)
        if path not in found:
            raise RestoreError(f"{self.path} does not have {path}")
        return found[path]

    def read_all(self, paths: Iterable[str], *, limit: int = 16 << 20) -> dict[str, bytes]:
        """The bytes of those of the regular files that are there, in one pass; each of at most `limit` bytes.

        A link in the archive whose target is in it too is followed once, as of `live` to `archive` of certbot.
        """
        wanted = set(paths)
        found, links = self._read_once(wanted, limit)
        unread = set(links.values()) - wanted
        targets = {**found, **self._read_once(unread, limit)[0]} if unread else found
        return {**found, **{path: targets[target] for path, target in links.items() if target in targets}}

    def _read_once(self, wanted: set[str], limit: int) -> tuple[dict[str, bytes], dict[str, str]]:
        """The bytes of files, and what links lead to."""
        found: dict[str, bytes] = {}
        links: dict[str, str] = {}
        for member, contents in self.members():
            if member.path not in wanted:
                continue
            if member.kind == "file":
                if member.size > limit or member.extents is not None:
                    raise RestoreError(f"{member.path} in {self.path} has more than {limit} bytes")
                found[member.path] = contents.read()
                links.pop(member.path, None)
            elif member.kind in ("link", "hard link"):
                links[member.path] = os.path.normpath(os.path.join(os.path.dirname(member.path), member.target))
                found.pop(member.path, None)
        return found, links

    @contextlib.contextmanager
    def stream(self) -> Iterator[IO[bytes]]:
        """What the file has without its compression, for one that is no tar archive. Checks the sum before."""
        with self._opened() as file:
            self._check(file)
            with _unpacked(file, self.path) as plain:
                yield plain

    @contextlib.contextmanager
    def _opened(self) -> Iterator[io.FileIO]:
        try:
            descriptor = os.open(self.path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
        except OSError as error:
            hint = f": {self._remedy}" if error.errno == errno.ENOENT else ""
            raise RestoreError(f"{self.path} cannot be read: {error.strerror}{hint}") from error
        with io.FileIO(descriptor) as file:
            yield file

    def _check(self, file: io.FileIO) -> None:
        """Of the opened file, so that it cannot be exchanged between the check and the reading."""
        about = os.fstat(file.fileno())
        if not stat.S_ISREG(about.st_mode):
            raise RestoreError(f"{self.path} is no regular file")
        if about.st_size != self.size:
            raise RestoreError(
                f"{self.path} has {about.st_size} bytes and not {self.size}, as the description says: {self._remedy}")
        if not self._is_checked:
            if _md5_of(file) != self.md5sum:
                raise RestoreError(f"{self.path} is not what the description says, by its sum: {self._remedy}")
            file.seek(0)
            self._is_checked = True


class Increment(Archive):
    """An archive of what is new or changed, with the list of what had vanished before it, if any."""

    def __init__(self, path: Path, size: int, md5sum: str, *, gone: Archive | None, remedy: str) -> None:
        super().__init__(path, size, md5sum, remedy=remedy)
        self._gone = gone

    def check(self) -> None:
        super().check()
        if self._gone is not None:
            self._gone.check()

    def gone(self) -> Iterator[str]:
        """The absolute paths that the list names; names that no member may have are left out."""
        if self._gone is None:
            return
        with self._gone.stream() as file:
            rest, size = b"", 0
            while chunk := file.read(_CHUNK):
                size += len(chunk)
                *names, rest = (rest + chunk).split(b"\0")
                if size > _LARGEST_LIST or len(rest) > _LARGEST_HEADER:
                    raise RestoreError(f"{self._gone.path} is larger than any list of names")
                yield from filter(None, (_absolute(name.decode("utf-8", "surrogateescape")) for name in names))
            if rest:
                raise RestoreError(f"{self._gone.path} ends in the middle")


class FollowedArchive(Archive):
    """An archive and its increments, read as the one archive that they are together.

    What a later one has again, or names as gone, is passed over in the earlier ones. So a list of names
    removes nothing by itself: that what was made before has vanished shows by its absence, as ever.
    """

    def __init__(self, base: Archive, increments: Sequence[Increment]) -> None:
        super().__init__(base.path, base.size, base.md5sum)
        self._base = base
        self._increments = increments

    def check(self) -> None:
        self._base.check()
        for increment in self._increments:
            increment.check()

    def members(self) -> Iterator[tuple[Member, Contents]]:
        # By path, the number of the last one that has it or names it as gone.
        last: dict[str, int] = {}
        for number, increment in enumerate(self._increments, 1):
            last.update(dict.fromkeys(increment.gone(), number))
            last.update(dict.fromkeys(increment.names(), number))
        for number, archive in enumerate([self._base, *self._increments]):
            for member, contents in archive.members():
                if last.get(member.path, 0) <= number:
                    yield member, contents


def _md5_of(file: io.FileIO) -> str:
    # Told apart from a use that must be safe from forgery, which a host in FIPS mode forbids.
    digest = hashlib.md5(usedforsecurity=False)
    buffer = bytearray(_CHUNK)
    view = memoryview(buffer)
    while count := file.readinto(buffer):
        digest.update(view[:count])
    return digest.hexdigest()


class Contents:
    """The bytes of the member that is read at the moment."""

    def __init__(self, stream: _Stream, size: int) -> None:
        self._stream = stream
        self._left = size

    def chunks(self, size: int = 0) -> Iterator[bytes]:
        """The next `size` bytes, or all that are left, in pieces."""
        left = min(size, self._left) if size else self._left
        while left:
            chunk = self._stream.data(min(left, _CHUNK))
            left -= len(chunk)
            self._left -= len(chunk)
            yield chunk

    def read(self) -> bytes:
        """All bytes that are left."""
        return b"".join(self.chunks())


class _Stream:
    """What TarFile reads from: only forward; and headers have a limit."""

    def __init__(self, file: IO[bytes], name: Path) -> None:
        self._file = file
        self._name = name
        self._place = 0
        self._header_left = _LARGEST_HEADER

    def tell(self) -> int:
        return self._place

    def seek(self, place: int) -> None:
        if place < self._place:
            raise RestoreError(f"{self._name} is damaged")
        while self._place < place:
            self.data(min(place - self._place, _CHUNK))

    def read(self, size: int) -> bytes:
        """For TarFile, which reads headers only. At the end there are fewer bytes."""
        self._header_left -= size
        if self._header_left < 0 or size < 0:
            raise RestoreError(f"{self._name} describes a member in more than {_LARGEST_HEADER} bytes")
        content = self._file.read(size)
        self._place += len(content)
        return content

    def data(self, size: int) -> bytes:
        """Some of the next bytes, at least one."""
        content = self._file.read(size)
        if not content:
            raise RestoreError(f"{self._name} ends in the middle")
        self._place += len(content)
        return content

    def begin_member(self) -> None:
        self._header_left = _LARGEST_HEADER


def _members(file: io.FileIO, path: Path) -> Iterator[tuple[Member, Contents]]:
    with _unpacked(file, path) as plain:
        stream = _Stream(plain, path)
        try:
            with tarfile.TarFile(fileobj=stream, mode="r", encoding="utf-8",  # type: ignore[arg-type]
                                 errors="surrogateescape") as tar:
                while True:
                    stream.begin_member()
                    information = tar.next()
                    if information is None:
                        break
                    # It would keep all of them.
                    tar.members = []  # type: ignore[attr-defined]
                    member = _member(information, path)
                    yield member, Contents(stream, _stored(member))
        except (tarfile.TarError, ValueError, EOFError) as error:
            raise RestoreError(f"{path} is damaged: {error}") from error
        # What follows the end mark is read too: the sum of gzip tells whether all was right.
        while plain.read(_CHUNK):
            pass


def _stored(member: Member) -> int:
    """The bytes that a member has in the archive."""
    return member.size if member.extents is None else sum(size for _, size in member.extents)


@contextlib.contextmanager
def _unpacked(file: io.FileIO, path: Path) -> Iterator[IO[bytes]]:
    raw = Inflated(file) if path.suffix == ".gz" else open(os.dup(file.fileno()), "rb", buffering=0)
    with io.BufferedReader(raw, _CHUNK) as plain:
        try:
            yield plain
        except (zlib.error, EOFError) as error:
            raise RestoreError(f"{path} is damaged: {error}") from error


_KINDS: tuple[tuple[str, Callable[[tarfile.TarInfo], bool]], ...] = (
    ("file", tarfile.TarInfo.isreg),
    ("directory", tarfile.TarInfo.isdir),
    ("link", tarfile.TarInfo.issym),
    ("hard link", tarfile.TarInfo.islnk),
    ("device", tarfile.TarInfo.isdev),
)


def _member(information: tarfile.TarInfo, archive: Path) -> Member:
    kind = next((name for name, is_it in _KINDS if is_it(information)), "unknown member")
    headers = information.pax_headers
    target = information.linkname
    if kind == "hard link":
        target = _absolute(target)
    extents = None
    if information.sparse is not None:
        extents = tuple((offset, size) for offset, size in information.sparse if size)  # type: ignore[misc, has-type]
        _check_extents(extents, information, archive)
    if information.size < 0:
        raise RestoreError(f"{archive} is damaged: a member of negative size")
    return Member(
        path=_absolute(information.name), raw_name=information.name, kind=kind, target=target,
        size=information.size if kind == "file" else 0, mode=information.mode & 0o7777,
        mtime=_nanoseconds(headers.get("mtime"), information.mtime),
        user=information.uname, uid=information.uid, group=information.gname, gid=information.gid,
        attributes={key[len(_XATTR):]: os.fsencode(value) for key, value in headers.items() if key.startswith(_XATTR)},
        acl=headers.get(_ACL_ACCESS, ""), default_acl=headers.get(_ACL_DEFAULT, ""), extents=extents)


def _check_extents(extents: Iterable[tuple[int, int]], information: tarfile.TarInfo, archive: Path) -> None:
    end = 0
    for offset, size in extents:
        if offset < end or size < 0 or offset + size > information.size:
            raise RestoreError(f"{archive} is damaged: the holes of {information.name} do not fit")
        end = offset + size


def _absolute(name: str) -> str:
    """`./a/b` as `/a/b`; empty for a name that is none of a member of the agent's."""
    parts = [part for part in name.split("/") if part not in ("", ".")]
    if name.startswith("/") or ".." in parts or "\0" in name:
        return ""
    return "/" + "/".join(parts)


def _nanoseconds(exact: str | None, seconds: float) -> int:
    """Without the rounding of a floating-point number."""
    if exact is None:
        return int(seconds) * 1_000_000_000
    whole, _, fraction = exact.partition(".")
    sign = -1 if whole.startswith("-") else 1
    return int(whole) * 1_000_000_000 + sign * int((fraction + "000000000")[:9])

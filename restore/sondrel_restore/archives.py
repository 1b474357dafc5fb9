"""Reads the archives of the agent (tar, pax format, with or without gzip) in one pass and in constant memory.

An archive is not trusted: its size and sum are compared with the description first, its names are checked, and its
headers have a size limit.
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

# The most bytes that the headers of one member may have: names, attributes, the map of a sparse file.
_LARGEST_HEADER = 8 << 20
# The most bytes that a list of vanished names may have.
_LARGEST_LIST = 1 << 30
_CHUNK = 1 << 20
_XATTR = "SCHILY.xattr."
_ACL_ACCESS, _ACL_DEFAULT = "SCHILY.acl.access", "SCHILY.acl.default"


@dataclasses.dataclass(frozen=True)
class Member:
    """A member of an archive. `path` is absolute and without `..`; empty if the name in the archive is not allowed.

    `kind` is "file", "directory", "link" (symbolic, to `target`), "hard link" (to the absolute path `target`, empty
    if its name is not allowed), "device" or "unknown member". `uid` and `gid` are those of the source host. `mtime` is
    in nanoseconds. `extents` are the (offset, size) pairs of a sparse file's data; None for all other members.
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

    def __init__(self, path: Path, size: int, md5sum: str, unpacked: int, *, remedy: str = "fetch it again") -> None:
        """`unpacked` are its bytes without compression, by which a plan has found room for it.

        `remedy` tells the person what to do if the file is missing or differs from the description.
        """
        self.path = path
        self.size = size
        self.md5sum = md5sum
        self.unpacked = unpacked
        self._remedy = remedy
        self._is_checked = False

    def check(self) -> None:
        """RestoreError if the file is missing, or its size or sum differs from the description."""
        if not self._is_checked:
            with self._opened() as file:
                self._check(file)

    def members(self) -> Iterator[tuple[Member, Contents]]:
        """Yields each member with its contents, which can be read until the next member is asked for.

        Checks the sum first. A path that was packed more than once comes more than once: the last one counts.
        RestoreError if the archive is damaged.
        """
        with self._opened() as file:
            self._check(file)
            yield from _members(file, self.path, self.unpacked)

    def names(self) -> set[str]:
        """The absolute paths of all members."""
        return {member.path for member, _ in self.members()} - {""}

    def read(self, path: str, *, limit: int = 16 << 20) -> bytes:
        """The bytes of the regular file at an absolute path. RestoreError if missing or above `limit` bytes."""
        found = self.read_all([path], limit=limit)
        if path not in found:
            raise RestoreError(f"{self.path} does not have {path}")
        return found[path]

    def read_all(self, paths: Iterable[str], *, limit: int = 16 << 20) -> dict[str, bytes]:
        """The bytes of those of the regular files that the archive has, in one pass. RestoreError above `limit` bytes.

        A link whose target is in the archive is followed once: certbot's `live` has links to `archive`.
        """
        wanted = set(paths)
        found, links = self._read_once(wanted, limit)
        unread = set(links.values()) - wanted
        targets = {**found, **self._read_once(unread, limit)[0]} if unread else found
        return {**found, **{path: targets[target] for path, target in links.items() if target in targets}}

    def _read_once(self, wanted: set[str], limit: int) -> tuple[dict[str, bytes], dict[str, str]]:
        """The bytes of regular files, and the targets of links, both by path."""
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
        """The decompressed file, for one that is no tar archive. Checks the sum first."""
        with self._opened() as file:
            self._check(file)
            with _unpacked(file, self.path, self.unpacked) as plain:
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
        """Checks the open file, so that no other file can take its place between check and reading."""
        about = os.fstat(file.fileno())
        if not stat.S_ISREG(about.st_mode):
            raise RestoreError(f"{self.path} is no regular file")
        if about.st_size != self.size:
            raise RestoreError(
                f"{self.path} has {about.st_size} bytes and not {self.size}, as the description says: {self._remedy}")
        if not _is_compressed(self.path) and self.unpacked < self.size:
            raise RestoreError(f"{self.path} has more than the {self.unpacked:,} bytes that the description names for"
                               " its content: do not restore it before you know why")
        if not self._is_checked:
            if _md5_of(file) != self.md5sum:
                raise RestoreError(f"{self.path} is not what the description says, by its sum: {self._remedy}")
            file.seek(0)
            self._is_checked = True


class Increment(Archive):
    """An archive of new and changed files, with an optional list of the names that had vanished before."""

    def __init__(self, path: Path, size: int, md5sum: str, unpacked: int, *, gone: Archive | None,
                 remedy: str) -> None:
        super().__init__(path, size, md5sum, unpacked, remedy=remedy)
        self._gone = gone

    def check(self) -> None:
        super().check()
        if self._gone is not None:
            self._gone.check()

    def gone(self) -> Iterator[str]:
        """The absolute paths in the list of vanished names. Names that no member may have are left out."""
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
    """An archive and its increments, read as one archive.

    A member of an earlier archive is skipped if a later increment has its path again or lists it as vanished. The list
    itself removes nothing here: the caller notices that the path is missing, as with an archive without increments.
    """

    def __init__(self, base: Archive, increments: Sequence[Increment]) -> None:
        super().__init__(base.path, base.size, base.md5sum, base.unpacked)
        self._base = base
        self._increments = increments

    def check(self) -> None:
        self._base.check()
        for increment in self._increments:
            increment.check()

    def members(self) -> Iterator[tuple[Member, Contents]]:
        # By path: the number of the last increment that has it or lists it as vanished.
        last: dict[str, int] = {}
        for number, increment in enumerate(self._increments, 1):
            last.update(dict.fromkeys(increment.gone(), number))
            last.update(dict.fromkeys(increment.names(), number))
        for number, archive in enumerate([self._base, *self._increments]):
            for member, contents in archive.members():
                if last.get(member.path, 0) <= number:
                    yield member, contents


def _md5_of(file: io.FileIO) -> str:
    # The sum detects damage, not forgery. Without this flag, a host in FIPS mode refuses MD5.
    digest = hashlib.md5(usedforsecurity=False)
    buffer = bytearray(_CHUNK)
    view = memoryview(buffer)
    while count := file.readinto(buffer):
        digest.update(view[:count])
    return digest.hexdigest()


class Contents:
    """The bytes of the current member."""

    def __init__(self, stream: _Stream, size: int) -> None:
        self._stream = stream
        self._left = size

    def chunks(self, size: int = 0) -> Iterator[bytes]:
        """The next `size` bytes in pieces, or all remaining bytes if `size` is 0."""
        left = min(size, self._left) if size else self._left
        while left:
            chunk = self._stream.data(min(left, _CHUNK))
            left -= len(chunk)
            self._left -= len(chunk)
            yield chunk

    def read(self) -> bytes:
        """All remaining bytes."""
        return b"".join(self.chunks())


class _Stream:
    """The file object that TarFile reads: forward only, with a limit for headers."""

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
        """For TarFile, which reads headers only. Returns fewer bytes at the end of the file."""
        self._header_left -= size
        if self._header_left < 0 or size < 0:
            raise RestoreError(f"{self._name} describes a member in more than {_LARGEST_HEADER} bytes")
        content = self._file.read(size)
        self._place += len(content)
        return content

    def data(self, size: int) -> bytes:
        """At least one and at most `size` of the next bytes. RestoreError at the end of the file."""
        content = self._file.read(size)
        if not content:
            raise RestoreError(f"{self._name} ends in the middle")
        self._place += len(content)
        return content

    def begin_member(self) -> None:
        self._header_left = _LARGEST_HEADER


def _members(file: io.FileIO, path: Path, unpacked: int) -> Iterator[tuple[Member, Contents]]:
    with _unpacked(file, path, unpacked) as plain:
        stream = _Stream(plain, path)
        try:
            with tarfile.TarFile(fileobj=stream, mode="r", encoding="utf-8",  # type: ignore[arg-type]
                                 errors="surrogateescape") as tar:
                while True:
                    stream.begin_member()
                    information = tar.next()
                    if information is None:
                        break
                    # TarFile would keep all members in memory.
                    tar.members = []  # type: ignore[attr-defined]
                    member = _member(information, path)
                    yield member, Contents(stream, _stored(member))
        except (tarfile.TarError, ValueError, EOFError) as error:
            raise RestoreError(f"{path} is damaged: {error}") from error
        # Read what follows the end mark, too: gzip checks its sum at the end.
        while plain.read(_CHUNK):
            pass


def _stored(member: Member) -> int:
    """The number of bytes of a member in the archive: less than its size if it is sparse."""
    return member.size if member.extents is None else sum(size for _, size in member.extents)


def _is_compressed(path: Path) -> bool:
    return path.suffix == ".gz"


@contextlib.contextmanager
def _unpacked(file: io.FileIO, path: Path, most: int) -> Iterator[IO[bytes]]:
    raw = Inflated(file, most) if _is_compressed(path) else open(os.dup(file.fileno()), "rb", buffering=0)
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
    """`./a/b` as `/a/b`; empty for a name that the agent does not write."""
    parts = [part for part in name.split("/") if part not in ("", ".")]
    if name.startswith("/") or ".." in parts or "\0" in name:
        return ""
    return "/" + "/".join(parts)


def _nanoseconds(exact: str | None, seconds: float) -> int:
    """Parses the exact text if there is one, to avoid the rounding of floating-point numbers."""
    if exact is None:
        return int(seconds) * 1_000_000_000
    whole, _, fraction = exact.partition(".")
    sign = -1 if whole.startswith("-") else 1
    return int(whole) * 1_000_000_000 + sign * int((fraction + "000000000")[:9])

"""Files of this host, opened component by component, so that no link of another account is followed."""
from __future__ import annotations

import contextlib
import errno
import hashlib
import os
import secrets
import stat
from collections.abc import Collection, Iterator

from sondrel_restore.kind import RestoreError

_DIRECTORY = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_MOST_LINKS = 40


def components(path: str) -> list[str]:
    """The names in an absolute path. RestoreError if the path is not absolute, or has `..` or a NUL in it."""
    parts = [part for part in path.split("/") if part not in ("", ".")]
    if not path.startswith("/") or ".." in parts or "\0" in path:
        raise RestoreError(f"{path} is no absolute path without \"..\"")
    return parts


@contextlib.contextmanager
def open_directory(path: str) -> Iterator[int]:
    """A descriptor of the directory, for calls with `dir_fd`; closed when the block ends.

    A symbolic link in the path is followed only if it is root's and lies in a directory of root that no other account
    can write to. Any other link raises RestoreError. FileNotFoundError and NotADirectoryError as usual.
    """
    descriptor = _walk(path)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def _walk(path: str) -> int:
    left = components(path)
    trail = [os.open("/", _DIRECTORY)]
    links = 0
    try:
        while left:
            name = left.pop(0)
            if name == "..":
                if len(trail) > 1:
                    os.close(trail.pop())
                continue
            target = _trusted_link(trail[-1], name, path)
            if target is None:
                trail.append(os.open(name, _DIRECTORY, dir_fd=trail[-1]))
                continue
            links += 1
            if links > _MOST_LINKS:
                raise OSError(errno.ELOOP, os.strerror(errno.ELOOP), path)
            if target.startswith("/"):
                while len(trail) > 1:
                    os.close(trail.pop())
            left = [part for part in target.split("/") if part not in ("", ".")] + left
        return os.dup(trail[-1])
    finally:
        for descriptor in trail:
            os.close(descriptor)


def _trusted_link(directory: int, name: str, path: str) -> str | None:
    """The target of a symbolic link; None if the name is no link. RestoreError if others than root may have made it."""
    about = os.stat(name, dir_fd=directory, follow_symlinks=False)
    if not stat.S_ISLNK(about.st_mode):
        return None
    around = os.fstat(directory)
    if about.st_uid != 0 or around.st_uid != 0 or around.st_mode & 0o022:
        raise RestoreError(f"{path} leads through the symbolic link {name}, which others than root may have made")
    return os.readlink(name, dir_fd=directory)


def read_file(path: str, *, limit: int = 64 << 20) -> bytes:
    """The bytes of a regular file. RestoreError for anything else, such as a link, and for more than `limit` bytes."""
    parent, name = os.path.split(path)
    with open_directory(parent) as directory:
        try:
            descriptor = os.open(name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC, dir_fd=directory)
        except OSError as error:
            if error.errno == errno.ELOOP:
                raise RestoreError(f"{path} is a symbolic link here") from error
            raise
        with open(descriptor, "rb") as file:
            if not stat.S_ISREG(os.fstat(descriptor).st_mode):
                raise RestoreError(f"{path} is no regular file")
            content = file.read(limit + 1)
    if len(content) > limit:
        raise RestoreError(f"{path} has more than {limit} bytes")
    return content


def content_here(path: str) -> bytes | None:
    """As `read_file`; None if there is no such file."""
    try:
        return read_file(path)
    except (FileNotFoundError, NotADirectoryError):
        return None


def sum_of_bytes(content: bytes) -> str:
    """A sum that shows later whether the content of a file has changed."""
    return hashlib.sha256(content).hexdigest()


@contextlib.contextmanager
def _replacing(path: str) -> Iterator[tuple[int, str]]:
    """A directory's descriptor and a temporary name in it. At the end, what has that name is renamed to `path`."""
    parent, name = os.path.split(path)
    with open_directory(parent) as directory:
        temporary = f".{name[:100]}.{secrets.token_hex(6)}"
        try:
            yield directory, temporary
            os.rename(temporary, name, src_dir_fd=directory, dst_dir_fd=directory)
        except BaseException:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(temporary, dir_fd=directory)
            raise
        os.fsync(directory)


def atomic_write(path: str, content: bytes, *, mode: int, uid: int, gid: int) -> None:
    """Makes or replaces a file atomically: readers find the old or the new content, also after a crash.

    The directory must exist. A link at `path` itself is replaced, not followed.
    """
    with _replacing(path) as (directory, temporary):
        descriptor = os.open(
            temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600, dir_fd=directory)
        with open(descriptor, "wb") as file:
            file.write(content)
            file.flush()
            os.fchown(descriptor, uid, gid)
            os.fchmod(descriptor, mode)
            os.fsync(descriptor)


def make_link(path: str, target: str) -> None:
    """Makes or replaces a symbolic link of root, atomically."""
    with _replacing(path) as (directory, temporary):
        os.symlink(target, temporary, dir_fd=directory)


def remove_file(path: str) -> None:
    """Removes a file or a link. Does nothing if it is missing."""
    parent, name = os.path.split(path)
    try:
        with open_directory(parent) as directory:
            os.unlink(name, dir_fd=directory)
            os.fsync(directory)
    except FileNotFoundError:
        return


def down_to(path: str) -> list[str]:
    """The directories above a path and the path itself, from the top, without "/"."""
    parts = components(path)
    return ["/" + "/".join(parts[:number]) for number in range(1, len(parts) + 1)]


def missing_directories(path: str) -> list[str]:
    """Those of a directory and its parents that are missing, from the top."""
    places = down_to(path)
    for number, place in enumerate(places):
        try:
            with open_directory(place):
                pass
        except FileNotFoundError:
            return places[number:]
    return []


def make_directories(path: str, *, mode: int, uid: int, gid: int, begun: Collection[str] = ()) -> list[str]:
    """Makes a directory and its missing parents; returns the paths of the new ones, from the top.

    New directories get this mode and owner. So do existing ones that are in `begun`: a run that was killed may have
    left them unfinished. Other existing directories stay as they are.
    """
    made: list[str] = []
    reached = ""
    for name in components(path):
        with open_directory(reached or "/") as directory:
            reached = f"{reached}/{name}"
            try:
                os.mkdir(name, 0o700, dir_fd=directory)
            except FileExistsError:
                if reached not in begun:
                    continue
            made.append(reached)
            new = os.open(name, _DIRECTORY, dir_fd=directory)
            try:
                os.fchown(new, uid, gid)
                os.fchmod(new, mode)
            finally:
                os.close(new)
    return made

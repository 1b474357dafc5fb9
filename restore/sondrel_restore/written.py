"""Writes contents, attributes and owners of files and links from an archive."""
from __future__ import annotations

import errno
import os
import stat

from sondrel_restore.archives import Contents, Member
from sondrel_restore.kind import RestoreError
from sondrel_restore.manifest import Made


def own_link(name: str, directory: int, made: Made) -> None:
    """Sets the owner of a link that was just made. RestoreError if something else has taken its place meanwhile."""
    descriptor = os.open(name, os.O_PATH | os.O_NOFOLLOW | os.O_CLOEXEC, dir_fd=directory)
    try:
        about = os.fstat(descriptor)
        if not stat.S_ISLNK(about.st_mode) or about.st_uid != os.geteuid():
            raise RestoreError(f"{made.path} is changed by something else at the same time")
        # Not by name: this is the very link that was checked.
        os.chown(f"/proc/self/fd/{descriptor}", made.uid, made.gid)
    finally:
        os.close(descriptor)


def copy_contents(member: Member, contents: Contents, descriptor: int) -> None:
    """Writes the bytes, with holes where the archive has them."""
    if member.extents is None:
        for chunk in contents.chunks():
            _write_all(descriptor, chunk)
        return
    for offset, size in member.extents:
        os.lseek(descriptor, offset, os.SEEK_SET)
        for chunk in contents.chunks(size):
            _write_all(descriptor, chunk)
    os.ftruncate(descriptor, member.size)


def _write_all(descriptor: int, content: bytes) -> None:
    while content:
        content = content[os.write(descriptor, content):]


def set_attribute(descriptor: int, name: str, value: bytes) -> bool:
    """Sets an extended attribute. Returns False if the file system does not support them."""
    try:
        os.setxattr(descriptor, name, value)
    except OSError as error:
        if error.errno != errno.EOPNOTSUPP:
            raise
        return False
    return True

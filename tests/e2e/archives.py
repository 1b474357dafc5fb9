"""Archives of the agent "linux": unpacking them, and comparing trees of files."""
import hashlib
import os
import stat
import subprocess

from world import read

STAGE = "/mnt/stage"


def unpack(archive, directory=STAGE):
    """Unpacks archives as docs/linux-agent.md says: their members are relative to the root of the source host."""
    os.makedirs(directory, exist_ok=True)
    subprocess.run(["tar", "-x", "-p", "--acls", "--xattrs", "--xattrs-include=*", "--numeric-owner", "-f", archive,
                    "-C", directory], check=True)
    return directory


def plain_text(archive):
    """The text of a database's dump."""
    if archive.endswith(".gz"):
        return subprocess.run(["gzip", "-cd", archive], check=True, stdout=subprocess.PIPE).stdout
    return read(archive)


def described(top):
    """{relative path, as bytes: everything that an archive must keep of the entry} of a tree."""
    top = os.fsencode(top)
    found, inodes = {}, {}
    for parent, directories, names in os.walk(top):
        for name in [b".", *names, *(directory for directory in directories if os.path.islink(os.path.join(parent, directory)))]:
            path = os.path.normpath(os.path.join(parent, name))
            key = os.path.relpath(path, top)
            found[key] = entry(path)
            status = os.lstat(path)
            if stat.S_ISREG(status.st_mode) and status.st_nlink > 1:
                inodes.setdefault((status.st_dev, status.st_ino), []).append(key)
    for group in inodes.values():
        for key in group:
            found[key]["same as"] = sorted(group)
    return found


def entry(path):
    status = os.lstat(path)
    kind = stat.S_IFMT(status.st_mode)
    found = {"mode": oct(status.st_mode), "owner": (status.st_uid, status.st_gid), "mtime": status.st_mtime_ns,
             "attributes": {name: os.getxattr(path, name, follow_symlinks=False)
                            for name in os.listxattr(path, follow_symlinks=False)}}
    if kind == stat.S_IFREG:
        with open(path, "rb") as file:
            found |= {"size": status.st_size, "content": hashlib.file_digest(file, "md5").hexdigest()}
            # A file with holes must not be filled with zeros.
            found["holes"] = status.st_blocks * 512 < status.st_size // 2
    elif kind == stat.S_IFLNK:
        found["target"] = os.readlink(path)
    elif kind in (stat.S_IFBLK, stat.S_IFCHR):
        found["device"] = status.st_rdev
    return found


def difference(one, other):
    """The differences of two described trees, as text for a failed test; empty when there are none."""
    return "\n".join(f"{path!r}: {one.get(path)} {other.get(path)}" for path in sorted(one.keys() | other.keys())
                     if one.get(path) != other.get(path))


def assert_same_tree(original, copy):
    """Fails unless both directories have the same entries, in every respect."""
    differing = difference(described(original), described(copy))
    assert not differing, differing

"""The content of the file system outside of a run's directories, before and after the run."""
import contextlib
import hashlib
import os
import stat
import subprocess

import pytest

import world

ROOTS = ("/mnt", "/etc", "/tmp", "/run", "/var/log", "/root", "/dev")
# The machine's own entries, which the links in /etc and /dev lead to; and what the test itself writes.
LEFT_OUT = ("/mnt/etc.orig", "/mnt/dev.orig", world.SHELL_DIRECTORY, world.LOGS, world.RUNS)


def entry(path):
    """Everything that shows whether a directory entry was touched."""
    status = os.lstat(path)
    kind = stat.S_IFMT(status.st_mode)
    found = {"mode": oct(status.st_mode), "owner": (status.st_uid, status.st_gid), "inode": status.st_ino,
             "mtime": status.st_mtime_ns, "device": status.st_rdev}
    if kind == stat.S_IFREG:
        found |= {"size": status.st_size, "content": hashlib.md5(world.read(path)).hexdigest(),
                  "links": status.st_nlink}
    elif kind == stat.S_IFLNK:
        found["target"] = os.readlink(path)
    return found


def take(*left_out):
    """{path: entry} of everything below ROOTS, but for these paths and what lies below them."""
    left_out = {os.path.realpath(path) for path in (*left_out, *LEFT_OUT)}
    parents = {os.path.dirname(path) for path in left_out}
    found = {}

    def add(path):
        if path in left_out:
            return
        found[path] = entry(path)
        if path in parents:
            del found[path]["mtime"]
        if stat.S_ISDIR(os.lstat(path).st_mode):
            for name in os.listdir(path):
                add(os.path.join(path, name))

    for root in ROOTS:
        add(root)
    return found


@contextlib.contextmanager
def unchanged(*left_out):
    """Fails if anything changes in the block, except these paths and what is below them."""
    before = take(*left_out)
    yield
    after = take(*left_out)
    changed = {path: (before.get(path), after.get(path)) for path in sorted(before.keys() | after.keys())
               if before.get(path) != after.get(path)}
    assert not changed, changed


@pytest.fixture
def own_directories():
    """Gives the test its own /tmp and /root, which no other process of the machine writes to."""
    program = (os.path.realpath(world.BINARY), world.TESTS)
    directories = [directory for directory in ("/tmp", "/root")
                   if not any(path.startswith(directory + "/") for path in program)]
    for directory in directories:
        subprocess.run(["mount", "-t", "tmpfs", "own", directory], check=True)
    yield
    for directory in directories:
        subprocess.run(["umount", "-l", directory], check=True)

"""Undoes and verifies trees that `unpack` made."""
from __future__ import annotations

import contextlib
import os
import stat
from collections.abc import Iterable, Iterator
from typing import TYPE_CHECKING

from sondrel_restore.archives import Archive, Contents, Member
from sondrel_restore.hostfiles import components
from sondrel_restore.kind import Finding, Left
from sondrel_restore.made_here import (DIRECTORY, HALF_MODE, TEMPORARY, Notes, WhyNot, about_name,
                                       directory_of, remove_made)
from sondrel_restore.manifest import Made, read_manifest

if TYPE_CHECKING:
    from sondrel_restore.journal import Entry
    from sondrel_restore.restore import Restore


def remove_unpacked(restore: Restore, entry: Entry) -> Left | None:
    """Removes what `unpack` made of an object. What was changed or added here since stays, and is reported."""
    journal = restore.journal
    before = dict(entry.facts.get("before") or {})  # type: ignore[call-overload]
    notes = Notes()
    made = read_manifest(journal.side_file(entry.identifier, "manifest"))
    begun = read_manifest(journal.side_file(entry.identifier, "begun"), may_be_cut=True)
    for path in sorted({**made, **begun}, reverse=True):
        ways = [manifest[path] for manifest in (begun, made) if path in manifest]
        why = _take_back(path, ways, path in begun)
        if why:
            notes.add(f"left, since it {why}", path)
    _restore_roots(before)
    if notes.found:
        return Left(entry.identifier, "; ".join(notes.texts()))
    for suffix in ("manifest", "begun"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(journal.side_file(entry.identifier, suffix))
    return None


def _take_back(path: str, ways: list[Made], may_be_half: bool) -> str:
    """Removes a path if it is in one of the recorded states. Returns why it stays, or "" if it is gone."""
    with directory_of(path) as directory:
        if directory is None:
            return ""
        name = os.path.basename(path)
        with contextlib.suppress(FileNotFoundError, IsADirectoryError):
            os.unlink(TEMPORARY, dir_fd=directory)
        there = about_name(name, directory)
        if there is not None and may_be_half and _is_half(there):
            os.unlink(name, dir_fd=directory)
        why = ""
        for made in ways:
            why = remove_made(made, name, directory)
            if not why:
                break
        return why


def _is_half(there: os.stat_result) -> bool:
    """Whether it looks like an unfinished file or link."""
    if stat.S_ISLNK(there.st_mode):
        return there.st_uid == 0
    # Ignore the bits of the group: an access control list changes them.
    return stat.S_ISREG(there.st_mode) and stat.S_IMODE(there.st_mode) & ~0o070 == HALF_MODE


def _restore_roots(before: dict[str, object]) -> None:
    """Removes the directories that were made above the roots if they are empty; resets roots that were there before."""
    for path, was in sorted(before.items(), reverse=True):
        with directory_of(path) as directory:
            if directory is None:
                continue
            name = os.path.basename(path)
            if was is None:
                with contextlib.suppress(OSError):
                    os.rmdir(name, dir_fd=directory)
                continue
            assert isinstance(was, list)
            with contextlib.suppress(FileNotFoundError, NotADirectoryError):
                descriptor = os.open(name, DIRECTORY, dir_fd=directory)
                try:
                    os.fchown(descriptor, was[1], was[2])
                    os.fchmod(descriptor, stat.S_IMODE(was[0]))
                    os.utime(descriptor, ns=(was[3], was[3]))
                finally:
                    os.close(descriptor)


def verify_unpacked(
        restore: Restore, identifier: str, archives: Iterable[Archive], roots: Iterable[str], *,
        takes: WhyNot | None = None) -> Iterator[Finding]:
    """Compares each file and link below the roots with the archives, byte for byte. Of directories only the existence
    is checked.

    A member for which `takes` gives a reason is skipped.
    """
    wanted = [components(root) for root in set(roots)]
    differs = Notes()
    count = 0
    for archive in archives:
        for member, contents in archive.members():
            parts = components(member.path) if member.path else []
            if not parts or not any(parts[:len(root)] == root for root in wanted):
                continue
            if member.kind not in ("file", "link", "directory") or takes is not None and takes(member):
                continue
            count += member.kind != "directory"
            restore.progress.show(f"{identifier}: {count} files compared")
            what = _difference(member, contents)
            if what:
                differs.add(what, member.path)
    for text in differs.texts():
        yield Finding(identifier, "files", False, text)
    if not differs.found:
        yield Finding(identifier, "files", True, f"{count} files and links are the same")


def _difference(member: Member, contents: Contents) -> str:
    with directory_of(member.path) as directory:
        name = os.path.basename(member.path)
        there = about_name(name, directory) if directory is not None else None
        if there is None or directory is None:
            return "missing here"
        if member.kind == "directory":
            return "" if stat.S_ISDIR(there.st_mode) else "no directory here"
        if member.kind == "link":
            same = stat.S_ISLNK(there.st_mode) and os.readlink(name, dir_fd=directory) == member.target
            return "" if same else "another link here"
        if not stat.S_ISREG(there.st_mode):
            return "no regular file here"
        if there.st_size != member.size:
            return "has another size here"
        if member.extents is not None:
            return ""
        descriptor = os.open(name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC, dir_fd=directory)
        with open(descriptor, "rb") as file:
            if any(file.read(len(chunk)) != chunk for chunk in contents.chunks()):
                return "has other content here"
    return ""

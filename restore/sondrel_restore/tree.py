"""Makes the trees of one object from archives.

Members are made below the roots that the caller gives. Each directory is opened component by component without
following links, so an account that changes the tree meanwhile cannot redirect a write. New files belong to root
alone until they are complete. A manifest beside the journal lists what was made: by it a later fetch is applied as
a difference, and undo detects what was changed here.
"""
from __future__ import annotations

import contextlib
import dataclasses
import errno
import os
import pwd
import stat
from collections.abc import Collection
from typing import TYPE_CHECKING

from sondrel_restore.acl import AclError, encoded
from sondrel_restore.archives import Archive, Contents, Member
from sondrel_restore.hostfiles import components, make_directories, open_directory
from sondrel_restore.kind import RestoreError
from sondrel_restore.made_here import (DIRECTORY, HALF_MODE, TEMPORARY, Notes, WhyNot, about_name,
                                       directory_of, facts_of, is_same, remove_made)
from sondrel_restore.manifest import Made, Manifest, read_manifest
from sondrel_restore.owners import Owners
from sondrel_restore.written import copy_contents, own_link, set_attribute

if TYPE_CHECKING:
    from sondrel_restore.restore import Restore

_NEW_FILE = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
_DEEPEST = 200


def outermost(roots: list[list[str]]) -> list[list[str]]:
    """The roots that are not below another root."""
    found: list[list[str]] = []
    for root in sorted(roots):
        if not any(root[:len(outer)] == outer for outer in found):
            found.append(root)
    return found


def make_above(above: list[str], begun: Collection[str]) -> None:
    """Makes the missing directories above a root: within a home they belong to its owner, else to root.

    `begun` are directories that an apply that was killed may have left unfinished.
    """
    homes = {account.pw_dir: account for account in pwd.getpwall() if account.pw_dir.count("/") > 1}
    owner = (0, 0)
    for number in range(1, len(above) + 1):
        path = "/" + "/".join(above[:number])
        if path in homes:
            owner = homes[path].pw_uid, homes[path].pw_gid
        make_directories(path, mode=0o755, uid=owner[0], gid=owner[1], begun=begun)


class Tree:
    """Makes the trees of one object. Use it as a context manager; call `take`, then `complete`."""

    def __init__(self, restore: Restore, identifier: str, roots: list[str], owners: Owners) -> None:
        self._restore = restore
        self._identifier = identifier
        self._roots = outermost([components(root) for root in roots])
        self._owners = owners
        self._old = read_manifest(restore.journal.side_file(identifier, "manifest"))
        self._is_first = not os.path.exists(restore.journal.side_file(identifier, "manifest"))
        # What an interrupted apply had made so far is in the file "begun".
        self._begun = read_manifest(restore.journal.side_file(identifier, "begun"), may_be_cut=True)
        self._new = Manifest(restore.journal.side_file(identifier, "begun"), keep=self._begun)
        before = facts_of(restore, identifier)["before"]
        assert isinstance(before, dict)
        self._new_above = [path for path, was in before.items() if was is None] if self._is_first else []
        # The descriptors of the open directories: first that above a root, then each one down to the current directory.
        self._base: list[str] | None = None
        self._trail: list[tuple[str, int]] = []
        self._directories: dict[str, Member | None] = {}
        self._fresh: set[str] = set()
        self.takes: WhyNot = lambda member: ""
        self.overwrites = False
        self.notes = Notes()
        self.count = 0

    def __enter__(self) -> Tree:
        self._new.open()
        return self

    def __exit__(self, *_: object) -> None:
        self._leave(0)
        self._new.close()

    def take(self, archive: Archive) -> None:
        """Makes all members of an archive that are below the roots."""
        for member, contents in archive.members():
            if not member.path:
                self.notes.add("left out, since its name leads outside", member.raw_name)
                continue
            parts = components(member.path)
            root = self._root_of(parts)
            if root is not None:
                self._restore.progress.show(f"{self._identifier}: {self.count} files")
                self._take_member(member, parts, root, contents)

    def _root_of(self, parts: list[str]) -> list[str] | None:
        return next((root for root in self._roots if parts[:len(root)] == root), None)

    def _take_member(self, member: Member, parts: list[str], root: list[str], contents: Contents) -> None:
        why_not = self.takes(member)
        if why_not:
            self.notes.add(why_not, member.path)
            return
        if len(parts) > _DEEPEST:
            self.notes.add(f"left out, since it is deeper than {_DEEPEST} directories", member.path)
            return
        try:
            if member.kind == "directory":
                if self._enter(parts, root) is not None:
                    self._directories[member.path] = member
            elif member.kind in ("file", "link", "hard link"):
                directory = self._enter(parts[:-1], root)
                if directory is not None:
                    self._make(member, directory, parts[-1], contents)
            else:
                self.notes.add(f"left out, since it is a {member.kind}", member.path)
        except OSError as error:
            raise RestoreError(f"{member.path}: {error.strerror}") from error

    # --- directories ---

    def _enter(self, parts: list[str], root: list[str]) -> int | None:
        """A descriptor of the directory, which is made if missing. None if something else is in its place and stays."""
        above = root[:-1]
        if self._base != above:
            self._leave(0)
            self._begin_at(above)
        below = parts[len(above):]
        same = 0
        while same < min(len(below), len(self._trail) - 1) and self._trail[same + 1][0] == below[same]:
            same += 1
        self._leave(same + 1)
        for number in range(same, len(below)):
            descriptor = self._enter_one(above + below[:number + 1])
            if descriptor is None:
                return None
            self._trail.append((below[number], descriptor))
        return self._trail[-1][1]

    def _leave(self, depth: int) -> None:
        """Closes all descriptors deeper than `depth`."""
        while len(self._trail) > depth:
            os.close(self._trail.pop()[1])
        if not depth:
            self._base = None

    def _begin_at(self, above: list[str]) -> None:
        """Opens the directory above a root, and makes it if missing. Only root's links are followed."""
        make_above(above, self._new_above)
        with open_directory("/" + "/".join(above)) as directory:
            self._trail = [("", os.dup(directory))]
        self._base = above

    def _enter_one(self, parts: list[str]) -> int | None:
        path, name, parent = "/" + "/".join(parts), parts[-1], self._trail[-1][1]
        # Up to three attempts: what is in its place is removed, the directory is made, then opened.
        for _ in range(3):
            try:
                descriptor = os.open(name, DIRECTORY, dir_fd=parent)
                self._directories.setdefault(path, None)
                return descriptor
            except FileNotFoundError:
                self._new.add(Made.directory(path))
                os.mkdir(name, 0o700, dir_fd=parent)
                self._fresh.add(path)
            except OSError as error:
                if error.errno not in (errno.ENOTDIR, errno.ELOOP):
                    raise
                if not self._may_replace(path, name, parent):
                    return None
                os.unlink(name, dir_fd=parent)
        raise RestoreError(f"{path} is changed by something else at the same time")

    def complete(self) -> None:
        """Removes what has vanished from the archives, sets the attributes of directories, writes the manifest."""
        self._remove_vanished()
        for path, member in sorted(self._directories.items(), reverse=True):
            parts = components(path)
            root = self._root_of(parts)
            descriptor = self._enter(parts, root) if root is not None else None
            if descriptor is not None:
                if path in self._old or path in self._begun:
                    self._new.add(Made.directory(path))
                self._finish_directory(path, member, descriptor)
        self._leave(0)
        self._new.replace(self._restore.journal.side_file(self._identifier, "manifest"))

    def _finish_directory(self, path: str, member: Member | None, descriptor: int) -> None:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(TEMPORARY, dir_fd=descriptor)
        if member is None:
            if path in self._fresh:
                os.fchown(descriptor, self._owners.uid, self._owners.gid)
                os.fchmod(descriptor, 0o755)
            return
        about = os.fstat(descriptor)
        if not self._is_made_by_us(path):
            # Another account may own files in it, and must not lose access to them.
            self.notes.add("has the owner and mode that it had here", path)
            return
        uid = self._owners.user(member.user, member.uid)
        gid = self._owners.group(member.group, member.gid)
        if (about.st_uid, about.st_gid) != (uid, gid):
            os.fchown(descriptor, uid, gid)
        if member.mode & stat.S_ISUID:
            self.notes.add("without the right to set a user", path)
        mode = member.mode & ~stat.S_ISUID
        if stat.S_IMODE(about.st_mode) != mode:
            os.fchmod(descriptor, mode)
        self._set_attributes(descriptor, member)
        if os.fstat(descriptor).st_mtime_ns != member.mtime:
            os.utime(descriptor, ns=(member.mtime, member.mtime))

    def _is_made_by_us(self, path: str) -> bool:
        return (path in self._fresh or path in self._old or path in self._begun or components(path) in self._roots
                or self._restore.decisions.replace(self._identifier))

    # --- files and links ---

    def _make(self, member: Member, directory: int, name: str, contents: Contents) -> None:
        made = self._made(member)
        if made is None:
            return
        there = about_name(name, directory)
        self._directories.pop(member.path, None)
        if there is not None:
            if self._is_up_to_date(made, there, name, directory):
                self._new.add(made)
                self.count += 1
                return
            if not self._may_replace(member.path, name, directory):
                return
            if stat.S_ISDIR(there.st_mode):
                if not self._remove_directory(member.path):
                    return
                there = None
        self._new.add(made)
        temporary = name if there is None else TEMPORARY
        if there is not None:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(TEMPORARY, dir_fd=directory)
        if not self._write(member, made, directory, temporary, contents):
            self._new.drop(made.path)
            return
        if temporary != name:
            os.rename(temporary, name, src_dir_fd=directory, dst_dir_fd=directory)
        self.count += 1

    def _made(self, member: Member) -> Made | None:
        """The entry of the member for the manifest; None, with a note, if it cannot be made."""
        uid = self._owners.user(member.user, member.uid)
        gid = self._owners.group(member.group, member.gid)
        if member.kind == "link":
            # A link must not be root's: programs follow root's links where they do not follow those of other accounts.
            return Made(member.path, "l", 0, member.mtime, 0, uid or self._owners.uid, gid, member.target)
        if member.kind == "hard link":
            known = self._new.made.get(member.target)
            if known is None or known.kind != "f":
                self.notes.add("left out, since it is a further name of a file that is not unpacked with it",
                               member.path)
                return None
            return dataclasses.replace(known, path=member.path)
        if member.mode & (stat.S_ISUID | stat.S_ISGID):
            self.notes.add("without the rights of its owner or group for whoever runs it", member.path)
        return Made(member.path, "f", member.size, member.mtime, member.mode & 0o1777, uid, gid, "")

    def _write(self, member: Member, made: Made, directory: int, name: str, contents: Contents) -> bool:
        """Returns whether the file or link was made."""
        if member.kind == "link":
            os.symlink(member.target, name, dir_fd=directory)
            own_link(name, directory, made)
            os.utime(name, ns=(member.mtime, member.mtime), dir_fd=directory, follow_symlinks=False)
            return True
        if member.kind == "hard link":
            return self._link(member, directory, name)
        descriptor = os.open(name, _NEW_FILE, HALF_MODE, dir_fd=directory)
        try:
            copy_contents(member, contents, descriptor)
            os.utime(descriptor, ns=(member.mtime, member.mtime))
            os.fchown(descriptor, made.uid, made.gid)
            self._set_attributes(descriptor, member)
            # Set the mode last: by it a rerun recognizes a complete file.
            os.fchmod(descriptor, made.mode)
        finally:
            os.close(descriptor)
        return True

    def _link(self, member: Member, directory: int, name: str) -> bool:
        old = os.path.basename(member.target)
        with directory_of(member.target) as source:
            about = about_name(old, source) if source is not None else None
            if source is None or about is None or not is_same(self._new.made[member.target], about, ""):
                self.notes.add("left out, since the file that it is a further name of is changed here", member.path)
                return False
            os.link(old, name, src_dir_fd=source, dst_dir_fd=directory, follow_symlinks=False)
        return True

    def _set_attributes(self, descriptor: int, member: Member) -> None:
        for name, value in member.attributes.items():
            if name.startswith("system.posix_acl_"):
                # It has numbers of the source host. The archive also has the list as text, which is used below.
                continue
            if not name.startswith("user."):
                self.notes.add(f"without its attribute {name}", member.path)
                continue
            if not set_attribute(descriptor, name, value):
                self.notes.add(f"without its attribute {name}, which the file system cannot keep", member.path)
        for name, text in (("system.posix_acl_access", member.acl), ("system.posix_acl_default", member.default_acl)):
            if not text:
                continue
            try:
                value, dropped = encoded(text, self._owners.known_user, self._owners.known_group)
            except AclError:
                self.notes.add("without its access control list, which is damaged", member.path)
                continue
            if dropped:
                self.notes.add(f"without {dropped} in its access control list, who are not restored", member.path)
            if not set_attribute(descriptor, name, value):
                self.notes.add("without its access control list, which the file system cannot keep", member.path)

    # --- what is here ---

    def _known(self, path: str) -> Made | None:
        return self._begun.get(path) or self._old.get(path)

    def _is_up_to_date(self, made: Made, there: os.stat_result, name: str, directory: int) -> bool:
        """Whether an apply, this one or an earlier one, already made it and it is unchanged."""
        known = self._new.made.get(made.path) or self._known(made.path)
        target = os.readlink(name, dir_fd=directory) if stat.S_ISLNK(there.st_mode) else ""
        return known is not None and is_same(made, there, target)

    def _may_replace(self, path: str, name: str, directory: int) -> bool:
        """Whether what is here may be overwritten, since an apply made it and it is unchanged, or by an option."""
        there = about_name(name, directory)
        if there is None or path in self._new.made or self._begun.get(path) is not None:
            return there is None or not stat.S_ISDIR(there.st_mode)
        known = self._old.get(path)
        target = os.readlink(name, dir_fd=directory) if stat.S_ISLNK(there.st_mode) else ""
        if known is None and self.overwrites and not stat.S_ISDIR(there.st_mode):
            return True
        if known is None or not is_same(known, there, target):
            what = "kept, since it was changed here" if known else "kept, since it was made here"
            self.notes.add(what, path)
            return False
        return True

    def _remove_directory(self, path: str) -> bool:
        """Removes a directory that is in the way. Returns False if it stays because it has files that no apply made."""
        self._remove_vanished(path)
        with directory_of(path) as directory:
            is_gone = directory is None or about_name(os.path.basename(path), directory) is None
        return is_gone

    def _remove_vanished(self, top: str = "") -> None:
        """Removes what the archives no longer have; with `top`, only that path and what is below it."""
        for path, made in sorted(self._old.items(), reverse=True):
            if path in self._new.made or path in self._directories or not f"{path}/".startswith(f"{top}/"):
                continue
            with directory_of(path) as directory:
                if directory is None:
                    continue
                what = remove_made(made, os.path.basename(path), directory)
            if what:
                self.notes.add(f"kept, although the source host does not have it any more, since it {what}", path)
                self._new.add(made)

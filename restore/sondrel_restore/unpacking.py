"""Archives into trees of this host: for files of sites and clients, and for mailboxes.

Members go below the roots that the caller gives, each by a descriptor of its directory, which is opened component by
component without following links: whoever changes the tree meanwhile leads nothing elsewhere. What is new belongs
to root alone until it is complete. A manifest beside the journal has what was made, so that a later fetch
is applied as a difference, and undo knows what was changed here.
"""
from __future__ import annotations

import contextlib
import dataclasses
import errno
import grp
import os
import pwd
import stat
from collections.abc import Callable, Collection, Iterable, Iterator
from typing import TYPE_CHECKING

from sondrel_restore.acl import AclError, encoded
from sondrel_restore.archives import Archive, Contents, Member
from sondrel_restore.hostfiles import components, down_to, make_directories, open_directory
from sondrel_restore.kind import Facts, Finding, Left, RestoreError
from sondrel_restore.manifest import Made, Manifest, read_manifest

if TYPE_CHECKING:
    from sondrel_restore.journal import Entry
    from sondrel_restore.restore import Restore

_DIRECTORY = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_NEW_FILE = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
_TEMPORARY = ".sondrel-restore.new"
# Of files while they are written; hardly one has it afterwards.
_HALF_MODE = 0o200
_DEEPEST = 200
# Of a kind of thing that is named, the first so many paths.
_NAMED = 3


# Why a member is left out; "" if it is not.
WhyNot = Callable[[Member], str]


class Owners:
    """Whom files belong to here: accounts and groups of this restore, and for all others the owner of the object."""

    def __init__(self, restore: Restore, fallback: str) -> None:
        """`fallback` is the name of an account here. RestoreError if it is not there."""
        try:
            entry = pwd.getpwnam(fallback)
        except KeyError as error:
            raise RestoreError(f"There is no account {fallback} here, which its files belong to") from error
        self.fallback = fallback
        self.uid, self.gid = entry.pw_uid, entry.pw_gid
        self.strangers: set[str] = set()
        self._users = {"root": 0}
        self._groups = {"root": 0}
        for there, here in restore.offered("account").items():
            with contextlib.suppress(KeyError):
                self._users[there] = pwd.getpwnam(str(here)).pw_uid
        for there, here in restore.offered("group").items():
            with contextlib.suppress(KeyError):
                self._groups[there] = grp.getgrnam(str(here)).gr_gid
        self._names = {account.uid: name for name, account in restore.description.accounts.items()}
        self._group_names = {group.gid: name for name, group in restore.description.groups.items()}

    def user(self, name: str, number: int) -> int:
        """The number here of who was `name` or, without a name, `number` there."""
        known = self._users.get(name or self._names.get(number, ""))
        if known is None:
            self.strangers.add(name or str(number))
            return self.uid
        return known

    def group(self, name: str, number: int) -> int:
        """The same for a group."""
        known = self._groups.get(name or self._group_names.get(number, ""))
        if known is None:
            self.strangers.add(f"group {name or number}")
            return self.gid
        return known

    def known_user(self, name: str) -> int | None:
        """For an access control list; None for who is not of this restore. `name` may be a number."""
        return self._users.get(self._names.get(int(name), "") if name.isdecimal() else name)

    def known_group(self, name: str) -> int | None:
        """The same for a group."""
        return self._groups.get(self._group_names.get(int(name), "") if name.isdecimal() else name)


@dataclasses.dataclass
class _Notes:
    """What is named at the end: kinds of things with how many, and the first paths."""

    found: dict[str, list[str]] = dataclasses.field(default_factory=dict)
    counts: dict[str, int] = dataclasses.field(default_factory=dict)

    def add(self, what: str, path: str) -> None:
        self.counts[what] = self.counts.get(what, 0) + 1
        first = self.found.setdefault(what, [])
        if len(first) < _NAMED and path not in first:
            first.append(path)

    def texts(self) -> Iterator[str]:
        for what, paths in self.found.items():
            count = self.counts[what]
            more = f" and {count - len(paths)} more" if count > len(paths) else ""
            yield f"{what}: {', '.join(paths)}{more}"


def unpack(restore: Restore, identifier: str, archives: Iterable[Archive], roots: Iterable[str], owner: str, *,
           takes: WhyNot | None = None, overwrites: bool = False) -> Facts:
    """Makes or renews the trees `roots` (absolute paths) from archives, for an object whose apply has begun.

    Files belong to the accounts here that were offered as "account" for who they were there, else to the account
    `owner` of this host. What an earlier apply made and the archives do not have any more is removed. What
    somebody changed here since is kept and named, as is what is left out of an archive. Directories above
    that are missing are made: in a home as its owner's, else as root's. `takes` says why a member is left out, ""
    if it is not; with `overwrites` files that no apply has made are replaced. Returns facts for `remove_unpacked`.
    """
    wanted = sorted(set(roots))
    owners = Owners(restore, owner)
    _note_roots(restore, identifier, wanted)
    tree = _Tree(restore, identifier, wanted, owners)
    tree.takes = takes or tree.takes
    tree.overwrites = overwrites or restore.decisions.replace(identifier)
    with tree:
        for archive in archives:
            tree.take(archive)
        tree.complete()
    for text in tree.notes.texts():
        restore.name(identifier, text)
    if owners.strangers:
        restore.name(identifier, f"what belonged to {', '.join(sorted(owners.strangers)[:10])}, "
                     f"who are not restored, belongs to {owner} now")
    facts = dict(_facts(restore, identifier))
    facts["files"] = tree.count
    return facts


def _facts(restore: Restore, identifier: str) -> Facts:
    entry = restore.journal.entry(identifier)
    return entry.facts if entry else {}


def _note_roots(restore: Restore, identifier: str, roots: Iterable[str]) -> None:
    """How each root was before the first apply, for undo: null, or mode, owner, group and time."""
    noted = dict(_facts(restore, identifier).get("before") or {})  # type: ignore[call-overload]
    for root in roots:
        for path in down_to(root):
            if path in noted:
                continue
            try:
                about = _lstat(path)
                if path != root:
                    continue
                noted[path] = [about.st_mode, about.st_uid, about.st_gid, about.st_mtime_ns]
            except FileNotFoundError:
                noted[path] = None
    restore.journal.note(identifier, {"before": noted})


def _lstat(path: str) -> os.stat_result:
    parent, name = os.path.split(path)
    try:
        with open_directory(parent) as directory:
            return os.stat(name, dir_fd=directory, follow_symlinks=False)
    except NotADirectoryError as error:
        raise RestoreError(f"{parent} is no directory") from error


def _outermost(roots: list[list[str]]) -> list[list[str]]:
    """The roots that do not lie below another one."""
    found: list[list[str]] = []
    for root in sorted(roots):
        if not any(root[:len(outer)] == outer for outer in found):
            found.append(root)
    return found


def _make_above(above: list[str], begun: Collection[str]) -> None:
    """Makes the directories above a root that are missing: within a home its owner's, else root's.

    `begun` are those that an apply that was killed may have left half made.
    """
    homes = {account.pw_dir: account for account in pwd.getpwall() if account.pw_dir.count("/") > 1}
    owner = (0, 0)
    for number in range(1, len(above) + 1):
        path = "/" + "/".join(above[:number])
        if path in homes:
            owner = homes[path].pw_uid, homes[path].pw_gid
        make_directories(path, mode=0o755, uid=owner[0], gid=owner[1], begun=begun)


class _Tree:
    """The trees of one object while they are made."""

    def __init__(self, restore: Restore, identifier: str, roots: list[str], owners: Owners) -> None:
        self._restore = restore
        self._identifier = identifier
        self._roots = _outermost([components(root) for root in roots])
        self._owners = owners
        self._old = read_manifest(restore.journal.side_file(identifier, "manifest"))
        # Of an apply that was broken off: what it had made so far.
        self._is_first = not os.path.exists(restore.journal.side_file(identifier, "manifest"))
        self._begun = read_manifest(restore.journal.side_file(identifier, "begun"), may_be_cut=True)
        self._new = Manifest(restore.journal.side_file(identifier, "begun"), keep=self._begun)
        # The directory above a root, and those below it on the way to the present one, each with its descriptor.
        before = _facts(restore, identifier)["before"]
        assert isinstance(before, dict)
        self._new_above = [path for path, was in before.items() if was is None] if self._is_first else []
        self._base: list[str] | None = None
        self._trail: list[tuple[str, int]] = []
        self._directories: dict[str, Member | None] = {}
        self._fresh: set[str] = set()
        self.takes: WhyNot = lambda member: ""
        self.overwrites = False
        self.notes = _Notes()
        self.count = 0

    def __enter__(self) -> _Tree:
        self._new.open()
        return self

    def __exit__(self, *_: object) -> None:
        self._leave(0)
        self._new.close()

    def take(self, archive: Archive) -> None:
        """All members below the roots."""
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
        """A descriptor of the directory, which is made if it is missing; None where something else is in its place."""
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
        """Closes the descriptors below a depth."""
        while len(self._trail) > depth:
            os.close(self._trail.pop()[1])
        if not depth:
            self._base = None

    def _begin_at(self, above: list[str]) -> None:
        """Opens the directory above a root, by links of root's only; it is made if it is missing."""
        _make_above(above, self._new_above)
        with open_directory("/" + "/".join(above)) as directory:
            self._trail = [("", os.dup(directory))]
        self._base = above

    def _enter_one(self, parts: list[str]) -> int | None:
        path, name, parent = "/" + "/".join(parts), parts[-1], self._trail[-1][1]
        # Something else in its place goes, it is made, and then opened.
        for _ in range(3):
            try:
                descriptor = os.open(name, _DIRECTORY, dir_fd=parent)
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
        """Owners, modes and times of directories, what has vanished there, and the manifest."""
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
            os.unlink(_TEMPORARY, dir_fd=descriptor)
        if member is None:
            if path in self._fresh:
                os.fchown(descriptor, self._owners.uid, self._owners.gid)
                os.fchmod(descriptor, 0o755)
            return
        about = os.fstat(descriptor)
        if not self._is_made_by_us(path):
            # What is in it may be another one's, who would lose it with the directory.
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
        there = _about(name, directory)
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
        temporary = name if there is None else _TEMPORARY
        if there is not None:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(_TEMPORARY, dir_fd=directory)
        if not self._write(member, made, directory, temporary, contents):
            self._new.drop(made.path)
            return
        if temporary != name:
            os.rename(temporary, name, src_dir_fd=directory, dst_dir_fd=directory)
        self.count += 1

    def _made(self, member: Member) -> Made | None:
        """What it will be here; None, and named, where it cannot be."""
        uid = self._owners.user(member.user, member.uid)
        gid = self._owners.group(member.group, member.gid)
        if member.kind == "link":
            # Programs follow links of root's where they do not follow those of others.
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
        """Returns whether it was made."""
        if member.kind == "link":
            os.symlink(member.target, name, dir_fd=directory)
            _own_link(name, directory, made)
            os.utime(name, ns=(member.mtime, member.mtime), dir_fd=directory, follow_symlinks=False)
            return True
        if member.kind == "hard link":
            return self._link(member, directory, name)
        descriptor = os.open(name, _NEW_FILE, _HALF_MODE, dir_fd=directory)
        try:
            _copy(member, contents, descriptor)
            os.utime(descriptor, ns=(member.mtime, member.mtime))
            os.fchown(descriptor, made.uid, made.gid)
            self._set_attributes(descriptor, member)
            # The mode comes last: by it a rerun knows that the file is whole.
            os.fchmod(descriptor, made.mode)
        finally:
            os.close(descriptor)
        return True

    def _link(self, member: Member, directory: int, name: str) -> bool:
        old = os.path.basename(member.target)
        with _directory_of(member.target) as source:
            about = _about(old, source) if source is not None else None
            if source is None or about is None or not _is_same(self._new.made[member.target], about, ""):
                self.notes.add("left out, since the file that it is a further name of is changed here", member.path)
                return False
            os.link(old, name, src_dir_fd=source, dst_dir_fd=directory, follow_symlinks=False)
        return True

    def _set_attributes(self, descriptor: int, member: Member) -> None:
        for name, value in member.attributes.items():
            if name.startswith("system.posix_acl_"):
                # With numbers of the source host; the list comes as text, too.
                continue
            if not name.startswith("user."):
                self.notes.add(f"without its attribute {name}", member.path)
                continue
            if not _set_attribute(descriptor, name, value):
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
            if not _set_attribute(descriptor, name, value):
                self.notes.add("without its access control list, which the file system cannot keep", member.path)

    # --- what is here ---

    def _known(self, path: str) -> Made | None:
        return self._begun.get(path) or self._old.get(path)

    def _is_up_to_date(self, made: Made, there: os.stat_result, name: str, directory: int) -> bool:
        """Whether it is here as an apply of this or an earlier run made it, so that it need not be made again."""
        known = self._new.made.get(made.path) or self._known(made.path)
        target = os.readlink(name, dir_fd=directory) if stat.S_ISLNK(there.st_mode) else ""
        return known is not None and _is_same(made, there, target)

    def _may_replace(self, path: str, name: str, directory: int) -> bool:
        """Whether what is here was made by an apply, and nobody changed it since, or may be overwritten."""
        there = _about(name, directory)
        if there is None or path in self._new.made or self._begun.get(path) is not None:
            return there is None or not stat.S_ISDIR(there.st_mode)
        known = self._old.get(path)
        target = os.readlink(name, dir_fd=directory) if stat.S_ISLNK(there.st_mode) else ""
        if known is None and self.overwrites and not stat.S_ISDIR(there.st_mode):
            return True
        if known is None or not _is_same(known, there, target):
            what = "kept, since it was changed here" if known else "kept, since it was made here"
            self.notes.add(what, path)
            return False
        return True

    def _remove_directory(self, path: str) -> bool:
        """Makes way for something else; False, and named, where somebody made files in it."""
        self._remove_vanished(path)
        with _directory_of(path) as directory:
            is_gone = directory is None or _about(os.path.basename(path), directory) is None
        return is_gone

    def _remove_vanished(self, top: str = "") -> None:
        """With `top`, of that path and what is below it only."""
        for path, made in sorted(self._old.items(), reverse=True):
            if path in self._new.made or path in self._directories or not f"{path}/".startswith(f"{top}/"):
                continue
            with _directory_of(path) as directory:
                if directory is None:
                    continue
                what = _remove(made, os.path.basename(path), directory)
            if what:
                self.notes.add(f"kept, although the source host does not have it any more, since it {what}", path)
                self._new.add(made)


def _own_link(name: str, directory: int, made: Made) -> None:
    """Gives a link that was just made to its owner, who may have put something else in its place meanwhile."""
    descriptor = os.open(name, os.O_PATH | os.O_NOFOLLOW | os.O_CLOEXEC, dir_fd=directory)
    try:
        about = os.fstat(descriptor)
        if not stat.S_ISLNK(about.st_mode) or about.st_uid != os.geteuid():
            raise RestoreError(f"{made.path} is changed by something else at the same time")
        # Not by its name: of the very link that was looked at.
        os.chown(f"/proc/self/fd/{descriptor}", made.uid, made.gid)
    finally:
        os.close(descriptor)


def _about(name: str, directory: int) -> os.stat_result | None:
    try:
        return os.stat(name, dir_fd=directory, follow_symlinks=False)
    except FileNotFoundError:
        return None


@contextlib.contextmanager
def _directory_of(path: str) -> Iterator[int | None]:
    """A descriptor of the directory above; None where it is gone, or a link leads there."""
    with contextlib.ExitStack() as stack:
        try:
            directory: int | None = stack.enter_context(open_directory(os.path.dirname(path)))
        except (FileNotFoundError, NotADirectoryError, RestoreError):
            directory = None
        yield directory


def _copy(member: Member, contents: Contents, descriptor: int) -> None:
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


def _set_attribute(descriptor: int, name: str, value: bytes) -> bool:
    """False where the file system has no such attributes."""
    try:
        os.setxattr(descriptor, name, value)
    except OSError as error:
        if error.errno != errno.EOPNOTSUPP:
            raise
        return False
    return True


def _is_same(made: Made, there: os.stat_result, target: str) -> bool:
    """Whether what is there is what was made, by all that tells without reading it."""
    if made.kind == "l":
        return (stat.S_ISLNK(there.st_mode) and target == made.target
                and (there.st_uid, there.st_gid) == (made.uid, made.gid))
    if made.kind == "d":
        return stat.S_ISDIR(there.st_mode)
    return stat.S_ISREG(there.st_mode) and (
        there.st_size, there.st_mtime_ns, stat.S_IMODE(there.st_mode) & 0o7707, there.st_uid, there.st_gid) == (
        made.size, made.mtime, made.mode & 0o7707, made.uid, made.gid)


def _remove(made: Made, name: str, directory: int) -> str:
    """Removes what was made; returns why it was not, "" if it is gone."""
    there = _about(name, directory)
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
    if not _is_same(made, there, target):
        return "was changed here"
    os.unlink(name, dir_fd=directory)
    return ""


def remove_unpacked(restore: Restore, entry: Entry) -> Left | None:
    """Takes back what `unpack` made of an object, but for what was changed or added here since."""
    journal = restore.journal
    before = dict(entry.facts.get("before") or {})  # type: ignore[call-overload]
    notes = _Notes()
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
    """Removes what was made in one of several ways; returns why it was not, "" if it is gone."""
    with _directory_of(path) as directory:
        if directory is None:
            return ""
        name = os.path.basename(path)
        with contextlib.suppress(FileNotFoundError, IsADirectoryError):
            os.unlink(_TEMPORARY, dir_fd=directory)
        there = _about(name, directory)
        if there is not None and may_be_half and _is_half(there):
            os.unlink(name, dir_fd=directory)
        why = ""
        for made in ways:
            why = _remove(made, name, directory)
            if not why:
                break
        return why


def _is_half(there: os.stat_result) -> bool:
    """Whether it looks as files and links do while they are made."""
    if stat.S_ISLNK(there.st_mode):
        return there.st_uid == 0
    # An access control list changes the bits of the group.
    return stat.S_ISREG(there.st_mode) and stat.S_IMODE(there.st_mode) & ~0o070 == _HALF_MODE


def _restore_roots(before: dict[str, object]) -> None:
    """Directories above that were made go if they are empty; roots that were there get back what they had."""
    for path, was in sorted(before.items(), reverse=True):
        with _directory_of(path) as directory:
            if directory is None:
                continue
            name = os.path.basename(path)
            if was is None:
                with contextlib.suppress(OSError):
                    os.rmdir(name, dir_fd=directory)
                continue
            assert isinstance(was, list)
            with contextlib.suppress(FileNotFoundError, NotADirectoryError):
                descriptor = os.open(name, _DIRECTORY, dir_fd=directory)
                try:
                    os.fchown(descriptor, was[1], was[2])
                    os.fchmod(descriptor, stat.S_IMODE(was[0]))
                    os.utime(descriptor, ns=(was[3], was[3]))
                finally:
                    os.close(descriptor)


def verify_unpacked(
        restore: Restore, identifier: str, archives: Iterable[Archive], roots: Iterable[str], *,
        takes: WhyNot | None = None) -> Iterator[Finding]:
    """Holds each file and link below the roots against the archives, byte for byte; directories must be there.

    What `takes` has a reason against is left out.
    """
    wanted = [components(root) for root in set(roots)]
    differs = _Notes()
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
    with _directory_of(member.path) as directory:
        name = os.path.basename(member.path)
        there = _about(name, directory) if directory is not None else None
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

"""Applications from Debian packages: the files of administrators and visitors below /etc and /var/lib.

The package itself comes from this host's distribution. Files go only to directories that belong to this package
alone, by the records of dpkg here.
"""
from __future__ import annotations

import base64
import dataclasses
import grp
import hashlib
import json
import os
import stat
from collections.abc import Iterator

from sondrel_restore.application_packages import ApplicationPackage, ApplicationPackages
from sondrel_restore.archives import Archive, Contents, Member
from sondrel_restore.description import Element, is_below
from sondrel_restore.host import account_of
from sondrel_restore.hostfiles import (atomic_write, content_here, make_directories, missing_directories, remove_file,
                                       sum_of_bytes)
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, RestoreError, State
from sondrel_restore.owners import Owners
from sondrel_restore.packages import installed_packages
from sondrel_restore.restore import Restore
from sondrel_restore.unpacked import remove_unpacked, verify_unpacked
from sondrel_restore.unpacking import unpack
from sondrel_restore.versions import older

_WEB_ACCOUNT = "www-data"
# Files that are read as data or run as the web servers' account. Others may be read by servers, cron or shells.
_TAKEN = (".css", ".html", ".ini", ".js", ".json", ".php", ".txt", ".xml", ".yaml", ".yml")
_LARGEST_SETTING = 1 << 20
_STATE = "/var/lib/"
_SETTINGS = "/etc/"


@dataclasses.dataclass
class _Application:
    """A package that sites of the description use, with the archives of these sites."""

    package: str
    # The version on the source host.
    version: str = ""
    contents: dict[str, Element] = dataclasses.field(default_factory=dict)
    directories: list[str] = dataclasses.field(default_factory=list)
    domains: set[str] = dataclasses.field(default_factory=set)
    clients: set[str] = dataclasses.field(default_factory=set)

    def source(self, here: ApplicationPackage) -> str:
        """A text that changes when what the application is made from changes."""
        return " ".join([*sorted(content.get("md5sum") for content in self.contents.values()), *here.directories])


@dataclasses.dataclass(frozen=True)
class _Setting:
    """The content and attributes of a file below /etc."""

    content: bytes
    mode: int
    uid: int
    gid: int


class ApplicationKind(Kind):
    """The files of applications that were installed from packages."""

    name = "application"

    def __init__(self) -> None:
        # Installed packages with their versions, as of the last plan.
        self._installed: dict[str, str] = {}
        self._packages: ApplicationPackages

    def plan(self, restore: Restore) -> Iterator[Item]:
        applications = _applications(restore)
        self._installed = restore.answer(installed_packages) if applications else {}
        self._packages = ApplicationPackages(restore)
        for each in applications:
            here = self._packages.package(each.package)
            is_here = each.package in self._installed
            if not is_here and restore.decisions.skip(f"package:{each.package}"):
                continue
            if is_here and not here.directories and any(
                    other.contents.keys() & each.contents.keys() for other in applications if other is not each):
                # It is a part of the other package, which has the directories.
                continue
            state, says = (self._state(restore, each, here) if is_here else
                           (State.NEEDS_PACKAGE, f"its settings and files go in place when {each.package} is here"))
            identifier = f"{self.name}:{each.package}"
            decisions = (f"--replace={identifier}", f"--skip={identifier}") if state is State.CONFLICT else ()
            item = Item(self.name, each.package, state, says, decisions, frozenset(each.domains),
                        frozenset(each.clients), each, each.package)
            if state is not State.LISTED and restore.selection.takes(item) and not restore.decisions.skip(identifier):
                for directory in here.directories if is_here else each.directories:
                    if directory.startswith(_STATE):
                        restore.offer("tree", directory, _WEB_ACCOUNT)
            yield item

    def _state(self, restore: Restore, application: _Application, here: ApplicationPackage) -> tuple[State, str]:
        why = here.why_not()
        if why:
            return State.LISTED, (f"its files stay in {', '.join(application.contents)}: {why}. Take from there by "
                                  "hand what you need")
        says = f"its settings and files in {', '.join(here.directories)}"
        entry = restore.journal.entry(f"{self.name}:{application.package}")
        if entry is not None and entry.state == "done":
            if entry.facts.get("source") == application.source(here):
                return State.SAME, says
            return State.RENEW, says
        if entry is None:
            changed = _changed_here(restore, application, here)
            if changed:
                more = f" and {len(changed) - 3} more" if len(changed) > 3 else ""
                return State.CONFLICT, f"{', '.join(changed[:3])}{more} is not as the package has brought it"
        return State.MAKE, says

    def apply(self, restore: Restore, item: Item) -> Facts:
        application = item.data
        assert isinstance(application, _Application)
        here = self._packages.package(application.package)
        settings = self._take_settings(restore, item.identifier, application, here)
        roots = [path for path in here.directories if path.startswith(_STATE)]
        facts = dict(_facts(restore, item.identifier))
        if roots:
            facts = unpack(restore, item.identifier, _archives(restore, application), roots, _WEB_ACCOUNT,
                           takes=_why_not_in_state, overwrites=item.state is State.MAKE)
        version = self._installed.get(application.package, "")
        if older(application.version, version):
            restore.name(item.identifier, f"it is {version} here, newer than there ({application.version}): it may "
                         "have to update its database, as its pages or its README.Debian say, before it works")
        return {**facts, "source": application.source(here), "settings": settings}

    def _take_settings(self, restore: Restore, identifier: str, application: _Application,
                       here: ApplicationPackage) -> dict[str, str]:
        """Writes the files below /etc; returns their sums by path."""
        directories = [path for path in here.directories if path.startswith(_SETTINGS)]
        wanted, left_out = _settings(restore, application, directories)
        for path, why in left_out.items():
            restore.name(identifier, f"{path} is left out: {why}")
        made = _made_settings(restore.journal.entry(identifier))
        for path, setting in wanted.items():
            now = content_here(path)
            if path in made and now is not None and sum_of_bytes(now) not in (
                    made[path], sum_of_bytes(setting.content)):
                restore.name(identifier, f"{path} was changed here since; it stays as it is")
                continue
            _keep_before(restore, identifier, path, now)
            made[path] = sum_of_bytes(setting.content)
            restore.journal.note(identifier, {"settings": made})
            _write(path, setting)
        return made

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        application = item.data
        assert isinstance(application, _Application)
        here = self._packages.package(application.package)
        directories = [path for path in here.directories if path.startswith(_SETTINGS)]
        wanted, _ = _settings(restore, application, directories)
        differing = [path for path, setting in wanted.items() if content_here(path) != setting.content]
        yield Finding(item.identifier, "settings", not differing,
                      f"other content here: {', '.join(differing[:3])}" if differing else f"{len(wanted)} files")
        roots = [path for path in here.directories if path.startswith(_STATE)]
        if roots:
            yield from verify_unpacked(restore, item.identifier, _archives(restore, application), roots,
                                       takes=_why_not_in_state)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        before = _before(restore, entry.identifier)
        changed = []
        for path, known in _made_settings(entry).items():
            now = content_here(path)
            if now is not None and sum_of_bytes(now) != known:
                changed.append(path)
                continue
            was = before.get(path)
            if was is not None:
                _write(path, was)
            else:
                remove_file(path)
        left = remove_unpacked(restore, entry)
        if changed:
            return Left(entry.identifier, f"{', '.join(changed)} was changed here since")
        if left is None:
            remove_file(restore.journal.side_file(entry.identifier, "settings"))
        return left


def _applications(restore: Restore) -> list[_Application]:
    found: dict[str, _Application] = {}
    for domain in restore.description.domains():
        for package in domain.element.iterfind("site/package"):
            if package.get("manager") != "dpkg":
                continue
            each = found.setdefault(package.get("name"), _Application(
                package.get("name"), package.get("version", "")))
            each.contents.update((content.get("file"), content) for content in restore.description.contents(
                domain.element))
            each.directories += [element.text or "" for element in package.iterfind("directory")]
            each.domains.add(domain.name)
            each.clients |= {domain.client} - {""}
    return list(found.values())


def _archives(restore: Restore, application: _Application) -> list[Archive]:
    return [restore.archive(content) for content in application.contents.values()]


def _is_in(path: str, directories: list[str]) -> bool:
    """Whether the path is in one of the directories. False for an empty path: its name leads outside."""
    return bool(path) and any(is_below(path, directory) for directory in directories)


def _why_not_in_state(member: Member) -> str:
    """Leaves links out: the package's scripts change owners in its directories, and would follow them."""
    return "left out, since it is a link in the directory of a package" if member.kind in ("link", "hard link") else ""


def _settings(restore: Restore, application: _Application,
              directories: list[str]) -> tuple[dict[str, _Setting], dict[str, str]]:
    """The files below /etc to write, and for each other one the reason why it is left out."""
    wanted: dict[str, _Setting] = {}
    left_out: dict[str, str] = {}
    owners = Owners(restore, _WEB_ACCOUNT)
    for archive in _archives(restore, application):
        for member, contents in archive.members():
            if not member.path.startswith(_SETTINGS) or member.kind == "directory":
                continue
            if not _is_in(member.path, directories):
                continue
            why = _why_not_setting(restore, member)
            if why and (member.kind != "file" or not _is_same(member.path, contents)):
                left_out[member.path] = why
            elif not why:
                wanted[member.path] = _setting(owners, member, contents)
    return wanted, left_out


def _why_not_setting(restore: Restore, member: Member) -> str:
    directory, name = os.path.split(member.path)
    if os.path.realpath(directory) != directory:
        return f"{directory} leads through a symbolic link here"
    if member.kind != "file" or member.extents is not None:
        return f"it is a {member.kind}"
    if member.size > _LARGEST_SETTING:
        return f"it has more than {_LARGEST_SETTING} bytes"
    if name != "htaccess" and not name.endswith(_TAKEN) and not restore.decisions.trust_configuration:
        return "it may be read by programs of root: look at it, and put it in place by hand"
    return ""


def _setting(owners: Owners, member: Member, contents: Contents) -> _Setting:
    """The file belongs to root and web servers can read it; it stays the web account's if it was that there.

    The upgrade of a package may run settings in PHP with the rights of their owner or group.
    """
    web = account_of(_WEB_ACCOUNT)
    gid = web.pw_gid if web is not None else grp.getgrnam(_WEB_ACCOUNT).gr_gid
    uid = owners.user(member.user, member.uid)
    mode = stat.S_IMODE(member.mode) & 0o664
    return _Setting(contents.read(), mode | 0o040 if not mode & 0o004 else mode,
                    uid if web is not None and uid == web.pw_uid else 0, gid)


def _changed_here(restore: Restore, application: _Application, here: ApplicationPackage) -> list[str]:
    """The files that would be overwritten although they were changed here and differ from those in the archive."""
    changed = []
    for archive in _archives(restore, application):
        for member, contents in archive.members():
            if member.kind != "file" or not _is_in(member.path, here.directories):
                continue
            about = os.lstat(member.path) if os.path.lexists(member.path) else None
            if about is None or here.is_as_it_came(member.path):
                continue
            if not stat.S_ISREG(about.st_mode) or about.st_size != member.size or not _is_same(member.path, contents):
                changed.append(member.path)
    return sorted(changed)


def _is_same(path: str, contents: Contents) -> bool:
    theirs = hashlib.sha256()
    for chunk in contents.chunks():
        theirs.update(chunk)
    content = content_here(path)
    return content is not None and hashlib.sha256(content).digest() == theirs.digest()


def _write(path: str, setting: _Setting) -> None:
    for directory in missing_directories(os.path.dirname(path)):
        make_directories(directory, mode=0o755, uid=0, gid=0)
    atomic_write(path, setting.content, mode=setting.mode, uid=setting.uid, gid=setting.gid)


def _facts(restore: Restore, identifier: str) -> Facts:
    entry = restore.journal.entry(identifier)
    return entry.facts if entry is not None else {}


def _made_settings(entry: Entry | None) -> dict[str, str]:
    made = entry.facts.get("settings") if entry is not None else None
    return {str(path): str(known) for path, known in made.items()} if isinstance(made, dict) else {}


def _before(restore: Restore, identifier: str) -> dict[str, _Setting | None]:
    """The files below /etc as they were before the first apply; None for a file that did not exist."""
    kept = content_here(restore.journal.side_file(identifier, "settings"))
    if kept is None:
        return {}
    try:
        return {str(path): None if was is None else _Setting(base64.b64decode(was[0]), was[1], was[2], was[3])
                for path, was in json.loads(kept).items()}
    except (ValueError, TypeError, IndexError, AttributeError) as error:
        raise RestoreError(f"What {identifier} was before is damaged in the journal's directory") from error


def _keep_before(restore: Restore, identifier: str, path: str, now: bytes | None) -> None:
    """Saves the file for undo. It may have passwords, so it goes into a file for root only, not into the journal."""
    kept = _before(restore, identifier)
    if path in kept:
        return
    about = os.lstat(path) if now is not None else None
    kept[path] = None if now is None or about is None else _Setting(
        now, stat.S_IMODE(about.st_mode), about.st_uid, about.st_gid)
    document = {
        each: None if was is None else [base64.b64encode(was.content).decode("ascii"), was.mode, was.uid, was.gid]
        for each, was in kept.items()}
    atomic_write(restore.journal.side_file(identifier, "settings"), json.dumps(document).encode("ascii"), mode=0o600,
                 uid=os.geteuid(), gid=os.getegid())


KINDS = (ApplicationKind,)

"""Accounts of persons, made with a locked password. Those of the system and of services are only matched by name."""
from __future__ import annotations

import glob
import grp
import os
import pwd
import re
import stat
from collections.abc import Iterator

from sondrel_restore.accepted import is_vacant, why_not, why_not_owners
from sondrel_restore.description import Account as Described
from sondrel_restore.host import account_of, group_of
from sondrel_restore.hostfiles import make_directories, missing_directories, open_directory
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, RestoreError, State
from sondrel_restore.restore import Restore

_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_.-]{0,31}")
_FIRST, _LAST = 1000, 59999
_NO_LOGIN = "/usr/sbin/nologin"
_NO_HOME = "/nonexistent"
# These shells allow no login, so they need not be in /etc/shells.
_SHELLS_OF_NOBODY = ("/usr/sbin/nologin", "/sbin/nologin", "/bin/false", "/usr/bin/false")
# Web servers can enter a home; other accounts only reach files in it whose names they know.
_HOME_MODE = 0o711


class AccountKind(Kind):
    """Makes accounts with their homes, and puts them into their groups."""

    name = "account"

    def plan(self, restore: Restore) -> Iterator[Item]:
        domains = _domains_by_account(restore)
        clients = {client.name for client in restore.description.clients()}
        for account in restore.description.accounts.values():
            here = restore.decisions.account_here(account.name)
            if account.system or account.uid == 0:
                # The description may claim that a person's account is one of the system, to get it without a question.
                # So a person's account here is taken only if --map-account names it.
                known = account_of(here)
                if known and (not _FIRST <= known.pw_uid <= _LAST or account.name in restore.decisions.accounts):
                    restore.offer("account", account.name, here)
                continue
            state, says, decisions = _state(restore, account, here)
            item = Item(self.name, account.name, state, says, decisions, frozenset(domains.get(account.name, ())),
                        frozenset({account.name} & clients), (here, account))
            if state is not State.IMPOSSIBLE and restore.selection.takes(item) and not restore.decisions.skip(
                    item.identifier):
                restore.offer("account", account.name, here)
            yield item

    def apply(self, restore: Restore, item: Item) -> Facts:
        assert isinstance(item.data, tuple)
        here, account = item.data
        notes: list[str] = []
        if account_of(here) is None:
            restore.host.run(["useradd", *_options(restore, account, notes), here])
        made = account_of(here)
        if made is None:
            raise RestoreError(f"useradd has not made the account {here}")
        joined = _join_groups(restore, account, here)
        homes = _make_home(restore, item.identifier, made)
        for note in notes:
            restore.name(item.identifier, note)
        return {"name": here, "uid": made.pw_uid, "home": made.pw_dir, "groups": joined, "made": homes}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        assert isinstance(item.data, tuple)
        here = account_of(item.data[0])
        yield Finding(item.identifier, "account", here is not None, "" if here else "is not here")

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        name = str(entry.facts.get("name", restore.decisions.account_here(entry.name)))
        here = account_of(name)
        if here is None:
            return None
        if entry.state == "done" and here.pw_uid != entry.facts.get("uid"):
            return Left(entry.identifier, f"the account {name} has another number since")
        homes = entry.facts.get("made", [])
        assert isinstance(homes, list)
        for home in reversed(homes):
            if not _remove_empty(home):
                return Left(entry.identifier, f"its home {home} is not empty")
        # Without --remove: the home is removed above, and the mail may still be needed.
        restore.host.run(["userdel", name])
        return None


def _domains_by_account(restore: Restore) -> dict[str, set[str]]:
    """The domains that need files or programs of an account, by account. A domain needs its client's, too."""
    found: dict[str, set[str]] = {}
    for domain in restore.description.domains():
        names = {domain.client}
        names |= {element.get(attribute) for path, attribute in (
            ("site", "owner"), ("site/php", "user"), ("site/service", "account"), ("mailbox", "owner"))
            for element in domain.element.iterfind(path)}
        for name in names - {None, ""}:
            found.setdefault(name, set()).add(domain.name)
    return found


def _is_free(uid: int) -> bool:
    if not _FIRST <= uid <= _LAST:
        return False
    try:
        pwd.getpwuid(uid)
    except KeyError:
        return True
    return False


def _state(restore: Restore, account: Described, here: str) -> tuple[State, str, tuple[str, ...]]:
    identifier = f"account:{account.name}"
    entry = restore.journal.entry(identifier)
    present = account_of(here)
    is_mapped = account.name in restore.decisions.accounts
    if not _NAME.fullmatch(here):
        return State.IMPOSSIBLE, "this is no name for an account: choose one by --map-account=THERE:HERE", ()
    if present is None:
        return State.MAKE, _made_says(account, here), ()
    if entry is not None and entry.state == "begun":
        return State.MAKE, "was begun", ()
    if entry is not None and entry.facts.get("name") == here:
        if (present.pw_uid, present.pw_dir) == (entry.facts.get("uid"), entry.facts.get("home")):
            return State.SAME, f"here with the number {present.pw_uid}", ()
        return State.KEPT, f"has the number {present.pw_uid} and the home {present.pw_dir} since", ()
    if not _FIRST <= present.pw_uid <= _LAST:
        return State.IMPOSSIBLE, f"{here} is an account of the system here: choose one by --map-account=THERE:HERE", ()
    if is_mapped:
        return State.SAME, f"here with the number {present.pw_uid}", ()
    if (present.pw_uid, present.pw_dir) == (account.uid, account.home):
        has = _what_it_has(present)
        if not has:
            return State.SAME, f"here with the number {present.pw_uid}", ()
        return (State.CONFLICT, f"an account {here} with the same number and home is here, and {has}, which what is"
                " restored would have, too", (f"--map-account={account.name}:{here}",
                                              f"--map-account={account.name}:NEW-NAME", f"--skip={identifier}"))
    return (State.CONFLICT, f"an account {here} with the number {present.pw_uid} and the home {present.pw_dir} is here;"
            f" there it has {account.uid} and {account.home}",
            (f"--map-account={account.name}:{here}", f"--map-account={account.name}:NEW-NAME", f"--skip={identifier}"))


def _what_it_has(account: pwd.struct_passwd) -> str:
    """What programs that run as this existing account would gain, as a clause; "" if it has nothing yet."""
    groups = [group.gr_name for group in grp.getgrall()
              if account.pw_name in group.gr_mem and group.gr_gid != account.pw_gid]
    if groups:
        return f"is in the group {', '.join(sorted(groups))}"
    if any(_names(path, account.pw_name) for path in ("/etc/sudoers", *sorted(glob.glob("/etc/sudoers.d/*")))):
        return "is named by /etc/sudoers"
    try:
        return "" if is_vacant(account.pw_dir) else f"has files in {account.pw_dir}"
    except RestoreError as error:
        return str(error)


def _names(path: str, account: str) -> bool:
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            text = file.read()
    except FileNotFoundError:
        return False
    return re.search(rf"^[^#]*(?<![\w.-]){re.escape(account)}(?![\w.-])", text, re.MULTILINE) is not None


def _made_says(account: Described, here: str) -> str:
    renamed = f", called {here} here" if here != account.name else ""
    other = "" if _is_free(account.uid) else f"; it gets another number, since {account.uid} cannot be its here"
    return f"an account with the number {account.uid} and the home {account.home}{renamed}{other}; no password"


def _options(restore: Restore, account: Described, notes: list[str]) -> list[str]:
    number = ["--uid", str(account.uid)] if _is_free(account.uid) else []
    return [*number, *_own_group(restore, account, notes), "--no-create-home",
            "--home-dir", _home(account, notes), "--shell", _shell(account, notes)]


def _own_group(restore: Restore, account: Described, notes: list[str]) -> list[str]:
    here = group_of(str(restore.offered("group").get(account.group, "")))
    if here is not None and (_FIRST <= here.gr_gid <= _LAST or here.gr_name in ("users", "nogroup")):
        return ["--gid", here.gr_name]
    own = restore.decisions.account_here(account.name)
    if here is not None:
        notes.append(f"its group is {own}, since {account.group} is a group of the system here")
    return ["--gid", own] if group_of(own) else ["--user-group"]


def _home(account: Described, notes: list[str]) -> str:
    # useradd writes the home into a line of /etc/passwd, where ":" separates the fields.
    reason = "no home" if not account.home else why_not(account.home)
    if not reason and (":" in account.home or not account.home.isprintable()):
        reason = "its home has characters that cannot be in /etc/passwd"
    if not reason:
        reason = why_not_owners(account.home, [])
    if reason:
        notes.append(f"its home is {_NO_HOME}: {reason}")
        return _NO_HOME
    return account.home


def _shell(account: Described, notes: list[str]) -> str:
    if account.shell in _SHELLS_OF_NOBODY and os.path.exists(account.shell):
        return account.shell
    with open("/etc/shells", encoding="utf-8") as file:
        shells = {line.strip() for line in file if line.startswith("/")}
    if account.shell in shells and os.path.exists(account.shell):
        return account.shell
    notes.append(f"its shell is {_NO_LOGIN}, since /etc/shells here does not have {account.shell or 'the one there'}")
    return _NO_LOGIN


def _join_groups(restore: Restore, account: Described, here: str) -> list[str]:
    """Adds the account to groups of persons. Groups of the system would give rights that no administrator granted."""
    joined = []
    for group in restore.description.groups.values():
        if account.name not in group.members:
            continue
        there = group_of(str(restore.offered("group").get(group.name, "")))
        # Nor did the administrator grant it the rights of a group that was here before the restore.
        if there is None or not _FIRST <= there.gr_gid <= _LAST or not _is_of_restore(restore, group.name):
            restore.name(f"account:{account.name}", f"is not in the group {group.name} here: add it, if it is to be,"
                         f" by usermod --append --groups {group.name} {here}")
        elif here not in there.gr_mem:
            restore.host.run(["usermod", "--append", "--groups", there.gr_name, here])
            joined.append(there.gr_name)
    return joined


def _is_of_restore(restore: Restore, group: str) -> bool:
    return restore.journal.entry(f"group:{group}") is not None or group in restore.decisions.accounts


def _make_home(restore: Restore, identifier: str, account: pwd.struct_passwd) -> list[str]:
    """Makes the home; returns its new directories. They are noted before, because undo needs them after a kill, too."""
    if account.pw_dir == _NO_HOME or why_not(account.pw_dir):
        return []
    entry = restore.journal.entry(identifier)
    noted = entry.facts.get("made", []) if entry else []
    assert isinstance(noted, list)
    begun: list[str] = [*noted, *(path for path in missing_directories(account.pw_dir) if path not in noted)]
    restore.journal.note(identifier, {"made": begun})
    parent = os.path.dirname(account.pw_dir)
    if parent != "/":
        make_directories(parent, mode=0o755, uid=0, gid=0, begun=begun)
    make_directories(account.pw_dir, mode=_HOME_MODE, uid=account.pw_uid, gid=account.pw_gid, begun=begun[-1:])
    return begun


def _remove_empty(path: str) -> bool:
    try:
        with open_directory(os.path.dirname(path)) as directory:
            about = os.stat(os.path.basename(path), dir_fd=directory, follow_symlinks=False)
            if not stat.S_ISDIR(about.st_mode):
                return False
            os.rmdir(os.path.basename(path), dir_fd=directory)
    except FileNotFoundError:
        return True
    except OSError:
        return False
    return True


KINDS = (AccountKind,)

"""Mail: mailboxes from their archives, and mail domains with their aliases and users.

Postfix and Dovecot read our own tables beside theirs; a setting of theirs is changed only if it is at its default.
The entries of each domain are kept in a directory of root, so that several sessions can add domains and undo can
remove one.
"""
from __future__ import annotations

import dataclasses
import os
import pwd
import re
from collections.abc import Iterator

from sondrel_restore.accepted import why_not, why_not_owners
from sondrel_restore.description import Domain, Element, archive_sum_of, is_below, unpacked_of
from sondrel_restore.host import account_of
from sondrel_restore.hostfiles import components, open_directory
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing, RestoreError, State
from sondrel_restore.mail_service import MailService, Tables, sum_of
from sondrel_restore.mail_tables import (LARGEST_TABLE, PATH, Alias, User, hashes_in, objection_to_target,
                                         quota_of, split_address, targets_of)
from sondrel_restore.restore import Restore
from sondrel_restore.unpacked import remove_unpacked, verify_unpacked
from sondrel_restore.unpacking import unpack

# Directories of virtual mailboxes. All other mailboxes are in the home of their account.
BASES = ("/var/mail", "/var/vmail", "/var/spool/vmail", "/var/lib/vmail", "/srv/vmail", "/srv/mail", "/home/vmail")
SPOOLS = ("/var/mail", "/var/spool/mail")
# Where homes of persons may be. A home elsewhere in the description is ignored.
HOMES = ("/home", "/srv", "/var/www", "/var/vmail", "/opt")
FORMATS_WITH_INDEX = ("sdbox", "mdbox")


@dataclasses.dataclass(frozen=True)
class Box:
    """A mailbox, with the account here that owns it and the paths to unpack."""

    element: Element
    account: str
    roots: tuple[str, ...]


@dataclasses.dataclass(frozen=True)
class Here:
    """The facts of a restored mailbox that its domain needs."""

    path: str
    format: str
    account: str
    home: str
    quota: str


class Mailbox(Kind):
    """The mailboxes; each has its own archive."""

    name = "mailbox"

    def plan(self, restore: Restore) -> Iterator[Item]:
        seen: set[str] = set()
        for element in restore.description.tree.iter("mailbox"):
            name = str(element.get("address"))
            if name in seen:
                name = f"{name} in {element.get('path')}"
            seen.add(name)
            yield _mailbox_item(restore, name, element)

    def apply(self, restore: Restore, item: Item) -> Facts:
        box = item.data
        assert isinstance(box, Box)
        archives = [restore.archive(content) for content in restore.description.contents(box.element)]
        facts = unpack(restore, item.identifier, archives, box.roots, box.account)
        _give_parents(facts, box)
        facts["archives"] = [archive_sum_of(content) for content in restore.description.contents(box.element)]
        if box.element.get("format") in FORMATS_WITH_INDEX:
            restore.name(item.identifier, f"run: doveadm force-resync -u {box.element.get('address')} '*'")
        return facts

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        box = item.data
        if not isinstance(box, Box):
            return
        archives = [restore.archive(content) for content in restore.description.contents(box.element)]
        if box.element.get("format") == "maildir":
            path = str(box.element.get("path"))
            there = {name for archive in archives for name in archive.names() if _is_message(name, path)}
            yield _compared(item.identifier, path, there)
        else:
            yield from verify_unpacked(restore, item.identifier, archives, box.roots)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        return remove_unpacked(restore, entry)


def _mailbox_item(restore: Restore, name: str, element: Element) -> Item:
    domain, client = restore.description.domain_of(element), restore.description.client_of(element)
    state, says, box = _mailbox_state(restore, f"mailbox:{name}", element)
    if box is not None:
        restore.offer("mailbox", str(element.get("address")), Here(
            box.roots[0], str(element.get("format")), box.account,
            element.get("home", "") if element.get("home", "") in box.roots else box.roots[0],
            quota_of(element.get("quota", ""))))
    decisions = (f"--replace=mailbox:{name}", f"--skip=mailbox:{name}") if state is State.CONFLICT else ()
    return Item("mailbox", name, state, says, decisions, frozenset(filter(None, [domain])),
                frozenset(filter(None, [client])), box, space=(box.roots[0], sum(
                    unpacked_of(content) for content in restore.description.contents(element))) if box else None)


def _mailbox_state(restore: Restore, identifier: str, element: Element) -> tuple[State, str, Box | None]:
    path = str(element.get("path"))
    account = restore.offered("account").get(element.get("owner", ""))
    if account is None:
        return State.IMPOSSIBLE, (f"{path} belongs to {element.get('owner')}, who is not restored: if it is an account "
                                  "for mail only, make it by useradd --system, and run this again"), None
    there = account_of(str(account))
    if there is not None and there.pw_uid == 0:
        return State.IMPOSSIBLE, f"{path} belongs to root: copy the mail by IMAP", None
    contents = restore.description.contents(element)
    if not contents:
        return State.IMPOSSIBLE, f"{path} was not packed: dump it again", None
    if not _is_accepted(restore, path, str(account)):
        return State.IMPOSSIBLE, (f"{path} is neither in the home of {account} nor in a directory of mailboxes that is "
                                  "free for it: unpack it by hand"), None
    needs = [needed.text or "" for needed in element.iterfind("needs")]
    accepted = [needed for needed in needs if _is_accepted(restore, needed, str(account))]
    for needed in sorted(set(needs) - set(accepted)):
        restore.name(identifier, f"left out, since it lies in no home and in no directory of mailboxes: {needed}")
    box = Box(element, str(account), (path, *accepted))
    entry = restore.journal.entry(identifier)
    if entry is None and os.path.lexists(path):
        return State.CONFLICT, f"{path} is here already", box
    if entry is None:
        return State.MAKE, f"{path} is made, for {account}", box
    if entry.state == "done" and entry.facts.get("archives") == [archive_sum_of(content) for content in contents]:
        return State.SAME, f"{path} is here, as it was fetched", box
    return State.RENEW, f"{path} is renewed; what arrived here stays", box


def _is_accepted(restore: Restore, path: str, account: str) -> bool:
    """Whether mail of the account may be at this path here: in its home, or in a directory for mailboxes."""
    # An existing directory on the path may belong to another account, for mail of its own.
    if not PATH.match(path) or os.path.normpath(path) != path or why_not(path) or why_not_owners(path, [account]):
        return False
    spool, name = os.path.split(path)
    if spool in SPOOLS:
        # A spool file is named after its account. Another name may be that of a directory for domains.
        return name == account
    if any(is_below(path, home) and path != home for home in _homes(restore, account)):
        return True
    return any(is_below(path, base) and path != base and account_of(components(path[len(base):])[0]) is None
               for base in BASES)


def _homes(restore: Restore, account: str) -> Iterator[str]:
    for there, here in restore.offered("account").items():
        known = restore.description.accounts.get(there)
        if here != account or known is None or not known.home.startswith("/"):
            continue
        entry = account_of(account)
        home = entry.pw_dir if entry is not None else known.home
        if any(is_below(home, above) and home != above for above in HOMES):
            yield home


def _give_parents(facts: Facts, box: Box) -> None:
    """Gives new directories above a virtual mailbox to its account; else no mail could be delivered."""
    before = facts.get("before")
    assert isinstance(before, dict)
    owner = pwd.getpwnam(box.account)
    # Only once, so that an owner that was set here later stays.
    given = list(facts.get("given") or ())  # type: ignore[call-overload]
    for path, was in before.items():
        if was is not None or path in given or path in box.roots or not any(is_below(path, base) for base in BASES):
            continue
        if not any(is_below(place, path) for place in box.roots):
            continue
        with open_directory(path) as directory:
            os.fchown(directory, owner.pw_uid, owner.pw_gid)
            os.fchmod(directory, 0o750)
        given.append(path)
    facts["given"] = given


_FLAGS = re.compile(r":2,[^/]*\Z")


def _is_message(name: str, path: str) -> bool:
    return is_below(name, path) and os.path.basename(os.path.dirname(name)) in ("cur", "new")


def _compared(identifier: str, path: str, there: set[str]) -> Finding:
    """Compares the messages by name without flags: a changed flag renames a message, also from `new` to `cur`."""
    def plain(name: str) -> str:
        directory, message = os.path.split(name)
        return f"{os.path.dirname(directory)}/{_FLAGS.sub('', message)}"

    here = {plain(f"{directory}/{name}") for directory, _, names in os.walk(path) for name in names
            if _is_message(f"{directory}/{name}", path)}
    wanted = {plain(name) for name in there if not name.endswith("/")}
    missing = wanted - here
    says = f"{len(here)} here, {len(wanted)} fetched"
    if missing:
        says += f"; {len(missing)} are missing here"
    return Finding(identifier, "messages", not missing, says)


class MailDomain(Kind):
    """The domains with aliases or mailboxes, in our own tables that Postfix and Dovecot read."""

    name = "mail"

    def __init__(self) -> None:
        self._hashes: dict[str, str] | None = None

    def _passwords(self, restore: Restore) -> dict[str, str]:
        """The password hashes by address. The archive of the settings is read only once per run."""
        if self._hashes is None:
            addresses = {str(box.get("address")) for box in restore.description.tree.iter("mailbox")}
            self._hashes = _passwords(restore, addresses)
        return self._hashes

    def plan(self, restore: Restore) -> Iterator[Item]:
        service = MailService(restore)
        try:
            passwords = self._passwords(restore)
        except RestoreError:
            # Plan without them: apply reads them again, and fails if it needs them.
            passwords = {}
        for domain in restore.description.domains():
            if domain.element.find("alias") is None and domain.element.find("mailbox") is None:
                continue
            if any("@" in box.get("address") for box in domain.element.iterfind("mailbox")) or (
                    domain.element.find("alias") is not None):
                yield _domain_item(restore, service, domain, passwords)
        yield from _listed_maps(restore)

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted = [item for item in self.plan(restore)
                  if isinstance(item.data, Tables) and restore.selection.takes(item)
                  and not restore.decisions.skip(item.identifier)]
        if wanted and not restore.host.has_program("postconf"):
            yield Missing("postfix", f"{wanted[0].name} gets mail")
        elif wanted and not MailService(restore).is_set_up():
            yield Missing("", f"Postfix, which is for the mail of {wanted[0].name}, has no settings: make some by "
                          "dpkg-reconfigure postfix")
        if any(item.data.users for item in wanted if isinstance(item.data, Tables)) and not restore.host.has_program(
                "doveconf"):
            yield Missing("dovecot-imapd", f"{wanted[0].name} has mailboxes")

    def apply(self, restore: Restore, item: Item) -> Facts:
        tables = item.data
        assert isinstance(tables, Tables)
        users = [_with_numbers(user, restore) for user in tables.users]
        if users:
            self._passwords(restore)
        for user in users:
            if not user.password:
                restore.name(item.identifier, f"{user.address} has no hash that can be moved: set a new password, by "
                             f"doveadm pw, in {MailService.USERS}")
        for text in tables.refused:
            restore.name(item.identifier, text)
        MailService(restore).keep(item.name, dataclasses.replace(tables, users=tuple(users)))
        return {"sum": sum_of(tables)}

    def finish(self, restore: Restore, changed: list[Item]) -> None:
        MailService(restore).write()

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        tables = item.data
        if not isinstance(tables, Tables):
            return
        answers = MailService(restore).answers(tables)
        for what, is_same, says in answers:
            yield Finding(item.identifier, what, is_same, says)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:  # pylint: disable=useless-return
        MailService(restore).drop(entry.name)
        return None


def _domain_item(restore: Restore, service: MailService, domain: Domain, passwords: dict[str, str]) -> Item:
    identifier = f"mail:{domain.name}"
    tables = _tables(restore, service, domain, passwords)
    entry = restore.journal.entry(identifier)
    state, says = State.MAKE, f"mail for {domain.name}: {len(tables.aliases)} aliases, {len(tables.users)} mailboxes"
    decisions: tuple[str, ...] = ()
    taken = service.taken(domain.name)
    if not split_address(f"a@{domain.name}"):
        state, says = State.IMPOSSIBLE, f"{domain.name} is no domain that mail can have"
    elif entry is None and taken:
        state, says, decisions = State.CONFLICT, taken, (f"--replace={identifier}", f"--skip={identifier}")
    elif entry is not None and entry.state == "done" and service.has(domain.name):
        is_same = entry.facts.get("sum") == sum_of(tables)
        state, says = (State.SAME, f"mail for {domain.name} is here") if is_same else (
            State.RENEW, f"mail for {domain.name} is set anew")
    return Item("mail", domain.name, state, says, decisions, frozenset([domain.name]),
                frozenset(filter(None, [domain.client])), tables)


def _tables(restore: Restore, service: MailService, domain: Domain, passwords: dict[str, str]) -> Tables:
    """The entries of a domain that may be installed, and sentences about those that are refused."""
    refused: list[str] = []
    own = {domain.name.lower(), *(name.lower() for name in domain.names if not _is_mail_of_this_host(
        service, domain, name.lower()))}
    names = {str(here) for here in restore.offered("account").values() if _is_person(str(here))}
    aliases: list[Alias] = []
    for element in domain.element.iterfind("alias"):
        source, text = str(element.get("from")), element.text or ""
        targets = [str(restore.offered("account").get(target, target)) for target in targets_of(text)]
        against = _objection_to_source(source, own) or next(
            (f"{target} {why}" for target in targets for why in [objection_to_target(target, names)] if why), "")
        if against or not targets:
            refused.append(f"the alias {source} is left out: {against or 'it has no target'}; see whether it is wanted")
        else:
            aliases.append(Alias(source, tuple(targets)))
    users: list[User] = []
    for element in domain.element.iterfind("mailbox"):
        address = str(element.get("address"))
        here = restore.offered("mailbox").get(address)
        parts = split_address(address)
        if parts is None or parts[1] not in own or not isinstance(here, Here):
            refused.append(f"the mailbox {address} is in no table: it is not restored, or not of this domain")
            continue
        users.append(User(address, here.path, here.format, -1, -1, here.home, here.quota,
                          passwords.get(address, "")))
    return Tables(tuple(aliases), tuple(users), tuple(refused))


def _is_mail_of_this_host(service: MailService, domain: Domain, name: str) -> bool:
    """Whether this host already handles mail for an additional name of a domain, and the domain has addresses of it."""
    has_addresses = any(str(element.get(attribute)).lower().endswith("@" + name) for path, attribute in (
        ("alias", "from"), ("mailbox", "address")) for element in domain.element.iterfind(path))
    return has_addresses and bool(service.taken(name))


def _is_person(account: str) -> bool:
    entry = account_of(account)
    return entry is None and account != "root" or entry is not None and entry.pw_uid >= 1000


def _objection_to_source(source: str, own: set[str]) -> str:
    domain = source[1:].lower() if source.startswith("@") else (split_address(source) or ("", ""))[1]
    if not domain:
        return "it is no address of a domain"
    return "" if domain in own else "it is an address of another domain"


def _with_numbers(user: User, restore: Restore) -> User:
    here = restore.offered("mailbox").get(user.address)
    assert isinstance(here, Here)
    account = account_of(here.account)
    if account is None:
        raise RestoreError(f"There is no account {here.account} here, which {user.address} belongs to")
    return dataclasses.replace(user, uid=account.pw_uid, gid=account.pw_gid)


def _passwords(restore: Restore, addresses: set[str]) -> dict[str, str]:
    """The users' password hashes, from Dovecot's passwd-files in the archive of the settings."""
    server = restore.description.tree.find("server")
    found: dict[str, str] = {}
    if server is None or not addresses:
        return found
    files = [needed.text or "" for needed in server.iterfind("mail-server[@name='dovecot']/needs")]
    for content in restore.description.contents(server):
        for table in restore.archive(content).read_all(files, limit=LARGEST_TABLE).values():
            found.update({name: hashed for name, hashed in hashes_in(table) if hashed and name in addresses})
    return found


def _listed_maps(restore: Restore) -> Iterator[Item]:
    """Lists maps of the whole host, which also direct root's mail and mail to programs, for the administrator."""
    server = restore.description.tree.find("server")
    if server is None:
        return
    for element in server.iterfind("mail-map"):
        if element.get("kind") in ("virtual-alias", "virtual-mailbox", "virtual-mailbox-domain"):
            continue
        names = ", ".join(str(entry.get("from")) for entry in list(element.iterfind("entry"))[:3])
        yield Item("mail", f"{element.get('kind')}:{element.get('file')}", State.LISTED, (
            f"{element.get('file')} ({element.get('kind')}) is a map of the whole host and is not installed"
            f"{': it has ' + names if names else ''}; take from the archive of the settings what is wanted"))


KINDS = (Mailbox, MailDomain)

"""Jobs: crontabs of accounts, and services and timers that run as an account. They are installed switched off.

Jobs that run as root or as an account of the system are listed and never installed.
"""
from __future__ import annotations

import dataclasses
import os
import re
from collections.abc import Iterator
from pathlib import Path

from sondrel_restore.description import Client, Element
from sondrel_restore.host import Host, account_of
from sondrel_restore.hostfiles import atomic_write, content_here, read_file, remove_file, sum_of_bytes
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing, RestoreError, State
from sondrel_restore.restore import Restore
from sondrel_restore.unit_files import objection, with_account

SPOOLS = ("/var/spool/cron/crontabs/", "/var/spool/cron/")
UNIT_DIRECTORY = "/etc/systemd/system"
# Directories of systemd that may have a unit of the same name: one in /etc would override it.
UNIT_DIRECTORIES = (UNIT_DIRECTORY, "/run/systemd/system", "/run/systemd/generator", "/run/systemd/generator.late",
                    "/usr/local/lib/systemd/system", "/usr/lib/systemd/system", "/lib/systemd/system")
# Prefix of each line of a crontab that is switched off.
OFF = "#switched-off-by-sondrel-restore: "
LARGEST_TABLE = 256 << 10
# The comment lines that crontab(1) itself writes at the head of a table.
HEAD = re.compile(r"# (?:DO NOT EDIT|\(.* installed on |\(Cron version )")
COMMENT = re.compile(r"\s*(?:#.*)?")


@dataclasses.dataclass(frozen=True)
class Table:
    """The crontab of an account."""

    account: str
    path: str
    content: Element


@dataclasses.dataclass(frozen=True)
class Unit:
    """A systemd unit that runs as an account."""

    account: str
    name: str
    path: str
    content: Element
    is_enabled: bool


class Job(Kind):
    """The jobs of clients."""

    name = "job"

    def plan(self, restore: Restore) -> Iterator[Item]:
        for client in restore.description.clients():
            yield from _of_cron(restore, client)
            yield from _of_systemd(restore, client)
        for unit in restore.description.tree.iterfind("server/unit"):
            yield _listed(f"unit:{unit.get('file')}", frozenset(), (
                f"{unit.get('file')} runs as {unit.get('user')}, and jobs of the system are not installed: if no "
                "package here brings it, take it from the archive of the settings"))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        if restore.host.has_program("crontab"):
            return
        for item in self.plan(restore):
            if isinstance(item.data, Table) and restore.selection.takes(item):
                yield Missing("cron", f"{item.data.account} has a table of cron")
                return

    def apply(self, restore: Restore, item: Item) -> Facts:
        if isinstance(item.data, Table):
            return _apply_table(restore, item, item.data)
        assert isinstance(item.data, Unit)
        return _apply_unit(restore, item, item.data)

    def finish(self, restore: Restore, changed: list[Item]) -> None:
        if not Path("/run/systemd/system").is_dir():
            return
        restore.host.run(["systemctl", "daemon-reload"])
        for item in changed:
            if isinstance(item.data, Unit) and item.data.is_enabled and _is_on(restore, item.identifier):
                restore.host.run(["systemctl", "enable", "--now", item.data.name])

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        entry = restore.journal.entry(item.identifier)
        if entry is None or item.data is None:
            return
        here = _here(restore, item.data)
        is_same = _sum(here) == entry.facts.get("sum")
        says = "" if is_same else "it is not here" if here is None else "it was changed here since apply"
        yield Finding(item.identifier, "table" if isinstance(item.data, Table) else "unit", is_same, says)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        account, path = entry.facts.get("account"), entry.facts.get("path")
        if isinstance(account, str):
            return _undo_table(restore, entry, account)
        if isinstance(path, str):
            return _undo_unit(restore, entry, path)
        return None


def _sum(content: bytes | None) -> str:
    return "" if content is None else sum_of_bytes(content)


def _listed(name: str, clients: frozenset[str], says: str, *, state: State = State.LISTED) -> Item:
    return Item("job", name, state, says, clients=clients)


def _is_of_system(client: Client) -> bool:
    return client.element.get("system") != "no" or client.name == "root"


def _state_of_refused(client: Client) -> State:
    """LISTED for jobs of the system, which are never installed; IMPOSSIBLE for those of an account."""
    return State.LISTED if _is_of_system(client) else State.IMPOSSIBLE


def _content_of(client: Client) -> Element | None:
    return client.element.find("content[@kind='client']")


def _refused_account(restore: Restore, client: Client) -> str:
    """Says why no job may be installed for the client; empty if jobs may."""
    here = restore.offered("account").get(client.name)
    if here is None:
        return f"{client.name} is no account of this restore"
    account = account_of(str(here))
    if _is_of_system(client) or account is not None and account.pw_uid < 1000:
        return f"{client.name} is an account of the system, and its jobs are not installed"
    return ""


def _of_cron(restore: Restore, client: Client) -> Iterator[Item]:
    clients = frozenset([client.name])
    for path in sorted({str(job.get("file")) for job in client.element.iterfind("cron")}):
        name = f"cron:{client.name}"
        if path not in [spool + client.name for spool in SPOOLS]:
            yield _listed(f"cron:{client.name}:{path}", clients, (
                f"{path} has jobs that run as {client.name}, and tables of the system are not installed: if no "
                "package here brings it, take its lines from the archive of the client or the settings"))
            continue
        refused = _refused_account(restore, client)
        content = _content_of(client)
        if refused or content is None:
            yield _listed(name, clients, f"{refused or 'The table was not packed'}: {path} is for you to look at",
                          state=_state_of_refused(client))
            continue
        table = Table(str(restore.offered("account")[client.name]), path, content)
        yield _planned(restore, name, clients, table, f"the table of cron of {table.account}")


def _of_systemd(restore: Restore, client: Client) -> Iterator[Item]:
    clients = frozenset([client.name])
    for element in client.element.iterfind("unit"):
        path = str(element.get("file"))
        name = f"unit:{path}"
        content = _content_of(client)
        refused = _refused_account(restore, client)
        if path.startswith(f"{client.element.get('home')}/"):
            # A user's unit: it is restored with the home, and its owner may switch it on.
            continue
        if not refused and (content is None or element.get("drop-in") == "yes"
                            or path != f"{UNIT_DIRECTORY}/{element.get('name')}"):
            refused = "only whole services and timers of /etc/systemd/system are installed"
        if not refused:
            refused = _refused_unit(restore, client, element, content)
        if refused:
            yield _listed(name, clients, f"{path} is not installed, {refused}: look at it in the archive of the client",
                          state=_state_of_refused(client))
            continue
        unit = Unit(str(restore.offered("account")[client.name]), str(element.get("name")), path, content,
                    element.get("enabled") == "yes")
        yield _planned(restore, name, clients, unit, f"the unit {unit.name} of {unit.account}")


def _refused_unit(restore: Restore, client: Client, element: Element, content: Element) -> str:
    name = str(element.get("name"))
    try:
        text = restore.archive(content).read(str(element.get("file")))
    except RestoreError as error:
        return str(error)
    against = objection(name, text, client.name, str(client.element.get("group")))
    if against:
        return against
    if name.endswith(".timer"):
        return _refused_service(restore, client, name.removesuffix(".timer") + ".service", content)
    return ""


def _refused_service(restore: Restore, client: Client, service: str, content: Element) -> str:
    """Says why a timer may not start the service, such as one of this host that runs as root; empty if it may."""
    found = next((other for other in client.element.iterfind("unit")
                  if other.get("name") == service and other.get("drop-in") == "no"
                  and other.get("file") == f"{UNIT_DIRECTORY}/{service}"), None)
    if found is None:
        return f"{service}, which it starts, is none of the account's"
    entry = restore.journal.entry(f"job:unit:{UNIT_DIRECTORY}/{service}")
    if _is_of_this_host(service) and (entry is None or not entry.facts):
        return f"{service}, which it would start, is a unit of this host"
    against = _refused_unit(restore, client, found, content)
    return f"{service}, which it starts, is not installed: {against}" if against else ""


def _planned(restore: Restore, name: str, clients: frozenset[str], data: Table | Unit, what: str) -> Item:
    identifier = f"job:{name}"
    try:
        state, says = _state(restore, identifier, data, what)
    except RestoreError as error:
        state, says = State.IMPOSSIBLE, str(error)
    decisions = (f"--replace={identifier}", f"--skip={identifier}") if state is State.CONFLICT else ()
    return Item("job", name, state, says, decisions, clients=clients, data=data)


def _state(restore: Restore, identifier: str, data: Table | Unit, what: str) -> tuple[State, str]:
    is_on = _is_on(restore, identifier)
    how = "switched on" if is_on else "switched off"
    entry = restore.journal.entry(identifier)
    here = _here(restore, data)
    if entry is None or not entry.facts:
        if here is None:
            if isinstance(data, Unit) and _is_of_this_host(data.name):
                return State.IMPOSSIBLE, f"This host has a unit {data.name} already, which would no longer hold"
            return State.MAKE, f"{what} is installed, {how}"
        return State.CONFLICT, f"{what} is here already"
    if entry.state == "begun" and _sum(here) in (entry.facts.get("sum"), entry.facts.get("was")):
        return State.RENEW, f"{what} is installed, {how}"
    if _sum(here) != entry.facts.get("sum"):
        return State.KEPT, f"{what} was changed or removed here since it was installed, and stays as it is"
    if _sum(_wanted(restore, data, is_on)) == entry.facts.get("sum") and is_on == entry.facts.get("on"):
        return State.SAME, f"{what} is here, as it was installed"
    return State.RENEW, f"{what} is installed anew, {how}"


def _is_of_this_host(name: str) -> bool:
    return any(os.path.lexists(f"{directory}/{name}") or os.path.lexists(f"{directory}/{name}.d")
               for directory in UNIT_DIRECTORIES)


def _here(restore: Restore, data: object) -> bytes | None:
    if isinstance(data, Table):
        return _table_here(restore, data.account)
    assert isinstance(data, Unit)
    return content_here(data.path)


def _table_here(restore: Restore, account: str) -> bytes | None:
    if account_of(account) is None or not restore.host.has_program("crontab"):
        return None
    found = restore.host.run(["crontab", "-u", account, "-l"], check=False)
    if found.status != 0:
        if "no crontab for" in found.stderr:
            return None
        raise RestoreError(f"The table of cron of {account} cannot be read: {found.stderr.strip()}")
    return found.stdout.encode("utf-8", "surrogateescape")


def _is_on(restore: Restore, identifier: str) -> bool:
    """Whether the job is switched on by this run or was by an earlier one, which this one does not reverse."""
    entry = restore.journal.entry(identifier)
    return restore.decisions.start_jobs or entry is not None and entry.facts.get("on") is True


def _wanted(restore: Restore, data: Table | Unit, is_on: bool) -> bytes:
    archive = restore.archive(data.content)
    if isinstance(data, Unit):
        account = account_of(data.account)
        if account is None:
            raise RestoreError(f"There is no account {data.account} here: {data.path} cannot run as it")
        return with_account(archive.read(data.path), data.account, restore.answer(_group_of, data.account))
    return switched(archive.read(data.path, limit=LARGEST_TABLE), is_on)


def _group_of(host: Host, account: str) -> str:
    """The name of the account's own group here."""
    return host.run(["id", "-gn", account]).stdout.strip()


def switched(table: bytes, is_on: bool) -> bytes:
    """The crontab without crontab's own head. If `is_on` is false, each line that is no comment is switched off."""
    if b"\0" in table:
        raise RestoreError("The table of cron holds bytes that no table has")
    lines = table.decode("utf-8", "surrogateescape").split("\n")
    lines = [line for number, line in enumerate(lines) if number > 2 or not HEAD.match(line)]
    while lines and not lines[-1]:
        lines.pop()
    if not is_on:
        # The table is split at newlines only: for cron a carriage return ends neither a line nor a comment.
        lines = [line if COMMENT.fullmatch(line) else OFF + line for line in lines]
    return "".join(line + "\n" for line in lines).encode("utf-8", "surrogateescape")


def _apply_table(restore: Restore, item: Item, table: Table) -> Facts:
    is_on = _is_on(restore, item.identifier)
    wanted = _wanted(restore, table, is_on)
    here = _table_here(restore, table.account)
    before = _keep_before(restore, item, here)
    # Noted before the change: after a kill in between, the next run recognizes its own table.
    restore.journal.note(item.identifier, {
        "account": table.account, "sum": _sum(wanted), "was": _sum(here), "before": before})
    restore.host.run(["crontab", "-u", table.account, "-"], input=wanted)
    if not is_on:
        restore.name(item.identifier, f"is switched off: switch it on by --start-jobs, or take \"{OFF.strip()}\" away")
    return {"account": table.account, "sum": _sum(_table_here(restore, table.account)), "before": before,
            "on": is_on}


def _keep_before(restore: Restore, item: Item, here: bytes | None) -> bool:
    """Saves for undo what was here before the first apply. Returns whether there was anything."""
    entry = restore.journal.entry(item.identifier)
    if entry is not None and "before" in entry.facts:
        return entry.facts["before"] is True
    if here is None:
        return False
    path = restore.journal.side_file(item.identifier, "before")
    atomic_write(path, here, mode=0o600, uid=os.geteuid(), gid=os.getegid())
    return True


def _apply_unit(restore: Restore, item: Item, unit: Unit) -> Facts:
    is_on = _is_on(restore, item.identifier)
    wanted = _wanted(restore, unit, is_on)
    here = content_here(unit.path)
    before = _keep_before(restore, item, here)
    facts: Facts = {"path": unit.path, "sum": _sum(wanted), "before": before}
    restore.journal.note(item.identifier, {**facts, "was": _sum(here)})
    facts["on"] = is_on
    atomic_write(unit.path, wanted, mode=0o644, uid=0, gid=0)
    if unit.is_enabled and not is_on:
        restore.name(item.identifier, f"is switched off: systemctl enable --now {unit.name}")
    return facts


def _undo_table(restore: Restore, entry: Entry, account: str) -> Left | None:
    here = _table_here(restore, account)
    if here is not None and _sum(here) != entry.facts.get("sum"):
        return Left(entry.identifier, f"the table of cron of {account} was changed here and stays")
    if entry.facts.get("before"):
        restore.host.run(["crontab", "-u", account, "-"], input=_before(restore, entry))
    elif here is not None:
        restore.host.run(["crontab", "-u", account, "-r"])
    return None


def _undo_unit(restore: Restore, entry: Entry, path: str) -> Left | None:
    here = content_here(path)
    if here is not None and _sum(here) != entry.facts.get("sum"):
        return Left(entry.identifier, f"{path} was changed here and stays")
    if entry.facts.get("before"):
        atomic_write(path, _before(restore, entry), mode=0o644, uid=0, gid=0)
        return None
    if here is not None and Path("/run/systemd/system").is_dir():
        restore.host.run(["systemctl", "disable", "--now", os.path.basename(path)], check=False)
    remove_file(path)
    return None


def _before(restore: Restore, entry: Entry) -> bytes:
    return read_file(restore.journal.side_file(entry.identifier, "before"))


KINDS = (Job,)

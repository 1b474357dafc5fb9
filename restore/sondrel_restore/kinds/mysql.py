"""Databases of MySQL and MariaDB: loaded by an account that has rights on the one database only."""
from __future__ import annotations

import re
from collections.abc import Iterator
from typing import ClassVar

from sondrel_restore.database_kind import (DatabaseKind, compared_rows, database_of, left_as_changed,
                                           left_out_statements, state_of_made)
from sondrel_restore.databases import LOADER, Database, databases, some
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Left, Missing, RestoreError, State
from sondrel_restore.mysql_accounts import KIND, accounts_of, foreign_accounts, remove_account
from sondrel_restore.mysql_dump import MySqlDump
from sondrel_restore.mysql_making import MySqlMaking, remove_loader
from sondrel_restore.mysql_server import SYSTEM_DATABASES, MySqlServer, connect, identifier
from sondrel_restore.restore import Restore
from sondrel_restore.versions import older

_LONGEST_NAME = 64

# What Debian serves such databases with.
_PACKAGE = "mariadb-server"


def _is_installed(restore: Restore) -> bool:
    return restore.host.has_program("mariadbd") or restore.host.has_program("mysqld")


class MySql(DatabaseKind):
    """Each database with its accounts and their rights."""

    name: ClassVar[str] = KIND
    data_directory: ClassVar[str] = "/var/lib/mysql"

    def __init__(self) -> None:
        self._server: MySqlServer | None = None

    def plan(self, restore: Restore) -> Iterator[Item]:
        wanted = databases(restore.description, self.name)
        if not wanted:
            return
        server: MySqlServer | None = None
        otherwise = State.NEEDS_PACKAGE, f"it is loaded when {_PACKAGE} is here"
        if _is_installed(restore):
            try:
                server = self._connected()
            except RestoreError as error:
                otherwise = State.IMPOSSIBLE, str(error)
        yield from self.items(wanted, lambda database: (
            otherwise if server is None else self._state(restore, server, database)))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        if self.selected(restore) and not _is_installed(restore):
            yield Missing(_PACKAGE, "databases of MySQL or MariaDB")

    def apply(self, restore: Restore, item: Item) -> Facts:
        return MySqlMaking(restore, item, self._connected()).apply()

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        database = database_of(item)
        server = self._connected()
        dump = _opened_counts(restore, database)
        if database.name not in server.databases():
            yield Finding(item.identifier, "database", False, "it is not here")
            return
        here = server.rows(database.name, set(server.tables(database.name)) & set(dump))
        yield from compared_rows(item.identifier, dump, here, str)
        wanted = {(user.name, user.host) for user in database.users}
        lacking = [f"{name}@{host}" for name, host in sorted(wanted - server.accounts())]
        if lacking:
            yield Finding(item.identifier, "accounts", False, f"missing here: {some(lacking)}")
        yield from left_out_statements(restore, item.identifier)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        server = self._connected()
        remove_loader(server, entry.facts)
        if entry.facts.get("made") and entry.name in server.databases():
            changed = left_as_changed(entry, server.fingerprint)
            if changed:
                return changed
            server.run(f"DROP DATABASE {identifier(entry.name)}")
        others = {account for other in restore.journal.entries(self.name) if other.identifier != entry.identifier
                  for account in accounts_of(other.facts)}
        kept = [f"{name}@{host}" for name, host in sorted(accounts_of(entry.facts) - others)
                if not remove_account(server, name, host, entry.name)]
        if kept:
            return Left(entry.identifier, f"these accounts have got other rights since: {some(kept)}")
        return None

    def _connected(self) -> MySqlServer:
        if self._server is None:
            self._server = connect()
        return self._server

    def _state(self, restore: Restore, server: MySqlServer, database: Database) -> tuple[State, str]:
        reason = _impossible(server, database)
        if reason:
            return State.IMPOSSIBLE, reason
        entry = restore.journal.entry(f"{self.name}:{database.name}")
        facts = entry.facts if entry else {}
        is_here = database.name in server.databases()
        if entry is not None and is_here and facts.get("made"):
            return state_of_made(restore, entry, database, server.fingerprint,
                                 "removed and loaded again, since what was fetched later differs")
        foreign = [f"{name}@{host}" for name, host in sorted(foreign_accounts(restore, server, database))]
        if is_here:
            return State.CONFLICT, "a database of this name is here, and not of this session; --replace removes it"
        if foreign:
            return State.CONFLICT, (f"these accounts are here, and not of this session: {some(foreign)}; with --replace"
                                    " they stay as they are and get their rights in this database")
        return State.MAKE, "; ".join(["loaded from the dump with its accounts", *_warnings(server, database)])


def _impossible(server: MySqlServer, database: Database) -> str:
    name = database.name
    if name.lower() in SYSTEM_DATABASES or not name or name.startswith(LOADER):
        return "the server keeps a database of this name for itself"
    if len(name) > _LONGEST_NAME or re.search(r"[\x00-\x1f\x7f/\\.]", name) or name.endswith(" "):
        return "its name cannot be given to a database here: load it by hand under another one"
    if len(database.contents) != 1:
        return "its dump was not fetched: dump and fetch it again"
    characters = database.text("encoding"), database.text("collation")
    if all(characters) and characters not in server.collations():
        return (f"the server here does not know its collation {characters[1]}: load it by hand with another one,"
                " or install the version of the source host")
    return ""


def _warnings(server: MySqlServer, database: Database) -> Iterator[str]:
    there = database.text("version")
    if there and ("mariadb" in there.lower()) != server.is_mariadb:
        yield f"the server there is {there}, here {server.version}: they do not know all of each other's SQL"
    elif there and older(server.version, there):
        yield f"the server here is {server.version}, older than there ({there})"


def _opened_counts(restore: Restore, database: Database) -> dict[str, int]:
    """By table: how many rows the dump has."""
    with restore.archive(database.contents[0]).stream() as file:
        dump = MySqlDump(file)
        dump.logins()
        for _ in dump.statements():
            pass
    return dump.rows


KINDS = (MySql,)

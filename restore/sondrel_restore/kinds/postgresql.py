"""Databases of PostgreSQL: loaded by a role that owns nothing else, beside the old one, and then put in its place."""
from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import ClassVar

from sondrel_restore.database_kind import (DatabaseKind, compared_rows, database_of, left_as_changed,
                                           left_out_statements, state_of_made)
from sondrel_restore.databases import Database, databases, some
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Left, Missing, RestoreError, State
from sondrel_restore.locales import remedy
from sondrel_restore.postgresql_dump import PostgreSqlDump
from sondrel_restore.postgresql_here import Here, lacking_extensions, lacking_locales, why_impossible
from sondrel_restore.postgresql_making import PostgreSqlMaking, clear_away
from sondrel_restore.postgresql_roles import KIND, own_roles, roles_of
from sondrel_restore.postgresql_server import PostgreSqlServer, identifier, is_allowed
from sondrel_restore.restore import Restore
from sondrel_restore.versions import older

# What Debian serves such databases with.
_PACKAGE = "postgresql"


def _is_installed() -> bool:
    return any(Path("/usr/lib/postgresql").glob("*/bin/postgres"))


class PostgreSql(DatabaseKind):
    """Each database with its roles and their rights."""

    name: ClassVar[str] = KIND
    data_directory: ClassVar[str] = "/var/lib/postgresql"

    def __init__(self) -> None:
        self._server: PostgreSqlServer | None = None
        self._here: Here | None = None

    def plan(self, restore: Restore) -> Iterator[Item]:
        wanted = databases(restore.description, self.name)
        if not wanted:
            return
        here: Here | None = None
        otherwise = State.NEEDS_PACKAGE, f"it is loaded when {_PACKAGE} is here"
        if _is_installed():
            try:
                here = Here(self._connected(restore), restore)
            except (RestoreError, KeyError) as error:
                otherwise = State.IMPOSSIBLE, str(error)
        self._here = here
        yield from self.items(wanted, lambda database: (
            otherwise if here is None else _state(restore, here, database)))
        if here is not None:
            here.server.leave()

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted = self.selected(restore)
        if not wanted:
            return
        if self._here is None:
            # One that is here and does not answer is what the plan says of its databases.
            if not _is_installed():
                yield Missing(_PACKAGE, "databases of PostgreSQL")
            return
        for database in wanted:
            for extension in lacking_extensions(self._here, database):
                yield Missing("", f"the extension {extension} of PostgreSQL {self._here.server.major},"
                              f" which the database {database.name} has: install the package that brings it")
            for locale in lacking_locales(self._here, database):
                yield Missing("", f"the locale {locale}, which the database {database.name} has: {remedy(locale)};"
                              " then restart PostgreSQL")

    def apply(self, restore: Restore, item: Item) -> Facts:
        with self._connected(restore) as server:
            return PostgreSqlMaking(restore, item, server).apply()

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        database = database_of(item)
        with self._connected(restore) as server:
            dump = _counts(restore, database)
            if database.name not in server.databases():
                yield Finding(item.identifier, "database", False, "it is not here")
                return
            here = server.rows(database.name, set(server.tables(database.name)) & set(dump))
            yield from compared_rows(item.identifier, dump, here, ".".join)
            lacking = sorted({user.name for user in database.users} - server.roles())
            if lacking:
                yield Finding(item.identifier, "roles", False, f"missing here: {some(lacking)}")
            yield from left_out_statements(restore, item.identifier)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        with self._connected(restore) as server:
            return self._taken_back(restore, entry, server)

    def _taken_back(self, restore: Restore, entry: Entry, server: PostgreSqlServer) -> Left | None:
        clear_away(server, entry.facts)
        if entry.facts.get("made") and entry.name in server.databases():
            changed = left_as_changed(entry, server.fingerprint)
            if changed:
                return changed
            server.drop_database(entry.name)
        others = {role for other in restore.journal.entries(self.name) if other.identifier != entry.identifier
                  for role in roles_of(other.facts)}
        kept = []
        for role in sorted(set(roles_of(entry.facts)) - others):
            if role in server.roles() and server.script(f"DROP ROLE {identifier(role)};", check=False)[1]:
                kept.append(role)
        if kept:
            return Left(entry.identifier, f"these roles have got something else here since: {some(kept)}")
        return None

    def _connected(self, restore: Restore) -> PostgreSqlServer:
        if self._server is None:
            self._server = PostgreSqlServer(restore.host)
        return self._server


def _counts(restore: Restore, database: Database) -> dict[tuple[str, str], int]:
    """By schema and table: how many rows the dump has."""
    with restore.archive(database.contents[0]).stream() as file:
        dump = PostgreSqlDump(file)
        dump.roles()
        for _ in dump.statements(frozenset()):
            pass
    return dump.rows


def _state(restore: Restore, here: Here, database: Database) -> tuple[State, str]:
    reason = why_impossible(here, database)
    if reason:
        return State.IMPOSSIBLE, reason
    entry = restore.journal.entry(f"{KIND}:{database.name}")
    facts = entry.facts if entry else {}
    if entry is not None and database.name in here.databases and facts.get("made"):
        return state_of_made(
            restore, entry, database, here.server.fingerprint,
            "loaded anew beside the old one, which it then replaces, since what was fetched later differs")
    if database.name in here.databases:
        return State.CONFLICT, "a database of this name is here, and not of this session; --replace removes it"
    foreign = sorted({user.name for user in database.users if is_allowed(user.name)} & here.roles
                     - set(own_roles(restore)))
    if foreign:
        return State.CONFLICT, (f"these roles are here, and not of this session: {some(foreign)}; with --replace they"
                                " stay as they are and get their rights in this database")
    there = database.text("version")
    warning = (f"; the server here is {here.server.version}, older than there ({there})"
               if there and older(here.server.version, there) else "")
    return State.MAKE, "loaded from the dump with its roles" + warning


KINDS = (PostgreSql,)

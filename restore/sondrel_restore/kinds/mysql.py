"""Databases of MySQL and MariaDB: loaded by an account that has rights on the one database only."""
from __future__ import annotations

import contextlib
import hashlib
import os
import re
import secrets
from collections.abc import Iterator
from typing import ClassVar

from sondrel_restore.database_kind import (DatabaseKind, compared_rows, database_of, left_as_changed,
                                           left_out_statements, state_of_made)
from sondrel_restore.databases import LOADER, Database, Grant, User, databases, some
from sondrel_restore.hostfiles import open_directory
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Left, Missing, RestoreError, State
from sondrel_restore.mysql_definers import settle_definers
from sondrel_restore.mysql_dump import Login, MySqlDump
from sondrel_restore.mysql_server import OF_SERVER, SYSTEM_DATABASES, MySqlServer, connect, identifier, pattern
from sondrel_restore.restore import Restore
from sondrel_restore.versions import older

_DATABASE_RIGHTS = frozenset((
    "SELECT", "INSERT", "UPDATE", "DELETE", "CREATE", "DROP", "REFERENCES", "INDEX", "ALTER", "CREATE TEMPORARY TABLES",
    "LOCK TABLES", "EXECUTE", "CREATE VIEW", "SHOW VIEW", "CREATE ROUTINE", "ALTER ROUTINE", "EVENT", "TRIGGER",
    "DELETE HISTORY", "SHOW CREATE ROUTINE"))
_RIGHTS = {
    "database": _DATABASE_RIGHTS,
    "table": frozenset(("SELECT", "INSERT", "UPDATE", "DELETE", "CREATE", "DROP", "REFERENCES", "INDEX", "ALTER",
                        "CREATE VIEW", "SHOW VIEW", "TRIGGER", "DELETE HISTORY")),
    "column": frozenset(("SELECT", "INSERT", "UPDATE", "REFERENCES")),
    "procedure": frozenset(("EXECUTE", "ALTER ROUTINE", "SHOW CREATE ROUTINE")),
    "function": frozenset(("EXECUTE", "ALTER ROUTINE", "SHOW CREATE ROUTINE")),
}
_LONGEST_NAME = 64
_LONGEST_HOST = 255
_HASHES = {
    "mysql_native_password": re.compile(r"(?:\*[0-9A-F]{40})?"),
    "ed25519": re.compile(r"[A-Za-z0-9+/]{43}"),
    "caching_sha2_password": re.compile(r"0x[0-9A-F]+"),
    # Without a text: whoever has the account of the same name here.
    "unix_socket": re.compile(r""),
    "auth_socket": re.compile(r""),
}

# What Debian serves such databases with.
_PACKAGE = "mariadb-server"


def _is_installed(restore: Restore) -> bool:
    return restore.host.has_program("mariadbd") or restore.host.has_program("mysqld")


class MySql(DatabaseKind):
    """Each database with its accounts and their rights."""

    name: ClassVar[str] = "mysql"
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
        return _Making(restore, item, self._connected()).apply()

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
        _remove_loader(server, entry.facts)
        if entry.facts.get("made") and entry.name in server.databases():
            changed = left_as_changed(entry, server.fingerprint)
            if changed:
                return changed
            server.run(f"DROP DATABASE {identifier(entry.name)}")
        others = {account for other in restore.journal.entries(self.name) if other.identifier != entry.identifier
                  for account in _accounts_of(other.facts)}
        kept = [f"{name}@{host}" for name, host in sorted(_accounts_of(entry.facts) - others)
                if not _removed(server, name, host, entry.name)]
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
        foreign = [f"{name}@{host}" for name, host in sorted(_foreign(restore, server, database))]
        if is_here:
            return State.CONFLICT, "a database of this name is here, and not of this session; --replace removes it"
        if foreign:
            return State.CONFLICT, (f"these accounts are here, and not of this session: {some(foreign)}; with --replace"
                                    " they stay as they are and get their rights in this database")
        return State.MAKE, "; ".join(["loaded from the dump with its accounts", *_warnings(server, database)])


def _accounts_of(facts: Facts) -> set[tuple[str, str]]:
    accounts = facts.get("accounts", {})
    assert isinstance(accounts, dict)
    return {tuple(key.split("\0", 1)) for key in accounts}  # type: ignore[misc]


def _own_accounts(restore: Restore) -> dict[tuple[str, str], str]:
    """What this session has made: the accounts with the sum of what they prove themselves by."""
    found: dict[tuple[str, str], str] = {}
    for entry in restore.journal.entries(MySql.name):
        accounts = entry.facts.get("accounts", {})
        assert isinstance(accounts, dict)
        for key, digest in accounts.items():
            name, host = key.split("\0", 1)
            found[name, host] = str(digest)
    return found


def _foreign(restore: Restore, server: MySqlServer, database: Database) -> set[tuple[str, str]]:
    wanted = {(user.name, user.host) for user in database.users if _is_allowed(user)}
    return (wanted & server.accounts()) - set(_own_accounts(restore))


def _is_allowed(user: User) -> bool:
    return (OF_SERVER.fullmatch(user.name) is None and len(user.name) <= 80 and len(user.host) <= _LONGEST_HOST
            and not re.search(r"[\x00-\x1f\x7f]", user.name + user.host) and (user.is_role or bool(user.host)))


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


def _remove_loader(server: MySqlServer, facts: Facts) -> None:
    loader = str(facts.get("loader", ""))
    if loader.startswith(LOADER):
        server.remove_loader(loader)


def _removed(server: MySqlServer, name: str, host: str, database: str) -> bool:
    """Removes an account, unless it has rights elsewhere."""
    if (name, host) not in server.accounts():
        return True
    if not host:
        server.run(f"DROP ROLE {identifier(name)}")
        return True
    grantee = f"'{name}'@'{host}'"
    elsewhere = server.ask("SELECT 1 FROM information_schema.schema_privileges WHERE grantee = %s AND table_schema"
                           " <> %s UNION SELECT 1 FROM information_schema.user_privileges WHERE grantee = %s AND"
                           " privilege_type <> 'USAGE'", (grantee, pattern(database)[1:-1], grantee))
    if elsewhere:
        return False
    server.run("DROP USER %s@%s", (name, host))
    return True


class _Making:
    """One apply of one database."""

    def __init__(self, restore: Restore, item: Item, server: MySqlServer) -> None:
        self._restore = restore
        self._item = item
        self._server = server
        self._database = database_of(item)
        entry = restore.journal.entry(item.identifier)
        self._facts: Facts = dict(entry.facts) if entry else {}
        self._left_out: list[str] = []

    def apply(self) -> Facts:
        """Makes it from nothing, also where an earlier apply had come to its end or been broken off."""
        server, name = self._server, self._database.name
        archive = self._restore.archive(self._database.contents[0])
        archive.check()
        _remove_loader(server, self._facts)
        loader = LOADER + secrets.token_hex(6)
        self._note({"loader": loader})
        with archive.stream() as file:
            dump = MySqlDump(file)
            logins = dump.logins()
            self._make_accounts(logins)
            self._make_database()
            try:
                login = server.make_loader(loader, name)
                self._left_out += server.load(self._restore.host, name, login, dump.statements())
                self._drop_tables_elsewhere(dump.rows)
                self._check_rows(dump.rows)
                for text in settle_definers(server, self._database, loader, self._own_users()):
                    self._name(text)
            finally:
                server.remove_loader(loader)
        self._give_rights()
        if self._left_out:
            self._name(f"{len(self._left_out)} statements of the dump failed and are left out: {some(self._left_out)}")
        return {**self._facts, "loader": "", "made": True, "sum": self._database.sum(),
                "left_out": self._left_out[:100], "fingerprint": server.fingerprint(name)}

    def _note(self, facts: Facts) -> None:
        self._facts.update(facts)
        self._restore.journal.note(self._item.identifier, facts)

    def _name(self, text: str) -> None:
        self._restore.name(self._item.identifier, text)

    def _make_database(self) -> None:
        # Removed and made again, and not filled beside the old one: no statement gives a database another name.
        name = identifier(self._database.name)
        characters, collation = self._database.text("encoding"), self._database.text("collation")
        self._server.run(f"DROP DATABASE IF EXISTS {name}")
        # Not before: what was here until now is not this session's.
        self._note({"made": True})
        self._server.run(f"CREATE DATABASE {name}" + (
            f" CHARACTER SET {characters} COLLATE {collation}"
            if re.fullmatch(r"\w+", characters) and re.fullmatch(r"\w+", collation) else ""))

    def _drop_tables_elsewhere(self, rows: dict[str, int]) -> None:
        """The server lets any account put tables into any directory that it may write into itself."""
        database = self._database.name
        for table, paths in self._server.directories(database).items():
            self._server.run(f"DROP TABLE {identifier(database)}.{identifier(table)}")
            rows.pop(table, None)
            self._left_out.append(f"the table {table}, which would lie in {some(paths)}")
            for path in paths if re.fullmatch(r"\w+", database) else ():
                with contextlib.suppress(OSError, RestoreError), open_directory(path) as directory:
                    # Only if nothing else is in it.
                    os.rmdir(database, dir_fd=directory)

    def _check_rows(self, rows: dict[str, int]) -> None:
        here = self._server.rows(self._database.name, set(self._server.tables(self._database.name)) & set(rows))
        wrong = [f"{table} has {here.get(table, 0)} rows and not {count}" for table, count in sorted(rows.items())
                 if here.get(table, 0) < count]
        if wrong:
            errors = f"; the server said: {some(self._left_out)}" if self._left_out else ""
            raise RestoreError(f"Not all of the dump could be loaded: {some(wrong)}{errors}")

    # Accounts

    def _own_users(self) -> list[User]:
        own = _own_accounts(self._restore)
        return [user for user in self._database.users if (user.name, user.host) in own]

    def _make_accounts(self, logins: dict[tuple[str, str], Login]) -> None:
        here = self._server.accounts()
        own = _own_accounts(self._restore)
        for user in self._database.users:
            key = (user.name, user.host)
            login = logins.get(key, Login(left_out="no statement for it"))
            if not _is_allowed(user):
                self._name(f"the account {user.name}@{user.host} is left out: its name is one of the server's own")
            elif key not in here:
                self._claim(user, login)
                self._make_account("CREATE", user, login)
            elif key not in own:
                self._name(f"the account {user.name}@{user.host} was here before: it keeps its password")
            else:
                is_same = own[key] == _digest(login)
                self._claim(user, login)
                if not is_same and not user.is_role:
                    self._make_account("ALTER", user, login)

    def _claim(self, user: User, login: Login) -> None:
        accounts = self._facts.get("accounts", {})
        assert isinstance(accounts, dict)
        self._note({"accounts": {**accounts, f"{user.name}\0{user.host}": _digest(login)}})

    def _make_account(self, verb: str, user: User, login: Login) -> None:
        if user.is_role:
            role = identifier(user.name) + (f"@{_text(user.host)}" if user.host else "")
            self._server.run(f"CREATE ROLE {role}")
            return
        methods = " OR ".join(_method(plugin, value, self._server.is_mariadb) for plugin, value in login.methods
                              if _is_hash(plugin, value))
        why = login.left_out
        if login.methods and not methods:
            why = "it proves who it is in a way that is not taken over"
        account = f"{_text(user.name)}@{_text(user.host)}"
        options = "".join(f" {option}" for option in sorted(login.options, key=_place))
        if not why:
            try:
                joint = "VIA" if self._server.is_mariadb else "WITH"
                self._server.run(f"{verb} USER {account}{f' IDENTIFIED {joint} {methods}' if methods else ''}{options}")
                if not methods:
                    self._name(f"the account {user.name}@{user.host} has no password, as it had none there")
                return
            except RestoreError as error:
                why = str(error)
        self._name(f"the account {user.name}@{user.host} is locked ({why}): give it a password and unlock it by"
                   f" ALTER USER ... IDENTIFIED BY ... ACCOUNT UNLOCK")
        self._server.run(f"{verb} USER {account} ACCOUNT LOCK")

    # Rights

    def _give_rights(self) -> None:
        users = {(user.name, user.host): user for user in self._database.users}
        own = {(user.name, user.host) for user in self._own_users()}
        for membership in self._database.memberships:
            pair = {(membership.role.name, membership.role.host), (membership.member.name, membership.member.host)}
            if pair <= own:
                self._try(f"GRANT {_account(membership.role)} TO {_account(membership.member)}"
                          + (" WITH ADMIN OPTION" if membership.is_grantable else ""))
                if membership.is_default:
                    joint = "FOR" if self._server.is_mariadb else "TO"
                    self._try(f"SET DEFAULT ROLE {_account(membership.role)} {joint} {_account(membership.member)}")
            else:
                self._name(f"{membership.member.name} is not put into the role {membership.role.name}:"
                           " not both are of this session")
        for grant in self._database.grants:
            user = users.get((grant.grantee, grant.host))
            if user is None or not _is_allowed(user):
                self._name(f"rights of {grant.grantee}@{grant.host} are left out: it is no account of this database")
                continue
            sql = self._grant(grant, user)
            if sql:
                self._try(sql)

    def _grant(self, grant: Grant, user: User) -> str:
        rights = [right for right in grant.rights if right in _RIGHTS.get(grant.scope, ())]
        other = [right for right in grant.rights if right not in rights]
        if other:
            self._name(f"rights of {grant.grantee}@{grant.host} that are not on one database are left out:"
                       f" {', '.join(other)}")
        if not rights:
            return ""
        database = identifier(self._database.name)
        columns = f" ({identifier(grant.column)})" if grant.scope == "column" else ""
        if grant.scope == "database":
            # The pattern there may have been for other databases, too.
            target = f"{pattern(self._database.name)}.*"
        else:
            kind = "" if grant.scope in ("table", "column") else grant.scope.upper() + " "
            target = f"{kind}{database}.{identifier(grant.object)}"
        given = ", ".join(right + columns for right in rights)
        return f"GRANT {given} ON {target} TO {_account(user)}" + (" WITH GRANT OPTION" if grant.is_grantable else "")

    def _try(self, sql: str) -> None:
        try:
            self._server.run(sql)
        except RestoreError as error:
            self._name(f"{sql}: {error}")


def _text(text: str) -> str:
    # No backslash means anything then, whatever the mode of the server.
    return "'" + text.replace("\\", "\\\\").replace("'", "''") + "'"


def _account(user: User) -> str:
    return _text(user.name) + (f"@{_text(user.host)}" if user.host else "")


def _is_hash(plugin: str, value: str) -> bool:
    return plugin in _HASHES and _HASHES[plugin].fullmatch(value) is not None


def _method(plugin: str, value: str, is_mariadb: bool) -> str:
    if not value:
        return plugin
    if value.startswith("0x"):
        return f"{plugin} AS {value}"
    return f"{plugin} {'USING' if is_mariadb else 'AS'} '{value}'"


def _place(option: str) -> int:
    return next((number for number, word in enumerate(("REQUIRE", "WITH", "PASSWORD")) if option.startswith(word)), 3)


def _digest(login: Login) -> str:
    return hashlib.sha256(repr(login).encode("utf-8", "surrogateescape")).hexdigest()


KINDS = (MySql,)

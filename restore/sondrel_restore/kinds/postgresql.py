"""Databases of PostgreSQL: loaded by a role that owns nothing else, beside the old one, and then put in its place."""
from __future__ import annotations

import hashlib
import re
import secrets
from collections.abc import Iterator
from pathlib import Path
from typing import ClassVar

from sondrel_restore.database_kind import (DatabaseKind, compared_rows, database_of, left_as_changed,
                                           left_out_statements, state_of_made)
from sondrel_restore.databases import LOADER, Database, Grant, User, databases, some
from sondrel_restore.host import Host
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Left, Missing, RestoreError, State
from sondrel_restore.locales import locales_here, plain, remedy
from sondrel_restore.postgresql_dump import PostgreSqlDump, Role
from sondrel_restore.postgresql_server import OF_SERVER, OWN, Counts, PostgreSqlServer, identifier, literal
from sondrel_restore.restore import Restore
from sondrel_restore.versions import older

_LONGEST_NAME = 63  # bytes
_OF_TABLE = frozenset(("SELECT", "INSERT", "UPDATE", "DELETE", "TRUNCATE", "REFERENCES", "TRIGGER", "MAINTAIN"))
_RIGHTS = {
    "database": frozenset(("CONNECT", "CREATE", "TEMPORARY")),
    "schema": frozenset(("USAGE", "CREATE")),
    "table": _OF_TABLE,
    "view": _OF_TABLE,
    "sequence": frozenset(("USAGE", "SELECT", "UPDATE")),
    "column": frozenset(("SELECT", "INSERT", "UPDATE", "REFERENCES")),
    "routine": frozenset(("EXECUTE",)),
    "type": frozenset(("USAGE",)),
    "large object": frozenset(("SELECT", "UPDATE")),
}
_HASH = re.compile(r"SCRAM-SHA-256\$[0-9]{1,9}:[A-Za-z0-9+/=]+\$[A-Za-z0-9+/=]+:[A-Za-z0-9+/=]+|md5[0-9a-f]{32}")
# Kind, name as the description has it, and SQL.
_OBJECTS = f"""
    SELECT 'schema' AS k, n.nspname::text AS n, 'SCHEMA ' || quote_ident(n.nspname) AS q FROM pg_namespace n WHERE {OWN}
    UNION ALL SELECT CASE c.relkind WHEN 'S' THEN 'sequence' WHEN 'v' THEN 'view' WHEN 'm' THEN 'view' ELSE 'table' END,
        n.nspname || '.' || c.relname,
        CASE c.relkind WHEN 'S' THEN 'SEQUENCE ' ELSE 'TABLE ' END || format('%I.%I', n.nspname, c.relname)
        FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace
        WHERE c.relkind IN ('r', 'p', 'v', 'm', 'f', 'S') AND {OWN}
    UNION ALL SELECT 'routine', n.nspname || '.' || p.proname || '('
        || pg_get_function_identity_arguments(p.oid) || ')',
        'ROUTINE ' || p.oid::regprocedure
        FROM pg_proc p JOIN pg_namespace n ON n.oid = p.pronamespace WHERE {OWN}
    UNION ALL SELECT 'type', n.nspname || '.' || t.typname, 'TYPE ' || format('%I.%I', n.nspname, t.typname)
        FROM pg_type t JOIN pg_namespace n ON n.oid = t.typnamespace WHERE {OWN}
    UNION ALL SELECT 'large object', oid::text, 'LARGE OBJECT ' || oid FROM pg_largeobject_metadata"""
_ENCODING = re.compile(r"[A-Za-z0-9_]+")
_LOCALE = re.compile(r"[A-Za-z0-9_.@=;-]*")

# What Debian serves such databases with.
_PACKAGE = "postgresql"


def _is_installed() -> bool:
    return any(Path("/usr/lib/postgresql").glob("*/bin/postgres"))


class PostgreSql(DatabaseKind):
    """Each database with its roles and their rights."""

    name: ClassVar[str] = "postgresql"
    data_directory: ClassVar[str] = "/var/lib/postgresql"

    def __init__(self) -> None:
        self._server: PostgreSqlServer | None = None
        self._about: _About | None = None

    def plan(self, restore: Restore) -> Iterator[Item]:
        wanted = databases(restore.description, self.name)
        if not wanted:
            return
        about: _About | None = None
        otherwise = State.NEEDS_PACKAGE, f"it is loaded when {_PACKAGE} is here"
        if _is_installed():
            try:
                about = _About(self._connected(restore), restore.host)
            except (RestoreError, KeyError) as error:
                otherwise = State.IMPOSSIBLE, str(error)
        self._about = about
        yield from self.items(wanted, lambda database: (
            otherwise if about is None else _state(restore, about, database)))
        if about is not None:
            about.server.leave()

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted = self.selected(restore)
        if not wanted:
            return
        if self._about is None:
            # One that is here and does not answer is what the plan says of its databases.
            if not _is_installed():
                yield Missing(_PACKAGE, "databases of PostgreSQL")
            return
        for database in wanted:
            for extension in _lacking_extensions(self._about, database):
                yield Missing("", f"the extension {extension} of PostgreSQL {self._about.server.major},"
                              f" which the database {database.name} has: install the package that brings it")
            for locale in _lacking_locales(self._about, database):
                yield Missing("", f"the locale {locale}, which the database {database.name} has: {remedy(locale)};"
                              " then restart PostgreSQL")

    def apply(self, restore: Restore, item: Item) -> Facts:
        with self._connected(restore) as server:
            return _Making(restore, item, _About(server, restore.host)).apply()

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
        _clear_away(server, entry.facts)
        if entry.facts.get("made") and entry.name in server.databases():
            changed = left_as_changed(entry, server.fingerprint)
            if changed:
                return changed
            server.drop_database(entry.name)
        others = {role for other in restore.journal.entries(self.name) if other.identifier != entry.identifier
                  for role in _roles_of(other.facts)}
        kept = []
        for role in sorted(set(_roles_of(entry.facts)) - others):
            if role in server.roles() and server.script(f"DROP ROLE {identifier(role)};", check=False)[1]:
                kept.append(role)
        if kept:
            return Left(entry.identifier, f"these roles have got something else here since: {some(kept)}")
        return None

    def _connected(self, restore: Restore) -> PostgreSqlServer:
        if self._server is None:
            self._server = PostgreSqlServer(restore.host)
        return self._server


class _About:
    """What the server here has, asked once."""

    def __init__(self, server: PostgreSqlServer, host: Host) -> None:
        self.server = server
        self.databases = server.databases()
        self.roles = server.roles()
        self.extensions = server.extensions()
        self.address = server.address()
        self.locales = locales_here(host)


def _roles_of(facts: Facts) -> dict[str, str]:
    roles = facts.get("roles", {})
    assert isinstance(roles, dict)
    return {str(name): str(digest) for name, digest in roles.items()}


def _own_roles(restore: Restore) -> dict[str, str]:
    """What this session has made: roles with the sum of what the dump said of them."""
    return {name: digest for entry in restore.journal.entries(PostgreSql.name)
            for name, digest in _roles_of(entry.facts).items()}


def _is_allowed(name: str) -> bool:
    return (OF_SERVER.fullmatch(name) is None and len(name.encode("utf-8", "surrogateescape")) <= _LONGEST_NAME
            and not re.search(r"[\x00-\x1f\x7f]", name))


def _clear_away(server: PostgreSqlServer, facts: Facts) -> None:
    """What an apply that was broken off has left."""
    loader = str(facts.get("loader", ""))
    if loader.startswith(LOADER):
        server.drop_database(loader)
        server.remove_loader(loader)


def _counts(restore: Restore, database: Database) -> dict[tuple[str, str], int]:
    """By schema and table: how many rows the dump has."""
    with restore.archive(database.contents[0]).stream() as file:
        dump = PostgreSqlDump(file)
        dump.roles()
        for _ in dump.statements(frozenset()):
            pass
    return dump.rows


def _lacking_extensions(about: _About, database: Database) -> list[str]:
    return sorted({each.get("name") for each in database.element.iterfind("extension")} - about.extensions)


def _lacking_locales(about: _About, database: Database) -> list[str]:
    if (database.text("provider") or "libc") != "libc":
        return []
    return sorted({locale for locale in (database.text("collation"), database.text("ctype"))
                   if plain(locale) not in about.locales})


def _impossible(about: _About, database: Database) -> str:
    server, provider = about.server, database.text("provider") or "libc"
    if OF_SERVER.fullmatch(database.name) or database.name in ("template0", "template1"):
        return "the server keeps a database of this name for itself: load it by hand under another one"
    if not _is_allowed(database.name):
        return "its name cannot be given to a database here: load it by hand under another one"
    if len(database.contents) != 1:
        return "its dump was not fetched: dump and fetch it again"
    if not about.address:
        return ("the server takes no connections at 127.0.0.1, by which the role that loads it logs in with its"
                " password: set listen_addresses = 'localhost', as Debian does")
    if provider == "builtin" and server.major < 17:
        return f"PostgreSQL {server.version} here does not know locales of its own: install version 17 or later"
    lacking = [f"the extension {name}" for name in _lacking_extensions(about, database)] + [
        f"the locale {name}" for name in _lacking_locales(about, database)]
    if lacking:
        return f"this host does not have {some(lacking)}"
    return ""


def _state(restore: Restore, about: _About, database: Database) -> tuple[State, str]:
    reason = _impossible(about, database)
    if reason:
        return State.IMPOSSIBLE, reason
    entry = restore.journal.entry(f"{PostgreSql.name}:{database.name}")
    facts = entry.facts if entry else {}
    if entry is not None and database.name in about.databases and facts.get("made"):
        return state_of_made(
            restore, entry, database, about.server.fingerprint,
            "loaded anew beside the old one, which it then replaces, since what was fetched later differs")
    if database.name in about.databases:
        return State.CONFLICT, "a database of this name is here, and not of this session; --replace removes it"
    foreign = sorted({user.name for user in database.users if _is_allowed(user.name)} & about.roles
                     - set(_own_roles(restore)))
    if foreign:
        return State.CONFLICT, (f"these roles are here, and not of this session: {some(foreign)}; with --replace they"
                                " stay as they are and get their rights in this database")
    there = database.text("version")
    warning = (f"; the server here is {about.server.version}, older than there ({there})"
               if there and older(about.server.version, there) else "")
    return State.MAKE, "loaded from the dump with its roles" + warning


def _check_rows(counts: Counts, dump: PostgreSqlDump, left_out: list[str]) -> None:
    """RestoreError if a table has fewer rows than the dump."""
    here = {(schema, table): count for schema, table, count, _ in counts}
    wrong = [f"{'.'.join(table)} has {here.get(table, 0)} rows and not {count}"
             for table, count in sorted(dump.rows.items()) if here.get(table, 0) < count]
    if wrong:
        errors = f"; the server said: {some(left_out)}" if left_out else ""
        raise RestoreError(f"Not all of the dump could be loaded: {some(wrong)}{errors}")


class _Making:
    """One apply of one database."""

    def __init__(self, restore: Restore, item: Item, about: _About) -> None:
        self._restore = restore
        self._item = item
        self._about = about
        self._server = about.server
        self._database = database_of(item)
        entry = restore.journal.entry(item.identifier)
        self._facts: Facts = dict(entry.facts) if entry else {}
        self._left_out: list[str] = []

    def apply(self) -> Facts:
        """Loads it into a database of its own, which takes the name when it is complete."""
        server, archive = self._server, self._restore.archive(self._database.contents[0])
        archive.check()
        _clear_away(server, self._facts)
        loader = LOADER + secrets.token_hex(6)
        self._note({"loader": loader})
        with archive.stream() as file:
            dump = PostgreSqlDump(file)
            self._make_roles(dump.roles())
            owner = self._owner()
            login = server.make_loader(loader)
            try:
                self._make_database(loader)
                schemas = self._make_extensions(loader)
                self._left_out += server.load(loader, loader, login, dump.statements(schemas))
                counts = server.counted(loader)
                _check_rows(counts, dump, self._left_out)
                self._hand_over(loader, owner, dump)
                self._give_rights(loader, dump)
                server.remove_loader(loader, loader)
                facts = {"sum": self._database.sum(), "left_out": self._left_out[:100],
                         "fingerprint": server.fingerprint_of(loader, counts)}
                self._put_in_place(loader)
            finally:
                _clear_away(server, {"loader": loader})
        if self._left_out:
            self._name(f"{len(self._left_out)} statements of the dump failed and are left out: {some(self._left_out)}")
        return {**self._facts, **facts, "loader": "", "made": True}

    def _note(self, facts: Facts) -> None:
        self._facts.update(facts)
        self._restore.journal.note(self._item.identifier, facts)

    def _name(self, text: str) -> None:
        self._restore.name(self._item.identifier, text)

    # Roles

    def _make_roles(self, roles: dict[str, Role]) -> None:
        own, here = _own_roles(self._restore), self._server.roles()
        settable = self._server.own_settings()
        for user in self._database.users:
            digest = hashlib.sha256(repr(roles.get(user.name)).encode("utf-8", "surrogateescape")).hexdigest()
            if not _is_allowed(user.name):
                if user.name != "postgres":
                    self._name(f"the role {user.name} is left out: its name is one of the server's own")
            elif user.name not in here:
                self._claim(user.name, digest)
                self._run_role("CREATE", user, roles.get(user.name), settable)
            elif user.name not in own:
                self._name(f"the role {user.name} was here before: it keeps its password and settings")
            elif own[user.name] != digest:
                self._claim(user.name, digest)
                self._run_role("ALTER", user, roles.get(user.name), settable)
            else:
                self._claim(user.name, digest)

    def _claim(self, name: str, digest: str) -> None:
        self._note({"roles": {**_roles_of(self._facts), name: digest}})

    def _run_role(self, verb: str, user: User, role: Role | None, settable: set[str]) -> None:
        words = [verb, "ROLE", identifier(user.name), "NOLOGIN" if user.is_role else "LOGIN"]
        if role is None:
            self._name(f"the dump has no statement for the role {user.name}: set its password")
        else:
            words += ["INHERIT" if role.inherits else "NOINHERIT", f"CONNECTION LIMIT {max(role.connections, -1)}"]
            if role.until:
                words.append(f"VALID UNTIL {literal(role.until)}")
            if _HASH.fullmatch(role.password):
                words.append(f"PASSWORD {literal(role.password)}")
            elif role.password:
                self._name(f"the password of the role {user.name} is left out, since it is no hash: set it")
        self._server.script(" ".join(words) + ";")
        for name, values in role.settings if role else ():
            self._set(f"ROLE {identifier(user.name)}", name, values, settable)

    def _set(self, whose: str, name: str, values: tuple[str, ...], settable: set[str]) -> None:
        setting = name.replace('"', "").lower()
        if setting not in settable:
            self._name(f"the setting {setting} is left out: a role may not set it itself")
            return
        self._try([f"ALTER {whose} SET {identifier(setting)} TO {', '.join(map(literal, values))};"], "postgres")

    def _owner(self) -> str:
        """Who the database belongs to: a role of this session, that of the source host if it is one."""
        wanted = self._database.text("owner")
        own = _own_roles(self._restore)
        if wanted in own and wanted in {user.name for user in self._database.users}:
            return wanted
        name = f"{self._database.name[:40]}_owner"
        if name not in self._server.roles():
            self._claim(name, "")
            self._server.script(f"CREATE ROLE {identifier(name)} NOLOGIN;")
        elif name not in own:
            raise RestoreError(f"The role {name}, which would own the database, is here already: rename it")
        self._name(f"it belonged to {wanted or 'nobody known'} there, and belongs to the role {name} here, as which"
                   " nobody logs in")
        return name

    # The database

    def _make_database(self, loader: str) -> None:
        text = self._database.text
        words = [f"CREATE DATABASE {identifier(loader)} OWNER {identifier(loader)} TEMPLATE template0"]
        for value, form in ((text("encoding"), _ENCODING), (text("collation"), _LOCALE), (text("ctype"), _LOCALE),
                            (text("locale"), _LOCALE)):
            if value and not form.fullmatch(value):
                raise RestoreError(f"{value} is no encoding or locale")
        if text("encoding"):
            words.append(f"ENCODING {literal(text('encoding'))}")
        if text("collation"):
            characters = text("ctype") or text("collation")
            words.append(f"LC_COLLATE {literal(text('collation'))} LC_CTYPE {literal(characters)}")
        if text("provider") in ("icu", "builtin"):
            kind = text("provider").upper()
            words.append(f"LOCALE_PROVIDER {text('provider')} {kind}_LOCALE {literal(text('locale'))}")
        # With few words before: nobody else may look at it while it is loaded.
        self._server.script(f"{' '.join(words)};")
        self._server.script(f"REVOKE ALL ON DATABASE {identifier(loader)} FROM PUBLIC;")

    def _make_extensions(self, loader: str) -> frozenset[str]:
        """Before anything else is in the database that could stand in for what they use."""
        schemas: set[str] = set()
        for element in self._database.element.iterfind("extension"):
            name, schema = element.get("name"), element.get("schema")
            if name == "plpgsql":
                continue
            statements = []
            if schema not in ("public", "pg_catalog") and not schema.startswith("pg_") and schema not in schemas:
                schemas.add(schema)
                statements.append(f"CREATE SCHEMA {identifier(schema)} AUTHORIZATION {identifier(loader)};")
            statements.append(f"CREATE EXTENSION {identifier(name)} SCHEMA {identifier(schema)};")
            errors = self._server.script("\n".join(statements), loader, check=False)[1]
            if errors and "must be installed in schema" in errors[-1]:
                errors = self._server.script(f"CREATE EXTENSION {identifier(name)};", loader, check=False)[1]
            if errors and "already exists" not in errors[-1]:
                raise RestoreError(f"The extension {name} cannot be made: {some(errors)}")
        return frozenset(schemas)

    def _hand_over(self, loader: str, owner: str, dump: PostgreSqlDump) -> None:
        own = set(_own_roles(self._restore))
        users = {user.name for user in self._database.users} & own
        self._server.script(f"REASSIGN OWNED BY {identifier(loader)} TO {identifier(owner)};", loader)
        others: dict[str, int] = {}
        statements = []
        for target, role in dump.owners:
            if role in (owner, "pg_database_owner"):
                continue
            if role in users:
                statements.append(f"ALTER {target} OWNER TO {identifier(role)};")
            else:
                others[role] = others.get(role, 0) + 1
        self._try(statements, loader)
        for role, count in others.items():
            self._name(f"{count} objects that belonged to {role} there belong to {owner} here")

    # Rights

    def _give_rights(self, loader: str, dump: PostgreSqlDump) -> None:
        own = set(_own_roles(self._restore))
        users = {user.name for user in self._database.users if _is_allowed(user.name)}
        statements = [] if dump.is_closed else [f"GRANT CONNECT, TEMPORARY ON DATABASE {identifier(loader)} TO PUBLIC;"]
        for membership in self._database.memberships:
            if {membership.role.name, membership.member.name} <= own:
                statements.append(f"GRANT {identifier(membership.role.name)} TO {identifier(membership.member.name)}"
                                  + (" WITH ADMIN OPTION;" if membership.is_grantable else ";"))
            else:
                self._name(f"{membership.member.name} is not put into the role {membership.role.name}:"
                           " not both are of this session")
        objects = self._objects(loader)
        for grant in self._database.grants:
            if grant.grantee != "PUBLIC" and grant.grantee not in users:
                self._name(f"rights of {grant.grantee} are left out: it is no role of this database")
                continue
            statements += self._grant(grant, objects)
        self._try(statements, loader)
        settable = self._server.own_settings()
        for role, name, values in dump.settings:
            if not role or role in own & users:
                whose = f"ROLE {identifier(role)} IN " if role else ""
                self._set(f"{whose}DATABASE {identifier(loader)}", name, values, settable)
        if dump.comment:
            self._try([f"COMMENT ON DATABASE {identifier(loader)} IS {literal(dump.comment)};"], loader)

    def _objects(self, loader: str) -> dict[tuple[str, str], str]:
        """What rights can be on, by kind and by the name that the description has, as SQL."""
        rows = self._server.ask(f"{_OBJECTS} UNION ALL SELECT 'database', {literal(self._database.name)}::text,"
                                " 'DATABASE ' || quote_ident(current_database())", loader)
        found = {(row["k"], row["n"]): row["q"] for row in rows}
        found.update({("column", name): sql for (kind, name), sql in found.items() if kind in ("table", "view")})
        return found

    def _grant(self, grant: Grant, objects: dict[tuple[str, str], str]) -> list[str]:
        rights = [right for right in grant.rights if right in _RIGHTS.get(grant.scope, ())]
        if "MAINTAIN" in rights and self._server.major < 17:
            rights.remove("MAINTAIN")
        target = objects.get((grant.scope, grant.object))
        left = [right for right in grant.rights if right not in rights]
        if target is None or left:
            self._name(f"rights of {grant.grantee} on the {grant.scope} {grant.object} are left out:"
                       f" {', '.join(left or grant.rights)}")
        if target is None or not rights:
            return []
        columns = f" ({identifier(grant.column)})" if grant.scope == "column" else ""
        grantee = "PUBLIC" if grant.grantee == "PUBLIC" else identifier(grant.grantee)
        given = ", ".join(right + columns for right in rights)
        return [f"GRANT {given} ON {target} TO {grantee}" + (" WITH GRANT OPTION;" if grant.is_grantable else ";")]

    def _try(self, statements: list[str], database: str) -> None:
        if statements:
            for error in self._server.script("\n".join(statements), database, check=False)[1]:
                self._name(error)

    def _put_in_place(self, loader: str) -> None:
        self._server.drop_database(self._database.name)
        # Not before: what was here until now is not this session's.
        self._note({"made": True})
        self._server.rename_database(loader, self._database.name)


KINDS = (PostgreSql,)

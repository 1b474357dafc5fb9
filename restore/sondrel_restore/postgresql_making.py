"""One apply of one database of PostgreSQL: loaded beside the old one, and then put in its place."""
from __future__ import annotations

import collections
import contextlib
import re
import secrets
from collections.abc import Iterator

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import LOADER, some
from sondrel_restore.kind import Facts, Item, RestoreError
from sondrel_restore.postgresql_dump import PostgreSqlDump
from sondrel_restore.postgresql_rights import Rights
from sondrel_restore.postgresql_roles import Roles, own_roles
from sondrel_restore.postgresql_server import Counts, PostgreSqlServer, identifier, literal
from sondrel_restore.postgresql_statements import Statements
from sondrel_restore.restore import Restore

_ENCODING = re.compile(r"[A-Za-z0-9_]+")
_LOCALE = re.compile(r"[A-Za-z0-9_.@=;-]*")


def clear_away(server: PostgreSqlServer, facts: Facts) -> None:
    """Removes what an apply that was broken off has left."""
    loader = str(facts.get("loader", ""))
    if loader.startswith(LOADER):
        server.drop_database(loader)
        server.remove_loader(loader)


def _known(copies: list[tuple[str, str]], copied: list[int]) -> dict[tuple[str, str], int]:
    """The numbers of rows of tables that one COPY has filled, from what the client said of all; empty if in doubt."""
    if len(copies) != len(copied):
        return {}
    times = collections.Counter(copies)
    return {table: count for table, count in zip(copies, copied) if times[table] == 1}


class PostgreSqlMaking:
    """Makes or renews one database with its roles and their rights."""

    def __init__(self, restore: Restore, item: Item, server: PostgreSqlServer) -> None:
        self._making = DatabaseMaking(restore, item)
        self._server = server
        self._statements = Statements(server, self._making)
        self._roles = Roles(server, self._making, self._statements)
        self._rights = Rights(server, self._making, self._statements)

    def apply(self) -> Facts:
        """Loads it into a database of its own, which takes the name when it is complete; returns the facts on it."""
        server, archive = self._server, self._making.restore.archive(self._making.database.contents[0])
        archive.check()
        clear_away(server, self._making.facts)
        loader = LOADER + secrets.token_hex(6)
        self._making.note({"loader": loader})
        with archive.stream() as file:
            dump = PostgreSqlDump(file)
            self._roles.make(dump.roles())
            owner = self._roles.owner()
            with self._cleared_on_failure(loader):
                counts = self._load(loader, server.make_loader(loader), dump)
                self._hand_over(loader, owner, dump)
                self._rights.give(loader, dump)
                server.remove_loader(loader, loader)
                facts = {"sum": self._making.database.sum(), "left_out": self._making.left_out[:100],
                         "fingerprint": server.fingerprint_of(loader, counts)}
                self._put_in_place(loader)
        self._making.name_left_out()
        return {**self._making.facts, **facts, "loader": "", "made": True}

    @contextlib.contextmanager
    def _cleared_on_failure(self, loader: str) -> Iterator[None]:
        """Removes what the block has loaded if it fails. A RestoreError also says if the server had no room."""
        try:
            yield
        except RestoreError as error:
            # Before anything is removed, which makes room.
            said = [str(error), *self._server.lack_of_room()]
            try:
                clear_away(self._server, {"loader": loader})
            except RestoreError as second:
                said.append(f"what was loaded is removed when it is applied again ({second})")
            raise RestoreError("; ".join(said)) from error
        except BaseException:
            clear_away(self._server, {"loader": loader})
            raise

    def _load(self, loader: str, login: bytes, dump: PostgreSqlDump) -> Counts:
        """Makes the database `loader`, fills it and counts its rows. RestoreError if it has less than the dump."""
        self._make_database(loader)
        schemas = self._make_extensions(loader)
        errors, copied = self._server.load(loader, loader, login, dump.statements(schemas))
        self._making.left_out += errors
        counts = self._server.counted(loader, _known(dump.copies, copied))
        self._making.check_rows(dump.rows, {(schema, table): count for schema, table, count, _ in counts}, ".".join)
        return counts

    def _make_database(self, loader: str) -> None:
        text = self._making.database.text
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
        for element in self._making.database.element.iterfind("extension"):
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
        own = set(own_roles(self._making.restore))
        users = {user.name for user in self._making.database.users} & own
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
        self._statements.attempt(statements, loader)
        for role, count in others.items():
            self._making.name(f"{count} objects that belonged to {role} there belong to {owner} here")

    def _put_in_place(self, loader: str) -> None:
        self._server.drop_database(self._making.database.name)
        # Not before: what was here until now is not this session's.
        self._making.note({"made": True})
        self._server.rename_database(loader, self._making.database.name)

"""Reads the agent's dumps of PostgreSQL: parses the roles strictly, and passes on the SQL of the database.

The reader is no security filter: all SQL that it passes on runs with the rights of the role that loads the dump.
"""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterator
from typing import IO

from sondrel_restore.databases import Lines
from sondrel_restore.kind import RestoreError

_LARGEST_HEAD = 16 << 20

_QUOTED = r'"(?:[^"]|"")*"'
_NAME = rf"(?:{_QUOTED}|[a-z_][a-z0-9_$]*)"
_TEXT = r"(?:'(?:[^']|'')*'|E'(?:[^'\\]|''|\\\\)*')"
_VALUES = rf"{_TEXT}(?:, {_TEXT})*"
_PARAMETER = rf"{_NAME}(?:\.{_NAME})*"
_SETTINGS = re.compile(rf" ALTER ROLE {_QUOTED} SET ({_PARAMETER}) TO ({_VALUES});", re.S)
_ROLE = re.compile(
    rf"DO \$(rolex*)\$BEGIN IF NOT EXISTS \(SELECT 1 FROM pg_catalog\.pg_roles WHERE rolname = {_TEXT}\) THEN"
    rf" CREATE ROLE ({_QUOTED})( LOGIN)?( NOINHERIT)? CONNECTION LIMIT (-?[0-9]{{1,9}})(?: VALID UNTIL ({_TEXT}))?"
    rf"(?: PASSWORD ({_TEXT}))?;((?: ALTER ROLE {_QUOTED} SET {_PARAMETER} TO {_VALUES};)*) END IF; END\$\1\$;\n", re.S)

_BEGINNING = b"-- PostgreSQL database dump\n"
_END = b"-- PostgreSQL database dump complete\n"
_ENTRY = re.compile(rb"-- (?:Data for )?Name: .*; Type: ([A-Z ]+); Schema: ")
_COPY = re.compile(rb'COPY ((?:"(?:[^"]|"")*"|[^\s".]+)\.(?:"(?:[^"]|"")*"|[^\s".(]+))(?: \(.*\))? FROM stdin;\n')
_DOLLARS = re.compile(rb"\$(?:[A-Za-z_\x80-\xff][A-Za-z0-9_\x80-\xff]*)?\$")
_TARGET = (rf"(?:(?:TABLE|VIEW|MATERIALIZED VIEW|FOREIGN TABLE|SEQUENCE|TYPE|DOMAIN|SCHEMA|COLLATION|CONVERSION"
           rf"|STATISTICS|TEXT SEARCH DICTIONARY|TEXT SEARCH CONFIGURATION) {_NAME}(?:\.{_NAME})?"
           rf"|(?:FUNCTION|PROCEDURE|AGGREGATE) {_NAME}\.{_NAME}\([A-Za-z0-9_ ,.\"\[\]]*\)"
           rf"|LARGE OBJECT [0-9]{{1,10}})")
_OWNER = re.compile(rf"ALTER ({_TARGET}) OWNER TO ({_NAME});\n")
_DATABASE_SETTING = re.compile(rf"ALTER (?:DATABASE {_NAME}|ROLE ({_NAME}) IN DATABASE {_NAME})"
                               rf" SET ({_PARAMETER}) TO ({_VALUES});\n")
_DATABASE_COMMENT = re.compile(rf"COMMENT ON DATABASE {_NAME} IS ({_TEXT});\n")
_CLOSED = re.compile(rb"REVOKE [A-Z,]+ ON DATABASE .* FROM PUBLIC;\n")


@dataclasses.dataclass(frozen=True)
class Role:
    """A role as the dump makes it. `password` is a hash or empty; `settings` are names with their values."""

    can_log_in: bool
    inherits: bool
    connections: int
    until: str
    password: str
    settings: tuple[tuple[str, tuple[str, ...]], ...]


class PostgreSqlDump:
    """Reads a dump once. First call `roles`, then read all `statements`; after that the attributes are complete."""

    def __init__(self, file: IO[bytes]) -> None:
        self._lines = Lines(file)
        self._entry = b""
        self._dollars = b""
        self._schemas: frozenset[str] = frozenset()
        # The number of rows in the dump, by schema and table.
        self.rows: dict[tuple[str, str], int] = {}
        # The tables in the order of their COPY statements.
        self.copies: list[tuple[str, str]] = []
        # (object as SQL that was checked, name of its owner)
        self.owners: list[tuple[str, str]] = []
        # Settings of the database: (role or "" for all roles, name, values).
        self.settings: list[tuple[str, str, tuple[str, ...]]] = []
        self.comment = ""
        # Whether CONNECT was revoked from PUBLIC.
        self.is_closed = False

    def roles(self) -> dict[str, Role]:
        """The roles by name. Statements that the agent does not write are ignored."""
        found: dict[str, Role] = {}
        size = 0
        while True:
            line = self._lines.line()
            size += len(line)
            if not line or line == _BEGINNING:
                return found
            if size > _LARGEST_HEAD:
                raise RestoreError("The dump does not begin as the agent writes it")
            match = _ROLE.fullmatch(line.decode("utf-8", "surrogateescape"))
            if match:
                _, name, login, no_inherit, connections, until, password, settings = match.groups()
                found[unquoted(name)] = Role(
                    bool(login), not no_inherit, int(connections), text_of(until or "''"), text_of(password or "''"),
                    tuple((one[1], _values(one[2])) for one in _SETTINGS.finditer(settings)))

    def statements(self, made_schemas: frozenset[str]) -> Iterator[bytes]:
        """The SQL of the database alone, in pieces, without what names the database, owners, rights and extensions.

        `made_schemas` are the schemas that exist already. RestoreError if the dump is truncated.
        """
        self._schemas = made_schemas
        while True:
            line = self._lines.line()
            if not line:
                raise RestoreError("The dump is not whole: it has no end. Dump and fetch it again")
            if line == _END and not self._dollars:
                return
            copy = _COPY.match(line) if not self._dollars and line.startswith(b"COPY ") else None
            if copy:
                yield from self._rows(copy, line)
            elif not self._is_taken_out(line):
                yield line

    def _rows(self, copy: re.Match[bytes], line: bytes) -> Iterator[bytes]:
        table = names(copy[1].decode("utf-8", "surrogateescape"))
        yield line[:-1]
        # If the table has no rows, this newline is also the first byte of the end mark.
        self._lines.step_back()
        ends = 0
        for piece in self._lines.until(b"\n\\.\n"):
            ends += piece.count(b"\n")
            yield piece
        self.rows[table] = self.rows.get(table, 0) + ends - 2
        self.copies.append(table)

    def _is_taken_out(self, line: bytes) -> bool:
        """Whether the line is not run. Records what it says if that is needed later."""
        if self._dollars:
            self._look_for_dollars(line)
            return False
        if line.startswith(b"-- "):
            entry = _ENTRY.match(line)
            if entry:
                self._entry = entry[1]
            return False
        if line.startswith(b"\\"):
            return True
        if b" OWNER TO " in line and self._takes_owner(line):
            return True
        if self._entry.startswith(b"DATABASE") or b" DATABASE " in line:
            if self._takes_database(line):
                return True
        if self._entry == b"EXTENSION" and line.startswith(b"CREATE EXTENSION "):
            return True
        if self._entry == b"COMMENT" and line.startswith(b"COMMENT ON EXTENSION "):
            return True
        if self._entry == b"SCHEMA" and line.startswith(b"CREATE SCHEMA "):
            return unquoted(line[14:-2].decode("utf-8", "surrogateescape")) in self._schemas
        if self._entry in (b"ACL", b"DEFAULT ACL") and line.startswith(b"GRANT "):
            return True
        self._look_for_dollars(line)
        return False

    def _takes_owner(self, line: bytes) -> bool:
        text = line.decode("utf-8", "surrogateescape")
        if re.fullmatch(rf"ALTER DATABASE {_NAME} OWNER TO {_NAME};\n", text):
            return True
        match = _OWNER.fullmatch(text)
        if match:
            self.owners.append((match[1], unquoted(match[2])))
        return bool(match)

    def _takes_database(self, line: bytes) -> bool:
        text = line.decode("utf-8", "surrogateescape")
        setting = _DATABASE_SETTING.fullmatch(text)
        if setting:
            self.settings.append((unquoted(setting[1] or ""), setting[2], _values(setting[3])))
            return True
        comment = _DATABASE_COMMENT.fullmatch(text)
        if comment:
            self.comment = text_of(comment[1])
            return True
        if _CLOSED.fullmatch(line):
            self.is_closed = True
            return True
        return self._entry == b"DATABASE" and text.startswith("CREATE DATABASE ")

    def _look_for_dollars(self, line: bytes) -> None:
        """Records whether a dollar-quoted text goes on in the next line."""
        for tag in _DOLLARS.findall(line):
            if not self._dollars:
                self._dollars = tag
            elif tag == self._dollars:
                self._dollars = b""


def _values(text: str) -> tuple[str, ...]:
    return tuple(text_of(value) for value in re.findall(_TEXT, text))


def text_of(literal: str) -> str:
    """The value of a quoted text of SQL."""
    if literal.startswith("E"):
        return literal[2:-1].replace("''", "'").replace("\\\\", "\\")
    return literal[1:-1].replace("''", "'")


def unquoted(name: str) -> str:
    """The name without its double quotes."""
    return name[1:-1].replace('""', '"') if name.startswith('"') else name


def names(qualified: str) -> tuple[str, str]:
    """Schema and name of a qualified name."""
    parts = re.findall(rf"{_QUOTED}|[^\".]+", qualified)
    return unquoted(parts[0]), unquoted(parts[-1])

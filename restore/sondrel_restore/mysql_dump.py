"""Reads the agent's dumps of MySQL and MariaDB: parses the accounts strictly, and passes on the SQL of the database.

The reader is no security filter: all SQL that it passes on runs with the rights of the account that loads the dump.
"""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterator
from typing import IO

from sondrel_restore.databases import Lines
from sondrel_restore.kind import RestoreError

_LARGEST_HEAD = 16 << 20

_NAME = r"`((?:[^`]|``)*)`"
_ACCOUNT = re.compile(rf"CREATE (USER|ROLE) IF NOT EXISTS {_NAME}(?:@{_NAME})?(.*);\n", re.S)
_METHOD = r"'?([a-z0-9_]+)'?(?: (?:AS|USING) (?:'([^'\\]*)'|0x([0-9A-Fa-f]*)))?"
_IDENTIFIED = re.compile(rf" IDENTIFIED (?:WITH|VIA) ({_METHOD}(?: OR {_METHOD})*)")
_OPTION = re.compile(
    r" (REQUIRE (?:NONE|SSL|X509)"
    r"|WITH(?: MAX_(?:QUERIES_PER_HOUR|UPDATES_PER_HOUR|CONNECTIONS_PER_HOUR|USER_CONNECTIONS) [0-9]{1,9})+"
    r"|PASSWORD EXPIRE(?: NEVER| DEFAULT| INTERVAL [0-9]{1,5} DAY)?"
    r"|ACCOUNT (?:LOCK|UNLOCK)"
    # MySQL writes these for each account.
    r"|PASSWORD HISTORY DEFAULT|PASSWORD REUSE INTERVAL DEFAULT|PASSWORD REQUIRE CURRENT DEFAULT)")
_OF_MYSQL = re.compile(r"PASSWORD (?:HISTORY|REUSE|REQUIRE)")

_BEGINNING = re.compile(rb"/\*M!999999|-- (?:MariaDB|MySQL) dump ")
_END = b"-- Dump completed"
_INSERT = re.compile(rb"INSERT INTO `((?:[^`]|``)*)`(?: \([^\n]*?\))? VALUES( |\n)")
_TABLE = re.compile(rb"CREATE TABLE `((?:[^`]|``)*)` \(")
_DROPPED = re.compile(rb"/\*M!999999|USE `(?:[^`]|``)*`;\n|CREATE DATABASE (?:/\*![0-9]+ IF NOT EXISTS\*/ )?`")
_DEFINER = rb"DEFINER=`(?:[^`]|``)*`(?:@`(?:[^`]|``)*`)? ?"
_DEFINED = re.compile(
    rb"(?:(/\*!50013 )" + _DEFINER + rb"|(/\*!50003 CREATE\*/ )/\*!50017 " + _DEFINER + rb"\*/ "
    rb"|(/\*!50106 CREATE\*/ )/\*!50117 " + _DEFINER + rb"\*/ |(CREATE )" + _DEFINER + rb")")
# A directory option of a table. A text is matched too, so that one that looks like an option is skipped.
_DIRECTORY = re.compile(rb"( (?:DATA|INDEX) DIRECTORY='(?:[^'\\]|\\.|'')*')|'(?:[^'\\]|\\.|'')*'", re.S)
_ROW = re.compile(rb"\((?:[^()']|'(?:[^'\\]|\\.|'')*')*\)", re.S)


@dataclasses.dataclass(frozen=True)
class Login:
    """How an account logs in: its plugins, each with a hash or "", and options as SQL.

    `left_out` is the rest of its statement that was not understood.
    """

    methods: tuple[tuple[str, str], ...] = ()
    options: tuple[str, ...] = ()
    left_out: str = ""


class MySqlDump:
    """Reads a dump once. First call `logins`, then read all `statements`; after that `rows` is complete."""

    def __init__(self, file: IO[bytes]) -> None:
        self._lines = Lines(file)
        self._first = b""
        self._delimiter_before = False
        self._is_routine = False
        # The number of rows in the dump, by table.
        self.rows: dict[str, int] = {}

    def logins(self) -> dict[tuple[str, str], Login]:
        """The accounts and roles by name and host. Statements that the agent does not write are ignored."""
        found: dict[tuple[str, str], Login] = {}
        size = 0
        while True:
            line = self._lines.line()
            size += len(line)
            if not line or _BEGINNING.match(line):
                self._first = line
                return found
            if size > _LARGEST_HEAD:
                raise RestoreError("The dump does not begin as the agent writes it")
            match = _ACCOUNT.fullmatch(line.decode("utf-8", "surrogateescape"))
            if match:
                _, name, host, rest = match.groups()
                found[unquoted(name), unquoted(host or "")] = _login(rest)

    def statements(self) -> Iterator[bytes]:
        """The SQL of the database alone, in pieces, without database names and definers.

        RestoreError if the dump is truncated.
        """
        line = self._first
        while line:
            if line.startswith(_END):
                return
            insert = None if self._is_routine else _INSERT.match(line)
            if insert:
                yield from self._rows(insert, line)
            else:
                piece = self._changed(line)
                if piece:
                    yield piece
            line = self._lines.line()
        raise RestoreError("The dump is not whole: it has no end. Dump and fetch it again")

    def _rows(self, insert: re.Match[bytes], line: bytes) -> Iterator[bytes]:
        table = unquoted(insert[1].decode("utf-8", "surrogateescape"))
        if insert[2] == b" ":
            # All rows in one line; with the history of a versioned table, one row in each.
            start = insert.end() - 1
            while line:
                pieces = [line]
                while not pieces[-1].endswith(b"\n") and (more := self._lines.line()):
                    pieces.append(more)
                values = b"".join(pieces)
                self.rows[table] = self.rows.get(table, 0) + len(_ROW.findall(values, start))
                yield from pieces
                if values.endswith(b";\n"):
                    return
                line, start = self._lines.line(), 0
            return
        yield line
        count, last = 0, b"\n"
        for piece in self._lines.until(b");\n"):
            count += piece.count(b"\n(") + (last == b"\n" and piece.startswith(b"("))
            last = piece[-1:]
            yield piece
        self.rows[table] = self.rows.get(table, 0) + count

    def _changed(self, line: bytes) -> bytes:
        """The line as it is to run; empty if it is left out."""
        is_first = self._delimiter_before
        self._delimiter_before = False
        if line.startswith(b"DELIMITER "):
            self._is_routine = self._delimiter_before = line == b"DELIMITER ;;\n"
            return line
        if self._is_routine:
            # Only the head of a routine is changed, not its body. An event has SET lines in front of its head.
            self._delimiter_before = is_first and line.startswith(b"/*!50003 SET ")
            return _without_definer(line) if is_first else line
        if _DROPPED.match(line):
            return b""
        table = _TABLE.match(line)
        if table:
            self.rows.setdefault(unquoted(table[1].decode("utf-8", "surrogateescape")), 0)
        if line.startswith(b") ENGINE="):
            return _DIRECTORY.sub(lambda match: b"" if match[1] else match[0], line)
        return _without_definer(line)


def _without_definer(line: bytes) -> bytes:
    match = _DEFINED.match(line)
    if not match:
        return line
    return b"".join(part for part in match.groups() if part) + line[match.end():]


def _login(rest: str) -> Login:
    methods: list[tuple[str, str]] = []
    identified = _IDENTIFIED.match(rest)
    if identified:
        for method in re.finditer(_METHOD, identified[1].replace(" OR ", "\n")):
            methods.append((method[1], method[2] if method[3] is None else "0x" + method[3].upper()))
        rest = rest[identified.end():]
    options: list[str] = []
    while option := _OPTION.match(rest):
        if not _OF_MYSQL.match(option[1]):
            options.append(option[1])
        rest = rest[option.end():]
    return Login(tuple((plugin, value or "") for plugin, value in methods), tuple(options), rest.strip())


def unquoted(name: str) -> str:
    """A name without its backticks."""
    return name.replace("``", "`")

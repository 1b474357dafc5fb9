"""The PostgreSQL server of this host, queried with psql as the account that runs it."""
from __future__ import annotations

import base64
import functools
import glob
import hashlib
import hmac
import json
import os
import pwd
import re
import secrets
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import Any

from sondrel_restore.databases import LOADER, run_sql, wait_until_gone
from sondrel_restore.host import Host
from sondrel_restore.kind import RestoreError
from sondrel_restore.postgresql_session import PsqlSession

_ACCOUNT = "postgres"
# By which the server knows the administrator's connections of this program.
_NAME = "sondrel-restore"
_DIRECTORY = "/run/postgresql"
_TIME_LIMIT = 24 * 3600.0
_ROUNDS = 4096
_TABLES_AT_ONCE = 200
# A file system with less room than so many files of the server's log is nearly full.
_LEAST_SEGMENTS = 4
# These override settings that the owner of a database may have made in it.
_OPTIONS = "-c search_path=pg_catalog -c standard_conforming_strings=on -c default_transaction_read_only=off" \
    " -c row_security=off -c lock_timeout=60s -c statement_timeout=0 -c client_min_messages=warning"

OF_SERVER = re.compile(r"(?:|pg_.*|public|none|postgres|current_user|current_role|session_user|" + LOADER + ".*)",
                       re.I | re.S)
_LONGEST_NAME = 63  # bytes
OWN = "n.nspname !~ '^pg_' AND n.nspname <> 'information_schema'"
# Excludes tables that an extension made.
_NO_EXTENSION = "NOT EXISTS (SELECT 1 FROM pg_depend d WHERE d.objid = c.oid AND d.deptype = 'e'" \
    " AND d.classid = 'pg_class'::regclass)"


_COPIED = re.compile(rb"COPY ([0-9]{1,18})\n")
# A hostile dump may print any number of such lines.
_MOST_COPIES = 100_000

# For each table: schema, name, number of rows, and a sum of the transactions that wrote them.
Counts = list[tuple[str, str, int, int]]


def identifier(name: str) -> str:
    """The name in double quotes."""
    return '"' + name.replace('"', '""') + '"'


def literal(text: str) -> str:
    """The text as a literal of SQL."""
    return "E'" + text.replace("\\", "\\\\").replace("'", "''") + "'"


def is_allowed(name: str) -> bool:
    """Whether a database or role of this name can be made here."""
    return (OF_SERVER.fullmatch(name) is None and len(name.encode("utf-8", "surrogateescape")) <= _LONGEST_NAME
            and not re.search(r"[\x00-\x1f\x7f]", name))


class PostgreSqlServer:
    """The server with port 5432, else that with the lowest port. RestoreError if none answers."""

    def __init__(self, host: Host) -> None:
        self._host = host
        self._sessions: dict[str, PsqlSession] = {}
        programs = sorted(glob.glob("/usr/lib/postgresql/*/bin/psql"), key=lambda path: float(path.split("/")[4]))
        if not programs:
            raise RestoreError("No PostgreSQL client is here")
        self._psql = programs[-1]
        ports = sorted((int(path.rsplit(".", 1)[1]) for path in glob.glob(f"{_DIRECTORY}/.s.PGSQL.*[0-9]")),
                       key=lambda port: (port != 5432, port))
        if not ports:
            raise RestoreError("No PostgreSQL server answers here: there is no socket of it. Start it, if it is "
                               "installed")
        self.port = ports[0]
        about = os.stat(_DIRECTORY)
        if about.st_uid not in (0, pwd.getpwnam(_ACCOUNT).pw_uid):
            raise RestoreError(f"{_DIRECTORY} is not of the account {_ACCOUNT}")
        about_it = self.ask("SELECT current_setting('server_version') AS version, current_setting('data_directory')"
                            " AS directory, pg_size_bytes(current_setting('wal_segment_size')) AS segment")[0]
        # Asked now: a server that has ended says nothing.
        self._data, self._least_room = str(about_it["directory"]), _LEAST_SEGMENTS * int(about_it["segment"])
        self.version = str(about_it["version"]).split()[0]
        self.major = int(self.version.split(".")[0])

    def __enter__(self) -> PostgreSqlServer:
        """As a context manager it closes all connections at the end."""
        return self

    def __exit__(self, *_: object) -> None:
        self.leave()

    def script(self, sql: str, database: str = "postgres", *, check: bool = True) -> tuple[str, list[str]]:
        """Runs our own SQL, which must end with a semicolon. Returns its output and its errors.

        With `check`, the first error stops the script and raises RestoreError.
        """
        result = self._session(database).run(sql, stops=check, time_limit=_TIME_LIMIT)
        errors = [re.sub(r"^psql:<stdin>:[0-9]+: ", "", line) for line in result.stderr.splitlines()
                  if re.search(r"(?:ERROR|FATAL): ", line)]
        if result.status and (check or not errors) or check and errors:
            raise RestoreError(f"The database server says: {'; '.join(errors) or result.stderr.strip()}")
        return result.stdout, errors

    def _session(self, database: str) -> PsqlSession:
        """Keeps at most one session besides that of "postgres": a database with connections cannot be renamed."""
        session = self._sessions.get(database)
        if session is not None and session.is_usable():
            return session
        for other in set(self._sessions) - ({"postgres"} - {database}):
            self._sessions.pop(other).close()
        self._sessions[database] = PsqlSession(
            self._host, [self._psql, "-X", "-q", "-A", "-t", "-h", _DIRECTORY, "-p", str(self.port), "-U", _ACCOUNT,
                         "-d", _connection(database), "-f", "-"], account=_ACCOUNT,
            env={"PGCLIENTENCODING": "UTF8", "PGOPTIONS": _OPTIONS, "PGCONNECT_TIMEOUT": "20",
                 "PGAPPNAME": _NAME})
        return self._sessions[database]

    def leave(self) -> None:
        """Closes all connections; the next script opens a new one."""
        while self._sessions:
            self._sessions.popitem()[1].close()

    def _leave_database(self, name: str) -> None:
        """Closes the connection to that database, if there is one."""
        session = self._sessions.pop(name, None)
        if session is not None:
            session.close()

    def ask(self, query: str, database: str = "postgres") -> list[dict[str, Any]]:
        """The rows of a query, as dictionaries by column. RestoreError with the server's message."""
        out, _ = self.script(f"SELECT coalesce(json_agg(row_to_json(asked)), '[]') FROM ({query}) AS asked;", database)
        rows = json.loads(out)
        assert isinstance(rows, list)
        return rows

    def databases(self) -> set[str]:
        """The names of all databases."""
        return {row["datname"] for row in self.ask("SELECT datname FROM pg_database")}

    def roles(self) -> set[str]:
        """The names of all roles."""
        return {row["rolname"] for row in self.ask("SELECT rolname FROM pg_roles")}

    def extensions(self) -> set[str]:
        """The extensions that this host can make in a database."""
        return {row["name"] for row in self.ask("SELECT name FROM pg_available_extensions")}

    @functools.cached_property
    def own_settings(self) -> frozenset[str]:
        """The settings that any role may set for itself, without those that load code."""
        return frozenset(row["name"] for row in self.ask(
            "SELECT lower(name) AS name FROM pg_settings WHERE context = 'user' AND name !~ 'preload_libraries'"
            " AND name NOT IN ('role', 'session_authorization', 'dynamic_library_path')"))

    def address(self) -> str:
        """The address where the server accepts logins by password on this host; empty if there is none."""
        listens = str(self.ask("SELECT current_setting('listen_addresses') AS a")[0]["a"]).replace(" ", "").split(",")
        return "127.0.0.1" if {"*", "localhost", "127.0.0.1", "0.0.0.0"} & set(listens) else ""

    def lack_of_room(self) -> list[str]:
        """For each nearly full file system of the server's data a clause with its room and what to do.

        The server may have ended: it does when it cannot write its log.
        """
        places = {os.stat(place).st_dev: place for place in (f"{self._data}/pg_wal", self._data)
                  if os.path.isdir(place)}
        rooms = {place: os.statvfs(place) for place in places.values()}
        free = {place: about.f_bavail * about.f_frsize for place, about in rooms.items()}
        return [f"the file system of {place} has {room:,} bytes free, and without room for its log (WAL) PostgreSQL"
                " ends: make room there, start PostgreSQL if it does not run, and apply again"
                for place, room in free.items() if room < self._least_room]

    def tables(self, database: str) -> list[tuple[str, str]]:
        """Schema and name of the tables that have rows of their own."""
        return [(row["s"], row["t"]) for row in self.ask(
            "SELECT n.nspname AS s, c.relname AS t FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"
            f" WHERE c.relkind = 'r' AND {OWN} AND {_NO_EXTENSION} ORDER BY 1, 2", database)]

    def rows(self, database: str, tables: Iterable[tuple[str, str]]) -> dict[tuple[str, str], int]:
        """The number of rows by table. Counting runs no code of the database's owner."""
        return {(schema, table): count for schema, table, count, _ in self._counted(database, sorted(tables), {})}

    def _counted(self, database: str, tables: Sequence[tuple[str, str]],
                 known: Mapping[tuple[str, str], int]) -> Counts:
        """Counts the rows, and sums the transactions that wrote them; of a table in `known`, one has written all."""
        found: Counts = []
        for start in range(0, len(tables), _TABLES_AT_ONCE):
            found += [(row["s"], row["t"], row["n"], row["x"]) for row in self.ask(" UNION ALL ".join(
                f"SELECT {literal(table[0])}::text AS s, {literal(table[1])}::text AS t, coalesce(sum(n), 0) AS n,"
                f" coalesce(sum(n * xmin::text::numeric), 0) AS x FROM ({_written(table, known.get(table))}) AS written"
                for table in tables[start:start + _TABLES_AT_ONCE]), database)]
        return found

    def fingerprint(self, database: str) -> str:
        """A sum of all definitions, and of the rows by their last transactions: it changes when one of them does."""
        return self.fingerprint_of(database, self.counted(database))

    def counted(self, database: str, known: Mapping[tuple[str, str], int] | None = None) -> Counts:
        """For each table its number of rows and a sum of the transactions that wrote them.

        `known` are the numbers of rows of tables that one transaction has filled: they are not read again.
        """
        return self._counted(database, self.tables(database), known or {})

    def fingerprint_of(self, database: str, counts: Counts) -> str:
        """The fingerprint of a database whose rows the caller has counted, and that has not changed since."""
        definitions = self.ask(
            "SELECT n.nspname AS s, c.relname AS t, c.relkind::text AS k, string_agg(concat_ws(' ', a.attname,"
            " a.atttypid, a.atttypmod, a.attnotnull), ',' ORDER BY a.attnum) AS v FROM pg_class c JOIN pg_namespace n"
            " ON n.oid = c.relnamespace LEFT JOIN pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0"
            f" WHERE {OWN} GROUP BY 1, 2, 3"
            " UNION ALL SELECT n.nspname, p.proname || '(' || pg_get_function_identity_arguments(p.oid) || ')', 'f',"
            f" md5(p.prosrc) FROM pg_proc p JOIN pg_namespace n ON n.oid = p.pronamespace WHERE {OWN}"
            " UNION ALL SELECT n.nspname, c.relname, r.rulename::text, md5(r.ev_action::text) FROM pg_rewrite r"
            f" JOIN pg_class c ON c.oid = r.ev_class JOIN pg_namespace n ON n.oid = c.relnamespace WHERE {OWN}"
            " UNION ALL SELECT n.nspname, c.relname, 't', g.tgname::text FROM pg_trigger g JOIN pg_class c"
            f" ON c.oid = g.tgrelid JOIN pg_namespace n ON n.oid = c.relnamespace WHERE NOT g.tgisinternal AND {OWN}"
            " ORDER BY 1, 2, 3, 4", database)
        return hashlib.sha256(repr((counts, definitions)).encode()).hexdigest()

    def make_loader(self, name: str) -> bytes:
        """Makes a role that can log in but has no other rights; returns its password file."""
        password = secrets.token_hex(24)
        self.script(f"CREATE ROLE {identifier(name)} LOGIN PASSWORD {literal(_verifier(password))};")
        return f"127.0.0.1:{self.port}:*:{name}:{password}\n".encode()

    def remove_loader(self, name: str, database: str = "") -> None:
        """Ends the role's connections and drops it with all that it owns in `database`. Also works after a kill."""
        if name not in self.roles():
            return
        role = identifier(name)
        self.script(f"ALTER ROLE {role} NOLOGIN; SELECT pg_terminate_backend(pid, 30000) FROM pg_stat_activity"
                    f" WHERE usename = {literal(name)};")
        if database and database in self.databases():
            self.script(f"DROP OWNED BY {role};", database)
        self.script(f"DROP OWNED BY {role}; DROP ROLE {role};")

    def drop_database(self, name: str) -> None:
        """Removes a database if it exists, and closes all connections to it."""
        self._leave_database(name)
        self.script(f"DROP DATABASE IF EXISTS {identifier(name)} WITH (FORCE);")

    def rename_database(self, name: str, new_name: str) -> None:
        """Renames a database. No other database may have the new name."""
        self._leave_database(name)
        wait_until_gone(self._own_connections(name), f"The connection to {name}", pause=0.001)
        self.script(f"ALTER DATABASE {identifier(name)} RENAME TO {identifier(new_name)};")

    @functools.cached_property
    def _knows_restrict(self) -> bool:
        """Whether psql has the command that keeps a dump from commands of psql: it says so of one that it has not."""
        key = secrets.token_hex(24)
        said = self._session("postgres").run(
            f"\\restrict {key}\n\\unrestrict {key}", stops=False, time_limit=_TIME_LIMIT)
        return said.status == 0 and not said.stderr

    def _own_connections(self, database: str) -> Iterator[bool]:
        """Whether the server still ends a connection of ours. Until then it renames nothing, and looks each 0.1 s."""
        while True:
            yield bool(self.ask(f"SELECT 1 FROM pg_stat_activity WHERE datname = {literal(database)}"
                                f" AND application_name = {literal(_NAME)}"))

    def load(self, database: str, role: str, login: bytes, statements: Iterable[bytes]) -> tuple[list[str], list[int]]:
        """Runs SQL in a database as the role of `make_loader`, in a client without rights on this host.

        Returns the errors of statements that failed, while all others were run; and for each line by which a statement
        COPY says how many rows it has copied, their number. RestoreError if the connection ended.
        """
        # After \restrict psql runs no backslash command but \unrestrict with the same key, which no dump can guess.
        if not self._knows_restrict:
            raise RestoreError("psql here does not know \\restrict, without which no foreign SQL is run:"
                               " upgrade postgresql-client")

        def restricted() -> Iterable[bytes]:
            yield f"\\restrict {secrets.token_hex(24)}\n".encode()
            yield from statements

        # No connection of an administrator may be open in the database while its own SQL runs.
        self._leave_database(database)
        client = [self._psql, "-X", "-A", "-t", "-w", "-v", "ON_ERROR_STOP=0", "-h", "127.0.0.1",
                  "-p", str(self.port), "-U", role, "-d", _connection(database, is_local=False), "-f", "-"]
        copied: list[int] = []

        def take(line: bytes) -> None:
            said = _COPIED.fullmatch(line)
            if said and len(copied) < _MOST_COPIES:
                copied.append(int(said[1]))

        messages = run_sql(client, login, {
            "PGPASSFILE": "{secret}", "PGCONNECT_TIMEOUT": "20",
            # Encryption only costs time, since nothing leaves this host. "allow" uses it if the server insists.
            "PGSSLMODE": "allow"}, restricted(), take)
        ended = [message for message in messages if re.search(
            r"FATAL: |server closed the connection|connection to server .* failed|No space left", message)]
        if ended:
            raise RestoreError(f"Loading ended: {'; '.join(ended[:3])}")
        return [re.sub(r"^psql:<stdin>:[0-9]+: ", "", message) for message in messages
                if re.search(r"ERROR: |backslash commands are restricted|error: ", message)], copied


def _written(table: tuple[str, str], count: int | None) -> str:
    """SQL for the transactions that wrote the rows of a table, and how many each; `count` if one wrote so many."""
    place = ".".join(map(identifier, table))
    if count is not None:
        return f"(SELECT xmin, {count}::bigint AS n FROM ONLY {place} LIMIT 1)"
    # Grouping by transaction instead of summing over each row takes a third of the time.
    return f"SELECT xmin, count(*) AS n FROM ONLY {place} GROUP BY xmin"


def _connection(database: str, *, is_local: bool = True) -> str:
    quoted = database.replace("\\", "\\\\").replace("'", "\\'")
    return f"dbname='{quoted}'" + (f" requirepeer={_ACCOUNT}" if is_local else "")


def _verifier(password: str) -> str:
    """The SCRAM verifier of a password: with it, no log of the server gets the password."""
    salt = secrets.token_bytes(16)
    salted = hashlib.pbkdf2_hmac("sha256", password.encode(), salt, _ROUNDS)
    stored = hashlib.sha256(hmac.digest(salted, b"Client Key", "sha256")).digest()
    keys = [base64.b64encode(part).decode() for part in (salt, stored, hmac.digest(salted, b"Server Key", "sha256"))]
    return f"SCRAM-SHA-256${_ROUNDS}:{keys[0]}${keys[1]}:{keys[2]}"

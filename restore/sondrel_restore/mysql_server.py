"""The MySQL or MariaDB server of this host, as its administrator sees it."""
from __future__ import annotations

import hashlib
import os
import re
import secrets
from collections.abc import Iterable, Iterator, Sequence
from typing import Any

from sondrel_restore.databases import LOADER, run_sql, wait_until_gone
from sondrel_restore.host import Host
from sondrel_restore.kind import RestoreError

_SOCKETS = ("/run/mysqld/mysqld.sock", "/var/lib/mysql/mysql.sock")
_OPTION_FILES = ("/root/.my.cnf", "/etc/mysql/debian.cnf")
_LOCK_WAIT = 60  # seconds

# Engines that store their rows here. Reading tables of others would access another host or file.
_ENGINES = ("InnoDB", "MyISAM", "Aria", "MEMORY", "ARCHIVE", "CSV", "ROCKSDB")
_TABLES_AT_ONCE = 200

# A directory option of a table. Quoted texts and names are matched too, so that one that looks like it is skipped.
DIRECTORY = re.compile(r" ?(?:DATA|INDEX) DIRECTORY ?= ?'((?:[^'\\]|\\.|'')*)'|'(?:[^'\\]|\\.|'')*'|`(?:[^`]|``)*`",
                       re.S)

# Errors that end the connection and so the load. Those without a line number are errors of the login.
_ENDING = re.compile(r"ERROR (?:[0-9]+(?: \(\w+\))?: |(?:1053|1153|1927|2[0-9]{3})\b)")

# The server is out of space. This ends the load as a failure: a missing table without rows would not be noticed
# when the numbers of rows are compared.
_FULL = re.compile(r"ERROR (?:1021|1114)\b|No space left on device|\b(?:errno|Errcode|error):? (?:28|135)\b")

OF_SERVER = re.compile(
    r"(?:|root|mysql|(?:mysql|mariadb)\..*|debian-sys-maint|public|none|current_user|current_role|" + LOADER + ".*)",
    re.I | re.S)
SYSTEM_DATABASES = frozenset({"information_schema", "performance_schema", "mysql", "sys", "ndbinfo"})


def identifier(name: str) -> str:
    """The name in backticks."""
    return "`" + name.replace("`", "``") + "`"


def pattern(name: str) -> str:
    """The name of a database for GRANT, where an unescaped % or _ would match other databases."""
    return identifier(re.sub(r"([\\%_])", r"\\\1", name))


class MySqlServer:
    """A connection to the server as its administrator."""

    def __init__(self, connection: Any, socket: str) -> None:
        self._connection = connection
        self.socket = socket
        self.version = str(self.ask("SELECT VERSION()")[0][0])
        self.is_mariadb = "mariadb" in self.version.lower()
        # What the client says about its options; None before it was asked.
        self._client_help: str | None = None
        self.run(f"SET SESSION lock_wait_timeout = {_LOCK_WAIT}")

    def ask(self, sql: str, values: Sequence[object] | None = None) -> list[tuple[Any, ...]]:
        """The rows that a statement returns. RestoreError with the server's message."""
        try:
            with self._connection.cursor() as cursor:
                cursor.execute(sql, values)
                return list(cursor.fetchall())
        except self._connection.Error as error:
            raise RestoreError(f"The database server says: {_said(error)}") from error

    def run(self, sql: str, values: Sequence[object] | None = None) -> None:
        """Runs a statement. RestoreError with the server's message."""
        self.ask(sql, values)

    def close(self) -> None:
        """Closes the connection."""
        self._connection.close()

    def databases(self) -> set[str]:
        """The names of all databases."""
        return {row[0] for row in self.ask("SELECT schema_name FROM information_schema.schemata")}

    def accounts(self) -> set[tuple[str, str]]:
        """The name and host of all accounts and roles."""
        return {(row[0], row[1]) for row in self.ask("SELECT User, Host FROM mysql.user")}

    def collations(self) -> set[tuple[str, str]]:
        """All pairs of character set and collation."""
        return {(row[0], row[1]) for row in self.ask("SELECT character_set_name, collation_name FROM"
                " information_schema.collations WHERE character_set_name IS NOT NULL")} | {
            (row[0], row[1]) for row in (self.ask(
                "SELECT character_set_name, full_collation_name FROM"
                " information_schema.collation_character_set_applicability") if self.is_mariadb else [])}

    def tables(self, database: str) -> list[str]:
        """The tables whose rows are stored here."""
        engines = ", ".join(["%s"] * len(_ENGINES))
        return [row[0] for row in self.ask(
            "SELECT table_name FROM information_schema.tables WHERE table_schema = %s AND table_type IN"
            f" ('BASE TABLE', 'SYSTEM VERSIONED') AND engine IN ({engines}) ORDER BY table_name",
            (database, *_ENGINES))]

    def rows(self, database: str, tables: Iterable[str]) -> dict[str, int]:
        """The number of rows by table, to compare with those of a dump: with the old rows of versioned tables."""
        versioned = {row[0] for row in self.ask(
            "SELECT table_name FROM information_schema.tables WHERE table_schema = %s AND"
            " table_type = 'SYSTEM VERSIONED'", (database,))}
        return {table: int(self.ask(f"SELECT COUNT(*) FROM {identifier(database)}.{identifier(table)}"
                                    f"{' FOR SYSTEM_TIME ALL' if table in versioned else ''}")[0][0])
                for table in tables}

    def fingerprint(self, database: str) -> str:
        """A sum of all rows and definitions: it changes when one of them does."""
        sums = hashlib.sha256()
        tables = self.tables(database)
        for start in range(0, len(tables), _TABLES_AT_ONCE):
            names = ", ".join(f"{identifier(database)}.{identifier(table)}"
                              for table in tables[start:start + _TABLES_AT_ONCE])
            sums.update(repr(self.ask(f"CHECKSUM TABLE {names}")).encode())
        for question in (
            "SELECT table_name, column_name, column_type, is_nullable, column_default, extra FROM"
            " information_schema.columns WHERE table_schema = %s ORDER BY table_name, ordinal_position",
            "SELECT table_name, index_name, seq_in_index, column_name FROM information_schema.statistics"
            " WHERE table_schema = %s ORDER BY 1, 2, 3",
            "SELECT table_name, view_definition, definer FROM information_schema.views WHERE table_schema = %s"
            " ORDER BY 1",
            "SELECT routine_type, routine_name, routine_definition, definer FROM information_schema.routines"
            " WHERE routine_schema = %s ORDER BY 1, 2",
            "SELECT trigger_name, action_statement, definer FROM information_schema.triggers"
            " WHERE trigger_schema = %s ORDER BY 1",
            "SELECT event_name, event_definition, definer FROM information_schema.events WHERE event_schema = %s"
            " ORDER BY 1",
        ):
            sums.update(repr(self.ask(question, (database,))).encode())
        return sums.hexdigest()

    def directories(self, database: str) -> dict[str, list[str]]:
        """The directories that the definitions of tables name, by table."""
        found: dict[str, list[str]] = {}
        for table in self.tables(database):
            definition = str(self.ask(f"SHOW CREATE TABLE {identifier(database)}.{identifier(table)}")[0][1])
            paths = [match[1] for match in DIRECTORY.finditer(definition) if match[1] is not None]
            if paths:
                found[table] = paths
        return found

    def make_loader(self, name: str, database: str) -> bytes:
        """Makes an account with all rights in that database and no others; returns its option file."""
        password = secrets.token_hex(24)
        if self.is_mariadb:
            # Send the hash, so that no log of the server gets the password.
            stored = "*" + hashlib.sha1(hashlib.sha1(password.encode()).digest()).hexdigest().upper()
            self.run("CREATE USER %s@'localhost' IDENTIFIED BY PASSWORD %s", (name, stored))
        else:
            self.run("CREATE USER %s@'localhost' IDENTIFIED BY %s", (name, password))
        self.run(f"GRANT ALL PRIVILEGES ON {pattern(database)}.* TO {identifier(name)}@'localhost'")
        return f"[client]\nuser={name}\npassword={password}\n".encode()

    def remove_loader(self, name: str) -> None:
        """Kills the account's connections and removes it. Also works if an earlier run was killed."""
        for (number,) in self.ask("SELECT id FROM information_schema.processlist WHERE user = %s", (name,)):
            try:
                self.run(f"KILL {int(number)}")
            except RestoreError:
                continue  # it may have just ended; wait_until_gone finds those that have not
        wait_until_gone(self._connections(name), f"The connection of {name}")
        self.run("DROP USER IF EXISTS %s@'localhost'", (name,))

    def _connections(self, name: str) -> Iterator[bool]:
        while True:
            yield bool(self.ask("SELECT 1 FROM information_schema.processlist WHERE user = %s", (name,)))

    def load(self, host: Host, database: str, login: bytes, statements: Iterable[bytes]) -> list[str]:
        """Runs SQL in a database as the account of `make_loader`, in a client without rights on this host.

        Returns the errors of statements that failed; all others were run. RestoreError if the connection ended or the
        server had no room.
        """
        program = "mariadb" if host.has_program("mariadb") else "mysql"
        if self._client_help is None:
            self._client_help = host.run([program, "--no-defaults", "--help"]).stdout
        client = [program, "--defaults-file={secret}", "--no-auto-rehash", "--batch", "--force",
                  "--protocol=socket", f"--socket={self.socket}", "--default-character-set=utf8mb4",
                  "--max-allowed-packet=1G", "--binary-mode", "--local-infile=0", "--plugin-dir=/dev/null"]
        # Without --sandbox the client runs its own commands, such as "\!", which starts any program.
        client += ["--sandbox"] if "\n  --sandbox" in self._client_help else []
        messages = run_sql([*client, f"--database={database}"], login, {}, statements)
        errors = [message for message in messages if message.startswith("ERROR")]
        for error in errors:
            if _ENDING.match(error):
                raise RestoreError(f"Loading ended: {error}")
            if _FULL.search(error):
                raise RestoreError("The database server has no room for it (No space left on device, or a limit of its"
                                   f" own): {error}. Make room where its data lie, and apply again")
        return errors


def connect() -> MySqlServer:
    """Connects to the server of this host as root, or with an option file of root. RestoreError with the reasons."""
    # Only descriptions with such databases need it, and loading it takes as long as ten of our own modules.
    import pymysql  # pylint: disable=import-outside-toplevel

    reasons: list[str] = []
    for socket in filter(os.path.exists, _SOCKETS):
        about = os.stat(os.path.dirname(os.path.realpath(socket)))
        if about.st_mode & 0o022 and not about.st_mode & 0o1000:
            reasons.append(f"{socket} lies in a directory that others may write into")
            continue
        for option_file in (None, *filter(_is_roots, _OPTION_FILES)):
            more = {"read_default_file": option_file} if option_file else {"user": "root", "password": ""}
            try:
                return MySqlServer(pymysql.connect(
                    unix_socket=socket, charset="utf8mb4", autocommit=True, local_infile=False,
                    client_flag=0, **more), socket)
            except (pymysql.MySQLError, OSError) as error:
                reasons.append(_said(error))
    why = "; ".join(reasons) or "none of its sockets is there"
    raise RestoreError(f"No MySQL or MariaDB server answers here: {why}. Start it, if it is installed")


def _is_roots(path: str) -> bool:
    try:
        about = os.stat(path)
    except OSError:
        return False
    return about.st_uid == 0 and not about.st_mode & 0o022


def _said(error: Exception) -> str:
    return str(error.args[1]) if len(error.args) > 1 else str(error)

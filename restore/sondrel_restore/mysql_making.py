"""One apply of one database of MySQL or MariaDB: made anew, loaded, and given to its accounts."""
from __future__ import annotations

import contextlib
import os
import re
import secrets

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import LOADER, some
from sondrel_restore.hostfiles import open_directory
from sondrel_restore.kind import Facts, Item, RestoreError
from sondrel_restore.mysql_accounts import Accounts
from sondrel_restore.mysql_definers import settle_definers
from sondrel_restore.mysql_dump import MySqlDump
from sondrel_restore.mysql_rights import Rights
from sondrel_restore.mysql_server import MySqlServer, identifier
from sondrel_restore.restore import Restore


def remove_loader(server: MySqlServer, facts: Facts) -> None:
    """Removes the account that an apply that was broken off has loaded by."""
    loader = str(facts.get("loader", ""))
    if loader.startswith(LOADER):
        server.remove_loader(loader)


class MySqlMaking:
    """Makes or renews one database with its accounts and their rights."""

    def __init__(self, restore: Restore, item: Item, server: MySqlServer) -> None:
        self._making = DatabaseMaking(restore, item)
        self._server = server
        self._accounts = Accounts(server, self._making)
        self._rights = Rights(server, self._making)

    def apply(self) -> Facts:
        """Makes it from nothing, also where an earlier apply had come to its end or been broken off.

        Returns the facts on it.
        """
        server, name = self._server, self._making.database.name
        archive = self._making.restore.archive(self._making.database.contents[0])
        archive.check()
        remove_loader(server, self._making.facts)
        loader = LOADER + secrets.token_hex(6)
        self._making.note({"loader": loader})
        with archive.stream() as file:
            dump = MySqlDump(file)
            logins = dump.logins()
            self._accounts.make(logins)
            self._make_database()
            try:
                login = server.make_loader(loader, name)
                self._making.left_out += server.load(self._making.restore.host, name, login, dump.statements())
                self._drop_tables_elsewhere(dump.rows)
                self._check_rows(dump.rows)
                for text in settle_definers(server, self._making.database, loader, self._accounts.own()):
                    self._making.name(text)
            finally:
                server.remove_loader(loader)
        self._rights.give(self._accounts.own())
        self._making.name_left_out()
        return {**self._making.facts, "loader": "", "made": True, "sum": self._making.database.sum(),
                "left_out": self._making.left_out[:100], "fingerprint": server.fingerprint(name)}

    def _make_database(self) -> None:
        # Removed and made again, and not filled beside the old one: no statement gives a database another name.
        name = identifier(self._making.database.name)
        characters, collation = self._making.database.text("encoding"), self._making.database.text("collation")
        self._server.run(f"DROP DATABASE IF EXISTS {name}")
        # Not before: what was here until now is not this session's.
        self._making.note({"made": True})
        self._server.run(f"CREATE DATABASE {name}" + (
            f" CHARACTER SET {characters} COLLATE {collation}"
            if re.fullmatch(r"\w+", characters) and re.fullmatch(r"\w+", collation) else ""))

    def _drop_tables_elsewhere(self, rows: dict[str, int]) -> None:
        """The server lets any account put tables into any directory that it may write into itself."""
        database = self._making.database.name
        for table, paths in self._server.directories(database).items():
            self._server.run(f"DROP TABLE {identifier(database)}.{identifier(table)}")
            rows.pop(table, None)
            self._making.left_out.append(f"the table {table}, which would lie in {some(paths)}")
            for path in paths if re.fullmatch(r"\w+", database) else ():
                with contextlib.suppress(OSError, RestoreError), open_directory(path) as directory:
                    # Only if nothing else is in it.
                    os.rmdir(database, dir_fd=directory)

    def _check_rows(self, rows: dict[str, int]) -> None:
        database = self._making.database.name
        here = self._server.rows(database, set(self._server.tables(database)) & set(rows))
        self._making.check_rows(rows, here, str)

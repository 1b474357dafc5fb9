"""Statements without which a database of PostgreSQL is restored, too: what fails is named."""
from __future__ import annotations

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.postgresql_server import PostgreSqlServer, identifier, literal


class Statements:
    """Those for one database, by the administrator of the server."""

    def __init__(self, server: PostgreSqlServer, making: DatabaseMaking) -> None:
        self._server = server
        self._making = making

    def attempt(self, statements: list[str], database: str) -> None:
        """Runs statements in a database, also those behind one that fails."""
        if statements:
            for error in self._server.script("\n".join(statements), database, check=False)[1]:
                self._making.name(error)

    def set(self, whose: str, name: str, values: tuple[str, ...]) -> None:
        """Sets what a role or database (`whose`) is to begin with, if any role may set it for itself."""
        setting = name.replace('"', "").lower()
        if setting not in self._server.own_settings:
            self._making.name(f"the setting {setting} is left out: a role may not set it itself")
            return
        self.attempt([f"ALTER {whose} SET {identifier(setting)} TO {', '.join(map(literal, values))};"], "postgres")

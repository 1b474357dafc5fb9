"""Roles of databases of PostgreSQL: which are of this session, and how they are made."""
from __future__ import annotations

import hashlib
import re

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import User
from sondrel_restore.kind import Facts, RestoreError
from sondrel_restore.postgresql_dump import Role
from sondrel_restore.postgresql_server import PostgreSqlServer, identifier, is_allowed, literal
from sondrel_restore.postgresql_statements import Statements
from sondrel_restore.restore import Restore

# The name of the kind in plan and journal.
KIND = "postgresql"

_HASH = re.compile(r"SCRAM-SHA-256\$[0-9]{1,9}:[A-Za-z0-9+/=]+\$[A-Za-z0-9+/=]+:[A-Za-z0-9+/=]+|md5[0-9a-f]{32}")


def roles_of(facts: Facts) -> dict[str, str]:
    """Of the facts of one database: its roles with the sum of what the dump said of them."""
    roles = facts.get("roles", {})
    assert isinstance(roles, dict)
    return {str(name): str(digest) for name, digest in roles.items()}


def own_roles(restore: Restore) -> dict[str, str]:
    """What this session has made: roles with the sum of what the dump said of them."""
    return {name: digest for entry in restore.journal.entries(KIND)
            for name, digest in roles_of(entry.facts).items()}


class Roles:
    """Makes the roles of one database."""

    def __init__(self, server: PostgreSqlServer, making: DatabaseMaking, statements: Statements) -> None:
        self._server = server
        self._making = making
        self._statements = statements

    def make(self, roles: dict[str, Role]) -> None:
        """Makes those that are not here, and renews those of this session; `roles` are what the dump says of them."""
        own, here = own_roles(self._making.restore), self._server.roles()
        for user in self._making.database.users:
            digest = hashlib.sha256(repr(roles.get(user.name)).encode("utf-8", "surrogateescape")).hexdigest()
            if not is_allowed(user.name):
                if user.name != "postgres":
                    self._making.name(f"the role {user.name} is left out: its name is one of the server's own")
            elif user.name not in here:
                self._claim(user.name, digest)
                self._run_role("CREATE", user, roles.get(user.name))
            elif user.name not in own:
                self._making.name(f"the role {user.name} was here before: it keeps its password and settings")
            elif own[user.name] != digest:
                self._claim(user.name, digest)
                self._run_role("ALTER", user, roles.get(user.name))
            else:
                self._claim(user.name, digest)

    def owner(self) -> str:
        """Who the database belongs to: a role of this session, that of the source host if it is one."""
        wanted = self._making.database.text("owner")
        own = own_roles(self._making.restore)
        if wanted in own and wanted in {user.name for user in self._making.database.users}:
            return wanted
        name = f"{self._making.database.name[:40]}_owner"
        if name not in self._server.roles():
            self._claim(name, "")
            self._server.script(f"CREATE ROLE {identifier(name)} NOLOGIN;")
        elif name not in own:
            raise RestoreError(f"The role {name}, which would own the database, is here already: rename it")
        self._making.name(f"it belonged to {wanted or 'nobody known'} there, and belongs to the role {name} here, as"
                          " which nobody logs in")
        return name

    def _claim(self, name: str, digest: str) -> None:
        self._making.note({"roles": {**roles_of(self._making.facts), name: digest}})

    def _run_role(self, verb: str, user: User, role: Role | None) -> None:
        words = [verb, "ROLE", identifier(user.name), "NOLOGIN" if user.is_role else "LOGIN"]
        if role is None:
            self._making.name(f"the dump has no statement for the role {user.name}: set its password")
        else:
            words += ["INHERIT" if role.inherits else "NOINHERIT", f"CONNECTION LIMIT {max(role.connections, -1)}"]
            if role.until:
                words.append(f"VALID UNTIL {literal(role.until)}")
            if _HASH.fullmatch(role.password):
                words.append(f"PASSWORD {literal(role.password)}")
            elif role.password:
                self._making.name(f"the password of the role {user.name} is left out, since it is no hash: set it")
        self._server.script(" ".join(words) + ";")
        for name, values in role.settings if role else ():
            self._statements.set(f"ROLE {identifier(user.name)}", name, values)

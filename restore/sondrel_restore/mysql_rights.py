"""Rights of accounts in a database of MySQL or MariaDB."""
from __future__ import annotations

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import Grant, User
from sondrel_restore.kind import RestoreError
from sondrel_restore.mysql_accounts import account_name, is_allowed
from sondrel_restore.mysql_server import MySqlServer, identifier, pattern

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


class Rights:
    """Gives accounts of this session their rights in one database."""

    def __init__(self, server: MySqlServer, making: DatabaseMaking) -> None:
        self._server = server
        self._making = making

    def give(self, own_users: list[User]) -> None:
        """Memberships of `own_users`, which are of this session, and rights; what fails is named."""
        users = {(user.name, user.host): user for user in self._making.database.users}
        own = {(user.name, user.host) for user in own_users}
        for membership in self._making.database.memberships:
            pair = {(membership.role.name, membership.role.host), (membership.member.name, membership.member.host)}
            if pair <= own:
                role, member = account_name(membership.role), account_name(membership.member)
                self._try(f"GRANT {role} TO {member}"
                          + (" WITH ADMIN OPTION" if membership.is_grantable else ""))
                if membership.is_default:
                    joint = "FOR" if self._server.is_mariadb else "TO"
                    self._try(f"SET DEFAULT ROLE {role} {joint} {member}")
            else:
                self._making.name(f"{membership.member.name} is not put into the role {membership.role.name}:"
                                  " not both are of this session")
        for grant in self._making.database.grants:
            user = users.get((grant.grantee, grant.host))
            if user is None or not is_allowed(user):
                self._making.name(f"rights of {grant.grantee}@{grant.host} are left out:"
                                  " it is no account of this database")
                continue
            sql = self._grant(grant, user)
            if sql:
                self._try(sql)

    def _grant(self, grant: Grant, user: User) -> str:
        rights = [right for right in grant.rights if right in _RIGHTS.get(grant.scope, ())]
        other = [right for right in grant.rights if right not in rights]
        if other:
            self._making.name(f"rights of {grant.grantee}@{grant.host} that are not on one database are left out:"
                              f" {', '.join(other)}")
        if not rights:
            return ""
        database = identifier(self._making.database.name)
        columns = f" ({identifier(grant.column)})" if grant.scope == "column" else ""
        if grant.scope == "database":
            # The pattern there may have been for other databases, too.
            target = f"{pattern(self._making.database.name)}.*"
        else:
            kind = "" if grant.scope in ("table", "column") else grant.scope.upper() + " "
            target = f"{kind}{database}.{identifier(grant.object)}"
        given = ", ".join(right + columns for right in rights)
        return (f"GRANT {given} ON {target} TO {account_name(user)}"
                + (" WITH GRANT OPTION" if grant.is_grantable else ""))

    def _try(self, sql: str) -> None:
        try:
            self._server.run(sql)
        except RestoreError as error:
            self._making.name(f"{sql}: {error}")

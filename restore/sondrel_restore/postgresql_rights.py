"""Rights and settings of roles in a database of PostgreSQL."""
from __future__ import annotations

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import Grant
from sondrel_restore.postgresql_dump import PostgreSqlDump
from sondrel_restore.postgresql_roles import own_roles
from sondrel_restore.postgresql_server import OWN, PostgreSqlServer, identifier, is_allowed, literal
from sondrel_restore.postgresql_statements import Statements

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


class Rights:
    """Gives roles of this session their rights in one database."""

    def __init__(self, server: PostgreSqlServer, making: DatabaseMaking, statements: Statements) -> None:
        self._server = server
        self._making = making
        self._statements = statements

    def give(self, loader: str, dump: PostgreSqlDump) -> None:
        """In the database `loader`, which is loaded: memberships, rights, settings, and its comment."""
        own = set(own_roles(self._making.restore))
        users = {user.name for user in self._making.database.users if is_allowed(user.name)}
        statements = [] if dump.is_closed else [f"GRANT CONNECT, TEMPORARY ON DATABASE {identifier(loader)} TO PUBLIC;"]
        for membership in self._making.database.memberships:
            if {membership.role.name, membership.member.name} <= own:
                statements.append(f"GRANT {identifier(membership.role.name)} TO {identifier(membership.member.name)}"
                                  + (" WITH ADMIN OPTION;" if membership.is_grantable else ";"))
            else:
                self._making.name(f"{membership.member.name} is not put into the role {membership.role.name}:"
                                  " not both are of this session")
        objects = self._objects(loader)
        for grant in self._making.database.grants:
            if grant.grantee != "PUBLIC" and grant.grantee not in users:
                self._making.name(f"rights of {grant.grantee} are left out: it is no role of this database")
                continue
            statements += self._grant(grant, objects)
        self._statements.attempt(statements, loader)
        for role, name, values in dump.settings:
            if not role or role in own & users:
                whose = f"ROLE {identifier(role)} IN " if role else ""
                self._statements.set(f"{whose}DATABASE {identifier(loader)}", name, values)
        if dump.comment:
            self._statements.attempt([f"COMMENT ON DATABASE {identifier(loader)} IS {literal(dump.comment)};"], loader)

    def _objects(self, loader: str) -> dict[tuple[str, str], str]:
        """What rights can be on, by kind and by the name that the description has, as SQL."""
        rows = self._server.ask(f"{_OBJECTS} UNION ALL SELECT 'database', {literal(self._making.database.name)}::text,"
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
            self._making.name(f"rights of {grant.grantee} on the {grant.scope} {grant.object} are left out:"
                              f" {', '.join(left or grant.rights)}")
        if target is None or not rights:
            return []
        columns = f" ({identifier(grant.column)})" if grant.scope == "column" else ""
        grantee = "PUBLIC" if grant.grantee == "PUBLIC" else identifier(grant.grantee)
        given = ", ".join(right + columns for right in rights)
        return [f"GRANT {given} ON {target} TO {grantee}" + (" WITH GRANT OPTION;" if grant.is_grantable else ";")]

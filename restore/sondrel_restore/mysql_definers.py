"""Gives views, routines, triggers and events to accounts of this restore: they run with the rights of their definer."""
from __future__ import annotations

import re
from collections.abc import Callable, Iterator

from sondrel_restore.databases import Database, User, some
from sondrel_restore.kind import RestoreError
from sondrel_restore.mysql_server import MySqlServer, identifier

# By type: the query for its objects, and the columns of `SHOW CREATE` with sql_mode, time zone and statement.
_KINDS = {
    "view": ("SELECT table_name FROM information_schema.views WHERE table_schema = %s AND definer = %s ORDER BY 1",
             None, None, 1),
    "procedure": ("SELECT routine_name FROM information_schema.routines WHERE routine_schema = %s AND definer = %s"
                  " AND routine_type = 'PROCEDURE' ORDER BY 1", 1, None, 2),
    "function": ("SELECT routine_name FROM information_schema.routines WHERE routine_schema = %s AND definer = %s"
                 " AND routine_type = 'FUNCTION' ORDER BY 1", 1, None, 2),
    "trigger": ("SELECT trigger_name FROM information_schema.triggers WHERE trigger_schema = %s AND definer = %s"
                " ORDER BY event_object_table, action_timing, event_manipulation, action_order", 1, None, 2),
    "event": ("SELECT event_name FROM information_schema.events WHERE event_schema = %s AND definer = %s ORDER BY 1",
              1, 2, 3),
}


def settle_definers(server: MySqlServer, database: Database, loader: str, own: list[User]) -> list[str]:
    """Makes the original definer of each object the definer again, if it is one of `own`. `loader` made the objects.

    Other objects get the login of `own` that has the most rights; without any login they are removed. Returns sentences
    about these other objects, for a person.
    """
    logins = _by_rights(database, [user for user in own if not user.is_role])
    there = {(definer.kind, definer.object): (definer.name, definer.host) for definer in database.definers}
    moved: list[str] = []
    removed: list[str] = []
    server.run(f"USE {identifier(database.name)}")
    for kind, (question, *places) in _KINDS.items():
        names = [row[0] for row in server.ask(question, (database.name, f"{loader}@localhost"))]
        statements = list(_statements(server, kind, names, places))
        for name, make in statements:
            was = there.get((kind, name), ("", ""))
            account = next((user for user in logins if (user.name, user.host) == was), None)
            shown = f"{kind} {name}" + (f" ({was[0]}@{was[1]})" if any(was) else "")
            if account is None and not logins:
                removed.append(shown)
                server.run(f"DROP {kind.upper()} IF EXISTS {identifier(name)}")
                continue
            if account is None:
                account = logins[0]
                moved.append(shown)
            # A view is replaced in place: dropping it would break the views that use it.
            if kind != "view":
                server.run(f"DROP {kind.upper()} IF EXISTS {identifier(name)}")
            make(account)
    texts = []
    if moved:
        texts.append(f"these ran as accounts that are not of this restore, and run as {logins[0].name}@{logins[0].host}"
                     f" here: {some(moved)}")
    if removed:
        texts.append(f"these are left out, since no account of this restore can be their definer: {some(removed)}")
    return texts


def _by_rights(database: Database, users: list[User]) -> list[User]:
    """The users, sorted by their number of rights in the database, most first."""
    count = {(user.name, user.host): 0 for user in users}
    for grant in database.grants:
        if grant.scope == "database" and (grant.grantee, grant.host) in count:
            count[grant.grantee, grant.host] += len(grant.rights)
    return sorted(users, key=lambda user: -count[user.name, user.host])


def _statements(server: MySqlServer, kind: str, names: list[str],
                places: list[int | None]) -> Iterator[tuple[str, Callable[[User], None]]]:
    mode_at, zone_at, text_at = places
    assert text_at is not None
    for name in names:
        server.run("SET SESSION sql_mode = ''")
        row = server.ask(f"SHOW CREATE {kind.upper()} {identifier(name)}")[0]
        settings = {"sql_mode": str(row[mode_at]) if mode_at else "",
                    "time_zone": str(row[zone_at]) if zone_at else "SYSTEM"}
        yield name, _maker(server, kind, name, str(row[text_at]), settings)


def _maker(server: MySqlServer, kind: str, name: str, text: str, settings: dict[str, str]) -> Callable[[User], None]:
    begins = re.match(r"CREATE (?:OR REPLACE )?(?:ALGORITHM=\w+ )?(DEFINER=`[^`]*`@`[^`]*`) ", text)
    if begins is None:
        raise RestoreError(f"The server does not show how the {kind} {name} was made")
    before, after = text[:begins.start(1)], text[begins.end(1):]
    if kind == "view" and "OR REPLACE" not in before:
        before = before.replace("CREATE ", "CREATE OR REPLACE ", 1)

    def make(account: User) -> None:
        for setting, value in settings.items():
            server.run(f"SET SESSION {setting} = %s", (value,))
        server.run(f"{before}DEFINER={identifier(account.name)}@{identifier(account.host)}{after}")

    return make

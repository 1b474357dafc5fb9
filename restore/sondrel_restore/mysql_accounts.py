"""Accounts of databases of MySQL and MariaDB: which are of this session, and how they are made and removed."""
from __future__ import annotations

import hashlib
import re

from sondrel_restore.database_making import DatabaseMaking
from sondrel_restore.databases import Database, User
from sondrel_restore.kind import Facts, RestoreError
from sondrel_restore.mysql_dump import Login
from sondrel_restore.mysql_server import OF_SERVER, MySqlServer, identifier, pattern
from sondrel_restore.restore import Restore

# The name of the kind in plan and journal.
KIND = "mysql"

_LONGEST_HOST = 255
_HASHES = {
    "mysql_native_password": re.compile(r"(?:\*[0-9A-F]{40})?"),
    "ed25519": re.compile(r"[A-Za-z0-9+/]{43}"),
    "caching_sha2_password": re.compile(r"0x[0-9A-F]+"),
    # Without a text: whoever has the account of the same name here.
    "unix_socket": re.compile(r""),
    "auth_socket": re.compile(r""),
}


def accounts_of(facts: Facts) -> set[tuple[str, str]]:
    """Of the facts of one database: its accounts, by name and host."""
    accounts = facts.get("accounts", {})
    assert isinstance(accounts, dict)
    return {tuple(key.split("\0", 1)) for key in accounts}  # type: ignore[misc]


def own_accounts(restore: Restore) -> dict[tuple[str, str], str]:
    """What this session has made: the accounts with the sum of what they prove themselves by."""
    found: dict[tuple[str, str], str] = {}
    for entry in restore.journal.entries(KIND):
        accounts = entry.facts.get("accounts", {})
        assert isinstance(accounts, dict)
        for key, digest in accounts.items():
            name, host = key.split("\0", 1)
            found[name, host] = str(digest)
    return found


def foreign_accounts(restore: Restore, server: MySqlServer, database: Database) -> set[tuple[str, str]]:
    """The accounts of a database that are here and not of this session, by name and host."""
    wanted = {(user.name, user.host) for user in database.users if is_allowed(user)}
    return (wanted & server.accounts()) - set(own_accounts(restore))


def is_allowed(user: User) -> bool:
    """Whether an account of this name and host can be made here."""
    return (OF_SERVER.fullmatch(user.name) is None and len(user.name) <= 80 and len(user.host) <= _LONGEST_HOST
            and not re.search(r"[\x00-\x1f\x7f]", user.name + user.host) and (user.is_role or bool(user.host)))


def account_name(user: User) -> str:
    """An account as SQL names it."""
    return _quoted(user.name) + (f"@{_quoted(user.host)}" if user.host else "")


def remove_account(server: MySqlServer, name: str, host: str, database: str) -> bool:
    """Removes an account, unless it has rights elsewhere; whether it is gone."""
    if (name, host) not in server.accounts():
        return True
    if not host:
        server.run(f"DROP ROLE {identifier(name)}")
        return True
    grantee = f"'{name}'@'{host}'"
    elsewhere = server.ask("SELECT 1 FROM information_schema.schema_privileges WHERE grantee = %s AND table_schema"
                           " <> %s UNION SELECT 1 FROM information_schema.user_privileges WHERE grantee = %s AND"
                           " privilege_type <> 'USAGE'", (grantee, pattern(database)[1:-1], grantee))
    if elsewhere:
        return False
    server.run("DROP USER %s@%s", (name, host))
    return True


class Accounts:
    """Makes the accounts of one database."""

    def __init__(self, server: MySqlServer, making: DatabaseMaking) -> None:
        self._server = server
        self._making = making

    def own(self) -> list[User]:
        """Those that this session has made."""
        own = own_accounts(self._making.restore)
        return [user for user in self._making.database.users if (user.name, user.host) in own]

    def make(self, logins: dict[tuple[str, str], Login]) -> None:
        """Makes those that are not here, and renews those of this session; `logins` are what the dump says of them."""
        here = self._server.accounts()
        own = own_accounts(self._making.restore)
        for user in self._making.database.users:
            key = (user.name, user.host)
            login = logins.get(key, Login(left_out="no statement for it"))
            if not is_allowed(user):
                self._making.name(f"the account {user.name}@{user.host} is left out:"
                                  " its name is one of the server's own")
            elif key not in here:
                self._claim(user, login)
                self._make_account("CREATE", user, login)
            elif key not in own:
                self._making.name(f"the account {user.name}@{user.host} was here before: it keeps its password")
            else:
                is_same = own[key] == _digest(login)
                self._claim(user, login)
                if not is_same and not user.is_role:
                    self._make_account("ALTER", user, login)

    def _claim(self, user: User, login: Login) -> None:
        accounts = self._making.facts.get("accounts", {})
        assert isinstance(accounts, dict)
        self._making.note({"accounts": {**accounts, f"{user.name}\0{user.host}": _digest(login)}})

    def _make_account(self, verb: str, user: User, login: Login) -> None:
        if user.is_role:
            role = identifier(user.name) + (f"@{_quoted(user.host)}" if user.host else "")
            self._server.run(f"CREATE ROLE {role}")
            return
        methods = " OR ".join(_method(plugin, value, self._server.is_mariadb) for plugin, value in login.methods
                              if _is_hash(plugin, value))
        why = login.left_out
        if login.methods and not methods:
            why = "it proves who it is in a way that is not taken over"
        account = f"{_quoted(user.name)}@{_quoted(user.host)}"
        options = "".join(f" {option}" for option in sorted(login.options, key=_place))
        if not why:
            try:
                joint = "VIA" if self._server.is_mariadb else "WITH"
                self._server.run(f"{verb} USER {account}{f' IDENTIFIED {joint} {methods}' if methods else ''}{options}")
                if not methods:
                    self._making.name(f"the account {user.name}@{user.host} has no password, as it had none there")
                return
            except RestoreError as error:
                why = str(error)
        self._making.name(f"the account {user.name}@{user.host} is locked ({why}): give it a password and unlock it by"
                          f" ALTER USER ... IDENTIFIED BY ... ACCOUNT UNLOCK")
        self._server.run(f"{verb} USER {account} ACCOUNT LOCK")


def _quoted(text: str) -> str:
    # No backslash means anything then, whatever the mode of the server.
    return "'" + text.replace("\\", "\\\\").replace("'", "''") + "'"


def _is_hash(plugin: str, value: str) -> bool:
    return plugin in _HASHES and _HASHES[plugin].fullmatch(value) is not None


def _method(plugin: str, value: str, is_mariadb: bool) -> str:
    if not value:
        return plugin
    if value.startswith("0x"):
        return f"{plugin} AS {value}"
    return f"{plugin} {'USING' if is_mariadb else 'AS'} '{value}'"


def _place(option: str) -> int:
    return next((number for number, word in enumerate(("REQUIRE", "WITH", "PASSWORD")) if option.startswith(word)), 3)


def _digest(login: Login) -> str:
    return hashlib.sha256(repr(login).encode("utf-8", "surrogateescape")).hexdigest()

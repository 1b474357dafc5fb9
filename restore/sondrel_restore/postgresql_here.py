"""What the server of PostgreSQL here has, and what it lacks for a database."""
from __future__ import annotations

from sondrel_restore.databases import Database, some
from sondrel_restore.locales import locales_here, plain
from sondrel_restore.postgresql_server import OF_SERVER, PostgreSqlServer, is_allowed
from sondrel_restore.restore import Restore


class Here:
    """What the server here has, asked once."""

    def __init__(self, server: PostgreSqlServer, restore: Restore) -> None:
        self.server = server
        self.databases = server.databases()
        self.roles = server.roles()
        self.extensions = server.extensions()
        self.address = server.address()
        self.locales = restore.answer(locales_here)


def lacking_extensions(here: Here, database: Database) -> list[str]:
    """Those that the database has and the server does not."""
    return sorted({each.get("name") for each in database.element.iterfind("extension")} - here.extensions)


def lacking_locales(here: Here, database: Database) -> list[str]:
    """Those that the database has and this host does not."""
    if (database.text("provider") or "libc") != "libc":
        return []
    return sorted({locale for locale in (database.text("collation"), database.text("ctype"))
                   if plain(locale) not in here.locales})


def why_impossible(here: Here, database: Database) -> str:
    """Why the server cannot have the database, as a sentence on it; empty if it can."""
    server, provider = here.server, database.text("provider") or "libc"
    if OF_SERVER.fullmatch(database.name) or database.name in ("template0", "template1"):
        return "the server keeps a database of this name for itself: load it by hand under another one"
    if not is_allowed(database.name):
        return "its name cannot be given to a database here: load it by hand under another one"
    if len(database.contents) != 1:
        return "its dump was not fetched: dump and fetch it again"
    if not here.address:
        return ("the server takes no connections at 127.0.0.1, by which the role that loads it logs in with its"
                " password: set listen_addresses = 'localhost', as Debian does")
    if provider == "builtin" and server.major < 17:
        return f"PostgreSQL {server.version} here does not know locales of its own: install version 17 or later"
    lacking = [f"the extension {name}" for name in lacking_extensions(here, database)] + [
        f"the locale {name}" for name in lacking_locales(here, database)]
    if lacking:
        return f"this host does not have {some(lacking)}"
    return ""

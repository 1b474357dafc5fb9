"""What the kinds of databases have in common, for all servers."""
from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping, Sequence
from typing import ClassVar, TypeVar

from sondrel_restore.databases import Database, databases, some
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Finding, Item, Kind, Left, State
from sondrel_restore.restore import Restore

# A table as the server names it: its name, or schema and name.
Table = TypeVar("Table", str, tuple[str, str])


def database_of(item: Item) -> Database:
    """The database of an item of a plan."""
    assert isinstance(item.data, Database)
    return item.data


class DatabaseKind(Kind):
    """A kind whose objects are the databases of one kind of server."""

    # Where the server of Debian's package keeps its databases.
    data_directory: ClassVar[str]

    def items(self, wanted: Sequence[Database], state_of: Callable[[Database], tuple[State, str]]) -> Iterator[Item]:
        """The items of a plan. If several databases have one name, only the first can be made."""
        seen: set[str] = set()
        for database in wanted:
            state, says = state_of(database)
            if database.name in seen:
                state, says = State.IMPOSSIBLE, "two servers of the source host have a database of this name"
            seen.add(database.name)
            decisions = (f"--replace={self.name}:{database.name}", f"--skip={self.name}:{database.name}")
            yield self._item(database, state, says, decisions if state in (State.CONFLICT, State.KEPT) else ())

    def selected(self, restore: Restore) -> list[Database]:
        """The databases that are selected and not skipped."""
        items = (self._item(database, State.MAKE) for database in databases(restore.description, self.name))
        return [database_of(item) for item in items
                if restore.selection.takes(item) and not restore.decisions.skip(item.identifier)]

    def _item(self, database: Database, state: State, says: str = "", decisions: tuple[str, ...] = ()) -> Item:
        return Item(self.name, database.name, state, says, decisions, frozenset(filter(None, [database.domain])),
                    frozenset(filter(None, [database.client])), database,
                    space=(self.data_directory, database.bytes()))


def state_of_made(restore: Restore, entry: Entry, database: Database, fingerprint: Callable[[str], str],
                  renewal: str) -> tuple[State, str]:
    """The state of a database that an apply made or began; `renewal` says what a later fetch does to it."""
    if entry.state != "done":
        return State.MAKE, "was begun and broken off: loaded again from the beginning"
    if entry.facts.get("sum") == database.sum():
        return State.SAME, "is as it was fetched, or as it was changed here since"
    if fingerprint(database.name) == entry.facts.get("fingerprint") or restore.decisions.replace(entry.identifier):
        return State.RENEW, renewal
    return State.KEPT, "was changed here since it was loaded, and there is a later one: --replace loads that"


def compared_rows(identifier: str, dump: Mapping[Table, int], here: Mapping[Table, int],
                  name_of: Callable[[Table], str]) -> Iterator[Finding]:
    """Compares the numbers of rows here with those in the dump."""
    missing = sorted(map(name_of, set(dump) - set(here)))
    if missing:
        yield Finding(identifier, "tables", False, f"missing here: {some(missing)}")
    different = [f"{name_of(table)} has {here[table]} rows and not {dump[table]}"
                 for table in sorted(here) if here[table] != dump[table]]
    if different:
        yield Finding(identifier, "rows", False, some(different))
    if not missing and not different:
        yield Finding(identifier, "tables and rows", True, f"{len(dump)} tables, {sum(dump.values())} rows")


def left_out_statements(restore: Restore, identifier: str) -> Iterator[Finding]:
    """Reports the statements of the dump that failed when it was loaded."""
    entry = restore.journal.entry(identifier)
    left_out = entry.facts.get("left_out") if entry else None
    if isinstance(left_out, list) and left_out:
        yield Finding(identifier, "statements", False, f"left out: {some([str(one) for one in left_out])}")


def left_as_changed(entry: Entry, fingerprint: Callable[[str], str]) -> Left | None:
    """What undo reports of a database that was changed here since it was made; None if it was not changed."""
    if entry.state == "done" and fingerprint(entry.name) != entry.facts.get("fingerprint"):
        return Left(entry.identifier, "its rows or definitions were changed here since:"
                    " remove it yourself if you do not want it")
    return None

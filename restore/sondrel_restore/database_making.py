"""What the making of one database has at hand, whatever its server is."""
from __future__ import annotations

from collections.abc import Callable, Mapping

from sondrel_restore.database_kind import Table, database_of
from sondrel_restore.databases import some
from sondrel_restore.kind import Facts, Item, RestoreError
from sondrel_restore.restore import Restore


class DatabaseMaking:
    """One apply of one database: `facts` are those that the journal has of it, with what was noted since."""

    def __init__(self, restore: Restore, item: Item) -> None:
        self.restore = restore
        self.database = database_of(item)
        self._identifier = item.identifier
        entry = restore.journal.entry(item.identifier)
        self.facts: Facts = dict(entry.facts) if entry else {}
        # Statements and tables of the dump that are not here, each with the reason.
        self.left_out: list[str] = []

    def note(self, facts: Facts) -> None:
        """Adds facts to those of the database, at once in the journal, too."""
        self.facts.update(facts)
        self.restore.journal.note(self._identifier, facts)

    def name(self, text: str) -> None:
        """Tells the administrator what of the database is not as it was."""
        self.restore.name(self._identifier, text)

    def check_rows(self, dump: Mapping[Table, int], here: Mapping[Table, int], name_of: Callable[[Table], str]) -> None:
        """RestoreError if a table here has fewer rows than the dump."""
        wrong = [f"{name_of(table)} has {here.get(table, 0)} rows and not {count}"
                 for table, count in sorted(dump.items()) if here.get(table, 0) < count]
        if wrong:
            errors = f"; the server said: {some(self.left_out)}" if self.left_out else ""
            raise RestoreError(f"Not all of the dump could be loaded: {some(wrong)}{errors}")

    def name_left_out(self) -> None:
        """Tells the administrator what failed of the dump, if anything did."""
        if self.left_out:
            self.name(f"{len(self.left_out)} statements of the dump failed and are left out: {some(self.left_out)}")

"""What the making of one database has at hand, whatever its server is."""
from __future__ import annotations

from sondrel_restore.database_kind import database_of
from sondrel_restore.kind import Facts, Item
from sondrel_restore.restore import Restore


class DatabaseMaking:
    """One apply of one database: `facts` are those that the journal has of it, with what was noted since."""

    def __init__(self, restore: Restore, item: Item) -> None:
        self.restore = restore
        self.database = database_of(item)
        self._identifier = item.identifier
        entry = restore.journal.entry(item.identifier)
        self.facts: Facts = dict(entry.facts) if entry else {}

    def note(self, facts: Facts) -> None:
        """Adds facts to those of the database, at once in the journal, too."""
        self.facts.update(facts)
        self.restore.journal.note(self._identifier, facts)

    def name(self, text: str) -> None:
        """Tells the administrator what of the database is not as it was."""
        self.restore.name(self._identifier, text)

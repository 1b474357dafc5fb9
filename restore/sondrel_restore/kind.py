"""What a kind of object is to the core: the verbs that every module of `kinds/` has.

No module of `kinds/` imports another one. What one kind makes and another one needs (the account here of an
account there, the socket of a pool, the directories that were restored) goes through `Restore.offer`.
"""
from __future__ import annotations

import abc
import dataclasses
import enum
from collections.abc import Iterator
from typing import TYPE_CHECKING, ClassVar

if TYPE_CHECKING:
    from sondrel_restore.journal import Entry
    from sondrel_restore.restore import Restore

# What the journal keeps: plain values that JSON can hold, and no password.
Facts = dict[str, object]


class State(enum.Enum):
    """What an apply does with an object, as a plan says it."""

    MAKE = "make"  # it is not here
    SAME = "same"  # it is here, as it should be: nothing to do
    RENEW = "renew"  # an earlier apply made it, and the fetched one differs from that
    CONFLICT = "conflict"  # something else of that name is here: needs a decision
    KEPT = "kept"  # an earlier apply made it, and somebody changed it here: it stays, and is named
    NEEDS_PACKAGE = "needs package"  # it is made when a package is here that `missing` names
    LISTED = "listed"  # no restore makes it: it is the administrator's; `says` tells what to do
    IMPOSSIBLE = "impossible"  # this host cannot have it; `says` tells why, and what to do


@dataclasses.dataclass(frozen=True)
class Item:
    """One object in a plan.

    `kind` and `name` together are its identifier, "site:a.example", which `--replace` and `--skip` take, and
    by which the journal knows it: it is the same for each run. `says` is one sentence for a person: what is
    made, or what is in the way, or why it cannot be made. `decisions` are the options, ready to be copied,
    one of which resolves a conflict. `domains` and `clients` are those that it belongs to; a selection takes an
    object of which one is selected. One without any is taken where something that is selected asks for it.
    `data` is what the kind itself wants to find again in `apply`; the core does not look at it. `package` is one that
    the object is a part of: where an apply installs it, what it brings may be overwritten. `space` is what it takes
    when it is made: a path and bytes.
    """

    kind: str
    name: str
    state: State
    says: str
    decisions: tuple[str, ...] = ()
    domains: frozenset[str] = frozenset()
    clients: frozenset[str] = frozenset()
    data: object = None
    package: str = ""
    space: tuple[str, int] | None = None

    @property
    def identifier(self) -> str:
        return f"{self.kind}:{self.name}"


@dataclasses.dataclass(frozen=True)
class Missing:
    """A package that this host lacks, or a note of something that no package brings (`package` empty)."""

    package: str
    because: str


@dataclasses.dataclass(frozen=True)
class Finding:
    """What `verify` says of one object or one of its parts: the same, or how it differs."""

    identifier: str
    what: str
    is_same: bool
    says: str = ""


@dataclasses.dataclass(frozen=True)
class Left:
    """What `undo` does not take back, and why."""

    identifier: str
    says: str


class Kind(abc.ABC):
    """One kind of object. An instance lives for one run and holds no state that a rerun would need.

    Errors that a person can do something about are `RestoreError`; the core names the object, goes on with what
    does not need it, and ends with a failure.
    """

    name: ClassVar[str]

    @abc.abstractmethod
    def plan(self, restore: Restore) -> Iterator[Item]:
        """Each object of this kind in the description, held against this host and the journal. Changes nothing."""

    def missing(self, restore: Restore) -> Iterator[Missing]:  # pylint: disable=unused-argument
        """What this host needs for the selected objects and does not have. Changes nothing."""
        return iter(())

    @abc.abstractmethod
    def apply(self, restore: Restore, item: Item) -> Facts:
        """Makes or renews it; what was begun and broken off is finished or begun anew.

        Called for MAKE and RENEW, and for a CONFLICT that the person decided by `--replace`. The core has
        journaled the beginning. Returns what `plan` and `undo` need in order to see whether somebody changed it
        since: sums, numbers, names.
        """

    def finish(self, restore: Restore, changed: list[Item]) -> None:
        """After all objects of this kind: checks of a server, reloads. Not called when nothing changed."""

    @abc.abstractmethod
    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        """Holds what is here against what was fetched. Changes nothing."""

    @abc.abstractmethod
    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        """Takes back what `apply` made, if nobody changed it since; None when it is gone."""


class RestoreError(Exception):
    """Something that went wrong, said for a person: what, with which file or command, and what to do."""

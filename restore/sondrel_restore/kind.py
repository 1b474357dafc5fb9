"""The interface between the core and the kinds of objects: the verbs that every module of `kinds/` implements.

No module of `kinds/` imports another one. What one kind makes and another one needs (the name here of an account
there, the socket of a pool, the restored directories) goes through `Restore.offer`.
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

# What the journal keeps: plain values for JSON, and never a password.
Facts = dict[str, object]


class State(enum.Enum):
    """What an apply does with an object, as a plan reports it."""

    MAKE = "make"  # it is not here
    SAME = "same"  # it is here and as it should be: nothing to do
    RENEW = "renew"  # an earlier apply made it, and the fetched one differs from it
    CONFLICT = "conflict"  # an object of that name is here that no apply made: needs a decision
    KEPT = "kept"  # an earlier apply made it, and it was changed here since: it stays, and is reported
    NEEDS_PACKAGE = "needs package"  # apply makes it once a package is here that `missing` names
    LISTED = "listed"  # never restored, left to the administrator; `says` tells what to do
    IMPOSSIBLE = "impossible"  # this host cannot have it; `says` tells why, and what to do


@dataclasses.dataclass(frozen=True)
class Item:
    """One object in a plan.

    `kind` and `name` together are its identifier, "site:a.example". `--replace`, `--skip` and the journal use it, so it
    is the same in each run. `says` is one sentence for a person: what is made, what is in the way, or why it cannot be
    made. `decisions` are options, ready to be copied; one of them resolves a conflict. `domains` and `clients` are
    those that the object belongs to; a selection takes an object if it takes one of them. An object without any is
    taken if a selected object needs it.
    `data` belongs to the kind, for use in `apply`; the core does not look at it. `package` is the package that the
    object is part of: if an apply installs that package, it may overwrite the package's files. `space` is what the
    object needs when it is made: a path and bytes.
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
    """A package that this host lacks. If `package` is empty, no package provides what is missing."""

    package: str
    because: str


@dataclasses.dataclass(frozen=True)
class Finding:
    """What `verify` reports of one object or a part of it: that it is the same, or how it differs."""

    identifier: str
    what: str
    is_same: bool
    says: str = ""


@dataclasses.dataclass(frozen=True)
class Left:
    """What `undo` leaves in place, and why."""

    identifier: str
    says: str


class Kind(abc.ABC):
    """One kind of object. An instance lives for one run and holds no state that a rerun would need.

    A verb raises `RestoreError` for errors that a person can act on. The core reports the object and goes on with the
    others; the run then ends with a failure.
    """

    name: ClassVar[str]

    @abc.abstractmethod
    def plan(self, restore: Restore) -> Iterator[Item]:
        """Yields each object of this kind in the description, and its state on this host. Changes nothing."""

    def missing(self, restore: Restore) -> Iterator[Missing]:  # pylint: disable=unused-argument
        """Yields what the selected objects need and this host lacks. Changes nothing."""
        return iter(())

    @abc.abstractmethod
    def apply(self, restore: Restore, item: Item) -> Facts:
        """Makes or renews the object. One that an interrupted run began is finished or made again.

        Called for MAKE and RENEW, and for a CONFLICT that `--replace` decided. The core has journaled the beginning.
        Returns what `plan` and `undo` need to detect later changes: sums, numbers, names.
        """

    def finish(self, restore: Restore, changed: list[Item]) -> None:
        """Runs after all objects of this kind: checks and reloads a server. Not called if nothing changed."""

    @abc.abstractmethod
    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        """Compares what is here with what was fetched. Changes nothing."""

    @abc.abstractmethod
    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        """Removes what `apply` made unless it was changed since. None when it is gone, else what stays and why."""


class RestoreError(Exception):
    """An error for a person: what went wrong, with which file or command, and what to do."""

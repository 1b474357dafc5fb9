"""The context that every verb of a kind gets, and the loops over all kinds: plan, apply, verify, undo."""
from __future__ import annotations

import contextlib
import dataclasses
from collections.abc import Callable, Hashable, Iterator, Mapping, Sequence
from pathlib import Path
from typing import TypeVar, cast

from sondrel_restore.archives import Archive, FollowedArchive, Increment
from sondrel_restore.description import Description, Element
from sondrel_restore.host import Host
from sondrel_restore.journal import Journal
from sondrel_restore.kind import Finding, Item, Kind, Left, Missing, RestoreError, State
from sondrel_restore.progress import Progress
from sondrel_restore.selection import Decisions, Selection
from sondrel_restore.session import Session
from sondrel_restore.space import missing_space


# For an archive that has increments: the source host no longer has a part that was fetched once.
_REMEDY = "dump and fetch it whole (sondrel-migrate --from=dump --full)"

Answer = TypeVar("Answer")


class Restore:
    """The context that every verb of a kind gets. Lives for one run."""

    def __init__(self, session: Session, description: Description, selection: Selection,
                 decisions: Decisions, *, against: str = "") -> None:
        self.session = session
        self.description = description
        self.selection = selection
        self.decisions = decisions
        # The address of the live source host for verify. Empty: compare with the description.
        self.against = against
        self.host = Host()
        self.journal = Journal(session.journal_directory)
        self.progress = Progress()
        self._answers: dict[tuple[Hashable, ...], object] = {}
        self._offers: dict[str, dict[str, object]] = {}
        self._archives: dict[str, Archive] = {}
        self._named: list[tuple[str, str]] = []

    def answer(self, ask: Callable[..., Answer], *about: Hashable) -> Answer:
        """What `ask(host, *about)` finds on this host, for all kinds. Callers must not change it.

        It is asked once, and again only after something was made or removed here.
        """
        question = (ask, *about)
        if question not in self._answers:
            self._answers[question] = ask(self.host, *about)
        return cast(Answer, self._answers[question])

    def forget_answers(self) -> None:
        """For what changes this host: the next `answer` asks again."""
        self._answers.clear()

    def offer(self, fact: str, key: str, value: object) -> None:
        """Offers a fact to later kinds. `plan` calls it, so that their plans know what is here or will be.

        Facts of the core: "account" (name there -> name here), "group" (the same), "tree" (path of a directory that is
        or will be restored -> name of the account here that owns it).
        """
        self._offers.setdefault(fact, {})[key] = value

    def offered(self, fact: str) -> Mapping[str, object]:
        """What was offered so far, by key."""
        return self._offers.get(fact, {})

    def name(self, identifier: str, text: str) -> None:
        """Notes what a person must know about an object that is otherwise finished: left out, dropped, kept.

        The notes are shown at the end of an apply, in the order of the calls.
        """
        self._named.append((identifier, text))

    @property
    def named(self) -> Sequence[tuple[str, str]]:
        """The notes so far: identifiers and texts."""
        return self._named

    def archive(self, content: Element) -> Archive:
        """The archive of an element `content`, with its increments. Size and sum are checked at the first reading."""
        file = str(content.get("file"))
        if file not in self._archives:
            increments = [self._increment(element) for element in content.iterfind("increment")]
            if increments:
                base = Archive(*self._facts_of(content), remedy=_REMEDY)
                self._archives[file] = FollowedArchive(base, increments)
            else:
                self._archives[file] = Archive(*self._facts_of(content))
        return self._archives[file]

    def _increment(self, element: Element) -> Increment:
        gone = element.find("gone")
        return Increment(*self._facts_of(element), remedy=_REMEDY,
                         gone=None if gone is None else Archive(*self._facts_of(gone), remedy=_REMEDY))

    def _facts_of(self, element: Element) -> tuple[Path, int, str, int]:
        return (self.session.archives / str(element.get("file")), int(element.get("size")),
                str(element.get("md5sum")), int(element.get("unpacked")))


@dataclasses.dataclass
class Plan:
    """The result of planning: the objects in the order of apply, and what this host lacks."""

    items: list[Item]
    missing: list[Missing]

    def undecided(self) -> list[Item]:
        """The conflicts that no option has decided."""
        return [item for item in self.items if item.state is State.CONFLICT]

    @property
    def is_ready(self) -> bool:
        """Whether it can be applied without further decisions or packages."""
        return not self.undecided() and not self.missing


@dataclasses.dataclass
class Outcome:
    """The result of an apply or undo: what was done, and what failed with the reason."""

    changed: list[str] = dataclasses.field(default_factory=list)
    failed: list[tuple[str, str]] = dataclasses.field(default_factory=list)
    left: list[Left] = dataclasses.field(default_factory=list)
    # What cannot be made here, with the reason.
    impossible: list[tuple[str, str]] = dataclasses.field(default_factory=list)


def plan_kind(restore: Restore, kind: Kind, known: set[str] | None = None) -> Iterator[Item]:
    """Yields the selected objects of a kind. A conflict that --replace decided is changed to MAKE.

    Adds to `known` the identifiers of all objects of the kind, also of those that are not selected.
    """
    for item in kind.plan(restore):
        if known is not None:
            known.add(item.identifier)
        restore.progress.show(f"looking at {item.kind} {item.name}")
        if not restore.selection.takes(item) or restore.decisions.skip(item.identifier):
            continue
        if item.state is State.CONFLICT and restore.decisions.replace(item.identifier):
            item = dataclasses.replace(item, state=State.MAKE)
        yield item


def make_plan(restore: Restore, kinds: Sequence[Kind]) -> Plan:
    """Plans all kinds. Changes nothing. RestoreError if an option names an unknown object."""
    items: list[Item] = []
    missing: list[Missing] = []
    known = {f"package:{package.get('name')}" for package in restore.description.tree.iterfind(".//site/package")}
    for kind in kinds:
        items += plan_kind(restore, kind, known)
        missing += kind.missing(restore)
    missing += missing_space(items, lambda identifier: restore.journal.entry(identifier) is not None)
    known |= {f"package:{each.package}" for each in missing}
    unknown = sorted((restore.decisions.replaced | restore.decisions.skipped) - known)
    if unknown:
        raise RestoreError(f"No object of the plan is {', '.join(unknown)}: `plan` has their names")
    return Plan(items, [each for each in missing if not restore.decisions.skip(f"package:{each.package}")])


def apply_plan(restore: Restore, kinds: Sequence[Kind], plan: Plan) -> Outcome:
    """Makes what the plan says. The journal must be locked. A failure is recorded, and the other objects go on."""
    outcome = Outcome()
    total = len(plan.items)
    number = 0
    for kind in kinds:
        # Plan again if an earlier kind made something: this kind may find another state now.
        items = list(plan_kind(restore, kind)) if outcome.changed else [
            item for item in plan.items if item.kind == kind.name]
        changed: list[Item] = []
        for item in items:
            number += 1
            restore.progress.show(f"{number} of {total}, {item.kind} {item.name}")
            if item.state in (State.MAKE, State.RENEW):
                if _apply_item(restore, kind, item, outcome):
                    changed.append(item)
            elif item.state is State.CONFLICT:
                outcome.failed.append((item.identifier, item.says))
            elif item.state in (State.IMPOSSIBLE, State.NEEDS_PACKAGE):
                outcome.impossible.append((item.identifier, item.says))
        _finish(restore, kind, items, outcome)
    return outcome


def _apply_item(restore: Restore, kind: Kind, item: Item, outcome: Outcome) -> bool:
    restore.journal.begin(item)
    with _changing(restore, item.identifier, outcome):
        facts = kind.apply(restore, item)
        restore.journal.done(item, facts)
        outcome.changed.append(item.identifier)
        return True
    return False


def text_of(error: OSError) -> str:
    """The path and the reason of an error of the system, for a person."""
    place = f"{error.filename}: " if error.filename else ""
    return f"{place}{error.strerror or error}"


@contextlib.contextmanager
def _changing(restore: Restore, identifier: str, outcome: Outcome) -> Iterator[None]:
    """For a change of this host: its earlier answers count no longer, and a failure is recorded."""
    restore.forget_answers()
    try:
        yield
    except RestoreError as error:
        outcome.failed.append((identifier, str(error)))
    except OSError as error:
        outcome.failed.append((identifier, text_of(error)))
    finally:
        restore.forget_answers()


def _finish(restore: Restore, kind: Kind, items: Sequence[Item], outcome: Outcome) -> None:
    """Calls `finish` if it is due, also for objects of an earlier run that was killed before it."""
    due = restore.journal.finish_due(kind.name)
    if not due:
        return
    with _changing(restore, kind.name, outcome):
        kind.finish(restore, [item for item in items if item.identifier in due])
        restore.journal.finished(kind.name)


def verify_items(restore: Restore, kinds: Sequence[Kind], plan: Plan) -> Iterator[Finding]:
    """Compares each object of the plan with what was fetched."""
    for kind in kinds:
        for item in plan.items:
            if item.kind != kind.name or item.state is State.LISTED:
                continue
            restore.progress.show(f"verifying {item.kind} {item.name}")
            entry = restore.journal.entry(item.identifier)
            if item.state in (State.IMPOSSIBLE, State.NEEDS_PACKAGE) or (
                    entry is None and item.state is not State.SAME):
                yield Finding(item.identifier, "here", False, f"was not restored: {item.says}")
                continue
            try:
                yield from kind.verify(restore, item)
            except RestoreError as error:
                yield Finding(item.identifier, "here", False, str(error))
            except OSError as error:
                yield Finding(item.identifier, "here", False, text_of(error))


def _selected_entries(restore: Restore, kinds: Sequence[Kind]) -> set[str]:
    """The identifiers of the objects that are selected as a whole."""
    return {item.identifier for kind in kinds for item in plan_kind(restore, kind)
            if restore.selection.takes_whole(item)}


def undo_all(restore: Restore, kinds: Sequence[Kind]) -> Outcome:
    """Removes the selected objects of the journal, the last kind first. The journal must be locked.

    With a selection, objects stay that also belong to what is not selected, or that the description no longer has.
    """
    outcome = Outcome()
    selected = None if restore.selection.is_all else _selected_entries(restore, kinds)
    # In reverse order, because objects of later kinds use those of earlier ones.
    for kind in reversed(kinds):
        for entry in reversed(restore.journal.entries(kind.name)):
            if restore.decisions.skip(entry.identifier) or selected is not None and entry.identifier not in selected:
                continue
            restore.progress.show(f"taking back {entry.kind} {entry.name}")
            with _changing(restore, entry.identifier, outcome):
                left = kind.undo(restore, entry)
                if left is None:
                    restore.journal.undone(entry)
                    outcome.changed.append(entry.identifier)
                else:
                    outcome.left.append(left)
        _finish(restore, kind, [], outcome)
    return outcome

"""Kinds whose objects are configuration files of a server.

`finish` puts all of them into effect together: it makes the links, runs the server's own check, reverts what the check
rejects, and reloads the server. No server reloads between `apply` and `finish`.
"""
from __future__ import annotations

import abc
import dataclasses
import os
from collections.abc import Iterable, Iterator, Mapping

from sondrel_restore.hostfiles import (atomic_write, content_here, make_directories, make_link, remove_file,
                                       sum_of_bytes)
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Item, Kind, Left, RestoreError, State
from sondrel_restore.restore import Restore


_OWN_DIRECTORIES = ("/etc/sondrel-restore", "/etc/nginx/sondrel-definitions")


@dataclasses.dataclass(frozen=True)
class Candidate:
    """What an object would be here: files with their content and modes, and links to them.

    `conflict` and `impossible` say why it cannot be made; `disables` are links of other files that must be removed for
    it. `shared` are those of the files that other objects may use, too. `notes` are shown when the object is made.
    """

    name: str
    says: str
    files: Mapping[str, bytes]
    links: Mapping[str, str] = dataclasses.field(default_factory=dict)
    modes: Mapping[str, int] = dataclasses.field(default_factory=dict)
    shared: frozenset[str] = frozenset()
    conflict: str = ""
    impossible: str = ""
    disables: frozenset[str] = frozenset()
    domains: frozenset[str] = frozenset()
    clients: frozenset[str] = frozenset()
    notes: tuple[str, ...] = ()
    facts: Facts = dataclasses.field(default_factory=dict)


class ConfigKind(Kind):
    """Implements plan, apply, finish and undo for objects that are `Candidate`s."""

    def __init__(self) -> None:
        # The objects whose links are removed while `_one_by_one` looks for the rejected ones.
        self._pending: set[str] = set()

    @abc.abstractmethod
    def candidates(self, restore: Restore) -> Iterator[Candidate]:
        """Yields what the objects of the description would be here. Changes nothing."""

    @abc.abstractmethod
    def check(self, restore: Restore) -> str:
        """Why the server rejects its present configuration; empty if it accepts it."""

    @abc.abstractmethod
    def reload(self, restore: Restore, entries: list[Entry]) -> None:
        """Makes the server reload its configuration; `entries` are all objects that this kind has made."""

    def planned(self, restore: Restore, candidate: Candidate) -> None:
        """Called in `plan` for each selected object that is or will be here, to make offers to later kinds."""

    def plan(self, restore: Restore) -> Iterator[Item]:
        for candidate in self.candidates(restore):
            item = self._item(restore, candidate)
            takes = restore.selection.takes(item) and not restore.decisions.skip(item.identifier)
            if takes and item.state is not State.IMPOSSIBLE and (
                    item.state is not State.CONFLICT or restore.decisions.replace(item.identifier)):
                self.planned(restore, candidate)
            yield item

    def _item(self, restore: Restore, candidate: Candidate) -> Item:
        identifier = f"{self.name}:{candidate.name}"
        try:
            state, why = self._state(restore, candidate, restore.journal.entry(identifier))
        except RestoreError as error:
            state, why = State.IMPOSSIBLE, str(error)
        decisions = (f"--replace={identifier}", f"--skip={identifier}") if state is State.CONFLICT else ()
        return Item(self.name, candidate.name, state, why or candidate.says, decisions,
                    candidate.domains, candidate.clients, candidate)

    def _state(self, restore: Restore, candidate: Candidate, entry: Entry | None) -> tuple[State, str]:
        if entry is None or entry.state != "done":
            return self._state_of_new(restore, candidate, entry)
        own = sums(entry)
        changed = [path for path, known in own.items() if _sum_here(path) not in (known, self._wanted(candidate, path))]
        gone = [link for link in links(entry) if not os.path.islink(link)]
        if gone and entry.identifier not in restore.journal.finish_due(self.name):
            changed += gone
        if changed:
            return State.KEPT, f"{', '.join(sorted(changed))} was changed here since; it stays as it is"
        if candidate.impossible:
            return State.IMPOSSIBLE, candidate.impossible
        if own == {path: sum_of_bytes(content) for path, content in candidate.files.items()}:
            return State.SAME, ""
        return State.RENEW, candidate.says

    @staticmethod
    def _wanted(candidate: Candidate, path: str) -> str:
        return sum_of_bytes(candidate.files[path]) if path in candidate.files else ""

    @staticmethod
    def _state_of_new(_restore: Restore, candidate: Candidate, entry: Entry | None) -> tuple[State, str]:
        if candidate.impossible:
            return State.IMPOSSIBLE, candidate.impossible
        if candidate.conflict:
            return State.CONFLICT, candidate.conflict
        begun = sums(entry) if entry is not None else {}
        for path, content in candidate.files.items():
            here = _sum_here(path)
            if here and here != sum_of_bytes(content) and here != begun.get(path):
                return State.CONFLICT, f"{path} is here already, and no apply of this session has made it"
        for link, target in candidate.links.items():
            if os.path.lexists(link) and not (os.path.islink(link) and os.readlink(link) == target):
                return State.CONFLICT, f"{link} is here already, and no apply of this session has made it"
        return State.MAKE, candidate.says

    def apply(self, restore: Restore, item: Item) -> Facts:
        candidate = item.data
        assert isinstance(candidate, Candidate)
        entry = restore.journal.entry(item.identifier)
        earlier = sums(entry) if entry is not None else {}
        facts: Facts = {
            **candidate.facts, "files": {path: sum_of_bytes(content) for path, content in candidate.files.items()},
            "links": dict(candidate.links), "disabled": self._disable(restore, item.identifier, candidate),
            "shared": sorted(candidate.shared), "needs_off": sorted(candidate.disables),
        }
        self._keep_before(restore, item.identifier, earlier, candidate)
        restore.journal.note(item.identifier, {
            "files": {**earlier, **{path: sum_of_bytes(content) for path, content in candidate.files.items()}},
            "links": dict(candidate.links), "needs_off": sorted(candidate.disables)})
        for path, content in candidate.files.items():
            make_directories(os.path.dirname(path), mode=0o755, uid=0, gid=0)
            atomic_write(path, content, mode=candidate.modes.get(path, 0o644), uid=0, gid=0)
        for path in earlier.keys() - candidate.files.keys():
            if not self._others_have(restore, item.identifier, path):
                remove_file(path)
        for note in candidate.notes:
            restore.name(item.identifier, note)
        return facts

    def _disable(self, restore: Restore, identifier: str, candidate: Candidate) -> dict[str, str]:
        entry = restore.journal.entry(identifier)
        disabled = switched_off(entry) if entry is not None else {}
        for link in sorted(candidate.disables):
            if link in disabled or not os.path.lexists(link):
                continue
            if not os.path.islink(link):
                raise RestoreError(
                    f"{link} serves the name already and is no link that could be taken away: change it by hand")
            disabled[link] = os.readlink(link)
            restore.journal.note(identifier, {"disabled": disabled})
            remove_file(link)
        return disabled

    def _keep_before(self, restore: Restore, identifier: str, earlier: Mapping[str, str], candidate: Candidate) -> None:
        """Saves the main file as it was, in case the server rejects the new one."""
        main = next(iter(candidate.files))
        here = content_here(main)
        if here is None or here == candidate.files[main]:
            return
        kept = restore.journal.side_file(identifier, "before" if main in earlier else "replaced")
        if content_here(kept) is None:
            atomic_write(kept, here, mode=0o600, uid=0, gid=0)

    def _others_have(self, restore: Restore, identifier: str, path: str) -> bool:
        return any(path in sums(entry) for entry in restore.journal.entries(self.name)
                   if entry.identifier != identifier)

    def finish(self, restore: Restore, changed: list[Item]) -> None:
        entries = [entry for item in changed
                   if (entry := restore.journal.entry(item.identifier)) is not None and entry.state == "done"]
        failed = self._go_live(restore, entries)
        # If the check still fails, this host's own configuration is the reason: then the running server is left alone.
        if not failed or not self.check(restore):
            self.reload(restore, [each for each in restore.journal.entries(self.name) if each.state == "done"])
        for entry in entries:
            remove_file(restore.journal.side_file(entry.identifier, "before"))
        if failed:
            raise RestoreError("refused by the server's own check, put back: " + "; ".join(
                f"{identifier.partition(':')[2]} ({why})" for identifier, why in failed))

    def _go_live(self, restore: Restore, entries: list[Entry]) -> list[tuple[str, str]]:
        """Makes the links; returns the objects that the server rejected, with its reasons, after reverting them."""
        for entry in entries:
            self._enable(entry)
        failed: list[tuple[str, str]] = []
        left = list(entries)
        while (why := self.check(restore)):
            guilty = [entry for entry in left if any(path in why for path in (*sums(entry), *links(entry)))]
            if len(guilty) != 1:
                return failed + self._one_by_one(restore, left, why)
            self._put_back(restore, guilty[0])
            failed.append((guilty[0].identifier, why))
            left.remove(guilty[0])
        return failed

    def _one_by_one(self, restore: Restore, entries: list[Entry], why: str) -> list[tuple[str, str]]:
        """Finds the rejected objects by enabling one after the other, if the server's message does not name one."""
        self._pending = {entry.identifier for entry in entries}
        for entry in entries:
            self._disable_links(restore, entry)
        own = self.check(restore)
        if own:
            for entry in entries:
                self._put_back(restore, entry)
            self._pending = set()
            return [(entry.identifier, f"this host's own configuration is refused without it, too: {own}")
                    for entry in entries] or [(f"{self.name}:configuration", why)]
        failed = []
        for entry in entries:
            self._pending.discard(entry.identifier)
            self._enable(entry)
            refusal = self.check(restore)
            if refusal:
                self._put_back(restore, entry)
                failed.append((entry.identifier, refusal))
        return failed

    def _enable(self, entry: Entry) -> None:
        for link, target in links(entry).items():
            make_directories(os.path.dirname(link), mode=0o755, uid=0, gid=0)
            make_link(link, target)

    def _disable_links(self, restore: Restore, entry: Entry) -> None:
        """Removes the object's links, but for those that another enabled object needs."""
        others = [other for other in restore.journal.entries(self.name)
                  if other.identifier not in self._pending | {entry.identifier}]
        for link in links(entry):
            if not any(link in links(other) for other in others):
                remove_file(link)

    def _put_back(self, restore: Restore, entry: Entry) -> None:
        """Reverts the object to its state before this apply: an earlier version, the replaced file, or nothing."""
        before = content_here(restore.journal.side_file(entry.identifier, "before"))
        main = next(iter(sums(entry)))
        if before is not None:
            atomic_write(main, before, mode=0o644, uid=0, gid=0)
            restore.journal.note(entry.identifier, {"files": {**sums(entry), main: sum_of_bytes(before)}})
            self._enable(entry)
            return
        self._remove(restore, entry, sums(entry))
        restore.journal.undone(entry)

    def _remove(self, restore: Restore, entry: Entry, paths: Iterable[str]) -> None:
        self._disable_links(restore, entry)
        for path in paths:
            if not self._others_have(restore, entry.identifier, path):
                remove_file(path)
        replaced = content_here(restore.journal.side_file(entry.identifier, "replaced"))
        if replaced is not None:
            atomic_write(next(iter(sums(entry))), replaced, mode=0o644, uid=0, gid=0)
            remove_file(restore.journal.side_file(entry.identifier, "replaced"))
        for link, target in switched_off(entry).items():
            other = self._other_that_needs_off(restore, entry, link)
            if other is not None:
                # The undo of that object makes the link again.
                restore.journal.note(other.identifier, {"disabled": {**switched_off(other), link: target}})
            elif not os.path.lexists(link):
                make_link(link, target)

    def _other_that_needs_off(self, restore: Restore, entry: Entry, link: str) -> Entry | None:
        """Another object that could not be in effect with the link; None if there is none."""
        for other in restore.journal.entries(self.name):
            needed = other.facts.get("needs_off")
            if other.identifier != entry.identifier and isinstance(needed, list) and link in needed:
                return other
        return None

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        changed = [path for path, known in sums(entry).items() if _sum_here(path) not in ("", known)]
        if changed:
            return Left(entry.identifier, f"{', '.join(changed)} was changed here since")
        self._remove(restore, entry, sums(entry))
        for path in sums(entry):
            _remove_empty(os.path.dirname(path))
        return None


def _remove_empty(directory: str) -> None:
    """Removes a directory and its parents while they are empty and belong to this program."""
    while directory.startswith(_OWN_DIRECTORIES):
        try:
            os.rmdir(directory)
        except OSError:
            return
        directory = os.path.dirname(directory)


def _sum_here(path: str) -> str:
    content = content_here(path)
    return "" if content is None else sum_of_bytes(content)


def sums(entry: Entry) -> dict[str, str]:
    """The files that an entry has made, with their sums. The main file comes first."""
    return _paths(entry, "files")


def links(entry: Entry) -> dict[str, str]:
    """The links that an entry has made, with their targets."""
    return _paths(entry, "links")


def switched_off(entry: Entry) -> dict[str, str]:
    """The links of other files that were removed for an entry, with their targets."""
    return _paths(entry, "disabled")


def _paths(entry: Entry, fact: str) -> dict[str, str]:
    found = entry.facts.get(fact)
    return {str(path): str(text) for path, text in found.items()} if isinstance(found, dict) else {}

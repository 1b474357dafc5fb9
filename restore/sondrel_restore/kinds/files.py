"""Files of clients and sites. Each archive is one object, because several domains may share it."""
from __future__ import annotations

import dataclasses
import os
import re
from collections.abc import Iterator

from sondrel_restore.accepted import is_vacant, why_not, why_not_owners
from sondrel_restore.description import Element, archive_sum_of, is_below, unpacked_of
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, State
from sondrel_restore.restore import Restore
from sondrel_restore.unpacked import remove_unpacked, verify_unpacked
from sondrel_restore.unpacking import unpack
from sondrel_restore.web.own_roots import OwnRoots

# Other kinds restore what is below these.
_OF_OTHER_KINDS = ("/etc/cron.d", "/etc/systemd", "/var/spool/cron", "/etc/nginx", "/etc/apache2", "/etc/php",
                   "/etc/letsencrypt")
# In bytes. A plan does not compare a larger archive with the files here.
_LARGEST_COMPARED = 64 << 20


@dataclasses.dataclass
class _Archived:
    """An archive, with what the description says about it."""

    content: Element
    name: str
    owner: str
    roots: set[str] = dataclasses.field(default_factory=set)
    # The clients and domains that the archive belongs to.
    clients: set[str] = dataclasses.field(default_factory=set)
    domains: set[str] = dataclasses.field(default_factory=set)
    # Paths that are not restored, with the reason.
    refused: dict[str, str] = dataclasses.field(default_factory=dict)


class FilesKind(Kind):
    """Unpacks the archives of clients and sites."""

    name = "files"

    def plan(self, restore: Restore) -> Iterator[Item]:
        own_roots = OwnRoots(restore)
        found: dict[str, _Archived] = {}
        # A client's home comes before the sites in it.
        for archived in [*_of_clients(restore), *_of_sites(restore)]:
            known = found.setdefault(archived.name, archived)
            known.roots |= archived.roots
            known.clients |= archived.clients
            known.domains |= archived.domains
        for archived in found.values():
            if archived.roots:
                yield self._item(restore, archived, own_roots)

    def _item(self, restore: Restore, archived: _Archived, own_roots: OwnRoots) -> Item:
        state, says, decisions = _state(restore, archived, f"{self.name}:{archived.name}", own_roots)
        item = Item(self.name, archived.name, state, says, decisions, frozenset(archived.domains),
                    # A selected domain takes its own archive; a selected client takes all its archives.
                    frozenset(archived.clients), archived, space=(min(archived.roots), unpacked_of(archived.content)))
        if state is not State.IMPOSSIBLE and restore.selection.takes(item) and not restore.decisions.skip(
                item.identifier):
            for root in archived.roots:
                restore.offer("tree", root, restore.decisions.account_here(archived.owner))
        return item

    def apply(self, restore: Restore, item: Item) -> Facts:
        archived = item.data
        assert isinstance(archived, _Archived)
        owner = restore.decisions.account_here(archived.owner)
        facts = unpack(restore, item.identifier, [restore.archive(archived.content)], archived.roots, owner)
        for path, why in archived.refused.items():
            restore.name(item.identifier, f"{path} is left out: {why}")
        return {**facts, "source": _source(archived, owner), "roots": sorted(archived.roots)}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        archived = item.data
        assert isinstance(archived, _Archived)
        yield from verify_unpacked(
            restore, item.identifier, [restore.archive(archived.content)], archived.roots)

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        return remove_unpacked(restore, entry)


def _source(archived: _Archived, owner: str) -> str:
    return f"{archive_sum_of(archived.content)} {owner} {' '.join(sorted(archived.roots))}"


def _name_of(content: Element) -> str:
    """The object's name: `sites/a.example` for `content/sites/a.example.tar.gz`."""
    name = re.sub(r"\.tar(\.gz)?\Z", "", str(content.get("file")).removeprefix("content/"))
    return re.sub("=([0-9A-Fa-f]{2})", lambda match: chr(int(match[1], 16)), name)


def _of_clients(restore: Restore) -> Iterator[_Archived]:
    for client in restore.description.clients():
        home = client.element.get("home")
        for content in restore.description.contents(client.element):
            archived = _Archived(content, _name_of(content), client.name, clients={client.name})
            if home:
                _take_roots(restore, archived, [home], {client.name})
            yield archived


def _of_sites(restore: Restore) -> Iterator[_Archived]:
    for domain in restore.description.domains():
        site = domain.element.find("site")
        if site is None:
            continue
        owner = site.get("owner") or domain.client
        packed = [element.text or "" for element in site.iterfind("packed")]
        packed = packed or [element.text or "" for element in site.iterfind("root")]
        for content in restore.description.contents(domain.element):
            archived = _Archived(content, _name_of(content), owner, domains={domain.name},
                                 clients={domain.client} - {""})
            _take_roots(restore, archived, packed, {owner, domain.client} - {""})
            of_packages = [element.text or "" for element in site.iterfind("package/directory")]
            for path in [path for path in archived.refused if _is_below_one(path, of_packages)]:
                del archived.refused[path]
            yield archived


def _is_below_one(path: str, roots: list[str]) -> bool:
    """Whether the path is in a directory of a package; the kind "application" restores those."""
    return path.startswith("/") and any(top.startswith("/") and is_below(path, top) for top in roots)


def _take_roots(restore: Restore, archived: _Archived, paths: list[str], accounts: set[str]) -> None:
    here = [restore.decisions.account_here(name) for name in accounts]
    for path in paths:
        why = why_not(path) or why_not_owners(path, here)
        if not why:
            archived.roots.add(path)
        elif ".." in path.split("/") or not any(
                is_below(path, other) for other in _OF_OTHER_KINDS if path.startswith("/")):
            archived.refused[path] = why


def _state(restore: Restore, archived: _Archived, identifier: str,
           own_roots: OwnRoots) -> tuple[State, str, tuple[str, ...]]:
    owner = restore.decisions.account_here(archived.owner)
    entry = restore.journal.entry(identifier)
    if archived.owner not in restore.offered("account"):
        return State.IMPOSSIBLE, (f"it belongs to {archived.owner}, and {owner} is no account of this restore: "
                                  f"name one by --map-account={archived.owner}:NAME"), ()
    size = f"{unpacked_of(archived.content):,} bytes in {', '.join(sorted(archived.roots))}"
    if entry is not None and entry.state == "done":
        if entry.facts.get("source") == _source(archived, owner):
            return State.SAME, size, ()
        return State.RENEW, size, ()
    occupied = [] if entry is not None else [
        root for root in sorted(archived.roots) if not is_vacant(root) and not _is_ours(restore, root)]
    if occupied and _is_here(restore, archived, identifier):
        return State.SAME, size, ()
    if occupied:
        return State.CONFLICT, f"{', '.join(occupied)} is here already and is not empty", (
            f"--replace={identifier}", f"--skip={identifier}")
    near = [] if entry is not None else [
        f"{root} is in one directory with {served}" for root in sorted(archived.roots)
        if (served := own_roots.near(root))]
    if not near and entry is None and (why := own_roots.why_unknown()):
        near = [f"whether a site of nginx on this host serves {', '.join(sorted(archived.roots))} is not known: {why}"]
    if near:
        return State.CONFLICT, "; ".join(near), (f"--replace={identifier}", f"--skip={identifier}")
    left_out = "".join(f"; {path} is left out: {why}" for path, why in archived.refused.items())
    return State.MAKE, size + left_out, ()


def _is_here(restore: Restore, archived: _Archived, identifier: str) -> bool:
    """Whether all of the archive is here already and nothing else, such as pages that a package installs on both hosts.

    Other files in the roots would become part of the site, which could serve them to visitors.
    """
    if unpacked_of(archived.content) > _LARGEST_COMPARED:
        return False
    archive = restore.archive(archived.content)
    here = {f"{place}/{name}" for root in archived.roots for place, directories, files in os.walk(root)
            for name in directories + files}
    if not here <= archive.names():
        return False
    findings = verify_unpacked(restore, identifier, [archive], archived.roots)
    return all(finding.is_same for finding in findings)


def _is_ours(restore: Restore, root: str) -> bool:
    """Whether an apply made the directory, or everything in it."""
    made: set[str] = set()
    for entry in restore.journal.entries("files"):
        before = entry.facts.get("before", {})
        assert isinstance(before, dict)
        made |= {path for path, was in before.items() if was is None}
    return any(is_below(root, place) for place in made) or os.path.isdir(root) and {
        f"{root}/{name}" for name in os.listdir(root)} <= made


KINDS = (FilesKind,)

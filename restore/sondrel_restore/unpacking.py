"""Unpacks archives into trees of this host: files of sites and clients, and mailboxes."""
from __future__ import annotations

import os
from collections.abc import Iterable
from typing import TYPE_CHECKING

from sondrel_restore.archives import Archive
from sondrel_restore.hostfiles import down_to, open_directory
from sondrel_restore.kind import Facts, RestoreError
from sondrel_restore.made_here import WhyNot, facts_of
from sondrel_restore.owners import Owners
from sondrel_restore.tree import Tree

if TYPE_CHECKING:
    from sondrel_restore.restore import Restore


def unpack(restore: Restore, identifier: str, archives: Iterable[Archive], roots: Iterable[str], owner: str, *,
           takes: WhyNot | None = None, overwrites: bool = False) -> Facts:
    """Makes or renews the trees `roots` (absolute paths) from archives. The object's apply must have begun.

    An owner of the source host maps to the account here that was offered as "account"; all others map to the account
    `owner` of this host. What an earlier apply made and the archives no longer have is removed. What was changed here
    since is kept; it and what is left out of an archive are noted. Missing directories above the roots are made: within
    a home for its owner, else for root. `takes` says why a member is left out, or "". With `overwrites`, files that no
    apply made are replaced. Returns facts for `remove_unpacked`. RestoreError if an archive or a path cannot be used.
    """
    wanted = sorted(set(roots))
    owners = Owners(restore, owner)
    _note_roots(restore, identifier, wanted)
    tree = Tree(restore, identifier, wanted, owners)
    tree.takes = takes or tree.takes
    tree.overwrites = overwrites or restore.decisions.replace(identifier)
    with tree:
        for archive in archives:
            tree.take(archive)
        tree.complete()
    for text in tree.notes.texts():
        restore.name(identifier, text)
    if owners.strangers:
        restore.name(identifier, f"what belonged to {', '.join(sorted(owners.strangers)[:10])}, "
                     f"who are not restored, belongs to {owner} now")
    facts = dict(facts_of(restore, identifier))
    facts["files"] = tree.count
    return facts


def _note_roots(restore: Restore, identifier: str, roots: Iterable[str]) -> None:
    """Notes for undo how each root was before the first apply: null, or mode, owner, group and time."""
    noted = dict(facts_of(restore, identifier).get("before") or {})  # type: ignore[call-overload]
    for root in roots:
        for path in down_to(root):
            if path in noted:
                continue
            try:
                about = _lstat(path)
                if path != root:
                    continue
                noted[path] = [about.st_mode, about.st_uid, about.st_gid, about.st_mtime_ns]
            except FileNotFoundError:
                noted[path] = None
    restore.journal.note(identifier, {"before": noted})


def _lstat(path: str) -> os.stat_result:
    parent, name = os.path.split(path)
    try:
        with open_directory(parent) as directory:
            return os.stat(name, dir_fd=directory, follow_symlinks=False)
    except NotADirectoryError as error:
        raise RestoreError(f"{parent} is no directory") from error

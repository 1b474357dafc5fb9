"""Groups of persons. Those of the system and of services are only matched by name: never made, changed or joined."""
from __future__ import annotations

import grp
import re
from collections.abc import Iterator

from sondrel_restore.description import Group as Described
from sondrel_restore.host import account_of, group_of
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, RestoreError, State
from sondrel_restore.restore import Restore

_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_.-]{0,31}")
# The range of Debian's login.defs. Higher numbers belong to services, containers and "nobody".
FIRST, LAST = 1000, 59999


class GroupKind(Kind):
    """Makes groups. Their members are added when the accounts are made."""

    name = "group"

    def plan(self, restore: Restore) -> Iterator[Item]:
        clients = _clients_by_group(restore)
        for group in restore.description.groups.values():
            if _is_of_system(restore, group):
                if group_of(group.name):
                    restore.offer("group", group.name, group.name)
                continue
            belongs = frozenset(clients.get(group.name, ()))
            domains = frozenset(domain.name for domain in restore.description.domains() if domain.client in belongs)
            yield self._item(restore, group, domains, belongs)

    def _item(self, restore: Restore, group: Described, domains: frozenset[str], clients: frozenset[str]) -> Item:
        here = restore.decisions.account_here(group.name)
        state, says, decisions = _state(restore, group, here, f"group:{group.name}")
        if state is not State.IMPOSSIBLE:
            restore.offer("group", group.name, here)
        return Item(self.name, group.name, state, says, decisions, domains, clients, (here, group.gid))

    def apply(self, restore: Restore, item: Item) -> Facts:
        assert isinstance(item.data, tuple)
        here, gid = item.data
        if group_of(here) is None:
            number = ["--gid", str(gid)] if _is_free(gid) else []
            restore.host.run(["groupadd", *number, here])
        made = group_of(here)
        if made is None:
            raise RestoreError(f"groupadd has not made the group {here}")
        return {"name": here, "gid": made.gr_gid}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        assert isinstance(item.data, tuple)
        is_there = group_of(item.data[0]) is not None
        yield Finding(item.identifier, "group", is_there, "" if is_there else "is not here")

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        name = str(entry.facts.get("name", restore.decisions.account_here(entry.name)))
        here = group_of(name)
        if here is None:
            return None
        if entry.state == "done" and here.gr_gid != entry.facts.get("gid"):
            return Left(entry.identifier, f"the group {name} has another number since")
        if here.gr_mem:
            return Left(entry.identifier, f"the group {name} has members: {', '.join(here.gr_mem)}")
        restore.host.run(["groupdel", name])
        return None


def _clients_by_group(restore: Restore) -> dict[str, set[str]]:
    """The clients that a group belongs to: it is their primary group, or they are members of it."""
    found: dict[str, set[str]] = {}
    for client in restore.description.clients():
        own = [client.element.get("group")] + [group.get("name") for group in client.element.iterfind("group")]
        for name in own:
            if name:
                found.setdefault(name, set()).add(client.name)
    return found


def _is_of_system(restore: Restore, group: Described) -> bool:
    here = group_of(group.name)
    if here is not None and not FIRST <= here.gr_gid <= LAST:
        return True
    owner = restore.description.accounts.get(group.name)
    is_persons = FIRST <= group.gid or owner is not None and not owner.system
    return not is_persons


def _is_free(gid: int) -> bool:
    if not FIRST <= gid <= LAST:
        return False
    try:
        grp.getgrgid(gid)
    except KeyError:
        return True
    return False


def _state(restore: Restore, group: Described, here: str, identifier: str) -> tuple[State, str, tuple[str, ...]]:
    entry = restore.journal.entry(identifier)
    present = group_of(here)
    if not _NAME.fullmatch(here):
        return State.IMPOSSIBLE, "this is no name for a group: choose one by --map-account=THERE:HERE", ()
    if present is None:
        number = "" if _is_free(group.gid) else f"; it gets another number, since {group.gid} cannot be its here"
        return State.MAKE, f"a group with the number {group.gid}{number}", ()
    if not FIRST <= present.gr_gid <= LAST:
        return State.IMPOSSIBLE, f"{here} is a group of the system here", ()
    if entry is not None:
        if entry.state == "begun":
            return State.MAKE, "was begun", ()
        return State.SAME, f"here with the number {present.gr_gid}", ()
    owner = account_of(here)
    if present.gr_gid == group.gid or group.name in restore.decisions.accounts:
        return State.SAME, f"here with the number {present.gr_gid}", ()
    return (State.CONFLICT, f"a group of that name has the number {present.gr_gid} here, and {group.gid} there"
            + (f"; it is that of the account {here}" if owner else ""),
            (f"--map-account={group.name}:{here}", f"--map-account={group.name}:NEW-NAME", f"--skip={identifier}"))


KINDS = (GroupKind,)

"""Checks that the file systems of this host have room for what a plan makes."""
from __future__ import annotations

import os
from collections.abc import Callable, Iterable, Iterator

from sondrel_restore.accepted import existing_part
from sondrel_restore.kind import Item, Missing, State


def missing_space(items: Iterable[Item], begun: Callable[[str], bool]) -> Iterator[Missing]:
    """Yields each file system with less free space than the new objects on it need.

    Renewed objects are not counted, because they need about the space that they have. Nor are objects that an earlier
    run began, because a part of them is already here.
    """
    needed: dict[int, int] = {}
    places: dict[int, str] = {}
    for item in items:
        if item.state is not State.MAKE or item.space is None or begun(item.identifier):
            continue
        path, size = item.space
        place = existing_part(path)
        device = os.stat(place).st_dev
        places.setdefault(device, place)
        needed[device] = needed.get(device, 0) + size
    for device, size in needed.items():
        about = os.statvfs(places[device])
        free = about.f_bavail * about.f_frsize
        if free < size:
            yield Missing("", f"the file system of {places[device]} has {free:,} bytes free, and the restore needs "
                          f"{size:,}")

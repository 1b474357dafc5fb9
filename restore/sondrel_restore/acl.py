"""Converts access control lists from the text of GNU tar to the binary form that the kernel takes."""
from __future__ import annotations

import struct
from collections.abc import Callable

_VERSION = 2
_NO_ID = 0xFFFFFFFF
_TAGS = {("user", False): 0x01, ("user", True): 0x02, ("group", False): 0x04, ("group", True): 0x08,
         ("mask", False): 0x10, ("other", False): 0x20}
_RIGHTS = {"r": 4, "w": 2, "x": 1, "-": 0}

Finder = Callable[[str], int | None]


class AclError(Exception):
    """The text is not an access control list."""


def encoded(text: str, user: Finder, group: Finder) -> tuple[bytes, str]:
    """The list in binary, and the names that it leaves out because `user` or `group` returned None. AclError."""
    entries: list[tuple[int, int, int]] = []
    dropped: list[str] = []
    for line in text.replace(",", "\n").split("\n"):
        line = line.partition("#")[0].strip()
        if not line:
            continue
        fields = line.split(":")
        if len(fields) not in (3, 4):
            raise AclError(line)
        kind, name, rights = fields[:3]
        tag = _TAGS.get((kind, bool(name)))
        if tag is None or len(rights) != 3 or not all(letter in _RIGHTS for letter in rights):
            raise AclError(line)
        number: int | None = _NO_ID
        if name:
            # tar adds the number that the account has on the source host; it means nothing here, so the name decides.
            number = (user if kind == "user" else group)(name)
        if number is None:
            dropped.append(name)
            continue
        entries.append((tag, sum(_RIGHTS[letter] for letter in rights), number))
    entries.sort(key=lambda entry: (entry[0], entry[2]))
    packed = b"".join(struct.pack("<HHI", *entry) for entry in entries)
    return struct.pack("<I", _VERSION) + packed, ", ".join(dropped)

"""Versions of programs and packages."""
from __future__ import annotations

import re


def older(version: str, other: str) -> bool:
    """Whether a version is older, by its first two numbers. Debian's epoch (before ":") is ignored."""
    ours, theirs = (tuple(map(int, re.findall(r"\d+", each.rpartition(":")[2])[:2])) for each in (version, other))
    return bool(ours) and bool(theirs) and ours < theirs

"""The kinds of objects, in the order in which they are applied; undo uses the reverse order.

Each module of this package has `KINDS`, a tuple of classes of `Kind`.
"""
from __future__ import annotations

import importlib
from collections.abc import Sequence

from sondrel_restore.kind import Kind

ORDER = (
    "package",
    "group",
    "account",
    "files",
    "application",
    "mysql",
    "postgresql",
    "pool",
    "certificate",
    "apache",
    "nginx",
    "mail",
    "job",
)


def all_kinds() -> Sequence[Kind]:
    """One instance of each kind, for one run."""
    return [kind() for name in ORDER for kind in importlib.import_module(f"{__name__}.{name}").KINDS]

"""The settings that Apache of this host has for its ports and sites."""
from __future__ import annotations

import glob
import os
from collections.abc import Iterator

_SITES = ("/etc/apache2/conf-enabled/*.conf", "/etc/apache2/sites-enabled/*.conf")


def files_here(*others: str) -> Iterator[tuple[str, str]]:
    """Path and text of each file, with those that are named. A link that leads nowhere is none."""
    for path in sorted(path for pattern in (*others, *_SITES) for path in glob.glob(pattern)):
        if os.path.isfile(path):
            with open(path, encoding="utf-8", errors="surrogateescape") as file:
                yield path, file.read()

"""The configuration files of Apache on this host, for its ports and sites."""
from __future__ import annotations

import glob
import os
from collections.abc import Iterator

_SITES = ("/etc/apache2/conf-enabled/*.conf", "/etc/apache2/sites-enabled/*.conf")


def files_here(*others: str) -> Iterator[tuple[str, str]]:
    """The path and text of each file for ports and sites, and of `others`, which are patterns. Skips broken links."""
    for path in sorted(path for pattern in (*others, *_SITES) for path in glob.glob(pattern)):
        if os.path.isfile(path):
            with open(path, encoding="utf-8", errors="surrogateescape") as file:
                yield path, file.read()

"""The directories that this host's own sites serve, without those that this session made.

An account that can write there could publish files as part of these sites, and run programs where they run them.
"""
from __future__ import annotations

import functools
import os
import re
from collections.abc import Iterator

from sondrel_restore.description import is_below
from sondrel_restore.restore import Restore
from sondrel_restore.web.apache_here import files_here
from sondrel_restore.web.config_kind import links
from sondrel_restore.web.nginx_here import NginxHere, ask_here
from sondrel_restore.web.own_sites import OF_PACKAGES

_APACHE_PATHS = re.compile(
    r'^[ \t]*(?:DocumentRoot|(?:Script)?Alias[ \t]+(?:"[^"\n]*"|\S+))[ \t]+(?:"(/[^"\n]*)"|(/\S*))',
    re.MULTILINE | re.IGNORECASE)
# Pages and programs of packages. No restore writes there.
_PACKAGED = ("/usr",)


class OwnRoots:
    """The directories, determined when they are first needed."""

    def __init__(self, restore: Restore) -> None:
        self._restore = restore

    def near(self, path: str) -> str:
        """Which served directory contains `path` or is below it, as a clause; empty if there is none."""
        real = os.path.realpath(path)
        for root, file in self._known:
            if is_below(real, root) or is_below(root, real):
                return f"{root}, which {file} of this host serves"
        return ""

    def why_unknown(self) -> str:
        """Why those that nginx serves are not known, and what to do, as a clause; empty if they are."""
        return self._nginx.refusal

    @functools.cached_property
    def _nginx(self) -> NginxHere:
        return self._restore.answer(ask_here)

    @functools.cached_property
    def _known(self) -> list[tuple[str, str]]:
        return list(self._found())

    def _found(self) -> Iterator[tuple[str, str]]:
        made = {link for kind in ("nginx", "apache") for entry in self._restore.journal.entries(kind)
                for link in links(entry)}
        for path, file in (*self._of_nginx(), *_of_apache()):
            root = os.path.realpath(path.partition("$")[0] or "/")
            if file not in made and os.path.basename(file) not in OF_PACKAGES and root != "/" and not any(
                    is_below(root, packaged) for packaged in _PACKAGED):
                yield root, file

    def _of_nginx(self) -> Iterator[tuple[str, str]]:
        yield from ((root, file) for root, files in sorted(self._nginx.roots.items())
                    for file in sorted(files) if root.startswith("/"))


def _of_apache() -> Iterator[tuple[str, str]]:
    for file, text in files_here():
        for quoted, plain in _APACHE_PATHS.findall(text):
            yield quoted or plain, file

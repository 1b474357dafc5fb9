"""The session directory that `sondrel` filled."""
from __future__ import annotations

import os
import stat
from pathlib import Path

from sondrel_restore.description import Element, read_document
from sondrel_restore.kind import RestoreError


class Session:
    """The paths of a session. Only root must be able to write to them."""

    def __init__(self, directory: str, archives: str = "") -> None:
        """The fetched files are in `archives`; by default where sondrel-migrate put them, or in the session.

        RestoreError if it is no session, or if an account other than root can write to it.
        """
        self.directory = Path(os.path.abspath(directory))
        self.journal_directory = self.directory / "restore"
        self.dump = self.directory / "dump.xml"
        for needed in (self.directory, self.dump):
            if not needed.exists():
                raise RestoreError(f"{needed} is not there: name the session directory of a fetched dump")
        migrate = self.directory / "migrate"
        for path in (self.directory, self.journal_directory, migrate):
            _check_private(path)
        # The state document of sondrel-migrate; None if the session was made without it.
        self.migration: Element | None = read_document(migrate / "state.xml")
        self.archives = Path(os.path.abspath(archives)) if archives else self._archives()
        _check_private(self.archives)

    def _archives(self) -> Path:
        chosen = None if self.migration is None else self.migration.findtext("setting[@name='dumps-dir']")
        return Path(chosen) if chosen else self.directory / "archives"


def _check_private(path: Path) -> None:
    if path.is_symlink():
        raise RestoreError(f"{path} is a symbolic link")
    if not path.exists():
        return
    about = path.stat()
    if not stat.S_ISDIR(about.st_mode):
        raise RestoreError(f"{path} is no directory")
    if about.st_uid not in (0, os.geteuid()) or about.st_mode & 0o022:
        raise RestoreError(f"{path} can be written by others than root: what lies there cannot be trusted")

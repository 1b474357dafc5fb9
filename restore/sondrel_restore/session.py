"""The session directory that `sondrel` filled."""
from __future__ import annotations

import os
import stat
from pathlib import Path

from sondrel_restore.kind import RestoreError


class Session:
    """Where the parts of a session lie. Only root may have been able to put them there."""

    def __init__(self, directory: str, archives: str = "") -> None:
        """With `archives` the fetched files lie there, and not in the directory of that name of the session.

        RestoreError if it is no session, or one into which an account other than root's may write.
        """
        self.directory = Path(os.path.abspath(directory))
        self.archives = Path(os.path.abspath(archives)) if archives else self.directory / "archives"
        self.journal_directory = self.directory / "restore"
        self.dump = self.directory / "dump.xml"
        for needed in (self.directory, self.dump):
            if not needed.exists():
                raise RestoreError(f"{needed} is not there: name the session directory of a fetched dump")
        for path in (self.directory, self.archives, self.journal_directory):
            if path.is_symlink():
                raise RestoreError(f"{path} is a symbolic link")
            if path.exists():
                _check_private(path)


def _check_private(path: Path) -> None:
    about = path.stat()
    if not stat.S_ISDIR(about.st_mode):
        raise RestoreError(f"{path} is no directory")
    if about.st_uid not in (0, os.geteuid()) or about.st_mode & 0o022:
        raise RestoreError(f"{path} can be written by others than root: what lies there cannot be trusted")

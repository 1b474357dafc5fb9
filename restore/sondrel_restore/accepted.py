"""Where this host lets restored files go. The paths are the source host's, which may be hostile."""
from __future__ import annotations

import contextlib
import os
import pwd
import stat
from collections.abc import Collection

from sondrel_restore.hostfiles import components, open_directory
from sondrel_restore.kind import RestoreError

# Directories at the root that belong to the system; what else is there, or is not, is the administrator's.
_SYSTEM = frozenset((
    "bin", "boot", "dev", "etc", "initrd", "lib", "lib32", "lib64", "libx32", "lost+found", "media", "mnt",
    "proc", "root", "run", "sbin", "sys", "tmp", "usr", "var"))
# In /var: of the system; in the rest are sites and mailboxes.
_SYSTEM_IN_VAR = frozenset((
    "backups", "cache", "crash", "db", "empty", "games", "lib", "local", "lock", "log", "opt", "run", "spool",
    "tmp", "yp"))
# These are themselves of the system, what lies below them is not.
_ONLY_BELOW = frozenset(("/home", "/srv", "/opt", "/var/mail"))


def why_not(path: str) -> str:
    """Why nothing that comes from a source host goes to this place; "" if it may."""
    try:
        parts = components(path)
    except RestoreError as error:
        return str(error)
    place = "/" + "/".join(parts)
    if not parts or place in _ONLY_BELOW:
        return f"{place} itself is the system's"
    if parts[0] == "var" and len(parts) > 1 and parts[1] not in _SYSTEM_IN_VAR:
        return ""
    is_systems = parts[0] in _SYSTEM or parts[0].startswith(".")
    return f"{place} is in a directory of the system" if is_systems else ""


def why_not_owners(path: str, accounts: Collection[str]) -> str:
    """Why these accounts here may not have files at this place, by who owns what is there; "" if they may.

    What is there of the path and the directories above belongs to root or to one of them.
    """
    allowed = {0}
    for name in accounts:
        with contextlib.suppress(KeyError):
            allowed.add(pwd.getpwnam(name).pw_uid)
    reached = ""
    for name in components(path):
        try:
            with open_directory(reached or "/") as directory:
                about = os.stat(name, dir_fd=directory, follow_symlinks=False)
        except FileNotFoundError:
            return ""
        except NotADirectoryError:
            return f"{reached} is no directory here"
        except RestoreError as error:
            return str(error)
        reached = f"{reached}/{name}"
        if about.st_uid not in allowed:
            return f"{reached} belongs to {_name(about.st_uid)} here"
        if stat.S_ISLNK(about.st_mode) and about.st_uid != 0:
            return f"{reached} is a symbolic link here"
    return ""


def is_vacant(path: str) -> bool:
    """Whether nothing is there, or an empty directory."""
    try:
        with open_directory(path) as directory:
            with os.scandir(directory) as entries:
                return not any(entries)
    except FileNotFoundError:
        return True
    except NotADirectoryError:
        return False


def existing_part(path: str) -> str:
    """The path, or the nearest directory above it that is there."""
    place = path
    while not os.path.isdir(place):
        place = os.path.dirname(place)
    return place


def _name(uid: int) -> str:
    try:
        return pwd.getpwuid(uid).pw_name
    except KeyError:
        return f"number {uid}"

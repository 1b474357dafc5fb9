"""Where restored files may go on this host. The paths come from the source host, which may be hostile."""
from __future__ import annotations

import contextlib
import os
import pwd
import stat
from collections.abc import Collection

from sondrel_restore.hostfiles import components, open_directory
from sondrel_restore.kind import RestoreError

# Directories at the root that belong to the system. All others, present or not, are the administrator's.
_SYSTEM = frozenset((
    "bin", "boot", "dev", "etc", "initrd", "lib", "lib32", "lib64", "libx32", "lost+found", "media", "mnt",
    "proc", "root", "run", "sbin", "sys", "tmp", "usr", "var"))
# The same in /var: all other directories there may have sites and mailboxes.
_SYSTEM_IN_VAR = frozenset((
    "backups", "cache", "crash", "db", "empty", "games", "lib", "local", "lock", "log", "opt", "run", "spool",
    "tmp", "yp"))
# These directories belong to the system, but what lies below them does not.
_ONLY_BELOW = frozenset(("/home", "/srv", "/opt", "/var/mail"))


def why_not(path: str) -> str:
    """Says why nothing from a source host may be put at this path; "" if it may."""
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
    """Says why these accounts may not have files at this path; "" if they may.

    They may when each existing component of the path belongs to root or to one of them. A symbolic link among the
    components must be root's. Accounts that this host does not have are ignored.
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
    """Whether the path does not exist or is an empty directory."""
    try:
        with open_directory(path) as directory:
            with os.scandir(directory) as entries:
                return not any(entries)
    except FileNotFoundError:
        return True
    except NotADirectoryError:
        return False


def existing_part(path: str) -> str:
    """The path if it is a directory, else the nearest existing directory above it."""
    place = path
    while not os.path.isdir(place):
        place = os.path.dirname(place)
    return place


def _name(uid: int) -> str:
    try:
        return pwd.getpwuid(uid).pw_name
    except KeyError:
        return f"number {uid}"

"""Maps the owners of files in an archive to accounts of this host."""
from __future__ import annotations

import contextlib
import grp
import pwd
from typing import TYPE_CHECKING

from sondrel_restore.kind import RestoreError

if TYPE_CHECKING:
    from sondrel_restore.restore import Restore


class Owners:
    """Maps owners: accounts and groups of this restore to their numbers here, all others to the owner of the object."""

    def __init__(self, restore: Restore, fallback: str) -> None:
        """`fallback` is the name of an account here, the owner of the object. RestoreError if it does not exist."""
        try:
            entry = pwd.getpwnam(fallback)
        except KeyError as error:
            raise RestoreError(f"There is no account {fallback} here, which its files belong to") from error
        self.fallback = fallback
        self.uid, self.gid = entry.pw_uid, entry.pw_gid
        self.strangers: set[str] = set()
        self._users = {"root": 0}
        self._groups = {"root": 0}
        for there, here in restore.offered("account").items():
            with contextlib.suppress(KeyError):
                self._users[there] = pwd.getpwnam(str(here)).pw_uid
        for there, here in restore.offered("group").items():
            with contextlib.suppress(KeyError):
                self._groups[there] = grp.getgrnam(str(here)).gr_gid
        self._names = {account.uid: name for name, account in restore.description.accounts.items()}
        self._group_names = {group.gid: name for name, group in restore.description.groups.items()}

    def user(self, name: str, number: int) -> int:
        """The number here of the account `name` of the source host or, if that is empty, of its account `number`."""
        known = self._users.get(name or self._names.get(number, ""))
        if known is None:
            self.strangers.add(name or str(number))
            return self.uid
        return known

    def group(self, name: str, number: int) -> int:
        """As `user`, for a group."""
        known = self._groups.get(name or self._group_names.get(number, ""))
        if known is None:
            self.strangers.add(f"group {name or number}")
            return self.gid
        return known

    def known_user(self, name: str) -> int | None:
        """For access control lists: the number here, or None if the account is not restored. `name` may be a number."""
        return self._users.get(self._names.get(int(name), "") if name.isdecimal() else name)

    def known_group(self, name: str) -> int | None:
        """As `known_user`, for a group."""
        return self._groups.get(self._group_names.get(int(name), "") if name.isdecimal() else name)

"""Writes our tables for Postfix and Dovecot, and the few settings that make the servers read them.

`DIRECTORY` has one document for each domain; `write` makes all tables from them. A setting of Postfix is changed only
if this host has it at its default. It is set back when no domain needs it any more.
"""
from __future__ import annotations

import contextlib
import dataclasses
import hashlib
import json
import os
import re
from collections.abc import Iterator
from pathlib import Path

from sondrel_restore.host import Host, group_of
from sondrel_restore.hostfiles import (atomic_write, content_here, make_directories, read_file, remove_file,
                                       sum_of_bytes)
from sondrel_restore.kind import RestoreError
from sondrel_restore.mail_tables import Alias, User, line_of_dovecot, maps_of_postfix
from sondrel_restore.restore import Restore

DIRECTORY = "/var/lib/sondrel-restore/mail"
MADE = "made.json"
_ENDING = ".domain"
POSTFIX = "/etc/postfix"
USERS = "/etc/dovecot/sondrel-users"
DOVECOT_SETTINGS = "/etc/dovecot/conf.d/99-sondrel-restore.conf"
HEAD = "# Made by sondrel-restore. What is changed here by hand stays, and is not renewed any more.\n"
# The settings of Postfix that are set if they are at their default, with the table that each reads. With "/" as
# virtual_mailbox_base, the paths in our tables start at the root directory.
SETTINGS = {
    "virtual_alias_maps": "virtual", "virtual_mailbox_domains": "domains", "virtual_mailbox_maps": "mailboxes",
    "virtual_uid_maps": "uids", "virtual_gid_maps": "gids", "virtual_mailbox_base": "",
}
WHERE_DOMAINS_ARE = ("mydestination", "virtual_mailbox_domains", "virtual_alias_domains", "relay_domains")
# The one of them that has the domains below its own, too.
_WITH_SUBDOMAINS = "relay_domains"
# A word of a list of Postfix: braces, which may be nested once, keep commas and spaces together.
_WORD = re.compile(r"(?:[^\s,{}]|\{(?:[^{}]|\{[^{}]*\})*\})+")
_TABLE = re.compile(r"[a-z]+:")
_OWN_TABLE = re.compile(rf"(?:proxy:)?[a-z]+:{POSTFIX}/sondrel-[a-z]+")
_FAILED = re.compile(r"\b(?:fatal|panic|error): ")
_LONGEST_QUOTE = 300
# How deep files of patterns may name one another.
_DEEPEST = 10
# The settings by release of Dovecot.
DOVECOT_TEXTS = {
    "2.3": """\
passdb {
  driver = passwd-file
  args = username_format=%u /etc/dovecot/sondrel-users
}
userdb {
  driver = passwd-file
  args = username_format=%u /etc/dovecot/sondrel-users
}
""",
    "2.4": """\
passdb sondrel-restore {
  driver = passwd-file
  passwd_file_path = /etc/dovecot/sondrel-users
  auth_username_format = %{user}
}
userdb sondrel-restore {
  driver = passwd-file
  passwd_file_path = /etc/dovecot/sondrel-users
  auth_username_format = %{user}
}
""",
}


@dataclasses.dataclass(frozen=True)
class Tables:
    """The entries of a domain. `refused` has a sentence for each entry that is left out."""

    aliases: tuple[Alias, ...]
    users: tuple[User, ...]
    refused: tuple[str, ...] = ()


def sum_of(tables: Tables) -> str:
    """A sum that is equal if two fetches have the same entries of a domain."""
    return hashlib.sha256(json.dumps(dataclasses.asdict(tables), sort_keys=True).encode()).hexdigest()


class MailService:
    """The mail servers of this host."""

    USERS = USERS

    def __init__(self, restore: Restore) -> None:
        self._restore = restore
        self._host: Host = restore.host

    # --- the documents of the domains ---

    def has(self, domain: str) -> bool:
        """Whether there is a document of the domain."""
        return os.path.lexists(_document(domain))

    def keep(self, domain: str, tables: Tables) -> None:
        """Saves the entries of a domain for `write`. The file is for root only, because it has password hashes."""
        make_directories(DIRECTORY, mode=0o700, uid=0, gid=0)
        content = json.dumps({"aliases": [dataclasses.asdict(each) for each in tables.aliases],
                              "users": [dataclasses.asdict(each) for each in tables.users]}).encode()
        atomic_write(_document(domain), content, mode=0o600, uid=0, gid=0)

    def drop(self, domain: str) -> None:
        """Removes the document of the domain: the next `write` removes its entries from all tables."""
        remove_file(_document(domain))

    def _kept(self) -> tuple[list[Alias], list[User]]:
        aliases: list[Alias] = []
        users: list[User] = []
        for path in sorted(Path(DIRECTORY).glob(f"*{_ENDING}")):
            document = json.loads(read_file(str(path)))
            aliases += [Alias(each["source"], tuple(each["targets"])) for each in document["aliases"]]
            users += [User(**each) for each in document["users"]]
        return aliases, users

    # --- what this host has without us ---

    def is_set_up(self) -> bool:
        """Whether Postfix is configured here: its package may be installed without making settings."""
        return self._host.has_program("postconf") and os.path.exists(f"{POSTFIX}/main.cf")

    def taken(self, domain: str) -> str:
        """By what this host already handles mail for the domain, as a clause; empty if it does not.

        A setting that gives no answer may have the domain, so there is a clause on it, too.
        """
        settings = self._restore.answer(_values, "-x", *WHERE_DOMAINS_ARE) if self.is_set_up() else {}
        for setting, value in settings.items():
            names = [domain.lower()]
            if setting == _WITH_SUBDOMAINS:
                names += [f"{dot}{parent}" for parent in _parents(domain.lower()) for dot in ("", ".")]
            try:
                if any(self._lists(value, name) for name in names):
                    return f"{setting} has mail for {domain} already"
            except RestoreError as error:
                return f"it is not known whether {setting} has mail for {domain} already: {error}"
        for name, addressed in self._restore.answer(_domains_in_documents).items():
            if domain.lower() in addressed and self._restore.journal.entry(f"mail:{name}") is None:
                return f"another session has restored mail for {domain} with {name}"
        return ""

    def _lists(self, patterns: str, name: str, depth: int = 0) -> bool:
        """Whether one of Postfix's lists has the name: as a word, in a file, or in a table. The first match counts.

        RestoreError if a table gives no answer. Our own tables do not count.
        """
        for word in _WORD.findall(patterns):
            pattern = word.lstrip("!")
            if pattern.startswith("/"):
                is_match = depth < _DEEPEST and self._lists(_text_of(pattern), name, depth + 1)
            elif _TABLE.match(pattern):
                is_match = not _OWN_TABLE.fullmatch(pattern) and self._restore.answer(_found, pattern, name)
            else:
                is_match = pattern.lower() == name
            if is_match:
                return not word.startswith("!")
        return False

    # --- writing ---

    def write(self) -> None:
        """Makes all tables from the saved documents; checks them and makes the servers reload.

        If a server rejects the settings, its former settings are put back and a RestoreError says so.
        """
        aliases, users = self._kept()
        made = _Made()
        if self.is_set_up():
            self._write_postfix(aliases, users, made)
        else:
            self._restore.name("mail", "Postfix is not here: its tables are made by an apply after its installation")
        if self._host.has_program("doveconf"):
            self._write_dovecot(users, made)
        elif users:
            self._restore.name("mail", "Dovecot is not here: its users are made by an apply after its installation")

    def _write_postfix(self, aliases: list[Alias], users: list[User], made: _Made) -> None:
        kind = self._restore.answer(_kind_of_tables)
        main = read_file(f"{POSTFIX}/main.cf")
        texts = maps_of_postfix(aliases, users)
        wanted = {setting: f"{kind}:{POSTFIX}/sondrel-{table}" if table else "/"
                  for setting, table in SETTINGS.items() if texts.get(table) or not table and users}
        try:
            for name, text in texts.items():
                self._write_table(kind, f"{POSTFIX}/sondrel-{name}", text, made)
            self._set(wanted, made)
            self._host.run(["postfix", "check"])
        except RestoreError as error:
            atomic_write(f"{POSTFIX}/main.cf", main, mode=0o644, uid=0, gid=0)
            raise RestoreError(f"Postfix keeps the settings that it had: {error}") from error
        made.save()
        if os.path.exists(f"{_values(self._host, 'queue_directory')['queue_directory']}/pid/master.pid"):
            # The file may be left over from a crash; then Postfix does not run and there is nothing to reload.
            if self._host.run(["postfix", "status"], check=False).status == 0:
                self._host.run(["postfix", "reload"])

    def _write_table(self, kind: str, path: str, text: str, made: _Made) -> None:
        if not made.write(path, text, 0, 0o644):
            self._restore.name("mail", f"{path} was changed here, and is not renewed: compare it with {DIRECTORY}")
            return
        if text:
            self._host.run(["postmap", f"{kind}:{path}"])
        else:
            for ending in ("db", "lmdb", "cdb"):
                remove_file(f"{path}.{ending}")

    def _set(self, wanted: dict[str, str], made: _Made) -> None:
        current, set_here = _values(self._host, *SETTINGS), _values(self._host, "-n", *SETTINGS)
        for setting, now in current.items():
            value, ours = wanted.get(setting), made.settings.get(setting)
            if value is None:
                if ours is not None and now == ours:
                    self._host.run(["postconf", "-X", setting])
                made.settings.pop(setting, None)
            elif now == value:
                continue
            elif now == ours or setting not in set_here:
                made.settings[setting] = value
                made.save()
                self._host.run(["postconf", "-e", f"{setting}={value}"])
            else:
                self._restore.name("mail", f"{setting} is set here and stays: add {value} to it in {POSTFIX}/main.cf")

    def _write_dovecot(self, users: list[User], made: _Made) -> None:
        release = ".".join(self._host.run(["dovecot", "--version"]).stdout.split(".")[:2])
        if users and release not in DOVECOT_TEXTS:
            self._restore.name("mail", f"Dovecot here is {release}, and its settings can be made for "
                               f"{' and '.join(DOVECOT_TEXTS)} only: add the mailboxes to its users by hand")
            return
        group = group_of("dovecot")
        lines = [line_of_dovecot(user, release) + "\n" for user in sorted(users, key=lambda each: each.address)]
        if not made.write(USERS, "".join(lines), group.gr_gid if group else 0, 0o640):
            self._restore.name("mail", f"{USERS} was changed here, and is not renewed: compare it with {DIRECTORY}")
        if not made.write(DOVECOT_SETTINGS, DOVECOT_TEXTS[release] if users else "", 0, 0o644):
            self._restore.name("mail", f"{DOVECOT_SETTINGS} was changed here, and is not renewed")
        checked = self._host.run(["doveconf", "-n"], check=False)
        if checked.status != 0:
            remove_file(DOVECOT_SETTINGS)
            raise RestoreError(f"Dovecot keeps the settings that it had: {checked.stderr.strip()[:500]}")
        if users and USERS not in checked.stdout:
            self._restore.name("mail", f"Dovecot does not read {DOVECOT_SETTINGS}: include it in dovecot.conf")
        made.save()
        if os.path.exists("/run/dovecot/master.pid"):
            self._host.run(["doveadm", "reload"])

    # --- asking ---

    def answers(self, tables: Tables) -> Iterator[tuple[str, bool, str]]:
        """Asks Postfix for each alias and mailbox. Yields (what was asked, whether the answer is right, the answer)."""
        for alias in tables.aliases:
            found = self._host.run(
                ["postmap", "-q", alias.source, self._table("virtual")], check=False).stdout.strip()
            yield f"alias {alias.source}", found == ", ".join(alias.targets), f"goes to {found or 'nobody'} here"
        for user in tables.users:
            found = self._host.run(
                ["postmap", "-q", user.address, self._table("mailboxes")], check=False).stdout.strip()
            yield f"delivery to {user.address}", found.strip("/") == user.path.strip("/"), f"{found or 'none'} here"

    def _table(self, name: str) -> str:
        return f"{self._restore.answer(_kind_of_tables)}:{POSTFIX}/sondrel-{name}"


def _document(domain: str) -> str:
    if not re.fullmatch(r"[a-z0-9_.-]+", domain) or domain.startswith("."):
        raise RestoreError(f"{domain} is no domain that mail can have")
    return f"{DIRECTORY}/{domain}{_ENDING}"


def _domains_in_documents(_: Host) -> dict[str, set[str]]:
    """The domains of the addresses in each document, by the name of its domain."""
    found = {}
    for path in Path(DIRECTORY).glob(f"*{_ENDING}"):
        document = json.loads(read_file(str(path)))
        addresses = [each["source"] for each in document["aliases"]] + [each["address"] for each in document["users"]]
        name = path.name.removesuffix(_ENDING)
        found[name] = {name, *(address.rpartition("@")[2].lower() for address in addresses)}
    return found


def _values(host: Host, *arguments: str) -> dict[str, str]:
    """The settings of Postfix that postconf prints, by name."""
    lines = host.run(["postconf", *arguments]).stdout.splitlines()
    return {name.strip(): value.strip() for name, _, value in (line.partition("=") for line in lines)}


def _kind_of_tables(host: Host) -> str:
    return host.run(["postconf", "-h", "default_database_type"]).stdout.strip()


def _found(host: Host, table: str, key: str) -> bool:
    """Whether a table of Postfix has the key. RestoreError if it gives no answer."""
    # "proxy:" only lets several processes of a running Postfix share the table behind it.
    asked = host.run(["postmap", "-q", key, table.removeprefix("proxy:")], check=False)
    failed = [line for line in asked.stderr.splitlines() if _FAILED.search(line)]
    if asked.status != 0 and failed:
        raise RestoreError(f"{table} cannot be asked ({failed[0].strip()[:_LONGEST_QUOTE]})")
    return asked.status == 0


def _text_of(path: str) -> str:
    """The text of an administrator's file; empty if it is missing."""
    try:
        return Path(path).read_text(encoding="utf-8", errors="replace")
    except FileNotFoundError:
        return ""


def _parents(domain: str) -> Iterator[str]:
    """The domains above it, the nearest first."""
    while "." in domain:
        domain = domain.partition(".")[2]
        yield domain


class _Made:
    """What an earlier run wrote: sums of files, and settings. They show what was changed here since."""

    def __init__(self) -> None:
        self._path = f"{DIRECTORY}/{MADE}"
        try:
            document = json.loads(read_file(self._path))
        except FileNotFoundError:
            document = {"files": {}, "settings": {}}
        self.files: dict[str, list[str]] = document["files"]
        self.settings: dict[str, str] = document["settings"]

    def write(self, path: str, text: str, gid: int, mode: int) -> bool:
        """Writes the file, or removes it if the text is empty. Returns False and leaves it if it was changed here."""
        here = content_here(path)
        content = (HEAD + text).encode()
        known = self.files.get(path, [])
        if here is not None and here != content and sum_of_bytes(here) not in known:
            return False
        if not text:
            remove_file(path)
            self.files.pop(path, None)
        elif here != content or sum_of_bytes(content) not in known:
            # Record both sums first: after a kill in between, the next run recognizes the old and the new file as ours.
            self.files[path] = [sum_of_bytes(content)] if here is None else [sum_of_bytes(content), sum_of_bytes(here)]
            self.save()
            atomic_write(path, content, mode=mode, uid=0, gid=gid)
            self.files[path] = [sum_of_bytes(content)]
        return True

    def save(self) -> None:
        """Saves the record, or removes it if it is empty."""
        if not self.files and not self.settings:
            remove_file(self._path)
            for directory in (DIRECTORY, os.path.dirname(DIRECTORY)):
                with contextlib.suppress(OSError):
                    # Fails if the directory has other files; then it stays.
                    os.rmdir(directory)
            return
        make_directories(DIRECTORY, mode=0o700, uid=0, gid=0)
        content = json.dumps({"files": self.files, "settings": self.settings}).encode()
        atomic_write(self._path, content, mode=0o600, uid=0, gid=0)

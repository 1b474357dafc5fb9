"""Checks what may go into the tables of Postfix and Dovecot here, and formats it.

Addresses and hashes come from the source host, which may be hostile. An alias table can start commands, append to
files and include lists of addresses: so only names and addresses are let in.
"""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Collection, Iterator, Sequence

DOMAIN = re.compile(r"(?=.{1,253}\Z)"
                    r"(?:[a-z0-9_](?:[a-z0-9_-]{0,61}[a-z0-9_])?\.)+[a-z0-9](?:[a-z0-9-]{0,61}[a-z0-9])?\Z")
# No quoted local parts: they may contain a command, a file or an include. No characters that begin one, or an option.
LOCAL_PART = re.compile(r"(?!-)[A-Za-z0-9._+=~!#$%&'*?^{}-]{1,64}\Z")
NAME = re.compile(r"[a-z0-9_][a-z0-9._+-]{0,63}\Z", re.IGNORECASE)
PATH = re.compile(r"/[\w@.,+=~/-]+\Z", re.ASCII)
# Only hash schemes. A password that can be read in clear is not moved.
SCHEMES = ("CRYPT", "DES-CRYPT", "MD5-CRYPT", "SHA256-CRYPT", "SHA512-CRYPT", "BLF-CRYPT", "ARGON2I", "ARGON2ID",
           "PBKDF2", "SCRAM-SHA-1", "SCRAM-SHA-256", "SSHA", "SSHA256", "SSHA512", "SMD5")
HASH = re.compile(r"\{(" + "|".join(SCHEMES) + r")(?:\.(?:b64|hex))?\}[!-9;-~]{8,512}\Z", re.IGNORECASE)
CRYPT = re.compile(r"\$(?:1|2[abxy]|5|6|7|y|argon2id?)\$[!-9;-~]{8,512}\Z")
_QUOTA = re.compile(r"\*:(?:storage|messages)=[0-9]{1,15}[kKMGT]?\Z")
LARGEST_TABLE = 16 << 20


@dataclasses.dataclass(frozen=True)
class Alias:
    """Where mail to an address goes. `source` is an address, or "@" and a domain for all other addresses of it."""

    source: str
    targets: tuple[str, ...]


@dataclasses.dataclass(frozen=True)
class User:
    """A mailbox of a domain, with the numbers of this host. `password` is a hash with its scheme; empty if unknown."""

    address: str
    path: str
    format: str
    uid: int
    gid: int
    home: str
    quota: str
    password: str = dataclasses.field(repr=False)


def split_address(address: str) -> tuple[str, str] | None:
    """The local part, and the domain in lower case, of an address that is allowed; None for any other text."""
    local, at, domain = address.rpartition("@")
    domain = domain.lower()
    if not at or not DOMAIN.match(domain) or not LOCAL_PART.match(local) or ".." in local:
        return None
    return local, domain


def targets_of(text: str) -> list[str]:
    """The targets of an alias, from a list with commas."""
    return [target.strip() for target in text.split(",") if target.strip()]


def objection_to_target(target: str, names: Collection[str]) -> str:
    """Says why mail may not go to the target; empty if it may. `names` are the allowed names without a domain."""
    if target.startswith(("|", "\"|", "\\|")):
        return "is a command"
    if target.startswith(("/", "\"/", "~")):
        return "is a file"
    if target.lower().lstrip("\"").startswith(":include:"):
        return "includes a file"
    if split_address(target) is not None:
        return ""
    if target in names:
        return ""
    if NAME.match(target):
        return "is a name that is no account of this restore"
    return "is no address"


def hash_of(text: str) -> str:
    """The hash of a password with its scheme; empty for anything else, such as a password in clear."""
    if HASH.match(text):
        return text
    return "{CRYPT}" + text if CRYPT.match(text) else ""


def hashes_in(content: bytes) -> Iterator[tuple[str, str]]:
    """The names in a passwd-file of Dovecot, each with its hash or ""."""
    for line in content[:LARGEST_TABLE].decode("utf-8", "replace").split("\n"):
        name, is_entry, rest = line.partition(":")
        if is_entry and not name.startswith("#"):
            yield name, hash_of(rest.split(":", 1)[0])


def quota_of(text: str) -> str:
    """A quota rule as Dovecot writes it; empty for any other text."""
    return text if _QUOTA.match(text) else ""


def line_of_dovecot(user: User, release: str) -> str:
    """A line of a passwd-file for Dovecot "2.3" or "2.4". Without a hash, no password can log in."""
    more = _fields_of_2_3(user) if release == "2.3" else _fields_of_2_4(user)
    fields = " ".join(f"userdb_{name}={value}" for name, value in more.items())
    return f"{user.address}:{user.password or '{CRYPT}!'}:{user.uid}:{user.gid}::{user.home}::{fields}"


def _fields_of_2_3(user: User) -> dict[str, str]:
    quota = {"quota_rule": user.quota} if user.quota else {}
    return {"mail": f"{user.format}:{user.path}", **quota}


def _fields_of_2_4(user: User) -> dict[str, str]:
    # Debian's default settings keep INBOX elsewhere, as an mbox file.
    fields = {"mail_driver": user.format, "mail_path": user.path, "mail_inbox_path": user.path}
    kind, _, limit = user.quota.removeprefix("*:").partition("=")
    if kind == "storage":
        # A number without a unit means kilobytes in 2.3 and bytes in 2.4.
        fields["quota_storage_size"] = limit + "K" if limit.isdigit() else limit
    elif kind == "messages" and limit.isdigit():
        fields["quota_message_count"] = limit
    return fields


def maps_of_postfix(aliases: Sequence[Alias], users: Sequence[User]) -> dict[str, str]:
    """The texts of the maps by name. The caller has checked all entries."""
    lines: dict[str, list[str]] = {"virtual": [], "mailboxes": [], "uids": [], "gids": [], "domains": []}
    for alias in sorted(aliases, key=lambda each: each.source):
        lines["virtual"].append(f"{alias.source} {', '.join(alias.targets)}")
    for user in sorted(users, key=lambda each: each.address):
        ending = "/" if user.format == "maildir" else ""
        lines["mailboxes"].append(f"{user.address} {user.path.lstrip('/')}{ending}")
        lines["uids"].append(f"{user.address} {user.uid}")
        lines["gids"].append(f"{user.address} {user.gid}")
    lines["domains"] = [f"{domain} mailboxes" for domain in sorted({user.address.rpartition("@")[2] for user in users})]
    return {name: "".join(line + "\n" for line in each) for name, each in lines.items()}

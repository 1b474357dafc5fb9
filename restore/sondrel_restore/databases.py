"""What the kinds of databases have in common: their part of the description, and running SQL unprivileged."""
from __future__ import annotations

import contextlib
import dataclasses
import fcntl
import functools
import hashlib
import json
import os
import secrets
import selectors
import subprocess
import threading
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import IO

from sondrel_restore.description import Description, Element
from sondrel_restore.host import PATH
from sondrel_restore.kind import RestoreError

# Prefix of the accounts that load a dump; a random suffix follows. No account of a description may have it.
LOADER = "sondrel_load_"

# The range that systemd uses for dynamic accounts: no permanent account of this host is in it.
_FIRST_NUMBER, _LAST_NUMBER = 61184, 65519
_STALL_LIMIT = 4 * 3600.0
_CHUNK = 1 << 18
# The largest size of a pipe that needs no privilege.
_PIPE = 1 << 20
_LONGEST_LINE = 1 << 20
_MOST_MESSAGES = 1000
_LONGEST_MESSAGE = 300
_NAMED_MESSAGES = 10


@dataclasses.dataclass(frozen=True)
class User:
    """An account or role of the source host's server. `host` is empty for roles of MariaDB and for PostgreSQL."""

    name: str
    host: str
    is_role: bool


@dataclasses.dataclass(frozen=True)
class Membership:
    """An account or role that is a member of a role."""

    role: User
    member: User
    is_grantable: bool
    is_default: bool


@dataclasses.dataclass(frozen=True)
class Grant:
    """The rights of an account on an object, as the description has them."""

    grantee: str
    host: str
    scope: str
    object: str
    column: str
    is_grantable: bool
    rights: tuple[str, ...]


@dataclasses.dataclass(frozen=True)
class Definer:
    """The account with whose rights a view, routine, trigger or event ran on the source host."""

    name: str
    host: str
    kind: str
    object: str


class Database:
    """A database of the description. All its texts come from the source host and are not trusted."""

    def __init__(self, description: Description, element: Element) -> None:
        self.element = element
        self.name = str(element.get("name"))
        self.domain = description.domain_of(element)
        self.client = description.client_of(element)
        self.contents = description.contents(element)
        users = [_user(each) for each in element.iterfind("user")]
        self.users = users
        known = {(user.name, user.host): user for user in users}
        found = [_membership(each, known) for each in element.iterfind("membership")]
        self.memberships = [membership for membership in found if membership is not None]
        self.grants = [_grant(each) for each in element.iterfind("grant")]
        self.definers = [Definer(each.get("name"), each.get("host", ""), each.get("kind"), each.get("object"))
                         for each in element.iterfind("definer")]

    def text(self, attribute: str) -> str:
        """An attribute of the element; empty where it is missing."""
        return str(self.element.get(attribute, ""))

    def bytes(self) -> int:
        """Its size in bytes on the source host; 0 if the description does not say it."""
        said = self.text("bytes")
        return int(said) if said.isdecimal() else 0

    def sum(self) -> str:
        """A sum of all that the database is made from: equal as long as a later fetch brings nothing new."""
        made_from = [[content.get("md5sum") for content in self.contents],
                     [self.text(name) for name in ("owner", "encoding", "collation", "ctype", "provider", "locale")],
                     [dataclasses.astuple(each)
                      for each in (*self.users, *self.memberships, *self.grants, *self.definers)],
                     [[each.get("name"), each.get("schema")] for each in self.element.iterfind("extension")]]
        return hashlib.sha256(json.dumps(made_from).encode("ascii")).hexdigest()


def databases(description: Description, kind: str) -> list[Database]:
    """All databases of a kind of server, in the order of the description."""
    return [Database(description, element) for element in description.tree.iterfind(".//database")
            if element.get("kind") == kind]


def _user(element: Element) -> User:
    return User(element.get("name"), element.get("host", ""), element.get("kind") == "role")


def _membership(element: Element, known: dict[tuple[str, str], User]) -> Membership | None:
    role = known.get((element.get("role"), element.get("role-host", "")))
    member = known.get((element.get("to"), element.get("host", "")))
    if role is None or member is None:
        return None
    return Membership(role, member, element.get("grantable") == "yes", element.get("default") == "yes")


def _grant(element: Element) -> Grant:
    return Grant(element.get("to"), element.get("host", ""), element.get("on"), element.get("object"),
                 element.get("column", ""), element.get("grantable") == "yes",
                 tuple(right.text or "" for right in element.iterfind("right")))


def some(texts: Sequence[str]) -> str:
    """The first few texts and the number of the others, for a sentence."""
    more = f" and {len(texts) - _NAMED_MESSAGES} more" if len(texts) > _NAMED_MESSAGES else ""
    return "; ".join(texts[:_NAMED_MESSAGES]) + more


class Lines:
    """Reads a stream of SQL by lines, or in larger pieces up to a mark, in constant memory."""

    def __init__(self, file: IO[bytes]) -> None:
        self._file = file
        self._buffer = b""
        self._place = 0

    def line(self) -> bytes:
        """The next line with its newline; empty at the end of the stream. A line longer than 1 MiB comes in parts."""
        start = self._place
        while True:
            end = self._buffer.find(b"\n", start)
            if end >= 0:
                return self._take(end + 1)
            if len(self._buffer) - self._place >= _LONGEST_LINE:
                return self._take(len(self._buffer))
            unread = len(self._buffer) - self._place
            if not self._more():
                return self._take(len(self._buffer))
            start = self._place + unread

    def until(self, mark: bytes) -> Iterator[bytes]:
        """All bytes up to and including the mark, or up to the end of the stream. No piece ends within the mark."""
        while True:
            end = self._buffer.find(mark, self._place)
            if end >= 0:
                yield self._take(end + len(mark))
                return
            safe = len(self._buffer) - len(mark) + 1
            if safe > self._place:
                yield self._take(safe)
            if not self._more():
                yield self._take(len(self._buffer))
                return

    def step_back(self) -> None:
        """The next read begins with the last byte of this one."""
        self._place -= 1

    def _take(self, end: int) -> bytes:
        piece = self._buffer[self._place:end]
        self._place = end
        return piece

    def _more(self) -> bool:
        chunk = self._file.read(_CHUNK)
        self._buffer = self._buffer[self._place:] + chunk
        self._place = 0
        return bool(chunk)


def unused_number() -> int:
    """A number that no account and no running process of this host has. RestoreError if all are used."""
    used = {int(line.split(":")[2]) for line in _lines_of("/etc/passwd") if line.count(":") >= 3}
    for entry in os.scandir("/proc"):
        if entry.name.isdigit():
            with contextlib.suppress(OSError):
                used.add(entry.stat().st_uid)
    free = [number for number in range(_FIRST_NUMBER, _LAST_NUMBER + 1) if number not in used]
    if not free:
        raise RestoreError("No number is free for the account in which SQL is loaded")
    return secrets.choice(free)


def _lines_of(path: str) -> list[str]:
    with open(path, encoding="utf-8", errors="surrogateescape") as file:
        return file.read().splitlines()


def run_sql(client: Sequence[str], secret: bytes, variables: dict[str, str], pieces: Iterable[bytes],
            printed: Callable[[bytes], None] | None = None) -> list[str]:
    """Feeds SQL to a client program that runs without any rights on this host; returns its messages.

    In `client` and `variables` "{secret}" stands for the path of a file with `secret`, which only the client can read;
    the file is in memory and vanishes with the client. What the client prints goes to `printed` line by line, from
    another thread, if there is one. RestoreError if the program ends before it has read all, ends with an error of its
    own, or reads nothing for four hours.
    """
    number = unused_number()
    descriptor = os.memfd_create("login", os.MFD_CLOEXEC)
    try:
        os.write(descriptor, secret)
        os.fchown(descriptor, number, number)
        os.fchmod(descriptor, 0o600)
        path = f"/proc/self/fd/{descriptor}"
        identity = ["setpriv", f"--reuid={number}", f"--regid={number}", "--clear-groups", "--no-new-privs",
                    "--bounding-set=-all", "--inh-caps=-all", "--pdeathsig=KILL", "--"]
        environment = {"PATH": PATH, "LC_ALL": "C.UTF-8", "HOME": "/nonexistent",
                       **{name: value.replace("{secret}", path) for name, value in variables.items()}}
        with subprocess.Popen(identity + [word.replace("{secret}", path) for word in client], cwd="/",
                              env=environment, pass_fds=[descriptor], stdin=subprocess.PIPE, start_new_session=True,
                              stdout=subprocess.PIPE if printed else subprocess.DEVNULL,
                              stderr=subprocess.PIPE) as process:
            try:
                return _feed(process, pieces, printed)
            finally:
                if process.poll() is None:
                    process.kill()
    finally:
        os.close(descriptor)


def _feed(process: subprocess.Popen[bytes], pieces: Iterable[bytes],
          printed: Callable[[bytes], None] | None) -> list[str]:
    messages: list[str] = []
    readers = [threading.Thread(target=_read, args=(process.stderr, functools.partial(_keep, messages)), daemon=True)]
    if printed is not None:
        readers.append(threading.Thread(target=_read, args=(process.stdout, printed), daemon=True))
    for reader in readers:
        reader.start()
    assert process.stdin is not None
    os.set_blocking(process.stdin.fileno(), False)
    # The client reads from this buffer while the next piece is unpacked. Some hosts allow no larger pipe: then go on.
    with contextlib.suppress(PermissionError):
        fcntl.fcntl(process.stdin.fileno(), fcntl.F_SETPIPE_SZ, _PIPE)
    is_whole = True
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdin, selectors.EVENT_WRITE)
        for piece in pieces:
            if not _write(process.stdin.fileno(), piece, selector):
                is_whole = False
                break
    with contextlib.suppress(BrokenPipeError):
        process.stdin.close()
    _wait(process)
    status = process.wait()
    # A program that the SQL started may keep the pipe open, so do not wait for its end.
    for reader in readers:
        reader.join(10)
    if not is_whole or status not in (0, 1, 3):
        said = some(messages[-3:]) or f"status {status}"
        raise RestoreError(f"The client of the database server ended before all was loaded: {said}")
    return messages


def _wait(process: subprocess.Popen[bytes]) -> None:
    """Waits for the end. RestoreError after _STALL_LIMIT. Popen.wait with a limit would poll instead."""
    descriptor = os.pidfd_open(process.pid)
    try:
        with selectors.DefaultSelector() as selector:
            selector.register(descriptor, selectors.EVENT_READ)
            if not selector.select(_STALL_LIMIT):
                raise _stalled()
    finally:
        os.close(descriptor)


def _write(descriptor: int, piece: bytes, selector: selectors.BaseSelector) -> bool:
    view = memoryview(piece)
    while view:
        if not selector.select(_STALL_LIMIT):
            raise _stalled()
        try:
            view = view[os.write(descriptor, view):]
        except BlockingIOError:
            continue
        except BrokenPipeError:
            return False
    return True


def _stalled() -> RestoreError:
    return RestoreError(
        f"The database server has taken nothing for {_STALL_LIMIT / 3600:.0f} hours: loading was given up")


def _read(file: IO[bytes], take: Callable[[bytes], None]) -> None:
    """Reads all lines, so that the client never blocks. A line of more than 64 KiB comes in parts."""
    with contextlib.suppress(ValueError, OSError):
        while line := file.readline(1 << 16):
            take(line)


def _keep(messages: list[str], line: bytes) -> None:
    """Keeps the first messages."""
    text = line.decode("utf-8", "replace").strip()
    if text and len(messages) < _MOST_MESSAGES:
        messages.append(text[:_LONGEST_MESSAGE])


def wait_until_gone(still_there: Iterator[bool], what: str, *, pause: float = 0.05) -> None:
    """Waits until `still_there` yields False; asks it every `pause` seconds. RestoreError after half a minute."""
    deadline = time.monotonic() + 30
    for is_there in still_there:
        if not is_there:
            return
        if time.monotonic() > deadline:
            raise RestoreError(f"{what} does not go away")
        time.sleep(pause)

"""What apply has made: one line for each step, synced to the disk before and after it.

The file only grows while a command runs. An incomplete last line, cut off by a kill or a full disk, is ignored. The
next run that takes the lock rewrites the file if most of its lines are out of date.
"""
from __future__ import annotations

import contextlib
import dataclasses
import fcntl
import hashlib
import json
import os
import time
from collections.abc import Iterable, Iterator
from pathlib import Path

from sondrel_restore.hostfiles import atomic_write
from sondrel_restore.kind import Facts, Item, RestoreError

_FILE = "journal"
_VERSION = 1
# It is rewritten when it has more than this many lines per object, and more than 100.
_LINES_PER_ENTRY = 6


@dataclasses.dataclass
class Entry:
    """The last known state of an object that apply has begun to make.

    `state` is "done", or "begun" when apply did not finish; `facts` are then those of the last finished apply and
    those that `Journal.note` added. `source` is a sum or text that identifies what it was made from. `at` is in
    seconds since 1970.
    """

    identifier: str
    kind: str
    name: str
    state: str
    facts: Facts
    source: str
    at: float


class Journal:
    """The journal of a session. Reading needs no lock; writing does (`locked`)."""

    def __init__(self, directory: Path) -> None:
        """`locked` makes `directory`; until then the journal is empty."""
        self._directory = directory
        self._file: int | None = None
        self._entries: dict[str, Entry] = {}
        self._due: dict[str, set[str]] = {}
        self._lines = 0
        self._whole = 0
        self._read()

    def entry(self, identifier: str) -> Entry | None:
        """What is known of the object; None if apply has not made it, or undo has removed it."""
        return self._entries.get(identifier)

    def entries(self, kind: str | None = None) -> list[Entry]:
        """All entries, or those of a kind, in the order in which the objects were first made."""
        return [entry for entry in self._entries.values() if kind in (None, entry.kind)]

    def finish_due(self, kind: str) -> frozenset[str]:
        """The identifiers of objects that were made or removed since `finish` of the kind last succeeded."""
        return frozenset(self._due.get(kind, ()))

    def side_file(self, identifier: str, suffix: str) -> str:
        """The path of a file for an object's facts that are too large for the journal. The kind writes it."""
        name = hashlib.sha256(os.fsencode(identifier)).hexdigest()[:32]
        return str(self._directory / f"{name}.{suffix}")

    @contextlib.contextmanager
    def locked(self) -> Iterator[None]:
        """Locks the journal for writing within the block. RestoreError if another run has the lock."""
        self._directory.mkdir(mode=0o700, exist_ok=True)
        path = self._directory / _FILE
        lock = os.open(self._directory / "lock", os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        try:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError as error:
                raise RestoreError(f"Another sondrel-restore works on this session ({path})") from error
            self._read()
            self._open(path)
            yield
        finally:
            if self._file is not None:
                os.close(self._file)
                self._file = None
            os.close(lock)

    def begin(self, item: Item, source: str = "") -> None:
        """For the core: records that apply of the object begins. The facts of an earlier apply stay."""
        self._write({"record": "begun", "identifier": item.identifier, "kind": item.kind, "name": item.name,
                     "source": source, "at": time.time()})

    def note(self, identifier: str, facts: Facts) -> None:
        """Adds facts that undo needs even if apply of the object, which has begun, does not finish."""
        self._write({"record": "noted", "identifier": identifier, "facts": facts})

    def done(self, item: Item, facts: Facts, source: str = "") -> None:
        """For the core: records that apply of the object has finished."""
        self._write({"record": "done", "identifier": item.identifier, "kind": item.kind, "name": item.name,
                     "facts": facts, "source": source, "at": time.time()})

    def undone(self, entry: Entry) -> None:
        """For the core: records that the object is removed."""
        self._write({"record": "undone", "identifier": entry.identifier, "kind": entry.kind})

    def finished(self, kind: str) -> None:
        """For the core: records that `finish` of the kind has succeeded."""
        self._write({"record": "finished", "kind": kind})

    def _open(self, path: Path) -> None:
        if self._lines > 100 and self._lines > _LINES_PER_ENTRY * len(self._entries):
            self._rewrite(path)
        self._file = os.open(path, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        os.ftruncate(self._file, self._whole)
        os.lseek(self._file, 0, os.SEEK_END)

    def _read(self) -> None:
        self._entries, self._due, self._lines, self._whole = {}, {}, 0, 0
        path = self._directory / _FILE
        try:
            file = open(path, "rb")
        except FileNotFoundError:
            return
        with file:
            for number, line in enumerate(file, 1):
                if not line.endswith(b"\n"):
                    break
                try:
                    self._take(json.loads(line))
                except (ValueError, KeyError, TypeError) as error:
                    raise RestoreError(f"{path}, line {number}: damaged") from error
                self._lines += 1
                self._whole += len(line)

    def _take(self, record: dict[str, object]) -> None:
        what, kind = record["record"], str(record.get("kind", ""))
        if what == "version":
            if record["version"] != _VERSION:
                raise RestoreError("The journal is of another release of sondrel-restore")
        elif what == "finished":
            self._due.pop(kind, None)
        elif what == "undone":
            self._entries.pop(str(record["identifier"]), None)
            self._due.setdefault(kind, set()).add(str(record["identifier"]))
        elif what == "noted":
            facts = record["facts"]
            assert isinstance(facts, dict)
            self._entries[str(record["identifier"])].facts.update(facts)
        elif what in ("begun", "done"):
            self._take_entry(str(what), record)
        else:
            raise ValueError(what)

    def _take_entry(self, state: str, record: dict[str, object]) -> None:
        identifier, kind = str(record["identifier"]), str(record["kind"])
        known = self._entries.get(identifier)
        facts = record.get("facts", known.facts if known else {})
        at = record["at"]
        assert isinstance(facts, dict) and isinstance(at, (int, float))
        self._entries[identifier] = Entry(
            identifier, kind, str(record["name"]), state, facts, str(record["source"]), at)
        if state == "done":
            self._due.setdefault(kind, set()).add(identifier)

    def _write(self, record: dict[str, object]) -> None:
        assert self._file is not None, "the journal is not locked"
        records = [record] if self._whole else [{"record": "version", "version": _VERSION}, record]
        for each in records:
            line = _line(each)
            try:
                _write_all(self._file, line)
                os.fdatasync(self._file)
            except OSError as error:
                # A partial line would merge with the next line into a damaged one.
                os.ftruncate(self._file, self._whole)
                os.lseek(self._file, 0, os.SEEK_END)
                raise RestoreError(f"The journal cannot be written: {error.strerror}") from error
            self._whole += len(line)
            self._lines += 1
            self._take(json.loads(line))

    def _rewrite(self, path: Path) -> None:
        content = b"".join(_line(record) for record in self._records())
        atomic_write(str(path), content, mode=0o600, uid=os.geteuid(), gid=os.getegid())
        self._lines, self._whole = content.count(b"\n"), len(content)

    def _records(self) -> Iterable[dict[str, object]]:
        yield {"record": "version", "version": _VERSION}
        for entry in self._entries.values():
            facts = dataclasses.asdict(entry)
            state = facts.pop("state")
            yield {"record": state, **facts}
        for entry_kind in {entry.kind for entry in self._entries.values()}:
            yield {"record": "finished", "kind": entry_kind}
        for kind, identifiers in self._due.items():
            for identifier in identifiers:
                known = self._entries.get(identifier)
                if known is None:
                    yield {"record": "undone", "identifier": identifier, "kind": kind}
                else:
                    yield {"record": known.state, **{key: value for key, value in
                                                     dataclasses.asdict(known).items() if key != "state"}}


def _line(record: dict[str, object]) -> bytes:
    return json.dumps(record, separators=(",", ":")).encode("ascii") + b"\n"


def _write_all(descriptor: int, content: bytes) -> None:
    while content:
        content = content[os.write(descriptor, content):]

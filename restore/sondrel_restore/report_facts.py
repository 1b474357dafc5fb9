"""Gathers the facts of a migration for the report, from the documents of the session.

Their texts come from the source host, which may be hostile: no path in them is opened. Archives are only checked
for their size, below the directory that they were fetched to.
"""
from __future__ import annotations

import dataclasses
import os
import stat
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

from sondrel_restore.description import Description, Element, files_of, read_document
from sondrel_restore.figures import seconds_between
from sondrel_restore.session import Session

SEVERITIES = ("error", "warning", "info")


@dataclasses.dataclass(frozen=True)
class Step:
    """A step of the migration. `seconds` is None while it has not ended."""

    name: str
    state: str
    started: str
    seconds: int | None
    reason: str


@dataclasses.dataclass(frozen=True)
class Moved:
    """One object and its archives. Sizes are bytes; `is_here` is None if nothing was packed."""

    kind: str
    name: str
    detail: str
    unpacked: int
    packed: int
    is_here: bool | None


@dataclasses.dataclass(frozen=True)
class Owner:
    """A client, the host itself, or the owner of what belongs to no client, with its objects."""

    name: str
    objects: tuple[Moved, ...]

    @property
    def unpacked(self) -> int:
        """The bytes of all its objects."""
        return sum(each.unpacked for each in self.objects)


@dataclasses.dataclass(frozen=True)
class Problem:
    """A problem that the agent or a run of `sondrel` reported."""

    severity: str
    about: str
    text: str


@dataclasses.dataclass(frozen=True)
class Facts:
    """All facts of the migration in the report."""

    host: str
    distribution: str
    created: str
    scope: str
    has_content: bool
    steps: tuple[Step, ...]
    owners: tuple[Owner, ...]
    problems: tuple[Problem, ...]
    archives: str

    def count(self, kind: str) -> int:
        """The number of objects of a kind."""
        return sum(each.kind == kind for owner in self.owners for each in owner.objects)

    def total(self, attribute: str) -> int:
        """The bytes of all objects; `attribute` is "unpacked" or "packed"."""
        return sum(getattr(each, attribute) for owner in self.owners for each in owner.objects)

    @property
    def missing_archives(self) -> int:
        """The number of objects with an archive that is missing or has another size."""
        return sum(each.is_here is False for owner in self.owners for each in owner.objects)

    def problems_of(self, severity: str) -> list[Problem]:
        """The problems of a severity, in the order of the documents."""
        return [each for each in self.problems if each.severity == severity]


def gather(session: Session, description: Description) -> Facts:
    """Gathers the facts from the description and the other documents. RestoreError if one of these is damaged."""
    dump = description.tree
    has_content = dump.get("content") == "yes"
    return Facts(
        host=dump.get("host", ""),
        distribution=_distribution(dump.find("server")),
        created=dump.get("created", ""),
        scope=dump.get("scope", ""),
        has_content=has_content,
        steps=tuple(_steps(session)),
        owners=tuple(_owners(description, session.archives, has_content)),
        problems=tuple(_problems(session, dump)),
        archives=str(session.archives),
    )


def _distribution(server: Element | None) -> str:
    if server is None:
        return ""
    return " ".join(filter(None, (server.get("distribution"), server.get("release"))))


def _steps(session: Session) -> Iterator[Step]:
    """The steps of sondrel-migrate. A session without it has only the dump, with the times of its status document."""
    if session.migration is None:
        status = read_document(session.directory / "dumping-status.xml")
        if status is not None:
            started = status.get("started", "")
            seconds = seconds_between(started, status.get("updated", ""))
            yield Step("dump", status.get("stage", ""), started, seconds, "")
        return
    for step in session.migration.iterfind("step"):
        started = step.get("started", "")
        yield Step(
            step.get("name", ""),
            step.get("state", ""),
            started,
            seconds_between(started, step.get("ended", "")),
            step.text or "",
        )


def _owners(description: Description, archives: Path, has_content: bool) -> Iterator[Owner]:
    maker = _Maker(description, archives, has_content)
    server = description.tree.find("server")
    if server is not None and server.find("content") is not None:
        yield Owner("The host itself", (maker.moved(server, "settings", "settings of the servers"),))
    for client in description.clients():
        yield Owner(client.name, tuple(_objects_of(client.element, maker)))
    nobody = description.tree.find("unassigned")
    if nobody is not None and len(nobody):
        yield Owner("Belongs to no client", tuple(_objects_of(nobody, maker)))


def _objects_of(parent: Element, maker: _Maker) -> Iterator[Moved]:
    if parent.tag == "client" and parent.find("content") is not None:
        yield maker.moved(parent, "home", parent.get("home", ""))
    for domain in parent.iterfind("domain"):
        kind = "mail domain" if domain.find("site") is None else "site"
        yield maker.moved(domain, kind, _names(domain))
        yield from _data_of(domain, maker)
    yield from _data_of(parent, maker)


def _data_of(parent: Element, maker: _Maker) -> Iterator[Moved]:
    for database in parent.iterfind("database"):
        yield maker.moved(database, "database", database.get("server") or database.get("kind", ""))
    for mailbox in parent.iterfind("mailbox"):
        yield maker.moved(mailbox, "mailbox", mailbox.get("format", ""))
    jobs = len(parent.findall("cron")) + len(parent.findall("unit"))
    if jobs:
        yield Moved("jobs", f"{jobs} of {parent.get('name', '')}", "in the archive of the client", 0, 0, None)


def _names(domain: Element) -> str:
    """The other names of a site: only the first few, because some sites have hundreds."""
    names = [name.text or "" for name in domain.iterfind("name") if name.text != domain.get("name")]
    more = f" and {len(names) - 5} more" if len(names) > 5 else ""
    return ", ".join(names[:5]) + more


class _Maker:
    """Makes a row for each element that may have archives."""

    def __init__(self, description: Description, archives: Path, has_content: bool) -> None:
        self.description = description
        self.archives = archives
        self.has_content = has_content
        # An archive that several objects name is counted for the first one only.
        self.seen: Counter[str] = Counter()

    def moved(self, element: Element, kind: str, detail: str) -> Moved:
        """The row of an object."""
        contents = self.description.contents(element)
        own = [each for each in contents if not self.seen[each.get("file", "")]]
        self.seen.update(each.get("file", "") for each in contents)
        return Moved(
            kind=kind,
            name=_name_of(element),
            detail=detail,
            unpacked=sum(_number(file.get("unpacked")) for each in own for file in files_of(each)),
            packed=sum(_number(file.get("size")) for each in own for file in files_of(each)),
            is_here=all(self._is_here(file) for each in contents for file in files_of(each))
            if contents and self.has_content else None,
        )

    def _is_here(self, content: Element) -> bool:
        """Whether the file is in the directory of archives with the size that the description gives."""
        try:
            status = os.lstat(self.archives / content.get("file"))
        except OSError:
            return False
        return stat.S_ISREG(status.st_mode) and status.st_size == _number(content.get("size"))


def _name_of(element: Element) -> str:
    return element.get("address") or element.get("name") or element.get("hostname") or ""


def _number(text: str | None) -> int:
    """A count of bytes; 0 for any other text. No real count has 19 digits or more."""
    return int(text) if text and text.isascii() and text.isdigit() and len(text) < 19 else 0


def _problems(session: Session, dump: Element) -> Iterator[Problem]:
    for problem in dump.iterfind("problems/problem"):
        severity = problem.get("severity", "")
        yield Problem(
            severity if severity in SEVERITIES else "error", problem.get("object", ""), problem.text or ""
        )
    for name in ("migration.result", "transfer.result"):
        result = read_document(session.directory / name)
        if result is None:
            continue
        for message in result.iter("message"):
            parent = message.getparent()
            # A nested message is the cause of the one around it, and is reported with that.
            if parent is None or parent.tag == "message":
                continue
            severity = "warning" if message.get("severity") == "warning" else "error"
            about = f"{parent.get('name')} ({name})" if parent.get("name") else name
            yield Problem(severity, about, ": ".join(_causes(message)))


def _causes(message: Element) -> Iterator[str]:
    current: Element | None = message
    while current is not None:
        text = (current.findtext("description") or "").strip()
        if text:
            yield text
        current = current.find("message")

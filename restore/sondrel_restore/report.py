"""Writes one page about a session: what moved, how long it took, what is missing, what verify found."""
from __future__ import annotations

import base64
import dataclasses
import hashlib
import os
from collections import Counter
from collections.abc import Sequence
from pathlib import Path

import jinja2
from markupsafe import Markup

from sondrel_restore import figures
from sondrel_restore.description import Description
from sondrel_restore.hostfiles import atomic_write
from sondrel_restore.journal import Entry, Journal
from sondrel_restore.progress import escaped
from sondrel_restore.report_facts import Facts, gather
from sondrel_restore.session import Session
from sondrel_restore.verification import Verification, load

TEMPLATES = Path(__file__).parent / "templates"
FILE_NAME = "report.html"
# For each severity. More would make the page unusable on a phone; the documents of the session have them all.
MOST_PROBLEMS = 500
MOST_DIFFERENCES = 500


@dataclasses.dataclass(frozen=True)
class Checked:
    """What verify found for one object."""

    identifier: str
    checks: int
    differences: tuple[str, ...]


def render(facts: Facts, entries: Sequence[Entry], verification: Verification | None, now: str) -> bytes:
    """The page, in UTF-8. It has no script and loads nothing; its content security policy enforces that."""
    environment = jinja2.Environment(
        loader=jinja2.FileSystemLoader(TEMPLATES),
        autoescape=True,
        undefined=jinja2.StrictUndefined,
        trim_blocks=True,
        lstrip_blocks=True,
        finalize=_shown,
    )
    environment.filters.update(
        bytes=figures.format_bytes, duration=figures.format_duration, share=_share, moment=_moment
    )
    style = (TEMPLATES / "report.css").read_text(encoding="utf-8")
    page = environment.get_template("report.html.j2").render(
        facts=facts,
        entries=entries,
        made=Counter((entry.kind, entry.state) for entry in entries),
        verification=verification,
        checked=_checked(verification),
        now=now,
        style=Markup(style),
        style_sum=base64.b64encode(hashlib.sha256(style.encode()).digest()).decode(),
        most_problems=MOST_PROBLEMS,
        most_differences=MOST_DIFFERENCES,
        severities=(
            ("error", "Missing from the result"),
            ("warning", "May not work on this host"),
            ("info", "For your information"),
        ),
    )
    return page.encode()


def write_report(session: Session) -> str:
    """Writes the page into the session, readable by the caller only, and returns its path. RestoreError if a document
    is damaged."""
    facts = gather(session, Description(session.dump))
    entries = Journal(session.journal_directory).entries()
    page = render(facts, entries, load(session.journal_directory), figures.now())
    path = str(session.directory / FILE_NAME)
    atomic_write(path, page, mode=0o600, uid=os.geteuid(), gid=os.getegid())
    return path


def _shown(value: object) -> object:
    """Escapes invisible characters in texts of other hosts. Markup is our own and stays as it is."""
    if isinstance(value, str) and not isinstance(value, Markup):
        return "\n".join(map(escaped, value.split("\n")))
    return value


def _share(part: int, whole: int) -> str:
    """The length of a bar, of 100. Anything above 0 gets a visible length."""
    if part <= 0 or whole <= 0:
        return "0"
    return f"{max(0.5, min(100.0, 100 * part / whole)):.1f}"


def _moment(text: str) -> str:
    """A time in a form for people; a text that is no time stays as it is."""
    moment = figures.parse_time(text)
    return moment.strftime("%Y-%m-%d %H:%M UTC") if moment else text


def _checked(verification: Verification | None) -> list[Checked]:
    """The findings by object, objects with differences first."""
    if verification is None:
        return []
    checks: Counter[str] = Counter()
    differences: dict[str, list[str]] = {}
    for finding in verification.findings:
        checks[finding.identifier] += 1
        if not finding.is_same:
            text = f"{finding.what}: {finding.says}" if finding.says else finding.what
            differences.setdefault(finding.identifier, []).append(text)
    found = [Checked(name, count, tuple(differences.get(name, ()))) for name, count in checks.items()]
    return sorted(found, key=lambda each: (not each.differences, each.identifier))

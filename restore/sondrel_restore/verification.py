"""Keeps the findings of the last `verify` of a session beside the journal, for `report`."""
from __future__ import annotations

import dataclasses
import json
import os
from collections.abc import Iterable
from pathlib import Path

from sondrel_restore.figures import now
from sondrel_restore.hostfiles import atomic_write
from sondrel_restore.kind import Finding, RestoreError

FILE_NAME = "verification.json"
VERSION = 1


@dataclasses.dataclass(frozen=True)
class Verification:
    """The findings of one `verify`, and its time as "2026-11-21T10:00:00Z"."""

    at: str
    findings: tuple[Finding, ...]


def save(directory: Path, findings: Iterable[Finding]) -> None:
    """Replaces the kept findings. Does nothing if no apply has made the directory."""
    document = {"version": VERSION, "at": now(), "findings": [dataclasses.asdict(each) for each in findings]}
    if directory.is_dir():
        atomic_write(str(directory / FILE_NAME), json.dumps(document, indent=0).encode("ascii") + b"\n",
                     mode=0o600, uid=os.geteuid(), gid=os.getegid())


def load(directory: Path) -> Verification | None:
    """The last verification; None if there was none. RestoreError if the file cannot be read."""
    path = directory / FILE_NAME
    try:
        document = json.loads(path.read_bytes())
        findings = tuple(
            Finding(str(each["identifier"]), str(each["what"]), each["is_same"] is True, str(each["says"]))
            for each in document["findings"]
        )
        return Verification(str(document["at"]), findings)
    except FileNotFoundError:
        return None
    except (OSError, ValueError, KeyError, TypeError) as error:
        raise RestoreError(f"{path} cannot be read ({error}): run verify again") from error

"""What the last `verify` of a session has found, kept beside the journal for `report`."""
from __future__ import annotations

import dataclasses
import json
from collections.abc import Iterable
from pathlib import Path

from sondrel_restore.kind import Finding, RestoreError

FILE_NAME = "verification.json"
VERSION = 1


@dataclasses.dataclass(frozen=True)
class Verification:
    """The findings of one run of `verify`, and its time as "2026-11-21T10:00:00Z"."""

    at: str
    findings: tuple[Finding, ...]


def to_json(at: str, findings: Iterable[Finding]) -> bytes:
    """The content of the file: written by the caller, as a whole, into the directory of the journal."""
    document = {"version": VERSION, "at": at, "findings": [dataclasses.asdict(each) for each in findings]}
    return json.dumps(document, ensure_ascii=False, indent=0).encode() + b"\n"


def load(directory: Path) -> Verification | None:
    """The last verification; None before the first one. A file that cannot be read is a RestoreError."""
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

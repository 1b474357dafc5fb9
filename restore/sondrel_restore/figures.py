"""Sizes, durations and times for people, in the form that the other programs use."""
from __future__ import annotations

import datetime

UNITS = ("B", "kB", "MB", "GB", "TB", "PB")
TIME_FORMAT = "%Y-%m-%dT%H:%M:%SZ"


def format_bytes(count: int) -> str:
    """ "999 B", "1.2 kB", "3.4 GB": powers of 1000."""
    if count < 1000:
        return f"{count} B"
    unit, unit_bytes = 1, 1000
    # A value that would be shown as 1000.0 gets the next unit.
    while count >= unit_bytes // 20 * 19999 and unit + 1 < len(UNITS):
        unit, unit_bytes = unit + 1, unit_bytes * 1000
    return f"{count / unit_bytes:.1f} {UNITS[unit]}"


def format_duration(seconds: int) -> str:
    """ "0:07", "12:34", "1:02:03"."""
    minutes, rest = divmod(seconds, 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02}:{rest:02}" if hours else f"{minutes}:{rest:02}"


def parse_time(text: str) -> datetime.datetime | None:
    """The time of "2026-11-21T10:00:00Z"; None for a text of another form."""
    try:
        return datetime.datetime.strptime(text, TIME_FORMAT).replace(tzinfo=datetime.timezone.utc)
    except ValueError:
        return None


def seconds_between(earlier: str, later: str) -> int | None:
    """The seconds between two such texts, never negative; None if one of them has another form."""
    begin, end = parse_time(earlier), parse_time(later)
    if begin is None or end is None:
        return None
    return max(0, round((end - begin).total_seconds()))


def now() -> str:
    """The present time, in that form."""
    return datetime.datetime.now(datetime.timezone.utc).strftime(TIME_FORMAT)

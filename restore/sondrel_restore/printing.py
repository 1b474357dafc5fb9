"""The output of the commands: texts for people, and documents for programs."""
from __future__ import annotations

import collections
from collections.abc import Iterable, Sequence

from sondrel_restore.kind import Finding, Item, Missing, State
from sondrel_restore.progress import escaped
from sondrel_restore.restore import Outcome, Plan, Restore

__all__ = ["escaped", "findings_document", "plan_document", "print_findings", "print_outcome", "print_plan",
           "print_undecided", "print_undone"]

_VERSION = 1

_HEADINGS = (
    (State.CONFLICT, "Needs a decision"),
    (State.NEEDS_PACKAGE, "Will be made when the packages that are missing are here"),
    (State.IMPOSSIBLE, "Cannot be restored here"),
    (State.KEPT, "Was changed here and stays as it is"),
    (State.LISTED, "Is for you to look at, and is not restored"),
    (State.MAKE, "Will be made"),
    (State.RENEW, "Will be renewed"),
    (State.SAME, "Is here already"),
)


def plan_document(plan: Plan) -> dict[str, object]:
    """The plan in the format of docs/formats/restore-plan.schema.json."""
    return {
        "version": _VERSION,
        "ready": plan.is_ready,
        "objects": [{
            "object": item.identifier, "kind": item.kind, "name": item.name, "state": item.state.value,
            "says": item.says, "decisions": list(item.decisions), "domains": sorted(item.domains),
            "clients": sorted(item.clients)} for item in plan.items],
        "missing": [{"package": each.package, "because": each.because} for each in plan.missing],
    }


def findings_document(findings: Sequence[Finding]) -> dict[str, object]:
    """The findings in the format of docs/formats/restore-findings.schema.json."""
    return {
        "version": _VERSION,
        "same": all(finding.is_same for finding in findings),
        "findings": [{"object": finding.identifier, "what": finding.what, "same": finding.is_same,
                      "says": finding.says} for finding in findings],
    }


def print_plan(restore: Restore, plan: Plan) -> None:
    """Prints each object under what will happen to it, the missing packages, and whether the plan can be applied."""
    say = restore.progress.say
    for state, heading in _HEADINGS:
        _print_items(restore, heading, [item for item in plan.items if item.state is state])
    _print_missing(restore, plan.missing)
    say(_summary(plan.items))
    say("It can be applied as it is." if plan.is_ready else "Before it can be applied, it needs the above.")


def print_undecided(restore: Restore, plan: Plan) -> None:
    """Prints why nothing was applied."""
    _print_items(restore, "Needs a decision", plan.undecided())
    _print_missing(restore, plan.missing)
    restore.progress.complain("Nothing was changed: decide or install the above first.")


def print_outcome(restore: Restore, plan: Plan, outcome: Outcome) -> None:
    """Prints what an apply did."""
    for identifier in outcome.changed:
        restore.progress.say(f"done: {identifier}")
    for state in (State.LISTED, State.KEPT):
        for item in plan.items:
            if item.state is state:
                restore.progress.say(f"{state.value}: {item.identifier}: {item.says}")
    for identifier, text in restore.named:
        restore.progress.say(f"note: {identifier}: {text}")
    for identifier, text in outcome.impossible:
        restore.progress.complain(f"impossible: {identifier}: {text}")
    _print_failures(restore, outcome)
    impossible = f", {len(outcome.impossible)} not possible here: see above, or leave them out by --skip" \
        if outcome.impossible else ""
    restore.progress.say(f"{len(outcome.changed)} changed, {len(outcome.failed)} failed{impossible}")


def print_undone(restore: Restore, outcome: Outcome) -> None:
    """Prints what an undo did."""
    for left in outcome.left:
        restore.progress.say(f"left: {left.identifier}: {left.says}")
    _print_failures(restore, outcome)
    restore.progress.say(f"{len(outcome.changed)} taken back, {len(outcome.left)} left, {len(outcome.failed)} failed")


def print_findings(restore: Restore, findings: Sequence[Finding]) -> None:
    """Prints the findings of a verify as a table."""
    rows = [("same" if each.is_same else "DIFFERS", each.identifier, each.what, each.says) for each in findings]
    widths = [max((len(row[column]) for row in rows), default=0) for column in range(3)]
    for row in rows:
        cells = [cell.ljust(width) for cell, width in zip(row, widths)]
        restore.progress.say("  ".join([*cells, row[3]]).rstrip())
    differing = len({each.identifier for each in findings if not each.is_same})
    total = len({each.identifier for each in findings})
    restore.progress.say(f"{total - differing} of {total} objects are the same")


def _print_failures(restore: Restore, outcome: Outcome) -> None:
    for identifier, text in outcome.failed:
        restore.progress.complain(f"failed: {identifier}: {text}")


def _print_items(restore: Restore, heading: str, items: Sequence[Item]) -> None:
    if not items:
        return
    restore.progress.say(f"{heading}:")
    for item in items:
        restore.progress.say(f"  {item.identifier}: {item.says}")
        for decision in item.decisions:
            restore.progress.say(f"      {decision}")
    restore.progress.say("")


def _print_missing(restore: Restore, missing: Iterable[Missing]) -> None:
    reasons: dict[str, list[str]] = {}
    for each in missing:
        reasons.setdefault(each.package, []).append(each.because)
    if not reasons:
        return
    restore.progress.say("Missing on this host:")
    for package, because in sorted(reasons.items()):
        more = f" and {len(because) - 1} more" if len(because) > 1 else ""
        restore.progress.say(f"  {package or 'no package'}: {because[0]}{more}")
    packages = sorted(package for package in reasons if package)
    if packages:
        restore.progress.say(f"  apt install {' '.join(packages)}")
    restore.progress.say("")


def _summary(items: Iterable[Item]) -> str:
    counts = collections.Counter(item.state for item in items)
    words = {State.MAKE: "to make", State.RENEW: "to renew", State.SAME: "the same", State.KEPT: "changed here",
             State.CONFLICT: "to be decided", State.NEEDS_PACKAGE: "after packages", State.IMPOSSIBLE: "not possible",
             State.LISTED: "for you to look at"}
    return ", ".join(f"{counts[state]} {word}" for state, word in words.items() if counts[state]) or "Nothing to do"

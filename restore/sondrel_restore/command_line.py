"""The command line of `sondrel-restore`: parses the options and runs the command."""
from __future__ import annotations

import argparse
import json
import re
import signal
import sys
from collections.abc import Callable, Sequence

from sondrel_restore import printing, verification
from sondrel_restore.description import Description
from sondrel_restore.kind import RestoreError
from sondrel_restore.kinds import all_kinds
from sondrel_restore.packages import install
from sondrel_restore.restore import (Outcome, Restore, apply_plan, make_plan, text_of, undo_all, verify_items)
from sondrel_restore.selection import Decisions, Selection
from sondrel_restore.session import Session

DONE, FAILED, WRONG_USE, UNDECIDED = 0, 1, 2, 3

_ACCOUNT = re.compile(r"[A-Za-z_][A-Za-z0-9_.-]{0,31}")


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs a command; returns its exit code. The parser exits by itself on wrong use."""
    signal.signal(signal.SIGTERM, _stop)
    signal.signal(signal.SIGHUP, _stop)
    options = _parser().parse_args(arguments)
    restore = None
    try:
        if options.command == "report":
            # Loading the template engine takes as long as all other modules together; only this command needs it.
            from sondrel_restore.report import write_report  # pylint: disable=import-outside-toplevel

            print(printing.escaped(write_report(Session(options.session, options.archives))))
            return DONE
        restore = _restore(options)
        command: Callable[[Restore, argparse.Namespace], int] = options.run
        return command(restore, options)
    except (RestoreError, OSError) as error:
        if restore is not None:
            restore.progress.erase()
        said = text_of(error) if isinstance(error, OSError) else str(error)
        print(f"sondrel-restore: {printing.escaped(said)}", file=sys.stderr)
        return FAILED
    except KeyboardInterrupt:
        print("sondrel-restore: stopped; the same command goes on", file=sys.stderr)
        return 128 + signal.SIGINT


def _stop(number: int, _: object) -> None:
    raise SystemExit(128 + number)


def _restore(options: argparse.Namespace) -> Restore:
    session = Session(options.session, options.archives)
    description = Description(session.dump)
    selection = Selection(description, frozenset(options.domains), frozenset(options.clients))
    decisions = Decisions(
        replaced=frozenset(options.replace), skipped=frozenset(options.skip), accounts=dict(options.map_account),
        install=getattr(options, "install", False), start_jobs=getattr(options, "start_jobs", False),
        trust_configuration=options.trust_configuration)
    return Restore(session, description, selection, decisions, against=getattr(options, "against", ""))


# --- commands ---

def _run_plan(restore: Restore, options: argparse.Namespace) -> int:
    plan = make_plan(restore, all_kinds())
    _print(restore, options, printing.plan_document(plan), lambda: printing.print_plan(restore, plan))
    can_install = restore.decisions.install and all(each.package for each in plan.missing)
    is_ready = plan.is_ready or can_install and not plan.undecided()
    return DONE if is_ready else UNDECIDED


def _print(restore: Restore, options: argparse.Namespace, document: dict[str, object],
           print_text: Callable[[], None]) -> None:
    """Prints the document as JSON or the text, as --format says."""
    restore.progress.erase()
    if options.format == "json":
        json.dump(document, sys.stdout, indent=1)
        print()
    else:
        print_text()


def _run_apply(restore: Restore, _: argparse.Namespace) -> int:
    kinds = all_kinds()
    with restore.journal.locked():
        plan = make_plan(restore, kinds)
        names = {each.package for each in plan.missing} - {""}
        # As long as a decision is missing, nothing is changed, so no package is installed either.
        if restore.decisions.install and names and not plan.undecided():
            # A journal entry says that the files of these new packages are unchanged, so apply may overwrite them.
            for item in plan.items:
                if item.package in names:
                    restore.journal.begin(item)
            install(restore, names)
            plan = make_plan(restore, kinds)
        if not plan.is_ready:
            restore.progress.erase()
            printing.print_undecided(restore, plan)
            return UNDECIDED
        outcome = apply_plan(restore, kinds, plan)
    restore.progress.erase()
    printing.print_outcome(restore, plan, outcome)
    return FAILED if outcome.failed or outcome.impossible else DONE


def _run_verify(restore: Restore, options: argparse.Namespace) -> int:
    kinds = all_kinds()
    plan = make_plan(restore, kinds)
    findings = list(verify_items(restore, kinds, plan))
    verification.save(restore.session.journal_directory, findings)
    _print(restore, options, printing.findings_document(findings), lambda: printing.print_findings(restore, findings))
    return DONE if all(finding.is_same for finding in findings) else FAILED


def _run_undo(restore: Restore, _: argparse.Namespace) -> int:
    with restore.journal.locked():
        outcome: Outcome = undo_all(restore, all_kinds())
    restore.progress.erase()
    printing.print_undone(restore, outcome)
    return FAILED if outcome.failed or outcome.left else DONE


# --- options ---

def _names(text: str) -> list[str]:
    names = [name for name in text.split(",") if name]
    if not names:
        raise argparse.ArgumentTypeError("names with commas between them are needed")
    return names


def _pair(text: str) -> tuple[str, str]:
    there, colon, here = text.partition(":")
    if not colon or not there or not _ACCOUNT.fullmatch(here):
        raise argparse.ArgumentTypeError(f"{text} is not NAME-THERE:NAME-HERE")
    return there, here


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="sondrel-restore", allow_abbrev=False,
        description="Restores on this host what sondrel fetched from another one.")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    plan = _command(commands, "plan", _run_plan, "say what apply would do, and what it needs; changes nothing")
    plan.add_argument("--install", action="store_true", help="packages that this host lacks will be installed")
    _add_format(plan)
    apply = _command(commands, "apply", _run_apply, "make what the plan says")
    apply.add_argument("--install", action="store_true", help="install the packages that this host lacks")
    apply.add_argument("--start-jobs", action="store_true", help="switch the jobs on")
    verify = _command(commands, "verify", _run_verify, "compare what is here with what was fetched; changes nothing")
    verify.add_argument("--against", default="", metavar="ADDRESS", help="compare the sites with a live host")
    _add_format(verify)
    _command(commands, "undo", _run_undo, "take back what apply made and nobody changed since")
    report = commands.add_parser(
        "report", help="write a page about the migration", allow_abbrev=False,
        description="Writes report.html into the session: what moved, sizes and times, problems, the last "
                    "verification.")
    _add_session(report)
    return parser


def _command(commands: argparse._SubParsersAction[argparse.ArgumentParser], name: str,
             run: Callable[[Restore, argparse.Namespace], int], text: str) -> argparse.ArgumentParser:
    parser = commands.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".", allow_abbrev=False)
    parser.set_defaults(run=run)
    _add_session(parser)
    add = parser.add_argument
    add("--domains", type=_names, default=[], metavar="NAME,...", help="only these domains")
    add("--clients", type=_names, default=[], metavar="NAME,...", help="only these clients, with their domains")
    add("--map-account", type=_pair, default=[], action="append", metavar="THERE:HERE",
        help="an account of the source host is this one here")
    add("--replace", default=[], action="append", metavar="OBJECT", help="overwrite what is here")
    add("--skip", default=[], action="append", metavar="OBJECT", help="leave this object out")
    add("--trust-configuration", action="store_true", help="take all directives of the source host")
    return parser


def _add_session(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("session", metavar="SESSION", help="the session directory")
    parser.add_argument("--archives", default="", metavar="DIR",
                        help="where the fetched files are, if not where the session says")


def _add_format(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--format", choices=("text", "json"), default="text", help="what the output is made for")

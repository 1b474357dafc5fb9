"""Each call of the system fails once, in a small run that fetches content."""
import os
import re
import shutil
import subprocess

import pytest

from content import offered
from invariants import ARCHIVES, TEMPORARY, check, complete
from world import HERE, ROOT, SESSION, Destination, Session, SourceHost, read, write

pytestmark = [pytest.mark.matrix("calls"), pytest.mark.release_only]

FOLDER = "/mnt/calls"
REPORT = f"{FOLDER}/report"
# The first file comes in several pieces.
ENTRIES = {"first": bytes(range(256)) * 400, "sub/second": b"22", "third": b""}
LIMIT_SECONDS = 20
# By how far the system may get when the calls are counted.
MOST_CALLS = 500

CONTENT = f"{ARCHIVES}/(first|sub/second|third)"
# The debug log is not the run's work; a result log that cannot be saved does not undo it.
LOGS = r"/mnt/session/(migration\.log|transfer\.result.*)"
# What may fail for the connection's sake, by how far the run has got.
LOST = {"UnableToStartSshSession", "SshInvalidCredentials", "InvalidHandle", "UnableToSendEof", "SshConnectionFault"}
# A single error, after which the connection lives on, may look as if the command had failed.
HICCUP = LOST | {"CantRetrieveContentList", "CantRetrieveContentFile"}
NEVER = "(?!)"
# kind: (the fewest calls there are, what may be told in the end, on what a failure does no harm)
KINDS = {
    "write": (20, {"tError_SaveFile", "StreamWrite", "FileWrite"}, LOGS),
    # A descriptor that was only read from, or closed empty, loses nothing.
    "close": (30, {"tError_SaveFile", "CantRetrieveContentFile", "FileWrite"},
              f"(?!({CONTENT}|.*-name)$).*"),
    "fsync": (7, {"CantRetrieveContentFile"}, NEVER),
    "rename": (10, {"CantRenameFile"}, f".* -> {LOGS}"),
    "mkstemp": (10, {"CantCreateTempFile"}, LOGS),
    # The session belongs to root even where it cannot be given to the service account's group.
    "chown": (12, {"CantTakeFileOwnership", "CantRetrieveContentFile"}, f"{SESSION}(/archives)?|{LOGS}"),
    "mkdir": (3, {"UnableToCreateSession", "CantRetrieveContentFile"}, NEVER),
    "statfs": (1, {"CantStatFS"}, NEVER),
    "recv": (40, HICCUP, "socket:.*"),
    "send": (30, HICCUP, "socket:.*"),
}


@pytest.fixture(autouse=True)
def source():
    # A short banner: it is received byte by byte.
    with SourceHost(["DebianBanner no"], recording=False) as host:
        yield host


@pytest.fixture
def preload():
    """Path of the compiled fail_nth_call.c."""
    os.makedirs(FOLDER, exist_ok=True)
    library = f"{FOLDER}/fail_nth_call.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, f"{HERE}/fail_nth_call.c", "-ldl"], check=True)
    yield library
    shutil.rmtree(FOLDER)


def get_content(environment=None):
    return Destination(ROOT).start("get-content", environment=environment).finish(LIMIT_SECONDS)


def run_with_failure(library, kind, nth, stays):
    """(the Outcome, on what each failed call was made)"""
    write(REPORT)
    environment = {"LD_PRELOAD": library, "FAIL_KIND": kind, "FAIL_NTH": str(nth), "FAIL_REPORT": REPORT}
    outcome = get_content({**environment, "FAIL_STAYS": "1"} if stays else environment)
    return outcome, [line.removeprefix(f"{kind} ") for line in os.fsdecode(read(REPORT)).splitlines()]


def innermost_code(outcome):
    """The tag of the error that ended the run."""
    if outcome.code == 1:
        return re.match(rb"Uncaught ExTraceableException: (\w+)\[", outcome.stderr)[1].decode()
    message = Session().messages("transfer.result")[-1]
    while message[3]:
        message, = message[3]
    return message[0]


def try_each(library, kind, stays, told, harmless):
    """Lets the first call fail, then the second ... until there is none left; returns how many failed."""
    for nth in range(1, MOST_CALLS):
        shutil.rmtree(SESSION, ignore_errors=True)
        offered(ROOT, *ENTRIES.items())
        outcome, failed = run_with_failure(library, kind, nth, stays)
        saved = Session().exists("transfer.result")
        assert saved or outcome.code == 1 or any("transfer.result" in what for what in failed), failed
        # A document that was written in full stays when it can neither be given away nor moved.
        leaves = sum(kind in ("chown", "rename") and TEMPORARY.fullmatch(os.path.basename(what.split(" -> ")[0]))
                     is not None for what in failed)
        check(outcome, ENTRIES, leaves=leaves, result_saved=saved)
        if not failed:
            assert outcome.code == 0
            return nth - 1
        if outcome.code == 0:
            assert all(re.fullmatch(harmless, what) for what in failed), failed
        else:
            assert not saved or innermost_code(outcome) in told, outcome
            rerun_completes(leaves)
    raise AssertionError(f"{kind} is called more than {MOST_CALLS} times")


def rerun_completes(leaves):
    already = complete(ENTRIES, ARCHIVES)
    outcome = get_content()
    check(outcome, ENTRIES, leaves=leaves, already=already)
    assert outcome.code == 0


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("kind", KINDS)
def test_one_that_fails_loses_nothing(preload, cases, kind):
    fewest, told, harmless = KINDS[kind]
    number = try_each(preload, kind, False, told, harmless)
    assert number >= fewest
    cases(number)


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("kind", ["write", "mkstemp", "rename", "recv", "send"])
def test_all_from_one_on_that_fail_lose_nothing(preload, cases, kind):
    fewest, told, harmless = KINDS[kind]
    number = try_each(preload, kind, True, LOST if kind in ("recv", "send") else told, harmless)
    assert number >= fewest
    cases(number)

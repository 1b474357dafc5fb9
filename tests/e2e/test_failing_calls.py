"""Each system call fails once, in a small run that fetches content."""
import os
import re
import resource
import shutil

import pytest

from content import each_way, offered
from invariants import ARCHIVES, TEMPORARY, check, complete
from source_host import SourceHost
from system_faults import Fault, preload  # a fixture  # noqa: F401  # pylint: disable=unused-import
from tool import Destination, Session
from world import ROOT, SESSION

pytestmark = [pytest.mark.matrix("calls"), pytest.mark.release_only]

# The first file comes in several pieces.
ENTRIES = {"first": bytes(range(256)) * 400, "sub/second": b"22", "third": b""}
LIMIT_SECONDS = 20
CPU_LIMIT_SECONDS = 2
# The most calls of one kind in one run.
MOST_CALLS = 500

CONTENT = f"{ARCHIVES}/(first|sub/second|third)"
# A failure at these does no harm: the debug log is not part of the result, and a result log that cannot be saved
# does not undo the work.
LOGS = r"/mnt/session/(migration\.log|transfer\.result.*)"
# The errors of a lost connection; which one depends on how far the run has got.
LOST = {"UnableToStartSshSession", "SshInvalidCredentials", "InvalidHandle", "SshConnectionFault"}
NEVER = "(?!)"
# kind: (the minimum of calls, the errors that may be reported, the objects on which a failure does no harm)
KINDS = {
    "write": (20, {"tError_SaveFile", "StreamWrite", "FileWrite"}, LOGS),
    # Nothing is lost when closing a descriptor fails that was only read, or that is closed before anything is
    # written.
    "close": (30, {"tError_SaveFile", "CantRetrieveContentFile", "FileWrite"},
              f"(?!({CONTENT}|.*-name)$).*"),
    # The session's own directory is synced for the result log alone once it is there.
    "fsync": (13, {"CantRetrieveContentFile", "FileWrite", "UnableToCreateSession"}, f"{SESSION}|{LOGS}"),
    "rename": (10, {"CantRenameFile"}, f".* -> {LOGS}"),
    "mkstemp": (10, {"CantCreateTempFile"}, LOGS),
    # The session belongs to root even where it cannot be given to the service account's group.
    "chown": (12, {"CantTakeFileOwnership", "CantRetrieveContentFile"}, f"{SESSION}(/archives)?|{LOGS}"),
    "mkdir": (3, {"UnableToCreateSession", "CantRetrieveContentFile"}, NEVER),
    "statfs": (1, {"CantStatFS"}, NEVER),
    "recv": (40, LOST, "socket:.*"),
    "send": (30, LOST, "socket:.*"),
}


# The comparison of content with the list makes, names and gives away no file, and the connection carries the same.
COMPARED = {"write", "close", "fsync", "rename"}


def each(kinds):
    """Some of the calls are frequent."""
    return each_way("kind", {kind: kind for kind in kinds}, COMPARED, slow={"close", "recv", "send"})


@pytest.fixture(autouse=True)
def source():
    # A short banner, because it is received byte by byte.
    with SourceHost(["DebianBanner no"], recording=False) as host:
        yield host


def cpu_seconds():
    """Processor time of all runs that have ended."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def get_content(source, environment=None):
    before = cpu_seconds()
    outcome = Destination(ROOT).start("get-content", environment=environment).finish(LIMIT_SECONDS)
    assert cpu_seconds() - before < CPU_LIMIT_SECONDS, "the tool goes round in circles"
    source.wait_until_idle()
    return outcome


def innermost_code(outcome):
    """The tag of the error that ended the run."""
    if outcome.code == 1:
        return re.match(rb"Uncaught ExTraceableException: (\w+)\[", outcome.stderr)[1].decode()
    message = Session().messages("transfer.result")[-1]
    while message[3]:
        message, = message[3]
    return message[0]


def try_each(source, library, kind, stays, told, harmless, asked=None):
    """Makes the first call fail, then the second and so on, until a run has no such call left; returns how many
    failed.
    """
    for nth in range(1, MOST_CALLS):
        shutil.rmtree(SESSION, ignore_errors=True)
        offered(ROOT, *ENTRIES.items())
        fault = Fault(library, kind, nth, stays)
        outcome = get_content(source, {**fault.environment, **(asked or {})})
        failed = fault.struck()
        saved = Session().exists("transfer.result")
        assert saved or outcome.code == 1 or any("transfer.result" in what for what in failed), failed
        # A document that was written in full stays when it can neither be given away nor moved.
        leaves = sum(kind in ("chown", "rename", "fsync") and TEMPORARY.fullmatch(os.path.basename(what.split(" -> ")[0]))
                     is not None for what in failed)
        check(outcome, ENTRIES, leaves=leaves, result_saved=saved)
        if not failed:
            assert outcome.code == 0
            return nth - 1
        if outcome.code == 0:
            assert all(re.fullmatch(harmless, what) for what in failed), failed
        else:
            assert not saved or innermost_code(outcome) in told, outcome
            rerun_completes(source, leaves)
    raise AssertionError(f"{kind} is called more than {MOST_CALLS} times")


def rerun_completes(source, leaves):
    already = complete(ENTRIES, ARCHIVES)
    outcome = get_content(source)
    check(outcome, ENTRIES, leaves=leaves, already=already)
    assert outcome.code == 0


@each(KINDS)
def test_one_that_fails_loses_nothing(source, preload, cases, kind):
    fewest, told, harmless = KINDS[kind]
    number = try_each(source, preload, kind, False, told, harmless)
    assert number >= fewest
    cases(number)


# In a batch one call syncs all files.
FEWEST_IN_A_BATCH = {"write": 20, "fsync": 8, "chown": 12, "mkdir": 3}


@pytest.mark.parametrize("kind", FEWEST_IN_A_BATCH)
def test_one_that_fails_in_a_batch_loses_nothing(source, preload, cases, kind):
    _, told, harmless = KINDS[kind]
    number = try_each(source, preload, kind, False, told, harmless, {"SONDREL_CONTENT_BATCH": "yes"})
    assert number >= FEWEST_IN_A_BATCH[kind]
    cases(number)


@each(["write", "mkstemp", "rename", "recv", "send"])
def test_all_from_one_on_that_fail_lose_nothing(source, preload, cases, kind):
    fewest, told, harmless = KINDS[kind]
    number = try_each(source, preload, kind, True, told, harmless)
    assert number >= fewest
    cases(number)

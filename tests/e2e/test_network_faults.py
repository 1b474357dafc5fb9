"""Network faults in a run of --get-content, at each of its steps."""
import signal
import time

import pytest

from content import each_way
from fast_clock import fast_clock  # a fixture  # noqa: F401  # pylint: disable=unused-import
from gates import offered_behind_gates
from invariants import check, check_documents, check_nothing_lost
from relay import Dialog, corrupt, delay, fin, one_byte, rst, stall, throttle
from struck_run import (EARLY, FILES, LATE, LOST, NO_LEAK_CHECK, NO_LOGIN, POINTS, Point, check_failed,
                        check_next_run, source_host, struck_run)
from tool import Session
from world import processor_ticks

pytestmark = pytest.mark.matrix("network")

# The most time from the fault to the end of the run, also on a busy machine: no time limit of the program is as
# short.
LIMIT_SECONDS = 10


@pytest.fixture
def source():
    with source_host() as host:
        offered_behind_gates(FILES)
        yield host


def each(table):
    """A run that ends at one of the early points has no content to compare with its list."""
    return each_way("point", table, LATE)


def check_idle(running):
    """Checks that the tool uses no processor time while it waits; a tick is 10 ms."""
    before = processor_ticks(running.pid)
    time.sleep(0.3)
    assert not running.ended()
    assert processor_ticks(running.pid) - before <= 1


def check_stalled(running):
    """Checks that the tool waits idly, and that SIGTERM ends it at once."""
    check_idle(running)
    begin = time.monotonic()
    running.send(signal.SIGTERM)
    outcome = running.finish()
    took = time.monotonic() - begin
    assert (outcome.code, outcome.stdout, outcome.stderr) == (-signal.SIGTERM, b"", b"")
    assert took < LIMIT_SECONDS
    check(outcome, FILES)
    assert not Session().exists("transfer.result")


@pytest.mark.parametrize("way", [fin, rst], ids=["closed", "reset"])
@each(POINTS)
def test_lost_connection_is_noticed_at_once(source, content_verify, way, point):
    with struck_run(way, point) as (relay, running):
        outcome = running.finish()
        took = time.monotonic() - relay.struck_at
    check_failed(outcome, point.causes, Session())
    assert took < LIMIT_SECONDS
    check_next_run(source)


# A session that does not start is tried once more, with a key exchange that this server does not know.
@pytest.mark.parametrize("point, connections, stalls", zip(EARLY.values(), (2, 2, 1), (2, 1, 1)), ids=EARLY)
def test_stall_before_the_login_is_done_ends_by_its_limit(source, fast_clock, point, connections, stalls):
    begin = time.monotonic()
    with struck_run(stall, point, environment=fast_clock) as (relay, running):
        outcome = running.finish()
        took = time.monotonic() - begin
    # A silent server has not refused the login.
    check_failed(outcome, LOST if point.causes == NO_LOGIN else point.causes, Session())
    assert len(relay.links) == connections
    # 120 s for each connection that stalls, of which a hundredth passes here.
    assert 1.1 * stalls < took < 1.3 * stalls + LIMIT_SECONDS
    check_next_run(source)


@each(LATE)
def test_stall_after_the_login_is_waited_for_idly_and_ended_by_sigterm(source, content_verify, point):
    with struck_run(stall, point) as (_, running):
        check_stalled(running)
    check_next_run(source)


# The end of the second file, or the third one, has not arrived yet, nor have several answers.
@pytest.mark.parametrize("way, at_least_seconds", [(delay, 0.5), (one_byte, 0), (throttle, 0.5)],
                         ids=["delayed", "byte by byte", "throttled"])
@each_way("point", POINTS, POINTS)
def test_slow_connection_brings_everything(source, content_verify, way, at_least_seconds, point):
    with struck_run(way, point) as (relay, running):
        outcome = running.finish()
        took = time.monotonic() - relay.struck_at
    assert outcome.code == 0
    check(outcome, FILES)
    assert took > at_least_seconds


# --- corrupted bytes -------------------------------------------------------------------------

# After the length, which has tests of its own: in the software's name, in the host's key, in encrypted data.
OFFSETS = dict(zip(POINTS, (10, 60, 10, 10, 10, 10)))


@each({name: (point, OFFSETS[name]) for name, point in POINTS.items()})
def test_corrupted_byte_is_found_out(source, content_verify, point):
    point, offset = point
    with struck_run(corrupt(offset), point, environment=NO_LEAK_CHECK) as (_, running):
        outcome = running.finish(15)
    check_failed(outcome, point.causes, Session())
    check_next_run(source)


# The client's turns after the login: it opens a channel, and starts the command in it.
@pytest.mark.parametrize("turn", [4, 5], ids=["channel", "start"])
def test_corrupted_answer_to_a_request_is_found_out(source, turn):
    with struck_run(corrupt(10), Point([], at=lambda: Dialog(turn=turn))) as (_, running):
        outcome = running.finish()
    assert outcome.code == 2
    check(outcome, FILES)
    check_next_run(source)


# The tool trusts the length of a packet until the whole packet has arrived; in the key exchange and during the
# login their time limit ends that.
@pytest.mark.parametrize("name, offset, mask", [
    ("before the banner", 0, 0x01),  # the version is taken for a line of text ahead of it
    ("in the key exchange", 3, 0x10),
    ("in authentication", 3, 0x10),
    ("in authentication", 0, 0x80),
    ("at the start of the command", 3, 0x10),
    ("at the start of the command", 0, 0x80),
    ("between the last byte and the close", 0, 0x80)],
    ids=["version", "key exchange", "login", "login, beyond all bounds", "content", "content, beyond all bounds",
         "end, beyond all bounds"])
def test_corrupted_length_is_found_out(source, fast_clock, name, offset, mask):
    with struck_run(corrupt(offset, mask), POINTS[name], environment=fast_clock) as (_, running):
        outcome = running.finish(15)
    check_failed(outcome, POINTS[name].causes, Session())
    check_next_run(source)


def test_corrupted_length_that_waits_for_more_than_comes_is_a_stall(source):
    """It cannot be detected: it is the last packet, and the server waits for an answer."""
    with struck_run(corrupt(2, 0x10), POINTS["between the last byte and the close"]) as (_, running):
        check_stalled(running)
    check_next_run(source)


def test_corrupted_length_that_no_cipher_has_loses_nothing(source):
    """The SSH library itself may abort the run where a length is no multiple of the cipher's block."""
    with struck_run(corrupt(3, 0x01), POINTS["at the start of the command"]) as (_, running):
        outcome = running.finish()
    assert outcome.code in (2, -signal.SIGABRT)
    check_nothing_lost(FILES)
    check_documents(Session())
    check_next_run(source)

"""What signals do to a run."""
import os
import signal

import pytest

from content import left, offered
from source_host import SourceHost, deployed_agent
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, files_below, wait_until, write

pytestmark = pytest.mark.matrix("signals")

TEXT = b"Migration has been terminated"


def stopped(outcome):
    """Checks that a stop request ended the run, which is no failure."""
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, TEXT, b"")
    assert "INFO k.log: Migration has been terminated\n" in Session().log()
    assert Session().log().endswith("INFO k.log: Sondrel finished. Exit code: 0\n")
    return True


def fifo(login, name):
    path = f"{login.agent_dir}/{name}"
    os.mkfifo(path)
    os.chown(path, *login.ids)
    return path


def test_stop_request_ends_a_download_at_the_next_chunk(source):
    offered(ROOT, ("one", b"1"), ("two", None, {"size": 2000}), ("three", b"3"))
    path = fifo(ROOT, "two")
    running = Destination().start("get-content")
    with open(path, "wb") as pipe:
        pipe.write(b"x" * 1000)
        pipe.flush()
        wait_until(lambda: b'size-left="1000"' in Session().read("migration.status"), "the first chunk")
        running.send(signal.SIGUSR1)
        running.send(signal.SIGUSR1)
        pipe.write(b"y" * 1000)
    assert stopped(running.finish())
    assert Session().result("transfer.result") == ("execution-result", [("status", "success")], "", [])
    assert not Session().exists("dump-name")
    assert left(ROOT) == ["three", "two"]
    assert b"y" not in files_below(f"{Session().path}/archives")[b"two"]


def test_stop_request_ends_a_dump(source):
    deployed_agent(PLAIN, "read line < \"${0%/*}/pipe\"; echo \"$line\"; : > dump.xml")
    path = fifo(PLAIN, "pipe")
    running = Destination(PLAIN).start("dump-all")
    with open(path, "wb") as pipe:  # returns when the agent reads
        running.send(signal.SIGUSR1)
        pipe.write(b"go on\n")
    assert stopped(running.finish())
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert not Session().exists("dump-name")


def test_stop_request_ends_the_scout(source):
    os.mkfifo(f"{PLAIN.home}/pipe")
    os.chmod(f"{PLAIN.home}/pipe", 0o644)
    write(f"{DTM}/scout.pl", f"open my $in, '<', '{PLAIN.home}/pipe'; print <$in>;")
    running = Destination(PLAIN).start("send-scout")
    with open(f"{PLAIN.home}/pipe", "wb") as pipe:
        running.send(signal.SIGUSR1)
        pipe.write(b"too late")
    assert stopped(running.finish())
    assert Session().read("scout-result.xml") == b""


@pytest.fixture
def waiting_rm():
    """A source host where `rm` waits for a line of the pipe, which says how it goes on."""
    write("/mnt/bin/rm", "#!/bin/sh\nread line < /mnt/bin/pipe\neval \"$line\"\n", mode=0o755)
    if not os.path.exists("/mnt/bin/pipe"):
        os.mkfifo("/mnt/bin/pipe")
    with SourceHost(options=["SetEnv PATH=/mnt/bin:/usr/bin:/bin"]) as source:
        yield source


def test_stop_request_is_not_lost_in_the_removal_of_a_file(waiting_rm):
    offered(ROOT, ("one", b"1"), ("two", b"2"))
    running = Destination().start("get-content")
    with open("/mnt/bin/pipe", "wb") as pipe:
        running.send(signal.SIGUSR1)
        pipe.write(b"echo problem >&2; exit 1\n")
    assert stopped(running.finish())
    assert waiting_rm.lines()[-1].endswith("one")
    assert Session().result("transfer.result") == ("execution-result", [("status", "success")], "", [])


def test_stop_request_after_the_last_chunk_changes_nothing(waiting_rm):
    offered(ROOT, ("one", b"1"))
    running = Destination().start("get-content")
    with open("/mnt/bin/pipe", "wb") as pipe:
        running.send(signal.SIGUSR1)
        pipe.write(b"exit 0\n")
    outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR2],
                         ids=lambda number: number.name)
def test_other_signals_end_the_process(source, number):
    offered(ROOT, ("one", None))
    path = fifo(ROOT, "one")
    # A signal that the caller left blocked ends the run nevertheless.
    running = Destination().start("get-content", prepare=lambda: signal.pthread_sigmask(
        signal.SIG_BLOCK, {number}))
    with open(path, "wb"):
        running.send(number)
        assert running.finish().code == -number


def test_stop_request_passes_a_mask_that_the_caller_left_blocked(source):
    offered(ROOT, ("one", None))
    path = fifo(ROOT, "one")
    running = Destination().start("get-content", prepare=lambda: signal.pthread_sigmask(
        signal.SIG_BLOCK, {signal.SIGUSR1}))
    with open(path, "wb") as pipe:
        running.send(signal.SIGUSR1)
        pipe.write(b"x")
    assert stopped(running.finish())

"""sondrel-migrate with an imitated sondrel: a dump or a run of an earlier call that still runs."""
import os
import signal

import pytest

from imitated_runs import imitated  # noqa: F401  # pylint: disable=unused-import
from imitated_runs import ALL, SUDO_ALL
from migrating import IMITATION, STEPS, State, progress_of, status
from terminal import Terminal
from world import SESSION, SUDOER, owner_and_mode, processes, read, wait_until, write

RESULT = (f"""echo '<execution-result status="error"><message><description>Error during dump retrieval</description>'"""
          f"""'<message><description>%s</description></message></message></execution-result>' > {SESSION}/%s
printf 'Error during dump retrieval' >&2; exit 2""")
REFUSED = RESULT % ("stderr messages: Another dump is still running in this directory", "%s")


def refused_until(condition, result="migration.result"):
    """An agent refuses a dump until the condition, in shell, is true."""
    return f"{condition} && exit 0\n{REFUSED % result}"


def standing(stage, number):
    return (f'<dumping-status version="1" stage="{stage}" done="{number}" total="5" bytes="0" object="{number}.test" '
            f'updated="{number}"/>')


WAITING = "{0}: a dump that an earlier run started is still at work on src.example; waiting for its end"


@pytest.mark.parametrize("step, result", [("dump", "migration.result"), ("content", "transfer.result")])
@pytest.mark.parametrize("end", ["finished", "failed"])
def test_waits_for_an_earlier_dump_and_goes_on_with_it(imitated, step, result, end):
    """The agent still refuses the step when its status first says that the dump has ended."""
    imitated.does(step, refused_until(f"[ $(ls -d {IMITATION}/runs/*.status | wc -l) -ge 2 ]", result))
    imitated.does("status", f"[ -d {IMITATION}/runs/*.remove ] || printf '%s' '{standing(end, 5)}'")
    outcome = imitated.run(*SUDO_ALL, login=SUDOER)
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    before = STEPS[:STEPS.index(step)]
    # The last query checks whether the agent has been removed.
    assert imitated.all_runs() == [*before, step, "status", step, "status", *STEPS[len(before):], "status"]
    assert outcome.stdout.decode().count(WAITING.format(step)) == 1
    assert imitated.arguments_of_status() == [f"--session-path={SESSION}", "--host=src.example", "--login=sudoer", "--sudo-password",
                     f"--agent-dir=/home/sudoer/{State().agent_directory}", "--agent-name=linux", "--get-dumping-status"]
    assert State().progress() == progress_of(*["done"] * 5)


def test_shows_how_far_the_dump_is_that_it_waits_for(imitated):
    write(f"{IMITATION}/document", standing("content", 2))
    imitated.does("dump", refused_until(f"[ -e {IMITATION}/go ]"))
    imitated.does("status", f"[ -d {IMITATION}/runs/*.remove ] || cat {IMITATION}/document")
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}, columns=100) as terminal:
        terminal.shows(b"\r\x1b[Kdump: content, 2 of 5 done, 2.test")
        assert status()["dump"].endswith(": content, 2 of 5 done, 2.test")
        write(f"{IMITATION}/document", standing("finished", 5))
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0
        assert b"Error" not in terminal.shown and WAITING.format("dump").encode() in terminal.shown
    assert owner_and_mode(f"{SESSION}/dumping-status.xml") == (20000, 20000, 0o600)


@pytest.mark.slow
def test_asks_the_agent_again_when_the_status_of_a_dump_stays_as_it_was(imitated):
    """As after kill -9, or when the host restarts after the refusal."""
    imitated.does("dump", refused_until(f"[ $(ls -d {IMITATION}/runs/*.dump | wc -l) -ge 2 ]"))
    imitated.does("status", f"[ -d {IMITATION}/runs/*.remove ] || printf '%s' '{standing('content', 2)}'")
    outcome = imitated.run(*ALL)
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    assert imitated.runs().count("dump") == 2 and 5 <= imitated.all_runs().count("status") <= 7


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGUSR1], ids=["SIGINT", "SIGUSR1"])
def test_waiting_for_an_earlier_dump_can_be_stopped(imitated, number):
    imitated.does("dump", REFUSED % "migration.result")
    imitated.does("status", f"printf '%s' '{standing('content', 2)}'")
    running = imitated.start(*ALL)
    wait_until(lambda: os.path.exists(f"{SESSION}/dumping-status.xml"), "the status")
    running.send(number)
    outcome = running.finish()
    assert (outcome.code, outcome.stderr) == (3 if number == signal.SIGUSR1 else 130, b"")
    assert State().progress() == progress_of("done", "done", "stopped")
    for step in ("dump", "status"):
        imitated.does(step, "exit 0")
    assert imitated.run(f"--session-path={SESSION}").code == 0


def test_a_lost_connection_ends_the_waiting_for_an_earlier_dump(imitated):
    imitated.does("dump", REFUSED % "migration.result")
    imitated.does("status", "printf 'gone' >&2; exit 18")
    outcome = imitated.run(*ALL)
    assert (outcome.code, outcome.stderr.decode().splitlines()[0]) == (18, "gone")
    assert State().progress() == progress_of("done", "done", "failed")


def test_another_failure_of_a_dump_is_shown_and_not_waited_for(imitated):
    imitated.does("dump", RESULT % ("stderr messages: no dump today", "migration.result"))
    outcome = imitated.run(*ALL)
    assert outcome.code == 2 and imitated.runs() == STEPS[:3]
    assert outcome.stderr.decode().splitlines()[:2] == ["Error during dump retrieval",
                                                        "  because: stderr messages: no dump today"]


def test_says_what_to_do_where_there_is_no_room(imitated):
    imitated.does("content", RESULT % ("Selected filesystem has only 1 free space, but 2 is needed for operation",
                                       "transfer.result"))
    lines = imitated.run(*ALL).stderr.decode().splitlines()
    assert lines[2] == (f"These are bytes. Make room for {SESSION}/archives, name another directory by --dumps-dir, or do "
                        "without the check by --no-check-space")


def test_what_sondrel_says_of_a_dump_is_seen_as_it_comes_with_verbose(imitated):
    imitated.does("dump", f"echo first >&2; while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    with Terminal([imitated.program, *ALL, "--verbose"], {"QRV_PASSWORD": "x"}) as terminal:
        terminal.shows(b"first\r\n")
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0


def orphaned(imitated, after):
    """Kills a run whose sondrel goes on, ignoring signals, until the file `after` exists."""
    deaf = f"{IMITATION}/deaf"
    imitated.does("dump", f"trap '' TERM; touch {deaf}; while [ ! -e {after} ]; do sleep 0.01; done")
    running = imitated.start(*ALL)
    wait_until(lambda: os.path.exists(deaf), "the dump to ignore the signal")
    running.kill()
    return running.pid


def test_a_run_waits_for_the_sondrel_of_one_that_was_killed(imitated):
    orphaned(imitated, f"{IMITATION}/go")
    again = imitated.start(f"--session-path={SESSION}")
    wait_until(lambda: b"\nState:\tS" in read(f"/proc/{again.pid}/status"), "it to wait")
    assert imitated.runs() == STEPS[:3] and not again.ended()
    write(f"{IMITATION}/go")
    assert again.finish().code == 0
    assert imitated.runs() == [*STEPS[:3], *STEPS[2:]]


@pytest.mark.slow
def test_a_sondrel_that_outlives_its_run_is_named(imitated):
    pid = orphaned(imitated, f"{IMITATION}/go")
    outcome = imitated.run(f"--session-path={SESSION}")
    assert outcome.code == 4
    assert outcome.stderr.decode() == (
        f"sondrel-migrate: The run that worked on {SESSION} (process {pid}) was killed, and the sondrel that it "
        "started is still at work. Run this again when that has ended\n")
    write(f"{IMITATION}/go")
    wait_until(lambda: not any(IMITATION.encode() in command for _, command in processes()), "the sondrel to end")

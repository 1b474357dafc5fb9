"""The progress line of a run whose standard error is a terminal; there is none otherwise."""
import contextlib
import os
import re
import shutil
import signal
import subprocess
import time

import pytest

from content import content_list, offered
from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from gates import DIRECTORY, Gate, gated_host, offered_behind_gates, run_to
from migrating import MIGRATE, in_place, sample_source
from relay import Relay, throttle
from source_host import SourceHost, as_root, deployed_agent, install_agent
from terminal import Terminal
from tool import Destination, Session
from world import AGENTS, BINARY, HOST, RECORDS, ROOT, SESSION, die_with_parent, files_below, read, wait_until, write

ERASED = b"\r\x1b[K"
HALF = {"one": b"1" * 1_000_000, "two": b"2" * 1_000_000}
AMID_TWO = b"1 of 2 files left, 1.5 MB of 2.0 MB (75 %), "
FAILED = b"Error during dump retrieval"
STATUS = "dumping-status.xml"


def on_terminal(action, *options, through=(), columns=100, **environment):
    """A run of the tool on a terminal."""
    return Terminal([*through, BINARY, *Destination().arguments(action, *options)],
                    {"QRV_PASSWORD": ROOT.password, **environment}, columns=columns)


def drawings(shown):
    """The drawn lines; the text may hold nothing else."""
    parts = shown.split(ERASED)
    assert parts[0] == b"", shown
    return [part for part in parts if part]


@pytest.fixture
def gated():
    with gated_host() as host:
        yield host
    shutil.rmtree(DIRECTORY, ignore_errors=True)


@contextlib.contextmanager
def held_at(point, shown, *options, **how):
    """(terminal, gate) of a content run that waits at the point and shows this."""
    gate = Gate(point)
    with on_terminal("get-content", *options, **how) as terminal:
        gate.reached()
        terminal.shows(shown)
        yield terminal, gate
        if gate.is_shut():
            gate.open()


@pytest.fixture
def amid_two(gated):
    """The same for a run that shows half of its second file."""
    offered_behind_gates(HALF)
    with held_at("amid cat two", AMID_TWO) as held:
        yield held


# --- what it shows ---------------------------------------------------------------------------

def test_shows_files_bytes_rate_time_left_and_the_file():
    files = {"a": b"1" * 120_000, "b": b"2" * 120_000}
    with SourceHost(port=2222), Relay(throttle, "connected"):
        offered(ROOT, *files.items())
        with on_terminal("get-content") as terminal:
            assert terminal.finish() == 0
    assert files_below(f"{SESSION}/archives") == {name.encode(): content for name, content in files.items()}
    lines = drawings(terminal.shown)
    assert terminal.shown.endswith(ERASED)
    for line in lines:
        assert re.fullmatch(rb"[12] of 2 files left, (\d+\.\d k|\d+ )B of 240\.0 kB \(\d+ %\), "
                            rb"((\d+\.\d k|\d+ )B/s, (\d:\d\d left, )?)?[ab]", line), line
    assert any(re.search(rb"2 files left, .* 1?\d\d\.\d kB/s, 0:0\d left, a", line) for line in lines), lines
    assert any(re.search(rb"1 of 2 files left, .*, b", line) for line in lines), lines


def test_counts_bytes_as_they_come_and_ends_with_an_erased_line(amid_two):
    terminal, gate = amid_two
    gate.open()
    assert terminal.finish() == 0
    assert drawings(terminal.shown)[0].endswith(b", one")
    assert terminal.shown.endswith(b", two" + ERASED)


def test_goes_on_while_nothing_comes(amid_two):
    terminal, _ = amid_two
    terminal.shows(AMID_TWO + b"0 B/s, two")


def test_draws_at_most_ten_times_a_second(gated):
    offered_behind_gates({f"file {i}": b"x" for i in range(60)})
    begin = time.monotonic()
    with on_terminal("get-content") as terminal:
        assert terminal.finish() == 0
    took = time.monotonic() - begin
    assert 1 <= len(drawings(terminal.shown)) <= took * 10 + 1


def test_stays_within_the_width_that_the_terminal_has(amid_two):
    terminal, _ = amid_two
    terminal.resize(20)
    terminal.shows(ERASED + AMID_TWO[:19] + ERASED)


def test_name_of_a_content_file_is_shown_and_obeyed_by_no_terminal(gated):
    name = "a\u009b2J\r\u20ac"
    offered_behind_gates({name: b"x" * 1000})
    shown = ", a\\xc2\\x9b2J\\x0d\u20ac".encode() + ERASED
    with held_at(f"amid cat {name}", shown) as (terminal, gate):
        gate.open()
        assert terminal.finish() == 0
    assert not re.search(rb"[\x00-\x1f\x7f]|\xc2\x9b", terminal.shown.replace(ERASED, b""))


def test_counts_what_is_here_already_as_done(gated):
    running, gate = run_to("amid cat two", HALF)
    running.kill()
    gate.open()
    gated.wait_until_idle()
    half = b"1 of 2 files left, 1.0 MB of 2.0 MB (50 %), 0 B/s, two"
    with held_at("before cat two", half) as (terminal, gate):
        gate.open()
        assert terminal.finish() == 0


def waiting_dump(status):
    """An agent that writes this status, and dumps when the test tells it to."""
    write(f"{ROOT.agent_dir}/status", status)
    deployed_agent(ROOT, f'cd "${{0%/*}}"; cp status {STATUS}\n'
                         'while [ ! -e go ]; do sleep 0.01; done; : > dump.xml')


@pytest.mark.slow
def test_dump_shows_what_its_status_says_and_asks_for_nothing_more(source):
    waiting_dump('<dumping-status stage="content" done="2" total="5" bytes="123456" object="a\u009b.test"/>')
    with on_terminal("dump-all") as terminal:
        terminal.shows(re.compile(rb"dump, 0:0[23]" + re.escape(ERASED)))
        terminal.shows(b": content, 2 of 5 done, 123.5 kB read, a\\xc2\\x9b.test" + ERASED)
        write(f"{ROOT.agent_dir}/go")
        assert terminal.finish() == 0
    assert terminal.shown.endswith(ERASED)
    assert re.fullmatch(rb"dump, 0:0[01]", drawings(terminal.shown)[0])
    assert set(source.lines()) == {
        as_root(ROOT, f"sh {ROOT.agent_dir}/agent --migration-mode --dump-all"),
        f"cat {ROOT.agent_dir}/{STATUS}", f"cat {ROOT.agent_dir}/dump.xml"}


@pytest.mark.slow
def test_dump_shows_the_time_where_there_is_no_status(source):
    waiting_dump("no document")
    write(f"{SESSION}/{STATUS}", '<dumping-status stage="finished"/>')
    os.utime(f"{SESSION}/{STATUS}", (1000, 1000))
    with on_terminal("dump-all") as terminal:
        # The line is drawn about once a second, so there may be no drawing for one of the seconds.
        terminal.shows(re.compile(rb"dump, 0:0[67]" + re.escape(ERASED)))
        write(f"{ROOT.agent_dir}/go")
        assert terminal.finish() == 0
    assert {len(line) for line in drawings(terminal.shown)} == {len(b"dump, 0:00")}


def test_deployment_shows_how_many_files_were_sent(source):
    install_agent(script="exit 0")
    for name in ("shared/x", "sample/y", "sample/sub/control/z"):
        write(f"{AGENTS}/{name}", "content")
    with on_terminal("deploy-agent") as terminal:
        assert terminal.finish() == 0
    lines = drawings(terminal.shown)
    assert lines and terminal.shown.endswith(ERASED)
    for line in lines:
        assert re.fullmatch(rb"[0-4] of 4 files sent, %s/[a-z/]+" % ROOT.agent_dir.encode(), line), line


# --- what comes after it ---------------------------------------------------------------------

def test_error_begins_on_a_clean_line(gated):
    offered_behind_gates({"one": b"1" * 1000}, [("one", b"1" * 1000, {}), ("missing", b"", {"md5sum": ""})])
    with held_at("amid cat one", b"500 B of 1.0 kB") as (terminal, gate):
        gate.open()
        assert terminal.finish() == 2
    assert terminal.shown.endswith(ERASED + FAILED)
    drawings(terminal.shown[:-len(FAILED)])


@pytest.mark.usefixtures("debug_log")
def test_log_lines_begin_on_a_clean_line(gated):
    offered_behind_gates(HALF)
    with held_at("amid cat two", AMID_TWO, "--verbose") as (terminal, gate):
        gate.open()
        assert terminal.finish() == 0
    # A line of the log has a line end; the progress line has none, and is erased.
    for line in terminal.shown.split(b"\r\n"):
        *drawn, logged = line.split(ERASED)
        assert not any(b" k." in text for text in drawn), line
        assert logged == b"" or re.match(rb"[A-Z]+ k\.", logged), line


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM])
def test_is_erased_when_a_signal_ends_the_run(amid_two, number):
    terminal, _ = amid_two
    os.kill(terminal.pid, number)
    assert terminal.finish() == -number
    assert terminal.shown.endswith(ERASED)
    drawings(terminal.shown)


def test_is_erased_when_a_key_ends_the_run(amid_two):
    terminal, _ = amid_two
    terminal.type(b"\x03")
    assert terminal.finish() == -signal.SIGINT
    assert terminal.shown.endswith(b"^C" + ERASED)


def test_ignored_signals_stay_ignored(gated):
    offered_behind_gates(HALF)
    deaf = ["/bin/sh", "-c", 'trap "" INT TERM; exec "$@"', "sh"]
    with held_at("amid cat two", AMID_TWO, through=deaf) as (terminal, gate):
        os.kill(terminal.pid, signal.SIGTERM)
        terminal.type(b"\x03")
        gate.open()
        assert terminal.finish() == 0


def test_is_erased_when_the_run_is_asked_to_stop(amid_two):
    terminal, gate = amid_two
    os.kill(terminal.pid, signal.SIGUSR1)
    gate.open()
    assert terminal.finish() == 0
    assert terminal.shown.endswith(ERASED + b"Migration has been terminated")


# --- terminals that take nothing -------------------------------------------------------------

def test_stopped_terminal_does_not_stop_the_run(amid_two):
    terminal, gate = amid_two
    shown = terminal.stop()
    gate.open()
    assert terminal.finish() == 0
    assert terminal.shown == shown
    assert set(files_below(f"{SESSION}/archives")) == {b"one", b"two"}


def test_line_that_could_not_be_erased_makes_way_for_an_error(gated):
    offered_behind_gates(HALF, [*((name, content, {}) for name, content in HALF.items()), ("missing", b"", {})])
    amid = b"2 of 3 files left, 1.5 MB of 2.0 MB (75 %), "
    with held_at("amid cat two", amid) as (terminal, gate):
        shown = terminal.stop()
        gate.open()
        wait_until(lambda: FAILED.decode() in Session().log(), "the error to be logged")
        terminal.go_on()
        assert terminal.finish() == 2
    assert terminal.shown == shown + ERASED + FAILED


def test_signal_ends_a_run_whose_terminal_is_stopped(amid_two):
    terminal, _ = amid_two
    terminal.stop()
    os.kill(terminal.pid, signal.SIGTERM)
    assert terminal.finish() == -signal.SIGTERM


def test_run_in_the_background_leaves_the_terminal_alone(gated):
    offered_behind_gates(HALF)
    script = 'set -m; stty tostop; "$@" & wait $!; echo "ended with $?"'
    with on_terminal("get-content", through=["/bin/sh", "-c", script, "sh"]) as terminal:
        terminal.shows(b"ended with ")
        terminal.finish()
    assert terminal.shown.endswith(b"ended with 0\r\n") and ERASED not in terminal.shown
    assert set(files_below(f"{SESSION}/archives")) == {b"one", b"two"}


# --- where there is none ---------------------------------------------------------------------

def test_dumb_terminal_shows_none(gated):
    offered_behind_gates(HALF)
    with on_terminal("get-content", TERM="dumb") as terminal:
        assert terminal.finish() == 0
    assert terminal.shown == b""


def test_error_output_that_is_no_terminal_has_none(gated):
    offered_behind_gates(HALF)
    to_a_file = ["/bin/sh", "-c", '"$@" 2> /mnt/errors', "sh"]
    with on_terminal("get-content", through=to_a_file) as terminal:
        assert terminal.finish() == 0
    assert terminal.shown == b""
    assert read("/mnt/errors") == b""


def asked_and_left(run, actions):
    """The commands to the source host, and the files of the session, after these actions by run()."""
    for directory in (SESSION, RECORDS):
        shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(RECORDS)
    os.chmod(RECORDS, 0o1777)
    deployed_agent(ROOT, 'cd "${0%/*}"\ncase "$*" in\n'
                         "  --get-content-list) cat list.xml ;;\n  *) echo '<dump/>' > dump.xml ;;\nesac",
                   {"list.xml": content_list([("one", b"1" * 100_000, {})]), "one": b"1" * 100_000})
    for action in actions:
        run(action)
    left = files_below(SESSION)
    for name in (b"migration.log", b"migration.status"):
        # These have process ids and times; other tests check the rest of the status.
        left.pop(name, None)
    return left


@pytest.mark.parametrize("action", ["deploy-agent", "dump-all", "get-content"])
def test_source_host_and_documents_do_not_know_of_the_terminal(source, action):
    def watched(name):
        with on_terminal(name) as terminal:
            assert terminal.finish() == 0
        assert ERASED in terminal.shown

    def unwatched(name):
        outcome = Destination().run(name)
        assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")

    results = []
    for run in (unwatched, watched):
        left = asked_and_left(run, [action])
        results.append((left, source.commands()))
    assert results[0] == results[1]


def test_migration_on_a_terminal_has_one_line_of_progress():
    sample_source({"domains/a.test/web/large": os.urandom(300_000)})
    with SourceHost(port=2222), Relay(throttle, "connected"):
        with Terminal([MIGRATE, *in_place(ROOT, "--dump-all", host=HOST)], {"QRV_PASSWORD": ROOT.password}) as terminal:
            assert terminal.finish() == 0
    drawn = [text for line in terminal.shown.split(b"\r\n") for text in line.split(ERASED)[1:-1]]
    assert any(line.startswith(b"content: ") for line in drawn), terminal.shown
    assert all(re.match(rb"(content|dump): ", line) for line in drawn), drawn


# --- as a person sees it ---------------------------------------------------------------------

class Multiplexer:
    """A terminal that reports its visible text: one pane of tmux."""

    def __init__(self, command, environment, columns=100):
        self._environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TMUX_TMPDIR": "/mnt", **environment}
        self._server = subprocess.Popen(["tmux", "-L", "progress", "-f", "/dev/null", "-D"], env=self._environment,
                                        stdin=subprocess.DEVNULL, preexec_fn=die_with_parent)
        wait_until(lambda: os.path.exists(f"/mnt/tmux-{os.getuid()}/progress"), "the server of tmux")
        self._tell("new-session", "-d", "-x", str(columns), "-y", "10", *command)

    def _tell(self, *words):
        return subprocess.run(["tmux", "-L", "progress", *words], env=self._environment, check=True,
                              stdout=subprocess.PIPE).stdout.decode()

    def rows(self):
        """The visible text, without empty lines at the end."""
        return self._tell("capture-pane", "-p").rstrip("\n").split("\n")

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self._server.terminate()
        self._server.wait()


def test_screen_shows_the_line_while_files_come_and_nothing_of_it_afterwards():
    files = {"content/mail.tar.gz": b"1" * 400_000, "content/web.tar.gz": b"2" * 400_000}
    script = '"$@"; echo "exit code $?"; read line'
    command = ["sh", "-c", script, "sh", BINARY, *Destination().arguments("get-content")]
    line = r"1 of 2 files left, \d{3}\.\d kB of 800\.0 kB \(\d\d %\), \d+\.\d kB/s, 0:0\d left, content/web\.tar\.gz"
    with SourceHost(port=2222), Relay(throttle, "connected"):
        offered(ROOT, *files.items())
        with Multiplexer(command, {"QRV_PASSWORD": ROOT.password}) as screen:
            wait_until(lambda: re.fullmatch(line, screen.rows()[0]) and len(screen.rows()) == 1, "the line to be seen")
            wait_until(lambda: screen.rows() == ["exit code 0"], "the end of the run")

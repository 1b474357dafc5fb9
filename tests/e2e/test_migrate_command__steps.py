"""sondrel-migrate with an imitated sondrel: the input of each step, and its results."""
import ctypes
import os
import re
import signal
import subprocess

import pytest

from imitated_runs import imitated  # noqa: F401  # pylint: disable=unused-import
from imitated_runs import ALL, KEPT, PLACE, SUDO_ALL, complaint
from migrating import IMITATION, STEPS, ImitatedSondrel, State, progress_of, status
from system_faults import Fault, preload  # noqa: F401  a fixture
from world import SESSION, SUDOER, read, wait_until, write

# --- what sondrel is given -------------------------------------------------------------------

def test_runs_the_five_steps_with_what_each_needs(imitated):
    assert imitated.run(*ALL).code == 0
    agent_dir = f"--agent-dir=/root/{State().agent_directory}"
    connection = [f"--session-path={SESSION}", "--host=src.example", "--login=root"]
    agent = [*connection, agent_dir, "--agent-name=linux"]
    assert imitated.runs() == STEPS
    assert [imitated.arguments(number) for number in range(5)] == [
        [*connection, "--send-scout"], [*agent, "--deploy-agent"], [*agent, "--dump-all"],
        [*agent, "--get-content"], [*agent, "--remove-agent"]]
    assert re.fullmatch("sondrel-agent-[0-9a-f]{8}", State().agent_directory)


HANDED_ON = {
    "everything": (["--port=2222", "--verbose", "--dump-all"], 2,
                   ["--port=2222", "--verbose", "--dump-all"]),
    "lists": (["--domains=a,b", "--clients=c", "--resellers=d"], 2,
              ["--dump-selected", "--domains=a,b", "--clients=c", "--resellers=d"]),
    "file": (["--selected-objects-file=/mnt/selected.xml"], 2,
             ["--dump-selected", "--selected-objects-file=/mnt/selected.xml"]),
    "parts": (["--server", "--admin-info", "--only-hosting", "--no-license", "--no-compress"], 2,
              ["--dump-selected", "--server", "--admin-info", "--only-hosting", "--no-license", "--no-compress"]),
    "mail": (["--domains=a", "--only-mail", "--server=no"], 2, ["--dump-selected", "--domains=a", "--only-mail"]),
    "no content": (["--dump-all", "--no-content"], 2, ["--no-content", "--dump-all"]),
    "content": (["--dump-all", "--dumps-dir=/mnt/x", "--no-check-space"], 3,
                ["--get-content", "--dumps-dir=/mnt/x", "--no-check-space"]),
}


@pytest.mark.parametrize("case", HANDED_ON)
def test_hands_settings_on(imitated, case):
    given, number, expected = HANDED_ON[case]
    assert imitated.run(*PLACE, *given).code == 0
    common = {f"--session-path={SESSION}", "--host=src.example", "--login=root", "--agent-name=linux",
              f"--agent-dir=/root/{State().agent_directory}"}
    assert [word for word in imitated.arguments(number) if word not in common] == expected


@pytest.mark.parametrize("given, steps", [
    ([*ALL, "--no-content"], ["scout", "deploy", "dump", "remove"]),
    ([*KEPT, "--keep-agent"], ["scout", "deploy", "dump", "content"]),
    (KEPT, ["scout", "deploy", "dump", "content"]),
    ([*KEPT, "--keep-agent=no"], STEPS),
], ids=["no content", "keep agent", "not final", "keep no agent"])
def test_leaves_out_the_steps_that_are_not_wanted(imitated, given, steps):
    assert imitated.run(*given).code == 0
    assert imitated.runs() == steps
    assert [name for name in status() if name in STEPS] == steps


def test_gives_sondrel_nothing_to_read_and_no_descriptor_but_the_lock(imitated):
    assert imitated.run(*ALL, stdin=b"not for sondrel").code == 0
    assert imitated.kept(0, "input") == b""
    check_descriptors(imitated)


def check_descriptors(imitated):
    targets = dict(re.findall(r" (\d+) -> (\S+)", imitated.kept(0, "descriptors").decode()))
    # 255 is the script of the imitation itself.
    assert set(targets) - {"255"} == {"0", "1", "2", "3"}
    assert os.path.basename(targets["0"]) == "null"
    assert targets["3"] == f"{SESSION}/migrate/lock"


@pytest.mark.release_only
def test_closes_descriptors_one_by_one_where_the_kernel_cannot_do_it_at_once(imitated, preload):  # noqa: F811
    fault = Fault(preload, "close_range", 1)
    assert imitated.run(*ALL, environment=fault.environment).code == 0
    assert fault.struck() == ["child"] * len(imitated.all_runs())
    check_descriptors(imitated)


def test_gives_sondrel_the_passwords_in_its_environment_only(imitated):
    outcome = imitated.run(*SUDO_ALL, login=SUDOER, environment={"KEPT": "value"})
    assert outcome.code == 0
    for number in range(5):
        environment = imitated.environment(number)
        assert environment["QRV_PASSWORD"] == "sudoer-passphrase"
        assert environment["QRV_SUDO_PASSWORD"] == "root-passphrase"
        assert environment["KEPT"] == "value"
        assert "passphrase" not in imitated.kept(number, "arguments").decode()
        assert "--sudo-password" in imitated.arguments(number)


def test_gives_no_sudo_password_where_sudo_is_not_used(imitated):
    assert imitated.run(*ALL, sudo_password="needless").code == 0
    assert "QRV_SUDO_PASSWORD" not in imitated.environment(0)


def test_wipes_the_passwords_from_its_own_environment(imitated):
    imitated.does("scout", f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    running = imitated.start(*SUDO_ALL, login=SUDOER)
    wait_until(lambda: imitated.is_at("scout"), "the scout")
    assert b"passphrase" not in read(f"/proc/{running.pid}/environ") + read(f"/proc/{running.pid}/cmdline")
    write(f"{IMITATION}/go")
    assert running.finish().code == 0


def test_takes_the_sondrel_in_path_where_none_is_beside_it():
    imitated = ImitatedSondrel(beside=False)
    assert complaint(imitated.run(*ALL)) == "sondrel is neither beside this program nor in PATH"
    assert imitated.run(*ALL, environment={"PATH": f":/nonexistent:{imitated.directory}:/usr/bin:/bin"}).code == 0
    assert imitated.runs() == STEPS


def test_does_not_take_the_sondrel_of_the_present_directory():
    imitated = ImitatedSondrel(beside=False)
    outcome = imitated.run(*ALL, environment={"PATH": ":/usr/bin:/bin:"}, directory=imitated.directory)
    assert complaint(outcome) == "sondrel is neither beside this program nor in PATH"


# --- what comes of a step --------------------------------------------------------------------

@pytest.mark.parametrize("code", [1, 2, 11, 12, 13, 14, 15, 16, 17, 18])
def test_passes_on_every_exit_code(imitated, code):
    imitated.does("dump", f"printf 'what it says' >&2; exit {code}")
    outcome = imitated.run(*ALL)
    assert outcome.code == code
    assert outcome.stderr.decode().splitlines() == [
        "what it says",
        f"dump: failed with exit code {code}; {SESSION}/migration.log tells more. Run this again to go on"]
    assert imitated.runs() == ["scout", "deploy", "dump"]
    assert State().progress() == progress_of("done", "done", "failed")
    assert status()["state"] == f"failed at dump with exit code {code}"


def test_a_signal_that_ended_sondrel_is_128_more(imitated):
    imitated.does("content", "kill -KILL $$")
    assert imitated.run(*ALL).code == 128 + signal.SIGKILL
    assert State().progress() == progress_of("done", "done", "done", "failed")


def test_a_sondrel_that_cannot_be_started_is_127(imitated):
    write(f"{imitated.directory}/sondrel", b"\x7fELF", mode=0o755)
    write(f"{SESSION}/migration.result",
          "<execution-result><message><description>failed</description><message><description>of another run"
          "</description></message></message></execution-result>")
    outcome = imitated.run(*ALL)
    assert outcome.code == 127
    assert outcome.stderr.decode().splitlines() == [
        f"{imitated.directory}/sondrel: Exec format error",
        f"scout: failed with exit code 127; {SESSION}/migration.log tells more. Run this again to go on"]
    assert State().progress() == progress_of("failed") and State().steps["scout"].text is None


def test_takes_a_success_that_tells_of_a_stop_for_a_stop(imitated):
    imitated.does("dump", "echo Migration has been terminated")
    outcome = imitated.run(*ALL)
    assert (outcome.code, outcome.stderr) == (3, b"")
    assert State().progress() == progress_of("done", "done", "stopped")


STANDARD_OUTPUT = {
    "a log": ("echo 'INFO k.log: begun'; printf 'INFO k.log: ended'", ["INFO k.log: begun", "INFO k.log: ended"], 0),
    "a log of a stop": ("printf 'INFO k.log: Migration has been terminated\\nMigration has been "
                        "terminatedINFO k.log: ended\\n'",
                        ["INFO k.log: Migration has been terminated",
                         "Migration has been terminatedINFO k.log: ended"], 3),
    "a stop in two pieces": ("printf 'Migration has '; sleep 0.2; printf 'been terminated'",
                             ["Migration has been terminated"], 3),
}


@pytest.mark.parametrize("case", STANDARD_OUTPUT)
def test_takes_nothing_but_the_text_of_a_stop_for_one(imitated, case):
    script, shown, code = STANDARD_OUTPUT[case]
    imitated.does("dump", script)
    outcome = imitated.run(*ALL, "--verbose")
    assert (outcome.code, outcome.stderr) == (code, b""), outcome
    lines = outcome.stdout.decode().splitlines()
    first = lines.index("dump: dumping everything") + 1
    assert lines[first:first + len(shown)] == shown
    assert State().progress()["dump"] == ("done" if code == 0 else "stopped")


@pytest.mark.release_only
def test_a_failure_while_it_starts_sondrel_leaves_none_behind(imitated, preload):  # noqa: F811
    fault = Fault(preload, "setfl", 1)
    # A process without a parent becomes a child of this one.
    assert ctypes.CDLL(None).prctl(36, 1) == 0  # PR_SET_CHILD_SUBREAPER
    try:
        outcome = imitated.run(*ALL, environment=fault.environment)
    finally:
        ctypes.CDLL(None).prctl(36, 0)
    assert len(fault.struck()) == 1
    assert outcome.code == 1 and b"fcntl" in outcome.stderr, outcome
    with pytest.raises(ChildProcessError):
        os.waitpid(-1, 0)
    assert imitated.runs() == []


def test_a_request_between_steps_lets_the_next_one_wait(imitated):
    # The signal arrives while the step succeeds, so late that sondrel ignores it.
    imitated.does("deploy", "trap '' USR1; kill -USR1 $PPID; sleep 0.1")
    outcome = imitated.run(*ALL)
    assert outcome.code == 3
    assert outcome.stderr == b"sondrel-migrate: stopped. Run it again to go on\n"
    assert imitated.runs() == ["scout", "deploy"]
    assert State().progress() == progress_of("done", "done")
    os.unlink(f"{IMITATION}/deploy")
    assert imitated.run(f"--session-path={SESSION}").code == 0
    assert imitated.runs() == STEPS


def test_a_signal_that_its_caller_ignores_changes_nothing(imitated):
    imitated.does("deploy", "kill -HUP $PPID; sleep 0.1")
    assert imitated.run(*ALL, prepare=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)).code == 0
    assert imitated.runs() == STEPS


def test_signals_that_its_caller_holds_back_come_through(imitated):
    imitated.does("deploy", "kill -TERM $PPID; sleep 60 & wait")
    held = {signal.SIGTERM, signal.SIGCHLD, signal.SIGUSR1}
    outcome = imitated.run(*ALL, prepare=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, held))
    assert outcome.code == 128 + signal.SIGTERM


def test_waits_without_using_the_processor(imitated):
    # Its outputs are closed long before it ends.
    imitated.does("deploy", "exec >&- 2>&-; sleep 2")
    outcome = imitated.run(*ALL, through=("/usr/bin/time", "-f", "%U %S", "-o", "/mnt/time", imitated.program))
    assert outcome.code == 0 and imitated.runs() == STEPS
    # Half of this time is more than the sanitizers need.
    assert sum(map(float, read("/mnt/time").split())) < 1


def test_goes_on_when_nobody_reads_what_it_says(imitated):
    outcome = imitated.run(*ALL, stdout=False)
    assert outcome.code == 0 and imitated.runs() == STEPS


def test_a_failed_record_ends_it(imitated):
    imitated.does("deploy", f"mount -t tmpfs -o ro full {SESSION}/migrate")
    try:
        outcome = imitated.run(*ALL)
    finally:
        subprocess.run(["umount", f"{SESSION}/migrate"], check=True)
    assert outcome.code == 1
    assert f"{SESSION}/migrate/state.xml." in outcome.stderr.decode()
    assert imitated.runs() == ["scout", "deploy"]

"""sondrel-migrate with an imitated sondrel: what it runs, with what, and what it takes from where."""
import ctypes
import os
import re
import shutil
import signal
import subprocess

import pytest

from migrating import IMITATION, STEPS, ImitatedSondrel, State, migrate, progress_of, status
from system_faults import Fault, preload  # noqa: F401  a fixture
from terminal import Terminal
from world import CONFIGURATION, SESSION, SUDOER, TESTS, owner_and_mode, processes, read, wait_until, write

PLACE = [f"--session-path={SESSION}", "--host=src.example", "--login=root"]
KEPT = [*PLACE, "--dump-all"]
ALL = [*KEPT, "--final"]
SUDO_ALL = [f"--session-path={SESSION}", "--host=src.example", "--login=sudoer", "--sudo", "--dump-all", "--final",
            "--agent-parent=/home/sudoer"]


@pytest.fixture
def imitated():
    return ImitatedSondrel()


def complaint(outcome):
    """The one line that tells why nothing was begun."""
    assert outcome.code == 1 and outcome.stdout == b"", outcome
    lines = outcome.stderr.decode().splitlines()
    assert len(lines) == 1 and lines[0].startswith("sondrel-migrate: "), lines
    return lines[0].removeprefix("sondrel-migrate: ")


# --- what sondrel is given -------------------------------------------------------------------

def test_runs_the_five_steps_with_what_each_needs(imitated):
    assert imitated.run(*ALL).code == 0
    agent_dir = f"--agent-dir=/root/{State().agent_folder}"
    connection = [f"--session-path={SESSION}", "--host=src.example", "--login=root"]
    agent = [*connection, agent_dir, "--agent-name=linux"]
    assert imitated.runs() == STEPS
    assert [imitated.arguments(number) for number in range(5)] == [
        [*connection, "--send-scout"], [*agent, "--deploy-agent"], [*agent, "--dump-all"],
        [*agent, "--get-content"], [*agent, "--remove-agent"]]
    assert re.fullmatch("sondrel-agent-[0-9a-f]{8}", State().agent_folder)


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
              f"--agent-dir=/root/{State().agent_folder}"}
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
    # 255 is the imitation's own script.
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
    assert imitated.run(*ALL, environment={"PATH": f":/nonexistent:{imitated.folder}:/usr/bin:/bin"}).code == 0
    assert imitated.runs() == STEPS


def test_does_not_take_the_sondrel_of_the_present_folder():
    imitated = ImitatedSondrel(beside=False)
    outcome = imitated.run(*ALL, environment={"PATH": ":/usr/bin:/bin:"}, directory=imitated.folder)
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
    write(f"{imitated.folder}/sondrel", b"\x7fELF", mode=0o755)
    write(f"{SESSION}/migration.result",
          "<execution-result><message><description>failed</description><message><description>of another run"
          "</description></message></message></execution-result>")
    outcome = imitated.run(*ALL)
    assert outcome.code == 127
    assert outcome.stderr.decode().splitlines() == [
        f"{imitated.folder}/sondrel: Exec format error",
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
    # What is left without a parent becomes this process's.
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
    # It comes while the step ends well, and so late that sondrel no longer minds.
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
    # Its outputs have ended long before it does.
    imitated.does("deploy", "exec >&- 2>&-; sleep 2")
    outcome = imitated.run(*ALL, through=("/usr/bin/time", "-f", "%U %S", "-o", "/mnt/time", imitated.program))
    assert outcome.code == 0 and imitated.runs() == STEPS
    # Half of it is more than the sanitizers need.
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


# --- an earlier dump that goes on ------------------------------------------------------------

RESULT = (f"""echo '<execution-result status="error"><message><description>Error during dump retrieval</description>'"""
          f"""'<message><description>%s</description></message></message></execution-result>' > {SESSION}/%s
printf 'Error during dump retrieval' >&2; exit 2""")
REFUSED = RESULT % ("stderr messages: Another dump is still running in this directory", "%s")


def refused_until(condition, result="migration.result"):
    """An agent lets no dump in until the condition, in shell, is true."""
    return f"{condition} && exit 0\n{REFUSED % result}"


def standing(stage, number):
    return (f'<dumping-status version="1" stage="{stage}" done="{number}" total="5" bytes="0" object="{number}.test" '
            f'updated="{number}"/>')


WAITING = "{0}: a dump that an earlier run started is still at work on src.example; waiting for its end"


@pytest.mark.parametrize("step, result", [("dump", "migration.result"), ("content", "transfer.result")])
@pytest.mark.parametrize("end", ["finished", "failed"])
def test_waits_for_an_earlier_dump_and_goes_on_with_it(imitated, step, result, end):
    """The agent still refuses the step when its status says the end for the first time."""
    imitated.does(step, refused_until(f"[ $(ls -d {IMITATION}/runs/*.status | wc -l) -ge 2 ]", result))
    imitated.does("status", f"[ -d {IMITATION}/runs/*.remove ] || printf '%s' '{standing(end, 5)}'")
    outcome = imitated.run(*SUDO_ALL, login=SUDOER)
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    before = STEPS[:STEPS.index(step)]
    # The last one sees whether the agent is gone.
    assert imitated.all_runs() == [*before, step, "status", step, "status", *STEPS[len(before):], "status"]
    assert outcome.stdout.decode().count(WAITING.format(step)) == 1
    assert imitated.arguments_of_status() == [f"--session-path={SESSION}", "--host=src.example", "--login=sudoer", "--sudo-password",
                     f"--agent-dir=/home/sudoer/{State().agent_folder}", "--agent-name=linux", "--get-dumping-status"]
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
    """As after kill -9, or when the host was restarted after the refusal."""
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
    """The run is killed, and its sondrel goes on, without minding a signal, until `after` is there."""
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


# --- the group of session directories --------------------------------------------------------

@pytest.fixture
def unequal_numbers():
    """The account's number is that of the group `users`, to which ordinary accounts belong."""
    kept = {path: read(path) for path in ("/etc/passwd", "/etc/group")}
    write("/etc/passwd", kept["/etc/passwd"].replace(b"qrvadm:x:20000:20000:", b"qrvadm:x:100:101:"))
    groups = re.sub(rb"^(\w+:x:10[01]|users):.*\n", b"", kept["/etc/group"].replace(b"qrvadm:x:20000:", b""),
                    flags=re.MULTILINE)
    write("/etc/group", groups + b"users:x:100:\nqrvadm:x:101:\n")
    yield
    for path, text in kept.items():
        write(path, text)


FOREIGN = ('sondrel-migrate: session directories are given to the group with the number of the account qrvadm, and '
           'group 100 ("users") is not its own, which is 101 ("qrvadm"). Make an account whose numbers are equal, as '
           'sondrel-migrate(8) shows')


def may_be_read_by_users(path):
    return subprocess.run(["setpriv", "--reuid=20001", "--regid=20001", "--groups=100", "cat", path], check=False,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def test_fetches_nothing_into_a_directory_that_a_foreign_group_may_enter(imitated, unequal_numbers):
    # As sondrel fetches content.
    imitated.does("content", f"echo key > {SESSION}/archives/key")
    outcome = imitated.run(*ALL)
    said = outcome.stderr.decode().splitlines()
    assert (outcome.code, outcome.stdout, imitated.runs(), said[0]) == (1, b"", [], FOREIGN)
    remedy = re.fullmatch(rf'sondrel-migrate: group 100 \("users"\) may enter {SESSION}, where private keys will be. '
                          'Close it with "(.*)", and run this again', said[1])[1]
    subprocess.run(["sh", "-c", remedy], check=True)
    outcome = imitated.run(*ALL)
    assert (outcome.code, outcome.stderr.decode().splitlines()) == (0, [FOREIGN])
    assert imitated.runs() == STEPS
    assert not may_be_read_by_users(f"{SESSION}/archives/key")
    os.chown(SESSION, 0, 100)
    assert may_be_read_by_users(f"{SESSION}/archives/key")
    assert b"may enter" in imitated.run(*ALL, "--from=scout").stderr


def test_a_directory_above_may_keep_a_foreign_group_out(imitated, unequal_numbers):
    os.makedirs("/mnt/closed", mode=0o700)
    arguments = [argument for argument in ALL if not argument.startswith("--session-path")]
    outcome = imitated.run("--session-path=/mnt/closed/session", *arguments)
    assert (outcome.code, outcome.stderr.decode().splitlines()) == (0, [FOREIGN])
    os.chmod("/mnt/closed", 0o711)
    assert imitated.run("--session-path=/mnt/closed/session", "--from=scout").code == 1
    # What lets the group in may be an access list.
    os.chmod("/mnt/closed", 0o700)
    subprocess.run(["setfacl", "-m", "g:users:x", "/mnt/closed"], check=True)
    assert imitated.run("--session-path=/mnt/closed/session", "--from=scout").code == 1
    shutil.rmtree("/mnt/closed")


# --- settings --------------------------------------------------------------------------------

NO_SETTINGS = {
    "nothing": ([], "--session-path is missing (see --help)"),
    "no host": ([f"--session-path={SESSION}"], "--host is missing (see --help)"),
    "no login": ([f"--session-path={SESSION}", "--host=x"], "--login is missing (see --help)"),
    "no parent": ([f"--session-path={SESSION}", "--host=x", "--login=jo"],
                  "--agent-parent is required unless --login is root: a directory on the source host that the login can "
                  "reach, such as its home (see --help)"),
    "no dump": (PLACE, "what to dump is missing: --dump-all, or a selection such as --domains=... (see --help)"),
    "all and some": ([*ALL, "--domains=a"],
                     "--dump-all dumps everything: leave it out, or the selection (see --help)"),
    "all and mail": ([*ALL, "--only-mail"],
                     "--dump-all dumps everything. For --only-mail, --only-hosting, --no-compress and --no-license "
                     "name what to dump instead, such as --clients=... or --domains=... (see --help)"),
    "two kinds": ([*PLACE, "--domains=a", "--only-mail", "--only-hosting"],
                  "--only-mail and --only-hosting exclude each other (see --help)"),
    "standard input": ([*PLACE, "--domains=-"], "--domains cannot be read from standard input (see --help)"),
    "port": ([*ALL, "--port=65536"], "--port must be a number from 1 to 65535 (see --help)"),
    "port text": ([*ALL, "--port=22a"], "--port must be a number from 1 to 65535 (see --help)"),
    "relative parent": ([*ALL, "--agent-parent=agent"],
                        '--agent-parent must be an absolute path of letters, digits and "._-" (see --help)'),
    "parent with a shell": ([*ALL, "--agent-parent=/x;y"],
                            '--agent-parent must be an absolute path of letters, digits and "._-" (see --help)'),
    "parent upwards": ([*ALL, "--agent-parent=/x/.."],
                       '--agent-parent must be an absolute path of letters, digits and "._-" (see --help)'),
    "empty": ([*ALL, "--host="], "--host needs a value (see --help)"),
    "control character": ([*ALL, "--host=a\nb"], "--host holds control characters, or is not UTF-8 (see --help)"),
    "bytes": ([*ALL, os.fsdecode(b"--host=a\xff")], "--host holds control characters, or is not UTF-8 (see --help)"),
    "switch": ([*ALL, "--sudo=perhaps"], '--sudo must be "yes" or "no" (see --help)'),
    "step": ([*ALL, "--from=start"], "--from must be scout, deploy, dump, content, remove, plan, apply or verify (see --help)"),
    "no value": ([*ALL, "--port"], "--port needs a value (see --help)"),
    "operand alone": (["secret-passphrase"], "an argument that is no option (see --help)"),
    "operand": ([*ALL, "secret-passphrase"], "an argument that is no option (see --help)"),
    "unknown": ([*ALL, "--passwort=secret-passphrase"], "no such option: --passwort (see --help)"),
    "mistaken": ([*ALL, "--password=secret-passphrase"],
                 "--password-fd must be the number of an open descriptor (see --help)"),
    "short": ([*ALL, "-psecret-passphrase"], "no such option: -p (see --help)"),
    "file": ([*ALL, "--settings=/mnt/absent"],
             "/mnt/absent cannot be read: No such file or directory (see --help)"),
}


@pytest.mark.parametrize("case", NO_SETTINGS)
def test_says_what_is_wrong_with_the_settings_and_repeats_no_value(imitated, case):
    arguments, expected = NO_SETTINGS[case]
    outcome = imitated.run(*arguments)
    assert complaint(outcome) == expected
    assert b"secret" not in outcome.stderr
    assert imitated.runs() == [] and not os.path.exists(f"{SESSION}/migrate/state.xml")


BAD_LINES = {"unknown": ("password = x", "no such setting: password"), "no value": ("host =", 'no value behind "="'),
             "no name": ("= x", "no such setting: "), "bare": ("host", "--host needs a value")}


@pytest.mark.parametrize("case", BAD_LINES)
def test_says_which_line_of_a_settings_file_is_wrong(imitated, case):
    line, expected = BAD_LINES[case]
    write("/mnt/settings", f"# a file\n\n{line}\n")
    outcome = imitated.run("--settings=/mnt/settings", *ALL)
    assert complaint(outcome) == f"/mnt/settings, line 3: {expected} (see --help)"


def test_goes_on_with_the_settings_it_had_and_takes_new_ones(imitated):
    imitated.does("dump", "exit 2")
    assert imitated.run(*ALL).code == 2
    os.unlink(f"{IMITATION}/dump")
    assert imitated.run(f"--session-path={SESSION}", "--port=2222", "--dump-all=no", "--clients=c").code == 0
    assert imitated.runs() == ["scout", "deploy", "dump", *STEPS[2:]]
    assert {"--port=2222", "--dump-selected", "--clients=c"} <= set(imitated.arguments(3))
    assert imitated.arguments(3)[-3:-1] != imitated.arguments(2)[-3:-1]


@pytest.mark.parametrize("option, name, old", [
    ("--host=other", "host", "src.example"), ("--agent-name=other", "agent-name", "linux"),
    ("--agent-parent=/srv", "agent-parent", "/root"),
], ids=["host", "agent", "folder"])
def test_refuses_another_setting_for_a_step_that_is_done(imitated, option, name, old):
    imitated.does("dump", "exit 2")
    assert imitated.run(*ALL).code == 2
    outcome = imitated.run(f"--session-path={SESSION}", option)
    assert complaint(outcome) == (f'--{name} was "{old}" in the steps that are done. '
                                  "Use another session directory, or --from (see --help)")
    assert len(imitated.runs()) == 3
    os.unlink(f"{IMITATION}/dump")
    assert imitated.run(f"--session-path={SESSION}", option, "--from=scout").code == 0


def test_takes_a_default_that_is_given_later_for_no_change(imitated):
    imitated.does("content", "exit 2")
    assert imitated.run(*ALL).code == 2
    os.unlink(f"{IMITATION}/content")
    given = ["--agent-name=linux", "--agent-parent=/root", "--server=no", "--no-content=no", "--sudo=no", "--port=22"]
    outcome = imitated.run(f"--session-path={SESSION}", *given)
    assert outcome.code == 0, outcome
    assert imitated.runs() == ["scout", "deploy", "dump", "content", "content", "remove"]


def test_an_agent_s_name_may_end_as_a_shell_completes_it(imitated):
    imitated.does("content", "exit 2")
    assert imitated.run(*ALL, "--agent-name=other/").code == 2
    assert "--agent-name=other" in imitated.arguments(1)
    os.unlink(f"{IMITATION}/content")
    assert imitated.run(f"--session-path={SESSION}", "--agent-name=other").code == 0


def test_a_finished_migration_tells_what_can_be_done_with_the_agent_that_is_kept(imitated):
    told = (f"The agent stays on src.example, in /root/{{}}, until the migration is final. What has changed since is fetched "
            "with --from=dump; with --from=dump --final for the last time. --final alone removes the agent")
    first = imitated.run(*KEPT).stdout.decode().splitlines()
    told = told.format(State().agent_folder)
    assert told in first
    alone = imitated.run(SESSION)
    assert (alone.code, alone.stdout.decode().splitlines()) == (
        0, [f"Finished already. Dump: {SESSION}/dump.xml, content: {SESSION}/archives", told])
    assert imitated.runs() == STEPS[:4]
    assert imitated.run(f"--session-path={SESSION}", "--from=dump").code == 0
    last = imitated.run("--final", SESSION)
    assert last.code == 0 and told not in last.stdout.decode()
    assert imitated.runs() == [*STEPS[:4], "dump", "content", "remove"]
    assert status()["state"] == "finished"
    # What comes after needs an agent again, and is final as well.
    assert imitated.run("--from=dump", SESSION).code == 0
    assert imitated.runs()[7:] == STEPS[1:]


def test_final_and_kept_exclude_each_other_and_the_later_one_counts(imitated):
    assert complaint(imitated.run(*ALL, "--keep-agent")) == "--final and --keep-agent exclude each other (see --help)"
    imitated.does("dump", "exit 2")
    assert imitated.run(*ALL).code == 2
    os.unlink(f"{IMITATION}/dump")
    assert imitated.run("--keep-agent", SESSION).code == 0
    assert imitated.runs() == ["scout", "deploy", "dump", "dump", "content"]


def test_asks_for_increments_unless_whole_archives_are_wanted_or_the_agent_is_another_one(imitated):
    name = "SONDREL_DUMP_INCREMENTS"
    assert imitated.run(*KEPT).code == 0
    assert imitated.environment(2)[name] == "yes"
    assert imitated.run("--from=dump", SESSION, environment={name: "no"}).code == 0
    assert imitated.environment(4)[name] == "no"
    assert complaint(imitated.run("--full", SESSION)) == (
        "--full is for a dump, and that is done: give --from=dump with it (see --help)")
    assert imitated.run("--full", "--from=dump", SESSION, environment={name: "yes"}).code == 0
    assert name not in imitated.environment(6)
    assert imitated.run("--from=deploy", "--agent-name=other", SESSION).code == 0
    assert name not in imitated.environment(9)


def test_going_back_to_the_removal_removes_an_agent_that_was_kept(imitated):
    assert imitated.run(*KEPT, "--keep-agent").code == 0
    outcome = imitated.run(f"--session-path={SESSION}", "--from=remove", "--keep-agent")
    assert complaint(outcome) == "--from=remove and --keep-agent exclude each other (see --help)"
    imitated.does("remove", "exit 2")
    assert imitated.run(f"--session-path={SESSION}", "--from=remove").code == 2
    os.unlink(f"{IMITATION}/remove")
    # It is still wanted when the removal has failed.
    assert imitated.run(f"--session-path={SESSION}").code == 0
    assert imitated.runs() == [*STEPS[:4], "remove", "remove"]
    assert status()["state"] == "finished"


@pytest.mark.parametrize("code", [11, 18])
def test_a_removal_that_cannot_be_seen_to_be_done_is_not_done(imitated, code):
    """sondrel itself ends with 0 when it loses the connection there."""
    imitated.does("status", f"printf 'gone' >&2; exit {code}")
    outcome = imitated.run(*ALL)
    assert (outcome.code, outcome.stderr.decode().splitlines()[0]) == (code, "gone")
    assert State().progress() == progress_of(*["done"] * 4, "failed")
    imitated.does("status", "exit 0")
    assert imitated.run(f"--session-path={SESSION}").code == 0
    assert imitated.runs() == [*STEPS, "remove"]


def test_an_agent_that_is_still_there_was_not_removed(imitated):
    imitated.does("status", "echo 'INFO k.log: log'; printf '%s' '<dumping-status version=\"1\"/>'")
    outcome = imitated.run(*ALL)
    reason = f"/root/{State().agent_folder} is still there on src.example"
    assert (outcome.code, outcome.stderr.decode().splitlines()[0]) == (2, reason)
    assert State().steps["remove"].text == reason
    # With sudo it says so by its failure that there is nothing any more, and a log says nothing of it.
    imitated.does("status", "echo 'INFO k.log: log'; printf 'Error during getting dumping status' >&2; exit 2")
    outcome = imitated.run(f"--session-path={SESSION}")
    assert (outcome.code, outcome.stderr) == (0, b"")


def test_says_that_there_is_no_content_to_go_back_to(imitated):
    assert imitated.run(*ALL, "--no-content").code == 0
    outcome = imitated.run(f"--session-path={SESSION}", "--from=content")
    assert complaint(outcome) == ("there is no content to fetch: the dump was made with --no-content. Make it again "
                                  "with --from=dump --no-content=no (see --help)")
    assert imitated.run(f"--session-path={SESSION}", "--from=dump", "--no-content=no").code == 0
    assert imitated.runs() == ["scout", "deploy", "dump", "remove", *STEPS[1:]]


def test_session_path_may_be_relative(imitated):
    arguments = [argument for argument in ALL if not argument.startswith("--session-path")]
    assert imitated.run("--session-path=session", *arguments, directory="/mnt").code == 0
    assert imitated.arguments(0)[0] == f"--session-path={SESSION}"


@pytest.mark.parametrize("make_foreign", [
    lambda: os.chown(State().path, 20000, 20000), lambda: os.chmod(State().path, 0o660),
    lambda: os.chown(f"{SESSION}/migrate", 20000, 20000), lambda: os.chmod(f"{SESSION}/migrate", 0o777),
    lambda: (os.rename(State().path, "/mnt/kept.xml"), os.symlink("/mnt/kept.xml", f"{SESSION}/migrate/state.xml")),
], ids=["owner", "mode", "owner of the folder", "mode of the folder", "link"])
def test_does_not_believe_a_record_that_others_may_write(imitated, make_foreign):
    imitated.does("dump", "exit 2")
    assert imitated.run(*ALL).code == 2
    make_foreign()
    outcome = imitated.run(f"--session-path={SESSION}")
    assert complaint(outcome).endswith("is owned or writable by another account; refusing to use it")
    assert len(imitated.runs()) == 3


@pytest.mark.parametrize("text", [b"", b"<sondrel-migration", b"<other/>", b"<sondrel-migration version='2'/>",
                                  b"<sondrel-migration version='1' agent-folder='x'><setting name='new'>1</setting>"
                                  b"</sondrel-migration>",
                                  b"<sondrel-migration version='1' agent-folder='x'><step name='nap' state='done'/>"
                                  b"</sondrel-migration>"],
                         ids=["empty", "cut", "other", "version", "setting", "step"])
def test_does_not_go_on_with_a_record_that_it_does_not_understand(imitated, text):
    imitated.does("dump", "exit 2")
    assert imitated.run(*ALL).code == 2
    write(State().path, text, mode=0o640)
    outcome = imitated.run(f"--session-path={SESSION}")
    assert outcome.code == 1
    assert outcome.stderr.decode().startswith(f"sondrel-migrate: {SESSION}/migrate/state.xml cannot be used: ")
    assert len(imitated.runs()) == 3


def test_the_session_is_made_as_sondrel_makes_it(imitated):
    assert imitated.run(*ALL).code == 0
    assert owner_and_mode(SESSION) == (0, 20000, 0o750)
    assert os.path.isdir(f"{SESSION}/archives")


# --- passwords -------------------------------------------------------------------------------

def test_reads_both_passwords_from_standard_input(imitated):
    outcome = imitated.run(*SUDO_ALL, "--password-fd=0", "--sudo-password-fd=0", password=None,
                           stdin=b"first one\nsecond\nnot theirs\n")
    assert outcome.code == 0, outcome
    environment = imitated.environment(4)
    assert (environment["QRV_PASSWORD"], environment["QRV_SUDO_PASSWORD"]) == ("first one", "second")


BY_KEY = "--identity=/mnt/a key"


def test_a_login_by_key_needs_no_password(imitated):
    outcome = imitated.run(*ALL, BY_KEY, password=None, prepare=os.setsid, environment={"SONDREL_IDENTITY": "other"})
    assert outcome.code == 0, outcome
    for number in range(5):
        environment = imitated.environment(number)
        assert environment["SONDREL_IDENTITY"] == "/mnt/a key"
        assert "QRV_PASSWORD" not in environment and "QRV_KEY_PASSWORD" not in environment
    assert State().settings["identity"] == "/mnt/a key"


@pytest.mark.parametrize("given, handed_on", [
    ([], "agent"), (["--identity=agent"], "agent"), (["--identity=a key"], "/mnt/a key"),
    (["--identity=./agent"], "/mnt/./agent")], ids=["the environment's", "agent", "a file", "a file named agent"])
def test_the_key_is_a_file_or_the_agent(imitated, given, handed_on):
    outcome = imitated.run(*ALL, *given, password=None, prepare=os.setsid, directory="/mnt",
                           environment={"SONDREL_IDENTITY": "agent"})
    assert outcome.code == 0, outcome
    assert imitated.environment(0)["SONDREL_IDENTITY"] == handed_on


def test_a_key_of_the_host_configuration_needs_no_password(imitated):
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + b"SSH_IDENTITY_F /mnt/key\n")
    try:
        assert imitated.run(*ALL, password=None, prepare=os.setsid).code == 0
    finally:
        write(CONFIGURATION, kept)


def test_password_passphrase_and_password_of_sudo_follow_each_other(imitated):
    outcome = imitated.run(*SUDO_ALL, BY_KEY, "--password-fd=0", "--sudo-password-fd=0", "--key-password-fd=0",
                           password=None, stdin=b"first\nthe key's\nsudo's\n")
    assert outcome.code == 0, outcome
    environment = imitated.environment(4)
    assert [environment[f"QRV_{name}"] for name in ("PASSWORD", "KEY_PASSWORD", "SUDO_PASSWORD")] == [
        "first", "the key's", "sudo's"]


def test_an_empty_line_is_no_password_of_a_login_by_key(imitated):
    outcome = imitated.run(*ALL, BY_KEY, "--password-fd=0", "--key-password-fd=0", password=None, stdin=b"\n\n")
    assert outcome.code == 0, outcome
    assert "QRV_PASSWORD" not in imitated.environment(0) and "QRV_KEY_PASSWORD" not in imitated.environment(0)


WANTED = {
    "password": ("QRV_PASSWORD", b"The password of root@src.example: ",
                 "the server wants a password besides the key, and none was given"),
    "passphrase": ("QRV_KEY_PASSWORD", b"The passphrase of /mnt/a key: ",
                   "the key file /mnt/a key is protected by a passphrase, and none was given")}


def wants(variable, reason):
    """Lines of shell: a step that fails, and says why, unless it has the variable."""
    error = f"Unable to connect to host src.example: {reason}"
    return (f'[ -n "${variable}" ] || {{ cat > {SESSION}/migration.result << end\n<?xml version="1.0"?>\n'
            '<execution-result status="error"><message code="SshIdentityRejected" id="1" severity="error">'
            f'<description>{error}</description></message></execution-result>\nend\necho "{error}" >&2; exit 17; }}')


@pytest.mark.parametrize("what", WANTED)
def test_asks_on_the_terminal_for_what_a_login_by_key_turns_out_to_need(imitated, what):
    variable, question, reason = WANTED[what]
    imitated.does("scout", wants(variable, reason))
    with Terminal([imitated.program, *ALL, BY_KEY]) as terminal:
        terminal.shows(question)
        assert not terminal.echoes()
        terminal.type(b"given now\n")
        assert terminal.finish() == 0
        assert b"given now" not in terminal.shown
    assert imitated.runs() == ["scout", *STEPS]
    assert imitated.environment(5)[variable] == "given now"


@pytest.mark.parametrize("what", WANTED)
def test_the_step_fails_where_nobody_can_give_what_it_turns_out_to_need(imitated, what):
    variable, _, reason = WANTED[what]
    imitated.does("scout", wants(variable, reason))
    outcome = imitated.run(*ALL, BY_KEY, password=None, prepare=os.setsid)
    assert outcome.code == 17
    assert f"{variable} is not set" in outcome.stderr.decode()
    assert State().progress() == progress_of("failed")


def test_a_descriptor_wins_over_the_environment(imitated):
    assert imitated.run(*ALL, "--password-fd=0", password="other", stdin=b"first").code == 0
    assert imitated.environment(0)["QRV_PASSWORD"] == "first"


@pytest.mark.parametrize("given, expected", [
    (b"", "the password of root@src.example is empty"), (b"\nx", "the password of root@src.example is empty"),
    (b"a\0b\n", "the password of root@src.example holds a zero byte"),
    (b"x" * 4097, "the password of root@src.example is longer than 4096 bytes"),
], ids=["nothing", "empty line", "zero byte", "too long"])
def test_refuses_what_is_no_password(imitated, given, expected):
    assert complaint(imitated.run(*ALL, "--password-fd=0", password=None, stdin=given)) == expected
    assert imitated.runs() == []


def test_an_empty_password_for_sudo_is_one(imitated):
    assert imitated.run(*SUDO_ALL, login=SUDOER, sudo_password="").code == 0
    assert imitated.environment(0)["QRV_SUDO_PASSWORD"] == ""


@pytest.mark.parametrize("number", [3, 4, 99])
def test_says_that_a_descriptor_is_not_open(imitated, number):
    """Those that it has opened itself, such as the lock, hold no password."""
    outcome = imitated.run(*ALL, f"--password-fd={number}", password=None)
    assert complaint(outcome) == "the descriptor for the password of root@src.example is not open"
    assert imitated.runs() == []


def test_says_what_is_missing_where_there_is_nobody_to_ask(imitated):
    outcome = imitated.run(*ALL, password=None, prepare=os.setsid)
    assert complaint(outcome) == ("the password of root@src.example is missing: there is no terminal to ask on, "
                                  "QRV_PASSWORD is not set, and --password-fd is not given")


def test_asks_for_passwords_on_the_terminal_and_shows_none(imitated):
    with Terminal([imitated.program, *SUDO_ALL]) as terminal:
        terminal.shows(b"The password of sudoer@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"first one\n")
        terminal.shows(b"The password for sudo of sudoer@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"second\n")
        assert terminal.finish() == 0
        assert b"first" not in terminal.shown and b"second" not in terminal.shown
    environment = imitated.environment(0)
    assert (environment["QRV_PASSWORD"], environment["QRV_SUDO_PASSWORD"]) == ("first one", "second")


def test_an_interrupted_question_leaves_a_terminal_that_shows_what_is_typed(imitated):
    with Terminal(["/bin/sh", "-c", 'trap "" INT; "$@"; echo "ended with $?"; read line', "sh",
                   "/usr/bin/env", "--default-signal=INT", imitated.program, *ALL]) as terminal:
        terminal.shows(b"The password of root@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"\x03")
        terminal.shows(b"ended with 130")
        assert terminal.echoes()
        terminal.type(b"\n")
        terminal.finish()
    assert imitated.runs() == []


# --- what a person sees ----------------------------------------------------------------------

# What is listed has a third of the size that the unpacked content has.
TRANSFER = ('<migration-status><pid>1</pid><transfer speed="1000000"><host>h</host><files total="10" left="7" '
            'size-total="12000000" size-left="11000000" listed-total="4000000" listed-left="3000000"><current-file size="9" size-left="9">{name}</current-file>'
            "</files></transfer></migration-status>")
DUMPING = '<dumping-status version="1" stage="content" done="2" total="5" bytes="123456" object="a.test"/>'


def held_at(imitated, step, name, text):
    """The imitated step leaves this document and waits for `go`."""
    write(f"{IMITATION}/document", text)
    imitated.does(step, f"cp {IMITATION}/document {SESSION}/{name}\n"
                        f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")


PROGRESS = {
    "content": ("migration.status", TRANSFER.format(name="content/a"),
                b"content: 7 of 10 files left, 1.0 MB of 4.0 MB (25 %), 1.0 MB/s, 0:03 left, content/a"),
    "dump": ("dumping-status.xml", DUMPING, b"dump: content, 2 of 5 done, 123.5 kB read, a.test"),
}


@pytest.mark.parametrize("step", PROGRESS)
def test_shows_progress_on_a_terminal(imitated, step):
    name, document, expected = PROGRESS[step]
    held_at(imitated, step, name, document)
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}, columns=100) as terminal:
        terminal.shows(b"\r\x1b[K" + expected)
        assert status()[step].endswith(": " + expected.decode().partition(": ")[2])
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0
        # The line is gone where the next one begins.
        assert re.search(rb"\r\x1b\[K" + step.encode() + rb": done in 0:0\d\r\n", terminal.shown), terminal.shown


def test_draws_at_most_ten_times_a_second_and_within_the_width(imitated):
    held_at(imitated, "content", "migration.status",
            TRANSFER.format(name="long" * 50 + "&#9;\N{EURO SIGN}"))
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}, columns=40) as terminal:
        wait_until(lambda: terminal.read() and terminal.shown.count(b"\r\x1b[Kcontent: 7 of") >= 5, "five drawings")
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0
    drawn = re.findall(rb"\r\x1b\[K(content: 7 of[^\r]*)", terminal.shown)
    assert {len(line) for line in drawn} == {39}


def test_names_from_the_source_host_do_not_command_the_terminal(imitated):
    held_at(imitated, "content", "migration.status", TRANSFER.format(name="&#x9b;2J\N{EURO SIGN}"))
    imitated.does("deploy", r"printf 'half \033[2J\303\244 line' >&2; exit 2")
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}) as terminal:
        assert terminal.finish() == 2
        assert "half \\x1b[2J\N{LATIN SMALL LETTER A WITH DIAERESIS} line\r\n".encode() in terminal.shown
    os.unlink(f"{IMITATION}/deploy")
    with Terminal([imitated.program, f"--session-path={SESSION}"], {"QRV_PASSWORD": "x"}, columns=120) as terminal:
        terminal.shows("left, \\xc2\\x9b2J\N{EURO SIGN}".encode())
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0


@pytest.mark.parametrize("document", [
    "<migration-status><transfer/>", "<migration-status/>", "<other/>", "",
    "<!DOCTYPE x [<!ENTITY a 'b'>]><migration-status>&a;</migration-status>",
    TRANSFER.format(name="x").replace('"4000000"', '"-4"').replace('"7"', '"many"'),
], ids=["cut", "nothing", "other", "empty", "entity", "odd figures"])
def test_odd_documents_do_no_harm(imitated, document):
    held_at(imitated, "content", "migration.status", document)
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}) as terminal:
        wait_until(lambda: terminal.read() and imitated.is_at("content"), "the content step")
        assert status()["content"].startswith("running, begun ")
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0


def test_shows_no_progress_without_a_terminal(imitated):
    held_at(imitated, "content", *PROGRESS["content"][:2])
    running = imitated.start(*ALL)
    wait_until(lambda: imitated.is_at("content") and os.path.exists(f"{SESSION}/migration.status"), "the document")
    write(f"{IMITATION}/go")
    outcome = running.finish()
    assert (outcome.code, outcome.stderr) == (0, b"") and b"\r" not in outcome.stdout and b"MB" not in outcome.stdout


def test_an_old_document_is_no_progress(imitated):
    os.makedirs(SESSION)
    write(f"{SESSION}/dumping-status.xml", DUMPING)
    os.utime(f"{SESSION}/dumping-status.xml", (1, 1))
    imitated.does("dump", f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    running = imitated.start(*ALL)
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    assert " of " not in status()["dump"]
    write(f"{IMITATION}/go")
    assert running.finish().code == 0


def test_counts_the_problems_of_the_content(imitated):
    imitated.does("content", f"echo '<execution-result status=\"success\"><message/><message/></execution-result>' "
                             f"> {SESSION}/transfer.result")
    assert b", problems in transfer.result: 2\n" in imitated.run(*ALL).stdout
    assert status()["content"].endswith(", problems in transfer.result: 2")


def dump_with(problems):
    """A script that leaves such a dump.xml; [(severity, object, text)]"""
    listed = "".join(f'<problem severity="{severity}" object="{about}">{text}</problem>'
                     for severity, about, text in problems)
    write(f"{IMITATION}/dump.xml", f'<dump version="2"><later><problem/></later><problems>{listed}</problems></dump>')
    return f"cp {IMITATION}/dump.xml {SESSION}/dump.xml"


def ends_of(imitated, *more):
    """What two runs say behind the removal, the second finding nothing to do."""
    first = imitated.run(*ALL, *more).stdout.decode().partition("remove: done")[2].splitlines()[1:]
    second = imitated.run(*ALL, *more, password=None).stdout.decode().splitlines()
    assert [line.removeprefix("Finished already.") for line in second] == [
        line.removeprefix("Finished.") for line in first]
    return first


MEANING = ("An error is something that is missing from the result, a warning something that may not work on the new "
           "host; what to do is said in dump.xml")


def test_counts_the_problems_of_the_dump_and_names_its_errors(imitated):
    imitated.does("dump", dump_with([("error", "a.test", "first\nline"), ("info", "b", "x"), ("error", "", "second"),
                                     ("warning", "c", "y"), ("info", "d", "z"), ("info", "e", "z")]))
    outcome = ends_of(imitated)
    assert outcome == [f"Finished. Dump: {SESSION}/dump.xml, content: {SESSION}/archives",
                       "Problems in the dump: 2 errors, 1 warning, 3 notes", "  error: a.test: first line",
                       "  error: second", MEANING]
    shown = status()
    assert re.fullmatch(r"done, begun \S+, took 0:0\d, 2 errors, 1 warning, 3 notes", shown["dump"])
    assert shown["description"] == f"{SESSION}/dump.xml"
    assert shown["files"] == f"{SESSION}/archives"
    assert shown["log"] == f"{SESSION}/migration.log"


def test_says_that_there_are_no_problems(imitated):
    imitated.does("dump", dump_with([]))
    assert ends_of(imitated)[1:] == ["Problems in the dump: 0 errors, 0 warnings, 0 notes"]
    assert status()["dump"].endswith(", 0 errors, 0 warnings, 0 notes")


def test_names_ten_errors_and_counts_the_rest(imitated):
    imitated.does("dump", dump_with([("error", f"{number}.test", "gone") for number in range(12)]))
    said = ends_of(imitated)
    assert said[1] == "Problems in the dump: 12 errors, 0 warnings, 0 notes"
    assert said[2:-1] == [*[f"  error: {number}.test: gone" for number in range(10)], "  and 2 more errors"]


def test_says_that_the_problems_of_a_damaged_dump_cannot_be_counted(imitated):
    imitated.does("dump", f"echo '<dump><problems><problem severity=\"error\"/>' > {SESSION}/dump.xml")
    expected = "problems that cannot be counted: the document is damaged or too long"
    assert ends_of(imitated)[1] == f"Problems in the dump: {expected}"
    assert status()["dump"].endswith(f", {expected}")


def test_status_names_only_what_is_there(imitated):
    imitated.does("deploy", "exit 2")
    assert imitated.run(*ALL).code == 2
    assert "description" not in status() and "files" not in status()
    assert status()["log"] == f"{SESSION}/migration.log"


def test_help_and_version_need_nothing_and_leave_nothing():
    for option in ("--help", "-h"):
        outcome = migrate(option, password=None)
        assert (outcome.code, outcome.stderr) == (0, b"")
        assert outcome.stdout.startswith(b"Usage: sondrel-migrate --session-path=DIR ")
    outcome = migrate("--version", password=None)
    assert re.fullmatch(rb"sondrel-migrate \d+\.\d+\.\d+\n", outcome.stdout)
    assert not os.path.exists(SESSION)


def test_man_page_has_every_option_of_the_program_and_no_other():
    shown = migrate("--help", password=None).stdout.decode()
    options = {name: bool(value) for name, value in re.findall(r"^  (--[a-z-]+)(=?)", shown, re.MULTILINE)}
    page = read(f"{os.path.dirname(TESTS)}/docs/man/sondrel-migrate.8").decode()
    heads = [line for line in page.splitlines() if line.startswith(".It Fl")]
    described = {f"-{name}": bool(value) for head in heads
                 for name, value in re.findall(r"Fl (-\S+)( Ns = Ns )?", head)}
    assert len(options) > 25 and described == options
    everywhere = {f"-{name}" for name in re.findall(r"Fl (-\S+)", page)}
    assert everywhere == set(options)

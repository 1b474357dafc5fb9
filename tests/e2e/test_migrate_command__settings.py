"""sondrel-migrate with an imitated sondrel: its settings and its record in the session directory."""
import os
import re
import shutil
import subprocess

import pytest

from imitated_runs import imitated  # noqa: F401  # pylint: disable=unused-import
from imitated_runs import ALL, KEPT, PLACE, complaint
from migrating import IMITATION, STEPS, State, progress_of, status
from world import SESSION, owner_and_mode, read, write

# --- the group of session directories --------------------------------------------------------

@pytest.fixture
def unequal_numbers():
    """Makes the account's number that of the group `users`, to which ordinary accounts belong."""
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
    # Content as sondrel fetches it.
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
    # An access list may let the group in, too.
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
], ids=["host", "agent", "directory"])
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
    told = told.format(State().agent_directory)
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
    # The later steps need an agent again, and this run is final as well.
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
    # The removal is still requested after it has failed.
    assert imitated.run(f"--session-path={SESSION}").code == 0
    assert imitated.runs() == [*STEPS[:4], "remove", "remove"]
    assert status()["state"] == "finished"


@pytest.mark.parametrize("code", [11, 18])
def test_a_removal_that_cannot_be_seen_to_be_done_is_not_done(imitated, code):
    """sondrel itself ends with 0 when it loses the connection during a removal."""
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
    reason = f"/root/{State().agent_directory} is still there on src.example"
    assert (outcome.code, outcome.stderr.decode().splitlines()[0]) == (2, reason)
    assert State().steps["remove"].text == reason
    # With sudo a failure means that nothing is left there; lines of a log do not change that.
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
], ids=["owner", "mode", "owner of the directory", "mode of the directory", "link"])
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

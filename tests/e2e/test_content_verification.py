"""--get-content with CONTENT_VERIFY in the host's configuration: what arrives is compared with the list."""
import os
import subprocess

import pytest

from content import left, md5, offered
from script import Script, ends
from scripted_server import ScriptedServer
from source_host import SourceHost, install_agent, use_shell
from tool import Destination, Outcome, Session
from world import CONFIGURATION, ROOT, SUDOER, files_below, read, wait_until, write

ARCHIVES = f"{Session().path}/archives"
WRAPPING = "Error during dump retrieval"
SUCCESS = ("execution-result", [("status", "success")], "", [])

# A hole, and a few bytes behind it.
HOLE = 4 << 30
BEHIND_THE_HOLE = b"end"
MALFORMED = "a line of the host's configuration names CONTENT_VERIFY and sets nothing"
SUM_WITH_THE_HOLE = "29f9fe6f34f27cd12fbdee8ce0645c90"


@pytest.fixture
def configured():
    """Sets the key to a value."""
    kept = read(CONFIGURATION)
    yield lambda value: write(CONFIGURATION, kept + f"CONTENT_VERIFY {value}\n".encode())
    write(CONFIGURATION, kept)


@pytest.fixture
def verified(configured):
    configured("yes")


def wrong_sum(name, expected, found):
    return ("WrongMd5Sum", "error",
            f"Problem during content retrieval: downloaded {name} has MD5 sum {found}, but it has to be {expected}. "
            "Restarting download.", [])


def wrong_size(name, received, expected):
    return ("WrongFileSize", "error",
            f"Problem during content retrieval: downloaded {name} has {received} bytes, but the content list says "
            f"{expected}", [])


def unlike_the_list(login=ROOT, count=1):
    """Runs --get-content, which must find files that differ; returns the result log's entry for each."""
    outcome = Destination(login).run("get-content")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", WRAPPING.encode())
    assert not Session().exists("dump-name") and not Session().exists("migration-result-name")
    assert dict(Session().result("transfer.result")[1]) == {"status": "error"}
    *found, (code, _, text, nested) = Session().messages("transfer.result")
    assert (code, text) == ("CantRetrieveDump", WRAPPING)
    assert nested == [("ContentVerificationFailed", "error",
                       f"{count} of the retrieved files differ from the content list; their remote copies were kept",
                       [])]
    return found


def test_files_that_agree_are_removed_on_the_source(verified, source, login):
    offered(login, ("sub/one", b"1"), ("two", b"2" * 300_000), ("empty", b""))
    outcome = Destination(login).run("get-content")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert files_below(ARCHIVES) == {b"sub/one": b"1", b"two": b"2" * 300_000, b"empty": b""}
    assert left(login) == []
    assert Session().result("transfer.result") == SUCCESS
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"


def test_file_of_another_sum_stays_on_both_sides_and_the_next_ones_come(verified, source):
    offered(SUDOER, ("one", b"content", {"md5sum": md5(b"another")}), ("two", b"22"))
    assert unlike_the_list(SUDOER) == [wrong_sum("one", md5(b"another"), md5(b"content"))]
    assert files_below(ARCHIVES) == {b"one": b"content", b"two": b"22"}
    assert left(SUDOER) == ["one"]
    (_, _, _, (_, files)), = Session().status()[3]
    assert dict(files[1])["left"] == "0"


@pytest.mark.slow(limit_seconds=600)
def test_file_beyond_32_bits_arrives_whole_and_is_known_again(verified, source):
    size = HOLE + len(BEHIND_THE_HOLE)
    offered(ROOT, ("large", None, {"size": size, "md5sum": SUM_WITH_THE_HOLE}), unpacked=size)
    with open(f"{ROOT.agent_dir}/large", "wb") as large:
        large.seek(HOLE)
        large.write(BEHIND_THE_HOLE)
    running = Destination().start("get-content", "--no-check-space")

    def ended():
        # Digs holes into the copy: it is on a file system in memory, where it would not fit.
        if os.path.exists(f"{ARCHIVES}/large"):
            subprocess.run(["fallocate", "--dig-holes", f"{ARCHIVES}/large"], check=True)
        return running.ended()

    wait_until(ended, "the large file", 400)
    assert running.finish() == Outcome(0, b"", b"")
    assert os.path.getsize(f"{ARCHIVES}/large") == size
    (_, _, _, (_, files)), = Session().status()[3]
    assert dict(files[1])["size-total"] == str(size) and dict(files[1])["size-left"] == "0"
    assert left(ROOT) == []
    before = len(source.lines())
    # Nothing is fetched; the time is for the sum of the local file.
    assert Destination().start("get-content", "--no-check-space").finish(180) == Outcome(0, b"", b"")
    assert len(source.lines()) == before + 1
    os.unlink(f"{ARCHIVES}/large")  # too much to look into


@pytest.mark.parametrize("attributes", [{"md5sum": ""}, {"md5sum": None}], ids=["empty", "missing"])
def test_file_without_a_sum_is_compared_by_its_size(verified, source, attributes):
    offered(ROOT, ("short", b"123", {**attributes, "size": 4}), ("long", b"12345", {**attributes, "size": 4}),
            ("right", b"1234", attributes))
    assert unlike_the_list(count=2) == [wrong_size("short", 3, 4), wrong_size("long", 5, 4)]
    assert left(ROOT) == ["long", "short"]


def test_file_of_another_size_and_sum_is_told_by_both(verified, source):
    offered(ROOT, ("one", b"1", {"md5sum": md5(b"22"), "size": 2}))
    assert unlike_the_list() == [wrong_size("one", 1, 2), wrong_sum("one", md5(b"22"), md5(b"1"))]
    assert left(ROOT) == ["one"]


def test_file_of_the_right_sum_and_another_size_is_no_match(verified, source):
    offered(ROOT, ("one", b"1", {"size": -1}))
    assert unlike_the_list() == [wrong_size("one", 1, -1)]
    assert left(ROOT) == ["one"]


def test_size_that_is_not_listed_is_not_compared(verified, source):
    offered(ROOT, ("one", b"1", {"size": None}), ("two", b"2", {"size": None, "md5sum": None}))
    assert Destination().run("get-content").code == 0
    assert left(ROOT) == []


def test_file_that_was_there_already_is_not_received_and_not_compared_by_size(verified, source):
    offered(ROOT, ("one", b"1", {"size": 2}))
    write(f"{ARCHIVES}/one", b"1")
    assert Destination().run("get-content").code == 0
    assert left(ROOT) == ["one"]


def test_next_run_fetches_again_what_differed_and_nothing_else(verified, source):
    offered(ROOT, ("one", b"1"), ("two", b"cut", {"md5sum": md5(b"whole"), "size": 5}))
    unlike_the_list()
    write(f"{ROOT.agent_dir}/two", b"whole")
    write(f"{ARCHIVES}/one", b"1")
    before = len(source.lines())
    assert Destination().run("get-content").code == 0
    assert files_below(ARCHIVES) == {b"one": b"1", b"two": b"whole"}
    assert left(ROOT) == []
    assert [line for line in source.lines()[before:] if line.startswith("cat")] == [f"cat {ROOT.agent_dir}/two"]


def test_failure_after_a_difference_is_told_by_both(verified, source):
    offered(ROOT, ("one", b"1", {"md5sum": md5(b"2")}), ("absent", None))
    outcome = Destination().run("get-content")
    assert outcome.code == 2
    assert [message[0] for message in Session().messages("transfer.result")] == ["WrongMd5Sum", "CantRetrieveDump"]
    assert Session().messages("transfer.result")[1][3][0][0] == "CantRetrieveContentFile"


def test_output_cut_without_an_exit_status_is_found_out(content_verify):
    """The SSH library cannot tell the lack of a status from status 0; the list can."""
    def answer(command):
        if "--get-content-list" in command.line:
            ends(f'<contentlist unpacked="8"><file size="8" md5sum="{md5(b"complete")}">one</file>'
                 '</contentlist>'.encode())(command)
        elif command.line.startswith("cat"):
            command.take_input()
            command.say(b"comp")
            command.eof()
            command.close()
        else:
            ends()(command)

    install_agent()
    with ScriptedServer(Script(answer=answer)) as server:
        outcome = Destination().run("get-content")
    removed = any("rm" in command.line for command in server.commands)
    assert (outcome.code, removed) == ((2, False) if content_verify else (0, True))
    assert files_below(ARCHIVES) == {b"one": b"comp"}


@pytest.mark.parametrize("shell, code", [("/bin/dash", 0), ("/bin/bash", 2)], ids=["dash", "bash"])
def test_name_that_some_login_shells_expand_is_always_compared(shell, code):
    """In bash the first name means the other two files."""
    with SourceHost(recording=False):
        use_shell(shell)
        offered(ROOT, ("{a,b}", b"braces"), ("a", b"1"), ("b", b"2"))
        outcome = Destination().run("get-content")
    assert outcome.code == code
    fetched = files_below(ARCHIVES)
    assert (fetched.pop(b"a"), fetched.pop(b"b")) == (b"1", b"2")
    if code == 0:
        assert fetched == {b"{a,b}": b"braces"} and left(ROOT) == []
    else:
        assert left(ROOT) == ["{a,b}"]
        assert Session().messages("transfer.result")[0] == wrong_size("{a,b}", 2, 6)


@pytest.mark.parametrize("shell", ["/bin/dash", "/bin/bash"], ids=["dash", "bash"])
def test_name_that_some_login_shells_expand_stays_when_there_is_nothing_to_compare(shell):
    """In bash the first name fetches, and would remove, the other two files, which come later."""
    nothing = {"size": None, "md5sum": None}
    with SourceHost(recording=False):
        use_shell(shell)
        offered(ROOT, ("{a,b}", b"braces", nothing), ("a", b"1"), ("b", b"2"), unpacked=8)
        found = unlike_the_list()
    assert found == [("CantCompareFile", "error",
                      "Problem during content retrieval: downloaded {a,b} may be other files that the login shell takes "
                      "its name for, and the content list has neither its size nor its MD5 sum", [])]
    assert left(ROOT) == ["{a,b}"]
    fetched = files_below(ARCHIVES)
    assert (fetched[b"a"], fetched[b"b"]) == (b"1", b"2")


def test_no_leaves_everything_as_it_was(configured, source):
    configured("no")
    offered(ROOT, ("one", b"1", {"md5sum": md5(b"2"), "size": 7}))
    assert Destination().run("get-content").code == 0
    assert left(ROOT) == []


@pytest.mark.parametrize("line, reason", [
    ("CONTENT_VERIFY ", 'CONTENT_VERIFY is neither "yes" nor "no" but ""'),
    ("CONTENT_VERIFY maybe", 'CONTENT_VERIFY is neither "yes" nor "no" but "maybe"'),
    ("CONTENT_VERIFY YES", 'CONTENT_VERIFY is neither "yes" nor "no" but "YES"'),
    ("CONTENT_VERIFY = yes", 'CONTENT_VERIFY is neither "yes" nor "no" but "= yes"'),
    ("CONTENT_VERIFY=yes", MALFORMED), ("CONTENT_VERIFY", MALFORMED), ("content_verify yes", MALFORMED),
    ("CONTENT_VERIFY: no\nCONTENT_VERIFY no", MALFORMED),
], ids=["nothing", "another word", "capitals", "equals sign and blanks", "equals sign", "no blank", "small letters",
        "colon"])
def test_setting_that_is_not_understood_ends_the_run_before_it_connects(system_log, line, reason):
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + line.encode() + b"\n")
    offered(ROOT, ("one", b"1"))
    try:
        with ScriptedServer(Script()) as server:
            outcome = Destination().run("get-content")
    finally:
        write(CONFIGURATION, kept)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", WRAPPING.encode())
    assert Session().messages("transfer.result")[0][3] == [
        ("ContentVerifyUnknown", "error", f"Cannot tell whether content must be verified: {reason}", [])]
    assert server.connections == []
    assert f"{CONFIGURATION}" in system_log.text() and line.split("\n", maxsplit=1)[0] in system_log.text()


def test_blanks_behind_the_value_do_no_harm(configured, source):
    configured("yes \t")
    offered(ROOT, ("one", b"1", {"md5sum": md5(b"2")}))
    assert unlike_the_list() == [wrong_sum("one", md5(b"2"), md5(b"1"))]

"""--get-content."""
import os
import subprocess

import pytest

from content import left, md5, offered
from source_host import (RemoteCommand, SourceHost, deployed_agent, install_agent, install_sample_agent, root_command,
                         sh_quote, sudo_check, user_line)
from tool import Destination, Session
from world import BINARY, HOST, PLAIN, ROOT, SOURCE_TREE, SUDOER, files_below, owner_and_mode, read, wait_until, write

ARCHIVES = "/mnt/session/archives"
DUMPS = "/mnt/dumps"
WRAPPING = "Error during dump retrieval"
SUCCESS = ("execution-result", [("status", "success")], "", [])


@pytest.fixture(autouse=True)
def no_dumps():
    yield
    subprocess.run(["umount", "-q", DUMPS], check=False)
    subprocess.run(["rm", "-rf", DUMPS, "/mnt/outside"], check=True)


def get_content(login=ROOT, *options):
    outcome = Destination(login).run("get-content", *options)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    return outcome


def cause_of_failure(*options, login=ROOT, agent="sample"):
    """(code, text) of what is told inside the error that wraps every failure."""
    outcome = Destination(login, agent=agent).run("get-content", *options)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", WRAPPING.encode())
    assert not Session().exists("migration.result")
    assert Session().result("transfer.result")[1] == [("status", "error")]
    (code, severity, text, nested), = [message for message in Session().messages("transfer.result")
                                       if message[0] == "CantRetrieveDump"]
    assert (code, severity, text) == ("CantRetrieveDump", "error", WRAPPING)
    (code, _, text, _), = nested
    return code, text


def fetching(login, *names):
    """The RemoteCommands of files that are fetched and removed."""
    commands = []
    for name in names:
        path = sh_quote(f"{login.agent_dir}/{name}")
        commands += [user_line(login, f"cat {path}"), root_command(login, f"rm {path}")]
    return commands


def listing(login):
    return sudo_check(login) + [root_command(login, f"sh {login.agent_dir}/agent --get-content-list")]


# --- the good path ---------------------------------------------------------------------------

ODD_NAMES = ["with blank", "it's \"quoted\"", "a\nline", "ärger", " both ends ", "*?[x]~", "$(id)`id`", "a;b&c|d<e>f",
             "-rf", "%1%", "carriage\rreturn", "tab\tinside", "\\back", "..dots..", "#"]


def test_brings_the_sample_source_over(source, login):
    install_sample_agent()
    content = {f"domains/a.test/{name}/{name}": name.encode() * 1000 for name in ODD_NAMES}
    content |= {"clients/jo/empty": b"", "clients/jo/mail/any bytes": bytes(range(256)) * 4096}
    for name, data in content.items():
        write(f"{SOURCE_TREE}/{name}", data)
    destination = Destination(login)
    for action in ("deploy-agent", "dump-all"):
        assert destination.run(action).code == 0
    dump = Session().read("dump.xml")
    get_content(login)
    expected = {os.fsencode(f"content/{name}"): data for name, data in content.items()}
    assert files_below(ARCHIVES) == {**expected, b"dump.xml": dump}
    for parent, folders, names in os.walk(ARCHIVES):
        for name in folders:
            assert owner_and_mode(f"{parent}/{name}") == (20000, 20000, 0o755), name
        for name in names:
            assert owner_and_mode(f"{parent}/{name}") == (0, 0, 0o644), name
    # All that is left there is the agent itself.
    assert {name for name in left(login) if name.startswith("content/") or name == "dump.xml"} == set()
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"
    assert Session().read("migration-result-name") == b"/mnt/session/archives/migration.result"
    assert Session().result("transfer.result") == SUCCESS
    assert destination.run("remove-agent").code == 0
    assert os.listdir(login.home) == []


def test_fetches_and_removes_each_file_in_the_order_of_the_list(source, login):
    offered(login, ("z", b"1"), ("sub/it's", b"22"), ("a\nb", b""))
    get_content(login)
    assert files_below(ARCHIVES) == {b"z": b"1", b"sub/it's": b"22", b"a\nb": b""}
    assert source.commands() == listing(login) + fetching(login, "z", "sub/it's", "a\nb")
    assert left(login) == []


def test_sends_these_very_lines(source):
    offered(PLAIN, ("a b", b"1"))
    get_content(PLAIN)
    assert source.commands() == [
        RemoteCommand("plain", r"sh -c cd\ /mnt/home/plain/agent\;\ sh\ /mnt/home/plain/agent/agent\ --get-content-list",
                      b""),
        RemoteCommand("plain", r"cat /mnt/home/plain/agent/a\ b", b""),
        RemoteCommand("plain", r"sh -c cd\ /mnt/home/plain/agent\;\ rm\ /mnt/home/plain/agent/a\\\ b", b"")]


def test_sends_these_very_lines_through_sudo(source):
    offered(SUDOER, ("a", b"1"))
    get_content(SUDOER)
    sudo = r"sh -c cd\ /mnt/home/sudoer/agent\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ "
    assert source.commands() == [
        RemoteCommand("sudoer", "sudo -V", b""),
        RemoteCommand("sudoer", "sudo -k; sudo -S -p ' ' true", b"root-passphrase"),
        RemoteCommand("sudoer", sudo + r"sh\ /mnt/home/sudoer/agent/agent\ --get-content-list", b"root-passphrase\n"),
        RemoteCommand("sudoer", "cat /mnt/home/sudoer/agent/a", b""),
        RemoteCommand("sudoer", sudo + r"rm\ /mnt/home/sudoer/agent/a", b"root-passphrase\n")]


def test_empty_list_leaves_the_folder_and_the_names_only(source):
    offered(ROOT)
    get_content()
    assert os.listdir(ARCHIVES) == []
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"
    assert Session().read("migration-result-name") == b"/mnt/session/archives/migration.result"
    assert source.commands() == listing(ROOT)
    # Figures are told with the first file, and there is none.
    assert Session().status() == ("migration-status", [], "", [
        ("transfer", [], "", [("host", [], HOST, []), ("dumpfile", [], "", [])])])


def test_content_goes_to_the_dumps_folder_where_one_is_given(source):
    offered(ROOT, ("sub/new", b"1"), ("there", b"22"))
    write(f"{DUMPS}/there", b"22")
    get_content(ROOT, "--dumps-dir", DUMPS)
    assert files_below(DUMPS) == {b"sub/new": b"1", b"there": b"22"}
    assert files_below(ARCHIVES) == {}
    assert source.commands() == listing(ROOT) + fetching(ROOT, "sub/new")
    assert Session().read("dump-name") == b"/mnt/dumps/dump.xml"
    assert Session().read("migration-result-name") == b"/mnt/dumps/migration.result"


def test_names_of_an_earlier_run_are_replaced(source):
    offered(ROOT)
    for name in ("dump-name", "migration-result-name"):
        write(Session().file(name), "/a/very/much/longer/name/than/the/new/one\n")
    get_content()
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"
    assert Session().read("migration-result-name") == b"/mnt/session/archives/migration.result"


def test_files_and_folders_are_readable_whatever_the_mask_of_the_caller(source):
    offered(ROOT, ("sub/file", b"1"))
    running = Destination().start("get-content", prepare=lambda: os.umask(0o077))
    assert running.finish().code == 0
    assert owner_and_mode(f"{ARCHIVES}/sub") == (20000, 20000, 0o755)
    assert owner_and_mode(f"{ARCHIVES}/sub/file") == (0, 0, 0o644)


def test_encryption_stays_where_the_library_cannot_do_without(source):
    offered(ROOT, ("one", b"1"))
    get_content(ROOT, "--no-encryption")
    assert files_below(ARCHIVES) == {b"one": b"1"}


def test_run_has_no_memory_error_and_leaks_nothing(source):
    """Under valgrind, unless the tool watches its memory itself: see the check in Running.finish."""
    offered(SUDOER, *[(f"folder {number}/file", bytes([number]) * 100_000) for number in range(5)], ("there", b"1"))
    write(f"{ARCHIVES}/there", b"1")
    watched = b"__asan_init" in read(BINARY)
    valgrind = ["valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                "--errors-for-leak-kinds=definite,indirect,possible", BINARY]
    outcome = Destination(SUDOER).run("get-content", through=[BINARY] if watched else valgrind)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert len(files_below(ARCHIVES)) == 6


# --- what is there already -------------------------------------------------------------------

def test_file_that_is_complete_is_neither_fetched_nor_removed(source):
    offered(ROOT, ("one", b"1"), ("sub/two", b"22"), ("three", b"333"))
    write(f"{ARCHIVES}/sub/two", b"22")
    get_content()
    assert source.commands() == listing(ROOT) + fetching(ROOT, "one", "three")
    assert left(ROOT) == ["sub/two"]
    assert files_below(ARCHIVES) == {b"one": b"1", b"sub/two": b"22", b"three": b"333"}
    (_, _, _, (_, files)), = Session().status()[3]
    # The bytes of a file that was not fetched stay on the account; the file does not.
    assert files[1] == [("total", "3"), ("left", "0"), ("size-total", "6"), ("size-left", "2")]


def test_file_of_other_content_is_fetched_again(source):
    offered(ROOT, ("one", b"new"))
    write(f"{ARCHIVES}/one", b"an older and longer content")
    get_content()
    assert files_below(ARCHIVES) == {b"one": b"new"}
    assert source.commands() == listing(ROOT) + fetching(ROOT, "one")


def test_file_of_the_same_last_name_elsewhere_does_not_count(source):
    offered(ROOT, ("a/same", b"1"), ("b/same", b"1"))
    write(f"{ARCHIVES}/same", b"1")
    get_content()
    assert source.commands() == listing(ROOT) + fetching(ROOT, "a/same", "b/same")


@pytest.mark.parametrize("there", [b"same", None], ids=["that is there", "that is not there"])
@pytest.mark.parametrize("attributes", [{"md5sum": ""}, {"md5sum": None}, {"md5sum": md5(b"same").upper()}],
                         ids=["empty", "missing", "in capitals"])
def test_file_without_a_usable_sum_is_always_fetched(source, attributes, there):
    offered(ROOT, ("one", b"same", attributes))
    if there is not None:
        write(f"{ARCHIVES}/one", there)
    get_content()
    assert files_below(ARCHIVES) == {b"one": b"same"}
    assert source.commands() == listing(ROOT) + fetching(ROOT, "one")


def test_fetched_file_is_not_compared_with_its_sum(source):
    offered(ROOT, ("one", b"content", {"md5sum": md5(b"other")}))
    get_content()
    assert files_below(ARCHIVES) == {b"one": b"content"}
    assert left(ROOT) == []
    assert Session().result("transfer.result") == SUCCESS


def test_second_run_goes_on_where_the_first_one_failed(source):
    offered(ROOT, ("one", b"1"), ("two", None, {"md5sum": md5(b"22")}), ("three", b"333"))
    cause_of_failure()
    assert files_below(ARCHIVES)[b"one"] == b"1"
    assert left(ROOT) == ["three"]
    write(f"{ROOT.agent_dir}/two", b"22")
    before = len(source.commands())
    get_content()
    assert files_below(ARCHIVES) == {b"one": b"1", b"two": b"22", b"three": b"333"}
    assert source.commands()[before:] == listing(ROOT) + fetching(ROOT, "two", "three")


# --- progress --------------------------------------------------------------------------------

def test_status_shows_how_far_a_file_has_come(source):
    offered(ROOT, ("first", b"12345"), ("sub/ä\n<&>", None, {"size": 3000}))
    write(f"{ROOT.agent_dir}/sub/.keep")
    os.mkfifo(f"{ROOT.agent_dir}/sub/ä\n<&>")
    running = Destination().start("get-content")

    def shows_1000_bytes():
        return Session().exists("migration.status") and b'size-left="2000"' in Session().read("migration.status")

    with open(f"{ROOT.agent_dir}/sub/ä\n<&>", "wb") as pipe:
        pipe.write(b"x" * 1000)
        pipe.flush()
        wait_until(shows_1000_bytes, "the status to count 1000 bytes")
        name, attributes, _, (host, files) = Session().status()[3][0]
        assert name == "transfer"
        assert [key for key, _ in attributes] == ["speed"] and attributes[0][1].isdigit()
        assert host == ("host", [], HOST, [])
        # The first file brought 5 bytes that the list, too, had counted.
        assert files == ("files", [("total", "2"), ("left", "1"), ("size-total", "5"), ("size-left", "-1000")], "", [
            ("current-file", [("size", "3000"), ("size-left", "2000")], "sub/ä\n<&>", [])])
        pid = Session().tree("migration.status")[3][0][2]
        assert pid == str(running.pid)
        pipe.write(b"y" * 2000)
    assert running.finish().code == 0
    assert Session().read("archives/sub/ä\n<&>") == b"x" * 1000 + b"y" * 2000
    (_, _, _, (_, files)), = Session().status()[3]
    assert dict(files[1])["left"] == "0"
    assert files[3] == [("current-file", [("size", "3000"), ("size-left", "0")], "sub/ä\n<&>", [])]
    assert owner_and_mode(Session().file("migration.status")) == (20000, 20000, 0o600)


def test_sizes_are_counted_beyond_32_bits(source):
    huge = 5_000_000_000_000
    offered(ROOT, ("one", b"1", {"size": huge}), unpacked=huge)
    get_content(ROOT, "--no-check-space")
    (_, _, _, (_, files)), = Session().status()[3]
    assert dict(files[1])["size-total"] == str(huge) and dict(files[1])["size-left"] == str(huge - 1)
    assert dict(files[3][0][1]) == {"size": str(huge), "size-left": str(huge - 1)}


# --- room on the destination -----------------------------------------------------------------

@pytest.fixture
def small_disk():
    """DUMPS on a file system of its own; the bytes that are free on it."""
    os.makedirs(DUMPS, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "small", DUMPS], check=True)
    status = os.statvfs(DUMPS)
    return status.f_bavail * status.f_bsize


def test_room_for_exactly_the_content_is_enough(source, small_disk):
    offered(ROOT, ("one", b"1"), unpacked=small_disk)
    get_content(ROOT, "--dumps-dir", DUMPS)


@pytest.mark.matrix("local")
def test_one_byte_too_many_is_refused_before_anything_is_fetched(source, small_disk):
    offered(ROOT, ("one", b"1"), unpacked=small_disk + 1)
    assert cause_of_failure("--dumps-dir", DUMPS) == (
        "NotEnoughSpace", f"Selected filesystem has only {small_disk} free space, but {small_disk + 1} is needed for "
                          "operation")
    assert source.commands() == listing(ROOT)


def test_room_is_not_looked_at_when_that_is_asked_for(source, small_disk):
    offered(ROOT, ("one", b"1"), unpacked=small_disk + 1)
    get_content(ROOT, "--dumps-dir", DUMPS, "--no-check-space")


@pytest.mark.parametrize("unpacked", ["-1", "+5", "007"])
def test_unpacked_size_may_be_any_whole_number(source, unpacked):
    offered(ROOT, ("one", b"1"), unpacked=unpacked)
    get_content()


def test_dumps_folder_that_is_not_there_has_no_room_to_measure(source):
    offered(ROOT, ("one", b"1"))
    assert cause_of_failure("--dumps-dir", DUMPS) == (
        "CantStatFS", f"Cannot stat filesystem containing {DUMPS}: No such file or directory")


@pytest.mark.matrix("local")
def test_disk_that_fills_up_loses_nothing_on_the_source(source, small_disk):
    offered(ROOT, ("large", b"x" * (small_disk + 4096)))
    code, _ = cause_of_failure("--dumps-dir", DUMPS, "--no-check-space")
    assert code == "CantRetrieveContentFile"
    assert left(ROOT) == ["large"]
    assert not [line for line in source.lines() if "rm" in line]


# --- failures --------------------------------------------------------------------------------

def test_listing_that_fails_is_told_with_what_it_complained_about(source):
    deployed_agent(PLAIN, "echo '<contentlist/>'; echo no list >&2; exit 1")
    assert cause_of_failure(login=PLAIN) == ("CantRetrieveContentList",
                                             "Error during content list retrieval: no list\n")


@pytest.mark.parametrize("printed, code, text", [
    ("", "AssertionFailed", "Assertion failed: content.size()"),
    ("<list/>", "tError_WrongDoc",
     "The document has the wrong type, root node is <list>, but <contentlist> was expected"),
    ("<contentlist>", "tError_ParseFile", "The XML file - was not parsed successfully with the following errors:\n"),
    ("Welcome!", "tError_ParseFile", "The XML file - was not parsed successfully with the following errors:\n"),
], ids=["nothing", "another document", "half a document", "no document"])
def test_listing_of_something_else_is_refused(source, printed, code, text):
    deployed_agent(ROOT, f"printf '%s' '{printed}'")
    found = cause_of_failure()
    assert (found[0], found[1][:len(text)]) == (code, text)
    assert os.listdir(ARCHIVES) == []


@pytest.mark.matrix("commands")
def test_listing_without_an_end_is_given_up():
    deployed_agent(ROOT, "exec yes")
    with SourceHost(recording=False):
        running = Destination().start("get-content")
        assert running.finish().code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert (code, text) == ("StreamWrite", "Cannot write data to the stream")


@pytest.mark.matrix("commands")
def test_complaints_without_measure_are_told_in_part():
    deployed_agent(ROOT, "head -c 20000000 /dev/zero | tr '\\0' x >&2; exit 1")
    with SourceHost(recording=False):
        assert Destination().run("get-content").code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert code == "CantRetrieveContentList"
    assert text == ("Error during content list retrieval: " + "x" * (4 << 20)
                    + f"\n[{20000000 - (4 << 20)} more bytes were left out]\n")


def test_missing_agent_is_told_before_the_host_is_asked():
    install_agent()
    assert cause_of_failure(agent="absent") == ("AgentNotFound",
                                                "Agent absent was not found or does not contain proper spec file")


def test_file_that_is_not_there_ends_the_run(source):
    offered(ROOT, ("one", b"1"), ("sub/two", None), ("three", b"333"))
    path = f"{ROOT.agent_dir}/sub/two"
    assert cause_of_failure() == (
        "CantRetrieveContentFile", f"Failed to retrieve file '{path}' from '127.0.0.1' to '{ARCHIVES}/sub/two': "
                                   f"cat: {path}: No such file or directory\n")
    assert left(ROOT) == ["three"]
    assert source.commands() == listing(ROOT) + fetching(ROOT, "one") + [user_line(ROOT, f"cat {path}")]
    assert not Session().exists("dump-name") and not Session().exists("migration-result-name")


@pytest.mark.parametrize("attributes", [{"md5sum": ""}, {"md5sum": md5(b"another")}], ids=["no sum", "another sum"])
def test_local_copy_is_left_alone_when_the_remote_one_has_gone(source, content_verify, attributes):
    """It may be the only one: an earlier run has fetched the file and removed it there."""
    offered(ROOT, ("one", None, attributes))
    write(f"{ARCHIVES}/one", b"the only copy")
    assert cause_of_failure()[0] == "CantRetrieveContentFile"
    assert files_below(ARCHIVES) == {b"one": b"the only copy"}


def test_empty_file_replaces_an_older_one(source):
    offered(ROOT, ("one", b""))
    write(f"{ARCHIVES}/one", b"an older and longer content")
    get_content()
    assert files_below(ARCHIVES) == {b"one": b""}


def test_file_that_cannot_be_removed_is_told_and_does_not_end_the_run(source):
    offered(PLAIN, ("sub/one", b"1"), ("two", b"22"))
    os.chown(f"{PLAIN.agent_dir}/sub", 0, 0)
    get_content(PLAIN)
    path = f"{PLAIN.agent_dir}/sub/one"
    text = (f"Unable to remove remote file '{path}' from '127.0.0.1': "
            f"rm: cannot remove '{path}': Permission denied\n")
    assert Session().messages("transfer.result") == [("UnableToRemoveRemoteFile", "error", text, [])]
    assert Session().result("transfer.result")[1] == [("status", "success")]
    assert files_below(ARCHIVES) == {b"sub/one": b"1", b"two": b"22"}
    assert left(PLAIN) == ["sub/one"]


@pytest.mark.matrix("local")
@pytest.mark.parametrize("name", ["dump-name", "migration-result-name"])
def test_name_that_cannot_be_written_is_a_failure(source, name):
    offered(ROOT)
    os.makedirs(Session().file(name))
    assert cause_of_failure() == ("FileWrite", f"Error during /mnt/session/{name} write: Is a directory")


def test_fails_when_sudo_refuses(source):
    offered(SUDOER, ("one", b"1"))
    outcome = Destination(SUDOER).run("get-content", sudo_password="wrong-passphrase")
    assert outcome.code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert code == "CantRetrieveContentList" and text.startswith("Error during content list retrieval: ")
    assert left(SUDOER) == ["one"]

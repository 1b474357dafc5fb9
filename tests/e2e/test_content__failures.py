"""--get-content: room on the destination, and failures."""
import os
import subprocess

import pytest

from content import left, md5, offered
from content_runs import no_dumps  # noqa: F401  # pylint: disable=unused-import
from content_runs import ARCHIVES, DUMPS, cause_of_failure, fetching, get_content, listing
from source_host import SourceHost, deployed_agent, install_agent, user_line
from tool import Destination, Session
from world import PLAIN, ROOT, SUDOER, files_below, write


# --- room on the destination -----------------------------------------------------------------

@pytest.fixture
def small_disk():
    """Puts DUMPS on a file system of its own; returns the free bytes on it."""
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


def test_dumps_directory_that_is_not_there_has_no_room_to_measure(source):
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
    """The local copy may be the only one: an earlier run has fetched the file and removed the remote one."""
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

"""--get-content: what it fetches, what is here already, what it reports."""
import os

import pytest

from content import left, md5, offered
from content_runs import no_dumps  # noqa: F401  # pylint: disable=unused-import
from content_runs import ARCHIVES, DUMPS, cause_of_failure, fetching, get_content, listing
from source_host import RemoteCommand, install_sample_agent
from tool import Destination, Session
from world import BINARY, HOST, PLAIN, ROOT, SOURCE_TREE, SUDOER, files_below, owner_and_mode, read, wait_until, write

SUCCESS = ("execution-result", [("status", "success")], "", [])


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
    for parent, directories, names in os.walk(ARCHIVES):
        for name in directories:
            assert owner_and_mode(f"{parent}/{name}") == (20000, 20000, 0o755), name
        for name in names:
            assert owner_and_mode(f"{parent}/{name}") == (0, 0, 0o644), name
    # Only the agent itself is left on the source host.
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


def test_empty_list_leaves_the_directory_and_the_names_only(source):
    offered(ROOT)
    get_content()
    assert os.listdir(ARCHIVES) == []
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"
    assert Session().read("migration-result-name") == b"/mnt/session/archives/migration.result"
    assert source.commands() == listing(ROOT)
    # The status gets its numbers with the first file, and there is none.
    assert Session().status() == ("migration-status", [], "", [
        ("transfer", [], "", [("host", [], HOST, []), ("dumpfile", [], "", [])])])


def test_content_goes_to_the_dumps_directory_where_one_is_given(source):
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


def test_files_and_directories_are_readable_whatever_the_mask_of_the_caller(source):
    offered(ROOT, ("sub/file", b"1"))
    running = Destination().start("get-content", prepare=lambda: os.umask(0o077))
    assert running.finish().code == 0
    assert owner_and_mode(f"{ARCHIVES}/sub") == (20000, 20000, 0o755)
    assert owner_and_mode(f"{ARCHIVES}/sub/file") == (0, 0, 0o644)


def test_encryption_stays_where_the_library_cannot_do_without(source):
    offered(ROOT, ("one", b"1"))
    get_content(ROOT, "--no-encryption")
    assert files_below(ARCHIVES) == {b"one": b"1"}


@pytest.mark.slow
def test_run_has_no_memory_error_and_leaks_nothing(source):
    """Runs under valgrind, unless the tool is built with sanitizers: see the check in Running.finish."""
    offered(SUDOER, *[(f"directory {number}/file", bytes([number]) * 100_000) for number in range(5)], ("there", b"1"))
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
    # The status still counts the bytes of a file that was not fetched, but not the file.
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
        # The list had counted the 5 bytes of the first file, too.
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

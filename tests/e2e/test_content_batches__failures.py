"""--get-content with small files in batches: failures of single files, attacks, interrupted runs."""
import os
import re
import signal
import subprocess

import pytest

import world
from batch_runs import program  # noqa: F401  # pylint: disable=unused-import
from batch_runs import ARCHIVES, ASKED, FILES, REMOVER, get_content
from content import left, md5, offered
from invariants import check
from tool import Destination, Outcome, Session
from world import CONFIGURATION, HOST, ROOT, files_below, kill_together, read, wait_until, write


def failures():
    """[(name, reason)] of the files that could not be retrieved, according to the result log; the one that ended the
    run is the last.
    """
    *others, (code, _, _, inner) = Session().messages("transfer.result")
    assert code == "CantRetrieveDump"
    found = []
    for code, _, text, _ in others + inner:
        assert code == "CantRetrieveContentFile"
        name, target, reason = re.fullmatch(
            rf"Failed to retrieve file '{ROOT.agent_dir}/(.*)' from '{HOST}' to '{ARCHIVES}/(.*?)': (.*)", text,
            re.DOTALL).groups()
        assert name == target
        found.append((name, reason))
    return found


# --- errors of single files ------------------------------------------------------------------

def test_missing_file_is_told_as_a_single_one_is_and_the_others_come(source):
    offered(ROOT, ("one", b"1"), ("gone", None, {"size": 3}), ("three", b"3"))
    outcome = get_content()
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    assert failures() == [("gone", f"cat: {ROOT.agent_dir}/gone: No such file or directory\n")]
    assert files_below(ARCHIVES) == {b"one": b"1", b"three": b"3", b"gone": b""}
    assert left(ROOT) == []


def test_files_that_are_not_proven_come_again_when_tar_complains(program, content_verify):
    # tar fills up with zeros what it cannot read, and only its exit status shows it.
    program("tar", "/bin/tar \"$@\" | sed s/precious/ssssssss/; exit 1")
    offered(ROOT, ("listed", b"precious 1"), ("sum", b"2"), ("unlisted", b"precious 3", {"md5sum": None}))
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {b"listed": b"precious 1", b"sum": b"2", b"unlisted": b"precious 3"}
    assert left(ROOT) == []
    assert read(f"{Session().path}/migration.status").count(b"size-left=\"-") == 0


def test_file_that_cannot_be_removed_is_told_by_name(program):
    program("perl", 'exec /usr/bin/perl "$@"')
    offered(ROOT, *FILES.items())
    subprocess.run(["mount", "--bind", f"{ROOT.agent_dir}/one", f"{ROOT.agent_dir}/one"], check=True)
    try:
        outcome = get_content()
    finally:
        subprocess.run(["umount", f"{ROOT.agent_dir}/one"], check=True)
    assert outcome == Outcome(0, b"", b"")
    assert left(ROOT) == ["one"]
    assert Session().messages("transfer.result") == [
        ("UnableToRemoveRemoteFile", "error",
         f"Unable to remove remote file '{ROOT.agent_dir}/one' from '127.0.0.1': Device or resource busy", [])]


def test_removal_that_dies_is_told_for_each_file(program):
    program("perl", "kill -9 $$")
    offered(ROOT, *FILES.items())
    outcome = get_content()
    assert outcome == Outcome(0, b"", b"")
    check(outcome, FILES)
    assert [message[0] for message in Session().messages("transfer.result")] == 4 * ["UnableToRemoveRemoteFile"]


def test_name_that_was_cut_on_its_way_removes_no_other_file():
    write("/mnt/cut/one", b"1")
    write("/mnt/cut/one-more", b"2")
    done = subprocess.run(["perl", "-e", REMOVER], input=b"\0/mnt/cut/one-more\0/mnt/cut/one", check=False)
    assert (done.returncode, os.listdir("/mnt/cut")) == (0, ["one"])


def test_file_unlike_the_list_stays_on_both_sides_and_the_next_ones_come(program):
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + b"CONTENT_VERIFY yes\n")
    offered(ROOT, ("one", b"1", {"md5sum": md5(b"another")}), ("two", b"2"))
    try:
        outcome = get_content()
    finally:
        write(CONFIGURATION, kept)
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    assert [message[0] for message in Session().messages("transfer.result")] == ["WrongMd5Sum", "CantRetrieveDump"]
    assert left(ROOT) == ["one"]


# --- archives made to do harm ----------------------------------------------------------------

# Python's tarfile can make archives that no tar would make.
FORGED = """exec python3 -c '
import io, sys, tarfile
archive = tarfile.open(fileobj=sys.stdout.buffer, mode="w|", format=tarfile.GNU_FORMAT)
def add(name, content=b"", **more):
    member = tarfile.TarInfo(name)
    member.size = len(content)
    for key, value in more.items():
        setattr(member, key, value)
    archive.addfile(member, io.BytesIO(content))
ONE, TWO, THREE = b"1" * 3000, b"22" * 100000, b"333"
%s
'"""
THREE_FILES = {"one": b"1" * 3000, "two": b"22" * 100_000, "three": b"333"}
MISSING = "The archive does not have it"
SURPLUS = "The archive has it, and nobody asked for it"
REST = 'add("./one", ONE)\nadd("./three", THREE)\narchive.close()'
ATTACKS = {
    "missing": (REST, [("two", MISSING)]),
    "surplus": (f'add("./two", TWO)\nadd("./four", b"4")\n{REST}', [("four", SURPLUS)]),
    "renamed": (f'add("./tw0", TWO)\n{REST}', [("tw0", SURPLUS), ("two", MISSING)]),
    "without the directory": (f'add("two", TWO)\n{REST}', [("two", SURPLUS), ("two", MISSING)]),
    "outside": (f'add("../../outside", TWO)\n{REST}', [("../../outside", SURPLUS), ("two", MISSING)]),
    "absolute": (f'add("/mnt/outside", TWO)\n{REST}', [("/mnt/outside", SURPLUS), ("two", MISSING)]),
    "a symbolic link": (f'add("./two", type=tarfile.SYMTYPE, linkname="/mnt/outside")\n{REST}',
                        [("two", "In the archive it is no regular file")]),
    "a hard link": (f'add("./two", type=tarfile.LNKTYPE, linkname="./one")\n{REST}',
                    [("two", "In the archive it is a hard link")]),
    "a directory": (f'add("./two", type=tarfile.DIRTYPE)\n{REST}', [("two/", SURPLUS), ("two", MISSING)]),
    "a device": (f'add("./two", type=tarfile.CHRTYPE)\n{REST}', [("two", "In the archive it is no regular file")]),
    "a pipe": (f'add("./two", type=tarfile.FIFOTYPE)\n{REST}', [("two", "In the archive it is no regular file")]),
    "twice": (f'add("./two", TWO)\nadd("./two", b"2")\n{REST}', [("two", "The archive has it twice")]),
    "a link and then a file": (f'add("./two", type=tarfile.SYMTYPE, linkname="/mnt/outside")\nadd("./two", TWO)\n{REST}',
                               [("two", "In the archive it is no regular file")]),
    "with holes": ('import struct\nadd("./one", ONE)\nadd("./three", THREE)\n'
                   'sparse = tarfile.TarInfo("./two"); sparse.type = b"S"; sparse.size = 512\n'
                   'block = bytearray(sparse.tobuf(tarfile.GNU_FORMAT))\n'
                   'block[386:386 + 24] = b"00001000000\\0" + b"00000001000\\0"\n'
                   'block[483:495] = b"77777777777\\0"\n'
                   'block[148:156] = b" " * 8\nblock[148:156] = b"%06o\\0 " % sum(block)\n'
                   'sys.stdout.buffer.flush(); archive.fileobj.write(bytes(block) + bytes(512)); archive.close()',
                   [("two", "In the archive it has holes")]),
}


@pytest.mark.matrix("links")
@pytest.mark.parametrize("attack", ATTACKS)
def test_member_that_is_not_what_was_asked_for_fails_that_file_alone(program, content_verify, attack):
    script, expected = ATTACKS[attack]
    program("tar", FORGED % script)
    write("/mnt/outside", b"kept")
    offered(ROOT, *THREE_FILES.items())
    outcome = get_content()
    check(outcome, THREE_FILES)
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    assert sorted(failures()) == sorted(expected)
    blamed = {"two"} if attack != "surplus" else set()
    assert left(ROOT) == sorted(blamed)
    assert read("/mnt/outside") == b"kept"
    assert set(files_below(ARCHIVES)) <= {b"one", b"two", b"three"}
    # Without the attack the next run fetches what is left.
    program("tar", 'exec /bin/tar "$@"')
    assert get_content() == Outcome(0, b"", b"")
    os.unlink("/mnt/outside")


BROKEN = {
    "cut in a member": ("/bin/tar \"$@\" | head -c 100000", "two"),
    "cut in a header": ("/bin/tar \"$@\" | head -c 3900", "two"),
    "killed": ("/bin/tar \"$@\" | head -c 100000; kill -9 $$", "two"),
    "no archive": ("echo Welcome; /bin/tar \"$@\"", "one"),
    "nothing": ("cat > /dev/null", "one"),
    "a damaged header": ("/bin/tar \"$@\" | sed 's/two/twO/'", "two"),
    "compressed": ("/bin/tar \"$@\" | gzip", "one"),
}


@pytest.mark.matrix("links")
@pytest.mark.parametrize("kind", BROKEN)
def test_archive_that_breaks_off_loses_nothing(program, content_verify, kind):
    script, blamed = BROKEN[kind]
    program("tar", script)
    offered(ROOT, *THREE_FILES.items())
    outcome = get_content()
    check(outcome, THREE_FILES)
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    assert [name for name, _ in failures()][-1] == blamed
    assert set(left(ROOT)) >= {blamed, "three"}
    assert ("one" in left(ROOT)) == (blamed == "one")
    program("tar", 'exec /bin/tar "$@"')
    assert get_content() == Outcome(0, b"", b"")


# --- a run that ends amid an archive -----------------------------------------------------------

GATE = "/mnt/gate"


@pytest.fixture
def halfway(program):
    """Starts a run over THREE_FILES; yields it while half of the second file is here and tar waits."""
    os.mkfifo(GATE)
    program("tar", f"/bin/tar \"$@\" > /mnt/archive; head -c 100000 /mnt/archive; read line < {GATE}; "
            "tail -c +100001 /mnt/archive")
    offered(ROOT, *THREE_FILES.items())
    running = Destination().start("get-content", environment=ASKED)
    with open(GATE, "wb") as pipe:  # returns when the command waits
        # So far 65536 bytes and a rest have arrived; tar sends nothing more.
        wait_until(lambda: Session().exists("migration.status")
                   and b">two<" in Session().read("migration.status"), "the second file")
        yield running, pipe
    running.kill()
    os.unlink(GATE)


@pytest.mark.matrix("signals")
def test_stop_request_amid_an_archive_loses_nothing(halfway, content_verify):
    running, pipe = halfway
    running.send(signal.SIGUSR1)
    pipe.write(b"go on\n")
    pipe.flush()
    outcome = running.finish()
    assert outcome == Outcome(0, b"Migration has been terminated", b"")
    check(outcome, THREE_FILES)
    assert left(ROOT) == sorted(THREE_FILES)
    assert not Session().exists("dump-name")


@pytest.mark.matrix("signals")
def test_run_that_is_killed_amid_an_archive_loses_nothing(halfway, content_verify):
    running, _ = halfway
    running.send(signal.SIGKILL)
    check(running.finish(), THREE_FILES)
    assert left(ROOT) == sorted(THREE_FILES)


@pytest.mark.matrix("network")
def test_connection_that_is_lost_amid_an_archive_loses_nothing(halfway, content_verify):
    running, _ = halfway
    kill_together([pid for pid, command in world.processes() if command.startswith(b"sshd: ")])
    outcome = running.finish()
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    check(outcome, THREE_FILES)
    (code, _, _, ((inner, _, text, ((cause, _, _, _),)),)), = Session().messages("transfer.result")
    assert (code, inner, cause) == ("CantRetrieveDump", "CantRetrieveContentFile", "SshConnectionFault")
    assert text.startswith(f"Failed to retrieve file '{ROOT.agent_dir}/two' ")
    assert left(ROOT) == sorted(THREE_FILES)

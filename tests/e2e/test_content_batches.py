"""--get-content with small files in batches: what holds for single files holds for these."""
import os
import re
import signal
import subprocess

import pytest

import world
from content import left, md5, offered
from invariants import check
from source_host import SourceHost, root_command, sh_quote, sudo_check, use_shell, user_line
from tool import Destination, Outcome, Session
from world import CONFIGURATION, HOST, ROOT, SUDOER, files_below, owner_and_mode, read, wait_until, write

ARCHIVES = "/mnt/session/archives"
PROGRAMS = "/mnt/bin"
ASKED = {"SONDREL_CONTENT_BATCH": "yes"}
SUCCESS = ("execution-result", [("status", "success")], "", [])
REMOVER = ('$/ = "\\0"; <STDIN>; push @errors, unlink($_) ? "" : "$!" while defined($_ = <STDIN>) and chomp; '
           'exit 0 unless grep length, @errors; print map "\\0$_", @errors; exit 3')
FILES = {"one": b"1" * 3000, "sub/two": b"22" * 100_000, "three": b"", "it's\nthree": b"333"}


def get_content(login=ROOT, *options, environment=None):
    return Destination(login).run("get-content", *options, environment=environment or ASKED)


def listing(login):
    return sudo_check(login) + [root_command(login, f"sh {login.agent_dir}/agent --get-content-list")]


def batch(login, *names):
    """The RemoteCommand that fetches these."""
    return user_line(login, f"tar --create --file=- --format=gnu --directory={login.agent_dir} --null --no-unquote "
                     "--no-recursion --dereference --hard-dereference --files-from=-",
                     b"".join(b"./" + os.fsencode(name) + b"\0" for name in names))


def removal(login, *names):
    """The RemoteCommand that removes them."""
    return root_command(login, f"perl -e {sh_quote(REMOVER)}",
                        b"\0" + b"".join(os.fsencode(f"{login.agent_dir}/{name}") + b"\0" for name in names))


def failures():
    """[(name, reason)] of the files that the result log has as not retrieved; the one that ended the run is the last."""
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


@pytest.fixture
def program():
    """Puts a program in front of those of the source host, and starts that; program(name, script)."""
    def put(name, script):
        write(f"{PROGRAMS}/{name}", "#!/bin/sh\n" + script, mode=0o755)
    with SourceHost(options=[f"SetEnv PATH={PROGRAMS}:/usr/bin:/bin"], recording=False):
        yield put
    subprocess.run(["rm", "-rf", PROGRAMS], check=True)


# --- the good path ---------------------------------------------------------------------------

def test_two_commands_bring_many_files_and_remove_them(source, login, content_verify):
    offered(login, *FILES.items())
    assert get_content(login) == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {os.fsencode(name): content for name, content in FILES.items()}
    for name in FILES:
        assert owner_and_mode(f"{ARCHIVES}/{name}") == (0, 0, 0o644)
    assert owner_and_mode(f"{ARCHIVES}/sub") == (20000, 20000, 0o755)
    assert source.commands() == listing(login) + [batch(login, *FILES), removal(login, *FILES)]
    assert left(login) == []
    assert Session().result("transfer.result") == SUCCESS
    assert Session().read("dump-name") == b"/mnt/session/archives/dump.xml"


@pytest.mark.parametrize("shell", ["/bin/dash", "/bin/bash"], ids=["dash", "bash"])
def test_login_s_shell_reads_the_commands_as_they_are(shell):
    """bash expands what other shells leave: braces with a comma between them, for one."""
    with SourceHost(recording=False):
        use_shell(shell)
        offered(ROOT, *FILES.items())
        assert get_content() == Outcome(0, b"", b"")
    assert left(ROOT) == []
    assert Session().result("transfer.result") == SUCCESS


@pytest.mark.parametrize("value, asked", [("yes", True), ("yes \t", True), ("no", False), ("YES", False)])
def test_configuration_asks_for_it_with_yes_alone(source, value, asked):
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + f"CONTENT_BATCH {value}\n".encode())
    try:
        offered(ROOT, ("a", b"1"))
        assert get_content(environment={"SONDREL_CONTENT_BATCH": "no"}) == Outcome(0, b"", b"")
    finally:
        write(CONFIGURATION, kept)
    assert (batch(ROOT, "a") in source.commands()) == asked
    assert left(ROOT) == []


def test_status_tells_each_file_and_all_of_them_in_the_end(source):
    offered(ROOT, *FILES.items())
    assert get_content() == Outcome(0, b"", b"")
    (_, _, _, (_, (name, attributes, _, (current,)))), = Session().status()[3]
    size = str(sum(map(len, FILES.values())))
    assert (name, dict(attributes)) == ("files", {"total": "4", "left": "0", "size-total": size, "size-left": "0"})
    assert (current[0], current[2]) == ("current-file", "it's\nthree")


def test_large_files_and_those_without_a_size_come_by_themselves(source):
    large = bytes(range(256)) * (1 << 15)
    offered(ROOT, ("a", b"1"), ("large", large), ("unsized", b"2", {"size": None}), ("b{1,2}", b"3"), ("c//d", b"4"),
            ("e", b"5"))
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {b"a": b"1", b"large": large, b"unsized": b"2", b"b{1,2}": b"3", b"c/d": b"4",
                                     b"e": b"5"}
    lines = [command for command in source.commands() if not command.line.startswith("sh ")]
    assert [line.line.rpartition("/")[2] for line in lines[:-1]] == ["large", "unsized", "b{1,2}", "d"]
    assert lines[-1] == batch(ROOT, "a", "e")
    assert left(ROOT) == []


def test_files_that_are_here_are_not_fetched_and_stay_there(source):
    offered(ROOT, ("a", b"1"), ("b", b"2"))
    write(f"{ARCHIVES}/a", b"1")
    assert get_content() == Outcome(0, b"", b"")
    assert batch(ROOT, "b") in source.commands()
    assert left(ROOT) == ["a"]


def test_file_that_is_listed_twice_is_fetched_once(source):
    offered(ROOT, ("a", b"1"), ("b", b"2"), ("a", b"1"))
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {b"a": b"1", b"b": b"2"}
    assert source.commands() == listing(ROOT) + [batch(ROOT, "a", "b"), removal(ROOT, "a", "b")]


def test_more_files_than_go_into_a_batch_make_several(source):
    content = {f"{number:04d}-{'n' * 90}": b"%d" % number for number in range(1200)}
    offered(ROOT, *content.items())
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {name.encode(): text for name, text in content.items()}
    assert left(ROOT) == []
    sent = [command.stdin for command in source.commands() if command.line.startswith("tar ")]
    assert len(sent) == 2 and all(len(names) <= 64 << 10 for names in sent)


def test_links_on_the_source_host_are_followed(source):
    offered(ROOT, ("a", b"1"), ("hard", None, {"size": 1, "md5sum": md5(b"1")}),
            ("soft", None, {"size": 1, "md5sum": md5(b"1")}))
    os.link(f"{ROOT.agent_dir}/a", f"{ROOT.agent_dir}/hard")
    os.symlink("a", f"{ROOT.agent_dir}/soft")
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {b"a": b"1", b"hard": b"1", b"soft": b"1"}
    assert left(ROOT) == []


@pytest.mark.parametrize("name", ["back\\nslash", "a\nb", " both ends ", "*", "-C", "ä\xff".encode("latin-1"), "%1%",
                                  "n" * 255, "/".join(["d" * 200] * 15)],
                         ids=["backslash", "line feed", "blanks", "star", "option", "no text", "format", "long", "deep"])
def test_name_of_any_kind_comes_and_goes(source, name):
    name = os.fsdecode(name) if isinstance(name, bytes) else name
    try:
        name.encode()
    except UnicodeEncodeError:
        name = "ä\x85"
    offered(ROOT, ("a", b"1"), (name, b"2"))
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {b"a": b"1", os.fsencode(name): b"2"}
    assert left(ROOT) == []


def test_password_that_sudo_does_not_want_names_no_file(source):
    # The login may use sudo without one, and is given one.
    offered(SUDOER, *FILES.items())
    with open("/etc/sudoers", "a", encoding="utf-8") as rules:
        rules.write("sudoer ALL=(ALL) NOPASSWD: ALL\n")
    assert get_content(SUDOER) == Outcome(0, b"", b"")
    assert left(SUDOER) == []
    assert Session().result("transfer.result") == SUCCESS
    assert removal(SUDOER, *FILES) in source.commands()


# --- hosts that cannot -----------------------------------------------------------------------

@pytest.mark.parametrize("script", ["exit 127", "echo \"tar: unrecognized option '--null'\" >&2; exit 1"],
                         ids=["missing", "of another kind"])
def test_host_without_such_a_tar_is_sent_single_commands(program, script):
    program("tar", f"echo called >> /mnt/calls; {script}")
    offered(ROOT, *FILES.items())
    assert get_content() == Outcome(0, b"", b"")
    assert files_below(ARCHIVES) == {os.fsencode(name): content for name, content in FILES.items()}
    assert left(ROOT) == []
    assert Session().result("transfer.result") == SUCCESS
    assert read("/mnt/calls") == b"called\n"
    os.unlink("/mnt/calls")


def test_host_without_perl_removes_by_single_commands(program):
    program("perl", "exit 127")
    offered(ROOT, *FILES.items())
    assert get_content() == Outcome(0, b"", b"")
    assert left(ROOT) == []
    assert Session().result("transfer.result") == SUCCESS


# --- errors of single files ------------------------------------------------------------------

def test_missing_file_is_told_as_a_single_one_is_and_the_others_come(source):
    offered(ROOT, ("one", b"1"), ("gone", None, {"size": 3}), ("three", b"3"))
    outcome = get_content()
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    assert failures() == [("gone", f"cat: {ROOT.agent_dir}/gone: No such file or directory\n")]
    assert files_below(ARCHIVES) == {b"one": b"1", b"three": b"3", b"gone": b""}
    assert left(ROOT) == []


def test_files_that_are_not_proven_come_again_when_tar_complains(program, content_verify):
    # What tar cannot read it fills up with zeros, and tells by its exit status alone.
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

# Python's tar makes what no tar would.
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
    "without the folder": (f'add("two", TWO)\n{REST}', [("two", SURPLUS), ("two", MISSING)]),
    "outside": (f'add("../../outside", TWO)\n{REST}', [("../../outside", SURPLUS), ("two", MISSING)]),
    "absolute": (f'add("/mnt/outside", TWO)\n{REST}', [("/mnt/outside", SURPLUS), ("two", MISSING)]),
    "a symbolic link": (f'add("./two", type=tarfile.SYMTYPE, linkname="/mnt/outside")\n{REST}',
                        [("two", "In the archive it is no regular file")]),
    "a hard link": (f'add("./two", type=tarfile.LNKTYPE, linkname="./one")\n{REST}',
                    [("two", "In the archive it is a hard link")]),
    "a folder": (f'add("./two", type=tarfile.DIRTYPE)\n{REST}', [("two/", SURPLUS), ("two", MISSING)]),
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
    # Without the attack the next run brings what is left.
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
    """Starts a run over THREE_FILES, and gives it while the second file is half here and tar waits."""
    os.mkfifo(GATE)
    program("tar", f"/bin/tar \"$@\" > /mnt/archive; head -c 100000 /mnt/archive; read line < {GATE}; "
            "tail -c +100001 /mnt/archive")
    offered(ROOT, *THREE_FILES.items())
    running = Destination().start("get-content", environment=ASKED)
    with open(GATE, "wb") as pipe:  # returns when the command waits
        # What came so far is 65536 bytes and a rest, behind which tar is silent.
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
    for pid, command in world.processes():
        if command.startswith(b"sshd: "):
            os.kill(pid, signal.SIGKILL)
    outcome = running.finish()
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    check(outcome, THREE_FILES)
    (code, _, _, ((inner, _, text, ((cause, _, _, _),)),)), = Session().messages("transfer.result")
    assert (code, inner, cause) == ("CantRetrieveDump", "CantRetrieveContentFile", "SshConnectionFault")
    assert text.startswith(f"Failed to retrieve file '{ROOT.agent_dir}/two' ")
    assert left(ROOT) == sorted(THREE_FILES)

"""--get-content with small files in batches: what is true for single files is true for these."""
import os

import pytest

from batch_runs import program  # noqa: F401  # pylint: disable=unused-import
from batch_runs import ARCHIVES, FILES, REMOVER, get_content
from content import left, md5, offered
from source_host import SourceHost, root_command, sh_quote, sudo_check, use_shell, user_line
from tool import Outcome, Session
from world import CONFIGURATION, ROOT, SUDOER, files_below, owner_and_mode, read, write

SUCCESS = ("execution-result", [("status", "success")], "", [])


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
    """bash expands what other shells leave unchanged, for example braces with a comma between them."""
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
    # The login needs no password for sudo, but gets one.
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

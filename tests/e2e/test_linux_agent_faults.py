"""Failures while the agent "linux" dumps: it names them, dumps the rest, and its documents are true."""
import os
import shutil
import subprocess
import xml.etree.ElementTree

import pytest

from archives import STAGE, assert_same_tree, unpack
from linux_agent import AGENT_DIR, Agent, Dump, Gate, check_schema, without_perl_modules
from linux_fixtures import agent  # noqa: F401  a fixture
from linux_host import databases, populate, populate_apache, web_host
from source_services import add_user, fill_root, owned
from world import PLAIN, die_with_parent, owner_and_mode, read, wait_until

# These tests run the agent alone, which is the same in every build.
pytestmark = pytest.mark.release_only


@pytest.fixture
def host():
    shutil.rmtree(STAGE, ignore_errors=True)
    with web_host() as found:
        populate(found)
        yield found


def finished(agent, process):
    stdout, stderr = process.communicate(timeout=60)
    assert (process.returncode, stdout, stderr) == (0, b"", b""), (process.returncode, stdout, stderr)
    assert agent.status().get("stage") == "finished"
    text = read(f"{agent.directory}/dump.xml")
    check_schema(text, "dump")
    return Dump(text)


def content_list(agent):
    """{name: (size, MD5 sum)}"""
    result = agent.run("--get-content-list")
    assert (result.returncode, result.stderr) == (0, b""), result
    check_schema(result.stdout, "content-list")
    return {entry.text: (int(entry.get("size")), entry.get("md5sum"))
            for entry in xml.etree.ElementTree.fromstring(result.stdout)}


def temporaries(agent):
    return [name for _, _, names in os.walk(agent.directory) for name in names if name.endswith(".new")]


def test_a_killed_dump_leaves_no_dump_and_the_next_one_goes_on_from_there(agent):
    gate = Gate(2)
    process = agent.start("--migration-mode", "--dump-all", environment={"PATH": gate.path})
    gate.wait()
    first, = agent.content()
    before = os.stat(f"{agent.directory}/{first}")
    wait_until(lambda: agent.status().get("done") == "1", "the status to tell of the first archive", 1.5)
    assert (agent.status().get("stage"), agent.status().get("pid")) == ("content", str(process.pid))
    process.kill()
    process.communicate()
    gate.open()
    assert not os.path.exists(f"{agent.directory}/dump.xml")
    assert agent.run("--get-content-list").returncode == 1
    dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
    assert dump.losses() == []
    after = os.stat(f"{agent.directory}/{first}")
    assert (before.st_ino, before.st_mtime_ns) == (after.st_ino, after.st_mtime_ns)
    assert temporaries(agent) == []
    assert set(content_list(agent)) == {*dump.files(), "dump.xml"} == {*agent.content(), "dump.xml"}
    for name in agent.content():
        unpack(f"{agent.directory}/{name}")
    assert_same_tree("/home/alice/a.test", f"{STAGE}/home/alice/a.test")


@pytest.mark.parametrize("signal", [1, 2, 15], ids=["hangup", "interrupt", "termination"])
def test_a_dump_that_is_asked_to_end_says_so_and_leaves_nothing_half_done(agent, signal):
    gate = Gate(1)
    process = agent.start("--migration-mode", "--dump-all", environment={"PATH": gate.path})
    gate.wait()
    process.send_signal(signal)
    _, stderr = process.communicate(timeout=20)
    assert process.returncode not in (0, None) and stderr
    assert agent.status().get("stage") == "failed"
    assert agent.content() == temporaries(agent) == []
    assert not os.path.exists(f"{agent.directory}/dump.xml")


def test_a_second_dump_does_not_disturb_one_that_runs(agent):
    gate = Gate(1)
    process = agent.start("--migration-mode", "--dump-all", environment={"PATH": gate.path})
    gate.wait()
    for arguments in (["--migration-mode", "--dump-all"], ["--get-content-list"]):
        result = agent.run(*arguments)
        assert result.returncode not in (0, None) and b"still running" in result.stderr, result
    gate.open()
    finished(agent, process)


def test_the_status_is_renewed_every_second_while_one_archive_is_made(agent):
    gate = Gate(1)
    process = agent.start("--migration-mode", "--dump-all", environment={"PATH": gate.path})
    gate.wait()
    for _ in range(3):
        known = os.stat(f"{agent.directory}/dumping-status.xml").st_mtime_ns
        wait_until(lambda: os.stat(f"{agent.directory}/dumping-status.xml").st_mtime_ns != known, "a newer status", 1.5)
        check_schema(read(f"{agent.directory}/dumping-status.xml"), "dumping-status")
    gate.open()
    finished(agent, process)


@pytest.mark.slow
def test_a_full_disk_leaves_out_what_has_no_room_and_says_so(host):
    owner = add_user("alice")
    # Random bytes, which cannot be compressed.
    owned("/home/alice/shop/large", os.urandom(40 << 20), owner)
    os.makedirs(AGENT_DIR, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=20m,mode=700", "small", AGENT_DIR], check=True)
    try:
        agent = Agent(f"{AGENT_DIR}/agent")
        dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
        errors = dict(dump.problems("error"))
        assert set(errors) == {"shop.a.test"} and "No room" in errors["shop.a.test"]
        assert [name for name in dump.files() if "shop" in name] == []
        unpack(f"{agent.directory}/content/sites/a.test.tar.gz")
        assert_same_tree("/home/alice/a.test", f"{STAGE}/home/alice/a.test")
        assert temporaries(agent) == []
        # Once there is room the agent makes the rest.
        subprocess.run(["mount", "-o", "remount,size=200m", AGENT_DIR], check=True)
        dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
        assert dump.losses() == []
        unpack(f"{agent.directory}/content/sites/shop.a.test.tar.gz")
        assert_same_tree("/home/alice/shop", f"{STAGE}/home/alice/shop")
    finally:
        subprocess.run(["umount", "-l", AGENT_DIR], check=True)


def test_a_disk_without_any_room_fails_the_dump_with_a_message(host):
    os.makedirs(AGENT_DIR, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m,mode=700", "small", AGENT_DIR], check=True)
    try:
        agent = Agent(f"{AGENT_DIR}/agent")
        with open(f"{AGENT_DIR}/filler", "wb", buffering=0) as filler:
            with pytest.raises(OSError):
                while True:
                    filler.write(bytes(4096))
        result = agent.run("--migration-mode", "--dump-all")
        assert result.returncode not in (0, None) and b"No space left on device" in result.stderr, result
        assert not os.path.exists(f"{agent.directory}/dump.xml")
    finally:
        subprocess.run(["umount", "-l", AGENT_DIR], check=True)


@pytest.mark.slow
def test_a_database_server_that_is_down_is_named_and_the_rest_is_dumped(host, agent):
    populate_apache(host)
    with databases() as servers:
        whole = agent.dump("--dump-all")
        assert whole.names("database") == ["shop", "wiki"]
        servers.mysql.kill()
        dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
    assert dump.names("database") == ["wiki"]
    assert any("MariaDB" in object_ and "cannot be asked" in text for object_, text in dump.problems("error")), dump.problems()
    assert sorted(set(whole.files()) - set(dump.files())) == ["content/databases/mysql-shop.sql.gz"]


def test_a_database_server_that_ends_while_it_is_dumped_is_named(host, agent):
    populate_apache(host)
    with databases() as servers:
        # The dump waits for this lock until the server has been killed.
        locked = subprocess.Popen(
            ["mariadb", "--no-defaults", f"--socket={servers.mysql.socket}", "-N", "--unbuffered", "shop"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, preexec_fn=die_with_parent)
        locked.stdin.write(b"LOCK TABLES goods WRITE; SELECT 'locked';\n")
        locked.stdin.flush()
        assert locked.stdout.readline() == b"locked\n"
        process = agent.start("--migration-mode", "--dump-all")
        wait_until(lambda: os.path.exists(f"{agent.directory}/dumping-status.xml")
                   and (agent.status().get("object") or "").startswith("mysql"), "the database's turn")
        servers.mysql.kill()
        dump = finished(agent, process)
        locked.communicate()
    assert any("shop" in object_ for object_, _ in dump.problems("error")), dump.problems()
    assert "content/databases/mysql-shop.sql.gz" not in agent.content()
    assert "content/databases/postgresql-wiki.sql.gz" in agent.content()
    assert temporaries(agent) == []


def test_what_a_plain_login_may_not_read_is_named_and_the_rest_is_dumped(host):
    bob = add_user("bob")
    fill_root("/home/bob/open", bob)
    fill_root("/home/bob/closed", bob)
    owned("/home/bob/open/secret", "x", bob, 0o600)
    os.chmod("/home/bob/closed", 0o700)
    host.nginx.add_site("open.test", "/home/bob/open")
    host.nginx.add_site("closed.test", "/home/bob/closed")
    agent = Agent(owner=PLAIN.ids)
    dump = finished(agent, agent.start("--migration-mode", "--dump-domains=-", given=b"open.test,closed.test",
                                       user=PLAIN.ids[0]))
    errors = dump.problems("error")
    assert any(name == "open.test" and "/home/bob/open/secret" in text for name, text in errors), errors
    assert any(name == "closed.test" and "/home/bob/closed" in text for name, text in errors), errors
    unpack(f"{agent.directory}/content/sites/open.test.tar.gz")
    assert read(f"{STAGE}/home/bob/open/index.html") == read("/home/bob/open/index.html")
    assert {owner_and_mode(f"{agent.directory}/{name}") for name in agent.content()} == {(*PLAIN.ids, 0o600)}


BROKEN = {
    "unclosed block": "server { server_name broken.test; root /home/alice/b;\n",
    "unclosed quote": "server { server_name broken.test; root \"/home/alice/b; }\n",
    "missing semicolon": "server { server_name broken.test\n root /home/alice/b; }\n",
    "binary": "\x00\x01\x02server",
    "end of a block that is not there": "}\n",
    "include that is not there": "include /etc/nginx/nowhere.conf;\n",
    "include of itself": "include /etc/nginx/sites-enabled/broken.test;\n",
}


@pytest.mark.parametrize("text", BROKEN.values(), ids=BROKEN.keys())
def test_a_broken_file_of_nginx_is_named_and_the_other_sites_are_dumped(host, agent, text):
    host.nginx.enable("broken.test", text)
    dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
    assert {"a.test", "shop.a.test"} <= set(dump.names("domain"))
    assert any("broken.test" in object_ + text for object_, text in dump.problems()), dump.problems()
    unpack(f"{agent.directory}/content/sites/a.test.tar.gz")
    assert_same_tree("/home/alice/a.test", f"{STAGE}/home/alice/a.test")


@pytest.mark.parametrize("text", [
    "<VirtualHost *:8080>\nServerName broken.test\nDocumentRoot /home/bob/x\n", "</VirtualHost>\n",
    "<VirtualHost *:8080\nServerName broken.test\n</VirtualHost>\n", "Include /etc/apache2/nowhere.conf\n",
    "Include /etc/apache2/sites-enabled/broken.test.conf\n",
], ids=["unclosed block", "end without a block", "unclosed tag", "include that is not there", "include of itself"])
def test_a_broken_file_of_apache_is_named_and_the_other_sites_are_dumped(host, agent, text):
    populate_apache(host)
    host.apache.enable("broken.test.conf", text)
    dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
    assert {"a.test", "b.test", "shop.a.test"} <= set(dump.names("domain"))
    assert any("broken.test" in object_ + text for object_, text in dump.problems()), dump.problems()


def test_a_missing_document_root_is_named(host, agent):
    shutil.rmtree("/home/alice/shop")
    dump = finished(agent, agent.start("--migration-mode", "--dump-all"))
    assert any(name == "shop.a.test" and "/home/alice/shop" in text for name, text in dump.problems())
    # Its configuration was packed all the same.
    unpack(f"{agent.directory}/content/sites/shop.a.test.tar.gz")
    assert read(f"{STAGE}/etc/nginx/sites-available/shop.a.test") == read("/etc/nginx/sites-available/shop.a.test")


def test_names_that_do_not_exist_are_problems_of_the_dump(host, agent):
    dump = finished(agent, agent.start("--migration-mode", "--dump-domains=-", "--dump-clients=-",
                                       "--dump-resellers=-", given=b"nosuch.test,a.test\nnobody,\nnone"))
    assert {name for name, _ in dump.problems("error")} == {"nosuch.test", "nobody", "none"}
    assert dump.names("domain") == ["a.test"]


@pytest.mark.parametrize("arguments", [["--get-status"], ["--get-content-list"], ["--migration-mode", "--dump-all"]],
                         ids=["status", "content list", "dump"])
def test_says_which_modules_of_perl_are_missing(agent, arguments):
    with without_perl_modules("Digest::MD5"):
        result = agent.run(*arguments)
    assert (result.returncode, result.stdout) == (1, b"")
    assert result.stderr.startswith(b"perl lacks Digest::MD5 Digest::SHA, ") and b"perl-core" in result.stderr


@pytest.mark.parametrize("arguments, given", [
    (["--migration-mode", "--dump-domains=-"], b""),
    (["--migration-mode", "--dump-domains=-", "--dump-clients=-"], b"a.test"),
    (["--migration-mode", "--dump-domains=-"], b"a.test\nalice"),
    (["--migration-mode", "--content-transport=rsync", "--dump-all"], b"host\nlogin\npassword"),
    (["--migration-mode", "--only-mail", "--only-hosting", "--dump-all"], b""),
    (["--migration-mode", "--dump-all", "--dump-clients=-"], b"alice"),
    (["--migration-mode", "--unknown"], b""), (["--dump-all"], b""), ([], b""),
    (["--get-status", "--dump-all"], b""),
], ids=["no line", "line missing", "line too many", "connection incomplete", "both kinds only", "all and some",
        "unknown option", "no mode", "nothing", "two actions"])
def test_wrong_use_ends_with_2_and_a_message(agent, arguments, given):
    result = agent.run(*arguments, given=given)
    assert result.returncode == 2 and result.stdout == b"" and result.stderr, result
    assert not os.path.exists(f"{agent.directory}/dump.xml")

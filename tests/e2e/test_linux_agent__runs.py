"""The agent "linux" through the tool: its requests, its status, and runs that were stopped."""
import os
import re
import shutil
import signal
import subprocess
import xml.etree.ElementTree

import pytest

from archives import unpack
from linux_agent import Dump, Gate, check_schema
from linux_dumps import host  # noqa: F401  # pylint: disable=unused-import
from linux_dumps import ARCHIVES, arrived, dumped, entries, migrate, run
from linux_host import DATABASE_SECRETS, FULL_TREES, TREES, databases
from migrating import MIGRATE, State, start
from source_host import SourceHost
from source_services import add_user, owned
from terminal import Terminal
from tool import Destination, Session
from world import HOST, LOGIN_KINDS, ROOT, SESSION, SUDOER, files_below, owner_and_mode, read, wait_until, write


def test_says_that_it_is_in_place(source, host, login):
    run(login, "deploy-agent")
    text = Session().read("agent-deployment.status")
    check_schema(text, "agent-deployment-status")
    document = xml.etree.ElementTree.fromstring(text)
    assert document.tag == "agentstatus" and document.findtext("statusfile")


@pytest.mark.parametrize("kind", LOGIN_KINDS)
def test_what_it_makes_is_for_its_owner_only(source, host, kind):
    login = LOGIN_KINDS[kind]
    run(login, "deploy-agent")
    deployed = set(entries(login))
    dumped(login)
    uid, gid, mode = owner_and_mode(login.agent_dir)
    assert (uid, mode) == (login.ids[0], 0o700)
    made = {path: facts for path, facts in entries(login).items() if path not in deployed}
    assert "dump.xml" in made and "content/sites" in made
    for path, facts in made.items():
        is_directory = os.path.isdir(f"{login.agent_dir}/{path}")
        assert facts == (uid, gid, 0o700 if is_directory else 0o600), path
    stranger = subprocess.run(["cat", f"{SESSION}/dump.xml"], user=65534, group=65534, extra_groups=[], check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert (stranger.returncode, stranger.stdout) == (1, b"") and b"Permission denied" in stranger.stderr


def test_shows_its_progress_through_the_tool(source, host):
    run(ROOT, "deploy-agent")
    dumped(ROOT)
    outcome = Destination(ROOT, agent="linux").run("get-dumping-status")
    assert outcome.code == 0
    check_schema(outcome.stdout, "dumping-status")
    status = xml.etree.ElementTree.fromstring(outcome.stdout)
    assert (status.get("stage"), status.get("done")) == ("finished", status.get("total"))


SELECTIONS = {
    "a domain": (["--domains=a.test"], {"client": ["alice"], "domain": ["a.test"], "mailbox": ["info@a.test"]}),
    "a domain by another name": (["--domains=WWW.b.test"], {"client": ["bob"], "domain": ["b.test"]}),
    "a client": (["--clients=bob"], {"client": ["bob"], "domain": ["b.test"], "mailbox": ["bob"]}),
    "a reseller": (["--resellers=agency"], {
        "reseller": ["agency"], "client": ["alice"], "domain": ["a.test", "shop.a.test"],
        "mailbox": ["info@a.test"]}),
    "a domain and a client": (["--domains=shop.a.test", "--clients=bob"], {
        "client": ["alice", "bob"], "domain": ["b.test", "shop.a.test"], "mailbox": ["bob"]}),
    "all three": (["--domains=b.test", "--clients=alice", "--resellers=agency"], {
        "client": ["alice", "bob"], "domain": ["a.test", "b.test", "shop.a.test"], "mailbox": ["info@a.test"]}),
}


@pytest.mark.parametrize("name", SELECTIONS)
def test_a_selected_dump_has_what_was_asked_for(source, host, name):
    options, expected = SELECTIONS[name]
    write("/etc/sondrel/resellers", "agency: alice\n")
    try:
        dump = migrate(SUDOER, "dump-selected", *options)
    finally:
        shutil.rmtree("/etc/sondrel")
    found = dump.objects()
    if "reseller" not in expected:
        found.pop("reseller", None)
    assert found == expected
    assert dump.losses() == []
    assert dump.root.find("server") is None and dump.root.find("admin-info") is None
    if "a.test" in expected["domain"]:
        arrived("/home/alice/a.test")


@pytest.mark.parametrize("option, kinds", [("--only-mail", {"mailbox"}), ("--only-hosting", {"site", "client"})])
def test_only_a_kind_of_content_is_dumped_when_asked_for(source, host, option, kinds):
    dump = migrate(ROOT, "dump-selected", "--clients=alice,bob", option)
    assert {content.get("kind") for content in dump.root.iter("content")} == kinds
    assert bool(dump.names("mailbox")) == (option == "--only-mail")


@pytest.mark.slow
def test_content_is_not_compressed_when_asked_for(source, host):
    dump = migrate(ROOT, "dump-selected", "--clients=alice,bob", "--no-compress")
    assert dump.files() and not [name for name in dump.files() if name.endswith(".gz")]
    arrived("/home/alice/a.test", "/home/bob/Maildir")


def test_a_dump_without_content_has_the_description_only(source, host):
    run(ROOT, "deploy-agent")
    dump = dumped(ROOT, "dump-all", "--no-content")
    assert dump.files() == {} and dump.names("domain") == ["a.test", "b.test", "shop.a.test"]
    run(ROOT, "get-content")
    assert set(files_below(ARCHIVES)) == {b"dump.xml"}


def test_the_lines_of_another_transport_are_never_stored(source, host):
    run(SUDOER, "deploy-agent")
    dump = dumped(SUDOER, "dump-selected", "--content-transport=rsync", "--clients=bob")
    assert dump.names("client") == ["bob"] and "content/sites/b.test.tar.gz" in dump.files()
    assert any("rsync" in text for _, text in dump.problems("info"))
    for path, content in files_below(SUDOER.agent_dir).items():
        assert SUDOER.password.encode() not in content, path
    status = xml.etree.ElementTree.fromstring(read(f"{SUDOER.agent_dir}/dumping-status.xml"))
    assert dict(status.find("transport").items()) == {"asked": "rsync", "used": "archives"}
    assert b'name="transport-rsync" available="no"' in Session().read("agent-deployment.status")


def test_no_password_of_a_database_is_in_an_argument_or_the_environment(source, host):
    # The command line of every process of the dump, as the kernel recorded it.
    seen = "/mnt/seen"
    write("/mnt/programs/mariadb-dump", f"""#!/bin/sh
tr '\\0' '\\n' < /proc/$$/cmdline >> {seen}; tr '\\0' '\\n' < /proc/$PPID/environ >> {seen}
env >> {seen}
exec /usr/bin/mariadb-dump "$@"
""", mode=0o755)
    shutil.copy("/mnt/programs/mariadb-dump", "/mnt/programs/mysqldump")
    run(ROOT, "deploy-agent")
    with databases() as servers:
        result = subprocess.run(
            ["perl", f"{ROOT.agent_dir}/agent.pl", "--migration-mode", "--dump-all"], check=True, capture_output=True,
            env={"PATH": "/mnt/programs:/usr/sbin:/usr/bin:/sbin:/bin"})
        hashed = servers.mysql.sql("SELECT authentication_string FROM mysql.user WHERE User = 'shop';").strip()
    assert result.stderr == b""
    # Not even the hash of the password is in the description.
    assert len(hashed) == 41 and hashed not in read(f"{ROOT.agent_dir}/dump.xml")
    assert b"shop" in read(seen)
    for secret in DATABASE_SECRETS:
        assert secret not in read(seen)


@pytest.mark.slow
def test_a_second_dump_makes_only_what_has_changed(source, host):
    run(ROOT, "deploy-agent")

    def identity():
        return {name: (os.stat(f"{ROOT.agent_dir}/{name}").st_ino, os.stat(f"{ROOT.agent_dir}/{name}").st_mtime_ns)
                for name in dumped(ROOT).files()}

    first = identity()
    assert identity() == first
    owned("/home/alice/shop/new.html", "new", add_user("alice"))
    os.chmod("/home/bob/public html/index.html", 0o600)
    third = identity()
    assert {name for name in first if first[name] != third[name]} == {
        "content/sites/shop.a.test.tar.gz", "content/sites/b.test.tar.gz"}
    run(ROOT, "get-content")
    for name in third:
        if ".tar" in name:
            unpack(f"{ARCHIVES}/{name}")
    arrived("/home/alice/shop", "/home/bob/public html")


@pytest.mark.slow
def test_a_fetch_that_was_stopped_goes_on_where_it_was(source, host):
    owned("/home/alice/shop/large", os.urandom(30 << 20), add_user("alice"))
    run(ROOT, "deploy-agent")
    dump = dumped(ROOT)
    stopped = Destination(ROOT, agent="linux").start("get-content")
    large = "content/sites/shop.a.test.tar.gz"
    wait_until(lambda: os.path.exists(f"{ARCHIVES}/{large}"), "the large archive to come")
    stopped.send(9)
    stopped.finish()
    before = set(files_below(ARCHIVES))
    assert os.path.exists(f"{ROOT.agent_dir}/{large}") and len(before) < len(dump.files()) + 1
    run(ROOT, "get-content")
    for name in dump.files():
        if ".tar" in name:
            unpack(f"{ARCHIVES}/{name}")
    arrived(*TREES, *FULL_TREES)
    assert read(f"{ARCHIVES}/dump.xml") == dump.text


@pytest.mark.slow
def test_a_dump_whose_caller_is_gone_ends_by_itself_and_counts_for_the_next(host):
    gate = Gate(2)
    with SourceHost(options=[f"SetEnv PATH={gate.path}"]):
        run(ROOT, "deploy-agent")
        gone = Destination(ROOT, agent="linux").start("dump-all")
        gate.wait()
        gone.send(9)
        gone.finish()
        # A second run must not disturb the first.
        outcome = Destination(ROOT, agent="linux").run("dump-all")
        cause, = Session().messages()[-1][3]
        assert outcome.code == 2 and "Another dump is still running" in cause[2], cause
        gate.open()
        pid = xml.etree.ElementTree.fromstring(read(f"{ROOT.agent_dir}/dumping-status.xml")).get("pid")
        wait_until(lambda: not os.path.exists(f"/proc/{pid}"), "the dump to end")
        kept = {name: os.stat(name).st_ino for name in archives_of(ROOT)}
        dump = dumped(ROOT)
        assert {name: os.stat(name).st_ino for name in archives_of(ROOT)} == kept
        assert dump.losses() == [] and len(kept) == len(dump.files())


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGKILL], ids=["Ctrl-C", "kill"])
def test_a_migration_waits_for_the_dump_of_an_interrupted_run(host, number):
    gate = Gate(2)
    given = [f"--session-path={Session().path}", f"--host={HOST}", "--login=root", f"--agent-parent={ROOT.home}",
             "--dump-all", "--keep-agent"]
    with SourceHost(options=[f"SetEnv PATH={gate.path}"]):
        stopped = start(*given)
        gate.wait()
        stopped.send(number)
        assert stopped.finish().code in (128 + number, -number)
        agent_dir = f"{ROOT.home}/{State().agent_directory}"
        with Terminal([MIGRATE, *given], {"QRV_PASSWORD": ROOT.password}, columns=200) as again:
            again.shows(f"dump: a dump that an earlier run started is still at work on {HOST}".encode())
            again.shows(b"\r\x1b[Kdump: content, 1 of ")
            made, = [os.path.join(parent, name) for parent, _, names in os.walk(f"{agent_dir}/content")
                     for name in names if re.search(r"\.gz$", name)]
            kept = os.open(made, os.O_RDONLY)
            gate.open()
            assert again.finish() == 0, again.shown
        # Packed once: what was fetched is this file itself, not another one of its name.
        fetched = made.replace(agent_dir, ARCHIVES)
        assert os.fstat(kept).st_nlink == 0
        with os.fdopen(kept, "rb") as archive:
            assert archive.read() == read(fetched)
    dump = Dump(Session().read("dump.xml"))
    assert set(files_below(ARCHIVES)) == {os.fsencode(name) for name in [*dump.files(), "dump.xml"]}


def archives_of(login):
    return [f"{login.agent_dir}/{name}" for name in entries(login)
            if name.startswith("content/") and os.path.isfile(f"{login.agent_dir}/{name}")]

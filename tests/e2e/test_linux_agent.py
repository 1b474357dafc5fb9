"""The agent "linux" through the tool, from a web host with real servers to the unpacked archives."""
import os
import re
import shutil
import signal
import subprocess
import xml.etree.ElementTree

import pytest

from linux_host import (DATABASE_SECRETS, FULL_TREES, STAGE, TREES, Dump, Gate, assert_same_tree, check_schema,
                        databases, entry, install_linux_agent, mysql_state, populate, populate_apache,
                        postgresql_state, restored, unpack, web_host)
from migrating import MIGRATE, State, start
from source_host import SourceHost
from source_services import add_user, owned
from terminal import Terminal
from tool import Destination, Session
from world import (HOST, LOGIN_KINDS, PLAIN, ROOT, SESSION, SUDOER, files_below, owner_and_mode, read, wait_until,
                   write)

# Configuration, certificate and key: what they lead to is taken along.
LINKS = ["/etc/nginx/sites-enabled/a.test", "/etc/apache2/sites-enabled/b.test.conf",
         "/etc/letsencrypt/live/a.test/privkey.pem", "/etc/letsencrypt/live/a.test/fullchain.pem"]
ARCHIVES = "/mnt/session/archives"


@pytest.fixture
def host():
    """A populated web host with its web servers running."""
    install_linux_agent()
    shutil.rmtree(STAGE, ignore_errors=True)
    with web_host() as found:
        populate(found)
        populate_apache(found)
        with found.nginx, found.apache:
            yield found


def run(login, action, *options, **how):
    """A run of the tool that must succeed without a word."""
    outcome = Destination(login, agent="linux").run(action, *options, **how)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), (action, outcome)


def dumped(login, action="dump-all", *options):
    """The document of a dump by an agent that is deployed already."""
    run(login, action, *options)
    text = Session().read("dump.xml")
    check_schema(text, "dump")
    check_schema(read(f"{login.agent_dir}/dumping-status.xml"), "dumping-status")
    return Dump(text)


def migrate(login=ROOT, *selection):
    """Deploys, dumps and fetches everything that is selected, and unpacks it."""
    run(login, "deploy-agent")
    dump = dumped(login, *selection)
    run(login, "get-content")
    assert Session().messages("transfer.result") == []
    assert set(files_below(ARCHIVES)) == {os.fsencode(name) for name in [*dump.files(), "dump.xml"]}
    assert read(f"{ARCHIVES}/dump.xml") == dump.text
    for name in dump.files():
        if ".tar" in name:
            unpack(f"{ARCHIVES}/{name}")
    return dump


def arrived(*folders):
    """Each directory is the same on the source host and in what was unpacked."""
    for folder in folders:
        assert_same_tree(folder, STAGE + folder)


def entries(login):
    """{path relative to the agent directory: (owner, group, mode)}"""
    return {os.path.relpath(os.path.join(parent, name), login.agent_dir): owner_and_mode(os.path.join(parent, name))
            for parent, folders, names in os.walk(login.agent_dir) for name in [*folders, *names]}


ROOTS = ["root login", "sudo by password", "sudo without password"]


@pytest.mark.parametrize("kind", ROOTS)
def test_every_archive_unpacked_is_what_was_on_the_source_host(source, host, kind):
    login = LOGIN_KINDS[kind]
    dump = migrate(login)
    assert dump.losses() == dump.problems("warning") == []
    assert dump.objects() == {"client": ["alice", "bob"], "domain": ["a.test", "b.test", "shop.a.test"],
                              "mailbox": ["bob", "info@a.test"]}
    arrived(*TREES, *FULL_TREES)
    for path in (*LINKS, *map(os.path.realpath, LINKS), "/var/spool/cron/crontabs/alice", "/etc/passwd"):
        assert entry(STAGE + path) == entry(path), path
    # Everything was taken away after it had arrived.
    assert not os.path.exists(f"{login.agent_dir}/dump.xml")
    assert [name for name in entries(login) if name.startswith("content/") and "." in name] == []
    run(login, "remove-agent")
    assert not os.path.exists(login.agent_dir)


INCREMENTS = {"SONDREL_DUMP_INCREMENTS": "yes"}


def fetched_pass():
    """A dump with increments, fetched; and what came with it."""
    before = {name: os.stat(f"{ARCHIVES}/{os.fsdecode(name)}").st_mtime_ns for name in files_below(ARCHIVES)}
    run(ROOT, "dump-all", environment=INCREMENTS)
    dump = Dump(Session().read("dump.xml"))
    check_schema(dump.text, "dump")
    run(ROOT, "get-content")
    assert Session().messages("transfer.result") == []
    came = {os.fsdecode(name) for name in files_below(ARCHIVES)
            if before.get(name) != os.stat(f"{ARCHIVES}/{os.fsdecode(name)}").st_mtime_ns}
    return dump, came


def unpack_in_order(dump):
    """What docs/linux-agent.md says of increments."""
    for content in dump.files().values():
        if ".tar" not in content.get("file"):
            continue
        unpack(f"{ARCHIVES}/{content.get('file')}")
        for increment in content.iter("increment"):
            for gone in increment.iter("gone"):
                subprocess.run(["sh", "-c", 'gzip -dc "$1" | xargs -0 -r rm -df --', "sh",
                                f"{ARCHIVES}/{gone.get('file')}"], cwd=STAGE, check=True)
            unpack(f"{ARCHIVES}/{increment.get('file')}")


def test_a_further_pass_fetches_what_has_changed_and_all_in_order_is_what_is_there(source, host):
    run(ROOT, "deploy-agent")
    # An increment must be worth it.
    write("/home/alice/a.test/large", os.urandom(400000))
    first, _ = fetched_pass()
    assert (first.root.get("version"), list(first.root.iter("increment"))) == ("2", [])
    again, came = fetched_pass()
    assert {name for name in came if name.endswith(".tar.gz")} == set()
    assert again.files().keys() == first.files().keys()
    write("/home/alice/a.test/note", b"changed")
    os.utime("/home/alice/a.test/note", (1, 1))
    write("/home/alice/a.test/new", b"new")
    fetched_pass()
    write("/home/alice/a.test/note", b"changed again")
    os.rename("/home/alice/a.test/new", "/home/alice/a.test/renamed")
    last, came = fetched_pass()
    site = last.find("domain", "a.test").find("content")
    assert (last.root.get("version"), len(site.findall("increment"))) == ("2.1", 2)
    file = site.get("file")
    assert came - {"dump.xml"} == {file.replace(".tar", "=.2.tar"), file.replace(".tar", "=.2.gone")}
    unpack_in_order(last)
    arrived(*TREES, *FULL_TREES)
    # Who does not ask gets whole archives.
    write("/home/alice/a.test/note", b"changed once more")
    whole = dumped(ROOT)
    assert list(whole.root.iter("increment")) == []
    run(ROOT, "get-content")
    shutil.rmtree(STAGE)
    unpack_in_order(whole)
    arrived(*TREES, *FULL_TREES)


def check_description(shop, wiki):
    """What a program that makes the databases anew reads besides the dumps."""
    assert (shop.get("encoding"), shop.get("collation")) == ("utf8mb4", "utf8mb4_general_ci")
    assert (wiki.get("owner"), wiki.get("encoding"), wiki.get("collation"), wiki.get("provider")) == (
        "bob", "UTF8", "C.UTF-8", "libc")
    assert shop.find("user").attrib == {
        "name": "shop", "host": "localhost", "kind": "login", "authentication": "mysql_native_password"}
    assert wiki.find("user").attrib == {"name": "bob", "kind": "login"}
    grant, = shop.findall("grant")
    assert grant.attrib == {"to": "shop", "host": "localhost", "on": "database", "object": "shop", "grantable": "no"}
    assert {"SELECT", "INSERT", "DROP"} < {right.text for right in grant.iter("right")}
    view, = [grant for grant in wiki.findall("grant") if grant.get("on") == "view"]
    assert view.attrib == {"to": "PUBLIC", "on": "view", "object": "public.titles", "grantable": "no"}
    assert {"name": "root", "host": "localhost", "kind": "procedure", "object": "many", "in-dump": "no"} in [
        definer.attrib for definer in shop.findall("definer")]
    assert [extension.get("name") for extension in wiki.findall("extension")] == ["plpgsql"]
    assert {"sql_mode", "lower_case_table_names"} < {setting.get("name") for setting in shop.findall("setting")}


@pytest.mark.slow
def test_restored_databases_are_what_they_were(source, host):
    with databases() as original:
        dump = migrate(SUDOER)
        assert dump.problems("error") == []
        shop, wiki = dump.find("database", "shop"), dump.find("database", "wiki")
        assert (shop.get("sure"), wiki.get("sure")) == ("certain", "likely")
        check_description(shop, wiki)
        parents = {child: parent for parent in dump.root.iter() for child in parent}
        assert parents[shop].get("name") == "shop.a.test"
        while parents[wiki].tag != "client":
            wiki = parents[wiki]
        assert parents[wiki].get("name") == "bob"
        with restored(ARCHIVES, dump.files()) as second:
            assert mysql_state(second.mysql, "shop") == mysql_state(original.mysql, "shop")
            assert postgresql_state(second.postgresql, "wiki") == postgresql_state(original.postgresql, "wiki")
            # The application finds its database with the password that it has.
            second.mysql.sql("SET PASSWORD FOR root@localhost = PASSWORD('x');")
            assert subprocess.run(
                ["mariadb", "--no-defaults", f"--socket={second.mysql.socket}", "-u", "shop",
                 "--password=shop-passphrase", "-N", "-e", "SELECT COUNT(*) FROM goods; CALL many();", "shop"],
                check=True, stdout=subprocess.PIPE).stdout.split() == [b"3", b"3"]


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
        is_folder = os.path.isdir(f"{login.agent_dir}/{path}")
        assert facts == (uid, gid, 0o700 if is_folder else 0o600), path
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
    # What every process of the dump was started with, from the kernel's own record of it.
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
    # Not even what was made of it is in the description.
    assert len(hashed) == 41 and hashed not in read(f"{ROOT.agent_dir}/dump.xml")
    assert b"shop" in read(seen)
    for secret in DATABASE_SECRETS:
        assert secret not in read(seen)


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


def test_a_dump_whose_caller_is_gone_ends_by_itself_and_counts_for_the_next(host):
    gate = Gate(2)
    with SourceHost(options=[f"SetEnv PATH={gate.path}"]):
        run(ROOT, "deploy-agent")
        gone = Destination(ROOT, agent="linux").start("dump-all")
        gate.wait()
        gone.send(9)
        gone.finish()
        # Nothing is disturbed meanwhile.
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
        agent_dir = f"{ROOT.home}/{State().agent_folder}"
        with Terminal([MIGRATE, *given], {"QRV_PASSWORD": ROOT.password}, columns=200) as again:
            again.shows(f"dump: a dump that an earlier run started is still at work on {HOST}".encode())
            again.shows(b"\r\x1b[Kdump: content, 1 of ")
            made, = [os.path.join(parent, name) for parent, _, names in os.walk(f"{agent_dir}/content")
                     for name in names if re.search(r"\.gz$", name)]
            kept = os.open(made, os.O_RDONLY)
            gate.open()
            assert again.finish() == 0, again.shown
        # Packed once: what was fetched is this file, and not another one of its name.
        fetched = made.replace(agent_dir, ARCHIVES)
        assert os.fstat(kept).st_nlink == 0
        with os.fdopen(kept, "rb") as archive:
            assert archive.read() == read(fetched)
    dump = Dump(Session().read("dump.xml"))
    assert set(files_below(ARCHIVES)) == {os.fsencode(name) for name in [*dump.files(), "dump.xml"]}


def archives_of(login):
    return [f"{login.agent_dir}/{name}" for name in entries(login)
            if name.startswith("content/") and os.path.isfile(f"{login.agent_dir}/{name}")]


def test_sites_that_share_a_root_are_packed_once(source, host):
    host.nginx.add_site("other.test", "/home/alice/shop")
    dump = migrate()
    other, shop = dump.find("domain", "other.test"), dump.find("domain", "shop.a.test")
    assert [shared.text for shared in other.iter("shares-root-with")] == ["shop.a.test"]
    assert [shared.text for shared in shop.iter("shares-root-with")] == ["other.test"]
    files = [sorted(content.get("file") for content in domain.iter("content")) for domain in (other, shop)]
    assert set(files[0]) & set(files[1])
    packed = [name for name in dump.files() if name.startswith("content/sites/")
              and b"home/alice/shop/index.php" in subprocess.run(
                  ["tar", "-tf", f"{ARCHIVES}/{name}"], check=True, stdout=subprocess.PIPE).stdout]
    assert len(packed) == 1
    arrived("/home/alice/shop")


def test_a_root_behind_symbolic_links_is_packed_with_them(source, host):
    alice = add_user("alice")
    owned("/srv/releases/7/index.html", "seven", alice)
    os.symlink("releases/7", "/srv/current")
    host.nginx.add_site("linked.test", "/srv/current")
    migrate()
    arrived("/srv/releases/7")
    assert os.readlink(f"{STAGE}/srv/current") == "releases/7"


def test_a_plain_login_migrates_what_it_can_see(source, host):
    uid, gid = PLAIN.ids
    os.makedirs("/home/plain")
    owned("/home/plain/www/index.html", "mine", (uid, gid))
    host.nginx.add_site("mine.test", "/home/plain/www")
    migrate(PLAIN, "dump-selected", "--domains=mine.test")
    arrived("/home/plain/www")

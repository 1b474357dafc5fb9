"""The agent "linux" through the tool, from a web host with real servers to the unpacked archives."""
import os
import shutil
import subprocess

import pytest

from archives import STAGE, entry, unpack
from linux_agent import Dump, check_schema
from linux_dumps import host  # noqa: F401  # pylint: disable=unused-import
from linux_dumps import ARCHIVES, arrived, dumped, entries, migrate, run
from linux_host import FULL_TREES, TREES, databases, mysql_state, postgresql_state, restored
from source_services import add_user, owned
from tool import Session
from world import LOGIN_KINDS, PLAIN, ROOT, SUDOER, files_below, write

# Links to configuration, certificate and key: their targets are packed, too.
LINKS = ["/etc/nginx/sites-enabled/a.test", "/etc/apache2/sites-enabled/b.test.conf",
         "/etc/letsencrypt/live/a.test/privkey.pem", "/etc/letsencrypt/live/a.test/fullchain.pem"]

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
    # Everything was removed from the source host after it had arrived.
    assert not os.path.exists(f"{login.agent_dir}/dump.xml")
    assert [name for name in entries(login) if name.startswith("content/") and "." in name] == []
    run(login, "remove-agent")
    assert not os.path.exists(login.agent_dir)


INCREMENTS = {"SONDREL_DUMP_INCREMENTS": "yes"}


def fetched_pass():
    """Makes a dump with increments and fetches it; returns what arrived."""
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
    """Unpacks increments as docs/linux-agent.md says."""
    for content in dump.files().values():
        if ".tar" not in content.get("file"):
            continue
        unpack(f"{ARCHIVES}/{content.get('file')}")
        for increment in content.iter("increment"):
            for gone in increment.iter("gone"):
                subprocess.run(["sh", "-c", 'gzip -dc "$1" | xargs -0 -r rm -df --', "sh",
                                f"{ARCHIVES}/{gone.get('file')}"], cwd=STAGE, check=True)
            unpack(f"{ARCHIVES}/{increment.get('file')}")


@pytest.mark.slow
def test_a_further_pass_fetches_what_has_changed_and_all_in_order_is_what_is_there(source, host):
    run(ROOT, "deploy-agent")
    # An increment must be much smaller than the archive, or none is made.
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
    # A caller that does not ask for increments gets whole archives.
    write("/home/alice/a.test/note", b"changed once more")
    whole = dumped(ROOT)
    assert list(whole.root.iter("increment")) == []
    run(ROOT, "get-content")
    shutil.rmtree(STAGE)
    unpack_in_order(whole)
    arrived(*TREES, *FULL_TREES)


def check_description(shop, wiki):
    """Checks what a program reads, besides the dumps, to create the databases."""
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
            # The application reaches its database with its old password.
            second.mysql.sql("SET PASSWORD FOR root@localhost = PASSWORD('x');")
            assert subprocess.run(
                ["mariadb", "--no-defaults", f"--socket={second.mysql.socket}", "-u", "shop",
                 "--password=shop-passphrase", "-N", "-e", "SELECT COUNT(*) FROM goods; CALL many();", "shop"],
                check=True, stdout=subprocess.PIPE).stdout.split() == [b"3", b"3"]


@pytest.mark.slow
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

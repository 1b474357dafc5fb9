"""What can interrupt an apply of all kinds: kills, full disks, servers that are down or refuse; and what follows.
And that a plan of all kinds asks no program twice.
"""
import collections
import contextlib
import os
import re
import subprocess
from pathlib import Path

import pytest
import server_dumps
from destination import own_etc, snapshot
from lxml import etree
from mail_session import MAIN_CF, MESSAGE, archive, maildir
from test_faults import killed_at
from test_files import directory, file
from test_pools import VERSION
from test_sites_answer import CONFIGURATION, PHP
from made_session import PROGRAM, made_of
from web_world import directive, ended, server, virtual_host

BOX = "/var/mail/vhosts/shop.test/info"
TABLE = "/var/spool/cron/crontabs/alice"
# Not compared: Postfix's queue, which it fills itself; caches of nginx, whose directory the first apply makes; logs.
PLACES = ("/etc", "/home", "/var/mail", "/var/spool/cron", "/var/lib/sondrel-restore")
DATABASES = {
    "mysql": ("CREATE DATABASE shop; CREATE TABLE shop.t (id int); INSERT INTO shop.t VALUES (1), (2);"
              "CREATE USER shop@localhost IDENTIFIED BY 'right'; GRANT ALL ON shop.* TO shop@localhost;",
              "DROP DATABASE shop; DROP USER shop@localhost",
              "SELECT schema_name FROM information_schema.schemata; SELECT user FROM mysql.user"),
    "postgresql": ("CREATE ROLE shop LOGIN PASSWORD 'right';\nCREATE DATABASE shop OWNER shop;\n\\connect shop\n"
                   "CREATE TABLE t (id int); INSERT INTO t VALUES (1), (2); ALTER TABLE t OWNER TO shop;",
                   "DROP DATABASE shop;\nDROP ROLE shop",
                   "SELECT datname FROM pg_database; SELECT rolname FROM pg_roles"),
}


@pytest.fixture(name="host")
def host_with_servers(session):
    """This host with its servers, and a session with an object of each kind but databases."""
    for name in ("nginx", "php", "postfix", "dovecot"):
        own_etc(name)
    for place in ("/var/spool/postfix", "/var/cache/nginx"):
        os.makedirs(place, exist_ok=True)
    Path("/etc/postfix/main.cf").write_text(MAIN_CF, encoding="ascii")
    session.add(CONFIGURATION.format("nginx", ""))
    # userdel looks at the processes of all private worlds, so no other test may have this number.
    alice = session.add_client("alice", 31000 + os.getpid() % 20000)
    session.add_account("post", 30050)
    alice.insert(0, etree.fromstring(session.content(
        "client", "content/clients/alice.tar", archive({TABLE: b"@daily x\n"}, uid=30001))))
    alice.insert(1, etree.fromstring(f'<cron when="@daily" file="{TABLE}">x</cron>'))
    session.add_site(alice, "shop.test", "/home/alice/shop", session.content(
        "site", "content/sites/shop.test.tar.gz", made_of(
            directory("./home/alice"), directory("./home/alice/shop"), file("./home/alice/shop/index.html"))))
    site = session.tree.find(".//site")
    site.insert(0, etree.fromstring(PHP))
    session.add('<block configuration="nginx1">' + server(
        directive("listen", "80"), directive("server_name", "shop.test"), directive("root", "/home/alice/shop"),
        directive("location", "~", r"\.php$", block=[directive("fastcgi_pass", "unix:/run/php/alice.sock")]),
        directive("access_log", "/x/a.log")) + "</block>", site)
    mailbox = session.content("mailbox", "content/mailboxes/info.tar", archive(
        maildir(BOX, new__1=MESSAGE), owner="post", uid=30050))
    session.tree.find(".//domain").append(etree.fromstring(
        '<alias from="sales@shop.test" file="/etc/postfix/virtual">info@shop.test</alias>'))
    session.tree.find(".//domain").append(etree.fromstring(
        f'<mailbox address="info@shop.test" path="{BOX}" format="maildir" owner="post">{mailbox}</mailbox>'))
    with ended("/run/nginx.pid", f"/run/php/php{VERSION}-fpm.pid"):
        yield session


@contextlib.contextmanager
def databases(session, *kinds, more=""):
    """Runs servers of these kinds, each with a database in the session; yields the servers by kind.

    `more` is additional SQL for the databases.
    """
    with contextlib.ExitStack() as stack:
        running = {kind: stack.enter_context(server_dumps.server(kind, f"/mnt/{kind}")) for kind in kinds}
        # The servers hide the settings of installed databases and of mail servers, unless the test has copied these.
        for kind, one in running.items():
            one.sql(DATABASES[kind][0])
            one.sql(more)
        for element in list(server_dumps.dump_all(session).values()):
            assert element.get("name") in ("shop", "postgres")
        for element in session.tree.xpath("//unassigned/database[@name='postgres']"):
            element.getparent().remove(element)
        for kind, one in running.items():
            one.sql(DATABASES[kind][1])
        yield running


def state(running=()):
    """What an undo must restore."""
    return snapshot(*PLACES), {kind: sorted(running[kind].sql(DATABASES[kind][2]).split()) for kind in running}


def assert_is(before, running=()):
    """Fails with the paths that differ from `before`."""
    now = state(running)
    differing = {path: (before[0].get(path), now[0].get(path)) for path in before[0].keys() | now[0].keys()
                 if before[0].get(path) != now[0].get(path)}
    assert not differing and before[1] == now[1]


def ends_well(session, before, running=()):
    """A rerun completes, all is as it was fetched, and undo restores the former state."""
    session.run("apply", check=0)
    session.run("verify")
    assert "0 changed" in session.run("apply", check=0).stdout
    session.run("undo", check=0)
    assert_is(before, running)


@pytest.mark.parametrize("call, numbers", [
    ("fdatasync", (5, 10, 12, 8, 5)), ("fork,vfork,clone,clone3", (8, 20, 32))])
def test_goes_on_after_kills_in_all_kinds_and_can_be_taken_back(host, call, numbers):
    """Kills at later and later points, between steps and while programs run."""
    with databases(host, "mysql", "postgresql") as running:
        before = state(running)
        hits = [killed_at(host, call, number) for number in numbers]
        assert sum(hits) >= len(numbers) - 1
        host.run("undo", check=0)
        assert_is(before, running)
        assert killed_at(host, call, numbers[-2])
        ends_well(host, before, running)


@pytest.mark.parametrize("places", [
    ("/etc/nginx/sites-available", "/etc/nginx/sites-enabled"),
    (f"/etc/php/{VERSION}/fpm/pool.d", "/var/lib/sondrel-restore"),
    ("/var/mail", "/var/spool/cron/crontabs")])
def test_tells_of_full_file_systems_of_each_kind_and_goes_on(host, places):
    """On full file systems no more files can be made."""
    host.write()
    for place in places:
        content = snapshot(place) if os.path.isdir(place) else {}
        files = {path: Path(path).read_bytes() for path in content if os.path.isfile(path)}
        os.makedirs(place, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755,nr_inodes=100,size=1m", "own", place], check=True)
        for path, text in files.items():
            Path(path).write_bytes(text)
        subprocess.run(["mount", "-o", f"remount,nr_inodes={len(os.listdir(place)) + 1}", place], check=True)
    before = state()
    done = host.run("apply", check=1)
    assert "No space left on device" in done.stderr and "Traceback" not in done.stderr
    for place in places:
        subprocess.run(["mount", "-o", "remount,nr_inodes=1000", place], check=True)
    ends_well(host, before)


# Rows that do not fit into the room that is left for the server's data.
ROWS = ("USE shop; CREATE TABLE big (id int, t text);"
        " INSERT INTO big SELECT seq, repeat('x', 4000) FROM seq_1_to_4000;")


# Tables without rows: comparing numbers of rows does not show that they are missing.
TABLES = "USE shop; " + "".join(f"CREATE TABLE t{number} (id int);" for number in range(60))


@pytest.mark.parametrize("kind, size, room, more", [
    ("postgresql", 150, 2, ""), pytest.param("mysql", 250, 9, ROWS, id="rows"),
    pytest.param("mysql", 250, 3, TABLES, id="tables")])
def test_tells_of_a_full_disk_of_a_database_server_and_goes_on(host, kind, size, room, more):
    """`size` and `room` are in MiB: those of its file system, and what is left free there."""
    place = f"/mnt/{kind}"
    os.makedirs(place)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}m,mode=755", "own", place], check=True)
    with databases(host, kind, more=more) as running:
        before = state(running)
        with open(f"{place}/ballast", "wb") as ballast:
            about = os.statvfs(place)
            ballast.write(bytes(about.f_bavail * about.f_frsize - (room << 20)))
        done = host.run("apply", check=1)
        assert f"{kind}:shop" in done.stderr and "No space left on device" in done.stderr
        os.unlink(f"{place}/ballast")
        ends_well(host, before, running)


# More than the room for the server's log.
LOG = "\\connect shop\nCREATE TABLE big AS SELECT g, repeat('x', 1000) AS t FROM generate_series(1, 30000) g;\n"


def test_names_the_room_of_a_postgresql_that_ends_without_room_for_its_log_and_goes_on(host):
    """The server ends, or breaks all connections off, and can say nothing about it."""
    with databases(host, "postgresql", more=LOG) as running:
        before, server = state(running), running["postgresql"]
        server.stop()
        owner = os.stat(server.data).st_uid
        # Leaves one file of the log, of 16 MiB.
        subprocess.run([f"{server.programs}/pg_resetwal", server.data], check=True, user=owner, cwd="/")
        log = f"{server.data}/pg_wal"
        os.rename(log, f"{log}.before")
        os.mkdir(log)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size=24m,mode=700,uid={owner}", "own", log], check=True)
        subprocess.run(["cp", "-a", f"{log}.before/.", log], check=True)
        server.start()
        done = host.run("apply", check=1)
        assert "failed: postgresql:shop: " in done.stderr and "Traceback" not in done.stderr
        assert re.search(rf"the file system of {log} has [0-9,]+ bytes free, .*: make room there", done.stderr)
        subprocess.run(["mount", "-o", "remount,size=500m", log], check=True)
        server.stop()
        server.start()
        ends_well(host, before, running)


REFUSALS = {
    "/etc/nginx/conf.d/broken.conf": "nonsense;",
    f"/etc/php/{VERSION}/fpm/pool.d/broken.conf": "[broken]\nnonsense = 1\n",
    "/etc/dovecot/conf.d/00-broken.conf": "nonsense { nonsense\n",
    "/etc/postfix/main.cf": MAIN_CF + "queue_directory = /dev/null\n",
}


def test_names_each_server_whose_own_settings_are_refused_and_goes_on(host):
    """Settings that were broken before an apply stay as they are; the other kinds are made."""
    before = state()
    was = {path: Path(path).read_text(encoding="utf-8") if os.path.exists(path) else None for path in REFUSALS}
    for path, text in REFUSALS.items():
        Path(path).write_text(text, encoding="utf-8")
    refused = host.run("apply", check=3)
    assert "serves /home/alice/shop is not known: nginx refuses" in refused.stdout
    done = host.run("apply", "--replace=files:clients/alice", "--replace=files:sites/shop.test", check=1)
    assert "Traceback" not in done.stderr
    assert os.path.exists("/home/alice/shop/index.html") and os.path.exists(TABLE)
    assert not os.path.lexists("/etc/nginx/sites-enabled/shop.test.conf")
    for part in ("pool", "mail"):
        assert f"failed: {part}" in done.stderr, done.stderr
    for path, text in was.items():
        os.unlink(path) if text is None else Path(path).write_text(text, encoding="utf-8")
    ends_well(host, before)


def test_names_servers_that_are_down_and_goes_on_when_they_are_up(host):
    with databases(host, "mysql", "postgresql") as running:
        before = state(running)
        for one in running.values():
            one.stop()
        done = host.run("apply", check=1)
        assert "mysql:shop: No MySQL or MariaDB server answers here" in done.stderr
        assert "postgresql:shop: No PostgreSQL server answers here" in done.stderr
        assert os.path.exists("/home/alice/shop/index.html")
        for one in running.values():
            one.start()
        ends_well(host, before, running)


def add_blog(session):
    """Adds what several kinds ask the same about: a site of Apache with a pool, a locale, an application and mail."""
    session.tree.find("client").addprevious(etree.fromstring(CONFIGURATION.format("apache", "")))
    session.add('<server><package name="dpkg" version="1.0" manager="dpkg" use="runtime"/>'
                '<package name="no-server" version="1.0" manager="dpkg" use="runtime"/></server>')
    session.add_site(session.tree.find("client"), "blog.test", "/home/alice/blog", session.content(
        "site", "content/sites/blog.test.tar.gz", made_of(directory("./home/alice/blog"))))
    domain = session.tree.find(".//domain[@name='blog.test']")
    domain.append(etree.fromstring('<alias from="me@blog.test" file="/etc/postfix/virtual">info@shop.test</alias>'))
    site = domain.find("site")
    site.set("server", "apache")
    pools = session.tree.findall(".//php")
    site.insert(0, etree.fromstring(PHP.replace('pool="alice"', 'pool="blog" extensions="core curl"').replace(
        "</php>", '<env name="LANG">de_DE.UTF-8</env></php>')))
    pools[0].set("extensions", "core gd")
    site.find("packed").addprevious(etree.fromstring(
        '<package name="no-application" version="1" architecture="all" manager="dpkg" because="x" changed="0"/>'))
    session.add('<block configuration="apache1">' + virtual_host(
        directive("servername", "blog.test"), directive("documentroot", "/home/alice/blog"), at="*:8080") + "</block>",
        site)


def started_by(command):
    """How often a command starts each program itself, by the program's arguments."""
    done = subprocess.run(["strace", "-ff", "-qq", "-s", "300", "-o", "/mnt/trace", "-e",
                           "trace=execve,fork,vfork,clone,clone3", *command], check=False, capture_output=True)
    assert done.returncode in (0, 3), done.stderr
    traces = {path.suffix[1:]: path.read_text(encoding="utf-8") for path in Path("/mnt").glob("trace.*")}
    own = next(text for text in traces.values() if text.startswith(f'execve("{command[0]}"'))
    children = re.findall(r"^(?:v?fork|clone3?)\(.* = ([0-9]+)$", own, re.MULTILINE)
    return collections.Counter(found[1] for child in children if (found := re.search(
        r"^execve\([^[]*(\[.*\]), .* = 0$", traces[child], re.MULTILINE)))


def test_a_plan_asks_no_program_the_same_twice(host):
    own_etc("apache2")
    for place in ("/var/log/apache2", "/run/apache2"):
        os.makedirs(place, exist_ok=True)
    with open("/etc/postfix/main.cf", "a", encoding="ascii") as settings:
        settings.write("relay_domains = inline:{other.test=x}\n")
    add_blog(host)
    with databases(host, "postgresql"):
        host.write()
        asked = started_by([PROGRAM, "plan", host.directory])
    for program in ("nginx", "apache2ctl", "dpkg-query", "apt-cache", f"php-fpm{VERSION}", "ip", "locale", "postconf",
                    "postmap"):
        assert any(f'["{program}"' in each for each in asked), (program, asked)
    # psql is connected anew if it was idle for some seconds.
    assert {each: times for each, times in asked.items() if times > 1 and "psql" not in each} == {}

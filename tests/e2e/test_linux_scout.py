"""The scout: what it reports about a web host, by itself and through the tool."""
import contextlib
import os
import resource
import subprocess
import xml.etree.ElementTree

import pytest

import snapshot
from archives import described
from linux_agent import check_schema, install_linux_agent, without_perl_modules
from linux_host import databases, many_sites, populate, populate_apache, web_host
from snapshot import own_directories  # noqa: F401  a fixture
from source_services import DIRECTORIES, add_user, fill_root
from tool import Destination, Session
from world import DTM, PLAIN, SESSION, write


@pytest.fixture
def host():
    install_linux_agent()
    with web_host() as found:
        yield found


def look(user=0, environment=None):
    """Runs the scout as the tool runs it; returns its document."""
    with open(f"{DTM}/scout.pl", "rb") as script:
        result = subprocess.run(
            ["perl"], stdin=script, capture_output=True, cwd="/", user=user, group=user, extra_groups=[], check=False,
            env={"PATH": "/usr/bin:/bin", **(environment or {})})
    assert (result.returncode, result.stderr) == (0, b""), result
    return checked(result.stdout)


@contextlib.contextmanager
def less_than_five_seconds():
    """Checks the processor time, which is what the scout takes on an idle host."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    yield
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime < 5


def checked(text):
    check_schema(text, "scout-result")
    return xml.etree.ElementTree.fromstring(text)


def findings(document, severity):
    return {finding.get("object"): finding.text for finding in document.iter("finding")
            if finding.get("severity") == severity}


def counts(document):
    """{client: numbers of sites, databases, mailboxes, cron jobs}"""
    return {client.get("name"): tuple(int(client.get(kind)) for kind in ("sites", "databases", "mailboxes", "cron"))
            for client in document.iter("client")}


def test_tells_what_there_is(source, host, login):
    populate(host)
    populate_apache(host)
    outcome = Destination(login).run("send-scout")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    document = checked(Session().read("scout-result.xml"))
    servers = {server.get("name"): server.get("sites") for server in document.iter("web-server")}
    assert servers == {"nginx": "2", "apache": "1"}
    is_root = login is not PLAIN
    assert document.find("login").get("uid") == ("0" if is_root else "20001")
    if is_root:
        assert counts(document) == {"alice": (2, 0, 1, 1), "bob": (1, 0, 1, 0)}
        # The settings of that site name a database, and the host has no database server.
        assert set(findings(document, "error")) == {"shop.a.test"}
        assert findings(document, "warning") == {}
        assert document.find("needs").get("complete") == "yes"


@pytest.mark.release_only
def test_counts_a_mailbox_that_is_a_single_file(host):
    populate(host)
    write("/var/mail/alice", "From x\n" * 1000, 0o600, add_user("alice"))
    document = look()
    assert "files" not in findings(document, "error")
    needs = document.find("needs")
    assert needs.get("complete") == "yes"
    os.unlink("/var/mail/alice")
    assert int(needs.get("file-bytes")) - int(look().find("needs").get("file-bytes")) == 8192


@pytest.mark.release_only
def test_tells_what_it_cannot_see_without_root(host):
    populate(host)
    document = look(user=PLAIN.ids[0])
    assert counts(document) == {"alice": (2, 0, 0, 0)}
    assert "is not root" in findings(document, "warning")["plain"]
    errors = findings(document, "error")
    assert errors["/var/mail/vhosts"] == "Cannot be read, mailboxes in it are not found: Permission denied"
    assert errors["/var/spool/cron/crontabs"].startswith("Cannot be read: Permission denied;")
    assert "privkey.pem may not be read" in errors["a.test"]
    assert errors["files"] == "1 of the directories cannot be read by this login: migrate as root, or with sudo"
    assert document.find("needs").get("complete") == "no"


@pytest.mark.release_only
def test_names_databases_and_whose_they_are(host):
    populate(host)
    populate_apache(host)
    with databases():
        document = look()
    found = {(server.get("product"), database.get("name")): database.get("client")
             for server in document.iter("database-server") for database in server}
    assert found == {("MariaDB", "shop"): "alice", ("PostgreSQL", "wiki"): "bob"}
    assert all(int(database.get("bytes")) > 0 for database in document.iter("database"))
    assert int(document.find("needs").get("database-bytes")) > 0
    assert {server.get("running") for server in document.iter("database-server")} == {"yes"}


@pytest.mark.release_only
def test_names_a_database_server_that_does_not_run(host):
    with databases() as servers:
        servers.mysql.kill()
        with less_than_five_seconds():
            document = look()
    assert {server.get("product"): server.get("running") for server in document.iter("database-server")} == {
        "MariaDB": "no", "PostgreSQL": "yes"}
    assert len(findings(document, "error")) == 1, findings(document, "error")


@pytest.mark.release_only
def test_says_of_an_empty_host_that_nothing_is_there(host):
    document = look()
    assert counts(document) == {}
    assert document.find("web-servers").get("sites") == document.find("mail").get("mailboxes") == "0"
    assert findings(document, "error") == {}


@pytest.mark.release_only
def test_names_a_configuration_that_is_broken_and_tells_the_rest(host):
    populate(host)
    host.nginx.enable("broken.test", "}\n")
    document = look()
    assert counts(document)["alice"][0] == 2
    assert "/etc/nginx/sites-enabled/broken.test" in findings(document, "error")


@pytest.mark.release_only
def test_finds_that_a_needed_program_is_missing(host):
    # No path leads to an executable tar any more.
    subprocess.run(["mount", "--bind", "/dev/null", "/usr/bin/tar"], check=True)
    try:
        assert findings(look(), "error") == {"tar": "No archives can be made without tar: install it"}
    finally:
        subprocess.run(["umount", "/usr/bin/tar"], check=True)


@pytest.mark.release_only
def test_finds_that_modules_of_perl_are_missing_that_a_dump_needs(host):
    populate(host)
    with without_perl_modules("Digest::MD5"):
        document = look()
    found = sorted(finding.text for finding in document.iter("finding") if finding.get("object") == "perl")
    assert [text.partition(",")[0] for text in found] == [
        f"No dump can be made: perl lacks {module}" for module in ("Digest::MD5", "Digest::SHA")]
    assert all("install the package perl-core" in text for text in found)
    assert counts(document)["alice"][0] == 2


@pytest.mark.release_only
def test_says_which_modules_of_perl_it_cannot_do_without(host):
    with without_perl_modules("Time::HiRes"), open(f"{DTM}/scout.pl", "rb") as script:
        result = subprocess.run(["perl"], stdin=script, capture_output=True, check=False)
    assert (result.returncode, result.stdout) == (1, b"")
    assert result.stderr.startswith(b"perl lacks Time::HiRes, ") and b"perl-core" in result.stderr


@pytest.mark.release_only
def test_warns_of_sites_that_belong_to_a_service(host):
    fill_root("/var/www/one", (33, 33))
    host.nginx.add_site("one.test", "/var/www/one")
    document = look()
    assert counts(document) == {"www-data": (1, 0, 0, 0)}
    assert "1 of the sites" in findings(document, "warning")["www-data"]


@pytest.mark.release_only
def test_changes_nothing_on_the_host(host, own_directories):  # noqa: F811
    populate(host)
    populate_apache(host)
    before = [described(directory) for directory in DIRECTORIES]
    with snapshot.unchanged(SESSION):
        look()
        look(user=PLAIN.ids[0])
    assert [described(directory) for directory in DIRECTORIES] == before


@pytest.mark.slow
@pytest.mark.release_only
def test_takes_less_than_five_seconds_for_a_thousand_sites(host):
    many_sites(host, 1000, 200)
    with less_than_five_seconds():
        document = look()
    assert document.find("web-servers").get("sites") == "1000"
    assert len(counts(document)) == 200 and set(counts(document).values()) == {(5, 0, 0, 0)}


@pytest.mark.slow
@pytest.mark.release_only
def test_stops_counting_the_files_of_a_large_host(host):
    populate(host)
    for number in range(300):
        directory = f"/home/alice/shop/{number}"
        os.mkdir(directory)
        for name in range(1000):
            os.mkdir(f"{directory}/{name}")
    with less_than_five_seconds():
        document = look()
    assert document.find("needs").get("complete") == "no"
    assert "more files than could be counted" in findings(document, "info")["space"]

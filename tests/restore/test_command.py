"""The command line: exit codes, documents, decisions, packages, the lock, and descriptions that are refused."""
import contextlib
import fcntl
import json
import os
import pwd
import subprocess

import jsonschema
import pytest
from conftest import TOP
from destination import snapshot
from lxml import etree
from made_session import MadeSession, made_of
from sondrel_restore.kind import Item, State
from sondrel_restore.space import missing_space
from test_files import directory, file, site, usual


@pytest.fixture
def session():
    """A session directory whose sondrel-restore is started as callers start it."""
    return MadeSession("/mnt/session")


def document(session, command, name, check):
    output = json.loads(session.run(command, "--format=json", check=check).stdout)
    with open(f"{TOP}/docs/formats/restore-{name}.schema.json", encoding="utf-8") as schema:
        jsonschema.validate(output, json.load(schema))
    return output


def test_tells_programs_what_it_would_do_and_what_differs(session):
    site(session, *usual())
    plan = document(session, "plan", "plan", 0)
    assert plan["ready"]
    assert [each["object"] for each in plan["objects"]] == ["group:alice", "account:alice", "files:sites/shop.test"]
    assert {each["state"] for each in plan["objects"]} == {"make"}
    assert plan["objects"][2]["domains"] == ["shop.test"]
    assert not document(session, "verify", "findings", 1)["same"]
    session.run("apply", check=0)
    assert document(session, "verify", "findings", 0)["same"]
    assert {each["state"] for each in document(session, "plan", "plan", 0)["objects"]} == {"same"}


def test_takes_back_what_is_selected(session):
    site(session, *usual())
    content = session.content("site", "content/sites/other.test.tar.gz", made_of(
        directory("./home/alice/other"), file("./home/alice/other/index.php", b"other")))
    session.add_site(session.tree.find("client"), "other.test", "/home/alice/other", content)
    session.run("apply", check=0)
    session.run("undo", "--domains=shop.test", check=0)
    assert os.path.exists("/home/alice/other/index.php") and not os.path.exists("/home/alice/shop/index.php")
    assert pwd.getpwnam("alice").pw_uid == 30001
    session.run("undo", check=0)
    assert not os.path.exists("/home/alice/other")


def test_ends_with_a_failure_that_says_what_cannot_be_made(session):
    """Such as files of an account that is not restored."""
    site(session, *usual())
    session.accounts.clear()
    done = session.run("apply", check=1)
    assert "impossible: files:sites/shop.test: it belongs to alice" in done.stderr
    assert "not possible here" in done.stdout
    session.run("apply", "--skip=files:sites/shop.test", check=0)


def test_plan_and_verify_change_nothing(session):
    site(session, *usual())
    session.write()
    before = snapshot(), sorted(os.listdir(session.directory))
    session.run("plan")
    session.run("verify")
    assert (snapshot(), sorted(os.listdir(session.directory))) == before


def test_asks_whose_an_account_is_that_has_another_number(session):
    subprocess.run(["useradd", "--uid", "31000", "--user-group", "--no-create-home", "alice"], check=True)
    site(session, *usual())
    plan = session.run("plan", check=3)
    assert "--map-account=alice:alice" in plan.stdout and "30001" in plan.stdout
    session.run("apply", "--map-account=alice:alice2", check=0)
    assert os.stat("/home/alice/shop/index.php").st_uid == pwd.getpwnam("alice2").pw_uid
    assert pwd.getpwnam("alice").pw_uid == 31000
    session.run("undo", "--map-account=alice:alice2", check=0)
    session.run("apply", "--map-account=alice:alice", check=0)
    assert os.stat("/home/alice/shop/index.php").st_uid == 31000


def test_locks_passwords_and_gives_shells_of_this_host_only(session):
    site(session, *usual())
    session.tree.find(".//account").set("shell", "/home/alice/shell")
    assert "/usr/sbin/nologin" in session.run("apply", check=0).stdout
    assert pwd.getpwnam("alice").pw_shell == "/usr/sbin/nologin"
    with open("/etc/shadow", encoding="ascii") as shadow:
        assert [line.split(":")[1] for line in shadow if line.startswith("alice:")] == ["!"]


@pytest.mark.parametrize("group", ["sudo", "shadow", "disk", "docker"])
def test_gives_nobody_a_group_of_the_system(session, group):
    with contextlib.suppress(subprocess.CalledProcessError):
        subprocess.run(["groupadd", "--system", group], check=True, stderr=subprocess.DEVNULL)
    site(session, *usual())
    session.add(f'<group name="{group}" gid="30050"><member>alice</member></group>')
    session.tree.find(".//account").set("group", group)
    done = session.run("apply", check=0)
    assert group in done.stdout
    names = subprocess.run(["id", "-Gn", "alice"], check=True, capture_output=True, text=True).stdout.split()
    assert names == ["alice"]


@pytest.mark.parametrize("name", ["root", "daemon", "-alice", "a:b", "a\nb", "../x"])
def test_makes_no_account_by_such_a_name(session, name):
    session.add_account("x", 30001)
    session.tree.find(".//account").set("name", name)
    before = snapshot()
    session.run("apply", "--skip=group:x")
    assert snapshot() == before


@pytest.mark.parametrize("uid", [0, 33, 65534, 4294967295])
def test_gives_no_number_of_the_system(session, uid):
    alice = session.add_client("alice", 30001)
    session.add_site(alice, "shop.test", "/home/alice/shop", session.content(
        "site", "content/sites/shop.test.tar.gz", made_of(*usual())))
    account = session.tree.find(".//account")
    account.set("uid", str(uid))
    account.set("home", "/root")
    session.run("apply")
    with contextlib.suppress(KeyError):
        made = pwd.getpwnam("alice")
        assert 1000 <= made.pw_uid < 60000 and made.pw_dir == "/nonexistent"


def test_selects_by_domain_and_client(session):
    alice = session.add_client("alice", 30001)
    bob = session.add_client("bob", 30002)
    for client, name in ((alice, "a.test"), (alice, "b.test"), (bob, "c.test")):
        root = f"/home/{client.get('name')}/{name}"
        owner = {"uname": client.get("name"), "uid": int(client.get("uid"))}
        session.add_site(client, name, root, session.content("site", f"content/sites/{name}.tar.gz", made_of(
            directory(f".{root}", **owner), file(f".{root}/index.html", **owner))))
    session.run("apply", "--domains=b.test", check=0)
    assert os.listdir("/home/alice") == ["b.test"] and not os.path.exists("/home/bob")
    with pytest.raises(KeyError):
        pwd.getpwnam("bob")
    session.run("apply", "--clients=bob", check=0)
    assert os.listdir("/home/bob") == ["c.test"] and os.listdir("/home/alice") == ["b.test"]
    assert "no.test" in session.run("apply", "--domains=no.test", check=1).stderr


def test_refuses_decisions_about_what_there_is_not(session):
    site(session, *usual())
    assert "files:sites/other" in session.run("apply", "--skip=files:sites/other", check=1).stderr


def stub(name, text):
    """Makes a program that is found before the one of this host."""
    path = f"/usr/local/sbin/{name}"
    with open(path, "w", encoding="ascii") as out:
        out.write(f"#!/bin/sh\n{text}\n")
    os.chmod(path, 0o755)


def with_package(session, name):
    """A site whose application is a package. apt knows `shop-application` (web) and `sudo-everything` (admin)."""
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "own", "/usr/local/sbin"], check=True)
    stub("apt-cache", 'printf "Package: %s\\nSection: %s\\n\\n" shop-application web sudo-everything admin')
    stub("apt-get", 'echo "$@" >> /mnt/apt; touch /mnt/installed')
    stub("dpkg-query", 'test ! -e /mnt/installed || printf "ii \\tshop-application\\t1\\n"')
    site(session, *usual())
    packed = session.tree.find(".//site/packed")
    packed.addprevious(etree.fromstring(
        f'<package name="{name}" version="1" architecture="all" manager="dpkg" because="x" changed="0"/>'))


def test_installs_what_is_missing_only_when_told_to(session):
    with_package(session, "shop-application")
    assert "apt install shop-application" in session.run("plan", check=3).stdout
    session.run("plan", "--install", check=0)
    session.run("apply", check=3)
    assert not os.path.exists("/mnt/apt") and not os.path.exists("/home/alice")
    session.run("apply", "--install", check=0)
    with open("/mnt/apt", encoding="ascii") as said:
        assert said.read().endswith(" -- shop-application\n")


def test_does_not_count_on_installing_what_no_package_brings(session):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "own", "/home"], check=True)
    site(session, directory("./home/alice/shop"), file("./home/alice/shop/large", bytes(3 << 20)))
    session.run("plan", "--install", check=3)


def test_takes_fetched_files_from_another_directory(session):
    site(session, *usual())
    os.rename(f"{session.directory}/archives", "/mnt/fetched")
    session.run("apply", check=1)
    session.run("apply", "--archives=/mnt/fetched", check=0)
    assert os.path.exists("/home/alice/shop/index.php")
    os.chmod("/mnt/fetched", 0o777)
    assert "others than root" in session.run("plan", "--archives=/mnt/fetched", check=1).stderr


def test_takes_fetched_files_from_where_the_migration_put_them(session):
    site(session, *usual())
    os.rename(f"{session.directory}/archives", "/mnt/fetched")
    os.mkdir(f"{session.directory}/migrate", 0o700)
    with open(f"{session.directory}/migrate/state.xml", "w", encoding="ascii") as state:
        state.write('<sondrel-migration version="1"><setting name="dumps-dir">/mnt/fetched</setting>'
                    "</sondrel-migration>")
    session.run("apply", "--archives=/mnt/nothing", check=1)
    session.run("apply", check=0)
    assert os.path.exists("/home/alice/shop/index.php")
    session.run("verify", check=0)
    session.run("report", check=0)
    os.chmod(f"{session.directory}/migrate", 0o777)
    assert "others than root" in session.run("plan", check=1).stderr


@pytest.mark.parametrize("name", ["sudo-everything", "-o=x", "unknown-package", "/tmp/x.deb"])
def test_installs_no_package_that_is_no_application(session, name):
    with_package(session, name)
    session.run("apply", "--install", check=3)
    assert not os.path.exists("/mnt/apt")
    session.run("apply", "--install", f"--skip=package:{name}", check=0)
    assert not os.path.exists("/mnt/apt")


def test_says_before_that_there_is_no_room(session):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "own", "/home"], check=True)
    site(session, directory("./home/alice/shop"), file("./home/alice/shop/large", bytes(3 << 20)))
    assert "bytes free" in session.run("plan", check=3).stdout
    session.run("apply", check=3)
    assert os.listdir("/home") == []


def test_room_is_needed_for_all_that_is_new_on_a_file_system():
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "own", "/home"], check=True)

    def said(*spaces, state=State.MAKE, begun=""):
        items = [Item("mysql", str(number), state, "", space=space) for number, space in enumerate(spaces)]
        return [each.because for each in missing_space(items, lambda identifier: identifier == begun)]

    half = ("/home/missing/mysql", 600_000)
    assert not said(half) and not said(None) and not said(half, half, state=State.RENEW)
    assert said(half, half) == ["the file system of /home has 1,048,576 bytes free, and the restore needs 1,200,000"]
    assert not said(half, half, begun="mysql:1")


def test_lets_only_one_run_change_things(session):
    site(session, *usual())
    os.mkdir(f"{session.directory}/restore", 0o700)
    with open(f"{session.directory}/restore/lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        assert "Another sondrel-restore" in session.run("apply", check=1).stderr


@pytest.mark.parametrize("document_text", [
    '<!DOCTYPE dump [<!ENTITY x SYSTEM "file:///etc/hosts">]><dump>&x;</dump>',
    '<!DOCTYPE dump [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;">]><dump>&b;</dump>',
    "<dump/>", "<dump", "", '<other version="2" agent="linux"/>',
    '<dump version="3" agent="linux" created="2026-11-21T11:04:38Z" scope="all" content="yes"/>',
    '<dump version="2" agent="linux" created="2026-11-21T11:04:38Z" scope="all" content="yes"><accounts/>'
    '<unassigned><mailbox address="a" path="b" format="c"/></unassigned><problems/></dump>'])
def test_refuses_a_description_that_is_none(document_text):
    made = MadeSession("/mnt/refused")
    made.write = lambda: None
    with open("/mnt/refused/dump.xml", "w", encoding="ascii") as out:
        out.write(document_text)
    done = made.run("plan", check=1)
    assert "dump.xml" in done.stderr and "Traceback" not in done.stderr


def test_names_a_path_here_that_cannot_be_read(session):
    os.symlink("/srv/shop", "/srv/shop")
    site(session, directory("./srv/shop"), root="/srv/shop")
    done = session.run("plan", check=1)
    assert done.stderr == "sondrel-restore: /srv/shop: Too many levels of symbolic links\n"


def test_refuses_a_session_that_others_may_write(session):
    site(session, *usual())
    os.chmod(session.directory, 0o770)
    assert "cannot be trusted" in session.run("apply", check=1).stderr


def test_writes_no_control_characters_of_the_source_host(session):
    site(session, *usual())
    session.tree.find(".//domain").set("name", "a\u009b31mb\u202e.test")
    session.tree.find(".//account").set("home", "/home/\u009b2J")
    done = session.run("plan")
    assert not set(done.stdout + done.stderr) & {"\u009b", "\u202e", "\x1b"}

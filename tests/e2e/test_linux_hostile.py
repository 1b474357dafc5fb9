"""The agent "linux" as root, on a host where the owner of a site wants it to read or write elsewhere."""
import os
import shutil
import subprocess
import time

import pytest

from archives import STAGE, unpack
from linux_agent import Agent, Gate, check_schema
from linux_fixtures import agent  # noqa: F401  a fixture
from linux_host import WORDPRESS_LIKE, databases, populate, web_host
from source_services import add_user, fill_root, owned
from world import LOGINS, read, write

pytestmark = pytest.mark.release_only

SECRET = b"only for root and bob"


@pytest.fixture
def host():
    """A host on which alice attacks: she wants files of root and bob."""
    shutil.rmtree(STAGE, ignore_errors=True)
    with web_host() as found:
        populate(found)
        bob = add_user("bob")
        fill_root("/home/bob/www", bob, {"index.html": "bob", "private/config.php": SECRET.decode()})
        os.chmod("/home/bob", 0o700)
        write("/srv/keys/key.pem", SECRET, 0o600)
        os.chmod("/srv/keys", 0o700)
        yield found


def unpacked(agent):
    shutil.rmtree(STAGE, ignore_errors=True)
    for name in agent.content():
        if ".tar" in name:
            unpack(f"{agent.directory}/{name}")
    return STAGE


def files_with_secret():
    """Paths among the unpacked files that have the secret."""
    result = subprocess.run(["grep", "-rlF", SECRET.decode(), STAGE], stdout=subprocess.PIPE, check=False)
    return sorted(os.path.relpath(path, STAGE) for path in result.stdout.decode().splitlines())


def as_alice(agent, *steps):
    """What a dump of alice's site has, after these shell commands of hers."""
    uid, gid = add_user("alice")
    subprocess.run(["sh", "-ec", "\n".join(steps)], check=True, user=uid, group=gid, extra_groups=[], cwd="/home/alice")
    dump = agent.dump("--dump-clients=-", given=b"alice")
    check_schema(dump.text, "dump")
    assert SECRET not in dump.text
    unpacked(agent)
    return dump


LINKS = {
    "document root to a directory of root": ["mv shop kept", "ln -s /srv/keys shop"],
    "document root to a directory of another client": ["mv shop kept", "ln -s /home/bob/www shop"],
    "document root to everything": ["mv shop kept", "ln -s / shop"],
    "document root over a link of her own": ["mv shop kept", "ln -s /srv/keys other", "ln -s other shop"],
    "in the document root": ["ln -s /srv/keys shop/keys", "ln -s /home/bob/www/private/config.php shop/page"],
    "settings of PHP": ["ln -s /srv/keys/key.pem shop/.user.ini", "ln -s /srv/keys/key.pem shop/.htaccess"],
    "settings of an application": ["ln -sf /home/bob/www/private/config.php shop/wp-config.php"],
    "mailbox": ["ln -s /home/bob/www Maildir"],
}


@pytest.mark.parametrize("steps", LINKS.values(), ids=LINKS.keys())
def test_follows_no_link_of_an_owner_to_what_is_others(agent, steps):
    as_alice(agent, *steps)
    assert files_with_secret() == []


@pytest.mark.parametrize("link, target", [("shop", "/srv/keys"), ("shop", "/home/bob/www")],
                         ids=["to a directory of root", "to a directory of another client"])
def test_names_a_link_that_it_does_not_follow(agent, link, target):
    dump = as_alice(agent, f"mv {link} kept", f"ln -s {target} {link}")
    errors = dict(dump.problems("error"))
    assert f"Is a symbolic link of alice to {target}" in errors[f"/home/alice/{link}"], errors
    assert dump.find("domain", "a.test") is not None


def test_follows_links_of_an_owner_to_what_is_his_own(agent):
    dump = as_alice(agent, "mv shop kept", "ln -s kept shop")
    assert dump.losses() == []
    assert os.readlink(f"{STAGE}/home/alice/shop") == "kept"
    assert read(f"{STAGE}/home/alice/kept/index.php") == b"<?php"


@pytest.mark.parametrize("path", ["/home/alice/htpasswd", "/home/alice/tls.key"], ids=["passwords", "key"])
def test_takes_no_file_of_others_in_the_place_of_one_that_a_site_needs(host, agent, path):
    pem = "/home/alice/tls.pem"
    host.nginx.add_site("more.test", "/home/alice/shop", more=f"""
    listen 8443 ssl; ssl_certificate {pem}; ssl_certificate_key /home/alice/tls.key;
    auth_basic x; auth_basic_user_file /home/alice/htpasswd;
""")
    dump = as_alice(agent, "touch tls.pem tls.key htpasswd", f"ln -sf /srv/keys/key.pem {path}")
    assert files_with_secret() == []
    assert any(path in text for name, text in dump.problems("error") if name == "more.test")


@pytest.mark.parametrize("steps", [
    ["mv /home/alice/app /home/alice/kept", "ln -s /srv /home/alice/app"],
    ["mv /home/alice/app/keys/key.pem /home/alice/kept", "ln -s /srv/keys/key.pem /home/alice/app/keys/key.pem"],
    ["mv /home/alice/app/keys/in /home/alice/kept", "ln -s /srv/keys /home/alice/app/keys/in"],
], ids=["a directory above the root", "a file", "a directory"])
def test_reads_nothing_of_others_when_links_are_put_in_the_way_while_it_packs(host, steps):
    alice = add_user("alice")
    fill_root("/home/alice/app/keys", alice, {"key.pem": "own", "in/key.pem": "own", "index.html": "x"})
    host.nginx.add_site("app.test", "/home/alice/app/keys")
    deployed = Agent()
    try:
        gate = Gate(1)
        process = deployed.start("--migration-mode", "--dump-domains=-", given=b"app.test",
                                 environment={"PATH": gate.path})
        gate.wait()
        # tar has not started yet, and the agent has inspected everything that it packs.
        subprocess.run(["sh", "-ec", "\n".join(steps)], check=True, user=alice[0], group=alice[1], extra_groups=[])
        gate.open()
        _, stderr = process.communicate(timeout=60)
        assert (process.returncode, stderr) == (0, b"")
        unpacked(deployed)
    finally:
        deployed.end()
    assert os.path.lexists(f"{STAGE}/etc/nginx/sites-available/app.test")
    assert files_with_secret() == []


def test_a_further_name_of_a_file_that_its_owner_alone_may_read_is_left_out(agent):
    # On some kernels any account can make a hard link to a file of another. Here root makes it, on the file system
    # of the homes.
    write("/home/root only/key", SECRET, 0o600)
    os.chmod("/home/root only", 0o700)
    os.link("/home/root only/key", "/home/alice/shop/mine")
    dump = as_alice(agent)
    assert files_with_secret() == []
    assert any("further name" in text for name, text in dump.problems("error")), dump.problems()


def test_neither_pipes_nor_devices_nor_odd_names_hold_it_up(agent):
    alice = add_user("alice")
    os.mknod("/home/alice/shop/device", 0o600 | 0o020000, os.makedev(1, 5))
    os.chown("/home/alice/shop/device", *alice)
    started = time.monotonic()
    dump = as_alice(agent, "mkfifo shop/pipe shop/.user.ini shop/.htaccess shop/.env shop/configuration.php Maildir",
                    "rm shop/wp-config.php", "ln -s device shop/wp-config.php",
                    "mkdir \"shop/new\nline\" 'shop/-rf' 'shop/--checkpoint-action=exec=false' 'shop/$(false)'",
                    "touch \"shop/new\nline/tar: .: Cannot stat\nfind: x\"")
    assert time.monotonic() - started < 30
    assert dump.losses() == []
    assert os.path.exists(f"{STAGE}/home/alice/shop/new\nline/tar: .: Cannot stat\nfind: x")
    assert os.path.exists(f"{STAGE}/home/alice/shop/--checkpoint-action=exec=false")


@pytest.mark.slow
def test_settings_of_an_owner_give_him_no_database_of_others(host, agent):
    fill_root("/home/bob/wiki", add_user("bob"))
    host.nginx.add_site("wiki.test", "/home/bob/wiki")
    alice = add_user("alice")
    with databases() as servers:
        servers.mysql.sql("CREATE DATABASE others; CREATE USER 'bob'@'localhost' IDENTIFIED BY 'bobs';"
                          "GRANT ALL ON others.* TO 'bob'@'localhost';")
        # A guessed password, the database of another account, and a database login of his own.
        for number, (name, user, word) in enumerate([("others", "bob", "guessed"), ("others", "shop", "shop-passphrase"),
                                                     ("mysql", "root", "")]):
            owned(f"/home/alice/shop/{number}/wp-config.php", WORDPRESS_LIKE.replace("'shop' ", f"'{name}' ", 1).replace(
                "'shop' ", f"'{user}' ", 1).replace("shop-passphrase", word), alice)
        owned("/home/alice/.my.cnf", "[client]\nhost=192.0.2.1\nuser=bob\n[mysqldump]\nresult-file=/srv/written\n", alice)
        dump = agent.dump("--dump-all")
    owner = {database.get("name"): client.get("name") for client in dump.root.iter("client")
             for database in client.iter("database")}
    assert owner == {"shop": "alice", "others": "bob", "wiki": "bob"}
    assert not os.path.exists("/srv/written")


def test_an_endless_configuration_file_is_named_and_the_rest_is_dumped(host, agent):
    host.nginx.enable("large.test", "# " + "x" * (17 << 20))
    os.symlink("/dev/zero", "/etc/nginx/sites-enabled/zero")
    alice = add_user("alice")
    owned("/home/alice/shop/.user.ini", "memory_limit=1M\n" * 100_000, alice)
    owned("/home/alice/shop/more/wp-config.php", "<?php\n" + "<<<A\n" * 100_000, alice)
    dump = agent.dump("--dump-all")
    assert {"a.test", "shop.a.test"} <= set(dump.names("domain"))
    named = " ".join(f"{name} {text}" for name, text in dump.problems())
    for path in ("sites-enabled/large.test", "sites-enabled/zero", "more/wp-config.php"):
        assert path in named, named


def test_writes_through_no_link_in_a_directory_of_another_account():
    with web_host() as host:
        populate(host)
        alice = add_user("alice")
        deployed = Agent("/srv/agent", owner=LOGINS[0].ids)
        os.chmod(deployed.directory, 0o777)
        for name in ("dumping-status.xml", "dumping-status.xml.new", "dump.xml", "dump.xml.new", "state", "lock", "key"):
            subprocess.run(["ln", "-s", "/srv/written", f"{deployed.directory}/{name}"], check=True, user=alice[0],
                           group=alice[1], extra_groups=[])
        result = deployed.run("--migration-mode", "--dump-all")
        assert not os.path.exists("/srv/written")
        # The agent refuses what it cannot do safely.
        assert result.returncode == 1 and result.stderr

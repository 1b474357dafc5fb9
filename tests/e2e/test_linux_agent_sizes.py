"""The agent "linux" with many and with large things: small sizes here, the full ones by scripts/full-sizes."""
import dataclasses
import hashlib
import os
import shutil
import subprocess
import time

import pytest

from archives import assert_same_tree, unpack
from linux_agent import Dump, install_linux_agent
from linux_host import databases, mysql_state, postgresql_state, restored, web_host
from source_host import SourceHost
from source_services import add_crontab, add_maildir, add_user, fill_root, owned
from tool import Destination, Session
from world import ROOT, SESSION, read, write

PROGRAMS = "/mnt/programs"
STAGE = "/mnt/stage"
PEAKS = "/mnt/peaks"
# Every perl of the source host records the memory of the largest of its processes.
PERL = f"""#!/bin/sh
exec /usr/bin/time -a -o {PEAKS} -f %M /usr/bin/perl "$@"
"""
MOST_MEMORY = 100 << 20


@dataclasses.dataclass(frozen=True)
class Sizes:
    sites: int
    users: int
    large_site: int
    files: int
    rows: int
    seconds: int  # for one run of the tool


SIZES = (Sizes(sites=1000, users=250, large_site=2 << 30, files=100_000, rows=1_000_000, seconds=1800)
         if os.environ.get("FULL_SIZES") else
         Sizes(sites=60, users=20, large_site=64 << 20, files=3000, rows=20_000, seconds=60))


@pytest.fixture
def host():
    """A web host whose files and archives are on a disk, if there is one for it."""
    storage = os.environ.get("FULL_SIZES")
    directories = [ROOT.home, SESSION, STAGE, "/mnt/mariadb", "/mnt/postgresql", "/mnt/second-mariadb",
                   "/mnt/second-postgresql"] if storage else []
    for directory in directories:
        os.makedirs(directory, exist_ok=True)
        os.makedirs(storage + directory)
        subprocess.run(["mount", "--bind", storage + directory, directory], check=True)
    install_linux_agent()
    shutil.rmtree(STAGE, ignore_errors=True)
    write(f"{PROGRAMS}/perl", PERL, mode=0o755)
    write(PEAKS)
    path = f"{PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin"
    with web_host(storage) as found, SourceHost(options=[f"SetEnv PATH={path}"], recording=False):
        yield found
    for directory in directories:
        subprocess.run(["umount", "-l", directory], check=True)
        shutil.rmtree(storage + directory, ignore_errors=True)


def run(action):
    started = time.monotonic()
    outcome = Destination(ROOT, agent="linux").start(action).finish(SIZES.seconds)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), (action, outcome)
    print(f"{action}: {time.monotonic() - started:.1f} s")


def migrate():
    """Moves everything, checks that no process needs much memory, and unpacks it; returns the dump."""
    run("deploy-agent")
    run("dump-all")
    run("get-content")
    peak = max(map(int, read(PEAKS).split())) * 1024
    print(f"memory: {peak >> 20} MB")
    assert peak < MOST_MEMORY
    assert Session().messages("transfer.result") == []
    dump = Dump(Session().read("dump.xml"))
    assert dump.problems("error") == dump.problems("warning") == []
    # A home comes after what is in it, so that its own times are set last.
    for name in sorted(filter(lambda name: ".tar" in name, dump.files()), key=lambda name: "/clients/" in name):
        unpack(f"{SESSION}/archives/{name}", STAGE)
    return dump


AWKWARD = ["with blank", "größe-Ω-日本", "it's", "semi;colon", "-dash", "n" * 200, "back`tick", "(paren)", "a&b", "%20",
           "tab\there", "#hash", "[x]", "star*", "comma,comma", "~tilde", "new\nline"]


@pytest.mark.slow
def test_every_one_of_many_sites_arrives_as_it_was(host):
    for index in range(SIZES.sites):
        user = f"user{index % SIZES.users:04d}"
        owner = add_user(user)
        directory = f"/home/{user}/{index} {AWKWARD[index % len(AWKWARD)]}"
        fill_root(directory, owner, {name: f"{index} {name}" for name in ("index.html", *AWKWARD)})
        host.nginx.add_site(f"site{index:04d}.test", directory, [f"*.site{index:04d}.test"])
        if index < SIZES.users:
            add_maildir(f"/home/{user}/Maildir", owner)
            add_crontab(user, f"{index % 60} * * * * true\n")
    with host.nginx:
        dump = migrate()
    assert len(dump.names("domain")) == SIZES.sites
    for index in range(SIZES.sites):
        name = f"site{index:04d}.test"
        pages = [(answer.get("name"), answer.get("path"), answer.get("status"), answer.get("sum"))
                 for answer in dump.find("domain", name).iter("answer")]
        assert pages == [(name, "/", "200", hashlib.md5(f"{index} index.html".encode()).hexdigest())], pages
    assert len(dump.names("client")) == len(dump.names("mailbox")) == SIZES.users
    for user in range(SIZES.users):
        assert_same_tree(f"/home/user{user:04d}", f"{STAGE}/home/user{user:04d}")


@pytest.mark.slow
def test_a_large_site_arrives_as_it_was(host):
    piece = os.urandom(1 << 20)
    with open(owned("/home/alice/large/video", "", add_user("alice")), "wb") as video:
        for number in range(SIZES.large_site >> 20):
            video.write(number.to_bytes(8, "big") + piece[8:])
    host.nginx.add_site("large.test", "/home/alice/large")
    migrate()
    assert_same_tree("/home/alice/large", f"{STAGE}/home/alice/large")


@pytest.mark.slow
def test_many_small_files_arrive_as_they_were(host):
    owner = add_user("alice")
    top = "/home/alice/small"
    for number in range(SIZES.files):
        if number % 1000 == 0:
            directory = f"{top}/{number // 1000}"
            owned(f"{directory}/index.html", "x", owner)
        with open(f"{directory}/file {number}", "w", encoding="utf-8") as file:
            file.write(f"{number}\n")
    host.nginx.add_site("small.test", top)
    migrate()
    assert_same_tree(top, f"{STAGE}{top}")


@pytest.mark.slow
def test_large_tables_are_restored_as_they_were(host):
    fill_root("/home/alice/shop", add_user("alice"))
    host.nginx.add_site("shop.test", "/home/alice/shop")
    fill_root("/home/bob/wiki", add_user("bob"))
    host.nginx.add_site("wiki.test", "/home/bob/wiki")
    with databases() as original:
        original.mysql.sql(f"INSERT INTO goods (name, picture) SELECT CONCAT('number ', seq), UNHEX(SHA2(seq, 512))"
                           f" FROM seq_1_to_{SIZES.rows};", "shop")
        original.postgresql.sql("INSERT INTO pages (title, body) SELECT 'number ' || n, sha512(n::text::bytea)"
                                f" FROM generate_series(1, {SIZES.rows}) n;", "wiki")
        dump = migrate()
        with restored(f"{SESSION}/archives", dump.files()) as second:
            assert mysql_state(second.mysql, "shop") == mysql_state(original.mysql, "shop")
            assert postgresql_state(second.postgresql, "wiki") == postgresql_state(original.postgresql, "wiki")
            assert int(second.mysql.sql("SELECT COUNT(*) FROM goods;", "shop")) == SIZES.rows + 3

"""The agent "linux": every combination of the options gives exactly the objects that were asked for."""
import itertools
import os
import shutil

import pytest

from linux_agent import Agent, check_schema
from linux_host import databases, many_sites, populate, populate_apache, web_host
from source_services import add_crontab, add_user, fill_root
from world import read, write

# These tests run the agent alone, which is the same in every build.
pytestmark = pytest.mark.release_only

# The objects of the host, with their owners and domains.
CLIENTS = {"alice": "agency", "bob": None, "carol": "agency"}
DOMAINS = {"a.test": "alice", "shop.a.test": "alice", "b.test": "bob", "c.test": "carol"}
DATABASES = {"shop": ("alice", "shop.a.test"), "wiki": ("bob", "b.test")}
MAILBOXES = {"info@a.test": ("alice", "a.test"), "bob": ("bob", None)}

# Each list of names as an option gives it, with the objects that it names.
LISTS = {
    "domains": ("a.test,b.test", {"a.test", "b.test"}),
    "clients": ("carol", {"carol"}),
    "resellers": ("agency", {"alice", "carol"}),
}
CONNECTION = b"source.example\nlogin\nsecret of the transport\n22\n"


@pytest.fixture
def agent():
    with web_host() as host:
        populate(host)
        populate_apache(host)
        fill_root("/home/carol/c.test", add_user("carol"))
        host.nginx.add_site("c.test", "/home/carol/c.test")
        write("/etc/sondrel/resellers", "agency: alice carol\n")
        with databases():
            yield Agent()
        shutil.rmtree("/etc/sondrel")


def expected_objects(lists, only):
    """{kind: names} that a dump of these lists must have; None stands for all."""
    if lists is None:
        clients, domains = set(CLIENTS), set(DOMAINS)
    else:
        clients = {name for kind in lists if kind != "domains" for name in LISTS[kind][1]}
        domains = (LISTS["domains"][1] if "domains" in lists else set()) | {
            domain for domain, client in DOMAINS.items() if client in clients}

    def inside(objects):
        return {name for name, (client, domain) in objects.items() if client in clients or domain in domains}
    found = {
        "reseller": {CLIENTS[name] for name in clients | {DOMAINS[domain] for domain in domains} if CLIENTS[name]},
        "client": clients | {DOMAINS[domain] for domain in domains}, "domain": domains,
        "database": set() if only == "--only-mail" else inside(DATABASES),
        "mailbox": set() if only == "--only-hosting" else inside(MAILBOXES)}
    return {kind: sorted(names) for kind, names in found.items() if names}, clients


def expected_files(objects, whole, only, options):
    """Names of the archives, without their endings."""
    if "--no-content" in options:
        return set()
    files = {f"databases/mysql-{name}" if name == "shop" else f"databases/postgresql-{name}"
             for name in objects.get("database", [])}
    files |= {f"mailboxes/{name.replace('@', '=40')}" for name in objects.get("mailbox", [])}
    if only != "--only-mail":
        files |= {f"sites/{name}" for name in objects.get("domain", [])} | {f"clients/{name}" for name in whole}
    if "--server" in options:
        files.add("server/settings")
    return files


def check(agent, lists, options):
    """Makes one dump, and compares it with what it must have."""
    only = next((option for option in options if option.startswith("--only")), None)
    arguments = list(options) + ["--include-app-distrib"]
    given = CONNECTION if "--content-transport=rsync" in options else b""
    if lists is None:
        arguments.append("--dump-all")
        options = {*options, "--server", "--admin-info"}
    else:
        arguments += [f"--dump-{kind}=-" for kind in lists]
        given += "\n".join(LISTS[kind][0] for kind in lists).encode()
    dump = agent.dump(*arguments, given=given)
    check_schema(dump.text, "dump")
    objects, whole = expected_objects(lists, only)
    assert dump.objects() == objects, arguments
    assert dump.problems("error") == [], arguments
    assert (dump.root.find("server") is not None) == ("--server" in options), arguments
    assert (dump.root.find("admin-info") is not None) == ("--admin-info" in options), arguments
    names = set(dump.files())
    assert names == set(agent.content()), arguments
    ending = "" if "--no-compress" in options else ".gz"
    assert {name.removeprefix("content/").removesuffix(ending).removesuffix(".tar").removesuffix(".sql")
            for name in names} == expected_files(objects, whole, only, options), arguments
    assert all(name.endswith((".tar" + ending, ".sql" + ending)) for name in names), arguments
    for parent, _, found in os.walk(agent.directory):
        for name in found:
            assert b"secret of the transport" not in read(os.path.join(parent, name)), arguments


SUBSETS = [None] + [subset for size in range(4) for subset in itertools.combinations(LISTS, size)]
SWITCHES = ["--no-compress", "--no-content", "--server", "--admin-info", "--no-license", "--content-transport=rsync"]
ONLY = [None, "--only-mail", "--only-hosting"]


def combinations(*switches):
    """Every set of the switches, with every value of "only"."""
    for only in ONLY:
        for chosen in itertools.chain.from_iterable(
                itertools.combinations(switches, size) for size in range(len(switches) + 1)):
            yield [option for option in (only, *chosen) if option]


@pytest.mark.slow
@pytest.mark.parametrize("lists", SUBSETS, ids=["all" if subset is None else " and ".join(subset) or "none"
                                                for subset in SUBSETS])
def test_has_exactly_what_was_asked_for(agent, cases, lists):
    # scripts/full-sizes tests all of the switches.
    switches = SWITCHES if os.environ.get("EVERY_COMBINATION") else ["--no-content", "--server"]
    chosen = list(combinations(*switches))
    cases(len(chosen))
    for options in chosen:
        check(agent, lists, options)


@pytest.mark.slow
def test_each_switch_does_what_it_says_by_itself(agent, cases):
    cases(len(SWITCHES))
    for switch in SWITCHES:
        check(agent, ("clients",), [switch])


@pytest.mark.slow
def test_keeps_its_memory_small_with_many_sites():
    with web_host() as host:
        many_sites(host, 300, 50)
        for number in range(50):
            add_crontab(f"u{number:04d}", "0 0 * * * true\n")
        agent = Agent()
        # The size of this process must not count for its children.
        ballast = b"x" * (150 << 20)
        assert agent.peak_memory("--migration-mode", "--dump-all", "--no-compress") < 100 << 20
        assert len(ballast) == 150 << 20 and len(agent.content()) == 300 + 50 + 1

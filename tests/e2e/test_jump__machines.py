"""A jump host on a machine of its own, which alone reaches the source host and knows its name."""
import contextlib
import os
import subprocess

import pytest

from migrating import State, in_place, migrate, sample_source
from nodes import Node, cables, run
from test_jump import KNOWN_HOSTS, let_in, no_ssh_is_left, public_key
from tool import Destination
from world import CONFIGURATION, DTM, PLAIN, ROOT, SESSION, read, wait_until, write

NAME = "source.inside.test"


@pytest.fixture
def machines():
    """(jump host, source host), with their SSH servers."""
    with contextlib.ExitStack() as running:
        running.enter_context(cables())
        jump = running.enter_context(Node("jump", 11))
        source = running.enter_context(Node("source", 12))
        gate = running.enter_context(jump.server([f"PermitOpen {NAME}:22"], recording=False))
        server = running.enter_context(source.server())
        write(jump.own("/etc/hosts"), f"{source.address} {NAME}\n")
        run("ip", "route", "add", "unreachable", f"{source.address}/32")
        let_in(PLAIN, jump.own(PLAIN.home), f"{jump.address} {public_key(gate)}\n")
        write(KNOWN_HOSTS, f"{NAME} {public_key(server)}\n")
        write(CONFIGURATION, read(CONFIGURATION) + f"SSH_KNOWN_HOSTS_F {KNOWN_HOSTS}\n"
                                                   "SSH_HOST_KEY_POLICY strict\n".encode())
        yield jump, source


def nothing_is_under_way(node):
    """True when all that the machine has sent over its connections has been acknowledged."""
    listing = subprocess.run([*node.through, "ss", "--no-header", "--numeric", "--tcp"], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
    return all(line.split()[2] == "0" for line in listing.splitlines())


def login_of(jump):
    return f"{PLAIN.name}@{jump.address}"


def test_a_host_that_only_the_jump_host_reaches_and_knows_is_migrated(machines):
    jump, source = machines
    sample_source({"index.html": "a page"})
    for host, reason in (source.address, b"No route to host"), (NAME, b"Unable to resolve hostname"):
        outcome = migrate(*in_place(ROOT, "--dump-all", host=host, session=f"{SESSION}-{host}"))
        assert outcome.code != 0 and reason in outcome.stderr, outcome
    outcome = migrate(*in_place(ROOT, "--dump-all", f"--jump={login_of(jump)}", host=NAME))
    assert outcome.code == 0, outcome
    assert State().settings["host"] == NAME
    assert [name for name in os.listdir(f"{SESSION}/archives") if name], "nothing was fetched"
    no_ssh_is_left()


# The first has nothing to send while it waits for output; the second waits for the exit status.
SCOUT = """
my $begun = '/mnt/begun.1';
if (-e $begun) {
    $begun = '/mnt/begun.2';
    close STDOUT;
    close STDERR;
}
open my $sign, '>', $begun;
sleep 1000;
"""


@pytest.mark.slow
def test_a_source_host_that_vanishes_behind_the_jump_host_is_noticed(machines):
    """The jump host gives its connection up only while something is sent over it."""
    jump, source = machines
    jump.run("sysctl", "--quiet", "--write", "net.ipv4.tcp_retries2=3")
    write(f"{DTM}/scout.pl", SCOUT)
    runs = []
    for number in 1, 2:
        runs.append(Destination(host=NAME, session=f"{SESSION}-{number}").start(
            "send-scout", environment={"SONDREL_JUMP": login_of(jump)}))
        wait_until(lambda: os.path.exists(f"/mnt/begun.{number}"), "the scout to begin")
    wait_until(lambda: all(nothing_is_under_way(node) for node in machines), "the connections to be silent")
    source.run("ip", "link", "set", "dev", "source-in", "down")
    for running in runs:
        outcome = running.finish(120)
        assert (outcome.code, outcome.stderr) == (18, b"Lost connection with the remote host"), outcome
    no_ssh_is_left()

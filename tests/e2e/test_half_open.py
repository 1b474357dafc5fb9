"""What happens to runs of --get-content whose source host vanishes without closing the connection."""
import contextlib
import ctypes
import dataclasses
import os
import shutil
import socket
import subprocess
import time

import pytest

from gates import offered_behind_gates
from struck_run import (FILES, LOST, NO_LEAK_CHECK, NO_LOGIN, NO_SESSION, POINTS, check_failed, check_next_run,
                        source_host, struck_run)
from test_connection import few_attempts
from tool import Destination
from world import ROOT, SESSION, Login, content_verified, processor_ticks, wait_until

pytestmark = [pytest.mark.matrix("network"), pytest.mark.slow]

# The other network, in which the relays listen, with an address for each run.
FAR = "far"
NEAR_ADDRESS, FAR_ADDRESS = "198.51.100.1", "198.51.100.2"
MAC = {"near": "02:00:00:00:00:01", "far": "02:00:00:00:00:02"}
# Keep-alive: the first probe after 60 s of silence and four more, 15 s apart; or data that is 120 s old; or the
# limit for logging in. A session that did not start is tried again, for 3 s here.
LEAST_SECONDS, MOST_SECONDS = 90, 150


def ip(*words):
    subprocess.run(["ip", *words], check=True)


@contextlib.contextmanager
def other_network():
    """A network at the other end of one cable. Neighbours are configured, so that no host needs to ask for them."""
    ip("netns", "add", FAR)
    try:
        ip("link", "add", "near", "address", MAC["near"], "type", "veth",
           "peer", "name", "far", "address", MAC["far"], "netns", FAR)
        ip("address", "add", f"{NEAR_ADDRESS}/24", "dev", "near")
        ip("link", "set", "near", "up")
        ip("-n", FAR, "link", "set", "far", "up")
        # This address stays: a device that loses its last address loses its routes.
        ip("-n", FAR, "address", "add", f"{FAR_ADDRESS}/24", "dev", "far")
        ip("-n", FAR, "neighbour", "add", NEAR_ADDRESS, "lladdr", MAC["near"], "dev", "far", "nud", "permanent")
        yield
    finally:
        ip("netns", "delete", FAR)


def enter(descriptor):
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.setns(descriptor, 0x40000000) == 0, os.strerror(ctypes.get_errno())  # CLONE_NEWNET


def far_listener(address):
    """A socket that listens in the other network, on an address that is made for it."""
    ip("-n", FAR, "address", "add", f"{address}/32", "dev", "far")
    ip("neighbour", "add", address, "lladdr", MAC["far"], "dev", "near", "nud", "permanent")
    with open("/proc/thread-self/ns/net", "rb") as ours, open(f"/run/netns/{FAR}", "rb") as other:
        enter(other.fileno())
        try:
            return socket.create_server((address, 22))
        finally:
            enter(ours.fileno())


def vanish(address):
    """A fault: nothing that is sent to the address arrives any more, and no error is returned."""
    def go(link):
        link.fall_silent()
        ip("-n", FAR, "address", "delete", f"{address}/32", "dev", "far")
        ip("-n", FAR, "route", "add", "blackhole", f"{address}/32")
    return go


@dataclasses.dataclass(frozen=True)
class NumberedRoot(Login):
    """A login whose agent is in a directory of its own."""
    number: int = 0

    @property
    def agent_dir(self):
        return f"{self.home}/agent-{self.number}"


@contextlib.contextmanager
def struck_runs(first):
    """[(point, destination, running)...]: a run for each point, numbered from `first` on, whose peer has vanished."""
    with contextlib.ExitStack() as stack:
        runs = []
        for number, point in enumerate(POINTS.values(), first):
            login = NumberedRoot(ROOT.name, ROOT.password, number=number)
            shutil.copytree(ROOT.agent_dir, login.agent_dir)
            address = f"198.51.100.{number}"
            destination = Destination(login, host=address, session=f"{SESSION}/{number}")
            _, running = stack.enter_context(
                struck_run(vanish(address), point, destination, NO_LEAK_CHECK, far_listener(address)))
            runs.append((point, destination, running))
        yield runs


def test_peer_that_vanishes_is_given_up_after_two_minutes_at_each_step(cases):
    """All runs at the same time, without and with content verification, because each takes that long."""
    with source_host() as source, other_network(), few_attempts():
        offered_behind_gates(FILES)
        os.mkdir(SESSION)
        with struck_runs(10) as plain, content_verified(), struck_runs(20) as verified:
            runs = plain + verified
            cases(len(runs))
            begin = time.monotonic()
            used = [processor_ticks(running.pid) for _, _, running in runs]
            wait_until(lambda: any(running.ended() for _, _, running in runs), "the end of a run", MOST_SECONDS)
            assert time.monotonic() - begin > LEAST_SECONDS
            for (_, _, running), before in zip(runs, used):
                assert running.ended() or processor_ticks(running.pid) - before <= 5, "a run is busy while it waits"
            outcomes = [running.finish(begin + MOST_SECONDS - time.monotonic()) for _, _, running in runs]
        for (point, destination, _), outcome in zip(runs, outcomes):
            # The second attempt to start a session gets no answer; the limit for logging in ends before the system
            # gives the connection up.
            causes = {NO_SESSION[0]: ["ConnectionTimedOut"], NO_LOGIN[0]: LOST}.get(point.causes[0], point.causes)
            check_failed(outcome, causes, destination.session, destination.login)
            check_next_run(source, Destination(destination.login, session=destination.session.path))

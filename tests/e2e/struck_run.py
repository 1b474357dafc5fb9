"""A run of --get-content that a fault of the network strikes at a chosen point."""
import contextlib
import dataclasses
import os
import typing
import xml.etree.ElementTree

from gates import Gate, gated_host
from invariants import check, complete
from relay import Dialog, Relay
from tool import Destination
from world import ROOT, read, wait_until

SIZE = 100_000


def numbered_lines(name):
    """Content in which no two places are the same."""
    return b"".join(b"%s %06d\n" % (name.encode(), number) for number in range(SIZE // 10))[:SIZE]


# Faults strike at the second file.
FILES = {name: numbered_lines(name) for name in ("one", "two", "three")}
STRUCK = "two"
# These methods give packets of known sizes: the length comes first, is encrypted, and is not authenticated by
# itself.
METHODS = ["KexAlgorithms curve25519-sha256,diffie-hellman-group14-sha256", "Ciphers aes256-ctr", "MACs hmac-sha2-256"]
# When a session is freed in the middle of its key exchange, the SSH library itself leaks memory.
NO_LEAK_CHECK = {"ASAN_OPTIONS": "exitcode=99:detect_leaks=0"}
KEX_INIT = 30  # the message by which the client begins the exchange itself


@dataclasses.dataclass(frozen=True)
class Point:
    """Where a run is struck: by a message; or at a gate of the second file, when this many bytes of it were received,
    and `after` more bytes from the server.
    """
    causes: list  # tags of the errors inside the one that wraps every failure
    at: typing.Any = None
    gate: str = None
    received: int = 0
    after: int = 0


NO_SESSION = ["UnableToStartSshSession"]
NO_LOGIN = ["SshInvalidCredentials"]
LOST = ["SshConnectionFault"]
NO_FILE = ["CantRetrieveContentFile", "SshConnectionFault"]
EARLY = {
    "before the banner": Point(NO_SESSION, at="connected"),
    "in the key exchange": Point(NO_SESSION, at=lambda: Dialog(message=KEX_INIT)),
    # The client's turns: the service, the request for the methods, the password.
    "in authentication": Point(NO_LOGIN, at=lambda: Dialog(turn=3))}
LATE = {
    "at the start of the command": Point(NO_FILE, gate="before cat"),
    "amid the download": Point(NO_FILE, gate="amid cat", received=SIZE // 2, after=1000),  # amid a packet, too
    "between the last byte and the close": Point(NO_FILE, gate="after cat", received=SIZE)}
POINTS = {**EARLY, **LATE}


def source_host():
    """A source host for relays, with content files on it."""
    return gated_host(METHODS, port=2222)


def commands_running():
    """Processes of this private world that are neither this one nor its children: those that a login has started."""
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            parent = int(read(f"/proc/{name}/stat").rpartition(b")")[2].split()[1])
            if os.getpid() not in (int(name), parent) and (
                    os.readlink(f"/proc/{name}/ns/mnt") == os.readlink("/proc/self/ns/mnt")):
                found.append(int(name))
        except (FileNotFoundError, ProcessLookupError, PermissionError):
            pass  # it has ended since the directory was listed, or is not of our container
    return found


def chain(message):
    """The tags of a message of the result log and of the messages inside it."""
    return [message[0]] + [tag for inner in message[3] for tag in chain(inner)]


def check_failed(outcome, causes, session, login=ROOT):
    """Checks that the run failed for these causes, one inside the other, and lost nothing."""
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", b"Error during dump retrieval")
    assert [chain(message) for message in session.messages("transfer.result")] == [["CantRetrieveDump", *causes]]
    check(outcome, FILES, f"{session.path}/archives", login, session)


def check_next_run(source, destination=None):
    """Checks that the next run, without the fault, completes, and fetches nothing that is here already."""
    destination = destination or Destination()
    target = f"{destination.session.path}/archives"
    wait_until(lambda: not commands_running(), "the end of what the source host still does")
    here = complete(FILES, target)
    before = len(source.lines())
    with Relay():
        outcome = destination.run("get-content")
    assert outcome.code == 0
    check(outcome, FILES, target, destination.login, destination.session, already=here)
    assert [line for line in source.lines()[before:] if line.startswith("cat ")] == [
        f"cat {destination.agent_dir}/{name}" for name in FILES if name not in here]


def received(session):
    """The received bytes of the second file, according to the status; None before its turn."""
    if not session.exists("migration.status"):
        return None
    current = xml.etree.ElementTree.fromstring(session.read("migration.status")).find("transfer/files/current-file")
    if current is None or current.text != STRUCK:
        return None
    return int(current.get("size")) - int(current.get("size-left"))


@contextlib.contextmanager
def struck_run(fault, point, destination=None, environment=None, listener=None):
    """(relay, running) of a run that was struck."""
    destination = destination or Destination()
    gate = point.gate and Gate(f"{point.gate} {STRUCK}")
    with Relay(fault, point.at, listener) as relay:
        running = destination.start("get-content", environment=environment)
        try:
            if gate:
                gate.reached()
                wait_until(lambda: received(destination.session) == point.received, "all that was sent so far")
                relay.strike(point.after)
                gate.open()
            wait_until(lambda: relay.struck_at, "the fault")
            yield relay, running
        finally:
            running.kill()

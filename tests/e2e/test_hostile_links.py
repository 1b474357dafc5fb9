"""Links and special files in the content directory, whose subdirectories belong to the service account."""
import contextlib
import fcntl
import os
import shutil
import socket
import stat
import time

import pytest

import invariants
from attacker import Attacker, exchange
from content import left, offered
from snapshot import entry, own_directories, unchanged  # a fixture  # noqa: F401  # pylint: disable=unused-import
from tool import Destination, Session
from world import ROOT, SERVICE_ACCOUNT, SESSION, files_below, owner_and_mode, read, wait_until, write

pytestmark = [pytest.mark.matrix("links"), pytest.mark.usefixtures("own_directories")]

ARCHIVES = f"{SESSION}/archives"
DUMPS = "/mnt/dumps"
OUTSIDE = "/mnt/outside"
NEW = b"what the source host offers"
SERVICE = (SERVICE_ACCOUNT, SERVICE_ACCOUNT)


@pytest.fixture(autouse=True)
def outside():
    """Files outside, which neither root nor another account may write to in these tests."""
    write(f"{OUTSIDE}/file", b"kept")
    write(f"{OUTSIDE}/same", NEW)
    os.makedirs(f"{OUTSIDE}/three")
    os.makedirs(SESSION, exist_ok=True)
    os.makedirs(DUMPS, exist_ok=True)
    os.mknod(f"{OUTSIDE}/null", 0o666 | stat.S_IFCHR, os.makedev(1, 3))
    yield
    shutil.rmtree(OUTSIDE)
    shutil.rmtree(DUMPS, ignore_errors=True)


def own_directory(path):
    """Makes the directory as root does for content: it and those above it, up to the target, belong to the account."""
    os.makedirs(path, exist_ok=True)
    own = path
    while own not in (ARCHIVES, os.path.dirname(DUMPS)):
        os.chown(own, *SERVICE)
        own = os.path.dirname(own)
    return path


def run(*options, deadline_seconds=30, **how):
    return Destination().start("get-content", *options, **how).finish(deadline_seconds)


def check_refusal(outcome, name, target=ARCHIVES):
    """Checks that the run ended at this entry, reported it, and did not hang."""
    assert (outcome.code, outcome.stdout) == (2, b"")
    (wrapping, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert (wrapping, code) == ("CantRetrieveDump", "CantRetrieveContentFile")
    assert text.startswith(f"Failed to retrieve file '{ROOT.agent_dir}/{name}' from '127.0.0.1' to '{target}/{name}': ")
    assert name in left(ROOT)


# --- planted before the run ------------------------------------------------------------------

@contextlib.contextmanager
def listening_socket(path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(path)
        listener.listen()
        yield


@contextlib.contextmanager
def read_fifo(path):
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    yield
    assert os.read(reader, 1) == b""
    os.close(reader)


def link_to(target):
    return lambda path: os.symlink(target, path)


def hard_link_to(linked):
    return lambda path: os.link(os.path.join(os.path.dirname(path), linked), path)


def device(kind, major, minor):
    return lambda path: os.mknod(path, kind | 0o666, os.makedev(major, minor))


IN_THE_FILES_PLACE = {
    "link to a file": link_to(f"{OUTSIDE}/file"), "link to a file of that content": link_to(f"{OUTSIDE}/same"),
    "relative link": link_to("../" * 9 + f"{OUTSIDE[1:]}/file"), "link to nothing": link_to(f"{OUTSIDE}/made"),
    "link to a directory": link_to(OUTSIDE), "link to a device": link_to(f"{OUTSIDE}/null"),
    "link to itself": lambda path: os.symlink(os.path.basename(path), path),
    "link to another entry": link_to("ahead"),
    "hard link to a file of root": hard_link_to(f"{OUTSIDE}/file"),
    "hard link to another entry": hard_link_to("ahead"),
    "pipe": os.mkfifo, "pipe with a reader": read_fifo, "socket": listening_socket, "directory": os.mkdir,
    "null device": device(stat.S_IFCHR, 1, 3), "endless device": device(stat.S_IFCHR, 1, 5),
    "missing device": device(stat.S_IFBLK, 240, 0),
}

IN_A_DIRECTORY_S_PLACE = {
    "link to a directory": link_to(OUTSIDE), "link to nothing": link_to(f"{OUTSIDE}/made"),
    "link to the directory above": link_to("."), "pipe": os.mkfifo, "pipe with a reader": read_fifo,
    "socket": listening_socket, "null device": device(stat.S_IFCHR, 1, 3), "file": os.mknod,
}


def offer_and_meet(name, planted, plant, target=ARCHIVES):
    """A run that finds, at `planted` below the target, what `plant` puts there, on its way to `name`."""
    directory = own_directory(os.path.dirname(f"{target}/{planted}"))
    offered(ROOT, ("first", b"1"), (name, NEW), ("last", b"3"))
    write(f"{directory}/ahead", b"ahead")
    path = f"{target}/{planted}"
    with plant(path) or contextlib.nullcontext():
        before = entry(path)
        with unchanged(SESSION, ROOT.agent_dir, *([] if target == ARCHIVES else [target])):
            outcome = run(*([] if target == ARCHIVES else ["--dumps-dir", target]))
        assert entry(path) == before
    check_refusal(outcome, name, target)
    assert left(ROOT) == sorted(["last", name])
    assert read(f"{target}/first") == b"1"
    assert not os.path.lexists(f"{target}/last")
    assert sorted(os.listdir(directory)) == sorted({"ahead", os.path.basename(planted)}
                                                   | ({"first"} if directory == target else set()))
    assert read(f"{directory}/ahead") == b"ahead"


@pytest.mark.parametrize("plant", IN_THE_FILES_PLACE.values(), ids=IN_THE_FILES_PLACE.keys())
def test_what_is_in_the_place_of_a_file_is_left_alone(source, plant, content_verify):
    offer_and_meet("sub/file", "sub/file", plant)


@pytest.mark.parametrize("plant", IN_A_DIRECTORY_S_PLACE.values(), ids=IN_A_DIRECTORY_S_PLACE.keys())
@pytest.mark.parametrize("planted", ["one", "one/two", "one/two/three"], ids=["first", "second", "third"])
def test_what_is_in_the_place_of_a_directory_is_left_alone(source, planted, plant):
    offer_and_meet("one/two/three/file", planted, plant)


@pytest.mark.parametrize("kind", ["link to a file", "link to nothing", "hard link to a file of root", "pipe"])
def test_dumps_directory_is_guarded_as_the_archives_are(source, kind, content_verify):
    offer_and_meet("file", "file", IN_THE_FILES_PLACE[kind], DUMPS)


@pytest.mark.parametrize("planted", ["one", "one/two"], ids=["first", "second"])
def test_directories_of_the_dumps_directory_are_guarded_as_those_of_the_archives(source, planted, content_verify):
    offer_and_meet("one/two/file", planted, link_to(OUTSIDE), DUMPS)


def test_file_with_a_lease_is_not_waited_for(source, content_verify):
    """The system would make a blocking open wait for 45 seconds."""
    path = write(f"{own_directory(f'{ARCHIVES}/sub')}/file", b"leased", owner=SERVICE)
    offered(ROOT, ("sub/file", NEW))
    held = []

    def hold():
        if not held:
            held.append(os.open(path, os.O_RDWR))
            fcntl.fcntl(held[0], fcntl.F_SETLEASE, fcntl.F_WRLCK)
        time.sleep(0.001)

    with Attacker(hold):
        outcome = run(deadline_seconds=20)
    check_refusal(outcome, "sub/file")
    assert read(path) == b"leased"


# --- done while a file arrives ---------------------------------------------------------------

def run_meanwhile(name, do):
    """The outcome of a run over this file and a last one; `do` is called when half of the file has arrived."""
    offered(ROOT, (name, NEW), ("last", b"3"))
    path, local, half = f"{ROOT.agent_dir}/{name}", f"{ARCHIVES}/{name}", len(NEW) // 2
    os.unlink(path)
    os.mkfifo(path)
    with unchanged(SESSION, ROOT.agent_dir), open(path, "r+b", buffering=0) as pipe:
        running = Destination().start("get-content")
        pipe.write(NEW[:half])
        wait_until(lambda: os.path.lexists(local) and os.path.getsize(local) == half or running.ended(),
                   "half of the file")
        do()
        pipe.write(NEW[half:])
        pipe.close()
        return running.finish(deadline_seconds=30)


@pytest.mark.parametrize("swapped", ["sub", "sub/deeper", "sub/deeper/file"],
                         ids=["directory", "directory below", "file"])
def test_link_that_is_swapped_in_a_thousand_times_gets_nothing(source, swapped, content_verify):
    path = f"{own_directory(f'{ARCHIVES}/account')}/{swapped}"
    link = f"{path}.link"

    def there_and_back():
        exchange(path, link)
        exchange(path, link)

    def attack():
        os.symlink(OUTSIDE, link)
        os.chown(os.path.dirname(path), *SERVICE)
        with Attacker(there_and_back) as attacker:
            attacker.wait_for(500)

    outcome = run_meanwhile("account/sub/deeper/file", attack)
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert read(f"{ARCHIVES}/account/sub/deeper/file") == NEW
    assert left(ROOT) == []


def move_away(path):
    os.rename(path, f"{path}.moved")


def put_link(path):
    move_away(path)
    os.symlink(f"{OUTSIDE}/file" if os.path.isfile(f"{path}.moved") else OUTSIDE, path)


def put_another(path):
    move_away(path)
    write(path, NEW[:len(NEW) // 2])


DONE = {"file is removed": ("file", os.unlink), "file is moved": ("file", move_away),
        "link to a file": ("file", put_link), "another file": ("file", put_another),
        "directory is removed": ("sub", shutil.rmtree), "directory is moved": ("sub", move_away),
        "link to a directory": ("sub", put_link)}


@pytest.mark.parametrize("what, do", DONE.values(), ids=DONE.keys())
def test_file_that_was_taken_from_its_place_stays_on_the_source_host(source, what, do, content_verify):
    name = "account/sub/file"
    own_directory(f"{ARCHIVES}/account")
    outcome = run_meanwhile(name, lambda: do(f"{ARCHIVES}/{name.partition(what)[0]}{what}"))
    check_refusal(outcome, name)
    assert left(ROOT) == [name, "last"]


@pytest.mark.slow
@pytest.mark.parametrize("swapped", ["account/sub", "account/sub/07"], ids=["directory", "file"])
def test_links_that_come_and_go_during_whole_runs_are_never_followed(source, swapped, content_verify):
    """Each run does its work, or ends at the first link that it finds; none writes through a link."""
    own_directory(f"{ARCHIVES}/account/sub")
    names = [f"account/sub/{number:02d}" for number in range(20)]
    path = f"{ARCHIVES}/{swapped}"
    link = f"{ARCHIVES}/account/link"
    os.symlink(f"{OUTSIDE}/file" if swapped in names else OUTSIDE, link)
    if swapped in names:
        write(path)

    def there_and_back():
        exchange(path, link)
        exchange(path, link)

    steps_of_runs = 0
    for number in range(10):
        files = {name: f"{name} {number}".encode() for name in names}
        offered(ROOT, *files.items())
        for name in filter(Session().exists, invariants.NAMES):
            os.unlink(Session().file(name))
        with unchanged(SESSION, ROOT.agent_dir), Attacker(there_and_back) as attacker:
            before = attacker.steps
            outcome = run()
            steps_of_runs += attacker.steps - before
        if outcome.code != 0:
            check_refusal(outcome, min(left(ROOT)))
        invariants.check(outcome, files)
    assert steps_of_runs >= 500


# --- of the operator's own -------------------------------------------------------------------

@pytest.mark.parametrize("linked, options", [
    (SESSION, []), (ARCHIVES, []), ("/mnt/above", ["--session-path", "/mnt/above/session"]),
    (DUMPS, ["--dumps-dir", DUMPS]),
    ("/mnt/above", ["--dumps-dir", "/mnt/above/dumps"]),
], ids=["session", "archives", "directory above the session", "dumps directory", "directory above the dumps directory"])
def test_target_is_reached_through_a_link_of_the_operator(source, linked, options, content_verify):
    offered(ROOT, ("sub/file", NEW))
    shutil.rmtree(linked, ignore_errors=True)
    os.makedirs("/mnt/real/session/archives")
    os.makedirs("/mnt/real/dumps")
    os.symlink("/mnt/real", linked)
    try:
        outcome = run(*options)
        assert (outcome.code, outcome.stderr) == (0, b"")
        assert os.readlink(linked) == "/mnt/real"
        assert NEW in files_below("/mnt/real").values()
        assert left(ROOT) == []
    finally:
        os.unlink(linked)
        shutil.rmtree("/mnt/real")


# --- what is not the account's ---------------------------------------------------------------

def test_service_account_can_change_nothing_in_the_session_and_its_archives(source, content_verify):
    offered(ROOT, ("file", NEW))
    shutil.rmtree(SESSION)
    assert run().code == 0
    for directory in (SESSION, ARCHIVES):
        assert owner_and_mode(directory) == (0, SERVICE_ACCOUNT, 0o750)
    attempts = [lambda: os.mkdir(f"{SESSION}/new"), lambda: os.mkdir(f"{ARCHIVES}/new"),
                lambda: os.symlink(OUTSIDE, f"{SESSION}/migration.log.new"), lambda: os.unlink(f"{ARCHIVES}/file"),
                lambda: os.unlink(f"{SESSION}/migration.status"), lambda: open(f"{ARCHIVES}/file", "ab"),
                lambda: open(f"{SESSION}/migration.log", "ab"), lambda: open(f"{SESSION}/dump-name", "ab"),
                lambda: os.rename(f"{SESSION}/archives", f"{SESSION}/other"), lambda: os.chmod(ARCHIVES, 0o777),
                lambda: os.rename(f"{ARCHIVES}/file", f"{ARCHIVES}/other")]

    def try_all():
        for attempt in attempts:
            with pytest.raises(PermissionError):
                attempt()

    with unchanged(), Attacker(try_all):
        pass
    assert read(f"{ARCHIVES}/file") == NEW

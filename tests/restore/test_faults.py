"""What can interrupt an apply: kills, full disks, truncated journals. A rerun completes, and undo restores all."""
import os
import signal
import subprocess

import pytest
from destination import snapshot
from made_session import PROGRAM
from test_files import directory, file, link, site


def large():
    """A site with many files, one of them larger than a single write."""
    members = [directory("./home/alice/shop")]
    for number in range(20):
        members += [directory(f"./home/alice/shop/{number}"), file(f"./home/alice/shop/{number}/a", b"a" * 5000),
                    link(f"./home/alice/shop/{number}/b", "a")]
    return [*members, file("./home/alice/shop/z", bytes(3 << 20))]


def killed_at(session, call, number):
    """Runs apply and kills it at the n-th call of this system call. Returns whether there were that many."""
    session.write()
    done = subprocess.run(
        ["strace", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e", f"inject={call}:signal=KILL:when={number}",
         PROGRAM, "apply", session.directory], capture_output=True, stdin=subprocess.DEVNULL, check=False)
    return done.returncode in (-signal.SIGKILL, 128 + signal.SIGKILL)


@pytest.mark.parametrize("call, numbers", [
    ("write", (1, 4, 9, 14, 20, 30, 45, 60)), ("mkdirat", (1, 2, 10)), ("fchown", (1, 2, 5, 20)), ("rename", (1,)),
    ("fdatasync", (1, 2, 3, 4, 5, 6, 7)), ("symlinkat", (1, 9)), ("utimensat", (1, 2, 30)), ("fchmod", (1, 20)),
    ("fork,vfork,clone,clone3", (1, 2, 3))])
def test_goes_on_after_a_kill_and_can_be_taken_back(session, call, numbers):
    site(session, *large())
    before = snapshot()
    hits = 0
    for number in numbers:
        hits += killed_at(session, call, number)
        session.run("undo", check=0)
        assert snapshot() == before, (call, number)
        killed_at(session, call, number)
        session.run("apply", check=0)
        session.run("verify", check=0)
        session.run("undo", check=0)
        assert snapshot() == before, (call, number)
    assert hits >= len(numbers) / 2


@pytest.mark.parametrize("size", ["100k", "400k", "1m", "2m", "3m"])
def test_tells_of_a_full_disk_and_goes_on_when_there_is_room(session, size):
    os.makedirs("/home/alice")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=100m,mode=755", "own", "/home"], check=True)
    site(session, *large())
    # The disk becomes full after the plan has found room.
    assert killed_at(session, "symlinkat", 1)
    subprocess.run(["mount", "-o", f"remount,size={size}", "/home"], check=True)
    done = session.run("apply", check=1)
    assert "No space left on device" in done.stderr and "Traceback" not in done.stderr
    subprocess.run(["mount", "-o", "remount,size=100m", "/home"], check=True)
    session.run("apply", check=0)
    session.run("verify", check=0)
    session.run("undo", check=0)
    assert os.listdir("/home") == []


@pytest.mark.parametrize("size", ["4k", "8k"])
def test_tells_of_a_full_disk_of_the_journal(session, size):
    os.makedirs(f"{session.directory}/restore", 0o700)
    before = snapshot()
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=700", "own", f"{session.directory}/restore"],
                   check=True)
    site(session, *large())
    done = session.run("apply", check=1)
    assert "No space left on device" in done.stderr and "Traceback" not in done.stderr
    subprocess.run(["mount", "-o", "remount,size=10m", f"{session.directory}/restore"], check=True)
    session.run("apply", check=0)
    session.run("verify", check=0)
    session.run("undo", check=0)
    assert snapshot() == before


@pytest.mark.parametrize("cut", [1, 40, 400])
def test_passes_over_a_line_of_the_journal_that_was_cut_off(session, cut):
    site(session, *large())
    before = snapshot()
    session.run("apply", check=0)
    path = f"{session.directory}/restore/journal"
    os.truncate(path, os.path.getsize(path) - cut)
    session.run("apply", check=0)
    session.run("verify", check=0)
    session.run("undo", check=0)
    assert snapshot() == before

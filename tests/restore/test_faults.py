"""What can befall an apply: kills, full disks, cut journals; a rerun completes, and undo leaves what was before."""
import signal
import subprocess

import pytest
from destination import snapshot
from made_session import PROGRAM
from test_files import directory, file, link, site


def large():
    """A site of many files, one of them larger than what is written at once."""
    members = [directory("./home/alice/shop")]
    for number in range(20):
        members += [directory(f"./home/alice/shop/{number}"), file(f"./home/alice/shop/{number}/a", b"a" * 5000),
                    link(f"./home/alice/shop/{number}/b", "a")]
    return [*members, file("./home/alice/shop/z", bytes(3 << 20))]


def killed_at(session, call, number):
    """Runs apply, which is killed at the n-th of this system call; whether it came so far."""
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

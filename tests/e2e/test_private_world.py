"""The private world of a test does not change the machine's settings (tests/private-world)."""
import errno
import os
import subprocess

import pytest

from world import TESTS, write

pytestmark = pytest.mark.release_only


def in_a_world_in_this_one(command):
    """The completed run of a shell command in a private world that is made inside this one, as if this one were the
    machine.
    """
    return subprocess.run([f"{TESTS}/private-world", "sh", "-c", command], capture_output=True, text=True, check=False)


@pytest.mark.parametrize("path", ["/etc/apt/probe", "/mnt/etc.orig/probe"], ids=["by a link", "by the copy"])
def test_refuses_to_write_settings_of_the_machine(path):
    with pytest.raises(OSError) as refused:
        os.open(path, os.O_WRONLY | os.O_CREAT, 0o600)
    assert refused.value.errno == errno.EROFS


def test_refuses_to_write_settings_that_are_mounts_of_their_own():
    write("/etc/mounted/file", "of the machine")
    subprocess.run(["mount", "-t", "tmpfs", "other", "/etc/mounted"], check=True)
    try:
        write("/etc/mounted/file", "of the machine")
        outcome = in_a_world_in_this_one("echo changed > /etc/mounted/file")
        assert outcome.returncode != 0 and "Read-only file system" in outcome.stderr
    finally:
        subprocess.run(["umount", "/etc/mounted"], check=True)


def test_has_no_settings_of_agents_that_the_machine_has():
    write("/etc/sondrel/resellers", "big: alice\n")
    try:
        outcome = in_a_world_in_this_one("ls -d /etc/sondrel || echo none > /mnt/seen; mkdir /etc/sondrel && cat /mnt/seen")
        assert (outcome.returncode, outcome.stdout) == (0, "none\n")
    finally:
        os.unlink("/etc/sondrel/resellers")
        os.rmdir("/etc/sondrel")

"""What the scripts that run the tests, tests/e2e/run and tests/restore/run, take on their command lines."""
import subprocess

import pytest

from world import TESTS

pytestmark = pytest.mark.release_only


def collected(runner, *options):
    """What a runner says about these options; it runs no test."""
    return subprocess.run([f"{TESTS}/{runner}/run", *options, "--collect-only", "--junit-xml=/dev/null"], check=False,
                          capture_output=True, text=True)


def test_of_the_end_to_end_tests_takes_the_files_that_are_named_and_no_other():
    done = collected("e2e", f"{TESTS}/e2e/test_linter.py")
    assert done.returncode == 0, done.stdout + done.stderr
    files = {line.partition("::")[0].rpartition("/")[2] for line in done.stdout.splitlines() if "::" in line}
    assert files == {"test_linter.py"}


def test_of_the_restore_refuses_to_run_without_workers():
    done = collected("restore", "-n", "0")
    said = 'tests/restore/run: -n needs a number of workers, 1 or more, and not "0"\n'
    assert (done.returncode, done.stderr) == (2, said)

"""How tests are run: what tests/e2e/run and tests/restore/run take on their command lines, and in which processes."""
import subprocess
import sys
import xml.etree.ElementTree

import pytest

from world import HERE, TESTS, write

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


def test_of_the_end_to_end_tests_refuses_to_run_none_at_a_time():
    done = collected("e2e", "-n", "0")
    assert done.returncode == 4 and "so many tests cannot run at a time: 0" in done.stderr, done


SAMPLE = """
import os, signal, sys, time

def meet(own, other):
    print(own)
    os.write(1, b"of a child\\n")
    open(own, "w").close()
    end = time.monotonic() + 60
    while not os.path.exists(other):
        assert time.monotonic() < end
        time.sleep(0.01)

def test_first():
    meet("first", "second")
    assert ["left"] == ["right"]

def test_second():
    meet("second", "first")
    assert False

def test_that_is_killed():
    os.kill(os.getpid(), signal.SIGKILL)

def test_that_leaves():
    os._exit(7)

def test_that_sees_what_others_have_changed():
    assert not hasattr(sys, "changed")
    sys.changed = True

test_again = test_that_sees_what_others_have_changed
"""
LOOP = f"""
import sys
sys.path.append({HERE!r})
from own_processes import OwnProcesses

def pytest_configure(config):
    config.pluginmanager.register(OwnProcesses(2))
"""


def test_processes_of_tests_run_beside_each_other_and_each_end_is_reported():
    write("/mnt/sample/conftest.py", LOOP)
    write("/mnt/sample/test_sample.py", SAMPLE)
    done = subprocess.run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-o", "junit_logging=all",
                           "--junit-xml=report.xml", "."],
                          cwd="/mnt/sample", check=False, capture_output=True, text=True, timeout=100)
    assert done.returncode == 1 and "4 failed, 2 passed" in done.stdout, done
    cases = {case.get("name"): case for case in xml.etree.ElementTree.parse("/mnt/sample/report.xml").iter("testcase")}
    for name, other in ("first", "second"), ("second", "first"):
        output = cases[f"test_{name}"].find("system-out").text.splitlines()
        assert name in output and output.count("of a child") == 1 and other not in output
    # As pytest explains it for a comparison.
    assert "At index 0 diff: 'left' != 'right'" in cases["test_first"].find("failure").text
    failures = {name: case.find("failure").get("message") for name, case in cases.items()
                if case.find("failure") is not None}
    assert failures["test_that_is_killed"].endswith("its process ended with signal 9")
    assert failures["test_that_leaves"].endswith("its process ended with status 7")

"""Runs in which system calls fail, by a library that is preloaded into the tool."""
import os
import shutil
import subprocess

import pytest

from world import HERE, read, write

DIRECTORY = "/mnt/faults"
REPORT = f"{DIRECTORY}/report"


class Fault:
    """The fault of fail_nth_call.c for a run. With `nth` 0 nothing fails, but each call counts as struck."""

    def __init__(self, library, kind, nth, stays=False, path=None):
        self._kind = kind
        given = {"LD_PRELOAD": library, "FAIL_KIND": kind, "FAIL_NTH": str(nth), "FAIL_REPORT": REPORT,
                 "FAIL_STAYS": "1" if stays else None, "FAIL_PATH": path}
        self.environment = {key: value for key, value in given.items() if value is not None}
        write(REPORT)

    def struck(self):
        """The object of each failed call."""
        return [line.removeprefix(f"{self._kind} ") for line in os.fsdecode(read(REPORT)).splitlines()]


@pytest.fixture
def preload():
    """Path of the compiled fail_nth_call.c."""
    library = f"{DIRECTORY}/fail_nth_call.so"
    os.makedirs(DIRECTORY, exist_ok=True)
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, f"{HERE}/fail_nth_call.c", "-ldl"], check=True)
    yield library
    shutil.rmtree(DIRECTORY)

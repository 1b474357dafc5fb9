"""Where ccache has a cache, the linter skips a file that was clean, until something changes that matters."""
import json
import os
import subprocess

import pytest

from world import TESTS, read, write

SOURCE = "/mnt/checkout/a.cpp"
HEADER = "/mnt/checkout/a.h"
CACHE = "/mnt/ccache"
LOOKED = "/mnt/looked"
# An imitated linter: fails for a source that has the word "finding", and records each call.
IMITATED = """#!/bin/sh
case $1 in --version) echo 14; exit ;; esac
for source; do :; done
echo "$source" >> /mnt/looked
! grep -q finding "$source"
"""


@pytest.fixture(autouse=True)
def checkout():
    """A source file with its header, and a fast imitated linter."""
    write("/mnt/programs/clang-tidy", IMITATED, mode=0o755)
    write(HEADER, "inline int one() { return 1; }\n")
    write(SOURCE, '#include "a.h"\nint two() { return one() + one(); }\n')
    compiled()


def compiled(*options):
    """Compiles it by these options of the compiler with ninja, which notes what the compiler has read."""
    command = " ".join(["c++", *options, "-MD", "-MF", "a.o.d", "-o", "a.o", "-c", SOURCE])
    write("/mnt/build/build.ninja", f"rule compile\n  command = {command}\n  deps = gcc\n  depfile = a.o.d\n"
                                    f"build a.o: compile {SOURCE}\n")
    entry = {"directory": "/mnt/build", "file": SOURCE, "command": command}
    write("/mnt/build/compile_commands.json", json.dumps([entry]))
    subprocess.run(["ninja", "-C", "/mnt/build"], check=True)


def looks(code=0, cache=CACHE):
    """How often a run, which must end with this code, calls the linter."""
    write(LOOKED)
    done = subprocess.run([f"{os.path.dirname(TESTS)}/scripts/tidy", "/mnt/build", SOURCE], check=False,
                          env={"PATH": "/mnt/programs:/usr/bin:/bin", "CCACHE_DIR": cache})
    assert done.returncode == code
    return len(read(LOOKED).splitlines())


@pytest.mark.release_only
def test_looks_again_at_a_clean_file_when_the_file_its_header_or_its_command_has_changed():
    os.mkdir(CACHE)
    assert [looks(), looks()] == [1, 0]
    write(HEADER, "inline int one() { return 1; }  // NOLINT\n")
    compiled()
    assert [looks(), looks()] == [1, 0]
    compiled("-DNDEBUG")
    assert [looks(), looks()] == [1, 0]


@pytest.mark.release_only
def test_looks_each_time_at_a_file_that_has_changed_since_it_was_compiled():
    os.mkdir(CACHE)
    write(HEADER, '#include "b.h"\ninline int one() { return 1; }\n')
    write("/mnt/checkout/b.h")
    assert [looks(), looks()] == [1, 1]


@pytest.mark.release_only
def test_looks_at_a_file_with_findings_each_time():
    os.mkdir(CACHE)
    write(SOURCE, "int finding();\n")
    assert [looks(code=1), looks(code=1)] == [1, 1]


@pytest.mark.release_only
def test_looks_at_every_file_where_nothing_is_remembered():
    assert [looks(), looks()] == [1, 1]
    assert not os.path.exists(CACHE)

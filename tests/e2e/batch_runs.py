"""Runs of --get-content with small files in batches, and the commands that they send."""
import subprocess

import pytest

from source_host import SourceHost
from tool import Destination
from world import ROOT, write

ARCHIVES = "/mnt/session/archives"
PROGRAMS = "/mnt/bin"
ASKED = {"SONDREL_CONTENT_BATCH": "yes"}

REMOVER = ('$/ = "\\0"; <STDIN>; push @errors, unlink($_) ? "" : "$!" while defined($_ = <STDIN>) and chomp; '
           'exit 0 unless grep length, @errors; print map "\\0$_", @errors; exit 3')
FILES = {"one": b"1" * 3000, "sub/two": b"22" * 100_000, "three": b"", "it's\nthree": b"333"}


def get_content(login=ROOT, *options, environment=None):
    return Destination(login).run("get-content", *options, environment=environment or ASKED)


@pytest.fixture
def program():
    """Installs a program that the source host finds before its own one of that name, and starts the host; program(name,
    script).
    """
    def put(name, script):
        write(f"{PROGRAMS}/{name}", "#!/bin/sh\n" + script, mode=0o755)
    with SourceHost(options=[f"SetEnv PATH={PROGRAMS}:/usr/bin:/bin"], recording=False):
        yield put
    subprocess.run(["rm", "-rf", PROGRAMS], check=True)

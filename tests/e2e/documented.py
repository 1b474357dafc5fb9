"""What the documents must describe: the options of the programs, as the programs know them."""
import glob
import os
import re
import subprocess

from migrating import MIGRATE
from tool import sondrel
from world import TESTS, read

TOP = os.path.dirname(TESTS)


def options_of_the_program():
    """{option: whether it takes a value}, from the error messages of the program's option parser."""
    names = re.findall(rb"'(--[a-z-]+)'", sondrel("--=").stderr)
    assert len(names) > 30, names
    return {name.decode(): b"doesn't allow" not in sondrel(name.decode() + "=").stderr if name != b"--help"
            else False for name in names}


def options_of_a_whole_migration():
    """The same for sondrel-migrate, which makes its usage text from its table."""
    shown = subprocess.run([MIGRATE, "--help"], capture_output=True, check=True, text=True).stdout
    return {name: bool(value) for name, value in re.findall(r"^ +(--[a-z-]+)(=?)", shown, re.MULTILINE)}


def text_of(pattern):
    """The text of all sources that match the pattern, concatenated."""
    paths = sorted(glob.glob(f"{TOP}/{pattern}"))
    assert paths, pattern
    return "\n".join(read(path).decode() for path in paths)


def sources():
    return "\n".join(text_of(f"{directory}/*.{kind}") for directory in ("hostlib", "commons", "transport", "sondrel")
                     for kind in ("h", "cpp"))

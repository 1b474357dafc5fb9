"""An attack with its name, and proofs that it succeeded."""
import dataclasses
import os
from collections.abc import Callable

from lxml import etree
from sondrel_restore.web.directives import read


@dataclasses.dataclass(frozen=True)
class Attack:
    """`proof` is asked after the apply, with what all made files of configuration say."""

    name: str
    proof: Callable[[str], bool]

    def succeeded(self, written):
        """Whether this host is another one by it."""
        try:
            return self.proof(written)
        except FileNotFoundError:
            return False


def exists(*paths):
    """Whether there is something at one of the paths."""
    return lambda _: any(os.path.lexists(path) for path in paths)


def says(*needles):
    """Whether files of configuration say one of the texts."""
    return lambda written: any(needle in written for needle in needles)


def goes_in(xml):
    """Whether the innermost directive, or the section around it that is for more than the site, is written."""
    *_, last = read(etree.fromstring(xml)).within()
    line = " ".join([last.name, *last.args] if last.args else [last.name, last.raw or last.text or ""])
    if line == "require all granted":
        line = "<directory /"
    return lambda written: any(line + end in written.replace('"', "") for end in (";", "\n", ">", " {"))

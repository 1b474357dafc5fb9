"""Packages that this host lacks. They are not undone: what else may use them nobody knows."""
from __future__ import annotations

from collections.abc import Iterator

from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing
from sondrel_restore.restore import Restore


class PackageKind(Kind):
    """Knows which packages the applications of sites are from. Other kinds name what they need by themselves."""

    name = "package"

    def plan(self, restore: Restore) -> Iterator[Item]:
        return iter(())

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted: dict[str, str] = {}
        for domain in restore.description.domains():
            if not restore.selection.takes_domain(domain.name):
                continue
            for package in domain.element.iterfind("site/package"):
                if package.get("manager") == "dpkg":
                    wanted.setdefault(package.get("name"), f"the application of {domain.name} is from it")
        for name in sorted(set(wanted) - installed_packages(restore)):
            yield Missing(name, wanted[name])

    def apply(self, restore: Restore, item: Item) -> Facts:
        return {}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        return iter(())

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        return None


def installed_packages(restore: Restore) -> set[str]:
    """The packages that are installed here."""
    result = restore.host.run(["dpkg-query", "--show", "--showformat=${db:Status-Abbrev}\t${Package}\n"])
    return {line.split("\t")[1] for line in result.stdout.splitlines() if line.startswith("ii")}


KINDS = (PackageKind,)

"""What the kinds nginx and apache share: which blocks a site brings, which files it may name, and what was left out.
"""
from __future__ import annotations

import abc
import fnmatch
import os
import re
from collections.abc import Iterable, Iterator, Mapping

from sondrel_restore.host import Host
from sondrel_restore.kind import Finding, Item, Missing, State
from sondrel_restore.restore import Restore
from sondrel_restore.web.config_kind import Candidate, ConfigKind, links, sums
from sondrel_restore.web.directives import one_line, to_bytes
from sondrel_restore.web.judge import Judge, Trees, file_name
from sondrel_restore.web.own_sites import OF_PACKAGES
from sondrel_restore.web.ports_here import PortsHere
from sondrel_restore.web.site_data import Block, PoolHere, Site, accounts_here, is_chosen, sites_of

__all__ = ["SiteKind", "heading", "links", "sums"]

_LEFT_OUT = "/etc/sondrel-restore/left-out"


class SiteKind(ConfigKind):
    """Sites of one web server. `program` is the prefix of its process names."""

    program: str
    package: str
    log_directory: str

    def __init__(self) -> None:
        super().__init__()
        self._trees = Trees(())
        self._accounts: frozenset[str] = frozenset()
        self._site_ports: frozenset[int] = frozenset()
        self.addresses: frozenset[str] = frozenset()
        self.ports_here: PortsHere
        # The files and links that earlier applies made, as of the beginning of a plan.
        self.made: frozenset[str] = frozenset()

    @abc.abstractmethod
    def look(self, restore: Restore) -> None:
        """Reads the server's present state on this host, at the beginning of a plan."""

    @abc.abstractmethod
    def candidate(self, restore: Restore, site: Site, blocks: tuple[Block, ...]) -> Candidate:
        """What a site would be here. `blocks` are those that it brings; other sites brought the rest."""

    def candidates(self, restore: Restore) -> Iterator[Candidate]:
        sites = list(sites_of(restore, self.name))
        if not sites:
            return
        self.ports_here = PortsHere(restore, self.program)
        self._trees = Trees(restore.offered("tree"))
        self._accounts, self._site_ports = accounts_here(restore), _ports_of_sites(restore)
        self.addresses = restore.answer(_own_addresses)
        self.made = frozenset(path for entry in restore.journal.entries(self.name)
                              for path in (*links(entry), *sums(entry)))
        self.look(restore)
        brought = self._brought(restore, sites)
        for site in sites:
            own = tuple(block for block in site.blocks if brought.get(block.key, site.domain.name) == site.domain.name)
            yield self.candidate(restore, site, own)

    def chosen(self, restore: Restore) -> list[Site]:
        """The selected sites of this server."""
        return [site for site in sites_of(restore, self.name) if is_chosen(restore, self.name, site.domain)]

    def _brought(self, restore: Restore, sites: list[Site]) -> dict[str, str]:
        """Which site brings a block that several sites have: the one that already did, else the first selected one."""
        found: dict[str, str] = {}
        for entry in restore.journal.entries(self.name):
            blocks = entry.facts.get("blocks")
            for key in blocks if isinstance(blocks, list) else []:
                found[str(key)] = entry.name
        for site in sites:
            if is_chosen(restore, self.name, site.domain):
                for block in site.blocks:
                    found.setdefault(block.key, site.domain.name)
        return found

    def judge(self, restore: Restore, site: Site) -> Judge:
        """The rules for a site's paths and addresses."""
        files = restore.offered("certificate-files").get(site.domain.name)
        return Judge(
            site=site.domain.name, trees=self._trees, sockets=_sockets_of(restore, site),
            files=files if isinstance(files, dict) else {}, ports=self._site_ports, accounts=self._accounts,
            log_directory=self.log_directory,
            session=str(restore.session.directory), trust=restore.decisions.trust_configuration,
            addresses=self.addresses)

    def taken_name(self, names: Iterable[str], served: Mapping[str, set[str]], own: set[str]) -> tuple[str, set[str]]:
        """The first of the names that other files here serve, with these files; ("", set()) if there is none.

        A pattern matches the names that it stands for, but not those in the default files of packages.
        """
        for name in names:
            for here, files in served.items():
                others = files - own - self.made
                if here != name:
                    others = {file for file in others if os.path.basename(file) not in OF_PACKAGES
                              and self.meets(name, here)}
                if others:
                    return name, others
        return "", set()

    @staticmethod
    def meets(name: str, here: str) -> bool:
        """Whether a name of a site would get requests for a name or pattern that is served here already."""
        return "*" in here and fnmatch.fnmatchcase(name, here)

    def taken_address(self, listens: Iterable[str], here: Mapping[str, set[str]], own: set[str]) -> str:
        """Why a site may not listen at its addresses; empty if it may.

        A server that listens at one address gets the requests to it before servers that listen at all addresses of the
        port, whatever name they ask for.
        """
        for listen in listens:
            host, _, port = listen.rpartition(":")
            if host in ("*", "[::]", "_default_", ""):
                continue
            files = {file for wide in (f"*:{port}", f"[::]:{port}") for file in here.get(wide, ())}
            others = {file for file in files - own - self.made if os.path.basename(file) not in OF_PACKAGES}
            if others:
                return f"at {listen} it would be asked before {', '.join(sorted(others))}"
        return ""

    def whole(self, site: Site, judge: Judge, blocks: tuple[Block, ...], files: Mapping[str, bytes],
              made_links: Mapping[str, str], left_out: str, conflict: str, disables: frozenset[str],
              refusal: str) -> Candidate:
        """The candidate, with a file for what was left out; `left_out` is that in the server's syntax."""
        modes: dict[str, int] = {}
        notes = [f"{change}" for change in dict.fromkeys(judge.changed)]
        beside = dict(files)
        if judge.left_out:
            place = f"{_LEFT_OUT}/{self.name}-{file_name(site.domain.name)}.conf"
            reasons = "".join(f"# {one_line(left.text)}\n" for left in judge.left_out)
            beside[place] = to_bytes(reasons + left_out)
            modes[place] = 0o600
            notes += [f"left out: {left.text}" for left in judge.left_out]
        blocks_said = "1 block" if len(blocks) == 1 else f"{len(blocks)} blocks"
        says = f"{blocks_said} of {self.name} for {', '.join(site.names[:3]) or site.domain.name}"
        if judge.left_out:
            says += f"; {len(judge.left_out)} directives are left out, see {_LEFT_OUT} or --trust-configuration: " \
                + ", ".join(sorted({left.directive.name for left in judge.left_out}))
        return Candidate(
            name=site.domain.name, says=says, files=beside, links=made_links, modes=modes, conflict=conflict,
            impossible=refusal, disables=disables, domains=frozenset((site.domain.name,)),
            clients=frozenset((site.domain.client,)) if site.domain.client else frozenset(), notes=tuple(notes),
            facts={"blocks": [block.key for block in blocks]})

    def missing(self, restore: Restore) -> Iterator[Missing]:
        if self.chosen(restore) and not restore.host.has_program(self.program):
            yield Missing(self.package, f"{self.name} serves sites")

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        site = [each for each in sites_of(restore, self.name) if each.domain.name == item.name][0]
        if item.state is not State.SAME:
            yield Finding(item.identifier, "configuration", False, item.says)
        if site.is_first:
            # Only this command asks, and the modules for HTTP and TLS take long to load.
            from sondrel_restore.web import ask  # pylint: disable=import-outside-toplevel

            yield from ask.compare(restore, item.identifier, site)


def heading(site: Site) -> str:
    """The first line of a site's file."""
    return f"# The site {one_line(site.domain.name)}, made by sondrel-restore. What is changed here stays.\n"


def _sockets_of(restore: Restore, site: Site) -> dict[str, object]:
    """The sockets here of the pools that a site may use, by their addresses on the source host."""
    return {address: pool.socket for address, pool in restore.offered("php-socket").items()
            if isinstance(pool, PoolHere) and pool.serves(site.domain)}


def _own_addresses(host: Host) -> frozenset[str]:
    """The addresses of this host's network interfaces."""
    told = host.run(["ip", "-o", "address"], check=False).stdout if host.has_program("ip") else ""
    return frozenset(re.findall(r"inet6? ([0-9A-Fa-f:.]+)", told))


def _ports_of_sites(restore: Restore) -> frozenset[int]:
    ports = {str(listen.get("port")) for listen in restore.description.tree.iterfind(".//site/listen")}
    return frozenset(int(port) for port in ports if port.isdigit())

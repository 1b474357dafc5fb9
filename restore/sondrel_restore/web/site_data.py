"""The web servers' part of the description: configurations with their definitions, and sites."""
from __future__ import annotations

import dataclasses
from collections.abc import Iterator

from sondrel_restore.description import Domain, Element
from sondrel_restore.kind import RestoreError
from sondrel_restore.restore import Restore
from sondrel_restore.web.directives import Directive, read


@dataclasses.dataclass(frozen=True)
class Configuration:
    """A web server's main configuration: directives outside of sites, and definitions by identifier."""

    name: str
    server: str
    prefix: str
    directives: tuple[Directive, ...]
    definitions: dict[str, Directive]
    modules: frozenset[str]


@dataclasses.dataclass(frozen=True)
class Block:
    """A server block or virtual host of a site. `key` identifies it."""

    key: str
    configuration: Configuration
    directive: Directive | None
    uses: tuple[Directive, ...]


@dataclasses.dataclass(frozen=True)
class Site:
    """A site, with the blocks that one web server has for it."""

    domain: Domain
    element: Element
    blocks: tuple[Block, ...]

    @property
    def is_first(self) -> bool:
        """Whether visitors reach this web server directly, not through another one."""
        server = self.blocks[0].configuration.server
        return str(self.element.get("server", "")).replace(",", " ").split()[:1] == [server]

    @property
    def names(self) -> tuple[str, ...]:
        return tuple(name.lower() for name in self.domain.names)


def configurations(restore: Restore) -> dict[str, Configuration]:
    """All configurations of the description, by name."""
    return {element.get("name"): _configuration(element)
            for element in restore.description.tree.iterfind("web-configuration")}


def _configuration(element: Element) -> Configuration:
    directives = tuple(read(child) for child in element.iterfind("directive"))
    definitions = {each.identifier: each for top in directives for each in top.within() if each.identifier}
    modules = frozenset(str(module.get("name")) for module in element.iterfind("module"))
    return Configuration(element.get("name"), element.get("server"), element.get("prefix") or "", directives,
                         definitions, modules)


def sites_of(restore: Restore, server: str) -> Iterator[Site]:
    """The sites of the description that have blocks of a server."""
    known = configurations(restore)
    for domain in restore.description.domains():
        element = domain.element.find("site")
        if element is None:
            continue
        blocks = tuple(_block(each, known) for each in element.iterfind("block")
                       if each.get("configuration") in known and known[each.get("configuration")].server == server)
        if blocks:
            yield Site(domain, element, blocks)


def _block(element: Element, known: dict[str, Configuration]) -> Block:
    configuration = known[element.get("configuration")]
    child = element.find("directive")
    directive = None if child is None else read(child)
    try:
        uses = tuple(configuration.definitions[each] for each in str(element.get("uses") or "").split())
    except KeyError as error:
        raise RestoreError(f"The description has no definition {error} of {configuration.name}") from error
    key = f"{configuration.name} {directive.place if directive is not None else ''}"
    return Block(key, configuration, directive, uses)


def listening_ports(site: Site) -> frozenset[int]:
    """The ports in the blocks of a site."""
    found: set[int] = set()
    for block in site.blocks:
        if block.directive is None:
            continue
        words = block.directive.args if site.blocks[0].configuration.server == "apache" else tuple(
            each.args[0] for each in block.directive.block or () if each.name == "listen" and each.args)
        for word in words:
            number = word.rpartition(":")[2]
            found |= {int(number)} if number.isdigit() else set()
    return frozenset(found)


@dataclasses.dataclass(frozen=True)
class PoolHere:
    """A restored pool: its socket here, its account on the source host, and the sites that it served there."""

    socket: str
    user: str
    domains: frozenset[str]

    def serves(self, domain: Domain) -> bool:
        """Whether a site may use it: the site's programs could then do all that the pool's account can."""
        site = domain.element.find("site")
        owners = {domain.client, "" if site is None else str(site.get("owner") or "")} - {""}
        return domain.name in self.domains or self.user in owners


def accounts_here(restore: Restore) -> frozenset[str]:
    """The names of the accounts here that this restore made or matched, without root."""
    return frozenset(str(here) for here in restore.offered("account").values()) - {"root"}


def is_chosen(restore: Restore, kind: str, domain: Domain) -> bool:
    """Whether a kind's object for the domain is selected and not skipped."""
    return restore.selection.takes_domain(domain.name) and not restore.decisions.skip(f"{kind}:{domain.name}")

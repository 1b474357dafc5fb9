"""Reads the source host's description, `dump.xml`, and checks it by its schema. Its texts are not trusted."""
from __future__ import annotations

import dataclasses
import functools
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from lxml import etree

from sondrel_restore.hostfiles import components, read_file
from sondrel_restore.kind import RestoreError

# An element of lxml. Debian has no type stubs for lxml.
Element = Any

LARGEST = 256 << 20
LARGEST_DOCUMENT = 64 << 20
_SCHEMA = "dump.xsd"
# Version 2.1 adds increments.
_VERSIONS = ("2", "2.1")


@dataclasses.dataclass(frozen=True)
class Account:
    """An account of the source host. `home` is empty if it has none."""

    name: str
    uid: int
    gid: int
    group: str
    home: str
    shell: str
    system: bool


@dataclasses.dataclass(frozen=True)
class Group:
    """A group of the source host. `members` does not name the accounts whose primary group it is."""

    name: str
    gid: int
    members: tuple[str, ...]


@dataclasses.dataclass(frozen=True)
class Client:
    """An account that owns sites, with its element."""

    name: str
    element: Element


@dataclasses.dataclass(frozen=True)
class Domain:
    """A site or a mail domain. `client` is empty if the agent found no owner."""

    name: str
    names: tuple[str, ...]
    client: str
    element: Element


def parse_document(content: bytes) -> Element:
    """The root of an XML document, which may be hostile: nothing outside of it is read. Raises etree.XMLSyntaxError."""
    return etree.fromstring(content, etree.XMLParser(
        resolve_entities=False, no_network=True, load_dtd=False, huge_tree=False, remove_comments=True,
        remove_pis=True))


def read_document(path: Path) -> Element | None:
    """The root of another document of the session; None if it is missing. RestoreError if it cannot be read."""
    try:
        return parse_document(read_file(str(path), limit=LARGEST_DOCUMENT))
    except (FileNotFoundError, NotADirectoryError):
        return None
    except (OSError, etree.XMLSyntaxError) as error:
        raise RestoreError(f"{path} cannot be read: {error}") from error


class Description:
    """What the agent found: the tree of lxml, with helpers that several kinds need."""

    def __init__(self, path: Path) -> None:
        """RestoreError if the file cannot be read, is another document, or does not follow its schema."""
        try:
            content = read_file(str(path), limit=LARGEST)
        except OSError as error:
            raise RestoreError(f"{path} cannot be read: {error.strerror}") from error
        try:
            self.tree: Element = parse_document(content)
        except etree.XMLSyntaxError as error:
            raise RestoreError(f"{path} is no XML document: {error}") from error
        if self.tree.getroottree().docinfo.doctype:
            raise RestoreError(f"{path} has a document type, which no description has")
        _check(self.tree, path)

    @functools.cached_property
    def accounts(self) -> dict[str, Account]:
        """The accounts that have a name, by name."""
        return {account.name: account for account in map(_account, self.tree.iterfind("accounts/account"))
                if account.name}

    @functools.cached_property
    def groups(self) -> dict[str, Group]:
        """The groups that have a name, by name."""
        return {group.name: group for group in map(_group, self.tree.iterfind("accounts/group")) if group.name}

    def clients(self) -> list[Client]:
        """All clients, also those of resellers."""
        return [Client(element.get("name"), element)
                for element in self.tree.iterfind(".//client") if element.getparent().tag in ("dump", "reseller")]

    def domains(self) -> list[Domain]:
        """All domains; those without a client come last."""
        found = [domain for client in self.clients() for domain in _domains(client.element, client.name)]
        unassigned = self.tree.find("unassigned")
        return found if unassigned is None else found + list(_domains(unassigned, ""))

    def contents(self, of: Element) -> list[Element]:
        """The elements `content` of an object that are archives, so without the lists of problems."""
        return [content for content in of.iterfind("content") if content.get("kind") != "problems"]

    def client_of(self, element: Element) -> str:
        """The name of the client that contains an element; empty if there is none."""
        return next((str(above.get("name")) for above in element.iterancestors("client")), "")

    def domain_of(self, element: Element) -> str:
        """The name of the domain that contains the element, or that it is; empty if there is none."""
        around = [element, *element.iterancestors()]
        return next((str(above.get("name")) for above in around if above.tag == "domain"), "")


def _domains(owner: Element, client: str) -> Iterator[Domain]:
    for element in owner.iterfind("domain"):
        yield Domain(element.get("name"), tuple(name.text or "" for name in element.iterfind("name")), client, element)


def _account(element: Element) -> Account:
    uid = int(element.get("uid"))
    return Account(element.get("name", ""), uid, int(element.get("gid", "-1")), element.get("group", ""),
                   element.get("home", ""), element.get("shell", ""), element.get("system") == "yes")


def _group(element: Element) -> Group:
    return Group(element.get("name", ""), int(element.get("gid")),
                 tuple(member.text or "" for member in element.iterfind("member")))


def _check(tree: Element, path: Path) -> None:
    if tree.tag != "dump" or tree.get("agent") != "linux":
        raise RestoreError(f"{path} is no description of the agent linux: only what it dumps can be restored")
    if tree.get("version") not in _VERSIONS:
        raise RestoreError(f"{path} has version {tree.get('version')}; this release restores version {_VERSIONS[0]}")
    schema = _schema()
    if not schema.validate(tree):
        first = schema.error_log[0]
        raise RestoreError(f"{path}, line {first.line}: not as descriptions are: {first.message}")


def _schema() -> Element:
    above = Path(__file__).resolve().parent.parent
    # An installed schema lies next to the package; that of a source checkout is in docs/.
    for path in (above / _SCHEMA, above.parent / "docs" / "formats" / _SCHEMA):
        if path.exists():
            return etree.XMLSchema(etree.parse(str(path)))
    raise RestoreError(f"{above / _SCHEMA} is missing: the installation is not complete")


def files_of(content: Element) -> list[Element]:
    """The elements of all files of an archive: itself, then its increments in order, each after its list of vanished
    names."""
    files = [content]
    for increment in content.iterfind("increment"):
        files += [*increment.iterfind("gone"), increment]
    return files


def archive_sum_of(content: Element) -> str:
    """A text that changes when the archive or one of its increments changes."""
    return "+".join(str(file.get("md5sum")) for file in files_of(content))


def unpacked_of(content: Element) -> int:
    """The bytes of an archive and its increments without compression."""
    return sum(int(file.get("unpacked")) for file in files_of(content))


def is_below(path: str, root: str) -> bool:
    """Whether an absolute path is `root` or lies below it. RestoreError for a path that is not absolute."""
    return components(path)[:len(components(root))] == components(root)

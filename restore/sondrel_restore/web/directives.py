"""Reads web servers' directives from the description, and writes them for the servers."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterable, Iterator
from urllib.parse import unquote_to_bytes

from sondrel_restore.description import Element
from sondrel_restore.kind import RestoreError

# Control characters: servers do not read them back unchanged, or end the line there.
_CONTROLS = re.compile(r"[\x00-\x08\x0a-\x1f\x7f]")

# Words that nginx reads unchanged without quotes.
_PLAIN_WORD = re.compile(r"[A-Za-z0-9_./:@*=,+$^~|?!()\[\]&%-]+")

_NAME = re.compile(r"[A-Za-z][A-Za-z0-9_-]*")


@dataclasses.dataclass(frozen=True)
class Directive:
    """A directive; `block` is None if it has no block. Bytes that are no UTF-8 are surrogates in the texts."""

    name: str
    args: tuple[str, ...]
    file: str
    line: int
    raw: str | None = None
    text: str | None = None
    block: tuple[Directive, ...] | None = None
    identifier: str = ""

    @property
    def place(self) -> str:
        """Its file and line on the source host."""
        return f"{self.file}:{self.line}"

    def within(self) -> Iterator[Directive]:
        """The directive itself and all directives in its block, at any depth."""
        yield self
        for inner in self.block or ():
            yield from inner.within()


def read(element: Element, above: str = "") -> Directive:
    """A directive of the description; `above` is the file of the directive that contains it."""
    file = str(element.get("file") or above)
    children = tuple(read(child, file) for child in element.iterfind("directive"))
    return Directive(
        name=str(element.get("name")),
        args=tuple(_exact(arg) for arg in element.iterfind("arg")),
        file=file,
        line=int(element.get("line")),
        raw=_optional(element.find("raw")),
        text=_optional(element.find("text")),
        block=children if element.get("block") == "yes" or children else None,
        identifier=str(element.get("id") or ""),
    )


def _optional(element: Element) -> str | None:
    return None if element is None else _exact(element)


def _exact(element: Element) -> str:
    text = str(element.text or "")
    if element.get("encoded") != "percent":
        return text
    return unquote_to_bytes(text).decode("utf-8", "surrogateescape")


def one_line(text: str) -> str:
    """A text of the source host, made safe for a comment: without characters that end the line."""
    return re.sub(r"[\x00-\x1f\x7f]", "?", text)


def to_bytes(text: str) -> bytes:
    """The bytes of a configuration text for a file."""
    return text.encode("utf-8", "surrogateescape")


def for_nginx(directives: Iterable[Directive], indent: str = "") -> str:
    """The directives in nginx's syntax. RestoreError if one cannot be written unambiguously."""
    return "".join(_nginx_lines(directive, indent) for directive in directives)


def _nginx_lines(directive: Directive, indent: str) -> str:
    if "\0" in "".join((directive.name, *directive.args)):
        raise RestoreError(f"{directive.place}: a byte that no configuration can hold")
    words = " ".join(_nginx_word(word) for word in (directive.name, *directive.args))
    if directive.text is not None:
        return f"{indent}{words} {{{directive.text}}}\n"
    if directive.block is None:
        return f"{indent}{words};\n"
    return f"{indent}{words} {{\n{for_nginx(directive.block, indent + '    ')}{indent}}}\n"


def _nginx_word(word: str) -> str:
    if _PLAIN_WORD.fullmatch(word) and not word.startswith("${") and "${" not in word:
        return word
    return '"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"'


def for_apache(directives: Iterable[Directive], indent: str = "") -> str:
    """The directives in Apache's syntax. RestoreError if one cannot be written unambiguously."""
    return "".join(_apache_lines(directive, indent) for directive in directives)


def _apache_lines(directive: Directive, indent: str) -> str:
    rest = apache_rest(directive)
    if _CONTROLS.search(rest) or rest.endswith("\\") or not _NAME.fullmatch(directive.name):
        raise RestoreError(f"{directive.place}: \"{directive.name}\" cannot be written in one line")
    if directive.block is None:
        return f"{indent}{directive.name} {rest}".rstrip(" ") + "\n"
    inner = for_apache(directive.block, indent + "    ")
    return f"{indent}<{directive.name} {rest}".rstrip(" ") + f">\n{inner}{indent}</{directive.name}>\n"


def apache_rest(directive: Directive) -> str:
    """What follows the directive's name on its line."""
    return directive.raw if directive.raw is not None else " ".join(directive.args)


def quoted_for_apache(word: str) -> str:
    """The word, quoted if needed, so that Apache reads it back unchanged."""
    if re.fullmatch(r"[A-Za-z0-9_./:@*=,+^$|?!()\[\]{}%-]+", word):
        return word
    return '"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"'

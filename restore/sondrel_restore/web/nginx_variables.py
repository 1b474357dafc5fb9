"""Variables of nginx that visitors choose, and paths that could lead upwards by them."""
from __future__ import annotations

import contextlib
import re
from collections.abc import Iterable, Iterator, Sequence

from sondrel_restore.web import nginx_paths
from sondrel_restore.web.directives import Directive
from sondrel_restore.web.judge import Refused

# Of a visitor's making, and nothing that a path may be made of.
_TAINTED = re.compile(r"\$\{?(?:arg_\w+|args\b|query_string\b|cookie_\w+|http_(?!host\b)\w+|request(?:_body|_uri)?\b"
                      r"|remote_user\b|content_type\b|ssl_client_\w+|ssl_server_name\b|upstream_\w+|sent_\w+)")
_VARIABLE = re.compile(r"\$\{?(\w+)")
# nginx takes no name of a host with "/" or "..".
_HOSTS = frozenset(("$host", "$http_host", "$server_name", "$scheme", "$server_port", "$request_method"))


class Variables:
    """What a site's variables are made of, as far as it was found out."""

    def __init__(self) -> None:
        self._tainted: set[str] = set()
        # The groups of the expressions of the locations around.
        self._edges: dict[str, tuple[bool, bool]] = {}

    @contextlib.contextmanager
    def within(self, expression: str) -> Iterator[None]:
        """While a location is looked at that is for an expression; empty for any other block."""
        around = self._edges
        self._edges = {**around, **dict(nginx_paths.groups(expression))}
        try:
            yield
        finally:
            self._edges = around

    def check(self, args: Iterable[str], own: nginx_paths.Edges | None = None) -> None:
        """Refused if a path could be one of a visitor's choice or lead upwards. `own` has the groups of a rule's
        own expression, which has made the numbers.
        """
        own = own or {}
        for arg in args:
            if _TAINTED.search(arg) or any(
                    found in self._tainted and found not in own for found in _VARIABLE.findall(arg)):
                raise Refused(f"{arg} is a path that visitors could choose")
            if nginx_paths.leads_upwards(arg, {**self._edges, **own}):
                raise Refused(f"{arg} is a path that could lead upwards")

    def find(self, block: Directive, definitions: Sequence[Directive]) -> None:
        """Finds variables that are made of what a visitor sends, also by way of others, or that could lead upwards."""
        for _ in range(10):
            before = len(self._tainted)
            for definition in definitions:
                self._find_tainted_by(definition)
            for each in block.within():
                if each.name == "auth_request_set" and each.args:
                    self._tainted.add(each.args[0].lstrip("$"))
                elif each.name == "set" and len(each.args) == 2 and (
                        self._is_tainted(each.args[1]) or has_dots(each.args[1])
                        or nginx_paths.leads_upwards(each.args[1], {})):
                    self._tainted.add(each.args[0].lstrip("$"))
                elif each.name == "if" and len(each.args) > 2:
                    self._taint_groups(each.args[0].lstrip("("), " ".join(each.args[2:]).removesuffix(")"))
                elif each.name == "rewrite" and each.args:
                    self._taint_groups("$uri", each.args[0])
            if len(self._tainted) == before:
                return

    def _find_tainted_by(self, definition: Directive) -> None:
        """A variable of a map, and the groups of its expressions: the last one that was looked at makes the numbers."""
        if definition.name not in ("map", "geo", "split_clients") or not definition.args:
            return
        for value in definition.block or ():
            if any("$" in arg or has_dots(arg) for arg in value.args):
                self._tainted.add(definition.args[-1].lstrip("$"))
            if value.name.startswith("~"):
                self._taint_groups(definition.args[0], value.name.lstrip("~*"))

    def _taint_groups(self, source: str, expression: str) -> None:
        if source in _HOSTS:
            return
        for name, edges in nginx_paths.groups(expression):
            if self._is_tainted(source) or edges != (True, True):
                self._tainted.add(name)

    def _is_tainted(self, text: str) -> bool:
        return bool(_TAINTED.search(text)) or any(found in self._tainted for found in _VARIABLE.findall(text))


def has_dots(text: str) -> bool:
    """Whether a part of a path is one that leads to itself or upwards."""
    return not {".", ".."}.isdisjoint(text.split("/"))

"""Decides whether a path of nginx with variables in it could lead upwards.

nginx resolves ".." only in the URL of a request, not in a path that contains variables, nor in the result of a rewrite.
So each component of a path must have more than dots, whatever the values of the variables.
"""
from __future__ import annotations

import re
from collections.abc import Iterator, Mapping

# Whether the text that a group matches begins and ends at a slash or at an end of the path.
Edges = Mapping[str, tuple[bool, bool]]

_VARIABLE = re.compile(r"\$(?:\{(\w+)\}|(\w+))")
# The values of these begin with "/" and have no ".." component.
_WHOLE = re.compile(r"\$\{?(?:document_root|realpath_root|request_filename|uri|document_uri|fastcgi_\w+)\b\}?")
# Patterns that match no dot.
_DOTLESS = re.compile(r"(?:\\[dws-]|\[(?!\^)[^\].\\]*(?:\\[dws-][^\].\\]*)*\]|[A-Za-z0-9_%~-]|[|+*?(){},])*")
_NAME = re.compile(r"\?P?[<'](\w+)[>']")
_TO_THE_END = (".*", ".+", "[^/]*", "[^/]+")


def leads_upwards(path: str, edges: Edges) -> bool:
    """Whether a component of the path may become "..". `edges` are those of the groups that its variables stand for."""
    for part in _WHOLE.sub("/v", path).split("/"):
        variables = list(_VARIABLE.finditer(part))
        if part == ".." or any(_is_loose(part, variable, edges) for variable in variables):
            return True
        literal = _VARIABLE.sub("", part)
        if not literal.strip(".") and variables and (literal or len(variables) > 1):
            return True
    return False


def _is_loose(part: str, variable: re.Match[str], edges: Edges) -> bool:
    begins, ends = edges.get(variable[1] or variable[2], (True, True))
    before = _VARIABLE.split(part[:variable.start()])[-1]
    after = _VARIABLE.split(part[variable.end():])[0]
    return not (begins or before.strip(".")) or not (ends or after.strip("."))


def groups(expression: str) -> Iterator[tuple[str, tuple[bool, bool]]]:
    """The groups of a regular expression for a path, by number and by name, with their edges."""
    number = 0
    for start in _openings(expression):
        name = _NAME.match(expression, start + 1)
        if expression[start + 1:start + 2] == "?" and not name:
            continue
        number += 1
        end = _closing(expression, start)
        inner = expression[name.end() if name else start + 1:end]
        edge = (True, True) if _DOTLESS.fullmatch(inner) else (
            start == 0 or expression[start - 1] in "/^" or inner.startswith("/"),
            _ends_a_part(inner, re.sub(r"\A(?:[?*+]|\{[0-9,]*\})", "", expression[end + 1:])))
        yield str(number), edge
        if name:
            yield name[1], edge


def _ends_a_part(inner: str, rest: str) -> bool:
    if not rest:
        return inner.endswith(_TO_THE_END)
    return re.match(r"/|\$|\((?:\?P?[<'][^>']*[>']|\?:)?/", rest) is not None


def _openings(expression: str) -> Iterator[int]:
    for kind, place in _marks(expression):
        if kind == "(":
            yield place


def _closing(expression: str, start: int) -> int:
    depth = 0
    for kind, place in _marks(expression):
        if place >= start:
            depth += 1 if kind == "(" else -1
            if not depth:
                return place
    return len(expression)


def _marks(expression: str) -> Iterator[tuple[str, int]]:
    """The parentheses that delimit groups: not escaped, and not in a bracket expression."""
    for match in re.finditer(r"\\.|\[\^?\]?(?:\\.|[^\]\\])*\]|[()]", expression, re.DOTALL):
        if match[0] in ("(", ")"):
            yield match[0], match.start()

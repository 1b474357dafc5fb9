"""Directives of Apache as they are written: others than the source host's, or with other arguments."""
from __future__ import annotations

import dataclasses
import re

from sondrel_restore.web.directives import Directive, quoted_for_apache
from sondrel_restore.web.judge import Refused


def made(near: Directive, name: str, rest: str, *inner: Directive) -> Directive:
    """A directive that the source host does not have."""
    return Directive(name, (), near.file, near.line, raw=rest, block=inner or None)


def written(directive: Directive, args: tuple[str, ...]) -> Directive:
    """The directive with arguments that were checked, and nothing of the line that they stood on."""
    return dataclasses.replace(directive, args=args, raw=" ".join(quoted_for_apache(arg) for arg in args))


def rewrite_written(directive: Directive, args: tuple[str, ...]) -> Directive:
    """As `written`, for a rule: Apache takes no backslashes away from the words of this directive.

    Raises Refused if they cannot be written.
    """
    words: list[str] = []
    for arg in args:
        if re.search(r"(?<!\\)\s", arg) or not arg:
            if '"' in arg:
                raise Refused("it cannot be written in one line")
            arg = f'"{arg}"'
        words.append(arg)
    return dataclasses.replace(directive, args=args, raw=" ".join(words))

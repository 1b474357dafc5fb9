"""Where server blocks of nginx listen, and how "listen" is written for the release here."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterable

from sondrel_restore.web.directives import Directive
from sondrel_restore.web.judge import Refused


def listen_parts(address: str) -> tuple[str, int]:
    """Address and port, "*" and 80 where they are not said. Raises Refused if it is neither."""
    match = re.fullmatch(
        r"(?:(?P<port>[0-9]{1,5})|(?P<host>\[[0-9A-Fa-f:.]+\]|[A-Za-z0-9.*-]+)(?::(?P<at>[0-9]{1,5}))?)", address)
    if not match:
        raise Refused(f"{address} is no address and port")
    port = int(match["port"] or match["at"] or 80)
    if not 0 < port < 65536:
        raise Refused(f"{address} has no port")
    host = match["host"] or "*"
    return ("*" if host == "0.0.0.0" else host), port


def http2_by_listen(block: tuple[Directive, ...]) -> tuple[Directive, ...]:
    """What releases before 1.25.1 have in place of the directive "http2"."""
    is_on = any(each.name == "http2" and each.args == ("on",) for each in block)
    kept = tuple(each for each in block if each.name != "http2")
    if not is_on:
        return kept
    return tuple(dataclasses.replace(each, args=(*each.args, "http2"))
                 if each.name == "listen" and "ssl" in each.args and "http2" not in each.args else each
                 for each in kept)


def ports_of(blocks: Iterable[Directive]) -> frozenset[int]:
    """The ports that server blocks listen at; 80 where they do not say."""
    found: set[int] = set()
    for block in blocks:
        for inner in block.block or ():
            if inner.name == "listen" and inner.args:
                try:
                    found.add(listen_parts(inner.args[0])[1])
                except Refused:
                    continue
    return frozenset(found or {80})

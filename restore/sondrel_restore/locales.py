"""Locales that this host has, and how it gets others."""
from __future__ import annotations

import re

from sondrel_restore.host import Host

_OF_ALL = frozenset(("", "c", "posix", "c.utf8"))
# Letters of a name, with a territory, a set of characters and a variant.
_FORM = re.compile(r"[A-Za-z]{2,8}(?:_[A-Za-z]{2,4})?(?:\.[A-Za-z0-9-]+)?(?:@[a-z]+)?")


def locales_here(host: Host) -> frozenset[str]:
    """Those that programs here can use, as `plain` has them."""
    return _OF_ALL | {plain(line) for line in host.run(["locale", "-a"]).stdout.splitlines()}


def plain(locale: str) -> str:
    """One way to write a name that is written in several."""
    name, dot, rest = locale.strip().lower().partition(".")
    return name + dot + rest.replace("-", "")


def is_locale(text: str) -> bool:
    """Whether a text is a name of a locale other than "C"."""
    return _FORM.fullmatch(text) is not None


def remedy(locale: str) -> str:
    """How this host gets it, as a clause for a person."""
    line = re.sub(r"\.utf-?8\b", ".UTF-8", locale, flags=re.IGNORECASE)
    return (f"install the package locales, take the \"#\" away before the line of /etc/locale.gen that begins with"
            f" {line}, and run locale-gen")

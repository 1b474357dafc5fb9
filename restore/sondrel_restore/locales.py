"""The locales of this host, and how to add others."""
from __future__ import annotations

import re

from sondrel_restore.host import Host

_OF_ALL = frozenset(("", "c", "posix", "c.utf8"))
# A language, then optionally a territory, a character set and a modifier.
_FORM = re.compile(r"[A-Za-z]{2,8}(?:_[A-Za-z]{2,4})?(?:\.[A-Za-z0-9-]+)?(?:@[a-z]+)?")


def locales_here(host: Host) -> frozenset[str]:
    """The locales that programs here can use, in the form of `plain`."""
    return _OF_ALL | {plain(line) for line in host.run(["locale", "-a"]).stdout.splitlines()}


def plain(locale: str) -> str:
    """The one form of a locale's name for comparisons: "de_DE.UTF-8" and "de_DE.utf8" are the same."""
    name, dot, rest = locale.strip().lower().partition(".")
    return name + dot + rest.replace("-", "")


def is_locale(text: str) -> bool:
    """Whether the text is the name of a locale other than "C"."""
    return _FORM.fullmatch(text) is not None


def remedy(locale: str) -> str:
    """How to add the locale to this host, as a clause for a person."""
    line = re.sub(r"\.utf-?8\b", ".UTF-8", locale, flags=re.IGNORECASE)
    return (f"install the package locales, take the \"#\" away before the line of /etc/locale.gen that begins with"
            f" {line}, and run locale-gen")

"""Makes of virtual hosts of the source host's Apache those that go in here.

Which directives are taken says apache_directives, and apache_arguments how their arguments are checked.
"""
from __future__ import annotations

import dataclasses
import fnmatch
import os
import re
from collections.abc import Iterable

from sondrel_restore.hostfiles import components
from sondrel_restore.kind import RestoreError
from sondrel_restore.web.apache_arguments import ApacheArguments
from sondrel_restore.web.apache_directives import FILES, PLAIN, SECTIONS, instead_of
from sondrel_restore.web.apache_writing import made, rewrite_written, written
from sondrel_restore.web.directives import Directive, apache_rest
from sondrel_restore.web.judge import Judge, Refused, is_loopback

# What a web server would say of a file or of its own environment to visitors.
_READS = re.compile(r"\b(?:file|filesize|osenv)\s*\(|%\{(?:file|filesize|osenv):", re.IGNORECASE)


class ApacheRules:
    """Makes of a virtual host of the source host one that goes in here, with the definitions that it uses.

    `roots` are the directories that the site serves, as its DocumentRoot and aliases say. `addresses` are this host's
    own. `php` is how the site's PHP was run ("module", "fpm"), empty where it had none.
    """

    def __init__(self, arguments: ApacheArguments, *, roots: tuple[str, ...], addresses: frozenset[str],
                 php: str = "module") -> None:
        self._arguments, self._judge = arguments, arguments.judge
        self._roots = roots
        self._addresses = addresses
        self._php = php

    def virtual_host(self, block: Directive, uses: Iterable[Directive]) -> Directive:
        """The virtual host; definitions are put into it, so that their names meet no others of this host."""
        inner: list[Directive] = []
        for use in sorted(uses, key=_depth):
            inner += self._narrowed(use) if use.name == "directory" else self._taken_or_instead(use)
        for directive in block.block or ():
            inner += self._taken_or_instead(directive)
        if self._arguments.has_php and self._php != "module" and not self._judge.trust:
            inner += self._without_module(block)
        at = tuple(self._address(arg) for arg in block.args)
        return dataclasses.replace(block, args=at, raw=None, block=tuple(inner))

    def _without_module(self, block: Directive) -> list[Directive]:
        """PHP as a module runs the programs of all virtual hosts, as the web server, unless one says otherwise."""
        off = made(block, "ifmodule", "php_module", made(block, "php_admin_flag", "engine off"))
        if self._php or any(each.name in ("sethandler", "addhandler") for each in block.within()):
            return [off]
        self._judge.changed.append("programs in PHP are refused, since it had no PHP on the source host")
        return [off, made(block, "filesmatch", r'"\.ph[apt][rm]?l?$"', made(block, "require", "all denied"))]

    def _address(self, arg: str) -> str:
        host, colon, port = arg.rpartition(":")
        if not colon or "]" in port:
            host, port = arg, ""
        if not re.fullmatch(r"[0-9]{1,5}|\*|", port):
            raise RestoreError(f"{arg} is no address")
        if host not in ("*", "_default_") and host.strip("[]") not in self._addresses and not is_loopback(host):
            self._judge.changed.append(f"answers at *:{port} in place of {arg}, which is no address of this host")
            host = "*"
        return f"{host}:{port}" if port else host

    def _taken_or_instead(self, directive: Directive) -> list[Directive]:
        if self._judge.trust:
            return [self._trusted(directive)]
        try:
            return [self._taken(directive)]
        except Refused as refused:
            self._judge.leave_out(directive, str(refused))
            return instead_of(directive)

    def _taken(self, directive: Directive) -> Directive:
        name = directive.name
        if _READS.search(apache_rest(directive)):
            raise Refused("it would tell visitors what is in a file or variable of this host")
        if directive.block is not None:
            return self._section(directive)
        if name in PLAIN:
            return directive
        args = self._arguments.checked(name, directive.args)
        return rewrite_written(directive, args) if name == "rewriterule" else written(directive, args)

    def _section(self, directive: Directive) -> Directive:
        if directive.name == "directory":
            path = self._judge.served_path(_path_of(directive).rstrip("/") or "/")
            directive = written(directive, (path,))
        elif directive.name == "proxy" and directive.args and directive.args[0].startswith("balancer://"):
            pass
        elif directive.name not in SECTIONS:
            raise Refused("this section is not among those that are taken")
        inner = [each for child in directive.block or () for each in self._taken_or_instead(child)]
        return dataclasses.replace(directive, block=tuple(inner))

    def _narrowed(self, directive: Directive) -> list[Directive]:
        """A section for directories: for those of the site alone, where it is for more than was restored."""
        path = _path_of(directive).rstrip("/")
        try:
            self._judge.served_path(path or "/")
            if not re.search(r"[*?\[]", path):
                return self._taken_or_instead(directive)
        except Refused:
            pass
        found: list[Directive] = []
        for root in self._roots:
            if _covers(path, root):
                found += self._taken_or_instead(written(directive, (root,)))
        return found

    def _trusted(self, directive: Directive) -> Directive:
        if directive.name in FILES and directive.args and directive.args[0] in self._judge.files:
            return written(directive, (str(self._judge.files[directive.args[0]]),))
        if directive.name == "sethandler" and directive.args:
            try:
                return written(directive, self._arguments.check_handler("sethandler", directive.args))
            except Refused:
                return directive
        if directive.block is None:
            return directive
        return dataclasses.replace(directive, block=tuple(self._trusted(inner) for inner in directive.block))


def _path_of(section: Directive) -> str:
    if len(section.args) != 1 or not section.args[0].startswith("/"):
        raise Refused("it is for no directory")
    return section.args[0]


def _depth(directive: Directive) -> int:
    return directive.args[0].rstrip("/").count("/") if directive.name == "directory" and directive.args else 0


def _covers(pattern: str, path: str) -> bool:
    """Whether a section for a directory holds for a path below it, too."""
    words, names = [word for word in pattern.split("/") if word], components(path)
    return len(words) <= len(names) and all(fnmatch.fnmatchcase(name, word) for word, name in zip(words, names))


def roots_of(judge: Judge, block: Directive) -> tuple[str, ...]:
    """The directories that a virtual host serves and that may be served here."""
    found: list[str] = []
    for each in block.within():
        path = each.args[-1] if each.name in ("documentroot", "alias") and each.args else ""
        try:
            found += [judge.served_path(path.rstrip("/"))] if path.startswith("/") else []
        except Refused:
            continue
    return tuple(dict.fromkeys(os.path.normpath(path) for path in found))

"""Certificates with their keys, and other single files that the blocks of a site name.

They go into a directory of this program, not to their old paths: those mean nothing here, and may lead through links.
The kinds of web servers write the new paths into the blocks. The renewal settings of certificate programs name
commands that root would run, so they are only reported and stay in the archive.
"""
from __future__ import annotations

import dataclasses
import os
from collections.abc import Iterable, Iterator

from sondrel_restore.description import Domain, Element, archive_sum_of
from sondrel_restore.host import Host, group_of
from sondrel_restore.hostfiles import components, content_here, sum_of_bytes
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Finding, Item, Missing, RestoreError, State
from sondrel_restore.restore import Restore
from sondrel_restore.web.config_kind import Candidate, ConfigKind, sums
from sondrel_restore.web.directives import Directive, read, to_bytes
from sondrel_restore.web.judge import file_name
from sondrel_restore.web.service import reload_web_servers

_PLACE = "/etc/sondrel-restore/certificates"
_LARGEST = 4 << 20

# Directives in lower case, by the content of their files. Apache allows the key in the certificate's file.
_CERTIFICATES = frozenset(("ssl_certificate", "sslcertificatefile", "proxy_ssl_certificate"))
_KEYS = frozenset(("ssl_certificate_key", "sslcertificatekeyfile", "proxy_ssl_certificate_key"))
_PUBLIC = frozenset(("ssl_trusted_certificate", "ssl_client_certificate", "ssl_crl", "ssl_dhparam",
                     "proxy_ssl_trusted_certificate", "ssl_stapling_file", "sslcertificatechainfile",
                     "sslcacertificatefile", "sslcarevocationfile"))
_PASSWORDS = frozenset(("auth_basic_user_file", "authuserfile", "authgroupfile", "authdigestfile"))
_ALL = _CERTIFICATES | _KEYS | _PUBLIC | _PASSWORDS


@dataclasses.dataclass(frozen=True)
class _Named:
    """A file that a site names, and the directive that names it."""

    path: str
    directive: str


class Certificate(ConfigKind):
    """The certificates, keys and password files of a site."""

    name = "certificate"

    def candidates(self, restore: Restore) -> Iterator[Candidate]:
        for domain in restore.description.domains():
            site = domain.element.find("site")
            if site is None:
                continue
            named = list(_named(site))
            if named:
                yield self._candidate(restore, domain, site, named)

    def _candidate(self, restore: Restore, domain: Domain, site: Element, named: list[_Named]) -> Candidate:
        base = Candidate(
            domain.name, "", {}, domains=frozenset((domain.name,)),
            clients=frozenset((domain.client,)) if domain.client else frozenset())
        directory = f"{_PLACE}/{file_name(domain.name)}"
        source = _source(restore, domain, named)
        known = self._known(restore, base, source)
        if known is not None:
            return known
        try:
            found = _contents(restore, domain, [each.path for each in named])
        except RestoreError as error:
            return dataclasses.replace(base, files={f"{directory}/none": b""}, impossible=str(error))
        files: dict[str, bytes] = {}
        modes: dict[str, int] = {}
        here: dict[str, str] = {}
        notes: list[str] = []
        for each in named:
            if each.path not in found:
                notes.append(f"{each.path} is in no archive of this site")
                continue
            path = f"{directory}/{_short(each.path)}"
            files[path], here[each.path] = found[each.path], path
            modes[path] = min(modes.get(path, 0o644), _mode(each.directive, found[each.path]))
        if not files:
            return dataclasses.replace(base, files={f"{directory}/none": b""}, impossible=notes[0])
        why = _do_not_fit(restore.host, site, found)
        warnings = [why] if why else []
        warnings += [f"renewal by {each.get('program')} is not set up: see the archive, and run the program once here"
                     for each in site.iterfind("tls/renewal")]
        notes += warnings
        says = "; ".join([f"{len(files)} files of certificates, keys and passwords", *warnings])
        return dataclasses.replace(base, says=says, files=files, modes=modes, notes=tuple(notes),
                                   facts={"source": source, "here": here, "passwords": sorted(
                                       here[each.path] for each in named
                                       if each.directive in _PASSWORDS and each.path in here)})

    def _known(self, restore: Restore, base: Candidate, source: str) -> Candidate | None:
        """What an earlier apply made of the same archives, so that these, which may be large, are not read again."""
        entry = restore.journal.entry(f"{self.name}:{base.name}")
        if entry is None or entry.state != "done" or entry.facts.get("source") != source:
            return None
        files = {path: content_here(path) for path in sums(entry)}
        unchanged = {path: content for path, content in files.items()
                     if content is not None and sum_of_bytes(content) == sums(entry)[path]}
        if len(unchanged) != len(files):
            return None
        return dataclasses.replace(base, says="as it was", files=unchanged, facts=entry.facts)

    def planned(self, restore: Restore, candidate: Candidate) -> None:
        restore.offer("certificate-files", candidate.name, candidate.facts.get("here", {}))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        if not restore.host.has_program("openssl") and any(
                restore.selection.takes_domain(domain.name) and domain.element.find("site/tls") is not None
                for domain in restore.description.domains()):
            yield Missing("openssl", "certificates are held against their keys")

    def apply(self, restore: Restore, item: Item) -> dict[str, object]:
        facts = super().apply(restore, item)
        candidate = item.data
        assert isinstance(candidate, Candidate)
        readers = group_of("www-data")
        passwords = facts.get("passwords")
        for path in passwords if isinstance(passwords, list) and readers is not None else ():
            # The web server's processes read them at each request, as its own account.
            assert readers is not None
            os.chown(str(path), 0, readers.gr_gid, follow_symlinks=False)
        return facts

    def check(self, restore: Restore) -> str:
        return ""

    def reload(self, restore: Restore, entries: list[Entry]) -> None:
        """Reloads running web servers: a renewed certificate changes no blocks, so no other kind would reload them."""
        reload_web_servers(restore.host)

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        entry = restore.journal.entry(item.identifier)
        for path, known in sums(entry).items() if entry is not None else ():
            content = content_here(path)
            is_same = content is not None and sum_of_bytes(content) == known
            yield Finding(item.identifier, path, is_same, "" if is_same else "is not as it was fetched")
        if item.state is State.RENEW:
            yield Finding(item.identifier, "session", False, "the session has a newer one: apply again")


def _named(site: Element) -> Iterator[_Named]:
    """The files that the blocks of a site name, once for each directive."""
    seen: set[_Named] = set()
    for block in site.iterfind("block/directive"):
        for directive in read(block).within():
            each = _of_directive(directive)
            if each is not None and each not in seen:
                seen.add(each)
                yield each


def _of_directive(directive: Directive) -> _Named | None:
    name = directive.name.lower()
    if name not in _ALL or not directive.args or not directive.args[0].startswith("/"):
        return None
    try:
        components(directive.args[0])
    except RestoreError:
        return None
    return _Named(directive.args[0], name)


def _source(restore: Restore, domain: Domain, named: list[_Named]) -> str:
    """A sum that changes whenever the files may have changed."""
    archives = [f"{content.get('file')} {archive_sum_of(content)}"
                for content in restore.description.contents(domain.element)]
    return sum_of_bytes(to_bytes("\n".join([*archives, *(f"{each.directive} {each.path}" for each in named)])))


def _contents(restore: Restore, domain: Domain, paths: Iterable[str]) -> dict[str, bytes]:
    wanted = set(paths)
    found: dict[str, bytes] = {}
    for content in restore.description.contents(domain.element):
        if wanted - found.keys():
            found.update(restore.archive(content).read_all(sorted(wanted - found.keys()), limit=_LARGEST))
    return found


def _short(path: str) -> str:
    """A readable name that is different for each path."""
    return f"{sum_of_bytes(to_bytes(path))[:8]}-{file_name(os.path.basename(path))}"


def _mode(directive: str, content: bytes) -> int:
    if directive in _KEYS or b"PRIVATE KEY" in content:
        return 0o600
    return 0o640 if directive in _PASSWORDS else 0o644


def _do_not_fit(host: Host, site: Element, found: dict[str, bytes]) -> str:
    """Why the certificate and key of a site do not match or are of no use; empty if they are good."""
    tls = site.find("tls")
    if tls is None or not host.has_program("openssl"):
        return ""
    certificate, key = found.get(str(tls.get("certificate"))), found.get(str(tls.get("key")))
    if certificate is None or key is None:
        return ""
    of_certificate = host.run(["openssl", "x509", "-noout", "-pubkey"], input=certificate, check=False)
    of_key = host.run(["openssl", "pkey", "-pubout", "-passin", "pass:"], input=key, check=False)
    if of_certificate.status != 0 or of_key.status != 0:
        return "the certificate or its key cannot be read: get a new one"
    if of_certificate.stdout.strip() != of_key.stdout.strip():
        return "the key does not fit the certificate: get a new one"
    if host.run(["openssl", "x509", "-noout", "-checkend", "0"], input=certificate, check=False).status != 0:
        return "the certificate has expired: get a new one"
    return ""


KINDS = (Certificate,)

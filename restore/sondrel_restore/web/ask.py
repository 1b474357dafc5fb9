"""Sends requests to the sites of this host over loopback, and compares the answers with those of the source host."""
from __future__ import annotations

import contextlib
import dataclasses
import hashlib
import http.client
import re
import socket
import ssl
import threading
from collections.abc import Iterator

from sondrel_restore.kind import Finding
from sondrel_restore.restore import Restore
from sondrel_restore.web.site_data import Site

# Of a body: the agent reads as much.
_MOST_BYTES = 1_048_576
_MOST_OF_TITLE = 200
# In seconds: for a step of the exchange, and for all of it. A page may send a byte now and then, and never end.
_TIME_LIMIT = 15.0
_WHOLE_LIMIT = 60.0
# The agent asks only for such names: not for patterns, nor for names without a dot, as default servers have.
_CAN_BE_ASKED = re.compile(r"[a-z0-9-]+(\.[a-z0-9-]+)+")


@dataclasses.dataclass(frozen=True)
class Request:
    """A GET request as a visitor would send it."""

    name: str
    port: int
    tls: bool
    path: str

    @property
    def url(self) -> str:
        usual = 443 if self.tls else 80
        port = "" if self.port == usual else f":{self.port}"
        return f"{'https' if self.tls else 'http'}://{self.name}{port}{self.path}"


@dataclasses.dataclass(frozen=True)
class Answer:
    """The answer to a request; only `trouble` is set if there was none."""

    status: int = 0
    location: str = ""
    title: str = ""
    size: int = 0
    sum: str = ""
    trouble: str = ""


class _Connection(http.client.HTTPConnection):
    """Connects to an address, with the site's name in Host and SNI. The certificate is not checked."""

    def __init__(self, address: str, request: Request) -> None:
        super().__init__(address, request.port, timeout=_TIME_LIMIT)
        self._request = request
        # `sock` is None as soon as the head of an answer says that the connection is closed behind it.
        self._stream: socket.socket | None = None
        self._is_given_up = threading.Event()

    @contextlib.contextmanager
    def limited(self) -> Iterator[None]:
        """Ends the exchange when _WHOLE_LIMIT is over."""
        watch = threading.Timer(_WHOLE_LIMIT, self._give_up)
        watch.daemon = True
        watch.start()
        try:
            yield
        finally:
            watch.cancel()

    def _give_up(self) -> None:
        self._is_given_up.set()
        if self._stream is not None:
            with contextlib.suppress(OSError):
                self._stream.shutdown(socket.SHUT_RDWR)

    def check_whole(self) -> None:
        """TimeoutError if the exchange was ended: without a length, a body that was cut off looks whole."""
        if self._is_given_up.is_set():
            raise TimeoutError

    def trouble(self, error: Exception) -> str:
        """The reason of a failure, for a person."""
        if self._is_given_up.is_set():
            return f"it has not ended within {_WHOLE_LIMIT:.0f} seconds"
        return str(error) or type(error).__name__

    def connect(self) -> None:
        self.sock = socket.create_connection((self.host, self.port), self.timeout)
        if self._request.tls:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            context.check_hostname = False
            context.verify_mode = ssl.CERT_NONE
            self.sock = context.wrap_socket(self.sock, server_hostname=_sni(self._request.name))
        self._stream = self.sock


def _sni(name: str) -> str | None:
    return None if re.fullmatch(r"[0-9.]+|\[.*\]", name) else name


def ask(address: str, request: Request) -> Answer:
    """The answer of the server at an address. On failure `trouble` has the reason."""
    connection = _Connection(address, request)
    usual = 443 if request.tls else 80
    host = request.name if request.port == usual else f"{request.name}:{request.port}"
    try:
        with connection.limited():
            connection.putrequest("GET", request.path, skip_host=True, skip_accept_encoding=True)
            for name, value in (("Host", host), ("Accept-Encoding", "identity"), ("Accept", "text/html,*/*;q=0.8"),
                                ("User-Agent", "Mozilla/5.0 (sondrel)"), ("Connection", "close")):
                connection.putheader(name, value)
            connection.endheaders()
            response = connection.getresponse()
            body = response.read(_MOST_BYTES)
        connection.check_whole()
    except (OSError, http.client.HTTPException, ValueError) as error:
        return Answer(trouble=connection.trouble(error))
    finally:
        connection.close()
    html = "html" in (response.getheader("Content-Type") or "")
    return Answer(response.status, response.getheader("Location") or "", title_of(body) if html else "", len(body),
                  hashlib.md5(body, usedforsecurity=False).hexdigest())


def title_of(body: bytes) -> str:
    """The text of the page's first element "title", with white space collapsed."""
    found = re.search(rb"<title(?:\s[^>]*)?>(.*?)</title\s*>", body, re.IGNORECASE | re.DOTALL)
    if not found:
        return ""
    text = found[1].decode("utf-8", "replace")
    return re.sub(r"\s+", " ", text).strip()[:_MOST_OF_TITLE]


def compare(restore: Restore, identifier: str, site: Site) -> Iterator[Finding]:
    """Requests the pages of the site here, and compares the answers with those of the source host, recorded or live."""
    expected = _expected(restore, site)
    if not expected and not any(_CAN_BE_ASKED.fullmatch(name) for name in site.names):
        yield Finding(identifier, "/", True, "has no name that can be asked for")
    elif not expected:
        yield Finding(identifier, "/", False,
                      "the description has no answers of the source host; try --against=ADDRESS")
    for address, request, there in expected:
        here = ask(address, request)
        is_same, says = judged(here, there)
        yield Finding(identifier, request.url, is_same, says)


def _expected(restore: Restore, site: Site) -> list[tuple[str, Request, Answer]]:
    found = []
    for element in site.element.iterfind("answer"):
        request = Request(
            element.get("name"), int(element.get("port")), element.get("tls") == "yes", element.get("path"))
        if not re.fullmatch(r"/[\x21-\x7e]*", request.path) or not re.fullmatch(r"[A-Za-z0-9._:\[\]-]+", request.name):
            continue
        there = Answer(int(element.get("status")), element.get("location") or "", element.get("title") or "",
                       int(element.get("size")), element.get("sum"))
        if restore.against:
            there = ask(restore.against, request)
        address = "::1" if ":" in str(element.get("address")) else "127.0.0.1"
        found.append((address, request, there))
    return found or _without_answers(restore, site)


def _without_answers(restore: Restore, site: Site) -> list[tuple[str, Request, Answer]]:
    if not restore.against:
        return []
    ports = {(int(listen.get("port")), listen.get("tls") == "yes") for listen in site.element.iterfind("listen")
             if str(listen.get("port")).isdigit()}
    requests = [Request(name, port, tls, "/") for name in site.names if re.fullmatch(r"[a-z0-9.-]+", name)
                for port, tls in sorted(ports or {(80, False)})]
    return [("127.0.0.1", request, ask(restore.against, request)) for request in requests]


def judged(here: Answer, there: Answer) -> tuple[bool, str]:
    """Whether two answers are the same for a visitor, and a text that says how they compare."""
    if there.trouble:
        return False, f"the source host does not answer: {there.trouble}"
    if here.trouble:
        return False, f"no answer here: {here.trouble}"
    if here.status != there.status:
        return False, f"status {here.status} in place of {there.status}"
    if here.location != there.location:
        return False, f"leads to {here.location or 'nowhere'} in place of {there.location or 'nowhere'}"
    if here.sum == there.sum:
        return True, "same bytes"
    if here.title != there.title:
        return False, f"title \"{here.title}\" in place of \"{there.title}\""
    if there.title:
        return True, f"same status and title, other bytes ({here.size} in place of {there.size})"
    return False, f"other bytes ({here.size} in place of {there.size}), and no title to tell the page by"

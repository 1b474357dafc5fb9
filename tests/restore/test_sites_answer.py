"""Whole sites with the program: files, account, pool, web servers; then the answers to visitors are compared."""
import contextlib
import hashlib
import os
import socket
import tarfile
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc, snapshot
from lxml import etree
from made_session import Member, MadeSession, made_of
from sondrel_restore.description import Description, Domain
from sondrel_restore.kinds.pool import versions
from sondrel_restore.restore import Restore
from sondrel_restore.selection import Decisions, Selection
from sondrel_restore.session import Session
from sondrel_restore.web import ask as asking
from sondrel_restore.web.ask import Answer, Request, compare, judged
from sondrel_restore.web.site_data import Site
from web_world import directive, ended, server, virtual_host

VERSION = versions()[-1]
OWNER = {"uname": "alice", "gname": "alice", "uid": 30001, "gid": 30001}
PAGE = b"<title>shop</title>"
PHP = (
    f'<php version="{VERSION}" handler="fpm" pool="alice" user="alice" listen="unix:/run/php/alice.sock">'
    '<setting name="memory_limit">99M</setting></php>'
)
CONFIGURATION = '<web-configuration name="{0}1" server="{0}" file="/etc/{0}/main.conf">{1}</web-configuration>'


@pytest.fixture(name="host")
def _host(session: MadeSession) -> Iterator[MadeSession]:
    for name in ("nginx", "apache2", "php"):
        own_etc(name)
    for place in ("/var/log/apache2", "/run/apache2", "/run/lock"):
        os.makedirs(place, exist_ok=True)
    with ended("/run/nginx.pid", "/run/apache2/apache2.pid", f"/run/php/php{VERSION}-fpm.pid"):
        yield session


def answer(
    path: str, body: bytes, *, status: int = 200, title: str = "", name: str = "shop.test", port: int = 80
) -> str:
    """An answer of the source host, for the description."""
    title = f' title="{title}"' if title else ""
    return (
        f'<answer name="{name}" address="127.0.0.1" port="{port}" tls="no" path="{path}" status="{status}"{title}'
        f' size="{len(body)}" sum="{hashlib.md5(body).hexdigest()}" whole="yes"/>'
    )


def add(session: MadeSession, block: str, configuration: str, answers: str, uses: str = "") -> None:
    """Adds the site shop.test of alice, with a program in PHP."""
    files = made_of(
        Member("./home/alice", type=tarfile.DIRTYPE, **{**OWNER, "mode": 0o711}),
        Member("./home/alice/shop", type=tarfile.DIRTYPE, **OWNER),
        Member("./home/alice/shop/index.html", PAGE, **OWNER),
        Member(
            "./home/alice/shop/who.php",
            b"<?php echo '<title>', get_current_user(), ' ', ini_get('memory_limit'),"
            b" '</title>', microtime(true);",
            **OWNER,
        ),
    )
    alice = session.add_client("alice", 30001)
    session.add_site(
        alice, "shop.test", "/home/alice/shop", session.content("site", "content/sites/shop.test.tar.gz", files)
    )
    site = session.tree.find(".//site")
    site.insert(0, session.add(PHP, site))
    session.add(f'<block configuration="{configuration}"{uses}>{block}</block>', site)
    for each in answers.replace("/>", "/>\n").splitlines():
        session.add(each, site)


def run_through(session: MadeSession) -> None:
    """Plans, applies, verifies and undoes, and checks each result."""
    before = snapshot("/etc/nginx", "/etc/apache2", "/etc/php", "/home")
    session.run("plan", check=0)
    session.run("apply", check=0)
    told = session.run("verify", check=0).stdout
    assert "http://shop.test/who.php" in told or "same" in told
    assert "0 changed" in session.run("apply", check=0).stdout
    site = session.tree.find(".//site")
    site.find("answer").set("status", "404")
    assert "in place of 404" in session.run("verify").stdout
    session.run("undo", check=0)
    assert snapshot("/etc/nginx", "/etc/apache2", "/etc/php", "/home") == before


ANSWERS = answer("/", PAGE, title="shop") + answer("/who.php", b"another moment", title="alice 99M")


def test_a_site_of_nginx_answers_as_it_did(host: MadeSession) -> None:
    host.add(CONFIGURATION.format("nginx", ""))
    add(
        host,
        server(
            directive("listen", "80"),
            directive("server_name", "shop.test"),
            directive("root", "/home/alice/shop"),
            directive(
                "location",
                "~",
                r"\.php$",
                block=[
                    directive("fastcgi_pass", "unix:/run/php/alice.sock"),
                    directive("fastcgi_param", "SCRIPT_FILENAME", "$document_root$fastcgi_script_name"),
                    directive("fastcgi_param", "REQUEST_METHOD", "$request_method"),
                ],
            ),
        ),
        "nginx1",
        ANSWERS,
    )
    run_through(host)


def test_a_site_of_apache_answers_as_it_did(host: MadeSession) -> None:
    host.add(
        CONFIGURATION.format(
            "apache",
            directive("directory", "/home/*/shop", block=[directive("require", "all", "granted")], identifier="d1"),
        )
    )
    add(
        host,
        virtual_host(
            directive("servername", "shop.test"),
            directive("documentroot", "/home/alice/shop"),
            directive(
                "filesmatch",
                r"\.php$",
                raw=r'"\.php$"',
                block=[directive("sethandler", "proxy:unix:/run/php/alice.sock|fcgi://localhost")],
            ),
        ),
        "apache1",
        ANSWERS,
        ' uses="d1"',
    )
    host.tree.find(".//site").set("server", "apache")
    run_through(host)


@pytest.mark.parametrize(
    "here, there, is_same, says",
    [
        (Answer(200, "", "a", 5, "x"), Answer(200, "", "a", 5, "x"), True, "same bytes"),
        (Answer(200, "", "a", 5, "x"), Answer(200, "", "a", 6, "y"), True, "same status and title, other bytes"),
        (Answer(200, "", "b", 5, "x"), Answer(200, "", "a", 6, "y"), False, 'title "b" in place of "a"'),
        (Answer(200, "", "", 5, "x"), Answer(200, "", "", 6, "y"), False, "other bytes"),
        (Answer(500, "", "a", 5, "x"), Answer(200, "", "a", 5, "x"), False, "status 500 in place of 200"),
        (Answer(301, "/b", "", 0, "x"), Answer(301, "/a", "", 0, "x"), False, "leads to /b in place of /a"),
        (Answer(trouble="refused"), Answer(200), False, "no answer here: refused"),
    ],
)
def test_answers_are_compared_as_a_visitor_would(here: Answer, there: Answer, is_same: bool, says: str) -> None:
    same, text = judged(here, there)
    assert same is is_same and says in text


@pytest.mark.parametrize("name, is_same", [("default", True), ("shop.test", False)])
def test_a_site_that_has_no_name_is_not_missed_among_the_answers(
    session: MadeSession, name: str, is_same: bool
) -> None:
    session.write()
    description = Description(Path(f"{session.directory}/dump.xml"))
    restore = Restore(Session(session.directory), description, Selection(description, frozenset(), frozenset()),
                      Decisions())
    element = etree.fromstring('<site server="nginx"/>')
    site = Site(Domain(name, (name,), "alice", element), element, ())
    assert [finding.is_same for finding in compare(restore, f"nginx:{name}", site)] == [is_same]


@pytest.mark.parametrize("head", [b"", b"HTTP/1.1 200 OK\r\n\r\n", b"HTTP/1.1 200 OK\r\nContent-Length: 99999\r\n\r\n"])
def test_a_page_that_never_ends_is_given_up(head: bytes, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(asking, "_WHOLE_LIMIT", 0.5)
    is_over = threading.Event()

    def trickle(listener: socket.socket) -> None:
        client, _ = listener.accept()
        with client, contextlib.suppress(OSError):
            client.sendall(head)
            while not is_over.wait(0.05):
                client.sendall(b"x")

    with socket.create_server(("127.0.0.1", 0)) as listener:
        server_thread = threading.Thread(target=trickle, args=(listener,))
        server_thread.start()
        answered = asking.ask("127.0.0.1", Request("shop.test", listener.getsockname()[1], False, "/"))
        is_over.set()
        server_thread.join()
    assert "it has not ended within" in answered.trouble

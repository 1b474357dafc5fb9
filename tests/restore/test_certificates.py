"""Certificates, keys and password files: restored from the site's archive, readable only for those that need them."""
from __future__ import annotations

import grp
import os
import ssl
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc, snapshot
from sondrel_restore.kind import State
from sondrel_restore.kinds.certificate import Certificate
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.web.ask import Request, ask
from sondrel_restore.web.service import wait_until
from web_world import World, directive, ended, server, site

LIVE = "/etc/letsencrypt/live/a.test"
ARCHIVE = "/etc/letsencrypt/archive/a.test"
TLS = (
    f'<tls certificate="{LIVE}/fullchain.pem" key="{LIVE}/privkey.pem">'
    '<renewal program="certbot" name="a.test"/></tls>'
)
BLOCK = server(
    directive("listen", "443", "ssl"),
    directive("server_name", "a.test"),
    directive("root", "/srv/a"),
    directive("ssl_certificate", f"{LIVE}/fullchain.pem"),
    directive("ssl_certificate_key", f"{LIVE}/privkey.pem"),
)


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    own_etc("nginx")
    os.makedirs("/srv/a")
    Path("/srv/a/index.html").write_text("<title>site a</title>", encoding="utf-8")
    world = World(tmp_path / "session")
    world.trees["/srv/a"] = "www-data"
    with ended("/run/nginx.pid"):
        yield world


def pair(name: str = "a.test") -> tuple[bytes, bytes]:
    """A certificate and its key."""
    told = subprocess.run(
        [
            "openssl",
            "req",
            "-x509",
            "-newkey",
            "ec",
            "-pkeyopt",
            "ec_paramgen_curve:P-256",
            "-nodes",
            "-keyout",
            "-",
            "-subj",
            f"/CN={name}",
            "-days",
            "2",
        ],
        capture_output=True,
        check=True,
    ).stdout
    begin = told.index(b"-----BEGIN CERT")
    return told[begin:], told[:begin]


def described(
    world: World,
    certificate: bytes,
    key: bytes,
    *extra: str,
    members: dict[str, bytes | str] | None = None,
    block: str = BLOCK,
) -> None:
    """Describes a site with TLS, with its files as certbot keeps them."""
    content = world.archive(
        "a.test",
        {
            f"{LIVE}/fullchain.pem": "../../archive/a.test/fullchain1.pem",
            f"{LIVE}/privkey.pem": "../../archive/a.test/privkey1.pem",
            f"{ARCHIVE}/fullchain1.pem": certificate,
            f"{ARCHIVE}/privkey1.pem": key,
            **(members or {}),
        },
    )
    world.describe(site("a.test", block, *extra, inside=TLS, contents=content))


def served() -> str:
    """The certificate that visitors get; empty without a TLS server."""
    try:
        return ssl.get_server_certificate(("127.0.0.1", 443))
    except OSError:
        return ""


def test_a_site_has_its_certificate_and_a_renewed_one_is_taken_over(world: World) -> None:
    before = snapshot("/etc/nginx")
    certificate, key = pair()
    described(world, certificate, key)
    plan = world.plan(Certificate, Nginx)
    assert [item.state for item in plan.items] == [State.MAKE, State.MAKE]
    assert "renewal by certbot is not set up" in plan.items[0].says
    assert not world.apply(Certificate, Nginx).failed
    assert ask("127.0.0.1", Request("a.test", 443, True, "/")).title == "site a"
    assert served().strip() == certificate.decode().strip()
    for path in Path("/etc/sondrel-restore/certificates/a.test").iterdir():
        assert (path.stat().st_mode & 0o777, path.stat().st_uid) == ((0o600 if "privkey" in path.name else 0o644), 0)
    archive = world.session / "archives/content/sites/a.test.tar.gz"
    archive.rename(archive.with_suffix(".away"))
    assert world.apply(Certificate, Nginx).changed == []
    renewed, new_key = pair()
    described(world, renewed, new_key)
    assert world.apply(Certificate, Nginx).changed == ["certificate:a.test"]
    wait_until(lambda: served().strip() == renewed.decode().strip(), "nginx gives the new certificate")
    assert not world.undo(Certificate, Nginx).left
    assert snapshot("/etc/nginx") == before and not os.path.exists("/etc/sondrel-restore")


def test_a_key_that_does_not_fit_is_named_and_nginx_puts_the_site_back(world: World) -> None:
    described(world, pair()[0], pair()[1])
    assert "the key does not fit" in world.plan(Certificate).items[0].says
    outcome = world.apply(Certificate, Nginx)
    assert any("a.test" in text for _, text in outcome.failed)
    assert not os.path.lexists("/etc/nginx/sites-enabled/a.test.conf")


def test_a_file_of_passwords_can_be_read_by_the_web_server_alone(world: World) -> None:
    certificate, key = pair()
    block = server(
        directive("listen", "80"),
        directive("server_name", "a.test"),
        directive("root", "/srv/a"),
        directive("auth_basic", "x"),
        directive("auth_basic_user_file", "/etc/nginx/users"),
    )
    described(world, certificate, key, members={"/etc/nginx/users": b"ann:{PLAIN}x\n"}, block=block)
    assert not world.apply(Certificate, Nginx).failed
    assert ask("127.0.0.1", Request("a.test", 80, False, "/")).status == 401
    path = next(Path("/etc/sondrel-restore/certificates/a.test").glob("*-users"))
    about = path.stat()
    assert (about.st_mode & 0o777, about.st_uid, about.st_gid) == (0o640, 0, grp.getgrnam("www-data").gr_gid)


@pytest.mark.parametrize("path", ["/etc/ssl/private/../../shadow", "/etc/shadow", "relative.pem", "/srv/a/none.pem"])
def test_takes_no_file_of_this_host_for_a_certificate(world: World, path: str) -> None:
    block = server(
        directive("listen", "443", "ssl"),
        directive("server_name", "a.test"),
        directive("ssl_certificate", path),
        directive("ssl_certificate_key", path),
    )
    described(world, *pair(), block=block)
    world.apply(Certificate, Nginx)
    assert not os.path.exists("/etc/sondrel-restore/certificates/a.test")
    assert not os.path.lexists("/etc/nginx/sites-enabled/a.test.conf")


def test_a_link_in_the_archive_leads_to_nothing_of_this_host(world: World) -> None:
    described(
        world,
        *pair(),
        members={f"{LIVE}/privkey.pem": "/etc/shadow", f"{LIVE}/fullchain.pem": "../../../../etc/shadow"},
    )
    world.apply(Certificate, Nginx)
    assert not os.path.exists("/etc/sondrel-restore/certificates/a.test")


def test_a_link_of_another_account_in_the_way_is_not_followed(world: World) -> None:
    os.makedirs("/etc/sondrel-restore")
    os.chown("/etc/sondrel-restore", 1500, 1500)
    os.symlink("/srv", "/etc/sondrel-restore/certificates")
    os.lchown("/etc/sondrel-restore/certificates", 1500, 1500)
    described(world, *pair())
    item = world.plan(Certificate).items[0]
    assert item.state is State.IMPOSSIBLE and "symbolic link" in item.says
    world.apply(Certificate, Nginx)
    assert os.listdir("/srv") == ["a"]

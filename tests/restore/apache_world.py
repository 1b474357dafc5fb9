"""What the tests of Apache's sites share: a world with Apache and two roots, and the description of a site."""
from __future__ import annotations

import contextlib
import os
from collections.abc import Iterator
from pathlib import Path

from destination import own_etc
from sondrel_restore.web.ask import Answer, Request, ask
from web_world import World, directive, ended, site, virtual_host

NAME = directive("servername", "a.test")
ROOT = directive("documentroot", "/srv/a", raw='"/srv/a"')
GRANT = directive("directory", "/srv", block=[directive("require", "all", "granted")], identifier="d1")


@contextlib.contextmanager
def apache_world(directory: Path) -> Iterator[World]:
    """A world with Apache as its package leaves it, and a page and a PHP file in /srv/a and in /srv/b."""
    own_etc("apache2")
    for place in ("/var/log/apache2", "/run/apache2", "/run/lock"):
        os.makedirs(place, exist_ok=True)
    world = World(directory / "session")
    for name in ("a", "b"):
        os.makedirs(f"/srv/{name}")
        Path(f"/srv/{name}/index.html").write_text(f"<title>site {name}</title>", encoding="utf-8")
        Path(f"/srv/{name}/x.php").write_text("<?php $secret = 1;", encoding="utf-8")
        world.trees[f"/srv/{name}"] = "www-data"
    with ended("/run/apache2/apache2.pid"):
        yield world


def described(world: World, *inner: str, at: str = "*:80", configuration: str = GRANT, uses: str = "d1") -> None:
    """Describes a site with one virtual host."""
    world.describe(
        site("a.test", virtual_host(NAME, ROOT, *inner, at=at), uses=uses, kind="apache", configuration="apache1"),
        configuration=configuration,
        server_kind="apache",
    )


def get(path: str = "/", name: str = "a.test", port: int = 80) -> Answer:
    """The answer of this host."""
    return ask("127.0.0.1", Request(name, port, False, path))

"""What the tests of nginx's sites share: a world with nginx and two roots, and parts of a site."""
from __future__ import annotations

import contextlib
import os
from collections.abc import Iterator
from pathlib import Path

from destination import own_etc
from sondrel_restore.web.ask import Answer, Request, ask
from web_world import World, directive, ended

LISTEN = directive("listen", "80")
NAME = directive("server_name", "a.test")
ROOT = directive("root", "/srv/a")


@contextlib.contextmanager
def nginx_world(directory: Path) -> Iterator[World]:
    """A world with nginx as its package leaves it, and a page in /srv/a and in /srv/b."""
    own_etc("nginx")
    world = World(directory / "session")
    for name in ("a", "b"):
        os.makedirs(f"/srv/{name}")
        Path(f"/srv/{name}/index.html").write_text(f"<title>site {name}</title>", encoding="utf-8")
        world.trees[f"/srv/{name}"] = "www-data"
    with ended("/run/nginx.pid"):
        yield world


def get(name: str, path: str = "/", port: int = 80) -> Answer:
    """The answer of this host."""
    return ask("127.0.0.1", Request(name, port, False, path))

"""Ports that Apache and nginx need on one host: who gives way, and what a plan says."""
from __future__ import annotations

import os
import socketserver
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from apache_world import GRANT, NAME, ROOT, apache_world, described, get
from destination import own_etc, snapshot
from sondrel_restore.kind import State
from sondrel_restore.kinds.apache import Apache
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.selection import Decisions
from sondrel_restore.web.service import running, wait_until
from web_world import World, directive, ended, server, site, virtual_host


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    with apache_world(tmp_path) as world:
        yield world


def test_starts_where_another_server_has_the_port_of_its_package(world: World) -> None:
    """Such as when nginx has port 80 and the sites of Apache use another one."""
    before = snapshot("/etc/apache2")
    described(world, at="*:8080")
    with socketserver.TCPServer(("0.0.0.0", 80), socketserver.BaseRequestHandler):
        assert not world.apply(Apache).failed
        assert get(port=8080).status == 200
        assert "#switched-off-by-sondrel-restore: Listen 80" in Path("/etc/apache2/ports.conf").read_text("utf-8")
        world.undo(Apache)
    assert snapshot("/etc/apache2") == before


def of_nginx(name: str, port: int) -> str:
    """A site of nginx with the page of /srv/b."""
    return site(name, server(directive("listen", str(port)), directive("server_name", name),
                             directive("root", "/srv/b"), line=port))


def both(world: World, *more: str, apache: int, nginx: int) -> None:
    """Describes a site of Apache and one of nginx, at these ports, and more sites."""
    own_etc("nginx")
    world.describe(
        site("a.test", virtual_host(NAME, ROOT, at=f"*:{apache}"), uses="d1", kind="apache", configuration="apache1"),
        of_nginx("b.test", nginx), *more,
        configuration=f'{GRANT}</web-configuration><web-configuration name="nginx1" server="nginx" file="/etc/n.conf">',
        server_kind="apache",
    )


def test_nginx_starts_where_apache_has_the_port_of_its_default_site(world: World) -> None:
    both(world, apache=80, nginx=8080)
    Path("/etc/nginx/conf.d/own.conf").write_text("server { listen unix:/run/own.sock; }\n", encoding="ascii")
    before = snapshot("/etc/apache2", "/etc/nginx")
    items = world.plan(Apache, Nginx).items
    assert [item.state for item in items] == [State.MAKE, State.MAKE]
    assert "sites-enabled/default" in items[0].says and "is switched off" in items[1].says
    with ended("/run/nginx.pid"):
        assert not world.apply(Apache, Nginx).failed
        assert get().title == "site a" and get(name="b.test", port=8080).title == "site b"
        assert all(item.state is State.SAME for item in world.plan(Apache, Nginx).items)
        assert not world.undo(Apache, Nginx).failed
        wait_until(lambda: running("/run/nginx.pid", "nginx") is None, "nginx runs without a site")
    assert snapshot("/etc/apache2", "/etc/nginx") == before


@pytest.mark.parametrize("is_later", [False, True])
def test_the_default_site_of_nginx_stays_off_as_long_as_a_restored_site_needs_it(world: World, is_later: bool) -> None:
    """Both sites of nginx were made together, or the second one by a later apply."""
    third = of_nginx("c.test", 8081)
    both(world, *(() if is_later else (third,)), apache=80, nginx=8080)
    before = snapshot("/etc/apache2", "/etc/nginx")
    default = "/etc/nginx/sites-enabled/default"
    with ended("/run/nginx.pid"):
        assert not world.apply(Apache, Nginx).failed
        both(world, third, apache=80, nginx=8080)
        assert not world.apply(Apache, Nginx).failed
        undone = world.undo(Apache, Nginx, domains=frozenset(["b.test"]))
        assert (undone.changed, undone.failed, undone.left) == (["nginx:b.test"], [], [])
        assert not os.path.lexists(default)
        assert get(name="c.test", port=8081).title == "site b"
        assert not world.undo(Apache, Nginx).failed
        wait_until(lambda: running("/run/nginx.pid", "nginx") is None, "nginx runs without a site")
    assert snapshot("/etc/apache2", "/etc/nginx") == before


def test_a_plan_names_the_default_site_of_another_server_and_the_remedy(world: World) -> None:
    both(world, apache=80, nginx=8080)
    with ended("/run/nginx.pid"):
        subprocess.run(["nginx"], check=True)
        item = world.plan(Apache).items[0]
        assert item.state is State.CONFLICT and "rm /etc/nginx/sites-enabled/default" in item.says
        os.unlink("/etc/nginx/sites-enabled/default")
        subprocess.run(["nginx", "-s", "stop"], check=True)
        assert world.plan(Apache).items[0].state is State.MAKE
        assert not world.apply(Apache, Nginx).failed


def test_a_plan_names_the_file_of_apaches_port_that_a_site_of_nginx_needs(world: World) -> None:
    both(world, apache=8080, nginx=80)
    subprocess.run(["apache2ctl", "start"], check=True)
    wait_until(lambda: running("/run/apache2/apache2.pid", "apache2") is not None, "Apache does not run")
    item = world.plan(Nginx).items[0]
    assert item.state is State.CONFLICT and "port 80" in item.says and "/etc/apache2/ports.conf" in item.says


def test_a_plan_says_that_sites_of_two_servers_need_one_port(world: World) -> None:
    both(world, apache=80, nginx=80)
    first, second = world.plan(Apache, Nginx).items
    assert first.state is State.MAKE and second.state is State.CONFLICT
    assert "apache:a.test" in second.says and "--skip=nginx:b.test" in second.decisions
    left = world.plan(Apache, Nginx, decisions=Decisions(skipped=frozenset(["apache:a.test"]))).items
    assert [(item.name, item.state) for item in left] == [("b.test", State.MAKE)]

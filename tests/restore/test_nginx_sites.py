"""Sites of nginx from the description: what is accepted serves, and a refused site leaves the others as they were."""
from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from nginx_world import LISTEN, NAME, ROOT, get, nginx_world
from sondrel_restore.kind import State
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.selection import Decisions
from sondrel_restore.web.service import wait_until
from web_world import World, directive, server, site, snapshot


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    with nginx_world(tmp_path) as world:
        yield world


def test_serves_a_site_with_all_that_it_uses_and_takes_it_back(world: World) -> None:
    before = snapshot("/etc/nginx")
    world.describe(
        site(
            "a.test",
            server(
                LISTEN,
                directive("server_name", "a.test", "www.a.test"),
                ROOT,
                directive("access_log", "/srv/a/a.log", "of_a"),
                directive(
                    "location",
                    "~",
                    r"^/(?<x>\d{2})\.txt$",
                    block=[directive("return", "200", 'it"s $x \\ {$mapped}')],
                ),
                directive(
                    "location",
                    "/app",
                    block=[directive("proxy_pass", "http://app/x"), directive("limit_req", "zone=z")],
                ),
            ),
            uses="d1 d2 d3 d4",
        ),
        site("b.test", server(LISTEN, directive("server_name", "b.test"), directive("root", "/srv/b"), line=9)),
        configuration=directive(
            "http",
            block=[
                directive(
                    "map",
                    "$arg_m",
                    "$mapped",
                    block=[directive("default", "no"), directive("~^a b", "yes; {}")],
                    identifier="d1",
                ),
                directive("log_format", "of_a", "$remote_addr $mapped", identifier="d2"),
                directive("upstream", "app", block=[directive("server", "127.0.0.1:3000")], identifier="d3"),
                directive("limit_req_zone", "$binary_remote_addr", "zone=z:1m", "rate=10r/s", identifier="d4"),
                directive("add_header", "X-Of", "http"),
                directive("client_max_body_size", "77m"),
            ],
        ),
    )
    assert [item.state for item in world.plan(Nginx).items] == [State.MAKE, State.MAKE]
    assert snapshot("/etc/nginx") == before
    outcome = world.apply(Nginx)
    assert not outcome.failed
    assert get("www.a.test").title == "site a" and get("b.test").title == "site b"
    assert get("a.test", "/12.txt?m=a%20b").status == 200 and get("a.test", "/app/1").status == 502
    written = Path("/etc/nginx/sites-available/a.test.conf").read_text(encoding="utf-8")
    assert "client_max_body_size 77m;" in written and "add_header X-Of http;" in written
    assert "access_log /var/log/nginx/a.test-a.log of_a;" in written
    assert Path("/var/log/nginx/a.test-a.log").exists() and not Path("/srv/a/a.log").exists()
    assert [item.state for item in world.plan(Nginx).items] == [State.SAME, State.SAME]
    assert world.apply(Nginx).changed == []
    assert not world.undo(Nginx).left
    assert snapshot("/etc/nginx") == before and not os.path.exists("/etc/sondrel-restore")


def test_a_site_that_nginx_refuses_is_put_back_and_the_others_go_in(world: World) -> None:
    world.describe(
        site("a.test", server(LISTEN, NAME, ROOT, directive("client_max_body_size", "much"))),
        site("b.test", server(LISTEN, directive("server_name", "b.test"), directive("root", "/srv/b"), line=9)),
    )
    outcome = world.apply(Nginx)
    assert (
        len(outcome.failed) == 1
        and "a.test" in outcome.failed[0][1]
        and "client_max_body_size" in outcome.failed[0][1]
    )
    assert get("b.test").title == "site b"
    assert not os.path.lexists("/etc/nginx/sites-enabled/a.test.conf")
    assert not os.path.exists("/etc/nginx/sites-available/a.test.conf")
    assert [item.state for item in world.plan(Nginx).items] == [State.MAKE, State.SAME]


def test_a_refused_change_leaves_the_site_as_it_was(world: World) -> None:
    world.describe(site("a.test", server(LISTEN, NAME, ROOT)))
    world.apply(Nginx)
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, directive("client_max_body_size", "much"))))
    assert world.plan(Nginx).items[0].state is State.RENEW
    assert world.apply(Nginx).failed
    assert get("a.test").title == "site a"
    assert "much" not in Path("/etc/nginx/sites-enabled/a.test.conf").read_text(encoding="utf-8")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, directive("client_max_body_size", "2m"))))
    assert not world.apply(Nginx).failed
    assert "2m" in Path("/etc/nginx/sites-enabled/a.test.conf").read_text(encoding="utf-8")


def test_what_was_changed_here_stays(world: World) -> None:
    world.describe(site("a.test", server(LISTEN, NAME, ROOT)))
    world.apply(Nginx)
    path = Path("/etc/nginx/sites-available/a.test.conf")
    path.write_text(path.read_text(encoding="utf-8") + "# mine\n", encoding="utf-8")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, directive("gzip", "on"))))
    assert world.plan(Nginx).items[0].state is State.KEPT
    assert world.apply(Nginx).changed == []
    assert world.undo(Nginx).left[0].identifier == "nginx:a.test" and "# mine" in path.read_text(encoding="utf-8")


LONG_NAMES = {length: ("a" * 60 + ".") * (length // 61) + "b" * (length % 61) for length in (46, 47, 70, 253)}


@pytest.mark.parametrize("name", LONG_NAMES.values(), ids=LONG_NAMES)
def test_a_long_name_is_served(world: World, name: str) -> None:
    before = snapshot("/etc/nginx")
    world.describe(site(name, server(LISTEN, directive("server_name", name), ROOT)))
    assert not world.apply(Nginx).failed
    assert get(name).title == "site a"
    assert not world.apply(Nginx).changed
    world.undo(Nginx)
    assert snapshot("/etc/nginx") == before


def test_room_for_long_names_that_is_here_stays(world: World) -> None:
    Path("/etc/nginx/conf.d/mine.conf").write_text("server_names_hash_bucket_size 128;\n", encoding="utf-8")
    world.describe(site("a.test", server(LISTEN, directive("server_name", LONG_NAMES[70]), ROOT)))
    assert not world.apply(Nginx).failed
    assert get(LONG_NAMES[70]).title == "site a"


def test_a_name_that_is_served_here_needs_a_decision(world: World) -> None:
    Path("/etc/nginx/sites-available/mine").write_text(
        "server { listen 80; server_name other.test a.test; return 204; }"
    )
    os.symlink("../sites-available/mine", "/etc/nginx/sites-enabled/mine")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT)))
    item = world.plan(Nginx).items[0]
    assert item.state is State.CONFLICT and "/etc/nginx/sites-enabled/mine" in item.says
    assert "--replace=nginx:a.test" in item.decisions
    assert world.apply(Nginx).failed and not os.path.exists("/etc/nginx/sites-available/a.test.conf")
    assert not world.apply(Nginx, decisions=Decisions(replaced=frozenset(("nginx:a.test",)))).failed
    assert get("a.test").title == "site a"
    world.undo(Nginx)
    wait_until(lambda: get("a.test").status == 204, "the site of before serves again")


def test_a_file_that_apply_has_not_made_needs_a_decision(world: World) -> None:
    Path("/etc/nginx/sites-available/a.test.conf").write_text("# mine", encoding="utf-8")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT)))
    assert world.plan(Nginx).items[0].state is State.CONFLICT
    assert not world.apply(Nginx, decisions=Decisions(replaced=frozenset(("nginx:a.test",)))).failed
    world.undo(Nginx)
    assert Path("/etc/nginx/sites-available/a.test.conf").read_text(encoding="utf-8") == "# mine"


def test_a_link_in_the_place_of_a_sites_file_is_named(world: World) -> None:
    Path("/etc/nginx/mine.conf").write_text("# mine", encoding="utf-8")
    os.symlink("../mine.conf", "/etc/nginx/sites-available/a.test.conf")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT)), site("b.test", server(LISTEN, directive(
        "server_name", "b.test"), ROOT)))
    items = world.plan(Nginx).items
    assert [item.state for item in items] == [State.IMPOSSIBLE, State.MAKE]
    assert "/etc/nginx/sites-available/a.test.conf is a symbolic link here" in items[0].says


def test_a_definition_whose_name_is_taken_gets_another(world: World) -> None:
    Path("/etc/nginx/conf.d/mine.conf").write_text(
        "upstream app { server 127.0.0.1:1; } map $host $mapped { default mine; } log_format of_a mine;",
        encoding="utf-8",
    )
    world.describe(
        site(
            "a.test",
            server(
                LISTEN,
                NAME,
                ROOT,
                directive("access_log", "/x/a.log", "of_a"),
                directive("location", "/app", block=[directive("proxy_pass", "http://app")]),
                directive("location", "/v", block=[directive("return", "302", "/${mapped}/$mapped")]),
            ),
            uses="d1 d2 d3",
        ),
        configuration=directive(
            "http",
            block=[
                directive("upstream", "app", block=[directive("server", "127.0.0.1:3000")], identifier="d1"),
                directive("map", "$host", "$mapped", block=[directive("default", "theirs")], identifier="d2"),
                directive("log_format", "of_a", "theirs $mapped", identifier="d3"),
            ],
        ),
    )
    assert not world.apply(Nginx).failed
    assert get("a.test", "/v").location == "http://a.test/theirs/theirs"


def test_the_packages_default_server_stays_and_other_addresses_become_all(world: World) -> None:
    world.describe(
        site("a.test", server(directive("listen", "203.0.113.9:80", "default_server", "reuseport"), NAME, ROOT))
    )
    assert not world.apply(Nginx).failed
    assert get("a.test").title == "site a" and get("unknown.test").title != "site a"
    assert any("is no address of this host" in text for text in world.named)


def test_all_goes_in_where_the_configuration_is_trusted(world: World) -> None:
    world.describe(
        site("a.test", server(LISTEN, NAME, ROOT, directive("location", "/d/", block=[directive("alias", "/usr/")])))
    )
    assert not world.apply(Nginx, decisions=Decisions(trust_configuration=True)).failed
    assert get("a.test", "/d/bin/env").status == 200


def test_directives_of_modules_that_are_not_here_need_their_packages(world: World) -> None:
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, directive("more_set_headers", "X: y"))))
    assert "libnginx-mod-http-headers-more-filter" in {each.package for each in world.plan(Nginx).missing}
    assert "more_set_headers" in world.apply(Nginx).failed[0][1]

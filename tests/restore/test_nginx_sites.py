"""Sites of nginx from the description: what is accepted serves, and what could harm this host is left out."""
from __future__ import annotations

import os
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc
from sondrel_restore.kind import State
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.selection import Decisions
from sondrel_restore.web.ask import Answer, Request, ask
from sondrel_restore.web.service import wait_until
from web_world import World, directive, ended, server, site, snapshot


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    own_etc("nginx")
    os.makedirs("/var/log/nginx")
    world = World(tmp_path / "session")
    for name in ("a", "b"):
        os.makedirs(f"/srv/{name}")
        Path(f"/srv/{name}/index.html").write_text(f"<title>site {name}</title>", encoding="utf-8")
        world.trees[f"/srv/{name}"] = "www-data"
    with ended("/run/nginx.pid"):
        yield world


LISTEN = directive("listen", "80")
NAME = directive("server_name", "a.test")
ROOT = directive("root", "/srv/a")


def get(name: str, path: str = "/", port: int = 80) -> Answer:
    """The answer of this host."""
    return ask("127.0.0.1", Request(name, port, False, path))


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


ATTACKS = {
    "an inclusion": directive("include", "/etc/shadow"),
    "a module": directive("load_module", "/srv/a/evil.so"),
    "an account": directive("user", "root"),
    "all of this host": directive("location", "/x/", block=[directive("alias", "/")]),
    "secrets of this host": directive("location", "/x/", block=[directive("root", "/etc/ssl/private")]),
    "another account's files": directive("location", "/x/", block=[directive("alias", "/home/bob/")]),
    "a way up": directive("location", "/x/", block=[directive("alias", "/srv/a/../../etc/")]),
    "a link out of the site": directive("location", "/x/", block=[directive("alias", "/srv/a/link/")]),
    "a path of the visitor": directive("location", "/x/", block=[directive("alias", "/srv/a/$arg_p")]),
    "a path of the visitor by a variable": directive(
        "location", "/x/", block=[directive("set", "$p", "$http_x"), directive("alias", "/srv/a/$p")]
    ),
    "a file above the site": directive("try_files", "/../../etc/passwd", "=404"),
    "another's pool": directive("location", "/x/", block=[directive("fastcgi_pass", "unix:/run/php/bob.sock")]),
    "this host's socket": directive(
        "location", "/x/", block=[directive("proxy_pass", "http://unix:/run/docker.sock:/")]
    ),
    "the cloud's metadata": directive(
        "location", "/x/", block=[directive("proxy_pass", "http://169.254.169.254/latest")]
    ),
    "a neighbour": directive("location", "/x/", block=[directive("proxy_pass", "http://10.0.0.7/")]),
    "this host's database": directive("location", "/x/", block=[directive("proxy_pass", "http://127.0.0.1:3306/")]),
    "this host's cache by name": directive(
        "location", "/x/", block=[directive("proxy_pass", "http://localhost:11211/")]
    ),
    "whatever the visitor wants": directive("location", "/x/", block=[directive("proxy_pass", "http://$arg_h/")]),
    "a log to the system": directive("access_log", "syslog:server=10.0.0.1"),
    "code in a block": directive("content_by_lua_block", text="os.execute('id')", block=[]),
    "perl": directive("perl", "sub { system 'id' }"),
    "a foreign block": directive("stream", block=[directive("server", block=[])]),
    "another service's port": directive("listen", "25"),
    "uploads": directive("location", "/x/", block=[directive("dav_methods", "PUT")]),
    "stores": directive("location", "/x/", block=[directive("proxy_store", "/etc/cron.d/x")]),
    "a key of this host": directive("ssl_certificate_key", "/etc/ssl/private/ssl-cert-snakeoil.key"),
    "a file of passwords of this host": directive("auth_basic_user_file", "/etc/shadow"),
    "settings that leave PHP's account": directive("fastcgi_param", "PHP_ADMIN_VALUE", "extension=/srv/a/x.so"),
}


@pytest.mark.parametrize("attack", ATTACKS.values(), ids=ATTACKS.keys())
def test_leaves_out_what_could_harm_and_serves_the_rest(world: World, attack: str) -> None:
    os.symlink("/etc", "/srv/a/link")
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, attack)))
    item = world.plan(Nginx).items[0]
    assert item.state is State.MAKE and "1 directives are left out" in item.says
    assert not world.apply(Nginx).failed
    assert any(text.startswith("left out: ") for text in world.named)
    beside = Path("/etc/sondrel-restore/left-out/nginx-a.test.conf")
    assert beside.stat().st_mode & 0o777 == 0o600 and "# /etc/there.conf:1" in beside.read_text(encoding="utf-8")
    written = Path("/etc/nginx/sites-available/a.test.conf").read_text(encoding="utf-8")
    for secret in (
        "shadow",
        "/etc/",
        "unix:",
        "evil",
        "169.254",
        "3306",
        "11211",
        "lua",
        "perl",
        "/bob",
        "arg_h",
        "x.so",
    ):
        assert secret not in written
    assert get("a.test", "/index.html").status in (200, 403, 503)


def test_a_backend_by_name_goes_in_where_this_host_says_its_address(world: World) -> None:
    """The source host's owner may control what the DNS says, and can change it after the check."""
    own_etc("hosts")
    with open("/etc/hosts", "a", encoding="ascii") as hosts:
        hosts.write("192.0.32.8 known.test # ours\n127.0.0.1 cache.test\n")
    world.describe(
        site(
            "a.test",
            server(LISTEN, NAME, ROOT, *(
                directive("location", f"/{number}/", block=[directive("proxy_pass", f"http://{address}/")])
                for number, address in enumerate(("known.test", "elsewhere.test", "cache.test:11211"))
            )),
        )
    )
    rules = world.plan(Nginx).items[0].data
    text = rules.files["/etc/nginx/sites-available/a.test.conf"].decode()
    assert "http://known.test/" in text and "elsewhere.test" not in text and "cache.test" not in text
    left = " ".join(rules.notes)
    assert "elsewhere.test" in left and "/etc/hosts" in left and "11211" in left


def test_no_way_to_a_pool_but_the_directive_that_is_for_pools(world: World) -> None:
    """Another directive could send other protocols to a pool, or use a link that the site makes later at that path."""
    os.symlink("/run/php/bob.sock", "/srv/a/link.sock")
    group = directive("upstream", "group", block=[directive("server", "unix:/srv/a/later.sock")], identifier="u1")
    world.describe(
        site("a.test", server(
            LISTEN, NAME, ROOT,
            directive("location", "/1/", block=[directive("fastcgi_pass", "group")]),
            directive("location", "/2/", block=[directive("proxy_pass", "http://unix:/srv/a/link.sock:/")]),
            directive("location", "/3/", block=[directive("uwsgi_pass", "unix:/srv/a/later.sock"),
                                                directive("uwsgi_modifier1", "1")]),
        ), uses="u1"),
        configuration=directive("http", block=[group]),
    )
    text = world.plan(Nginx).items[0].data.files["/etc/nginx/sites-available/a.test.conf"].decode()
    assert "fastcgi_pass" not in text and "link.sock" not in text and "uwsgi_modifier1" not in text
    assert "uwsgi_pass unix:/srv/a/later.sock" in text


INJECTIONS = [
    "x; } server { listen 81; root /; }",
    'x"; root /; #',
    "x\n root /;",
    "x';root /;",
    "x\\",
    "${x} {",
    "x}",
    "# x",
]


@pytest.mark.parametrize("text", INJECTIONS)
def test_an_argument_stays_an_argument(world: World, text: str) -> None:
    world.describe(
        site("a.test", server(LISTEN, NAME, ROOT, directive("add_header", "X-Try", text.replace("${x}", ""))))
    )
    world.apply(Nginx)
    assert get("a.test", "/etc/passwd").status in (0, 404)
    assert get("a.test", "/etc/passwd", 81).status == 0
    told = subprocess.run(["nginx", "-T", "-q"], capture_output=True, text=True, check=True).stdout
    assert "listen 81" not in told.replace('"x; } server { listen 81; root /; }"', "")


def test_a_name_of_a_directive_is_no_more_than_that(world: World) -> None:
    world.describe(site("a.test", server(LISTEN, NAME, ROOT, directive("gzip on; root", "/"))))
    assert not world.apply(Nginx).failed
    assert get("a.test", "/etc/passwd").status == 404


def test_php_that_does_not_go_in_is_not_sent_as_text(world: World) -> None:
    Path("/srv/a/secret.php").write_text("<?php $password = 1;", encoding="utf-8")
    world.describe(
        site(
            "a.test",
            server(
                LISTEN,
                NAME,
                ROOT,
                directive("location", "~", r"\.php$", block=[directive("fastcgi_pass", "unix:/run/php/bob.sock")]),
            ),
        )
    )
    world.apply(Nginx)
    assert get("a.test", "/secret.php").status == 503


def test_a_guard_that_does_not_go_in_closes_the_site(world: World) -> None:
    world.describe(
        site(
            "a.test",
            server(
                LISTEN,
                NAME,
                ROOT,
                directive("auth_basic", "x"),
                directive("auth_basic_user_file", "/etc/nginx/users"),
            ),
        )
    )
    world.apply(Nginx)
    assert get("a.test").status == 403


def test_an_alias_cannot_be_left_upwards(world: World) -> None:
    Path("/srv/secret.html").write_text("secret", encoding="utf-8")
    world.describe(
        site(
            "a.test",
            server(LISTEN, NAME, ROOT, directive("location", "/files", block=[directive("alias", "/srv/a/")])),
        )
    )
    world.apply(Nginx)
    assert get("a.test", "/files../secret.html").status == 404 and get("a.test", "/files/index.html").status == 200


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

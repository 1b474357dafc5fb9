"""Sites of nginx from a hostile description: what could harm this host is left out, and the rest serves."""
from __future__ import annotations

import os
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc
from nginx_world import LISTEN, NAME, ROOT, get, nginx_world
from sondrel_restore.kind import State
from sondrel_restore.kinds.nginx import Nginx
from web_world import World, directive, server, site


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    with nginx_world(tmp_path) as world:
        yield world


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


@pytest.mark.parametrize("name, log, written", [
    ("access", "access.log", "access-access.log"), ("a", "access.log", "a-access.log"),
    ("here", "here.test.log", "here-here.test.log"), ("a.test", "a.test.com.log", "a.test.com.log"),
    ("a.test", "a.testing.log", "a.test-a.testing.log"), ("a.test", "a.test-access.log", "a.test-access.log")])
def test_a_site_has_logs_of_its_own(world: World, name: str, log: str, written: str) -> None:
    """Whatever its name is the beginning of, such as of the log of all sites."""
    world.describe(site(name, server(LISTEN, NAME, ROOT, directive("access_log", f"/var/log/nginx/{log}"))))
    files = world.plan(Nginx).items[0].data.files
    assert f"access_log /var/log/nginx/{written};" in files[f"/etc/nginx/sites-available/{name}.conf"].decode()


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

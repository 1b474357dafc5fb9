"""Sites of Apache from a hostile description: what could harm this host is left out, and the rest serves."""
from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from apache_world import apache_world, described, get
from sondrel_restore.kind import State
from sondrel_restore.kinds.apache import Apache
from web_world import World, directive


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    with apache_world(tmp_path) as world:
        yield world


ATTACKS = {
    "an inclusion": directive("include", "/etc/shadow"),
    "a module": directive("loadmodule", "x_module", "/srv/a/x.so"),
    "an account": directive("user", "root"),
    "all of this host": directive("alias", "/etc", "/etc"),
    "all of this host, granted": directive("directory", "/", block=[directive("require", "all", "granted")]),
    "another root": directive("documentroot", "/etc", raw='"/srv/a"'),
    "programs": directive("scriptalias", "/cgi/", "/srv/a/cgi/"),
    "a log to a program": directive("customlog", "|/bin/sh -c id", "short", raw='"|/bin/sh -c id" short'),
    "errors to a program": directive("errorlog", "|id", raw='"|id"'),
    "a map that is a program": directive("rewritemap", "m", "prg:/srv/a/evil"),
    "a path of this host": directive("aliasmatch", "^/x/(.*)", "/etc/$1"),
    "another's pool": directive("proxypass", "/x", "unix:/run/php/bob.sock|fcgi://localhost/"),
    "the cloud's metadata": directive("proxypass", "/x", "http://169.254.169.254/"),
    "the cloud's metadata by a rule": directive("rewriterule", "^/x", "http://169.254.169.254/", "[P]"),
    "this host's cache": directive("proxypass", "/x", "http://127.0.0.1:11211/"),
    "a handler by a rule": directive("rewriterule", "^/x", "-", "[H=cgi-script]"),
    "a variable of the loader": directive("setenv", "LD_PRELOAD", "/srv/a/x.so"),
    "settings of PHP": directive("setenvif", "Host", ".*", "PHP_ADMIN_VALUE=x"),
    "what is in a file": directive(
        "header", "set", "X", "expr=%{file:/etc/passwd}", raw='set X "expr=%{file:/etc/passwd}"'
    ),
    "a file as a condition": directive("if", raw="file('/etc/passwd') =~ /root/", block=[]),
    "an account for programs": directive("suexecusergroup", "root", "root"),
    "a daemon": directive("wsgidaemonprocess", "x", "user=root"),
    "a proxy for all": directive("proxyrequests", "On"),
    "a filter": directive("setoutputfilter", "INCLUDES"),
    "a key of this host": directive("sslcertificatekeyfile", "/etc/ssl/private/ssl-cert-snakeoil.key"),
    "settings of PHP's module": directive("php_admin_value", "auto_prepend_file", "/etc/passwd"),
}


@pytest.mark.parametrize("attack", ATTACKS.values(), ids=ATTACKS.keys())
def test_leaves_out_what_could_harm(world: World, attack: str) -> None:
    described(world, attack)
    item = world.plan(Apache).items[0]
    assert item.state is State.MAKE and "1 directives are left out" in item.says
    assert not world.apply(Apache).failed
    written = Path("/etc/apache2/sites-available/a.test.conf").read_text(encoding="utf-8")
    for secret in (
        "/etc",
        "evil",
        "x.so",
        "|",
        "169.254",
        "11211",
        "cgi",
        "unix:",
        'root"',
        "INCLUDES",
        "Daemon",
        "ADMIN",
    ):
        assert secret not in written.replace("sites-available", "")
    assert get("/index.html").status in (200, 403) and get("/etc/passwd").status in (403, 404)


LINES = {
    "a line in an argument": directive("header", "set", "X", "a\nAlias /etc /etc"),
    "a line in what stood there": directive("header", "set", raw="set X a\nAlias /etc /etc"),
    "a line that goes on": directive("header", "set", raw="set X a \\"),
    "a line in a name": directive("header set x y\nalias", "/etc", "/etc"),
}


@pytest.mark.parametrize("attack", LINES.values(), ids=LINES.keys())
def test_what_is_no_line_does_not_go_in(world: World, attack: str) -> None:
    described(world, attack)
    world.apply(Apache)
    path = Path("/etc/apache2/sites-available/a.test.conf")
    assert not path.exists() or "/etc" not in path.read_text(encoding="utf-8")


@pytest.mark.parametrize("rule", [("^/(.*)$", "/$1"), ("^(.*)$", "$1"), ("^/x$", "/etc/passwd")])
def test_a_rule_is_about_the_site_and_not_about_this_hosts_files(world: World, rule: tuple[str, str]) -> None:
    described(
        world,
        directive("rewriteengine", "on"),
        directive("rewriterule", *rule),
        directive("location", "/", block=[directive("require", "all", "granted")]),
    )
    assert not world.apply(Apache).failed
    assert get("/etc/passwd").status == 404 and get("/x").status == 404 and get("/index.html").title == "site a"


def test_options_and_overrides_run_no_programs(world: World) -> None:
    Path("/srv/a/run.cgi").write_text("#!/bin/sh\necho; id\n", encoding="utf-8")
    os.chmod("/srv/a/run.cgi", 0o755)
    described(
        world,
        configuration=directive(
            "directory",
            "/srv/a",
            identifier="d1",
            block=[
                directive("require", "all", "granted"),
                directive("options", "All", "+ExecCGI"),
                directive("allowoverride", "All"),
                directive("addhandler", "cgi-script", ".cgi"),
            ],
        ),
    )
    assert not world.apply(Apache).failed
    written = Path("/etc/apache2/sites-available/a.test.conf").read_text(encoding="utf-8")
    assert "ExecCGI" not in written and "AllowOverride All".lower() not in written.lower()
    assert get("/run.cgi").status == 503

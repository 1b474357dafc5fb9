"""Sites of Apache from the description: what is accepted serves, and what could harm this host is left out."""
from __future__ import annotations

import os
import socketserver
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc, snapshot
from sondrel_restore.kind import State
from sondrel_restore.kinds.apache import Apache
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.restore import apply_plan, make_plan
from sondrel_restore.selection import Decisions
from sondrel_restore.web.ask import Answer, Request, ask
from sondrel_restore.web.service import running, wait_until
from web_world import World, directive, ended, server, site, virtual_host


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    own_etc("apache2")
    for place in ("/var/log/apache2", "/run/apache2", "/run/lock"):
        os.makedirs(place, exist_ok=True)
    world = World(tmp_path / "session")
    for name in ("a", "b"):
        os.makedirs(f"/srv/{name}")
        Path(f"/srv/{name}/index.html").write_text(f"<title>site {name}</title>", encoding="utf-8")
        Path(f"/srv/{name}/x.php").write_text("<?php $secret = 1;", encoding="utf-8")
        world.trees[f"/srv/{name}"] = "www-data"
    with ended("/run/apache2/apache2.pid"):
        yield world


NAME = directive("servername", "a.test")
ROOT = directive("documentroot", "/srv/a", raw='"/srv/a"')
GRANT = directive("directory", "/srv", block=[directive("require", "all", "granted")], identifier="d1")


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


def test_serves_a_site_with_all_that_it_uses_and_takes_it_back(world: World) -> None:
    before = snapshot("/etc/apache2")
    configuration = (
        GRANT
        + directive("logformat", "%h short", "short", raw='"%h short" short', identifier="d2")
        + directive("directory", "/", block=[directive("require", "all", "denied")], identifier="d3")
        + directive("rewritemap", "up", "int:toupper", identifier="d4")
    )
    described(
        world,
        directive("serveralias", "www.a.test"),
        directive("customlog", "/srv/a/a.log", "short"),
        directive("header", "set", "X", 'a "b" c', raw=r'set X "a \"b\" c"'),
        directive("rewriteengine", "on"),
        directive("rewriterule", r"^/u/(\w+)\.txt$", "/${up:$1}", "[R,L]"),
        directive("rewriterule", "^/in/(.*)$", "/$1"),
        directive(
            "filesmatch",
            r"\.php$",
            raw=r'"\.php$"',
            block=[directive("sethandler", "proxy:unix:/run/php/bob.sock|fcgi://localhost")],
        ),
        configuration=configuration,
        uses="d1 d2 d3 d4",
        at="203.0.113.5:8080",
    )
    assert world.plan(Apache).items[0].state is State.MAKE
    outcome = world.apply(Apache)
    assert not outcome.failed
    assert get(port=8080).title == "site a" and get("/in/index.html", "www.a.test", 8080).title == "site a"
    assert get("/u/low.txt", port=8080).location == "http://a.test:8080/LOW"
    assert get("/x.php", port=8080).status == 503
    assert Path("/var/log/apache2/a.test-a.log").exists() and not Path("/srv/a/a.log").exists()
    assert world.plan(Apache).items[0].state is State.SAME and world.apply(Apache).changed == []
    assert not world.undo(Apache).left
    assert snapshot("/etc/apache2") == before and not os.path.exists("/etc/sondrel-restore")


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


def test_a_site_that_apache_refuses_is_put_back_and_the_others_go_in(world: World) -> None:
    second = virtual_host(directive("servername", "b.test"), directive("documentroot", "/srv/b"), line=9)
    world.describe(
        site(
            "a.test",
            virtual_host(NAME, ROOT, directive("requestheader", "nonsense")),
            kind="apache",
            configuration="apache1",
            uses="d1",
        ),
        site("b.test", second, kind="apache", configuration="apache1", uses="d1"),
        configuration=GRANT,
        server_kind="apache",
    )
    outcome = world.apply(Apache)
    assert len(outcome.failed) == 1 and "a.test" in outcome.failed[0][1]
    assert get(name="b.test").title == "site b" and not os.path.lexists("/etc/apache2/sites-enabled/a.test.conf")


def test_a_refused_change_leaves_the_site_as_it_was(world: World) -> None:
    described(world)
    world.apply(Apache)
    described(world, directive("limitrequestbody", "much"))
    (failure,) = world.apply(Apache).failed
    assert "a.test" in failure[1] and "LimitRequestBody" in failure[1]
    assert get().title == "site a"
    assert "much" not in Path("/etc/apache2/sites-enabled/a.test.conf").read_text(encoding="utf-8")
    described(world, directive("limitrequestbody", "100000"))
    assert not world.apply(Apache).failed
    assert "100000" in Path("/etc/apache2/sites-enabled/a.test.conf").read_text(encoding="utf-8")


def test_settings_of_this_host_that_apache_refuses_are_named_and_a_rerun_goes_on(world: World) -> None:
    before = snapshot("/etc/apache2")
    described(world)
    broken = Path("/etc/apache2/conf-enabled/broken.conf")
    broken.write_text("Nonsense on\n", encoding="ascii")
    (item,) = world.plan(Apache).items
    assert item.state is State.IMPOSSIBLE and str(broken) in item.says
    world.apply(Apache)
    broken.unlink()
    assert snapshot("/etc/apache2") == before
    assert not world.apply(Apache).failed and get().title == "site a"
    # The same if other settings break between the plan and the check.
    world.undo(Apache)
    restore = world.restore()
    kind = Apache()
    plan = make_plan(restore, [kind])
    broken.write_text("Nonsense on\n", encoding="ascii")
    with restore.journal.locked():
        outcome = apply_plan(restore, [kind], plan)
    assert any("a.test" in text and str(broken) in text for _, text in outcome.failed)
    broken.unlink()
    assert snapshot("/etc/apache2") == before
    assert not world.apply(Apache).failed and get().title == "site a"


def test_a_name_that_is_served_here_needs_a_decision(world: World) -> None:
    Path("/etc/apache2/sites-enabled/mine.conf").write_text(
        "<VirtualHost *:80>\nServerName other.test\nServerAlias a.test\nRedirect 410 /\n</VirtualHost>\n",
        encoding="utf-8",
    )
    described(world)
    item = world.plan(Apache).items[0]
    assert item.state is State.CONFLICT and "mine.conf" in item.says


def test_php_without_its_module_is_a_missing_package_and_not_sent_as_text(world: World) -> None:
    for path in Path("/etc/apache2/mods-enabled").glob("php*"):
        path.unlink()
    world.describe(
        site(
            "a.test",
            virtual_host(NAME, ROOT),
            inside='<php handler="module"/>',
            kind="apache",
            configuration="apache1",
            uses="d1",
        ),
        configuration=GRANT,
        server_kind="apache",
    )
    assert "libapache2-mod-php" in {each.package for each in world.plan(Apache).missing}
    assert "libapache2-mod-php" in world.apply(Apache).failed[0][1] and not os.path.lexists(
        "/etc/apache2/sites-enabled/a.test.conf"
    )


def test_files_that_the_php_here_cannot_compile_are_said(world: World) -> None:
    (module,) = Path("/etc/apache2/mods-enabled").glob("php*.load")
    version = module.stem.removeprefix("php")
    for there, says in (("5.6", f"PHP {version} cannot compile 1 of 1 PHP files"), (version, "")):
        world.describe(
            site(
                "a.test",
                virtual_host(NAME, ROOT),
                inside=f'<php handler="module" version="{there}"/>',
                kind="apache",
                configuration="apache1",
                uses="d1",
                contents=world.archive("a", {"/srv/a/index.php": b"<?php $a{0} = 1;"}),
            ),
            configuration=GRANT,
            server_kind="apache",
        )
        item = world.plan(Apache).items[0]
        assert item.state is State.MAKE and says in item.says and ("PHP" in item.says) == bool(says)


def test_all_goes_in_where_the_configuration_is_trusted(world: World) -> None:
    described(
        world,
        directive("alias", "/d", "/usr/bin"),
        directive("directory", "/usr/bin", block=[directive("require", "all", "granted")]),
    )
    assert not world.apply(Apache, decisions=Decisions(trust_configuration=True)).failed
    assert get("/d/env").status == 200

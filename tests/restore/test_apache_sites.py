"""Sites of Apache from the description: what is accepted serves, and what this host refuses is put back."""
from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from apache_world import GRANT, NAME, ROOT, apache_world, described, get
from destination import snapshot
from sondrel_restore.kind import State
from sondrel_restore.kinds.apache import Apache
from sondrel_restore.restore import apply_plan, make_plan
from sondrel_restore.selection import Decisions
from web_world import World, directive, site, virtual_host


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    with apache_world(tmp_path) as world:
        yield world


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

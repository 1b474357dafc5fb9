"""Pools of PHP-FPM: sites run as their own accounts with their own settings, and with no more rights."""
from __future__ import annotations

import os
import pwd
from collections.abc import Iterator
from pathlib import Path

import pytest
from destination import own_etc
from sondrel_restore.kind import Kind, State
from sondrel_restore.kinds.apache import Apache
from sondrel_restore.kinds.nginx import Nginx
from sondrel_restore.kinds.pool import Pool, versions
from sondrel_restore.selection import Decisions
from sondrel_restore.web.ask import Request, ask
from web_world import World, directive, ended, server, site, snapshot, virtual_host

VERSION = versions()[-1]
PHP = directive(
    "location",
    "~",
    r"\.php$",
    block=[
        directive("fastcgi_pass", "unix:/var/run/php/a.sock"),
        directive("fastcgi_param", "SCRIPT_FILENAME", "$document_root$fastcgi_script_name"),
        directive("fastcgi_param", "REQUEST_METHOD", "$request_method"),
    ],
)


@pytest.fixture(name="world")
def _world(tmp_path: Path) -> Iterator[World]:
    for name in ("nginx", "php"):
        own_etc(name)
    for path in Path(f"/etc/php/{VERSION}/fpm/pool.d").glob("sondrel-*"):
        path.unlink()
    with open("/etc/passwd", "a", encoding="ascii") as accounts:
        accounts.write("alice:x:1500:1500::/home/alice:/bin/sh\n")
    with open("/etc/group", "a", encoding="ascii") as groups:
        groups.write("alice:x:1500:\n")
    os.makedirs("/srv/a")
    Path("/srv/a/ask.php").write_text(
        "<?php echo posix_geteuid(), ' ', ini_get('memory_limit'), ' ', getenv('SHOP'), ' ', ini_get('open_basedir');",
        encoding="utf-8",
    )
    world = World(tmp_path / "session")
    world.trees["/srv/a"] = "alice"
    world.accounts["alice"] = "alice"
    with ended("/run/nginx.pid", f"/run/php/php{VERSION}-fpm.pid"):
        yield world


def described(
    world: World, inside: str, *, user: str = "alice", version: str = VERSION, name: str = "a", contents: str = ""
) -> None:
    """Describes a site whose pool has these elements."""
    php = (
        f'<php version="{version}" handler="fpm" extensions="core json" pool="{name}" user="{user}"'
        f' listen="unix:/var/run/php/a.sock">{inside}</php>'
    )
    world.describe(
        site(
            "a.test",
            server(directive("listen", "80"), directive("server_name", "a.test"), directive("root", "/srv/a"), PHP),
            inside=php,
            contents=contents,
        )
    )


def test_a_locale_that_a_pool_sets_and_this_host_lacks_is_named_with_the_remedy(world: World) -> None:
    described(world, '<env name="LC_ALL">gv_GB.utf8</env><env name="LANG">C.UTF-8</env><env name="X">gd_GB</env>')
    (lacking,) = [each for each in world.plan(Pool, Nginx).missing if "locale" in each.because]
    assert "gv_GB.utf8" in lacking.because and "begins with gv_GB.UTF-8" in lacking.because
    assert "/etc/locale.gen" in lacking.because and not lacking.package


def test_php_runs_as_the_account_with_its_settings(world: World) -> None:
    before = snapshot("/etc/php", "/etc/nginx")
    described(
        world,
        '<setting name="memory_limit">77M</setting><setting name="open_basedir">/srv/a:/tmp</setting>'
        '<env name="SHOP">it\'s; [www] = "x</env><env name="TAX">a\'b</env>',
    )
    items = world.plan(Pool, Nginx).items
    assert [item.state for item in items] == [State.MAKE, State.MAKE]
    assert not world.apply(Pool, Nginx).failed
    answer = ask("127.0.0.1", Request("a.test", 80, False, "/ask.php"))
    assert answer.status == 200, Path(f"/etc/php/{VERSION}/fpm/pool.d/sondrel-a-{VERSION}.conf").read_text(
        encoding="utf-8"
    )
    about = os.stat(f"/run/php/sondrel-a-{VERSION}.sock")
    assert about.st_mode & 0o777 == 0o660 and about.st_uid == pwd.getpwnam("www-data").pw_uid
    assert Path("/etc/sondrel-restore/left-out").exists() and any("SHOP" in text for text in world.named)
    assert [item.state for item in world.plan(Pool, Nginx).items] == [State.SAME, State.SAME]
    assert not world.undo(Pool, Nginx).left and snapshot("/etc/php", "/etc/nginx") == before


def test_php_sees_what_the_pool_has(world: World) -> None:
    described(
        world,
        '<setting name="memory_limit">77M</setting><setting name="open_basedir">/srv/a:/tmp</setting>'
        '<env name="SHOP">of ; [a] = b</env>',
    )
    Path("/srv/a/ask.php").write_text(
        "<?php file_put_contents('/tmp/sondrel-owner', 'x'); header('Content-Type: text/html'); echo '<title>',"
        " fileowner('/tmp/sondrel-owner'), ' ', ini_get('memory_limit'), ' ', getenv('SHOP'), '</title>';"
        " unlink('/tmp/sondrel-owner');",
        encoding="utf-8",
    )
    assert not world.apply(Pool, Nginx).failed
    assert ask("127.0.0.1", Request("a.test", 80, False, "/ask.php")).title == "1500 77M of ; [a] = b"


@pytest.mark.parametrize("web_server", ["nginx", "apache"])
@pytest.mark.parametrize("pool, is_taken", [("b", False), ("a", True)])
def test_a_site_is_served_by_no_pool_of_another_client(
    world: World, pool: str, is_taken: bool, web_server: str
) -> None:
    """Except a pool that served the site on the source host, or that runs as the site's own account."""
    of_bob = f'<php version="{VERSION}" handler="fpm" pool="b" user="bob" listen="unix:/run/php/b.sock"/>'
    own = f'<php version="{VERSION}" handler="fpm" pool="{pool}" user="bob" listen="unix:/run/php/{pool}.sock"/>'
    world.accounts["bob"] = "bob"
    if web_server == "nginx":
        kind: type[Kind] = Nginx
        block = server(directive("listen", "80"), directive("server_name", "a.test"), directive("root", "/srv/a"),
                       directive("location", "/x", block=[directive("fastcgi_pass", f"unix:/run/php/{pool}.sock")]))
    else:
        kind = Apache
        block = virtual_host(directive("servername", "a.test"), directive("documentroot", "/srv/a"), directive(
            "filesmatch", "php$", block=[directive("sethandler", f"proxy:unix:/run/php/{pool}.sock|fcgi://localhost")]))
    world.describe(
        site("a.test", block, configuration=f"{web_server}1", kind=web_server, inside=own if is_taken else ""),
        site("b.test", inside=of_bob), server_kind=web_server)
    found = [item.data for item in world.plan(Pool, kind).items if item.identifier == f"{web_server}:a.test"]
    text = next(iter(found[0].files.values())).decode()
    assert (f"/run/php/sondrel-{pool}-{VERSION}.sock" in text) is is_taken
    assert bool(found[0].notes) is not is_taken


SETTINGS = {
    "a program that mails": '<setting name="sendmail_path">/bin/sh -c id</setting>',
    "a library": '<setting name="extension">/srv/a/evil.so</setting>',
    "a file of this host before each script": '<setting name="auto_prepend_file">/etc/passwd</setting>',
    "a log over a file of this host": '<setting name="error_log">/etc/cron.d/x</setting>',
    "a way up": '<setting name="include_path">/srv/a/../../etc</setting>',
    "a line of its own": '<setting name="memory_limit">1M\nuser = root</setting>',
    "a name with a line": '<setting name="memory_limit]&#10;user">root</setting>',
    "a pool of its own": '<setting name="x] = 1&#10;[evil]&#10;user">root</setting>',
    "a variable with a line": '<env name="A">x\nuser = root</env>',
    "a variable of the loader": '<env name="LD_PRELOAD">/srv/a/x.so</env>',
    "a variable of this host": '<env name="A">$DATABASE_PASSWORD</env>',
    "a name of a variable with a line": '<env name="A] = 1&#10;user">root</env>',
    "sessions on another server": '<setting name="session.save_handler">redis</setting>',
}


@pytest.mark.parametrize("attack", SETTINGS.values(), ids=SETTINGS.keys())
def test_leaves_out_settings_that_could_harm(world: World, attack: str) -> None:
    described(world, attack)
    item = world.plan(Pool).items[0]
    assert item.state is State.MAKE and "1 settings are left out" in item.says
    assert not world.apply(Pool).failed
    lines = Path(f"/etc/php/{VERSION}/fpm/pool.d/sondrel-a-{VERSION}.conf").read_text(encoding="utf-8").splitlines()
    assert not [line for line in lines if line.startswith(("php_", "env"))]
    assert [line for line in lines if line.startswith(("user", "["))] == [f"[sondrel-a-{VERSION}]", "user = alice"]


@pytest.mark.parametrize("user", ["root", "bob", "mysql", "alice\ngroup = root", "nobody", "../x", ""])
def test_a_pool_runs_as_no_account_but_those_of_the_restore(world: World, user: str) -> None:
    world.accounts["mysql"] = "mysql"
    with open("/etc/passwd", "a", encoding="ascii") as accounts:
        accounts.write("mysql:x:107:107::/nonexistent:/bin/false\nbob:x:1600:1600::/home/bob:/bin/sh\n")
    before = snapshot("/etc/php")
    described(world, "", user=user.replace("\n", "&#10;"))
    item = world.plan(Pool).items[0]
    assert item.state is State.IMPOSSIBLE and "it runs as" in item.says
    assert world.apply(Pool).changed == [] and snapshot("/etc/php") == before


@pytest.mark.parametrize("name", ["../../../../tmp/x", "global", "a]&#10;user = root&#10;[b", "www", "x" * 300])
def test_the_name_of_a_pool_is_no_more_than_that(world: World, name: str) -> None:
    before = set(snapshot("/etc/php"))
    described(world, "", name=name)
    assert not world.apply(Pool).failed
    new = set(snapshot("/etc/php")) - before
    assert len(new) == 1 and os.path.dirname(new.pop()) == f"/etc/php/{VERSION}/fpm/pool.d"
    assert len(os.listdir("/run/php")) >= 2


def test_code_as_the_web_servers_account_needs_a_decision_where_it_has_sites(world: World) -> None:
    described(world, "", user="www-data")
    assert world.plan(Pool).items[0].state is State.MAKE
    Path("/etc/nginx/sites-enabled/mine").write_text("server { listen 80; server_name mine.test; }", encoding="utf-8")
    item = world.plan(Pool).items[0]
    assert item.state is State.CONFLICT and "mine" in item.says and "--replace=pool:a" in item.decisions[0]


def test_another_version_is_said(world: World) -> None:
    described(world, "", version="5.6")
    item = world.plan(Pool).items[0]
    assert item.state is State.MAKE and f"PHP {VERSION} as alice; it was PHP 5.6 there" in item.says


def test_files_that_another_version_cannot_compile_are_said(world: World) -> None:
    files = {
        "/srv/a/index.php": b"<?php\n\nif (\n",
        "/srv/a/old.php": b"<?php $a{0} = 1;",
        "/srv/a/good.php": b"<?php file_put_contents('/tmp/sondrel-has-run', 'x'); exit;",
        "/srv/a/same.php": b"<?php namespace A; function f() {} class B extends Gone {}",
        "/srv/a/again.php": b"<?php namespace A; function f() {} class B {}",
        "/srv/a/link.php": "/srv/a/index.php",
        "/srv/a/page.html": b"<?php if (",
        "/srv/a/large.php": b"<?php if (" + b" " * (1 << 20),
        "/srv/a/empty.php": b"",
    }
    described(world, "", version="5.6", contents=world.archive("a", files))
    item = world.plan(Pool).items[0]
    assert item.state is State.MAKE and item.says.endswith(
        f"it was PHP 5.6 there: PHP {VERSION} cannot compile 2 of 5 PHP files, the first is /srv/a/index.php, line 4: "
        "Unclosed '(' on line 3"
    )
    assert not os.path.exists("/tmp/sondrel-has-run")
    described(world, "", contents=world.archive("a", files))
    assert world.plan(Pool).items[0].says == f"PHP {VERSION} as alice"


@pytest.mark.parametrize("code", [b"<?php " + b"(" * 500_000, b"<?php $a = [" + b"1," * 500_000], ids=["deep", "long"])
def test_files_that_wear_the_compiler_out_end_no_plan(world: World, code: bytes) -> None:
    described(world, "", version="5.6", contents=world.archive("a", {"/srv/a/index.php": code}))
    item = world.plan(Pool).items[0]
    assert item.state is State.MAKE and "it was PHP 5.6 there" in item.says


def test_missing_extensions_are_packages(world: World) -> None:
    world.describe(
        site(
            "a.test",
            inside=f'<php version="{VERSION}" handler="fpm" extensions="core imagick tidy" pool="a"'
            ' user="alice" listen="unix:/run/php/a.sock"/>',
        )
    )
    assert {each.package for each in world.plan(Pool).missing} == {"php-imagick", f"php{VERSION}-tidy"}


def test_all_settings_that_the_process_manager_knows_go_in_where_it_is_trusted(world: World) -> None:
    described(world, '<setting name="sendmail_path">/usr/sbin/sendmail -t -i -f a@a.test</setting>')
    assert not world.apply(Pool, decisions=Decisions(trust_configuration=True)).failed
    assert "php_value[sendmail_path]" in Path(f"/etc/php/{VERSION}/fpm/pool.d/sondrel-a-{VERSION}.conf").read_text(
        "utf-8"
    )

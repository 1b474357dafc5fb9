"""A source host under the control of an attacker: it can change here only what its own accounts may change."""
import contextlib
import json
import os
import socket
import subprocess
from pathlib import Path

import pytest
import server_dumps
import world
from destination import own_etc, snapshot
from hostile_accounts import ALLOWED_ACCOUNTS, remember_accounts
from hostile_databases import prepare_directory
from hostile_session import add_attacks, statements
from hostile_sites import OWN_ADDRESS
from mail_session import MAIN_CF
from test_hostile_mysql import MYSQL, MYSQL_ATTACKS, state_of_mysql
from test_hostile_postgresql import POSTGRESQL, POSTGRESQL_ATTACKS, state_of_postgresql
from test_pools import VERSION
from web_world import ended

PORT = 8080
# What apply makes for the hostile host's own accounts.
OWN = ("/home/alice", "/srv/a", "/srv/b", "/home/carl", "/home/fred", "/home/post", "/var/spool/cron/crontabs/alice",
       "/etc/sondrel-restore", "/etc/nginx/sondrel-definitions", "/etc/postfix/main.cf",
       "/var/cache/nginx")
ACCOUNT_FILES = ("passwd", "shadow", "group", "gshadow", "subuid", "subgid")


def write(path, text, owner=(0, 0), mode=0o644):
    """Writes a file of this host."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    Path(path).write_text(text, encoding="utf-8")
    os.chown(path, *owner)
    os.chmod(path, mode)


def prepare_host():
    """Makes accounts, sites, jobs and mail of this host that have nothing to do with the session."""
    for name in ("nginx", "apache2", "php", "postfix", "dovecot", "systemd"):
        own_etc(name)
    for place in ("/var/log/apache2", "/run/apache2", "/run/lock", "/var/spool/postfix"):
        os.makedirs(place, exist_ok=True)
    # If an attack succeeds, it must not change the machine.
    for place in ("/usr/local/bin", "/root"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "own", place], check=True)
    with open("/etc/passwd", "a", encoding="ascii") as accounts:
        accounts.write("bob:x:40001:40001::/home/bob:/bin/sh\ndeploy:x:30060:30060::/home/deploy:/bin/sh\n")
    with open("/etc/group", "a", encoding="ascii") as groups:
        groups.write("bob:x:40001:\ndeploy:x:30060:\nadmins:x:40100:bob\nbackups:x:40101:bob\n")
    for name, uid in (("bob", 40001), ("deploy", 30060)):
        write(f"/home/{name}/secret", "precious", (uid, uid), 0o600)
        os.chown(f"/home/{name}", uid, uid)
    write("/etc/sudoers.d/deploy", "deploy ALL=(ALL) NOPASSWD: ALL\n")
    write("/srv/www/here/index.html", "<title>of here.test</title>")
    write("/srv/www/mine/index.html", "<title>of mine.test</title>")
    write("/etc/nginx/sites-enabled/z-here.conf", "server { listen 80; server_name here.test; root /srv/www/here; }")
    write("/etc/apache2/ports.conf", f"Listen {PORT}\n")
    for path in Path("/etc/apache2/sites-enabled").iterdir():
        path.unlink()
    write("/etc/apache2/sites-enabled/z-mine.conf", f"<VirtualHost *:{PORT}>\nServerName mine.test\n"
          "DocumentRoot /srv/www/mine\n<Directory /srv/www/mine>\nRequire all granted\n</Directory>\n</VirtualHost>\n")
    write("/etc/systemd/system/backup.service", "[Service]\nExecStart=/usr/local/bin/backup\n")
    Path("/etc/postfix/main.cf").write_text(MAIN_CF, encoding="ascii")
    subprocess.run(["ip", "address", "add", f"{OWN_ADDRESS}/32", "dev", "lo"], check=True)


@pytest.fixture(name="servers")
def running_servers():
    """This host with its servers; yields the databases' servers by kind."""
    prepare_host()
    prepare_directory()
    with contextlib.ExitStack() as stack:
        databases = {kind: stack.enter_context(server_dumps.server(kind, f"/mnt/{kind}"))
                     for kind in ("mysql", "postgresql")}
        # Hiding the settings of the installed databases hides those of mail, too.
        for name in ("postfix", "dovecot"):
            if not os.path.exists(f"/etc/{name}"):
                subprocess.run(["cp", "-a", f"/mnt/etc.orig/{name}", f"/etc/{name}"], check=True)
        Path("/etc/postfix/main.cf").write_text(MAIN_CF, encoding="ascii")
        stack.enter_context(ended("/run/nginx.pid", "/run/apache2/apache2.pid", f"/run/php/php{VERSION}-fpm.pid"))
        subprocess.run(["nginx"], check=True)
        subprocess.run(["apache2ctl", "start"], check=True, capture_output=True)
        listener = stack.enter_context(socket.socket())
        listener.bind((OWN_ADDRESS, 9200))
        listener.listen()
        yield databases


def add_dumps(session, servers):
    """Adds the databases of the hostile host; the attacks are at the end of their SQL."""
    sources = {"mysql": (MYSQL, "DROP DATABASE shop; DROP USER shop@localhost", MYSQL_ATTACKS,
                         b"/*!40103 SET TIME_ZONE=@OLD_TIME_ZONE */;"),
               "postgresql": (POSTGRESQL, "DROP DATABASE shop; DROP ROLE shop", POSTGRESQL_ATTACKS,
                              b"--\n-- PostgreSQL database dump complete")}
    for kind, server in servers.items():
        server.sql(sources[kind][0])
    server_dumps.dump_all(session)
    for element in list(session.tree.iterfind("unassigned/database")):
        if element.get("name") != "shop":
            element.getparent().remove(element)
            continue
        _, drop, attacks, end = sources[element.get("kind")]
        sql = server_dumps.sql_of(session, element)
        place = sql.index(end)
        server_dumps.put(session, element, sql[:place] + attacks.encode() + sql[place:])
        servers[element.get("kind")].sql(drop)


def state(servers):
    """All that an attack must not change."""
    return {"files": snapshot(), "mysql": state_of_mysql(servers["mysql"]),
            "postgresql": state_of_postgresql(servers["postgresql"]), "processes": programs(),
            "accounts": account_lines()}


def programs():
    """The running programs with their accounts."""
    found = set()
    for pid, _ in world.processes():
        with contextlib.suppress(OSError):
            found.add((Path(f"/proc/{pid}/comm").read_text(encoding="utf-8").strip(), os.stat(f"/proc/{pid}").st_uid))
    return found


def account_lines():
    """The lines of the account files, without those of the session's own accounts."""
    return [(name, line) for name in ACCOUNT_FILES for line in Path(f"/etc/{name}").read_text("utf-8").splitlines()
            if line.split(":")[0] not in ALLOWED_ACCOUNTS]


def written():
    """The text of all configuration files that apply made here."""
    found = []
    for place in ("/etc/nginx", "/etc/apache2", f"/etc/php/{VERSION}/fpm/pool.d", "/etc/postfix", "/etc/dovecot"):
        for path in sorted(Path(place).rglob("*")):
            if path.is_file() and not path.is_symlink() and b"sondrel" in (path.read_bytes() + path.name.encode()):
                found.append("".join(line + "\n" for line in path.read_text("utf-8", "replace").splitlines()
                                     if not line.lstrip().startswith("#")))
    return "".join(found)


def changed(before, after):
    """The paths that differ, without those that were made for the session's own accounts."""
    made = {path for path in before.keys() | after.keys() if before.get(path) != after.get(path)}
    return {path for path in made if not any(path == own or path.startswith(own + "/") for own in OWN)
            and not path.startswith(("/etc/postfix/sondrel-", "/var/spool/postfix"))
            and not ("sondrel" in os.path.basename(path) and path.startswith("/etc/php/"))
            and path not in {f"/etc/{name}" for name in ACCOUNT_FILES}}


def undecided(session):
    """The objects that need a decision by the plan."""
    plan = session.run("plan", "--format=json")
    assert plan.returncode in (0, 3), plan.stderr
    return [each["object"] for each in json.loads(plan.stdout)["objects"] if each["state"] == "conflict"]


def test_all_attacks_at_once_make_nothing_but_what_the_hosts_own_account_may_have(session, servers):
    attacks = add_attacks(session, PORT)
    add_dumps(session, servers)
    names = [attack.name for attack in attacks] + list(statements())
    assert len(attacks) >= 120 and len(names) >= 200, len(names)
    remember_accounts()
    before = state(servers)
    skipped = undecided(session)
    assert state(servers) == before
    done = session.run("apply", "--start-jobs", *(f"--skip={each}" for each in skipped))
    assert done.returncode in (0, 1) and "Traceback" not in done.stderr, done.stderr
    text = written()
    # The harmless part is there: otherwise the attacks were not even tried.
    assert "server_name a.test;" in text and "servername b.test" in text and "user = alice" in text, done.stderr
    assert os.path.exists("/home/alice/shop/index.php") and "precious" not in text
    assert "; ".join(attack.name for attack in attacks if attack.succeeded(text)) == ""
    after = state(servers)
    assert changed(before["files"], after["files"]) - made_configuration(session) == set()
    for part in ("mysql", "postgresql", "accounts"):
        assert after[part] == before[part], part
    assert {name for name, _ in after["processes"] - before["processes"]} <= {"nginx", "apache2", f"php-fpm{VERSION}"}
    session.run("undo")
    back = state(servers)
    assert changed(before["files"], back["files"]) == set() and back["accounts"] == before["accounts"]
    assert back["mysql"] == before["mysql"] and back["postgresql"] == before["postgresql"]


def made_configuration(session):
    """The files and links of web servers and pools in the journal."""
    found = set()
    for line in Path(session.directory, "restore/journal").read_text("ascii").splitlines():
        facts = json.loads(line).get("facts", {})
        for made in (facts.get("files"), facts.get("links")):
            found |= set(made) if isinstance(made, dict) else set()
    return {path for path in found if path.startswith(("/etc/nginx/", "/etc/apache2/", "/etc/php/"))}

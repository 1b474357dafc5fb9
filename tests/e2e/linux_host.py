"""A small web host for the agent "linux", with real servers and databases.

For scripts/demo:

    linux_host.py run [--full]              runs the host until its standard input ends
    linux_host.py compare SESSION [--full]  compares what was fetched with the host
"""
import contextlib
import os
import shutil
import subprocess
import sys
import types

import source_databases
import source_services
from archives import STAGE, assert_same_tree, plain_text, unpack
from linux_agent import Dump
from source_services import Apache, Nginx, add_crontab, add_maildir, add_user, fill_awkwardly, fill_root
from world import read

# --- the host --------------------------------------------------------------------------------

@contextlib.contextmanager
def web_host(storage=None):
    """An empty host: directories, no database server, nginx and Apache laid out but not running."""
    with source_services.own_directories(storage):
        source_databases.hide_installed()
        for servers in (source_databases.MariaDb, source_databases.PostgreSql):
            shutil.rmtree(servers.SOCKETS, ignore_errors=True)
        apache = Apache() if os.path.isdir("/etc/apache2") else None
        yield types.SimpleNamespace(nginx=Nginx(), apache=apache)


def populate(host):
    """A user with two sites that nginx serves, a mailbox of a domain, and a cron table."""
    alice, vmail = add_user("alice"), add_user("vmail", "/var/mail/vhosts")
    fill_awkwardly("/home/alice/a.test", alice)
    host.nginx.add_site("a.test", "/home/alice/a.test", ["www.a.test"], tls=True)
    fill_root("/home/alice/shop", alice, {"index.php": "<?php", "wp-config.php": WORDPRESS_LIKE})
    host.nginx.add_site("shop.a.test", "/home/alice/shop", ["*.shop.a.test"])
    add_maildir("/var/mail/vhosts/a.test/info", vmail)
    add_crontab("alice", "MAILTO=\"\"\n*/5 * * * * /home/alice/a.test/program.cgi\n")


def populate_apache(host):
    """Another user, with a site that Apache serves and a mailbox of the account."""
    bob = add_user("bob")
    fill_root("/home/bob/public html", bob)
    host.apache.add_site("b.test", "/home/bob/public html", ["www.b.test"])
    add_maildir("/home/bob/Maildir", bob)


def many_sites(host, number, users):
    """Makes this number of sites, each with one page, of as many users."""
    for index in range(number):
        user = f"u{index % users:04d}"
        owner = add_user(user)
        name = f"site{index:04d}.test"
        fill_root(f"/home/{user}/{name}", owner)
        host.nginx.add_site(name, f"/home/{user}/{name}", [f"www.{name}"])


TREES = ["/home/alice/a.test", "/home/alice/shop", "/var/mail/vhosts/a.test/info"]
FULL_TREES = ["/home/bob/public html", "/home/bob/Maildir"]

# The names are those that the application's file uses.
WORDPRESS_LIKE = """<?php
define( 'DB_NAME', 'shop' );
define( 'DB_USER', 'shop' );
define( 'DB_PASSWORD', 'shop-passphrase' );
define( 'DB_HOST', 'localhost' );
$table_prefix = 'wp_';
"""

DATABASE_DIRECTORIES = ["/mnt/mariadb", "/mnt/postgresql"]
DATABASE_SECRETS = [b"shop-passphrase"]

MYSQL_CONTENT = """
CREATE DATABASE shop CHARACTER SET utf8mb4;
CREATE USER 'shop'@'localhost' IDENTIFIED BY 'shop-passphrase';
GRANT ALL ON shop.* TO 'shop'@'localhost';
USE shop;
CREATE TABLE goods (id INT PRIMARY KEY AUTO_INCREMENT, name VARCHAR(100), picture LONGBLOB) ENGINE=InnoDB;
INSERT INTO goods (name, picture) VALUES ('größe', 0x00FF0A27), ("it's", NULL), ('', '');
CREATE TABLE changes (id INT, at TIMESTAMP NULL) ENGINE=InnoDB;
CREATE TRIGGER noted AFTER INSERT ON goods FOR EACH ROW INSERT INTO changes VALUES (NEW.id, NULL);
CREATE VIEW names AS SELECT name FROM goods;
DELIMITER //
CREATE PROCEDURE many() BEGIN SELECT COUNT(*) FROM goods; END//
CREATE FUNCTION twice(n INT) RETURNS INT DETERMINISTIC RETURN 2 * n//
CREATE EVENT nightly ON SCHEDULE EVERY 1 DAY DO DELETE FROM changes//
"""

POSTGRESQL_CONTENT = """
CREATE ROLE bob LOGIN;
CREATE DATABASE wiki OWNER bob;
\\connect wiki
SET ROLE bob;
CREATE TABLE pages (id serial PRIMARY KEY, title text UNIQUE, body bytea);
INSERT INTO pages (title, body) VALUES ('größe', '\\x00ff0a27'), ('it''s', NULL), ('', '');
CREATE FUNCTION twice(n int) RETURNS int LANGUAGE sql AS 'SELECT 2 * n';
CREATE VIEW titles AS SELECT title FROM pages;
GRANT SELECT ON titles TO PUBLIC;
"""


@contextlib.contextmanager
def databases():
    """Both database servers with one database each, of alice and of bob."""
    for directory in DATABASE_DIRECTORIES:
        shutil.rmtree(directory, ignore_errors=True)
    with source_databases.MariaDb(DATABASE_DIRECTORIES[0]) as mysql, \
            source_databases.PostgreSql(DATABASE_DIRECTORIES[1]) as postgresql:
        mysql.sql(MYSQL_CONTENT)
        postgresql.sql(POSTGRESQL_CONTENT)
        yield types.SimpleNamespace(mysql=mysql, postgresql=postgresql)


def mysql_state(server, database):
    """Everything that a restored database must have in common with the original."""
    dump = subprocess.run(
        ["mariadb-dump", "--no-defaults", f"--socket={server.socket}", "--skip-comments", "--hex-blob", "--routines",
         "--events", "--triggers", "--databases", database], check=True, stdout=subprocess.PIPE).stdout
    users = server.sql(f"SELECT CONCAT(QUOTE(user), '@', QUOTE(host)) FROM mysql.db WHERE db = '{database}';")
    grants = b"".join(server.sql(f"SHOW GRANTS FOR {user};") for user in users.decode().splitlines())
    return dump, grants


def postgresql_state(server, database):
    dump = subprocess.run(
        [f"{server.programs}/pg_dump", "-h", server.sockets, "-p", str(server.port), "--create", database], cwd="/",
        user=server.ACCOUNT, check=True, stdout=subprocess.PIPE).stdout
    # The key in these two lines is a new one in each dump.
    lines = [line for line in dump.splitlines() if not line.startswith((b"\\restrict ", b"\\unrestrict "))]
    roles = server.sql("SELECT rolname, rolcanlogin, rolsuper, rolpassword FROM pg_authid ORDER BY 1;")
    return lines, roles


@contextlib.contextmanager
def restored(archives, files):
    """Second servers, into which the database dumps among the archives were restored."""
    for directory in ("/mnt/second-mariadb", "/mnt/second-postgresql"):
        shutil.rmtree(directory, ignore_errors=True)
    with source_databases.MariaDb("/mnt/second-mariadb", "/run/second-mariadb") as mysql, \
            source_databases.PostgreSql("/mnt/second-postgresql", "/run/second-postgresql") as postgresql:
        for name in files:
            if name.startswith("content/databases/mysql-"):
                mysql.sql(plain_text(f"{archives}/{name}"))
            elif name.startswith("content/databases/postgresql-"):
                postgresql.sql(plain_text(f"{archives}/{name}"))
        yield types.SimpleNamespace(mysql=mysql, postgresql=postgresql)


# --- for scripts/demo ------------------------------------------------------------------------

def run_host(full):
    with contextlib.ExitStack() as running:
        host = running.enter_context(web_host())
        populate(host)
        running.enter_context(host.nginx)
        if full:
            populate_apache(host)
            running.enter_context(host.apache)
            running.enter_context(databases())
        print("ready", flush=True)
        sys.stdin.buffer.read()


def compare(session, full):
    files = Dump(read(f"{session}/dump.xml")).files()
    for name in files:
        if ".tar" in name:
            unpack(f"{session}/archives/{name}")
    for tree in TREES + (FULL_TREES if full else []):
        assert_same_tree(tree, STAGE + tree)
        print(f"   identical: {tree}")
    if full:
        originals = source_databases.MariaDb(DATABASE_DIRECTORIES[0]), source_databases.PostgreSql(DATABASE_DIRECTORIES[1])
        with restored(f"{session}/archives", files) as second:
            assert mysql_state(originals[0], "shop") == mysql_state(second.mysql, "shop")
            print("   identical: database shop, restored")
            assert postgresql_state(originals[1], "wiki") == postgresql_state(second.postgresql, "wiki")
            print("   identical: database wiki, restored")


if __name__ == "__main__":
    if sys.argv[1] == "run":
        run_host("--full" in sys.argv)
    else:
        compare(sys.argv[2], "--full" in sys.argv)

"""A small web host for the agent "linux", the agent itself, and what is made of its archives.

For scripts/demo:

    linux_host.py run [--full]              runs the host until its standard input ends
    linux_host.py compare SESSION [--full]  compares what was fetched with the host
"""
import contextlib
import hashlib
import os
import shutil
import stat
import subprocess
import sys
import types
import xml.etree.ElementTree

import source_databases
import source_services
from source_services import Apache, Nginx, add_crontab, add_maildir, add_user, fill_awkwardly, fill_root
from world import AGENTS, DTM, TESTS, die_with_parent, read, wait_until, write

SOURCES = f"{os.path.dirname(TESTS)}/agents"
FORMATS = f"{os.path.dirname(TESTS)}/docs/formats"
AGENT_DIR = "/mnt/agent"
STAGE = "/mnt/stage"


def install_linux_agent():
    """The agent and the scout in the destination's product directory."""
    for part in ("shared", "linux"):
        shutil.copytree(f"{SOURCES}/{part}", f"{AGENTS}/{part}", dirs_exist_ok=True)
    subprocess.run([f"{SOURCES}/bundle-scout", f"{DTM}/scout.pl"], check=True)


# --- the host --------------------------------------------------------------------------------

@contextlib.contextmanager
def web_host(storage=None):
    """An empty host: directories, no database server, nginx and Apache laid out but not running."""
    with source_services.own_folders(storage):
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
    """So many sites, each with one page, of so many users."""
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

DATABASE_FOLDERS = ["/mnt/mariadb", "/mnt/postgresql"]
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
    for folder in DATABASE_FOLDERS:
        shutil.rmtree(folder, ignore_errors=True)
    with source_databases.MariaDb(DATABASE_FOLDERS[0]) as mysql, \
            source_databases.PostgreSql(DATABASE_FOLDERS[1]) as postgresql:
        mysql.sql(MYSQL_CONTENT)
        postgresql.sql(POSTGRESQL_CONTENT)
        yield types.SimpleNamespace(mysql=mysql, postgresql=postgresql)


def mysql_state(server, database):
    """All that a restored database must have in common with the original."""
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
    # The key of these two lines is another one every time.
    lines = [line for line in dump.splitlines() if not line.startswith((b"\\restrict ", b"\\unrestrict "))]
    roles = server.sql("SELECT rolname, rolcanlogin, rolsuper, rolpassword FROM pg_authid ORDER BY 1;")
    return lines, roles


@contextlib.contextmanager
def restored(archives, files):
    """Second servers, into which the database dumps among the archives were restored."""
    for folder in ("/mnt/second-mariadb", "/mnt/second-postgresql"):
        shutil.rmtree(folder, ignore_errors=True)
    with source_databases.MariaDb("/mnt/second-mariadb", "/run/second-mariadb") as mysql, \
            source_databases.PostgreSql("/mnt/second-postgresql", "/run/second-postgresql") as postgresql:
        for name in files:
            if name.startswith("content/databases/mysql-"):
                mysql.sql(plain_text(f"{archives}/{name}"))
            elif name.startswith("content/databases/postgresql-"):
                postgresql.sql(plain_text(f"{archives}/{name}"))
        yield types.SimpleNamespace(mysql=mysql, postgresql=postgresql)


# --- the agent by itself ---------------------------------------------------------------------

# Runs a program, and prints the KiB of its largest process. To the kernel the memory of a process is also what the one
# that has started it had: this one is small.
PEAK = """
import resource, subprocess, sys
status = subprocess.call(sys.argv[1:], stdout=sys.stderr)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
sys.exit(status)
"""


class Agent:
    """The agent deployed by hand into a directory that belongs to `owner`."""

    def __init__(self, folder=AGENT_DIR, owner=(0, 0)):
        self.folder = folder
        self._started = []
        shutil.rmtree(folder, ignore_errors=True)
        for part in ("shared", "linux"):
            shutil.copytree(f"{SOURCES}/{part}", folder, dirs_exist_ok=True, ignore=shutil.ignore_patterns("control"))
        for parent, _, names in os.walk(folder):
            for name in [".", *names]:
                os.chown(os.path.join(parent, name), *owner)

    def start(self, *arguments, given=b"", environment=None, user=0, through=()):
        with open(write("/mnt/agent.stdin", given), "rb") as stdin:
            self._started.append(subprocess.Popen(
                [*through, "perl", f"{self.folder}/agent.pl", *arguments], stdin=stdin, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, cwd="/", user=user, group=user, extra_groups=[], preexec_fn=die_with_parent,
                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **(environment or {})}))
        return self._started[-1]

    def end(self):
        """Ends what a failed test has left running."""
        for process in self._started:
            if process.poll() is None:
                process.terminate()
                process.communicate(timeout=20)

    def run(self, *arguments, **how):
        """The finished run: returncode, stdout, stderr."""
        process = self.start(*arguments, **how)
        stdout, stderr = process.communicate(timeout=100)
        return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)

    def peak_memory(self, *arguments):
        """Bytes that the largest process of a run that succeeds had at most."""
        process = self.start(*arguments, through=[sys.executable, "-c", PEAK])
        stdout, stderr = process.communicate(timeout=100)
        assert (process.returncode, stderr) == (0, b"")
        return int(stdout) * 1024

    def dump(self, *arguments, **how):
        """A dump that must succeed."""
        result = self.run("--migration-mode", *arguments, **how)
        assert (result.returncode, result.stderr) == (0, b""), result
        return Dump(read(f"{self.folder}/dump.xml"))

    def status(self):
        return xml.etree.ElementTree.fromstring(read(f"{self.folder}/dumping-status.xml"))

    def content(self):
        """Paths of the finished content files, relative to the agent directory."""
        return sorted(os.path.relpath(os.path.join(parent, name), self.folder)
                      for parent, _, names in os.walk(f"{self.folder}/content") for name in names
                      if not name.endswith(".new"))


@contextlib.contextmanager
def without_perl_modules(module):
    """perl finds neither the module nor those beside it, as where their packages are missing."""
    file = subprocess.run(["perl", f"-M{module}", "-e", "print $INC{$ARGV[0]}", f"{module.replace('::', '/')}.pm"],
                          check=True, stdout=subprocess.PIPE).stdout
    subprocess.run(["mount", "-t", "tmpfs", "empty", os.path.dirname(file)], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", os.path.dirname(file)], check=True)


PROGRAMS = "/mnt/programs"
GATE = f"{PROGRAMS}/gate"
# Waits when it is to make the archive of this number, counted from 1, and says that it does.
TAR = f"""#!/bin/sh
case " $* " in
*" --create "*)
  echo x >> {PROGRAMS}/calls
  if [ "$(grep -c x {PROGRAMS}/calls)" = "$(cat {PROGRAMS}/which)" ]; then
    echo $$ > {PROGRAMS}/waiting
    read -r line < {GATE}
  fi ;;
esac
exec /usr/bin/tar "$@"
"""


class Gate:
    """Lets a dump wait just before it makes its archive of this number."""

    def __init__(self, which):
        shutil.rmtree(PROGRAMS, ignore_errors=True)
        write(f"{PROGRAMS}/tar", TAR, mode=0o755)
        write(f"{PROGRAMS}/which", f"{which}\n")
        os.mkfifo(GATE)
        self.path = f"{PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin"

    def wait(self):
        wait_until(lambda: os.path.exists(f"{PROGRAMS}/waiting") and read(f"{PROGRAMS}/waiting").endswith(b"\n"),
                   "the archive to be begun")

    def open(self):
        with open(GATE, "wb"):
            pass


def check_schema(text, schema):
    """The document is as docs/formats says."""
    result = subprocess.run(["xmllint", "--noout", "--schema", f"{FORMATS}/{schema}.xsd", "-"], input=text,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert result.returncode == 0, result.stdout.decode() + text.decode()[:4000]


class Dump:
    """A dump document."""

    def __init__(self, text):
        self.text = text
        self.root = xml.etree.ElementTree.fromstring(text)

    def names(self, kind):
        """Names of all objects of the kind."""
        return sorted(element.get("address" if kind == "mailbox" else "name") for element in self.root.iter(kind))

    def objects(self):
        return {kind: self.names(kind) for kind in ("reseller", "client", "domain", "database", "mailbox")
                if self.names(kind)}

    def find(self, kind, name):
        found = [element for element in self.root.iter(kind) if name in (element.get("name"), element.get("address"))]
        assert len(found) == 1, f"{kind} {name}: {len(found)}"
        return found[0]

    def files(self):
        """{file: content entry} of everything that was archived."""
        return {element.get("file"): element for element in self.root.iter("content")}

    def problems(self, severity=None):
        """[(object, text)]"""
        return [(element.get("object"), element.text) for element in self.root.iter("problem")
                if severity in (None, element.get("severity"))]

    def losses(self):
        """The errors, but for the one about the shop's database on a host without its server."""
        return [(object_, text) for object_, text in self.problems("error")
                if object_ != "shop.a.test" or "names the database shop, for which no server was found" not in text]


# --- archives --------------------------------------------------------------------------------

def unpack(archive, folder=STAGE):
    """What docs/linux-agent.md says: members are relative to the root of the source host."""
    os.makedirs(folder, exist_ok=True)
    subprocess.run(["tar", "-x", "-p", "--acls", "--xattrs", "--xattrs-include=*", "--numeric-owner", "-f", archive,
                    "-C", folder], check=True)
    return folder


def plain_text(archive):
    """A database's dump."""
    if archive.endswith(".gz"):
        return subprocess.run(["gzip", "-cd", archive], check=True, stdout=subprocess.PIPE).stdout
    return read(archive)


def described(top):
    """{relative path, as bytes: all that an archive must keep of the entry} of a tree."""
    top = os.fsencode(top)
    found, inodes = {}, {}
    for parent, folders, names in os.walk(top):
        for name in [b".", *names, *(folder for folder in folders if os.path.islink(os.path.join(parent, folder)))]:
            path = os.path.normpath(os.path.join(parent, name))
            key = os.path.relpath(path, top)
            found[key] = entry(path)
            status = os.lstat(path)
            if stat.S_ISREG(status.st_mode) and status.st_nlink > 1:
                inodes.setdefault((status.st_dev, status.st_ino), []).append(key)
    for group in inodes.values():
        for key in group:
            found[key]["same as"] = sorted(group)
    return found


def entry(path):
    status = os.lstat(path)
    kind = stat.S_IFMT(status.st_mode)
    found = {"mode": oct(status.st_mode), "owner": (status.st_uid, status.st_gid), "mtime": status.st_mtime_ns,
             "attributes": {name: os.getxattr(path, name, follow_symlinks=False)
                            for name in os.listxattr(path, follow_symlinks=False)}}
    if kind == stat.S_IFREG:
        with open(path, "rb") as file:
            found |= {"size": status.st_size, "content": hashlib.file_digest(file, "md5").hexdigest()}
            # A file with holes must not be filled with zeros.
            found["holes"] = status.st_blocks * 512 < status.st_size // 2
    elif kind == stat.S_IFLNK:
        found["target"] = os.readlink(path)
    elif kind in (stat.S_IFBLK, stat.S_IFCHR):
        found["device"] = status.st_rdev
    return found


def difference(one, other):
    """What differs of two described trees, as text for a failed test; empty when nothing does."""
    return "\n".join(f"{path!r}: {one.get(path)} {other.get(path)}" for path in sorted(one.keys() | other.keys())
                     if one.get(path) != other.get(path))


def assert_same_tree(original, copy):
    """Both directories hold the same in every respect."""
    differing = difference(described(original), described(copy))
    assert not differing, differing


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
        originals = source_databases.MariaDb(DATABASE_FOLDERS[0]), source_databases.PostgreSql(DATABASE_FOLDERS[1])
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

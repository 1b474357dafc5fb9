"""A web host to migrate from: accounts, sites, nginx, Apache, Maildirs and cron tables.

Everything has Debian's layout, in a private world, so that an agent finds it where it is on real hosts.
"""
import contextlib
import ctypes
import os
import shutil
import signal
import socket
import subprocess

from private_world import MS_BIND, mount, unmount
from world import read, wait_until, write

# Directories for a host's data: the test replaces those of the machine by its own.
DIRECTORIES = ("/home", "/srv", "/var/www", "/var/mail", "/var/spool", "/var/lib/nginx")
ACCOUNT_FILES = ("/etc/passwd", "/etc/group", "/etc/shadow")
CERTIFICATES = "/etc/letsencrypt"
FIRST_USER = 30001


@contextlib.contextmanager
def own_directories(storage=None):
    """Puts empty directories in the place of the machine's, below `storage` if that is given.

    Accounts and certificates that are made in the block are gone after it.
    """
    kept = {path: read(path) for path in ACCOUNT_FILES}
    for directory in DIRECTORIES:
        if storage is None:
            mount(directory)
        else:
            os.makedirs(storage + directory, exist_ok=True)
            mount(directory, storage + directory, None, MS_BIND, None)
    os.makedirs("/var/www/html")
    os.makedirs("/var/spool/cron/crontabs", mode=0o1730)
    try:
        yield
    finally:
        for directory in reversed(DIRECTORIES):
            unmount(directory)
            if storage is not None:
                shutil.rmtree(storage + directory)
        for path, content in kept.items():
            with open(path, "wb") as file:
                file.write(content)
        shutil.rmtree(CERTIFICATES, ignore_errors=True)


def take_away(directory):
    """Removes a directory of /etc, that of the machine or an earlier one; returns its path."""
    path = f"/etc/{directory}"
    if os.path.islink(path):
        os.unlink(path)
    shutil.rmtree(path, ignore_errors=True)
    return path


def own_copy(directory):
    """Puts a fresh copy of the machine's directory into /etc, which the test may change."""
    path = take_away(directory)
    # Links in it name /etc/..., so they lead into the copy.
    shutil.copytree(f"/mnt/etc.orig/{directory}", path, symlinks=True)
    return path


# --- accounts --------------------------------------------------------------------------------

def accounts():
    """{name: (uid, gid)} of all accounts of the private world."""
    fields = [line.split(":") for line in read("/etc/passwd").decode().splitlines()]
    return {entry[0]: (int(entry[2]), int(entry[3])) for entry in fields}


def append(path, line):
    with open(path, "a", encoding="utf-8") as file:
        file.write(line + "\n")


def add_user(name, home=None):
    """Makes the account with a home of its own, unless it exists; returns (uid, gid)."""
    known = accounts()
    if name in known:
        return known[name]
    number = max([FIRST_USER - 1, *(uid for uid, _ in known.values() if uid < 60000)]) + 1
    home = home or f"/home/{name}"
    append("/etc/passwd", f"{name}:x:{number}:{number}::{home}:/bin/sh")
    append("/etc/group", f"{name}:x:{number}:")
    append("/etc/shadow", f"{name}:!:19000::::::")
    if not os.path.isdir(home):
        os.makedirs(home)
        os.chmod(home, 0o711)
        os.chown(home, number, number)
    return number, number


def owned(path, content, owner, mode=0o644):
    """Writes a file that belongs to the owner, and so do the missing directories above it."""
    missing = []
    parent = os.path.dirname(path)
    while not os.path.isdir(parent):
        missing.append(parent)
        parent = os.path.dirname(parent)
    write(path, content, mode, owner)
    for directory in missing:
        os.chown(directory, *owner)
    return path


def add_crontab(user, text):
    return write(f"/var/spool/cron/crontabs/{user}", text, 0o600, add_user(user))


def add_maildir(path, owner, messages=3):
    """Makes a Maildir with messages in its inbox and in one subdirectory."""
    for directory in ("", ".Sent"):
        for part in ("cur", "new", "tmp"):
            os.makedirs(os.path.join(path, directory, part), mode=0o700)
        for number in range(messages):
            name = f"{1600000000 + number}.M{number}P1.host:2,S"
            write(os.path.join(path, directory, "cur", name), f"Subject: {directory} {number}\n\n{path}\n", 0o600)
    for parent, directories, names in os.walk(path):
        for name in ["."] + names:
            os.lchown(os.path.join(parent, name), *owner)
    return path


# --- sites -----------------------------------------------------------------------------------

def fill_root(root, owner, pages=None):
    """Fills the document root with a plain site: {relative path: content}."""
    for path, content in (pages or {"index.html": f"<h1>{root}</h1>\n"}).items():
        owned(os.path.join(root, path), content, owner)
    return root


def fill_awkwardly(root, owner):
    """Makes everything that an archive can get wrong, below the root."""
    fill_root(root, owner)
    names = ["with blanks", "two\nlines", "-rf", "quote\"'", "$HOME", "*", "back\\slash", "größe-Ω-日本",
             b"\xff\xfe not UTF-8", b"control\x01", "..hidden", "n" * 255, "=41", "a;b|c&d"]
    for number, name in enumerate(names):
        path = os.path.join(os.fsencode(root), b"awkward", os.fsencode(name))
        owned(path, f"{number}\n", owner, 0o640)
        os.utime(path, ns=(10**18, 10**18 + 123456789 * (number + 1)))
    deep = "/".join(["d" * 100] * 12)
    owned(f"{root}/{deep}/leaf", "deep", owner)
    owned(f"{root}/empty", "", owner, 0o400)
    os.makedirs(f"{root}/empty directory", mode=0o2770)
    os.chmod(f"{root}/empty directory", 0o3770)
    os.chown(f"{root}/empty directory", 12345, 54321)
    owned(f"{root}/program.cgi", "#!/bin/sh\n", owner)
    os.chmod(f"{root}/program.cgi", 0o4755)
    os.link(f"{root}/index.html", f"{root}/hard link.html")
    os.symlink("index.html", f"{root}/link")
    os.symlink("/nowhere/at all", f"{root}/broken link")
    os.symlink("..", f"{root}/loop")
    os.lchown(f"{root}/link", *owner)
    with open(owned(f"{root}/sparse", "", owner), "r+b") as file:
        file.seek(64 << 20)
        file.write(b"end")
    owned(f"{root}/of somebody", "x", owner)
    subprocess.run(["setfacl", "-m", "u:4711:rw-,g:4712:r--,m::rw-", f"{root}/of somebody"], check=True)
    subprocess.run(["setfacl", "-d", "-m", "u:4711:rwx", f"{root}/awkward"], check=True)
    for directory in (f"{root}/awkward", root):
        os.utime(directory, ns=(10**18, 15 * 10**17 + 987654321))
    return root


def certificate(name):
    """Makes a certificate for the name, and its key; returns their paths, which are links as on real hosts."""
    live, archive = f"{CERTIFICATES}/live/{name}", f"{CERTIFICATES}/archive/{name}"
    if not os.path.isdir(live):
        os.makedirs(live)
        os.makedirs(archive)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-days", "30", "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{name}",
                        "-keyout", f"{archive}/privkey1.pem", "-out", f"{archive}/fullchain1.pem"],
                       check=True, stderr=subprocess.DEVNULL)
        for kind in ("privkey", "fullchain"):
            os.symlink(f"../../archive/{name}/{kind}1.pem", f"{live}/{kind}.pem")
    return f"{live}/fullchain.pem", f"{live}/privkey.pem"


def end_with_parent():
    """Run in a child: it ends when the test was killed, which the servers' workers notice."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG


class Server:
    """A web server of the test in the foreground; as a context manager it runs, and must answer."""

    def __init__(self, directory, port):
        self.directory = own_copy(directory)
        self.port = port
        for name in (f"/var/log/{directory}", f"/run/{directory}", f"/run/lock/{directory}"):
            os.makedirs(name, exist_ok=True)
        self._process = None

    def enable(self, name, text):
        """Enables the site's file in Debian's way: in sites-available, with a link to it."""
        write(f"{self.directory}/sites-available/{name}", text)
        link = f"{self.directory}/sites-enabled/{name}"
        if not os.path.lexists(link):
            os.symlink(f"../sites-available/{name}", link)

    def disable(self, name):
        os.unlink(f"{self.directory}/sites-enabled/{name}")

    def __enter__(self):
        # A session of its own: Apache with mod_php ends its whole process group, which would include the test.
        self._process = subprocess.Popen(
            self.command, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, preexec_fn=end_with_parent, start_new_session=True)
        wait_until(self._answers, f"{self.directory} to answer")
        return self

    def _answers(self):
        if self._process.poll() is not None:
            raise AssertionError(f"{self.directory} has ended:\n{self._process.stderr.read().decode()}")
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def __exit__(self, *exception):
        self._process.send_signal(signal.SIGTERM)
        self._process.wait(20)
        self._process.stderr.close()

    def get(self, name, path="/"):
        """(status, body) of a page of the site."""
        with socket.create_connection(("127.0.0.1", self.port), 10) as connection:
            connection.sendall(f"GET {path} HTTP/1.0\r\nHost: {name}\r\n\r\n".encode())
            answer = b"".join(iter(lambda: connection.recv(65536), b""))
        head, _, body = answer.partition(b"\r\n\r\n")
        return int(head.split()[1]), body


class Nginx(Server):
    """Its configuration is that of the package, without the default site."""

    command = ["/usr/sbin/nginx", "-e", "stderr", "-g", "daemon off;"]

    def __init__(self, port=80):
        super().__init__("nginx", port)
        with contextlib.suppress(FileNotFoundError):
            self.disable("default")

    def add_site(self, name, root, names=(), more="", tls=False):
        secured = ""
        if tls:
            pem, key = certificate(name)
            secured = f"    listen 443 ssl;\n    ssl_certificate {pem};\n    ssl_certificate_key {key};\n"
        self.enable(name, f"server {{\n    listen {self.port};\n{secured}"
                          f"    server_name {' '.join([name, *names])};\n    root \"{root}\";\n{more}}}\n")


class Apache(Server):
    """Its configuration is that of the package on another port, without the default site."""

    command = ["sh", "-c", ". /etc/apache2/envvars; exec /usr/sbin/apache2 -DFOREGROUND"]

    def __init__(self, port=8080):
        super().__init__("apache2", port)
        write(f"{self.directory}/ports.conf", f"Listen {port}\n")
        write(f"{self.directory}/conf-enabled/zz-served.conf",
              "ServerName localhost\n<Directory /home>\n    Require all granted\n    AllowOverride All\n</Directory>\n")
        with contextlib.suppress(FileNotFoundError):
            self.disable("000-default.conf")

    def add_site(self, name, root, names=(), more=""):
        aliases = f"    ServerAlias {' '.join(names)}\n" if names else ""
        self.enable(f"{name}.conf", f"<VirtualHost *:{self.port}>\n    ServerName {name}\n{aliases}"
                                    f"    DocumentRoot \"{root}\"\n{more}</VirtualHost>\n")

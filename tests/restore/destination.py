"""This host as a destination, in a private world: what a restore writes goes to throw-away file systems.

For scripts/demo:

    destination.py run [--full]    makes it of the private world that this is called in, runs its database servers, and
                                   ends all its servers when its standard input ends
"""
import contextlib
import hashlib
import os
import shutil
import stat
import subprocess
import sys

FOLDERS = ("/home", "/srv", "/opt", "/var/www", "/var/mail", "/var/lib", "/var/spool", "/var/cache")
# Packages have their state there, which programs read.
_WITH_CONTENT = ("/var/lib",)


def make():
    """Empty directories where sites and mailboxes go, and copies of those that programs need; accounts can be made."""
    for number, folder in enumerate(FOLDERS):
        os.makedirs(folder, exist_ok=True)
        if folder in _WITH_CONTENT:
            layers = f"/mnt/layers/{number}"
            os.makedirs(layers, exist_ok=True)
            os.makedirs(f"{layers}/upper")
            os.makedirs(f"{layers}/work")
            where = f"lowerdir={folder},upperdir={layers}/upper,workdir={layers}/work"
            subprocess.run(["mount", "-t", "overlay", "-o", where, "own", folder], check=True)
        else:
            subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "own", folder], check=True)
    os.makedirs("/var/spool/cron/crontabs", mode=0o1730)
    # What useradd and the like lock and write; links to the machine's, which are read-only, are in their way.
    for name in (".pwd.lock", "passwd-", "shadow-", "group-", "gshadow-", "subuid-", "subgid-"):
        if os.path.islink(f"/etc/{name}"):
            os.unlink(f"/etc/{name}")
    for name in ("login.defs", "default", "subuid", "subgid", "shells"):
        own_etc(name)


def own_etc(name):
    """A copy of an entry of /etc, which can be changed; the machine's are read-only."""
    path = f"/etc/{name}"
    if not os.path.islink(path):
        return
    target = os.path.realpath(path)
    os.unlink(path)
    if os.path.isdir(target):
        shutil.copytree(target, path, symlinks=True)
    elif os.path.exists(target):
        shutil.copy2(target, path)


def snapshot(*roots):
    """{path: what tells one state from another} of /etc and the places of sites and mailboxes, or of these roots.

    Without times, since taking something back changes those of the directory; without copies of account files that the
    programs for accounts leave.
    """
    found = {}
    for root in roots or ("/etc", *(folder for folder in FOLDERS if folder not in _WITH_CONTENT)):
        for place, directories, files in os.walk(root):
            for name in directories + files:
                if not (place == "/etc" and (name.endswith("-") or name == ".pwd.lock")):
                    found[f"{place}/{name}"] = _entry(f"{place}/{name}")
    return found


def _entry(path):
    about = os.lstat(path)
    entry = [oct(about.st_mode), about.st_uid, about.st_gid]
    if stat.S_ISLNK(about.st_mode):
        return [*entry, os.readlink(path)]
    if stat.S_ISREG(about.st_mode):
        with open(path, "rb") as file:
            return [*entry, hashlib.sha256(file.read()).hexdigest()]
    return entry


def run_host(full):
    """A destination whose servers are installed and have nothing to do yet."""
    # Only the tests put its directory in the way of Python's modules.
    sys.path.insert(0, f"{os.path.dirname(os.path.dirname(os.path.abspath(__file__)))}/e2e")
    make()
    for name in ("nginx", "apache2", "php", "postfix", "dovecot"):
        own_etc(name)
    for place in ("/var/log/nginx", "/var/log/apache2", "/run/apache2", "/var/spool/postfix"):
        os.makedirs(place, exist_ok=True)
    if full and not os.path.exists("/etc/postfix/main.cf"):
        # The package makes none if it was told to.
        with open("/etc/postfix/main.cf", "w", encoding="ascii") as settings:
            settings.write("compatibility_level = 3.6\nmyhostname = destination.test\nmydestination = $myhostname\n")
    if full:
        # nginx has port 80, as on the source host.
        with open("/etc/apache2/ports.conf", "w", encoding="ascii") as settings:
            settings.write("Listen 8080\n")
    with contextlib.ExitStack() as running:
        if full:
            import server_dumps  # pylint: disable=import-outside-toplevel
            running.enter_context(server_dumps.server("mysql", "/mnt/mariadb"))
            running.enter_context(server_dumps.server("postgresql", "/mnt/postgresql"))
        print("ready", flush=True)
        sys.stdin.buffer.read()


if __name__ == "__main__":
    run_host("--full" in sys.argv)

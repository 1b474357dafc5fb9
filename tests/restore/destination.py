"""Makes this host a destination within a private world: a restore writes to temporary file systems.

For scripts/demo:

    destination.py run [--full]    makes a destination of the calling process's private world, runs its database
                                   servers, and ends all its servers when its standard input ends
"""
import contextlib
import hashlib
import os
import shutil
import stat
import sys

DIRECTORIES = ("/home", "/srv", "/opt", "/var/www", "/var/mail", "/var/lib", "/var/spool", "/var/cache")
# Programs read the state of their packages there, so its content stays visible.
_WITH_CONTENT = ("/var/lib",)


def make():
    """Mounts file systems on the places of sites and mailboxes: empty ones, or an overlay if programs need the content.
    Also makes /etc ready for new accounts."""
    # Not above: nothing has put the directory of this module on Python's path yet when this is run as a program.
    from private_world import mount  # pylint: disable=import-outside-toplevel
    for number, directory in enumerate(DIRECTORIES):
        os.makedirs(directory, exist_ok=True)
        if directory in _WITH_CONTENT:
            layers = f"/mnt/layers/{number}"
            os.makedirs(layers, exist_ok=True)
            os.makedirs(f"{layers}/upper")
            os.makedirs(f"{layers}/work")
            mount(directory, "own", "overlay",
                  options=f"lowerdir={directory},upperdir={layers}/upper,workdir={layers}/work")
        else:
            mount(directory)
    os.makedirs("/var/spool/cron/crontabs", mode=0o1730)
    # Without its logs nginx refuses any configuration.
    os.makedirs("/var/log/nginx", exist_ok=True)
    # Files that useradd and similar programs lock and write. The links to the machine's read-only files must go.
    for name in (".pwd.lock", "passwd-", "shadow-", "group-", "gshadow-", "subuid-", "subgid-"):
        if os.path.islink(f"/etc/{name}"):
            os.unlink(f"/etc/{name}")
    for name in ("login.defs", "default", "subuid", "subgid", "shells"):
        own_etc(name)


def own_etc(name):
    """Replaces a link to an entry of the machine's /etc, which is read-only, by a copy."""
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
    """The files, links and directories below the given roots, by default /etc and the places of sites and mailboxes.
    Returns {path: its kind, attributes and content}.

    Times are left out, because undo changes those of a directory. So are the copies of account files that programs for
    accounts leave.
    """
    found = {}
    for root in roots or ("/etc", *(directory for directory in DIRECTORIES if directory not in _WITH_CONTENT)):
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
    """Makes a destination with installed servers, which serve nothing yet; ends when standard input ends."""
    # Without pytest, nothing has put this directory on Python's module path.
    sys.path.insert(0, f"{os.path.dirname(os.path.dirname(os.path.abspath(__file__)))}/e2e")
    make()
    for name in ("nginx", "apache2", "php", "postfix", "dovecot"):
        own_etc(name)
    for place in ("/var/log/apache2", "/run/apache2", "/var/spool/postfix"):
        os.makedirs(place, exist_ok=True)
    if full and not os.path.exists("/etc/postfix/main.cf"):
        # The package makes no settings if it was configured without.
        with open("/etc/postfix/main.cf", "w", encoding="ascii") as settings:
            settings.write("compatibility_level = 3.6\nmyhostname = destination.test\nmydestination = $myhostname\n")
    if full:
        # Port 80 is for nginx, as on the source host.
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

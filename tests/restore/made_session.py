"""Makes sessions as `sondrel` leaves them: archives by GNU tar or member by member, and the description."""
import gzip
import hashlib
import io
import os
import subprocess
import sys
import tarfile

from lxml import etree

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAM = f"{TOP}/restore/sondrel-restore"

_ATTRIBUTES = {"version": "2", "agent": "linux", "host": "source", "created": "2026-11-21T11:04:38Z", "scope": "all",
               "content": "yes"}


def started(arguments):
    """Starts sondrel-restore with these arguments and without input; returns what it ended with and printed."""
    return subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL)


class MadeSession:
    """A session directory. `tree` is the description, which `run` writes first.

    `execute` runs sondrel-restore: `started`, or a function that does the same with these arguments.
    """

    def __init__(self, directory, execute=started):
        self.directory = directory
        self._execute = execute
        os.makedirs(f"{directory}/archives/content", mode=0o750)
        os.chmod(directory, 0o750)
        os.chmod(f"{directory}/archives", 0o750)
        self.tree = etree.Element("dump", _ATTRIBUTES)
        self.accounts = etree.SubElement(self.tree, "accounts")
        self.problems = etree.SubElement(self.tree, "problems")

    def add(self, xml, parent=None):
        """Adds an element, given as text, at the end of `parent`, else at its place in the description; returns it."""
        element = etree.fromstring(xml)
        if parent is not None:
            parent.append(element)
        elif element.tag in ("account", "group"):
            before = [each for each in self.accounts if each.tag == "account"]
            self.accounts.insert(len(before) if element.tag == "account" else len(self.accounts), element)
        elif element.tag in ("server", "admin-info"):
            self.accounts.addprevious(element)
        else:
            self.problems.addprevious(element)
        return element

    def add_account(self, name, uid, home=None, *, system="no", shell="/bin/sh", group=None, gid=None):
        """Adds an account with its group."""
        home, group, gid = home or f"/home/{name}", group or name, gid or uid
        self.add(f'<account name="{name}" uid="{uid}" gid="{gid}" group="{group}" home="{home}" shell="{shell}" '
                 f'system="{system}"/>')
        if not self.accounts.xpath("group[@name=$name]", name=group):
            self.add(f'<group name="{group}" gid="{gid}"/>')

    def add_client(self, name, uid, home=None):
        """Adds a client with its account; returns the client's element."""
        self.add_account(name, uid, home)
        home = home or f"/home/{name}"
        return self.add(f'<client name="{name}" uid="{uid}" gid="{uid}" group="{name}" home="{home}" '
                        f'shell="/bin/sh" system="no" whole="yes"/>')

    def add_site(self, client, name, root, archive, site=""):
        """Adds a domain with a site and its archive (see `content`) to a client. `site` is more XML of the site."""
        owner = client.get("name")
        return self.add(f'<domain name="{name}"><name>{name}</name><site server="nginx" root="{root}" owner="{owner}" '
                        f'group="{owner}"><listen address="*" port="80" tls="0"/><root>{root}</root>{site}'
                        f'<packed>{root}</packed></site>{archive}</domain>', client)

    def content(self, kind, file, archive):
        """Writes an archive into the session; returns the text of the element `content` for it."""
        path = f"{self.directory}/archives/{file}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(archive)
        unpacked = len(gzip.decompress(archive)) if file.endswith(".gz") else len(archive)
        return (f'<content kind="{kind}" file="{file}" size="{len(archive)}" '
                f'md5sum="{hashlib.md5(archive).hexdigest()}" unpacked="{unpacked}"/>')

    def write(self):
        """Writes the description as it is now."""
        with open(f"{self.directory}/dump.xml", "wb") as file:
            file.write(etree.tostring(self.tree, xml_declaration=True, encoding="UTF-8"))

    def run(self, command, *options, check=None):
        """Runs sondrel-restore with this session. If `check` is given, the exit code must be equal to it."""
        self.write()
        done = self._execute([command, self.directory, *options])
        if check is not None and done.returncode != check:
            print(done.stdout, done.stderr, file=sys.stderr)
            raise AssertionError(f"{command} ended with {done.returncode} and not {check}:\n{done.stdout}{done.stderr}")
        return done


def packed(*paths, top="/"):
    """An archive of paths below `top`, packed like the agent's."""
    return subprocess.run(
        ["tar", "--create", "--gzip", "--file=-", "--format=posix", "--acls", "--xattrs", "--sparse",
         "--pax-option=delete=atime,delete=ctime", f"--directory={top}", *(f"./{path.lstrip('/')}" for path in paths)],
        check=True, capture_output=True).stdout


class Member(tarfile.TarInfo):
    """A member of an archive that a test makes itself."""

    def __init__(self, name, content=b"", **attributes):
        super().__init__(name)
        self.content = content
        self.size = len(content)
        self.mode = 0o755 if attributes.get("type") == tarfile.DIRTYPE else 0o644
        self.mtime = 1700000000
        for key, value in attributes.items():
            setattr(self, key, value)


def made_of(*members):
    """An archive of these members, which may be hostile."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w:gz", format=tarfile.PAX_FORMAT) as tar:
        for member in members:
            tar.addfile(member, io.BytesIO(member.content))
    return out.getvalue()

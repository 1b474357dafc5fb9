"""A session of a host that was broken into: all attacks at once, each with its name and the proof that it succeeded."""
import dataclasses
import os
import tarfile
from collections.abc import Callable
from xml.sax.saxutils import quoteattr

import test_apache_sites
import test_files
import test_hostile_mail
import test_hostile_mysql
import test_hostile_postgresql
import test_nginx_sites
import test_pools
from lxml import etree
from mail_session import archive
from made_session import Member, made_of
from sondrel_restore.web.directives import read
from test_files import directory as folder
from test_files import file, link
from test_jobs import SERVICE, TIMER
from web_world import directive, server, virtual_host

CRONTABS = "/var/spool/cron/crontabs"
UNITS = "/etc/systemd/system"
# An address of this host that is a public one, with a service of its own.
OWN_ADDRESS = "9.9.9.9"


@dataclasses.dataclass(frozen=True)
class Attack:
    """`proof` is asked after the apply, with what all made files of configuration say."""

    name: str
    proof: Callable[[str], bool]

    def succeeded(self, written):
        """Whether this host is another one by it."""
        try:
            return self.proof(written)
        except FileNotFoundError:
            return False


def _exists(*paths):
    return lambda _: any(os.path.lexists(path) for path in paths)


def _says(*needles):
    return lambda written: any(needle in written for needle in needles)


def _goes_in(xml):
    """Whether the innermost directive, or the section around it that is for more than the site, is written."""
    *_, last = read(etree.fromstring(xml)).within()
    line = " ".join([last.name, *last.args] if last.args else [last.name, last.raw or last.text or ""])
    if line == "require all granted":
        line = "<directory /"
    return lambda written: any(line + end in written.replace('"', "") for end in (";", "\n", ">", " {"))


# --- files ---

def _files(session):
    """Members below the home of alice's, with those that lead elsewhere."""
    members = [folder("./home/alice"), folder("./home/alice/shop"), file("./home/alice/shop/index.php")]
    for number, (name, attack) in enumerate(test_files.ATTACKS.items()):
        # Each with names of its own, so that none stands in another's way.
        for member in attack:
            kept = ("type", "mode", "uid", "gid", "uname", "gname", "devmajor", "devminor")
            members.append(Member(
                member.name.replace("/shop/", f"/shop/{number}-"), member.content,
                linkname=member.linkname.replace("/shop/", f"/shop/{number}-"),
                **{key: getattr(member, key) for key in kept}))
        yield Attack(f"archive: {name}", _exists(
            "/home/bob/x", "/etc/cron.d/x", "/home/alice/shop2", "/srv/x", "/srv/l", "/bob", f"/home/bob/{number}-x"))
    root = "/home/alice/shop"
    for name, member, succeeded in (
        ("a right to be root", file(f"./{root}/suid", mode=0o6755, uname="root", uid=0),
         lambda _: bool(os.stat(f"{root}/suid").st_mode & 0o6000)),
        ("a capability", file(f"./{root}/capable", pax_headers={"SCHILY.xattr.security.capability": "x"}),
         lambda _: "security.capability" in os.listxattr(f"{root}/capable")),
        ("a trusted attribute", file(f"./{root}/trusted", pax_headers={"SCHILY.xattr.trusted.overlay.opaque": "y"}),
         lambda _: any(name.startswith("trusted.") for name in os.listxattr(f"{root}/trusted"))),
        ("a file of another account", file(f"./{root}/of-bob", uname="bob", uid=40001),
         lambda _: os.stat(f"{root}/of-bob").st_uid == 40001),
        ("a file of a number that is another's", file(f"./{root}/of-number", uname="", uid=40001),
         lambda _: os.stat(f"{root}/of-number").st_uid == 40001),
        ("a link of root's", link(f"./{root}/of-root", "/etc/passwd", uname="root", uid=0),
         lambda _: os.lstat(f"{root}/of-root").st_uid == 0),
        ("an access list for another", file(f"./{root}/listed", pax_headers={
            "SCHILY.acl.access": "user::rw-,user:bob:rwx,group::r--,mask::rwx,other::r--"}),
         lambda _: b"A\x9c" in os.getxattr(f"{root}/listed", "system.posix_acl_access")),
        ("dots of another writing", file(f"./{root}/\u2025/\uff0e\uff0e/x"), _exists("/home/x", "/home/alice/x")),
        ("a line in a name", file(f"./{root}/a\n/etc/cron.d/line"), _exists("/etc/cron.d/line")),
        ("a name of options", file(f"./{root}/--checkpoint-action=exec=touch pwned"), _exists("/pwned", "/etc/pwned")),
        ("a device by a name of a file", Member(f"./{root}/zero", type=tarfile.CHRTYPE, devmajor=1, devminor=5),
         _exists(f"{root}/zero")),
        ("keys beside the site", file("./home/bob/.ssh/authorized_keys"), _exists("/home/bob/.ssh")),
        ("root's own files", file("./root/.profile.d/x"), _exists("/root/.profile.d")),
    ):
        above = [folder(f"./{root}/\u2025"), folder(f"./{root}/\u2025/\uff0e\uff0e")] if "dots" in name else []
        members += [*above, member]
        yield Attack(f"archive: {name}", succeeded)
    client = session.add_client("alice", 30001)
    session.add_site(client, "files.test", root, session.content(
        "site", "content/sites/files.test.tar.gz", made_of(*members)))
    for number, (place, made) in enumerate((
            ("/etc/cron.d", "/etc/cron.d/root"), ("/root/.ssh", "/root/.ssh/root"),
            ("/usr/local/bin", "/usr/local/bin/root"), ("/home/bob/site", "/home/bob/site"),
            ("/home/alice/../bob/up", "/home/bob/up"), ("/proc/self", "/proc/self/root2"),
            ("/run/x", "/run/x"), ("/var/spool/cron", "/var/spool/cron/root"))):
        session.add_site(client, f"root{number}.test", place, session.content(
            "site", f"content/sites/root{number}.test.tar.gz", made_of(file(f".{place}/root"))))
        yield Attack(f"root of a site: {place}", _exists(made))


# --- accounts ---

def _accounts(session):
    for name, xml in {
        "root with another number": '<account name="root" uid="1500" gid="1500" home="/home/r" system="no"/>',
        "number 0": '<account name="toor" uid="0" gid="0" home="/root" shell="/bin/sh" system="no"/>',
        "a service as a person": '<account name="mysql" uid="1501" gid="1501" home="/srv/m" system="no"/>',
        "a line in a name": '<account name="x:x:0:0::/:/bin/sh&#10;y" uid="1502" gid="1502" system="no"/>',
        "a name of options": '<account name="-o" uid="1503" gid="1503" home="/home/o" system="no"/>',
        "a home with a line": '<account name="carl" uid="1504" gid="1504" home="/home/carl:/bin/sh&#10;evil:x:0:0::" '
                              'system="no"/>',
        "a home of the system": '<account name="dora" uid="1505" gid="1505" home="/etc/dora" system="no"/>',
        "a home in another's": '<account name="emil" uid="1506" gid="1506" home="/home/bob/emil" system="no"/>',
        "a shell that is none": '<account name="fred" uid="1507" gid="1507" home="/home/fred" shell="/home/bob/sh" '
                                'system="no"/>',
    }.items():
        session.add(xml)
        yield Attack(f"account: {name}", _accounts_changed)
    for xml in ('<group name="sudo" gid="27"><member>alice</member></group>',
                '<group name="shadow" gid="42"><member>alice</member></group>',
                '<group name="root" gid="0"><member>alice</member></group>',
                '<group name="admins" gid="40100"><member>alice</member></group>',
                '<group name="backups" gid="500"><member>alice</member></group>',
                '<group name="evil:x:0:alice&#10;y" gid="1700"><member>alice</member></group>'):
        group = session.add(xml).get("name").split(":")[0]
        yield Attack(f"group: {group} with alice", _group_has(group, "alice"))


ALLOWED_ACCOUNTS = ("alice", "carl", "dora", "emil", "fred", "post")


def _accounts_changed(_):
    with open("/etc/passwd", encoding="utf-8") as accounts:
        lines = [line.split(":") for line in accounts.read().splitlines()]
    known = {fields[0]: fields for fields in lines}
    return (any(len(fields) != 7 for fields in lines) or [f[0] for f in lines if f[2] == "0"] != ["root"]
            or not set(known) <= set(_accounts_changed.before) | set(ALLOWED_ACCOUNTS)
            or any(known[name][2] == "0" or known[name][5].startswith(("/etc", "/home/bob"))
                   or known[name][6].startswith("/home") for name in ALLOWED_ACCOUNTS if name in known))


def remember_accounts():
    """To be called before the apply."""
    with open("/etc/passwd", encoding="utf-8") as accounts:
        _accounts_changed.before = [line.split(":")[0] for line in accounts]


def _group_has(group, account):
    def has(_):
        with open("/etc/group", encoding="utf-8") as groups:
            return any(line.split(":")[0] == group and account in line.strip().split(":")[3].split(",")
                       for line in groups if line.count(":") == 3)
    return has


# --- web servers and PHP ---

def _escaping(mark):
    """What would end the block that it is written into, and begin a server."""
    return f"x; }} }} server {{ listen {mark}; root /; location / {{ types {{ a b;"


def _web(session, port):
    """A site of nginx and one of Apache in /srv/a, which is restored."""
    definitions = []
    blocks = [directive("listen", "80"), directive("server_name", "a.test"), directive("root", "/srv/a")]
    for name, xml in test_nginx_sites.ATTACKS.items():
        xml = xml.replace("<arg>/x/</arg>", f"<arg>/x{len(blocks)}/</arg>")
        blocks.append(xml)
        yield Attack(f"nginx: {name}", _goes_in(xml))
    raw = {
        "text in a map": directive(
            "map", "$host", "$m1", block=[directive("x", text=_escaping(8091))], identifier="n1"),
        "text in a format of a log": directive("log_format", "f1", text=_escaping(8092), identifier="n2"),
        "text in a group of servers": directive("upstream", "up1", identifier="n3", block=[
            directive("server", "127.0.0.1:3000"), directive("keepalive", text=_escaping(8093))]),
        "text in a zone": directive("limit_req_zone", "$host", "zone=z:1m", text=_escaping(8094), identifier="n4"),
    }
    definitions += raw.values()
    yield from (Attack(f"nginx: {name}", _says(f"listen {8091 + number}")) for number, name in enumerate(raw))
    blocks.append(directive("types", block=[directive("text/x", text=_escaping(8095))]))
    yield Attack("nginx: text in types", _says("listen 8095"))
    definitions.append(directive("map", "$host", "$far", block=[directive("default", "../../etc")], identifier="n5"))
    definitions.append(directive("map", "$arg_x", "$picked", block=[directive("~^(.*)$", "$1")], identifier="n6"))
    for name, (inside, path) in {
        "a way up by set": ([directive("set", "$up", "../../etc")], "/srv/a/$up"),
        "a way up by a map": ([], "/srv/a/$far"),
        "a path of the visitor by a map": ([], "/srv/a/$picked"),
        "a path of the visitor's request": ([], "/srv/a/$request_uri"),
        "a path of the site's program": ([directive("auth_request_set", "$said", "$upstream_http_x")], "/srv/a/$said"),
        "a path by parts": ([directive("set", "$dots", ".."), directive("set", "$both", "$dots/$dots/etc")],
                            "/srv/a/$both"),
    }.items():
        blocks.append(directive("location", f"/{len(blocks)}/", block=[*inside, directive("root", path)]))
        yield Attack(f"nginx: {name}", _says(f"root {path};"))
    for name, inside in {
        "groups of an expression": directive("root", "/srv/a/$1/$2"),
        "a rule": directive("rewrite", r"^/b(\.\.)/b(\.\.)/(.*)$", "/$1/$2/$3", "break"),
    }.items():
        blocks.append(directive("location", "~", rf"^/{len(blocks)}(\.\.)/a(\.\.)/(.*)$", block=[inside]))
        yield Attack(f"nginx: a way up by {name}", _says(
            "root /srv/a/$1/$2;" if "root" in inside else "/$1/$2/$3 break;"))
    for name, address in {"a number that is the cloud's metadata": "http://2852039166/",
                          "the metadata in another form": "http://[::ffff:169.254.169.254]/",
                          "a service of this host at its public address": f"http://{OWN_ADDRESS}:9200/"}.items():
        xml = directive("location", f"/{len(blocks)}/", block=[directive("proxy_pass", address)])
        blocks.append(xml)
        yield Attack(f"nginx: {name}", _goes_in(xml))
    _configuration(session, "nginx", directive("http", block=definitions))
    files = made_of(folder("./srv/a"), file("./srv/a/index.html", b"<title>hostile</title>"),
                    link("./srv/a/link", "/etc"), file("./srv/a/who.php", b"<?php echo '<title>', 6 * 7, '</title>';"))
    content = session.content("site", "content/sites/a.test.tar.gz", files)
    _site(session, "a.test", "/srv/a", content, _block("nginx1", server(*blocks), "n1 n2 n3 n4 n5 n6"))
    _php(session, "a.test", "alice", "".join(sorted(test_pools.SETTINGS.values(), reverse=True)))
    yield from (Attack(f"pool: {name}", _setting_is_taken(xml)) for name, xml in test_pools.SETTINGS.items())
    yield from _apache(session, port)
    for number, user in enumerate(("root", "bob", "deploy", "mysql", "alice&#10;user = root", "../x")):
        _site(session, f"pool{number}.test", "/srv/a", content)
        _php(session, f"pool{number}.test", user)
        yield Attack(f"pool: runs as {user[:6]}", _says(
            *([] if "alice" in user else [f"user = {user}\n"]), "user = root"))
    yield from _taken_names(session, content, port)


def _site(session, name, root, content, block=""):
    """A site of alice's with a block."""
    session.add_site(next(session.tree.iterfind("client")), name, root, content)
    if block:
        session.add(block, session.tree.xpath("//domain[@name=$name]/site", name=name)[0])


def _configuration(session, name, text):
    session.accounts.addnext(etree.fromstring(
        f'<web-configuration name="{name}1" server="{name}" file="/etc/{name}/main.conf">{text}</web-configuration>'))


def _block(configuration, text, uses=""):
    uses = f' uses="{uses}"' if uses else ""
    return f'<block configuration="{configuration}"{uses}>{text}</block>'


def _php(session, domain, user, inside=""):
    site = session.tree.xpath("//domain[@name=$name]/site", name=domain)[0]
    site.insert(0, etree.fromstring(f'<php version="{test_pools.VERSION}" handler="fpm" pool="{domain}" user="{user}" '
                                    f'listen="unix:/run/php/{domain}.sock">{inside}</php>'))


def _setting_is_taken(xml):
    element = etree.fromstring(xml)
    kind = "env" if element.tag == "env" else "value"
    return _says(f"{kind}[{element.get('name')}] = {element.text}", f"{kind}[{element.get('name')}] = '{element.text}")


def _apache(session, port):
    own = [directive("servername", "b.test"), directive("documentroot", "/srv/a")]
    attacks = {**test_apache_sites.ATTACKS, "a path in the place of an address": directive(
        "proxypassmatch", "http://8.8.8.8/|^/y/(.*)$", "http://169.254.169.254/$1"),
        "settings of PHP by an expression": directive("setenvifexpr", "true", "PHP_ADMIN_VALUE=x")}
    for name, xml in attacks.items():
        yield Attack(f"apache: {name}", _goes_in(xml))
    _configuration(session, "apache", directive(
        "directory", "/srv", block=[directive("require", "all", "granted")], identifier="a1"))
    root = session.content("site", "content/sites/b.test.tar.gz", made_of(folder("./srv/b")))
    _site(session, "b.test", "/srv/b", root, _block(
        "apache1", virtual_host(*own, *attacks.values(), at=f"*:{port}"), "a1"))


def _taken_names(session, content, port):
    """Sites whose blocks have names that are not theirs, or addresses that come before those of this host's."""
    def nginx(*inner):
        return _block("nginx1", server(*inner, directive("root", "/srv/a"), line=100 + len(names)))

    def apache(at, *inner):
        return _block("apache1", virtual_host(
            *inner, directive("documentroot", "/srv/a"), at=at, line=100 + len(names)), "a1")
    names = {}
    for name, xml, answers in (
        ("nginx: a name that this host serves", lambda: nginx(
            directive("listen", "80"), directive("server_name", "taken0.test", "here.test")), "here.test:80"),
        ("nginx: an address before those of this host", lambda: nginx(
            directive("listen", "127.0.0.1:80"), directive("server_name", "taken1.test")), "here.test:80"),
        ("apache: a name that this host serves", lambda: apache(
            f"*:{port}", directive("servername", "taken2.test"), directive("serveralias", "mine.test")),
         f"mine.test:{port}"),
        ("apache: all names", lambda: apache(
            f"*:{port}", directive("servername", "taken3.test"), directive("serveralias", "*")), f"mine.test:{port}"),
        ("apache: an address before those of this host", lambda: apache(
            f"127.0.0.1:{port}", directive("servername", "taken4.test")), f"mine.test:{port}"),
    ):
        domain = f"taken{len(names)}.test"
        _site(session, domain, "/srv/a", content, xml())
        names[name] = domain
        yield Attack(name, _answers_otherwise(*answers.split(":")))


def _answers_otherwise(name, port):
    from sondrel_restore.web.ask import Request, ask  # pylint: disable=import-outside-toplevel
    return lambda _: ask("127.0.0.1", Request(name, int(port), False, "/")).title != f"of {name}"


# --- mail and jobs ---

def _mail(session):
    client = next(session.tree.iterfind("client"))
    session.add_account("post", 30050)
    session.add('<domain name="a.mail.test"><name>a.test</name><name>new.test</name></domain>', client)
    domain = client[-1]
    for number, (source, target) in enumerate(test_hostile_mail.HOSTILE_ALIASES):
        alias = etree.SubElement(domain, "alias", {"from": source.replace("\n", " "), "file": "/etc/postfix/virtual"})
        alias.text = target
        if source != "root@new.test":
            yield Attack(f"alias {number}: {source} to {target}"[:70].replace("\n", "/"), _says(
                *(f"{source} {target}\n", f"{source} {target.strip()}") if target and source else ("\n @",)))
    taken = etree.SubElement(domain, "alias", {"from": "root@new.test", "file": "/etc/postfix/virtual"})
    taken.text = "evil@a.test"
    yield Attack("alias: of the administrator of this host", _says("root@new.test"))
    for number, (path, owner) in enumerate((
            ("/home/bob/Maildir", "bob"), ("/home/deploy/Maildir", "deploy"), ("/etc/mailbox", "post"),
            ("/var/mail/root", "post"), ("/var/mail/bob", "post"), ("/var/mail/vhosts/../../../etc/up", "post"),
            ("/var/spool/cron/crontabs/root", "post"), ("/var/mail/mysql-box/x", "root"))):
        content = session.content("mailbox", f"content/mailboxes/{number}.tar", archive(
            {os.path.normpath(path): b"From x\n"}, owner=owner, uid=30050))
        session.add(f'<mailbox address="u{number}@a.test" path="{path}" format="mbox" owner="{owner}">{content}'
                    '</mailbox>', domain)
        yield Attack(f"mailbox: {path}", _exists(os.path.normpath(path)))


UNICODE_USER = SERVICE.replace("User=alice", "User\u00a0=alice")
UNICODE_LINE = SERVICE.replace("User=alice", "\u2003User=alice")
ALSO_ROOT = SERVICE.replace("ExecStart=", "ExecStartPre=+/bin/touch /etc/pwned\nExecStart=")


def _jobs(session):
    alice = next(session.tree.iterfind("client"))
    units = {"space.service": UNICODE_USER, "wide.service": UNICODE_LINE, "plus.service": ALSO_ROOT,
             "backup.service": ALSO_ROOT, "backup.timer": TIMER}
    table = f"{CRONTABS}/alice"
    tables = {"/etc/cron.d/alice": b"* * * * * root id\n", f"{CRONTABS}/root": b"* * * * * id\n",
              table: b"* * * * * id\r\n@reboot touch /etc/pwned\n"}
    content = session.content("client", "content/clients/alice.tar", archive(
        {**tables, **{f"{UNITS}/{name}": text.encode() for name, text in units.items()}}, uid=30001))
    alice.insert(0, etree.fromstring(content))
    before = alice.find("domain")
    for path in tables:
        before.addprevious(etree.fromstring(f'<cron when="@daily" file="{path}">x</cron>'))
    for name in units:
        before.addprevious(etree.fromstring(
            f'<unit name={quoteattr(name)} file="{UNITS}/{name}" user="alice" enabled="yes" drop-in="no"/>'))
    for name, unit in (("an account that systemd does not read", "space.service"),
                       ("a line that systemd does not read", "wide.service"), ("a command of root's", "plus.service"),
                       ("a timer of a service of this host", "backup.timer")):
        yield Attack(f"unit: {name}", _exists(f"{UNITS}/{unit}"))
    yield Attack("cron: a table of the system", _exists("/etc/cron.d/alice"))
    yield Attack("cron: the table of root", _exists(f"{CRONTABS}/root"))
    yield Attack("cron: a job of root in the table of alice", lambda _: "/etc/pwned" in _read(f"{CRONTABS}/root"))
    for name, system in (("bob", "no"), ("deploy", "no"), ("root", "no"), ("mysql", "no")):
        path = f"{CRONTABS}/{name}"
        archived = session.content("client", f"content/clients/{name}.tar", archive({path: b"@reboot id\n"}))
        session.add(f'<client name="{name}" home="/home/{name}" system="{system}" whole="yes">{archived}'
                    f'<cron when="@reboot" file="{path}">id</cron></client>')
        yield Attack(f"cron: the table of {name} as a client", _exists(path))


def _read(path):
    try:
        with open(path, encoding="utf-8") as text:
            return text.read()
    except FileNotFoundError:
        return ""


# --- SQL ---

def statements():
    """What of the statements in the dumps are attacks: the others are there to see that SQL was read to the end."""
    for kind, text in (("mysql", test_hostile_mysql.MYSQL_ATTACKS),
                       ("postgresql", test_hostile_postgresql.POSTGRESQL_ATTACKS)):
        for line in text.strip().splitlines():
            if line and "reached" not in line and line not in (";", ";;", "7", r"\.") and not line.startswith("    "):
                yield f"{kind}: {line}"


def add_attacks(session, port):
    """Puts all attacks into the session, whose own account is alice; returns them."""
    session.add('<account name="bob" uid="555" gid="555" home="/home/bob" shell="/bin/sh" system="yes"/>')
    session.add('<account name="deploy" uid="30060" gid="30060" group="deploy" home="/home/deploy" shell="/bin/sh" '
                'system="no"/>')
    session.add('<group name="deploy" gid="30060"/>')
    found = [*_files(session), *_accounts(session), *_web(session, port), *_mail(session), *_jobs(session)]
    names = [attack.name for attack in found]
    assert not {name for name in names if names.count(name) > 1}
    return found

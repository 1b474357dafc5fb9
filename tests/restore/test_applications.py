"""Applications from packages: their files are restored only into directories that belong to the package alone here."""
import copy
import grp
import os
import pwd
import subprocess
import tarfile

import destination
import pytest
from made_session import PROGRAM, Member, made_of

WEB = "www-data"
WEB_GID = grp.getgrnam(WEB).gr_gid
WEB_UID = pwd.getpwnam(WEB).pw_uid
SETTINGS = "/etc/sample-wiki"
STATE = "/var/lib/sample-wiki"
PASSWORD = b"<?php $password = 'old passphrase';\n"


def install(name="sample-wiki", section="web", files=None):
    """Builds a package and installs it on this host with dpkg."""
    tree = f"/mnt/packages/{name}"
    for path, content in {f"/etc/{name}/main.php": "<?php // as it came\n",
                          f"/var/lib/{name}/data/first.txt": "as it came\n", **(files or {})}.items():
        os.makedirs(os.path.dirname(tree + path), exist_ok=True)
        with open(tree + path, "w", encoding="ascii") as file:
            file.write(content)
    os.makedirs(f"{tree}/DEBIAN")
    with open(f"{tree}/DEBIAN/control", "w", encoding="ascii") as file:
        file.write(f"Package: {name}\nVersion: 1:2.1-1\nArchitecture: all\nSection: {section}\n"
                   "Maintainer: x <x@y.test>\nDescription: a sample\n")
    with open(f"{tree}/DEBIAN/conffiles", "w", encoding="ascii") as file:
        file.write(f"/etc/{name}/main.php\n")
    subprocess.run(["dpkg-deb", "--build", "--root-owner-group", tree, f"{tree}.deb"], check=True, capture_output=True)
    # Triggers would run the machine's programs.
    subprocess.run(["dpkg", "--install", "--no-triggers", "--force-unsafe-io", f"{tree}.deb"], check=True,
                   capture_output=True)


def members(*more):
    """What the agent packs of the application."""
    return made_of(
        Member(f".{SETTINGS}/main.php", PASSWORD, mode=0o640, uname="root", gname=WEB, uid=0, gid=33),
        Member(f".{STATE}/data/first.txt", b"changed there\n", uname=WEB, gname=WEB, uid=33, gid=33),
        Member(f".{STATE}/data/second.txt", b"made there\n", uname=WEB, gname=WEB, uid=33, gid=33), *more)


def add_wiki(session, archive=None, package="sample-wiki", directories=(SETTINGS, STATE)):
    """Adds a site of the application to the session."""
    session.add_account(WEB, 33, "/var/www", system="yes", shell="/usr/sbin/nologin")
    content = session.content("site", "content/sites/wiki.test.tar.gz", archive or members())
    named = "".join(f"<directory>{directory}</directory>" for directory in directories)
    session.add(
        f'<unassigned><domain name="wiki.test"><name>wiki.test</name><site server="nginx" '
        f'root="/usr/share/sample-wiki" owner="root" group="root"><listen address="*" port="80" tls="0"/>'
        f'<root>/usr/share/sample-wiki</root>'
        f'<package name="{package}" version="1:1.9-3" architecture="all" manager="dpkg" '
        f'because="/usr/share/sample-wiki" changed="0">{named}</package>'
        f'{"".join(f"<packed>{each}</packed>" for each in directories)}'
        f'</site>{content}</domain></unassigned>')


def read(path):
    with open(path, "rb") as file:
        return file.read()


def owners(path):
    about = os.lstat(path)
    return about.st_uid, about.st_gid, about.st_mode & 0o7777


def test_is_put_in_place_with_its_password_closed(session):
    install()
    add_wiki(session)
    before = destination.snapshot(SETTINGS)
    assert "application:sample-wiki: its settings and files" in session.run("plan", check=0).stdout
    applied = session.run("apply", check=0).stdout
    assert "sample-wiki: it is 1:2.1-1 here, newer than there (1:1.9-3)" in applied and "update its database" in applied
    assert read(f"{SETTINGS}/main.php") == PASSWORD
    assert owners(f"{SETTINGS}/main.php") == (0, WEB_GID, 0o640)
    assert read(f"{STATE}/data/first.txt") == b"changed there\n"
    assert owners(f"{STATE}/data/second.txt")[:2] == (WEB_UID, WEB_GID)
    session.run("verify", check=0)
    assert "0 changed" in session.run("apply", check=0).stdout
    session.run("undo", check=0)
    assert destination.snapshot(SETTINGS) == before
    assert not os.path.exists(f"{STATE}/data/second.txt")


def test_all_packages_of_this_host_are_listed_once_for_several_applications(session):
    install()
    install("sample-blog")
    add_wiki(session)
    package = session.tree.find(".//site/package")
    other = copy.deepcopy(package)
    other.set("name", "sample-blog")
    package.addnext(other)
    session.write()
    trace = subprocess.run(
        ["strace", "-f", "-qq", "-s", "200", "-e", "trace=execve", PROGRAM, "plan", session.directory],
        capture_output=True, text=True, check=False).stderr
    lists = [line for line in trace.splitlines() if "${source:Package}" in line and " = 0" in line]
    assert len(lists) == 1, trace


def test_waits_for_its_package(session):
    add_wiki(session)
    plan = session.run("plan", check=3).stdout
    assert "its settings and files go in place when sample-wiki is here" in plan
    assert not os.path.exists(SETTINGS)


def test_servers_that_are_older_here_are_listed(session):
    install()
    facts = 'architecture="all" manager="dpkg" use="web"'
    session.add(f'<server><package name="sample-wiki" version="2.2~rc1-1" {facts}/>'
                f'<package name="dpkg" version="1.0" {facts}/><package name="not-here" version="9" {facts}/></server>')
    plan = session.run("plan", check=0).stdout
    assert "package:sample-wiki: 1:2.1-1 here is older than 2.2~rc1-1 on the source host" in plan
    assert "package:dpkg" not in plan and "not-here" not in plan


def test_does_not_overwrite_what_was_changed_here(session):
    install()
    add_wiki(session)
    with open(f"{SETTINGS}/main.php", "w", encoding="ascii") as file:
        file.write("<?php // of this host\n")
    plan = session.run("plan", check=3).stdout
    assert f"{SETTINGS}/main.php is not as the package has brought it" in plan
    session.run("apply", check=3)
    assert read(f"{SETTINGS}/main.php") == b"<?php // of this host\n"
    session.run("apply", "--replace=application:sample-wiki", check=0)
    assert read(f"{SETTINGS}/main.php") == PASSWORD
    session.run("undo", check=0)
    assert read(f"{SETTINGS}/main.php") == b"<?php // of this host\n"


def test_keeps_what_is_changed_here_after_the_apply(session):
    install()
    add_wiki(session)
    session.run("apply", check=0)
    for path in (f"{SETTINGS}/main.php", f"{STATE}/data/second.txt"):
        with open(path, "a", encoding="ascii") as file:
            file.write("changed here\n")
    assert session.run("undo", check=1).stdout.count("was changed here since") >= 1
    assert read(f"{SETTINGS}/main.php").endswith(b"changed here\n")
    assert read(f"{STATE}/data/second.txt").endswith(b"changed here\n")


# Packages with files by which root runs or reads what is in the package's directories, and their sections.
OF_ROOT = {
    "server": ({"/usr/local/share/x": ""}, "httpd"),
    "job": ({"/etc/cron.d/sample-wiki": "* * * * * root /usr/share/sample-wiki/job\n"}, "web"),
    "daily": ({"/etc/cron.daily/sample-wiki": "#!/bin/sh\n. /etc/sample-wiki/main.php\n"}, "web"),
    "program": ({"/etc/cron.daily/sample-wiki": "#!/bin/sh\nphp /etc/sample-wiki/main.php\n"}, "web"),
    "script": ({"/etc/init.d/sample-wiki": "#!/bin/sh\n"}, "web"),
}


@pytest.mark.parametrize("which", sorted(OF_ROOT))
def test_of_a_package_that_root_runs_is_not_put_in_place(session, which):
    files, section = OF_ROOT[which]
    destination.own_etc("cron.d")
    destination.own_etc("cron.daily")
    destination.own_etc("init.d")
    install(section=section, files={path: text for path, text in files.items() if not path.startswith("/usr/")})
    add_wiki(session)
    assert "hand what you need" in session.run("apply", check=0).stdout
    assert read(f"{SETTINGS}/main.php") == b"<?php // as it came\n"
    assert read(f"{STATE}/data/first.txt") == b"as it came\n"


def test_of_a_package_whose_job_only_cleans_up_is_put_in_place(session):
    destination.own_etc("cron.daily")
    install(files={"/etc/cron.daily/sample-wiki": "#!/bin/sh\n# php\n. /etc/default/x\nfind /var/x -empty -delete\n"})
    add_wiki(session)
    session.run("apply", check=0)
    assert read(f"{SETTINGS}/main.php") == PASSWORD


def test_does_not_reach_directories_of_others(session):
    """The description may name any directories; only those that the package has here count."""
    install()
    os.makedirs("/etc/other")
    os.makedirs("/var/lib/other")
    hostile = members(
        Member("./etc/other/main.php", b"<?php // hostile\n"), Member("./var/lib/other/x.txt", b"hostile\n"),
        Member("./etc/cron.d/evil", b"* * * * * root true\n"), Member(f".{SETTINGS}/../other/up.php", b"hostile\n"))
    add_wiki(session, hostile, directories=(SETTINGS, STATE, "/etc/other", "/var/lib/other", "/etc"))
    before = destination.snapshot("/etc/other", "/var/lib/other", "/etc/cron.d")
    session.run("apply", check=0)
    assert destination.snapshot("/etc/other", "/var/lib/other", "/etc/cron.d") == before


def test_directory_of_two_packages_is_not_used(session):
    install()
    install_beside()
    add_wiki(session)
    session.run("apply", check=0)
    assert read(f"{SETTINGS}/main.php") == b"<?php // as it came\n"
    assert read(f"{STATE}/data/first.txt") == b"changed there\n"


def install_beside():
    """Installs a package of another source that has a file in the same directory."""
    tree = "/mnt/packages/sample-other"
    os.makedirs(f"{tree}/DEBIAN")
    os.makedirs(f"{tree}{SETTINGS}")
    with open(f"{tree}{SETTINGS}/other.php", "w", encoding="ascii") as file:
        file.write("<?php\n")
    with open(f"{tree}/DEBIAN/control", "w", encoding="ascii") as file:
        file.write("Package: sample-other\nVersion: 1\nArchitecture: all\nSection: web\n"
                   "Maintainer: x <x@example.test>\nDescription: a sample\n")
    subprocess.run(["dpkg-deb", "--build", "--root-owner-group", tree, f"{tree}.deb"], check=True, capture_output=True)
    subprocess.run(["dpkg", "--install", "--no-triggers", "--force-unsafe-io", f"{tree}.deb"], check=True,
                   capture_output=True)


def test_settings_that_root_could_run_are_left_out(session):
    """Such as links, files that other servers read, and owners with whose rights a package's upgrade would run PHP."""
    install()
    os.symlink("/etc/cron.d", f"{SETTINGS}/behind")
    link = Member(f".{SETTINGS}/link.php", type=tarfile.SYMTYPE, linkname="/etc/shadow")
    state_link = Member(f".{STATE}/data/link", type=tarfile.SYMTYPE, linkname="/etc/shadow")
    add_wiki(session, members(
        link, state_link, Member(f".{SETTINGS}/apache.conf", b"LoadModule x /tmp/x.so\n"),
        Member(f".{SETTINGS}/behind/evil.php", b"* * * * * root true\n"),
        Member(f".{SETTINGS}/own.php", b"<?php\n", mode=0o6600, uname="root", gname="root", uid=0, gid=0)))
    said = session.run("apply", check=0).stdout
    assert f"{SETTINGS}/apache.conf is left out" in said
    for name in ("link.php", "apache.conf"):
        assert not os.path.lexists(f"{SETTINGS}/{name}")
    assert not os.path.lexists(f"{STATE}/data/link")
    assert not os.path.exists("/etc/cron.d/evil.php")
    assert owners(f"{SETTINGS}/own.php") == (0, WEB_GID, 0o640)

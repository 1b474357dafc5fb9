"""Files of clients and sites: unpacked, renewed, verified and undone."""
import gzip
import os
import pwd
import stat
import subprocess
import tarfile

import pytest
from destination import own_etc, snapshot
from made_session import Member, made_of
from sondrel_restore.accepted import why_not

OWNER = {"uname": "alice", "gname": "alice", "uid": 30001, "gid": 30001}


def directory(name, **attributes):
    return Member(name, type=tarfile.DIRTYPE, **{**OWNER, **attributes})


def file(name, content=b"text\n", **attributes):
    return Member(name, content, **{**OWNER, **attributes})


def link(name, target, kind=tarfile.SYMTYPE, **attributes):
    return Member(name, type=kind, linkname=target, **{**OWNER, **attributes})


def site(session, *members, root="/home/alice/shop"):
    """A session with one site of alice that has these members."""
    alice = session.add_client("alice", 30001)
    session.add_site(alice, "shop.test", root, session.content(
        "site", "content/sites/shop.test.tar.gz", made_of(*members)))
    return session


def renewed(session, *members):
    """The same site, fetched again with other members."""
    element = session.tree.find(".//domain/content")
    text = session.content("site", element.get("file"), made_of(*members))
    element.getparent().replace(element, session.add(text, element.getparent()))


def usual():
    return (directory("./home/alice/shop"), file("./home/alice/shop/index.php", b"<?php"),
            directory("./home/alice/shop/pictures", mode=0o2770), file("./home/alice/shop/pictures/a", b"a" * 3000),
            link("./home/alice/shop/pictures/b", "a"))


@pytest.mark.parametrize("root, is_near", [
    ("/srv/own/shop", True), ("/srv/own/aliased/x", True), ("/srv/apache/x", True), ("/srv/apache", True),
    ("/srv", None), ("/srv/other", False)])
def test_a_root_in_that_of_a_site_of_this_host_needs_a_decision(session, root, is_near):
    """The site of this host would serve, as its own account, what another account can write."""
    for name in ("nginx", "apache2"):
        own_etc(name)
    for place in ("/srv/own", "/srv/apache"):
        os.makedirs(place)
    with open("/etc/nginx/sites-enabled/own", "w", encoding="ascii") as settings:
        settings.write("server { listen 81; root /srv/own/public; location /a { alias /srv/own/aliased/; } }\n"
                       "server { listen 82; root /srv/own; }\n")
    with open("/etc/apache2/sites-enabled/own.conf", "w", encoding="ascii") as settings:
        settings.write('<VirtualHost *:83>\n  DocumentRoot "/srv/apache/x/y"\n</VirtualHost>\n')
    os.symlink("/srv/gone", "/etc/apache2/sites-enabled/gone.conf")
    site(session, directory("." + root), file(f".{root}/index.html"), root=root)
    done = session.run("plan")
    assert ("of this host serves" in done.stdout) is bool(is_near), done.stdout
    if is_near:
        assert done.returncode == 3 and "/sites-enabled/own" in done.stdout
    if root == "/srv/own/shop":
        session.run("apply", "--replace=files:sites/shop.test", check=0)
        assert os.path.exists(f"{root}/index.html")
        session.run("plan", check=0)


def test_what_nginx_serves_is_unknown_where_it_refuses_its_configuration(session):
    """A site of this host may serve the root of the new one."""
    own_etc("nginx")
    own = "/etc/nginx/sites-enabled/own"
    with open(own, "w", encoding="ascii") as settings:
        settings.write("server { listen 81; root /srv/own; nonsense; }\n")
    root = "/srv/own/shop"
    site(session, directory("." + root), file(f".{root}/index.html"), root=root)
    refused = session.run("apply", check=3).stdout
    assert f"files:sites/shop.test: whether a site of nginx on this host serves {root} is not known" in refused
    assert 'unknown directive "nonsense"' in refused and "`nginx -t`" in refused
    assert "--replace=files:sites/shop.test" in refused and not os.path.exists(root)
    os.unlink(own)
    session.run("apply", check=0)
    assert os.path.exists(f"{root}/index.html")


def test_needs_no_decision_for_what_is_here_already_and_the_same(session):
    """A server installs the same default page on both hosts."""
    site(session, directory("./srv/page"), file("./srv/page/index.html", b"welcome"), root="/srv/page")
    os.mkdir("/srv/page")
    with open("/srv/page/index.html", "w", encoding="ascii") as page:
        page.write("welcome")
    before = snapshot("/srv")
    session.run("plan", check=0)
    session.run("apply", check=0)
    session.run("verify", check=0)
    session.run("undo", check=0)
    assert snapshot("/srv") == before
    renewed(session, directory("./srv/page"), directory("./srv/page/more"), file("./srv/page/index.html", b"welcome"))
    assert "--replace=files:sites/shop.test" in session.run("plan", check=3).stdout


def test_restores_a_list_of_who_may_use_a_file(session):
    """GNU tar stores the list twice: as text, and as an attribute with numbers of the source host."""
    session.add_account("bob", 30002)
    headers = {"SCHILY.acl.access": "user::rw-,user:bob:rw-,group::r--,mask::rw-,other::---",
               "SCHILY.xattr.system.posix_acl_access": "numbers"}
    site(session, *usual(), file("./home/alice/shop/of both", b"x", mode=0o660, pax_headers=headers))
    done = session.run("apply", check=0)
    listed = subprocess.run(["getfacl", "--numeric", "--absolute-names", "/home/alice/shop/of both"], check=True,
                            capture_output=True, text=True).stdout
    assert "user:30002:rw-\n" in listed
    assert "posix_acl" not in done.stdout + done.stderr
    session.run("verify", check=0)


def test_makes_a_site_with_its_account_and_then_changes_nothing(session):
    site(session, *usual())
    assert "1 to make" not in session.run("plan", check=0).stderr
    done = session.run("apply", check=0)
    assert "3 changed" in done.stdout
    about = os.stat("/home/alice/shop/index.php")
    assert (about.st_uid, about.st_mtime) == (30001, 1700000000)
    assert os.readlink("/home/alice/shop/pictures/b") == "a"
    assert stat.S_IMODE(os.stat("/home/alice/shop/pictures").st_mode) == 0o2770
    assert pwd.getpwnam("alice").pw_dir == "/home/alice"
    assert "0 changed" in session.run("apply", check=0).stdout
    assert "same" in session.run("verify", check=0).stdout


def test_takes_back_what_it_has_made(session):
    site(session, *usual())
    before = snapshot()
    session.run("apply", check=0)
    assert snapshot() != before
    session.run("undo", check=0)
    assert snapshot() == before


def test_names_what_undo_leaves(session):
    site(session, *usual())
    session.run("apply", check=0)
    with open("/home/alice/shop/pictures/new", "w", encoding="ascii"):
        pass
    assert "/home/alice/shop/pictures" in session.run("undo", check=1).stdout
    assert os.listdir("/home/alice/shop") == ["pictures"]
    assert os.listdir("/home/alice/shop/pictures") == ["new"]


def test_applies_a_later_fetch_as_a_difference(session):
    site(session, *usual())
    session.run("apply", check=0)
    for path in ("/home/alice/shop/index.php",):
        with open(path, "a", encoding="ascii") as out:
            out.write("changed here")
    renewed(session, directory("./home/alice/shop"), file("./home/alice/shop/index.php", b"new", mtime=1700000001),
            file("./home/alice/shop/new.php", b"new"), directory("./home/alice/shop/pictures"),
            file("./home/alice/shop/pictures/a", b"b" * 10))
    done = session.run("apply", check=0)
    assert "1 changed" in done.stdout and "changed here: /home/alice/shop/index.php" in done.stdout
    with open("/home/alice/shop/index.php", encoding="ascii") as text:
        assert text.read() == "<?phpchanged here"
    assert os.path.getsize("/home/alice/shop/pictures/a") == 10
    assert not os.path.lexists("/home/alice/shop/pictures/b")
    assert "0 changed" in session.run("apply", check=0).stdout


def test_needs_a_decision_where_something_is_here(session):
    site(session, *usual())
    os.makedirs("/home/alice/shop")
    with open("/home/alice/shop/mine", "w", encoding="ascii"):
        pass
    os.chown("/home/alice", 0, 0)
    assert "--replace=files:sites/shop.test" in session.run("plan", check=3).stdout
    before = snapshot()
    session.run("apply", check=3)
    assert snapshot() == before
    session.run("apply", "--replace=files:sites/shop.test", check=0)
    assert sorted(os.listdir("/home/alice/shop")) == ["index.php", "mine", "pictures"]


@pytest.mark.parametrize("damage", ["cut", "altered", "missing"])
def test_does_not_unpack_an_archive_that_is_not_the_fetched_one(session, damage):
    site(session, *usual())
    path = f"{session.directory}/archives/content/sites/shop.test.tar.gz"
    if damage == "missing":
        os.unlink(path)
    else:
        with open(path, "r+b") as archive:
            if damage == "cut":
                archive.truncate(100)
            else:
                archive.seek(50)
                archive.write(b"\0\1")
    done = session.run("apply", check=1)
    assert "fetch it again" in done.stderr
    assert not os.path.exists("/home/alice/shop")


ATTACKS = {
    "a name that leads upwards": [file("./home/alice/shop/../../bob/x")],
    "an absolute name": [file("/home/alice/shop/x")],
    "a place outside": [file("./etc/cron.d/x")],
    "a place beside the root": [file("./home/alice/shop2")],
    "a file through a link of the archive": [link("./home/alice/shop/l", "/srv"), file("./home/alice/shop/l/x")],
    "a directory through a link": [link("./home/alice/shop/l", "/srv"), directory("./home/alice/shop/l/x")],
    "the root as a link": [link("./home/alice/shop", "/srv"), file("./home/alice/shop/x")],
    "a mode through a link": [link("./home/alice/shop/l", "/srv"), directory("./home/alice/shop/l", mode=0o777)],
    "a hard link to a file of this host": [link("./home/alice/shop/l", "./etc/hosts", tarfile.LNKTYPE)],
    "a hard link upwards": [link("./home/alice/shop/l", "../../../etc/hosts", tarfile.LNKTYPE)],
    "a hard link by an absolute name": [link("./home/alice/shop/l", "/etc/hosts", tarfile.LNKTYPE)],
    "a hard link to a link": [link("./home/alice/shop/s", "/etc/hosts"),
                              link("./home/alice/shop/l", "./home/alice/shop/s", tarfile.LNKTYPE)],
    "a hard link through a link": [link("./home/alice/shop/s", "/etc"),
                                   link("./home/alice/shop/l", "./home/alice/shop/s/hosts", tarfile.LNKTYPE)],
    "a character device": [Member("./home/alice/shop/d", type=tarfile.CHRTYPE, devmajor=1, devminor=3, **OWNER)],
    "a block device": [Member("./home/alice/shop/d", type=tarfile.BLKTYPE, devmajor=8, devminor=0, **OWNER)],
    "a pipe": [Member("./home/alice/shop/d", type=tarfile.FIFOTYPE, **OWNER)],
}


@pytest.mark.parametrize("attack", ATTACKS)
def test_keeps_inside_of_the_tree(session, attack):
    os.makedirs("/srv/here")
    site(session, directory("./home/alice/shop"), file("./home/alice/shop/index.php"), *ATTACKS[attack])
    outside = ("/etc/cron.d", "/srv")
    before = snapshot(*outside), os.stat("/etc/hosts").st_nlink
    session.run("apply")
    assert (snapshot(*outside), os.stat("/etc/hosts").st_nlink) == before
    assert os.listdir("/srv") == ["here"] and not os.listdir("/srv/here")
    assert os.listdir("/home") == ["alice"] and os.listdir("/home/alice") in (["shop"], [])
    kinds = {stat.S_IFMT(os.lstat(f"{place}/{name}").st_mode)
             for place, directories, files in os.walk("/home/alice") for name in directories + files}
    assert kinds <= {stat.S_IFDIR, stat.S_IFREG, stat.S_IFLNK}
    assert not any(os.stat(f"{place}/{name}", follow_symlinks=False).st_nlink > 1
                   for place, _, files in os.walk("/home/alice") for name in files)


@pytest.mark.parametrize("name", ["shop.tar.gz", "shop.tar"])
def test_unpacks_no_more_than_the_description_names(session, name):
    """The plan has found room for no more."""
    archive = made_of(directory("./home/alice/shop"), file("./home/alice/shop/zeros", bytes(32 << 20)))
    archive = archive if name.endswith(".gz") else gzip.decompress(archive)
    content = session.content("site", f"content/sites/{name}", archive)
    session.add_site(session.add_client("alice", 30001), "shop.test", "/home/alice/shop", content)
    session.tree.find(".//domain/content").set("unpacked", "10000")
    session.run("plan", check=0)
    done = session.run("apply", check=1)
    assert "more than the 10,000 bytes that the description names" in done.stderr and "Traceback" not in done.stderr
    used = os.statvfs("/home")
    assert (used.f_blocks - used.f_bfree) * used.f_frsize < 4 << 20


@pytest.mark.parametrize("root", ["/home/alice/shop", "/srv/shop"])
def test_a_file_in_the_place_of_a_root_needs_a_decision(session, root):
    os.makedirs(os.path.dirname(root), exist_ok=True)
    with open(root, "w", encoding="ascii") as out:
        out.write("of this host")
    site(session, directory(f".{root}"), file(f".{root}/index.php"), root=root)
    done = session.run("plan", check=3)
    assert f"{root} is here already" in done.stdout and "Traceback" not in done.stderr
    session.run("apply", check=3)
    with open(root, encoding="ascii") as kept:
        assert kept.read() == "of this host"


def test_drops_and_names_rights_beyond_those_of_an_owner(session):
    site(session, directory("./home/alice/shop"), file("./home/alice/shop/s", mode=0o4755),
         file("./home/alice/shop/g", mode=0o2755),
         file("./home/alice/shop/c", pax_headers={"SCHILY.xattr.security.capability": "x", "SCHILY.xattr.user.a": "b"}))
    done = session.run("apply", check=0)
    assert all(f"/home/alice/shop/{name}" in done.stdout for name in "sgc")
    assert [stat.S_IMODE(os.stat(f"/home/alice/shop/{name}").st_mode) for name in "sgc"] == [0o755, 0o755, 0o644]
    assert "security.capability" not in os.listxattr("/home/alice/shop/c")


def test_gives_files_to_accounts_of_the_restore_only(session):
    with open("/etc/passwd", "a", encoding="ascii") as passwd:
        passwd.write("carol:x:40000:40000::/home/carol:/bin/sh\n")
    site(session, directory("./home/alice/shop"),
         file("./home/alice/shop/carol", uname="carol", uid=40000),
         file("./home/alice/shop/40000", uname="", uid=40000),
         file("./home/alice/shop/shadow", gname="shadow", gid=42),
         link("./home/alice/shop/link", "/etc/passwd", uname="root", uid=0))
    assert "carol" in session.run("apply", check=0).stdout
    found = {name: os.lstat(f"/home/alice/shop/{name}") for name in os.listdir("/home/alice/shop")}
    assert {about.st_uid for about in found.values()} == {30001}
    assert {about.st_gid for about in found.values()} == {30001}


@pytest.mark.parametrize("root", ["/etc/cron.d", "/root/.ssh", "/usr/local/bin", "/", "/home", "/home/alice/../bob",
                                  "/var/spool/cron", "/proc/1", "/home/carol/.ssh"])
def test_takes_no_root_that_is_not_the_owners(session, root):
    os.makedirs("/home/carol")
    os.chown("/home/carol", 40000, 40000)
    member = f".{root}/x"
    site(session, file(member), root=root)
    session.run("apply")
    assert not os.path.lexists(f"{root}/x")


def test_knows_places_of_the_system():
    assert all(map(why_not, ("/.ssh", "/.autorelabel", "/etc", "/", "/home", "/var/lib/x", "/a/../etc", "relative")))
    assert not why_not("/srv/a") and not why_not("/var/www") and not why_not("/sites/a")


def test_a_later_fetch_takes_no_directory_of_this_host_over(session):
    """The root of a second site is above that of the first, and has directories that no apply made."""
    site(session, directory("./srv/www/alice"), file("./srv/www/alice/index.php"), root="/srv/www/alice")
    os.makedirs("/srv/www/here")
    session.run("apply", check=0)
    above = session.content("site", "content/sites/above.test.tar.gz", made_of(
        directory("./srv/www"), directory("./srv/www/here", mode=0o777), file("./srv/www/here/evil.php")))
    session.add_site(session.tree.find("client"), "above.test", "/srv/www", above)
    assert "--replace=files:sites/above.test" in session.run("plan", check=3).stdout
    session.run("apply", check=3)
    assert os.stat("/srv/www/here").st_uid == 0 and os.listdir("/srv/www/here") == []


def test_what_is_here_of_a_site_is_not_the_sites_if_there_is_more(session):
    """One equal page does not allow a site to serve a whole directory of this host."""
    os.makedirs("/srv/www/here")
    for name in ("index.html", "configuration.php"):
        with open(f"/srv/www/here/{name}", "w", encoding="ascii") as out:
            out.write("text\n")
    site(session, directory("./srv/www/here"), file("./srv/www/here/index.html"), root="/srv/www/here")
    assert "--replace=files:sites/shop.test" in session.run("plan", check=3).stdout


def test_keeps_a_directory_that_was_made_here_meanwhile_as_it_is(session):
    site(session, *usual())
    session.run("apply", check=0)
    os.mkdir("/home/alice/shop/mine", 0o700)
    renewed(session, *usual(), directory("./home/alice/shop/mine", mode=0o777))
    assert "has the owner and mode that it had here" in session.run("apply", check=0).stdout
    about = os.stat("/home/alice/shop/mine")
    assert (about.st_uid, stat.S_IMODE(about.st_mode)) == (0, 0o700)


def test_follows_no_link_that_an_account_has_made_here(session):
    site(session, *usual())
    os.makedirs("/home/alice")
    os.chown("/home/alice", 30001, 30001)
    os.symlink("/srv", "/home/alice/shop")
    os.chown("/home/alice/shop", 30001, 30001, follow_symlinks=False)
    session.run("apply")
    assert os.listdir("/srv") == []

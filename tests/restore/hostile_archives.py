"""Attacks by members of archives, and by the places that sites are to have."""
import os
import tarfile

import test_files
from hostile_proofs import Attack, exists
from made_session import Member, made_of
from test_files import directory, file, link


def add_archives(session):
    """Puts members below the home of alice's into the session, with those that lead elsewhere; yields the attacks."""
    members = [directory("./home/alice"), directory("./home/alice/shop"), file("./home/alice/shop/index.php")]
    for number, (name, attack) in enumerate(test_files.ATTACKS.items()):
        # Each with names of its own, so that none stands in another's way.
        for member in attack:
            kept = ("type", "mode", "uid", "gid", "uname", "gname", "devmajor", "devminor")
            members.append(Member(
                member.name.replace("/shop/", f"/shop/{number}-"), member.content,
                linkname=member.linkname.replace("/shop/", f"/shop/{number}-"),
                **{key: getattr(member, key) for key in kept}))
        yield Attack(f"archive: {name}", exists(
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
        ("dots of another writing", file(f"./{root}/\u2025/\uff0e\uff0e/x"), exists("/home/x", "/home/alice/x")),
        ("a line in a name", file(f"./{root}/a\n/etc/cron.d/line"), exists("/etc/cron.d/line")),
        ("a name of options", file(f"./{root}/--checkpoint-action=exec=touch pwned"), exists("/pwned", "/etc/pwned")),
        ("a device by a name of a file", Member(f"./{root}/zero", type=tarfile.CHRTYPE, devmajor=1, devminor=5),
         exists(f"{root}/zero")),
        ("keys beside the site", file("./home/bob/.ssh/authorized_keys"), exists("/home/bob/.ssh")),
        ("root's own files", file("./root/.profile.d/x"), exists("/root/.profile.d")),
    ):
        above = [directory(f"./{root}/\u2025"), directory(f"./{root}/\u2025/\uff0e\uff0e")] if "dots" in name else []
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
        yield Attack(f"root of a site: {place}", exists(made))

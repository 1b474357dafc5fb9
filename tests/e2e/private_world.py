"""What a private world has in the place of the machine's own: see tests/private-world, which makes the namespace.

`make()` is for a process that is in a private mount namespace of its own; as a program, this does the same for the
shell that starts it. Every single test goes through this: it starts no program.
"""
import ctypes
import os

MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_RDONLY = 2, 4, 8, 1
MS_REMOUNT, MS_BIND, MS_REC = 0x20, 0x1000, 0x4000
MNT_DETACH = 2

# name: (uid and gid, home, shell, password, as a hash of few rounds, to be quick). The passwords are the name followed
# by "-passphrase".
ACCOUNTS = {
    "root": (0, "/mnt/home/root", "/bin/sh",
             "$6$rounds=1000$root$"
             "Iajscc/og31eTNfwVlROEEmnuEDAe/notJtjAF9F2Wy65IDIVcyoNB.J1QC7tzkdELo2pwLB0UsS553ZU5uhg/"),
    "qrvadm": (20000, "/nonexistent", "/usr/sbin/nologin", "!"),
    "plain": (20001, "/mnt/home/plain", "/bin/sh",
              "$6$rounds=1000$plain$"
              "43h9kPhKDhSuwzmsdx5lHRRm260jLwoK1nfeOmRiqlctfpJMmg/syvw5jZoVWjYz75t/zPeBnoRLkLX.m2lH40"),
    "sudoer": (20002, "/mnt/home/sudoer", "/bin/sh",
               "$6$rounds=1000$sudoer$"
               "JWHZ0o4PBhDytXMGaohvf9LSrtb50rPoB13Zcyq0srjuxrpPKBLNRxa2I3wOQysbMlYJC0nCHa2o8c8tHIpfw1"),
    "freesudo": (20003, "/mnt/home/freesudo", "/bin/sh",
                 "$6$rounds=1000$freesudo$"
                 "ZCMhIxJbC0DzWVyn1xIxwcvocqC0YXLcVn0EBrwgEKdC81gKkoVWvH4oZC9Rw.4.31F1BEY8LxYY22GgX9BQT/"),
}
# sudoer is asked for root's password, so that a program which hands sudo the login's password where the sudo password
# belongs is found out.
SUDOERS = """\
Defaults !lecture, !mail_badpass, !mail_no_user, !mail_no_host, !fqdn
Defaults:sudoer rootpw
root ALL=(ALL:ALL) ALL
sudoer ALL=(ALL:ALL) ALL
freesudo ALL=(ALL:ALL) NOPASSWD: ALL
"""
PAM = """\
auth required pam_unix.so nodelay
account required pam_unix.so
password required pam_deny.so
session required pam_permit.so
"""
# A2 is the appender that stays only with --verbose.
LOGGING = """\
log4cpp.rootCategory=INFO, A1, A2
log4cpp.appender.A1=FileAppender
log4cpp.appender.A1.fileName=${LOG_FILE_NAME}
log4cpp.appender.A1.layout=PatternLayout
log4cpp.appender.A1.layout.ConversionPattern=%p %c: %m%n
log4cpp.appender.A2=ConsoleAppender
log4cpp.appender.A2.target=stderr
log4cpp.appender.A2.layout=PatternLayout
log4cpp.appender.A2.layout.ConversionPattern=%p %c: %m%n
"""
# What /etc has of its own. Settings of the agents (sondrel) are left out: tests make their own.
OWN_SETTINGS = {"qrv", "sondrel", "passwd", "group", "shadow", "gshadow", "sudoers", "sudoers.d", "nsswitch.conf",
                "hosts", "pam.d", "nologin"}

_LIBC = ctypes.CDLL(None, use_errno=True)


def make():
    """Makes the world in this process's mount namespace, which must be private; this process must be root."""
    mask = os.umask(0o022)
    try:
        _make_scratch_space()
        _make_devices()
        mount("/run")
        os.makedirs("/run/sshd")
        os.makedirs("/run/lock")
        mount("/var/log")
        _make_settings()
    finally:
        os.umask(mask)


def mount(place, source="world", kind="tmpfs", flags=0, options="mode=755"):
    """Mounts at the path `place`, by default an empty file system; raises OSError. A program takes longer for it."""
    words = [word if word is None else os.fsencode(word) for word in (source, place, kind)]
    _check(_LIBC.mount(*words, ctypes.c_ulong(flags), options and os.fsencode(options)), place)


def unmount(place):
    """Takes away what is mounted at the path `place`, although it may be in use; raises OSError."""
    _check(_LIBC.umount2(os.fsencode(place), MNT_DETACH), place)


def _check(result, place):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), place)


def _bind(source, place):
    """Makes what is mounted below `source` appear below `place`, too."""
    os.mkdir(place)
    mount(place, source, None, MS_BIND | MS_REC, None)


def _write(path, content, mode=0o644):
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode), "w", encoding="utf-8",
              errors="surrogateescape") as file:
        file.write(content)


def _make_scratch_space():
    mount("/mnt")
    for name, (number, home, _, _) in ACCOUNTS.items():
        if home.startswith("/mnt/"):
            os.makedirs(home)
            os.chown(home, number, number)
    for directory in ("tmp", "agents"):
        os.makedirs(f"/mnt/product/DTM/{directory}")
    _write("/mnt/product/DTM/log4cpp.properties", LOGGING)


def _make_devices():
    _bind("/dev", "/mnt/dev.orig")
    mount("/dev")
    for name in ("full", "null", "ptmx", "pts", "random", "shm", "tty", "urandom", "zero"):
        os.symlink(f"/mnt/dev.orig/{name}", f"/dev/{name}")
    for name, target in (("fd", ""), ("stdin", "/0"), ("stdout", "/1"), ("stderr", "/2")):
        os.symlink(f"/proc/self/fd{target}", f"/dev/{name}")


def _make_settings():
    _bind("/etc", "/mnt/etc.orig")
    _protect("/mnt/etc.orig")
    mount("/etc")
    for entry in os.scandir("/mnt/etc.orig"):
        if entry.name not in OWN_SETTINGS:
            # A symbolic link is copied: a relative one would not lead anywhere from etc.orig.
            os.symlink(os.readlink(entry.path) if entry.is_symlink() else entry.path, f"/etc/{entry.name}")
    for directory in ("qrv", "sudoers.d", "pam.d"):
        os.mkdir(f"/etc/{directory}")
    _write("/etc/qrv/qrv.conf", "PRODUCT_ROOT_D /mnt/product\n")
    _write_accounts()
    _write("/etc/sudoers", SUDOERS, 0o440)
    services = ("passwd", "group", "shadow", "gshadow", "hosts", "networks", "protocols", "services")
    _write("/etc/nsswitch.conf", "".join(f"{service}:\tfiles\n" for service in services))
    _write("/etc/hosts", f"127.0.0.1\tlocalhost {os.uname().nodename}\n::1\tlocalhost\n")
    for service in ("sshd", "sudo", "other"):
        _write(f"/etc/pam.d/{service}", PAM)


def _protect(top):
    """Makes what is mounted at `top` and below read-only, each mount by itself: the first does not cover the others."""
    with open("/proc/self/mountinfo", "rb") as mounts:
        # In the paths blanks and the like are escaped, as octal numbers.
        places = [os.fsdecode(line.split()[4].decode("unicode_escape").encode("latin-1")) for line in mounts]
    for place in places:
        if place == top or place.startswith(f"{top}/"):
            kept = os.statvfs(place).f_flag & (MS_NOSUID | MS_NODEV | MS_NOEXEC)
            mount(place, None, None, MS_REMOUNT | MS_BIND | MS_RDONLY | kept, None)


def _write_accounts():
    """The machine's accounts have no passwords here."""
    ids = {name: (number, home, shell) for name, (number, home, shell, _) in ACCOUNTS.items()}
    _write("/etc/passwd", "".join(f"{name}:x:{number}:{number}:{'root' * (name == 'root')}:{home}:{shell}\n"
                                  for name, (number, home, shell) in ids.items()) + _of_the_machine("passwd"))
    _write("/etc/group", "".join(f"{name}:x:{number}:\n" for name, (number, _, _) in ids.items())
           + _of_the_machine("group"))
    _write("/etc/shadow", "".join(f"{name}:{account[3]}:19000::::::\n" for name, account in ACCOUNTS.items()), 0o600)
    _write("/etc/gshadow", "", 0o600)


def _of_the_machine(table):
    """The lines of the machine's table, without those of our accounts."""
    with open(f"/mnt/etc.orig/{table}", encoding="utf-8", errors="surrogateescape") as lines:
        return "".join(line for line in lines if line.partition(":")[0] not in ACCOUNTS)


if __name__ == "__main__":
    make()

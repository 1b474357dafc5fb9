"""Database servers of a source host: private ones that only listen on a socket.

For tests that are not written in Python:

    source_databases.py mariadb|postgresql DIRECTORY [SOCKETS]

runs a server in the new directory DIRECTORY, prints "ready" and ends it when its own standard
input ends. Without SOCKETS the server is where the clients look for it by default.
"""
import fcntl
import glob
import hashlib
import os
import pwd
import shutil
import signal
import subprocess
import sys

import private_world
import world


# Names a directory in which the data of new servers are kept from one test to the next: making them takes longer than
# most of what a test has a server do. Without it each server makes its own.
KEPT = "SONDREL_NEW_DATABASES"


class DatabaseServer:
    """A server with its data in a new directory; `with` starts and stops it, start() restarts it."""

    ACCOUNT = None  # who runs it
    SOCKETS = None  # the directory where clients look for the socket
    STOP = None

    def __init__(self, directory, sockets=None):
        self.directory = directory
        self.sockets = sockets or self.SOCKETS
        self.data = f"{directory}/data"
        self.log = f"{directory}/log"
        self.process = None
        account = pwd.getpwnam(self.ACCOUNT)
        self._ids = account.pw_uid, account.pw_gid
        self.temporary = f"{directory}/tmp"
        for path in directory, self.temporary, self.sockets:
            os.makedirs(path, exist_ok=True)
            os.chown(path, *self._ids)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def start(self):
        if not os.path.isdir(self.data):
            self._make_data()
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self._command(), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            cwd="/", user=self._ids[0], group=self._ids[1], extra_groups=[],
                                            preexec_fn=world.die_with_parent)
        try:
            world.wait_until(self._answers, f"a server to answer in {self.sockets}", 60)
        except BaseException as error:
            self.kill()
            raise RuntimeError(f"no database server: {world.read(self.log).decode(errors='replace')}") from error

    def _make_data(self):
        """Makes the data of a new server, or copies what an earlier test has made by the same programs."""
        kept_in = os.environ.get(KEPT)
        if not kept_in:
            self._run(self._initialization(), user=self._ids[0])
            return
        kept = f"{kept_in}/{self._state_of_programs()}"
        os.makedirs(kept_in, exist_ok=True)
        with open(f"{kept}.lock", "wb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not os.path.isdir(kept):
                self._run(self._initialization(), user=self._ids[0])
                shutil.rmtree(f"{kept}.new", ignore_errors=True)
                _copy(self.data, f"{kept}.new")
                os.rename(f"{kept}.new", kept)
                return
        _copy(kept, self.data)

    def _state_of_programs(self):
        """Tells one way to make the data, by one version of the server, from another; a part of a path."""
        about = os.stat(self._command()[0])
        words = [word.replace(self.directory, "") for word in self._initialization()]
        return hashlib.sha256(repr((words, about.st_size, about.st_mtime_ns)).encode()).hexdigest()

    def stop(self):
        if self.process:
            self.process.send_signal(self.STOP)
            self.process.wait(30)
            self.process = None

    def kill(self):
        """Kills the server without a shutdown; its socket stays."""
        self.process.kill()
        self.process.wait()
        self.process = None

    def sql(self, text, database=None):
        """Runs SQL as the server's administrator and returns what it prints."""
        return self._run(self._client(database), text, user=self._client_user())

    def _answers(self):
        assert self.process.poll() is None, f"ended with {self.process.returncode}"
        # Each query starts a program, and many of them would slow down the starting server: look for the socket
        # first.
        if not os.path.exists(self.socket):
            return False
        return subprocess.run(self._client(None), input=b"SELECT 1;", cwd="/", user=self._client_user(),
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0

    def _run(self, command, text="", *, user):
        result = subprocess.run(command, input=os.fsencode(text), capture_output=True, cwd="/",
                                user=user, check=False)
        assert result.returncode == 0, f"{command}: {result.stderr.decode(errors='replace')}"
        return result.stdout


class MariaDb(DatabaseServer):
    ACCOUNT = "mysql"
    SOCKETS = "/run/mysqld"
    STOP = signal.SIGTERM

    @property
    def socket(self):
        return f"{self.sockets}/mysqld.sock"

    def _initialization(self):
        return ["mariadb-install-db", "--no-defaults", f"--datadir={self.data}", "--skip-test-db",
                "--auth-root-authentication-method=socket", "--innodb-log-file-size=8M",
                f"--tmpdir={self.temporary}"]

    def _command(self):
        return ["/usr/sbin/mariadbd", "--no-defaults", f"--datadir={self.data}", f"--socket={self.socket}",
                f"--pid-file={self.directory}/pid", "--skip-networking", "--innodb-buffer-pool-size=32M",
                "--innodb-log-file-size=8M", "--innodb-flush-log-at-trx-commit=0", "--skip-log-bin",
                "--event-scheduler=OFF", "--max-allowed-packet=64M",
                # A starting server removes the temporary tables of all servers that share the directory.
                f"--tmpdir={self.temporary}"]

    def _client(self, database):
        return ["mariadb", "--no-defaults", f"--socket={self.socket}", "--batch", "--skip-column-names",
                "--default-character-set=utf8mb4", "--max-allowed-packet=64M"] + ([database] if database else [])

    def _client_user(self):
        return 0


class PostgreSql(DatabaseServer):
    ACCOUNT = "postgres"
    SOCKETS = "/run/postgresql"
    STOP = signal.SIGINT

    def __init__(self, directory, sockets=None, port=5432):
        super().__init__(directory, sockets)
        self.port = port
        # The newest of the installed versions.
        self.programs = max(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda path: int(path.split("/")[-2]))

    @property
    def socket(self):
        return f"{self.sockets}/.s.PGSQL.{self.port}"

    def _initialization(self):
        return [f"{self.programs}/initdb", "--pgdata", self.data, "--auth=peer", "--encoding=UTF8",
                "--locale=C.UTF-8", "--no-sync"]

    def _command(self):
        options = {"listen_addresses": "", "port": self.port, "unix_socket_directories": self.sockets, "fsync": "off",
                   "shared_buffers": "16MB", "autovacuum": "off"}
        return [f"{self.programs}/postgres", "-D", self.data] + [
            word for name, value in options.items() for word in ("-c", f"{name}={value}")]

    def _client(self, database):
        return [f"{self.programs}/psql", "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-h", self.sockets,
                "-p", str(self.port), "-d", database or "postgres", "-f", "-"]

    def _client_user(self):
        return self._ids[0]


def _copy(directory, new):
    subprocess.run(["cp", "--archive", "--no-target-directory", directory, new], check=True)


def hide_installed():
    """Hides from the private world what the packages have installed on this machine."""
    for path in "/var/lib/mysql", "/var/lib/postgresql":
        if os.path.isdir(path):
            private_world.mount(path)
    for path in "/etc/mysql", "/etc/postgresql", "/etc/postfix", "/etc/dovecot":
        if os.path.islink(path):
            os.unlink(path)


def main(kind, directory, sockets=None):
    with {"mariadb": MariaDb, "postgresql": PostgreSql}[kind](directory, sockets):
        print("ready", flush=True)
        sys.stdin.buffer.read()


if __name__ == "__main__":
    main(*sys.argv[1:])

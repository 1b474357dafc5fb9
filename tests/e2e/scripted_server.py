"""An SSH server on loopback that does, at each step, what a test tells it to.

For what a real server cannot be brought to do: refuse, fall silent, or lose the
connection at a chosen point, and send any sequence of a channel's messages.
"""
import dataclasses
import functools
import os
import signal
import socket
import struct
import threading
import typing

import paramiko
from paramiko import common
from paramiko.message import Message

from world import HOST, wait_until


# --- what a command does ---------------------------------------------------------------------

class Command:
    """One exec request that was granted, from the view of the server."""

    def __init__(self, connection, channel, line):
        self.connection = connection
        self.line = line
        self.stdin = b""  # what take_input has taken
        self._channel = channel

    def take_input(self, size=None):
        """Reads `size` bytes of the standard input, or all of it; returns what it took."""
        taken = []
        while size is None or size > 0:
            chunk = self._channel.recv(1 << 20 if size is None else min(size, 1 << 20))
            if not chunk:
                break
            taken.append(chunk)
            size = None if size is None else size - len(chunk)
        text = b"".join(taken)
        self.stdin += text
        return text

    def say(self, text):
        """Standard output; waits while the window is full."""
        self._channel.sendall(text)

    def complain(self, text):
        """Standard error."""
        self._channel.sendall_stderr(text)

    def say_on_stream(self, stream, text):
        """Data of a stream that need not exist; 1 would be standard error."""
        def add(message):
            message.add_int(stream)
            message.add_string(text)
        self._send(common.cMSG_CHANNEL_EXTENDED_DATA, add)

    def answer_without_request(self):
        """A message of a single byte, which belongs to no channel."""
        message = Message()
        message.add_byte(common.cMSG_REQUEST_SUCCESS)
        self.connection.transport._send_user_message(message)

    def status(self, number):
        self._request("exit-status", lambda message: message.add_bytes(struct.pack(">I", number)))

    def killed_by(self, name):
        def add(message):
            message.add_string(name)
            message.add_boolean(False)  # no core
            message.add_string("error message")
            message.add_string("en")
        self._request("exit-signal", add)

    def eof(self):
        self._send(common.cMSG_CHANNEL_EOF)

    def close(self):
        self._send(common.cMSG_CHANNEL_CLOSE)
        with self._channel.lock:  # no further message of the library's own
            self._channel._set_closed()

    def end(self, status=0):
        """Ends as a command does: all three messages."""
        self.status(status)
        self.eof()
        self.close()

    def _send(self, kind, add=lambda message: None):
        message = Message()
        message.add_byte(kind)
        message.add_int(self._channel.remote_chanid)
        add(message)
        self.connection.transport._send_user_message(message)

    def _request(self, name, add):
        def add_all(message):
            message.add_string(name)
            message.add_boolean(False)  # wants no reply
            add(message)
        self._send(common.cMSG_CHANNEL_REQUEST, add_all)


def ends(stdout=b"", stderr=b"", status=0):
    """An answer: takes all input, prints, and ends with the status."""
    def answer(command):
        command.take_input()
        command.say(stdout)
        command.complain(stderr)
        command.end(status)
    return answer


# --- what befalls a connection ---------------------------------------------------------------

def fin(connection):
    """Ends the connection in order, and is deaf from then on: nothing is ever reset."""
    connection.kept = connection.socket.dup()
    connection.socket.shutdown(socket.SHUT_WR)
    connection.give_up()


def rst(connection):
    """Ends the connection with a reset."""
    connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.socket.close()
    connection.give_up()


def disconnect(connection):
    """Ends the connection as the protocol has it, with a message."""
    message = Message()
    message.add_byte(common.cMSG_DISCONNECT)
    message.add_int(11)  # by application
    message.add_string("over")
    message.add_string("en")
    connection.transport._send_message(message)
    fin(connection)


def mute(connection):
    """Says nothing more, and keeps the connection open until the server stops."""
    connection.server.stopping.wait()
    connection.give_up()


class Held:
    """Holds a connection at a point until release(); reached() waits for it to come there."""

    def __init__(self):
        self._reached = threading.Event()
        self._released = threading.Event()

    def __call__(self, connection):
        self._reached.set()
        assert self._released.wait(60), "a held connection was not released"

    def reached(self):
        assert self._reached.wait(60), "no connection came to the point"

    def release(self):
        self._released.set()


@dataclasses.dataclass
class Script:
    """How the server treats one connection.

    `at` says what befalls it at a point: "connected", "version" (it was sent), and the names
    of messages that arrive: "kexinit", "newkeys", "service-request", "userauth none",
    "userauth password", "userauth keyboard-interactive", "userauth-info-response",
    "channel-open", "channel-request", "channel-data", "channel-eof", "channel-close". Of a
    message that comes more than once, "channel-open 2" is the second.
    """
    before_version: bytes = b""
    version: str = "SSH-2.0-scripted"
    kex: tuple = None  # None: what the library offers
    ciphers: tuple = None
    methods: str = "password,keyboard-interactive"
    accepts: tuple = ("password", "keyboard-interactive")
    demands_more_after: tuple = ()  # methods that succeed and do not suffice
    login_banner: str = ""
    prompts: tuple = (1,)  # in each round of keyboard-interactive
    opens_channels: bool = True
    starts: typing.Callable = lambda line: True
    answer: typing.Callable = ends()
    at: dict = dataclasses.field(default_factory=dict)


class _GaveUp(EOFError):
    """Ends the library's loop for a connection."""


class Connection(paramiko.ServerInterface):
    """One TCP connection and what was said on it."""

    def __init__(self, server, script, accepted):
        self.server = server
        self.script = script
        self.socket = accepted
        self.kept = None
        self.commands = []
        self.points = []  # all that was reached, in order, names as for Script.at
        self.passwords = []  # (login, password)
        self.responses = []  # one list for each round of keyboard-interactive
        self.transport = None
        self._gave_up = False
        self._starting = []

    def serve(self):
        try:
            self._reach("connected")
            self.socket.sendall(self.script.before_version)
            self.transport = _Transport(self)
            self.transport.start_server(event=threading.Event(), server=self)
        except (_GaveUp, OSError):
            pass

    def give_up(self):
        """Has the library do nothing more for this connection."""
        self._gave_up = True
        if self.transport is None or threading.current_thread() is self.transport:
            raise _GaveUp

    def stop(self):
        if self.transport:
            self.transport.close()
        for each in filter(None, (self.socket, self.kept)):
            each.close()

    # Called by the library's thread.

    def _reach(self, point):
        self.points.append(point)
        numbered = f"{point} {self.points.count(point)}"
        action = self.script.at.get(numbered) or self.script.at.get(point)
        if action:
            action(self)

    def message_arrived(self, number, message):
        # The library's name for this number is that of another method of logging in.
        point = {common.MSG_USERAUTH_INFO_RESPONSE: "userauth-info-response"}.get(
            number, common.MSG_NAMES.get(number, str(number)))
        if point == "userauth-request":
            copy = Message(message.asbytes())
            point = "userauth " + [copy.get_text() for _ in range(3)][2]
        self._reach(point)

    def before_reading(self):
        if self._gave_up:
            raise _GaveUp
        # The answer to the request has been sent by now.
        for command in self._starting:
            self.server.run(command)
        self._starting = []

    # Questions of the library.

    def get_banner(self):
        return self.script.login_banner, "en"

    def get_allowed_auths(self, username):
        return self.script.methods

    def _result(self, method):
        if method in self.script.demands_more_after:
            return common.AUTH_PARTIALLY_SUCCESSFUL
        return common.AUTH_SUCCESSFUL if method in self.script.accepts else common.AUTH_FAILED

    def check_auth_none(self, username):
        return self._result("none")

    def check_auth_password(self, username, password):
        self.passwords.append((username, password))
        return self._result("password")

    def _query(self):
        if len(self.responses) < len(self.script.prompts):
            prompts = [f"Question {n}: " for n in range(self.script.prompts[len(self.responses)])]
            return paramiko.InteractiveQuery("name", "instruction", *prompts)
        return self._result("keyboard-interactive")

    def check_auth_interactive(self, username, submethods):
        return self._query()

    def check_auth_interactive_response(self, responses):
        self.responses.append(responses)
        return self._query()

    def check_channel_request(self, kind, chanid):
        if self.script.opens_channels:
            return common.OPEN_SUCCEEDED
        return common.OPEN_FAILED_ADMINISTRATIVELY_PROHIBITED

    def check_channel_exec_request(self, channel, line):
        command = Command(self, channel, line.decode())
        self.commands.append(command)
        if not self.script.starts(command.line):
            return False
        self._starting.append(command)
        return True


class _Transport(paramiko.Transport):
    """The library's server side, which tells its Connection of each message."""

    def __init__(self, connection):
        super().__init__(connection.socket)
        self._connection = connection
        self.local_version = connection.script.version
        self.packetizer.read_message = functools.partial(self._read, self.packetizer.read_message)
        self.add_server_key(connection.server.key)
        # Not through the library's checks: unknown names are accepted here.
        self._preferred_kex = connection.script.kex or self._preferred_kex
        self._preferred_ciphers = connection.script.ciphers or self._preferred_ciphers

    def _send_kex_init(self):
        if self.session_id is None:
            self._connection._reach("version")
        super()._send_kex_init()

    def _read(self, read):
        self._connection.before_reading()
        number, message = read()
        self._connection.message_arrived(number, message)
        return number, message


class ScriptedServer:
    """Listens while it is entered. Each connection follows the next script; the last one
    also serves all that come after."""

    def __init__(self, *scripts, address=HOST, port=22):
        self._scripts = scripts or (Script(),)
        self._address = (address, port)
        self.key = paramiko.ECDSAKey.generate()
        self.connections = []
        self.stopping = threading.Event()
        self._threads = []
        self._errors = []
        self._refusing = False

    def __enter__(self):
        family = socket.AF_INET6 if ":" in self._address[0] else socket.AF_INET
        self._listener = socket.create_server(self._address, family=family)
        self._start(self._accept)
        return self

    def __exit__(self, kind, error, trace):
        self.stopping.set()
        self.refuse()
        for connection in self.connections:
            connection.stop()
        for thread in self._threads:
            thread.join(60)
            assert not thread.is_alive(), "a thread of the scripted server does not end"
        self._listener.close()
        if self._errors and not error:
            raise self._errors[0]

    def _accept(self):
        while True:
            try:
                accepted = self._listener.accept()[0]
            except OSError:
                return  # stopping
            script = self._scripts[min(len(self.connections), len(self._scripts) - 1)]
            connection = Connection(self, script, accepted)
            self.connections.append(connection)
            self._start(connection.serve)

    def _start(self, work, *arguments):
        thread = threading.Thread(target=self._guarded, args=(work, *arguments))
        self._threads.append(thread)
        thread.start()

    def _guarded(self, work, *arguments):
        try:
            work(*arguments)
        except (OSError, EOFError, paramiko.SSHException):
            pass  # the connection was lost, which many scripts are about
        except BaseException as error:
            self._errors.append(error)

    def refuse(self):
        """Refuses all further connections."""
        if not self._refusing:
            self._refusing = True
            self._listener.shutdown(socket.SHUT_RDWR)

    def run(self, command):
        self._start(command.connection.script.answer, command)

    @property
    def commands(self):
        """All commands that were asked for, refused ones included."""
        return [command for connection in self.connections for command in connection.commands]


class Stopped:
    """The run is stopped inside this block: what it is sent meanwhile it finds all at once."""

    def __init__(self, running):
        self._pid = running.pid

    def _state(self):
        with open(f"/proc/{self._pid}/stat", encoding="utf-8") as stat:
            return stat.read().rpartition(")")[2].split()[0]

    def __enter__(self):
        os.kill(self._pid, signal.SIGSTOP)
        wait_until(lambda: self._state() == "T", "the run to stop")

    def __exit__(self, *exception):
        os.kill(self._pid, signal.SIGCONT)

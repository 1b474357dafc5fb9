"""What a scripted server (scripted_server.py) does with a command, and with a connection."""
import dataclasses
import socket
import struct
import threading
import typing

from paramiko import common
from paramiko.message import Message


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
        """Sends data of a stream that need not exist; 1 would be standard error."""
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
    """Ends the connection in order, and reads nothing from then on: nothing is ever reset."""
    connection.kept = connection.socket.dup()
    connection.socket.shutdown(socket.SHUT_WR)
    connection.give_up()


def rst(connection):
    """Ends the connection with a reset."""
    connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.socket.close()
    connection.give_up()


def disconnect(connection):
    """Ends the connection by the protocol's message for it."""
    message = Message()
    message.add_byte(common.cMSG_DISCONNECT)
    message.add_int(11)  # by application
    message.add_string("over")
    message.add_string("en")
    connection.transport._send_message(message)
    fin(connection)


def mute(connection):
    """Sends nothing more, and keeps the connection open until the server stops."""
    connection.server.stopping.wait()
    connection.give_up()


class Held:
    """Stops a connection at a point until release(); reached() waits until it gets there."""

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

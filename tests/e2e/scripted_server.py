"""An SSH server on loopback that does, at each step, what a test wants.

For what a real server cannot be made to do: refuse, fall silent, or lose the connection at a chosen point, and send any
sequence of a channel's messages.
"""
import functools
import os
import signal
import socket
import threading

import paramiko
from paramiko import common
from paramiko.message import Message

from script import Command, Script
from world import HOST, wait_until


class _GaveUp(EOFError):
    """Ends the library's loop for a connection."""


class Connection(paramiko.ServerInterface):
    """One TCP connection and the messages on it."""

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
        """Makes the library do nothing more for this connection."""
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
        # The library calls this number by the name of a message of another login method.
        point = {common.MSG_USERAUTH_INFO_RESPONSE: "userauth-info-response"}.get(
            number, common.MSG_NAMES.get(number, str(number)))
        if point == "userauth-request":
            copy = Message(message.asbytes())
            point = "userauth " + [copy.get_text() for _ in range(3)][2]
        self._reach(point)

    def before_reading(self):
        if self._gave_up:
            raise _GaveUp
        # The answer to the request has been sent at this point.
        for command in self._starting:
            self.server.run(command)
        self._starting = []

    # The library calls the functions below for decisions.

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
    """The library's server side, which reports each message to its Connection."""

    def __init__(self, connection):
        super().__init__(connection.socket)
        self._connection = connection
        self.local_version = connection.script.version
        self.packetizer.read_message = functools.partial(self._read, self.packetizer.read_message)
        self.add_server_key(connection.server.key)
        # Bypasses the library's checks: unknown names are accepted here.
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
    """The run is stopped inside this block, so that afterwards it finds everything that was sent meanwhile at once."""

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

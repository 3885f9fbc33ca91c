"""
What the tests of the example daemons share: daemons as processes, raw HTTP connections, and curl.

A test script is called with the paths of apstatd, apctl, ubusd and ubus, and perhaps names of tests.
"""

import ctypes
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = {}  # name to path, from the command line
EMULATOR = os.environ.get("APBASE_EMULATOR")  # what the programs run with if they are another machine's
PATIENCE_S = 60  # far more than anything takes here; reaching it fails a test
NO_BUS = "/nonexistent/bus"  # of daemons that a test wants to be left alone

CURL = ("curl", "--silent", "--show-error", "--noproxy", "*", "--max-time", str(PATIENCE_S))


def main(script_documentation):
    names = ("apstatd", "apctl", "ubusd", "ubus")
    if len(sys.argv) <= len(names):
        sys.exit(script_documentation)
    PROGRAMS.update((name, os.path.abspath(sys.argv.pop(1))) for name in names)
    unittest.main(module="__main__", verbosity=2)


def skip_if_emulated(reason):
    """Decorates tests of what the emulator cannot do, although the machine it stands for can."""
    return unittest.skipIf(EMULATOR, reason)


def libc_check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), "in a call of libc")


def die_with_the_test():
    libc_check(ctypes.CDLL(None).prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG


def wait_until(condition, what):
    """Polls until `condition()` is true, or true enough, and returns that."""
    deadline = time.monotonic() + PATIENCE_S
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain " + (what() if callable(what) else f"until {what}"))
        time.sleep(0.01)
    return result


def run_to_its_end(name, *options, **popen):
    """Starts a daemon where it is expected to end by itself."""
    return subprocess.run(
        [PROGRAMS[name], "--bus", NO_BUS, *options],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=PATIENCE_S,
        check=False,
        **popen,
    )


class Daemon:
    """A running daemon. Its standard output is a terminal, so its log goes there and to standard error."""

    def __init__(self, name, *options, bus=NO_BUS, prepare=None):
        def prepare_process():
            die_with_the_test()
            if prepare:
                prepare()

        self.name = name
        self.stderr = tempfile.TemporaryFile()
        terminal, inner = os.openpty()
        self.process = subprocess.Popen(
            [PROGRAMS[name], "--bus", bus, *(options or ("--port", "0"))],
            stdin=subprocess.DEVNULL,
            stdout=inner,
            stderr=self.stderr,
            preexec_fn=prepare_process,
        )
        os.close(inner)
        self.terminal = terminal
        self.started = time.monotonic()
        self.ready_line = self._read_line()
        found = re.fullmatch(name + r": listening on http://([0-9.]+):([0-9]+)/", self.ready_line)
        if not found:
            self.process.kill()
            raise AssertionError(f"not the line of a start: {self.ready_line!r}; {self.read_stderr()!r}")
        self.address = (found[1], int(found[2]))
        self.url = f"http://{found[1]}:{found[2]}"
        self._status_conn = None

    def _read_line(self):
        line = b""
        while not line.endswith(b"\n"):
            if not select.select([self.terminal], [], [], PATIENCE_S)[0]:
                break
            try:
                byte = os.read(self.terminal, 1)
            except OSError:  # the daemon has ended
                break
            if not byte:
                break
            line += byte
        return line.decode().strip()

    def read_stderr(self):
        self.stderr.seek(0)
        return self.stderr.read().decode(errors="replace")

    def connect(self):
        return Client(self.address)

    def ask_json(self, path):
        """What there is at `path`, asked for on one connection that stays open."""
        if self._status_conn is None:
            self._status_conn = self.connect()
        return json.loads(self._status_conn.get(path).body)

    def status(self):
        return self.ask_json("/status")

    def wait_for(self, path="/status", **wanted):
        """Asks for the JSON at `path` until it has these values."""

        def matches():
            found = self.ask_json(path)
            return found if wanted.items() <= found.items() else None

        return wait_until(matches, lambda: f"for {wanted} at {path}: {self.ask_json(path)}")

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Its exit status; everything is checked by the caller."""
        try:
            return self.process.wait(PATIENCE_S)
        finally:
            self.release()

    def release(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self._status_conn:
            self._status_conn.close()
            self._status_conn = None
        if self.terminal >= 0:
            os.close(self.terminal)
            self.terminal = -1


class Answer:
    def __init__(self, head, body):
        self.bytes = head + body
        self.body = body
        lines = head.decode("latin-1").split("\r\n")
        self.status_line = lines[0]
        self.code = int(lines[0].split(" ")[1])
        self.headers = dict(line.split(": ", 1) for line in lines[1:] if line)


class Client:
    """One raw connection, which reads answers by their Content-Length."""

    def __init__(self, address):
        self.socket = socket.create_connection(address, PATIENCE_S)
        self.socket.settimeout(PATIENCE_S)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.received = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def reset(self):
        """Closes with a reset instead of the usual end."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def send(self, request):
        self.socket.sendall(request)

    def _receive(self):
        data = self.socket.recv(65536)
        if not data:
            raise EOFError(f"the connection ended within an answer: {self.received!r}")
        self.received += data

    def read(self, has_body=True):
        while b"\r\n\r\n" not in self.received:
            self._receive()
        head_length = self.received.index(b"\r\n\r\n") + 4
        head = self.received[:head_length]
        length = head_length
        if has_body:
            length += int(re.search(rb"(?i)\r\nContent-Length: ([0-9]+)\r\n", head)[1])
        while len(self.received) < length:
            self._receive()
        answer = Answer(head, self.received[head_length:length])
        self.received = self.received[length:]
        return answer

    def ask(self, request):
        self.send(request)
        return self.read()

    def get(self, target):
        return self.ask(b"GET " + target.encode("latin-1") + b" HTTP/1.1\r\n\r\n")

    def read_to_the_end(self):
        """What comes until the daemon closes the connection."""
        rest = self.received
        self.received = b""
        try:
            while data := self.socket.recv(65536):
                rest += data
        except ConnectionResetError:
            pass
        return rest


def curl(*arguments):
    """Runs curl and returns what it has received; a failure of curl itself fails the test."""
    result = subprocess.run(
        [*CURL, *arguments],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        check=False,
    )
    if result.returncode != 0:
        raise AssertionError(f"curl {arguments}: status {result.returncode}: {result.stderr.decode()}")
    return result.stdout


def look_over(test, daemon):
    """
    Stops a daemon if it runs, and checks that it ends, or has ended, well: exit status 0 and nothing on
    standard error. Once is enough.
    """
    if daemon.stderr.closed:
        return
    if daemon.process.returncode is None and daemon.process.poll() is None:
        daemon.stop()
    status = daemon.wait()
    errors = daemon.read_stderr()
    daemon.stderr.close()
    if errors:
        test.fail(f"standard error of {daemon.name}:\n" + errors)
    test.assertEqual(status, 0)

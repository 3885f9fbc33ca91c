"""Starts the compared servers, and talks to them.

Every server is tuned until its whole answer, head and body, has the same number of bytes on the wire, and
is asked with the very same request.
"""

import os
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import time

ANSWER_BYTES = 200
DESCRIPTORS = 20000
START_TIMEOUT_S = 60  # also under valgrind
HERE = os.path.dirname(os.path.abspath(__file__))


class Failure(Exception):
    """Ends the measurement with one line that says why."""


def raise_descriptor_limit():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = max(hard, DESCRIPTORS) if os.geteuid() == 0 else hard
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(wanted, DESCRIPTORS), wanted))
    return min(wanted, DESCRIPTORS)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def request_text(path, close=False):
    """The request as wrk sends it."""
    extra = "Connection: close\r\n" if close else ""
    return f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n{extra}\r\n".encode()


def children_of(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as children:
        return [int(word) for word in children.read().split()]


class Client:
    """One connection: sends requests one after the other and reads whole answers."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=START_TIMEOUT_S)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def ask(self, request):
        self.socket.sendall(request)
        answer = b""
        while True:
            head, blank, body = answer.partition(b"\r\n\r\n")
            if blank:
                length = re.search(rb"(?i)\r\nContent-Length: *(\d+)", head)
                if not length:
                    raise Failure("an answer has no Content-Length")
                if len(body) >= int(length[1]):
                    return answer
            piece = self.socket.recv(4096)
            if not piece:
                raise Failure("a server closed its connection in the middle of an answer")
            answer += piece

    def ask_again(self, request, answer_bytes, count):
        """Sends `request` `count` times, each after the last answer. Answers have a known length and are not parsed."""
        for _ in range(count):
            self.socket.sendall(request)
            left = answer_bytes
            while left > 0:
                piece = self.socket.recv(left)
                if not piece:
                    raise Failure("a server closed its connection before its answer")
                left -= len(piece)

    def close(self):
        self.socket.close()


class Server:
    """A running server. `kind` is one of KINDS; `wrapper` is a command it runs under."""

    def __init__(self, kind, binaries, scratch, *, path, pad=0, close=False, answer_file=None, cpu=None, wrapper=()):
        self.kind = kind
        self.port = free_port()
        self.path = path
        self._traced = bool(wrapper) and wrapper[0] == "strace"
        command = COMMANDS[kind](self, binaries, scratch, pad, close, answer_file)
        if cpu is not None:
            command = ["taskset", "-c", str(cpu), *command]
        log_name = os.path.join(scratch, f"{kind}.log")
        with open(log_name, "wb") as log:
            self.process = subprocess.Popen([*wrapper, *command], stdout=log, stderr=log)
        try:
            self._wait_for_port(log_name)
        except BaseException:
            self.stop()
            raise

    def _wait_for_port(self, log_name):
        deadline = time.monotonic() + START_TIMEOUT_S
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                with open(log_name, errors="replace") as log:
                    last = (log.read().strip().splitlines() or ["no message"])[-1]
                raise Failure(f"{self.kind} ended at once: {last}")
            try:
                Client(self.port).close()
                return
            except ConnectionRefusedError:
                time.sleep(0.02)
        raise Failure(f"{self.kind} does not listen after {START_TIMEOUT_S} seconds")

    def url(self):
        return f"http://127.0.0.1:{self.port}{self.path}"

    def request(self, close=False):
        return request_text(self.path, close)

    def answer(self, close=False):
        client = Client(self.port)
        answer = client.ask(self.request(close))
        client.close()
        return answer

    def cpu_seconds(self):
        """User and system time, as /proc/<pid>/stat has it, without the coarseness of its ticks."""
        process_clock = (~self.worker() << 3) | 2  # clock_getcpuclockid(3), which Python lacks
        return time.clock_gettime(process_clock)

    def resident_bytes(self):
        with open(f"/proc/{self.worker()}/status") as status:
            return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1]) * 1024

    def main_process(self):
        """The server's first process. strace is its parent; the other wrappers become the server."""
        if not self._traced:
            return self.process.pid
        found = children_of(self.process.pid)
        return found[0] if found else None

    def worker(self):
        """The process that serves: for nginx a child of the first process."""
        pid = self.main_process()
        return children_of(pid)[0] if self.kind == "nginx" else pid

    def stop(self):
        """Ends the server, so that its wrapper can write its report."""
        if self.process.poll() is None:
            pid = self.main_process()
            if pid is not None:
                os.kill(pid, signal.SIGTERM)
        try:
            self.process.wait(timeout=START_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def bare_command(server, binaries, _scratch, _pad, close, answer_file):
    return [os.path.join(binaries, "bench/http_bare"), str(server.port), answer_file, *(["close"] if close else [])]


def apbase_command(server, binaries, _scratch, pad, _close, _answer_file):
    return [os.path.join(binaries, "bench/http_apbase"), str(server.port), str(pad)]


def apstatd_command(server, binaries, _scratch, _pad, _close, _answer_file):
    return [apstatd_program(binaries), "--address", "127.0.0.1", "--port", str(server.port)]


def evhttp_command(server, binaries, _scratch, pad, _close, _answer_file):
    return [os.path.join(binaries, "bench/http_evhttp"), str(server.port), str(pad)]


def nginx_command(server, _binaries, scratch, pad, _close, _answer_file):
    prefix = os.path.join(scratch, f"nginx-{server.port}")
    os.makedirs(prefix)
    with open(os.path.join(HERE, "nginx.conf.in")) as template:
        text = template.read()
    values = {
        "DESCRIPTORS": str(DESCRIPTORS),
        "CONNECTIONS": str(DESCRIPTORS - 100),
        "SCRATCH": prefix,
        "USER": "user root;" if os.geteuid() == 0 else "",
        "PORT": str(server.port),
        "BODY": "x" * pad,
    }
    for name, value in values.items():
        text = text.replace(f"@{name}@", value)
    config = os.path.join(prefix, "nginx.conf")
    with open(config, "w") as file:
        file.write(text)
    return [nginx_program(), "-p", prefix, "-e", os.path.join(prefix, "error.log"), "-c", config]


COMMANDS = {
    "bare": bare_command,
    "apbase": apbase_command,
    "apstatd": apstatd_command,
    "nginx": nginx_command,
    "evhttp": evhttp_command,
}
TITLES = {
    "bare": "bare epoll server",
    "apbase": "apbase, plain handler",
    "apstatd": "apbase, apstatd",
    "nginx": "nginx",
    "evhttp": "libevent evhttp",
}


def apstatd_program(binaries):
    return os.path.join(binaries, "examples/apstatd/apstatd")


def nginx_program():
    return shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin")


class Line:
    """Servers of several kinds that give answers of one length to one request.

    The daemon's answer repeats a parameter of the request, so its length is set by the request, which all
    the others are then asked with, too. The bare server writes the bytes that the first server answered.
    """

    def __init__(self, kinds, binaries, scratch, *, close=False, cpu=None, wrapper=()):
        self.close = close
        self.kinds = list(kinds)
        self._common = {"close": close, "cpu": cpu, "wrapper": wrapper}
        self._where = (binaries, scratch)
        self.path = "/param?x=" + "x" * 16
        if os.path.exists(apstatd_program(binaries)):
            self.path = self._tuned_path()
        self._answer_file = os.path.join(scratch, "answer-close" if close else "answer")
        self._pads = {}
        for kind in ["apbase", *kinds]:
            if kind in ("apbase", "nginx", "evhttp"):
                self._pads[kind] = self._tuned_pad(kind)

    def _quietly(self, kind, **options):
        return Server(kind, *self._where, close=self.close, **options)

    def _tuned_path(self):
        """The answer contains the padding once, and its length in Content-Length."""
        pad = 16
        for _ in range(4):
            with self._quietly("apstatd", path="/param?x=" + "x" * pad) as server:
                missing = ANSWER_BYTES - len(server.answer(self.close))
                if missing == 0:
                    return server.path
            pad += missing
        raise Failure(f"apstatd: GET /param cannot be made to answer {ANSWER_BYTES} bytes")

    def _tuned_pad(self, kind):
        pad = 50
        for _ in range(4):
            with self._quietly(kind, path=self.path, pad=pad) as server:
                answer = server.answer(self.close)
                if len(answer) == ANSWER_BYTES:
                    if kind == "apbase":
                        with open(self._answer_file, "wb") as file:
                            file.write(answer)
                    return pad
            pad += ANSWER_BYTES - len(answer)
        raise Failure(f"{kind} cannot be made to answer {ANSWER_BYTES} bytes")

    def start(self, kind, **options):
        options = {**self._common, **options}
        server = Server(
            kind, *self._where, path=self.path, pad=self._pads.get(kind, 0), answer_file=self._answer_file, **options
        )
        length = len(server.answer(self.close))
        if length != ANSWER_BYTES:
            server.stop()
            raise Failure(f"{kind} answers {length} bytes instead of {ANSWER_BYTES}")
        return server

    def start_all(self):
        servers = {}
        try:
            for kind in self.kinds:
                servers[kind] = self.start(kind)
        except BaseException:
            stop_all(servers)
            raise
        return servers


def stop_all(servers):
    for server in servers.values():
        server.stop()


class IdleConnections:
    """Connections that have each made one request and then stay open."""

    def __init__(self, server, count):
        self.server = server
        self.clients = []
        for _ in range(count):
            client = Client(server.port)
            client.ask_again(server.request(), ANSWER_BYTES, 1)
            self.clients.append(client)

    def still_open(self):
        poller = select.poll()
        for client in self.clients:
            poller.register(client.socket, select.POLLIN)
        return len(self.clients) - len(poller.poll(0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for client in self.clients:
            client.close()

"""Starts the message bus and the processes that talk over it, reads their output line by line, and ends them."""

import os
import select
import shutil
import signal
import socket
import subprocess
import time

from servers import START_TIMEOUT_S, Failure, Server

# Each adds one thing to the one before; bench/bus_call.c has them.
FORMS = {
    "plain": "libubus alone, ready-made text",
    "bare": "and jansson, by hand",
    "loop": "on apbase's loop",
    "apbase": "by means of lib/ubus",
}


class Process:
    """A child whose output is read line by line. Its errors go to the file `errors`."""

    cpu_seconds = Server.cpu_seconds
    resident_bytes = Server.resident_bytes

    def __init__(self, command, errors, *, cpu=None, wrapper=()):
        self.kind = os.path.basename(command[0])
        self.errors = errors
        pinned = ["taskset", "-c", str(cpu)] if cpu is not None else []
        with open(errors, "ab") as log:
            self.process = subprocess.Popen([*pinned, *wrapper, *command], stdout=subprocess.PIPE, stderr=log)
        self._unread = b""

    def worker(self):
        """The process itself: taskset and the wrapper exec the program."""
        return self.process.pid

    def line(self, timeout=START_TIMEOUT_S):
        """The next line of output, without its line feed."""
        deadline = time.monotonic() + timeout
        while b"\n" not in self._unread:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))
            piece = os.read(self.process.stdout.fileno(), 4096) if ready else b""
            if not piece:
                raise Failure(f"{self.kind} {'has ended' if ready else 'says nothing'}: {self.last_error()}")
            self._unread += piece
        line, _, self._unread = self._unread.partition(b"\n")
        return line.decode()

    def error_lines(self):
        with open(self.errors, errors="replace") as log:
            return log.read().splitlines()

    def last_error(self):
        return (self.error_lines() or ["no message"])[-1]

    def stop(self, number=signal.SIGTERM):
        """Ends the process unless it has already ended."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            self.process.wait(timeout=START_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def daemon_program(binaries):
    """The bus daemon of the build, or else the system's."""
    built = os.path.join(binaries, "standin/ubusd")
    program = built if os.path.exists(built) else shutil.which("ubusd", path=os.environ.get("PATH", "") + ":/sbin")
    if not program:
        raise Failure("there is no bus daemon, ubusd")
    return program


class Bus:
    """A bus daemon on a socket of its own; it can be restarted. `name` must be unique in `scratch`."""

    def __init__(self, bench, name, *, cpu=None):
        self._bench = bench
        self._cpu = cpu
        self._errors = os.path.join(bench.scratch, f"{name}.log")
        self.socket = os.path.join(bench.scratch, f"{name}.sock")
        self.start()

    def start(self):
        command = [daemon_program(self._bench.binaries), "-s", self.socket]
        self.daemon = Process(command, self._errors, cpu=self._cpu)
        deadline = time.monotonic() + START_TIMEOUT_S
        while not self._accepts():
            if self.daemon.process.poll() is not None:
                raise Failure(f"the bus daemon ended at once: {self.daemon.last_error()}")
            if time.monotonic() > deadline:
                raise Failure(f"the bus daemon does not listen after {START_TIMEOUT_S} seconds")
            time.sleep(0.005)

    def _accepts(self):
        with socket.socket(socket.AF_UNIX) as probe:
            try:
                probe.connect(self.socket)
            except (FileNotFoundError, ConnectionRefusedError):
                return False
            return bool(probe.recv(1))

    def peer(self, program, *words, name=None, wrapper=()):
        """One of our programs, connected to this bus."""
        command = [os.path.join(self._bench.binaries, "bench", program), self.socket, *(str(word) for word in words)]
        errors = os.path.join(self._bench.scratch, f"{name or program}.log")
        return Process(command, errors, cpu=self._cpu, wrapper=wrapper)

    def stop(self, number=signal.SIGTERM):
        self.daemon.stop(number)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


class CallPair:
    """A bus with a called process on it, in one of FORMS, and callers of the same form one at a time."""

    def __init__(self, bench, form, *, cpu=None, wrapper=()):
        self.form = form
        self.bus = Bus(bench, f"bus-{form}", cpu=cpu)
        try:
            self.called = self.bus.peer("bus_call", form, "serve", name=f"bus-{form}-called", wrapper=wrapper)
        except BaseException:
            self.bus.stop()
            raise
        self.called.line()

    def calls(self, kind, count, *, wrapper=()):
        """Makes the calls. Returns the seconds that passed, and the seconds of CPU time of all three processes."""
        before = self.bus.daemon.cpu_seconds() + self.called.cpu_seconds()
        with self.bus.peer("bus_call", self.form, kind, count, name="bus-caller", wrapper=wrapper) as caller:
            seconds, cpu_seconds = (int(word) / 1e9 for word in caller.line(timeout=600).split())
            cpu_seconds += self.bus.daemon.cpu_seconds() + self.called.cpu_seconds() - before
            caller.process.wait()
            if caller.process.returncode != 0 or [line for line in caller.error_lines() if not line.startswith("==")]:
                raise Failure(f"{self.form}: the caller failed: {caller.last_error()}")
        return seconds, cpu_seconds

    def stop(self):
        self.called.stop()
        self.bus.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def soak(bench, wanted, every, progress):
    """Makes `wanted` calls over a bus that is restarted after each `every` calls. Yields the resident bytes of the
    caller and the called, at the start and after each restart."""
    errors = {"ubus-ureq-async: error: 7", "ubus_retry_req bench.soak.echo: can't lookup object"}
    with Bus(bench, "soak") as bus, bus.peer("bus_soak", "serve", name="soak-called") as called:
        called.line()
        with bus.peer("bus_soak", "call", wanted, every, name="soak-caller") as caller:
            while True:
                word, count = caller.line().split()
                if word == "back":
                    yield caller.resident_bytes(), called.resident_bytes()
                elif word == "at":
                    progress(int(count))
                    # Both ways to end, and a bus that takes its time.
                    restarts = int(count) // every
                    bus.stop(signal.SIGKILL if restarts % 2 else signal.SIGTERM)
                    time.sleep(0.2 if restarts % 3 == 0 else 0)
                    bus.start()
                else:
                    break
            unexpected = [line for line in caller.error_lines() + called.error_lines() if line not in errors]
            if unexpected or caller.process.wait() != 0:
                raise Failure(f"soak: {(unexpected or ['the caller failed'])[0]}")

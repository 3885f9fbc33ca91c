"""
Helpers of the tests of apstatd: the daemon as a process, a board that is made of files, and a network of the test's own.

Every test starts a daemon of its own on a port that the kernel chooses, waits for the line that says it is
ready, and in the end stops it with a signal: the exit status has to be 0 and standard error empty, which in a
sanitized build means that nothing leaked. Run it as root: some tests use a network namespace of their own.
"""

import ctypes
import fcntl
import os
import socket
import struct
import subprocess
import tempfile
import unittest

import daemons
from daemons import libc_check, wait_until

COMMON = b"Server: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"


class Daemon(daemons.Daemon):
    def __init__(self, *options, **others):
        super().__init__("apstatd", *options, **others)


def run_to_its_end(*options, **popen):
    return daemons.run_to_its_end("apstatd", *options, **popen)


def enter_private_network():
    """Moves this process to a network namespace of its own, which has only a loopback device."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc_check(libc.unshare(0x40000000))  # CLONE_NEWNET
    with socket.socket() as any_socket:
        up_and_running = struct.pack("16sh", b"lo", 0x41)
        fcntl.ioctl(any_socket, 0x8914, up_and_running.ljust(40, b"\0"))  # SIOCSIFFLAGS


def cover_in_private(path, replacement):
    """Moves this process to a mount namespace of its own, where `path` is `replacement`."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc_check(libc.unshare(0x20000))  # CLONE_NEWNS
    libc_check(libc.mount(b"none", b"/", None, ctypes.c_ulong(0x44000), None))  # MS_REC | MS_PRIVATE
    libc_check(libc.mount(replacement.encode(), path.encode(), None, ctypes.c_ulong(0x1000), None))  # MS_BIND


def processes(wanted):
    """The processes, without those that have ended, that `wanted(parent, group)` holds for."""
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/stat", encoding="latin-1") as file:
                state, parent, group = file.read().rpartition(")")[2].split()[:3]
        except (FileNotFoundError, ProcessLookupError):
            continue
        if state not in "ZX" and wanted(int(parent), int(group)):
            found.append(int(name))
    return found


def children_of(pid):
    return processes(lambda parent, group: parent == pid)


def started_children_of(pid):
    """Once each is what it was started to be, and no longer a copy of its parent."""

    def program_of(process):
        return os.readlink(f"/proc/{process}/exe")

    wait_until(lambda: program_of(pid) not in map(program_of, children_of(pid)), "each child is another program")
    return children_of(pid)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="latin-1") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Hardware:
    """
    What a board's kernel shows below /sys/class, as files in a folder: its LEDs, and the addresses of its
    radios.
    """

    WHITE, BLUE = "ubnt:white:dome", "ubnt:blue:dome"

    def __init__(self, leds=(WHITE, BLUE), radios=()):
        self.folder = tempfile.TemporaryDirectory()
        for led in leds:
            os.makedirs(os.path.join(self.folder.name, "leds", led))
        for phy, text in dict(radios).items():
            self.set_radio(phy, text)

    def set_radio(self, phy, text):
        folder = os.path.join(self.folder.name, "ieee80211", phy)
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "addresses"), "w", encoding="latin-1") as file:
            file.write(text)

    def led(self, led):
        """Its attributes, as they were last written."""
        found = {}
        folder = os.path.join(self.folder.name, "leds", led)
        for name in os.listdir(folder):
            with open(os.path.join(folder, name), encoding="latin-1") as file:
                found[name] = file.read()
        return found

    def start(self, *options):
        return Daemon(*options, prepare=lambda: cover_in_private("/sys/class", self.folder.name))


def add_interface(name, mac):
    """To the private network of this process."""
    subprocess.run(
        ["ip", "link", "add", name, "address", mac, "type", "veth", "peer", "name", "other"], check=True
    )


class DaemonTest(unittest.TestCase):
    """A test with a daemon, which is stopped and looked over in the end."""

    def setUp(self):
        self.daemon = Daemon()
        self.addCleanup(self.look_over, self.daemon)

    def look_over(self, daemon):
        daemons.look_over(self, daemon)

    def connect(self):
        client = self.daemon.connect()
        self.addCleanup(client.close)
        return client

    def get(self, target):
        with self.daemon.connect() as client:
            return client.get(target)


class HardwareTest(DaemonTest):
    """A test of a daemon on a board, once `start` has been called."""

    def setUp(self):
        """The daemon is not started yet."""

    def start(self, **parts):
        self.hardware = Hardware(**parts)
        self.addCleanup(self.hardware.folder.cleanup)
        self.daemon = self.hardware.start()
        self.addCleanup(self.look_over, self.daemon)

    def post_led(self, query):
        with self.daemon.connect() as client:
            return client.ask(b"POST /led%s HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % query.encode())

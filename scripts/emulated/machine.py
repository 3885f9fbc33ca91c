"""The emulated access point: the emulator's command line, and a boot whose console a script drives."""

import ctypes
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import time

EMULATOR = "qemu-system-mipsel"
PATIENCE_S = 900  # many times what anything takes, on a machine that is busy with other things
BLOCK_BYTES = 65536  # what the flash memory erases at once
EEPROM_BYTES = BLOCK_BYTES
ROOTFS_DATA_BYTES = 128 * BLOCK_BYTES
PORT = 8080  # of apstatd, on the board
LAST_LINES = 20


class Fault(Exception):
    """One line that says what is wrong. Lines that show it may follow."""


def look_for_parts(top):
    """Raises a Fault that names a missing part of the machine and says how to get it."""
    if not shutil.which(EMULATOR):
        raise Fault(f"there is no {EMULATOR}: install Debian's package qemu-system-mips")
    for name in ("kernel", "first.cpio.gz", "root.squashfs"):
        if not os.path.exists(f"{top}/{name}"):
            raise Fault(f"there is no {top}/{name}: run scripts/board, which makes it")


def make_flash(folder):
    """Makes images of flash memory with random content, as on a device that ran other firmware."""
    for name, length in (("EEPROM", EEPROM_BYTES), ("rootfs_data", ROOTFS_DATA_BYTES)):
        with open(f"{folder}/{name}", "wb") as image:
            image.write(os.urandom(length))


def image_option(path):
    return "file=" + path.replace(",", ",,")


def has_tests(top):
    """Whether the board has test programs. It has them if its message bus is the real one."""
    return os.path.exists(f"{top}/tests.squashfs")


def command_line(top, folder, with_rootfs_data=True):
    """The emulator's command line without its console. Flash images are in `folder`, the root's in `top`."""
    disks = [("EEPROM", f"{image_option(f'{folder}/EEPROM')},cache=unsafe")]
    disks += [("rootfs", f"{image_option(f'{top}/root.squashfs')},snapshot=on")]  # so it is never written to
    disks += [("rootfs_data", f"{image_option(f'{folder}/rootfs_data')},cache=unsafe")] if with_rootfs_data else []
    disks += [("tests", f"{image_option(f'{top}/tests.squashfs')},snapshot=on")] if has_tests(top) else []
    words = [EMULATOR, "-M", "malta", "-cpu", "24Kc", "-m", "128", "-no-reboot"]
    words += ["-vga", "none", "-display", "none"]
    words += ["-kernel", f"{top}/kernel", "-initrd", f"{top}/first.cpio.gz"]
    words += ["-append", "console=ttyS0,115200 loglevel=3 panic=-1 trace_event=sched:sched_process_exec"]
    for name, image in disks:
        words += ["-drive", f"if=none,id={name},format=raw,{image}"]
        words += ["-device", f"virtio-blk-pci,drive={name},serial={name}"]
    words += ["-netdev", f"user,id=net,hostfwd=tcp:127.0.0.1:0-:{PORT}"]  # to a port that is free
    # In the slot of the board's own network card: besides that, four slots have interrupts.
    words += ["-device", "virtio-net-pci,netdev=net,mac=02:00:5e:00:00:10,romfile=,addr=0b"]
    return words


def die_with_this_script():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Emulator:
    """One boot, from power on to power off."""

    def __init__(self, words, **popen):
        self.monitor, monitor = socket.socketpair()
        words = [*words, "-chardev", f"socket,id=monitor,fd={monitor.fileno()}", "-mon", "chardev=monitor"]
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            words, pass_fds=(monitor.fileno(),), preexec_fn=die_with_this_script, **popen
        )
        monitor.close()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.cut_power()

    def cut_power(self):
        """Kills the emulator. Data that the board has not yet written to flash memory is lost."""
        self.process.kill()
        self.process.wait()
        self.monitor.close()

    def url(self, path=""):
        """The URL of `path` on the board's apstatd."""
        forward = rf"TCP\[HOST_FORWARD\] +\d+ +127\.0\.0\.1 +(\d+) +\S+ +{PORT}\b"
        said = ""
        self.monitor.settimeout(PATIENCE_S)
        try:
            self.monitor.sendall(b"info usernet\n")
            while not (match := re.search(forward, said)):
                if not (data := self.monitor.recv(65536)):
                    raise Fault("the emulator has ended by itself")
                said += data.decode(errors="replace")
        except OSError as error:
            raise Fault(f"the emulator's monitor does not answer: {error}") from None
        return f"http://127.0.0.1:{match[1]}/{path}"


class Machine(Emulator):
    """One boot whose console this script drives. All console output also goes to the file `log`."""

    def __init__(self, words, log):
        self.said = ""  # by the console
        self.taken = 0  # how much of it was waited for
        self.log = open(log, "wb")
        super().__init__(
            [*words, "-serial", "stdio"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            bufsize=0,
        )

    def cut_power(self):
        super().cut_power()
        for file in (self.process.stdin, self.process.stdout, self.log):
            file.close()

    def fault(self, what):
        lines = [line for line in self.said.splitlines() if line.strip()][-LAST_LINES:]
        return Fault("\n      ".join([f"{what}\n    The last lines of its console:", *lines]))

    def read(self, deadline, what):
        """Waits for console output and appends it to `said`. Returns false if the machine has ended."""
        ready, _, _ = select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))
        if time.monotonic() >= deadline or not ready:
            raise self.fault(f"it did not {what} within {PATIENCE_S} s, and was ended")
        data = os.read(self.process.stdout.fileno(), 65536)
        self.log.write(data)
        self.log.flush()
        self.said += data.decode(errors="replace").replace("\r", "")
        return bool(data)

    def wait_for(self, pattern, what):
        """Waits until console output after the last match matches `pattern`."""
        deadline = time.monotonic() + PATIENCE_S
        while not (match := re.compile(pattern).search(self.said, self.taken)):
            if not self.read(deadline, what):
                raise self.fault(f"it has ended by itself, and did not {what}")
        self.taken = match.end()
        return match

    def type(self, line):
        try:
            self.process.stdin.write(line.encode() + b"\n")
        except BrokenPipeError:
            pass  # it has ended, which is told by whoever waits for an answer

    def boot(self):
        """Waits for the shell, then starts a second one in it that neither echoes nor prompts."""
        self.wait_for("~ # ", "come to a shell's prompt")
        self.type("stty -echo; { echo [ready $((1))]; sh; } 2>&1 | cat")
        self.wait_for(r"\[ready 1\]\n", "start a shell")

    def run(self, command):
        """Runs a command. Returns its output and its exit status."""
        self.type(f'{command}\necho "[status $?]"')
        match = self.wait_for(r"(?s)(.*?)\[status (\d+)\]\n", f"come to the end of '{command}'")
        return match[1], int(match[2])

    def switch_off(self):
        """Switches the board off. It writes its data to flash memory first."""
        self.type("poweroff -f")
        deadline = time.monotonic() + PATIENCE_S
        while self.read(deadline, "switch itself off"):
            pass
        try:
            status = self.process.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            raise self.fault("it has switched itself off, but the emulator does not end") from None
        if status != 0:
            raise self.fault(f"it has not switched itself off: the emulator has ended with status {status}")


def end(*_):
    sys.exit("scripts/board: terminated")


def run_script(main):
    signal.signal(signal.SIGTERM, end)
    signal.signal(signal.SIGHUP, end)
    try:
        main()
    except Fault as fault:
        sys.exit(f"scripts/board: {fault}")
    except KeyboardInterrupt:
        sys.exit("scripts/board: interrupted")

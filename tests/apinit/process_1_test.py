"""
apinit as process 1, and what it refuses as another.

Usage: process_1_test.py APINIT [TEST...]
"""

import os
import signal
import subprocess

import machine
from daemons import skip_if_emulated, wait_until
from machine import (
    AS_PROCESS_1,
    ATH10K,
    MTD_EEPROM,
    MTD_HEAD,
    MTD_ROOTFS_DATA,
    SPAWN_TELLS_NOTHING,
    WAIT_FOR_EVER,
    WITHOUT_LEAK_CHECK,
    WITH_MOUNTS,
    MachineTest,
    children_of,
    read_file,
    write_file,
)


class WithoutLoop(MachineTest):
    """There is no descriptor left for a signalfd."""

    LIMIT = "ulimit -Sn 4"

    def test_without_an_event_loop_nothing_is_done(self):
        self.machine.have_files_in_proc()
        self.machine.script = WITH_MOUNTS.replace("env -i", "limited env -i " + WITHOUT_LEAK_CHECK)
        self.machine.script = f"limited() {{ ({self.LIMIT}; \"$@\"); }}\n{self.machine.script}"
        before = self.machine.files()
        result = self.machine.run("echo", "started")
        message = "apinit: cannot set up the event loop: Too many open files\n"
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", message))
        self.assertEqual(self.machine.files(), before)
        before = read_file(self.machine.path("mounts_before"))
        self.assertEqual(read_file(self.machine.path("mounts_after")), before)


class Process1(MachineTest):
    def setUp(self):
        super().setUp()
        self.machine.script = AS_PROCESS_1
        self.process = None
        self.out = ""

    def start(self, *arguments):
        self.start_with_overlay("--no-overlay", *arguments)

    def start_with_overlay(self, *arguments):
        self.process = self.machine.start(*arguments, stderr=subprocess.STDOUT)
        self.addCleanup(self.process.__exit__, None, None, None)
        self.addCleanup(self.process.kill)
        os.set_blocking(self.process.stdout.fileno(), False)

    def read(self):
        try:
            return os.read(self.process.stdout.fileno(), 65536).decode()
        except BlockingIOError:
            return ""

    def until_said(self, text):
        def said():
            ended = self.process.poll() is not None
            self.out += self.read()
            return ended or text in self.out

        wait_until(said, lambda: f"for {text!r} in {self.out!r}")
        self.assertIn(text, self.out)

    def signal(self, number):
        """To process 1, which is the only child of unshare, from outside."""

        (process_1,) = wait_until(lambda: children_of(self.process.pid), "unshare has its child")
        os.kill(process_1, number)

    def test_process_1_reaps_orphans(self):
        # The orphan ends when somebody writes to its pipe; its process is gone once it has been reaped.
        script = """mkfifo /tmp/pipe; (cat /tmp/pipe >/dev/null & echo $! >/tmp/pid)
            pid=$(cat /tmp/pid); cat /proc/$pid/status; echo >/tmp/pipe
            while [ -d /proc/$pid ]; do sleep 0.02; done; echo reaped"""
        self.start("sh", "-c", script)
        self.until_said("\nreaped\n")
        self.assertIn("\nPPid:\t1\n", self.out)

    def test_process_1_goes_on_when_the_command_has_ended(self):
        # What the command leaves behind sees it go, and then process 1 reap another.
        behind = """trap "" TERM; while [ -d /proc/$1 ]; do sleep 0.02; done; cat /proc/1/comm
            (true & echo $! >/tmp/pid); pid=$(cat /tmp/pid)
            while [ -d /proc/$pid ]; do sleep 0.02; done; echo all reaped"""
        self.start("sh", "-c", 'sh -c "$0" sh $$ & exit 3', behind)
        self.until_said("\nall reaped\n")
        self.assertIn("apinit: sh has ended with status 3\n", self.out)
        self.assertIn("\napinit\n", self.out)
        self.assertIsNone(self.process.poll())

    def check_reaps(self):
        """An orphan that comes from outside, and ends when its pipe does."""
        (process_1,) = children_of(self.process.pid)
        reader, writer = os.pipe()
        enter = ["nsenter", f"--target={process_1}", "--pid", "--"]
        with open(reader, "rb"), open(writer, "wb"):
            subprocess.run([*enter, "sh", "-c", f"cat <&{reader} &"], pass_fds=[reader], check=True)
            wait_until(lambda: children_of(process_1), "process 1 has the orphan")
        wait_until(lambda: not children_of(process_1), "it is reaped")
        self.assertIsNone(self.process.poll())

    def test_process_1_goes_on_after_a_bad_command_line(self):
        self.start()
        self.until_said("--help ")
        self.check_reaps()

    def test_process_1_goes_on_after_a_bad_option(self):
        self.start("--nope", "true")
        self.until_said("apinit: bad option '--nope', see apinit --help\n")
        self.check_reaps()

    def test_process_1_starts_the_command_without_an_event_loop(self):
        self.machine.script = f"{WithoutLoop.LIMIT}\n{AS_PROCESS_1}"
        self.start("echo", "started")
        self.until_said("started\n")
        self.assertIn("apinit: cannot set up the event loop: Too many open files\n", self.out)
        self.assertIn(f"apinit: unable to export the {ATH10K}\napinit: starting echo\n", self.out)
        self.check_reaps()

    @skip_if_emulated(SPAWN_TELLS_NOTHING)
    def test_process_1_goes_on_without_an_event_loop_if_the_command_cannot_be_started(self):
        self.machine.script = f"{WithoutLoop.LIMIT}\n{AS_PROCESS_1}"
        self.start("nothing")
        self.until_said("apinit: cannot start nothing: No such file or directory\n")
        self.check_reaps()

    def test_process_1_starts_no_command_if_told_to_stop_before_it(self):
        self.machine.have_files_in_proc()
        write_file(self.machine.path("dev/mtd7"), "")
        self.start_with_overlay("echo", "started")
        (process_1,) = wait_until(lambda: children_of(self.process.pid), "unshare has its child")
        self.until_said("apinit: fallback to ramoverlay\n")
        (work,) = wait_until(lambda: children_of(process_1), "the start-up work runs")
        self.signal(signal.SIGTERM)
        self.until_said("apinit: stopping\n")
        os.kill(work, signal.SIGKILL)
        self.check_reaps()
        self.assertNotIn("starting", self.out + self.read())

    def test_process_1_loses_no_patience_with_a_command_that_has_ended(self):
        # What is left behind outlasts the patience, which began before.
        behind = 'trap "" TERM; sleep 6; echo outlasted'
        script = """trap 'sh -c "$0" & echo told; exit 7' TERM; echo up; sleep 1000 & wait"""
        self.start("sh", "-c", script, behind)
        self.until_said("\nup\n")
        self.signal(signal.SIGTERM)
        self.until_said("\noutlasted\n")
        self.assertIn("apinit: sh has ended with status 7\n", self.out)
        self.assertNotIn("killed", self.out)

    @skip_if_emulated(SPAWN_TELLS_NOTHING)
    def test_process_1_goes_on_when_the_command_cannot_be_started(self):
        self.start("nothing")
        self.until_said("apinit: cannot start nothing: No such file or directory\n")
        self.signal(signal.SIGTERM)
        self.until_said("apinit: stopping\n")
        self.assertIsNone(self.process.poll())

    def test_process_1_stops_what_it_runs_orphans_included_and_goes_on(self):
        orphan = f"""told=0; hear() {{ told=$((told + 1)); echo orphan told $told; }}
            trap hear TERM; echo ready >/tmp/ready; while :; do {WAIT_FOR_EVER}; done"""
        script = f"""mkfifo /tmp/ready; (sh -c "$0" &); cat /tmp/ready
            trap "echo command told; exit 7" TERM; echo up; {WAIT_FOR_EVER}"""
        self.start("sh", "-c", script, orphan)
        self.until_said("\nup\n")
        self.signal(signal.SIGTERM)
        self.until_said("orphan told 1\n")
        self.until_said("command told\n")
        self.until_said("apinit: sh has ended with status 7\n")
        self.signal(signal.SIGINT)
        self.until_said("orphan told 2\n")
        self.assertEqual(self.out.count("apinit: stopping\n"), 1)
        self.assertIsNone(self.process.poll())


class Order(MachineTest):
    """Whose work it does is process 1's, or that of whoever says so."""

    REFUSED = "apinit: nothing has been done, as {}: see --change-this-machine in apinit --help\n"

    def check_refused(self, reason, *words):
        before = self.machine.files()
        result = self.machine.run(*words)
        expected = (2, "", self.REFUSED.format(reason))
        self.assertEqual((result.returncode, result.stdout, result.stderr), expected)
        self.assertEqual(self.machine.files(), before)
        before, after = (read_file(self.machine.path(name)) for name in ("mounts_before", "mounts_after"))
        self.assertEqual(after, before)

    def test_another_process_than_1_does_nothing_whatever_its_options(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_EEPROM + MTD_ROOTFS_DATA)
        self.machine.script = WITH_MOUNTS.replace('set -- --change-this-machine "$@"', ":")
        for options in ([], ["--quiet"], ["--no-overlay"], ["--no-overlay", "--quiet", "--"]):
            self.check_refused("this is not process 1", *options, "touch", "/sys/started")

    def test_process_1_whose_proc_is_of_another_pid_namespace_does_nothing_and_ends(self):
        # So are its other mounts, as after `unshare --pid --fork` without --mount.
        self.machine.script = WITH_MOUNTS.replace('set -- --change-this-machine "$@"', ":")
        self.machine.script = self.machine.script.replace("env -i", "unshare --pid --fork env -i")
        self.check_refused("/proc is of another pid namespace", "touch", "/sys/started")

    def test_process_1_of_a_pid_namespace_with_its_own_proc_does_its_work(self):
        self.machine.have_files_in_proc()
        self.machine.script = AS_PROCESS_1
        with self.machine.start("sh", "-c", "grep ' / ' /proc/mounts; echo up; kill -KILL $$") as process:
            self.addCleanup(process.kill)
            said = []
            while not said or "has ended" not in said[-1]:
                said.append(process.stdout.readline())
                self.assertNotEqual(said[-1], "", said)
            process.kill()
        self.assertIn("overlayfs:/tmp/root / overlay", "".join(said))


if __name__ == "__main__":
    machine.main(__doc__)

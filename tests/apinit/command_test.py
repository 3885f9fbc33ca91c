"""
The command that apinit starts: its arguments, descriptors, signals and status, and how it is stopped.

Usage: command_test.py APINIT [TEST...]
"""

import os
import re

import machine
from daemons import skip_if_emulated
from machine import (
    AS_ANOTHER,
    MTD_EEPROM,
    MTD_HEAD,
    MTD_ROOTFS_DATA,
    SPAWN_TELLS_NOTHING,
    WAIT_FOR_EVER,
    WHITE,
    WITHOUT_LEAK_CHECK,
    WITH_MOUNTS,
    MachineTest,
    mounts,
    read_file,
    write_file,
)


class Command(MachineTest):
    def test_command_gets_its_arguments_as_they_are(self):
        words = ["", "a b", "--show", "-x", "$HOME", "*", "é"]
        script = 'for word; do echo "<$word>"; done'
        result = self.run_well("--no-overlay", "sh", "-c", script, "name", *words)
        self.assertIn("".join(f"<{word}>\n" for word in words), result.stdout)

    def test_command_gets_its_environment_and_nothing_more(self):
        self.machine.environment = "NAME=value EMPTY="
        told = self.told("env")
        self.assertEqual(sorted(told), sorted(["NAME=value", "EMPTY=", "PATH=/bin", "PWD=/", "SHLVL=1"]))

    def test_command_reads_standard_input(self):
        result = self.run_well("--no-overlay", "cat", input="from outside\n")
        self.assertIn("from outside\n", result.stdout)

    def test_command_starts_in_the_new_root(self):
        self.machine.have_files_in_proc()
        result = self.run_well("sh", "-c", "pwd -P; ls -d system/bin; echo >here && ls /here")
        self.assertIn("/\nsystem/bin\n/here\n", result.stdout)

    def test_command_starts_in_the_new_root_wherever_apinit_was_started(self):
        self.machine.have_files_in_proc()
        self.machine.script = """chroot root /bin/sh -c 'cd /lib; exec /sbin/apinit --change-this-machine "$@"' sh "$@"; exit $?"""
        result = self.run_well("sh", "-c", "ls -d system/bin; echo >here && ls /here")
        self.assertIn("system/bin\n/here\n", result.stdout)

    def test_command_has_the_standard_descriptors_only(self):
        self.assertEqual(self.told("ls -1 /proc/$$/fd; true"), ["0", "1", "2"])

    def check_descriptors(self, closed, expected, of_those):
        script = """seen=$(for fd in 0 1 2; do readlink /proc/$$/fd/$fd; done); echo "$seen" >/sys/seen"""
        self.machine.script = AS_ANOTHER.replace(";", closed + ";")
        result = self.machine.run("--no-overlay", "sh", "-c", script)
        self.assertEqual(result.returncode, 0, result)
        seen = read_file(self.machine.path("sys/seen")).split()
        self.assertEqual([seen[fd] for fd in of_those], [expected] * len(of_those))

    def test_standard_descriptors_that_are_closed_are_the_null_device(self):
        self.check_descriptors(" <&- >&- 2>&-", "/dev/null", (0, 1, 2))

    def test_one_standard_descriptor_that_is_closed_is_the_null_device(self):
        self.check_descriptors(" >&-", "/dev/null", (1,))

    def test_standard_descriptors_that_are_closed_are_nothing_else_without_the_null_device(self):
        os.unlink(self.machine.path("dev/null"))
        self.check_descriptors(" <&- >&- 2>&-", "/", (0, 1, 2))

    def test_command_has_no_blocked_or_ignored_signals(self):
        status = self.run_well("--no-overlay", "cat", "/proc/self/status").stdout
        signals = dict(re.findall(r"^(Sig\w+):\t(\w+)$", status, re.MULTILINE))
        self.assertEqual(int(signals["SigBlk"], 16), 0)
        self.assertEqual(int(signals["SigIgn"], 16) & 0x7FFFFFFF, 0)  # the rest is the C library's

    def test_command_is_in_the_process_group_of_apinit_and_may_read_from_its_terminal(self):
        script = """read pid name state parent group rest </proc/$$/stat; echo $group
            read pid name state parent group rest </proc/$PPID/stat; echo $group"""
        own, of_apinit = self.told(script)
        self.assertEqual(own, of_apinit)

    def test_command_starts_though_nobody_listens(self):
        reader, writer = os.pipe()
        os.close(reader)
        with open(writer, "wb") as pipe:
            self.run_well("--no-overlay", "touch", "/sys/started", stdout=pipe)
        self.assertTrue(os.path.exists(self.machine.path("sys/started")))

    def test_command_may_be_a_path_or_found_by_path(self):
        self.assertIn("by path\n", self.run_well("--no-overlay", "/bin/echo", "by path").stdout)
        self.assertIn("by name\n", self.run_well("--no-overlay", "echo", "by name").stdout)

    @skip_if_emulated(SPAWN_TELLS_NOTHING)
    def test_options_end_at_two_dashes(self):
        result = self.machine.run("--no-overlay", "--", "--show")
        self.assertEqual(result.returncode, 127)
        self.assertIn("apinit: cannot start --show: No such file or directory\n", result.stderr)

    def test_status_is_that_of_the_command(self):
        for status in (0, 1, 3, 127, 128, 200, 255):
            result = self.machine.run("--no-overlay", "sh", "-c", f"exit {status}")
            self.assertEqual(result.returncode, status)
            self.assertTrue(result.stdout.endswith(f"apinit: sh has ended with status {status}\n"), result)

    def test_status_of_a_command_that_a_signal_ended_is_0(self):
        self.run_well("--no-overlay", "sh", "-c", "kill -KILL $$")

    def test_status_is_known_though_the_parent_ignored_sigchld(self):
        self.machine.script = AS_ANOTHER.replace("env -i", "env --ignore-signal=CHLD -i")
        result = self.machine.run("--no-overlay", "sh", "-c", "exit 3")
        self.assertIn("apinit: sh has ended with status 3\n", result.stdout)

    def test_eraser_is_waited_for_though_the_parent_ignored_sigchld(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_EEPROM + MTD_ROOTFS_DATA)
        self.machine.script = AS_ANOTHER.replace("env -i", "env --ignore-signal=CHLD -i")
        self.assertNotIn("flash_eraseall has failed", self.run_well("true").stderr)

    @skip_if_emulated(SPAWN_TELLS_NOTHING)
    def test_command_that_is_missing_is_a_clear_message(self):
        result = self.machine.run("--no-overlay", "nothing", "at", "all")
        self.assertEqual(result.returncode, 127)
        message = "apinit: cannot start nothing: No such file or directory\n"
        self.assertTrue(result.stderr.endswith(message), result)

    @skip_if_emulated(SPAWN_TELLS_NOTHING)
    def test_command_that_may_not_be_run_is_a_clear_message(self):
        result = self.machine.run("--no-overlay", "/lib")
        self.assertEqual(result.returncode, 127)
        self.assertTrue(result.stderr.endswith("apinit: cannot start /lib: Permission denied\n"), result)

    def test_messages_are_in_order_with_what_the_command_says(self):
        out = self.run_well("--no-overlay", "echo", "said").stdout
        in_order = "apinit: starting echo\nsaid\napinit: echo has ended with status 0\n"
        self.assertTrue(out.endswith(in_order), out)


class Quiet(MachineTest):
    def test_quiet_leaves_the_streams_to_nobody_and_reports_to_the_kernel_log(self):
        self.machine.have_files_in_proc()
        with self.machine.have_kernel_log() as log:
            script = """seen=$(readlink /proc/$$/fd/1; readlink /proc/$$/fd/2); echo "$seen" >/sys/seen
                echo out; echo err >&2; exit 4"""
            result = self.machine.run("--quiet", "sh", "-c", script)
            said = log.read(65536).decode()
        self.assertEqual((result.returncode, result.stdout, result.stderr), (4, "", ""))
        self.assertEqual(read_file(self.machine.path("sys/seen")), "/dev/null\n/dev/null\n")
        self.assertIn("<6>apinit: board: Ubiquiti UniFi AC PRO (unifiacpro)\n", said)
        self.assertIn("<3>apinit: not found a valid overlay filesystem\n", said)
        self.assertTrue(said.endswith("<6>apinit: sh has ended with status 4\n"), said)

    def test_quiet_without_the_null_device_goes_on(self):
        os.unlink(self.machine.path("dev/null"))
        with self.machine.have_kernel_log() as log:
            result = self.machine.run("--quiet", "--no-overlay", "echo", "still here")
            said = log.read(65536).decode()
        self.assertEqual((result.returncode, result.stdout), (0, "still here\n"))
        self.assertIn("<3>apinit: cannot open /dev/null: No such file or directory\n", said)


TELL_AND_WAIT = f'trap "echo told; exit 5" TERM; kill -TERM $PPID; {WAIT_FOR_EVER}'


class Stop(MachineTest):
    def test_sigterm_and_sigint_stop_the_command_whose_status_counts(self):
        for name in ("TERM", "INT"):
            script = f'trap "echo told; exit 5" TERM; kill -{name} $PPID; {WAIT_FOR_EVER}'
            result = self.machine.run("--no-overlay", "sh", "-c", script)
            self.assertEqual(result.returncode, 5, result)
            self.assertTrue(
                result.stdout.endswith("apinit: stopping\ntold\napinit: sh has ended with status 5\n"), result
            )

    def test_command_that_does_not_stop_is_killed_however_often_it_is_told(self):
        self.machine.script = r"""
            status=0
            chroot root /sbin/apinit --change-this-machine "$@" || status=$?
            process=root/proc/$(cat sys/pid)
            until grep "^State:.Z" $process/status || [ ! -d $process ]; do
                sleep 0.02
            done >gone
            exit $status"""
        script = 'echo $$ >/sys/pid; trap "" TERM; while :; do kill -TERM $PPID; sleep 1; done'
        result = self.machine.run("--no-overlay", "sh", "-c", script)
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("apinit: sh had to be killed\n", result.stderr)

    def test_a_command_that_sends_sigterm_without_end_is_killed(self):
        script = 'trap "" TERM; while :; do kill -TERM $PPID; done'
        result = self.machine.run("--no-overlay", "sh", "-c", script)
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("apinit: sh had to be killed\n", result.stderr)
        self.assertEqual(result.stdout.count("apinit: stopping\n"), 1)

    def test_sigterm_reaches_the_command_once(self):
        # The many processes make looking through /proc take long enough to hear it twice.
        script = """for i in 1 2 3 4 5 6 7 8 9; do for j in 1 2 3 4 5 6 7 8 9; do sleep 1000 & done; done
            trap "echo told" TERM; (sleep 0.2; kill -TERM $PPID; sleep 1) & last=$!
            wait $last; wait $last; wait $last; exit 5"""
        result = self.machine.run("--no-overlay", "sh", "-c", script)
        self.assertEqual((result.returncode, result.stdout.count("told\n")), (5, 1), result)

    def check_stops(self, *command):
        result = self.machine.run("--no-overlay", *command)
        self.assertEqual(result.returncode, 5, result)
        self.assertIn("told\n", result.stdout)

    def test_sigterm_reaches_a_command_whose_name_holds_a_blank(self):
        write_file(self.machine.path("sys/my daemon"), f"#!/bin/sh\n{TELL_AND_WAIT}\n")
        os.chmod(self.machine.path("sys/my daemon"), 0o755)
        self.check_stops("/sys/my daemon")

    def test_sigterm_reaches_the_command_without_proc(self):
        self.machine.environment = WITHOUT_LEAK_CHECK
        self.check_stops("sh", "-c", f"umount /proc; {TELL_AND_WAIT}")

    def test_a_second_sigterm_reaches_the_command_again(self):
        # After the first, the command sends the second; after the second it ends.
        script = f"""told=0
            hear() {{ told=$((told + 1)); [ $told = 1 ] || exit 6; kill -TERM $PPID; }}
            trap hear TERM; kill -TERM $PPID; while :; do {WAIT_FOR_EVER}; done"""
        self.assertEqual(self.machine.run("--no-overlay", "sh", "-c", script).returncode, 6)


class StopWhileStarting(MachineTest):
    def check_no_command(self, result):
        self.assertEqual(result.returncode, 0, result)
        self.assertTrue(result.stdout.endswith("apinit: stopping\n"), result)
        self.assertEqual(self.machine.led(WHITE)["delay_on"], "100")

    def test_sigterm_is_heeded_after_the_root_is_writable(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_ROOTFS_DATA)
        eraser = "#!/bin/sh\nkill -TERM $PPID\nkill -TERM $$\nsleep 0.1\necho >>/sys/erased\n"
        write_file(self.machine.path("flash_eraseall"), eraser)
        self.machine.script = WITH_MOUNTS
        result = self.machine.run("echo", "started")
        self.check_no_command(result)
        self.assertEqual(mounts(read_file(self.machine.path("mounts_after")))["/"][0], "overlay")
        self.assertTrue(os.path.exists(self.machine.path("sys/erased")))
        self.assertNotIn("EEPROM", result.stderr)  # which the next step would have missed

    def test_sigterm_is_heeded_after_the_start_up_work_of_the_board(self):
        # Which does not end by itself here.
        self.machine.have_files_in_proc()
        write_file(self.machine.path("dev/mtd7"), "")
        self.machine.script = """chroot root /sbin/apinit --change-this-machine "$@" &
            work() { grep -lx "PPid:.$!" root/proc/real/[0-9]*/status; }
            until [ "$(work)" ]; do sleep 0.02; done
            kill -TERM $!
            status=$(work)
            work=${status%/status}
            kill -KILL ${work##*/}
            wait $!"""
        self.check_no_command(self.machine.run("echo", "started"))


if __name__ == "__main__":
    machine.main(__doc__)

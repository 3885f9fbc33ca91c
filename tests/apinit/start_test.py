"""
What apinit does before the command: it describes the board, makes the root writable, copies calibration data, sets the
LEDs.

Usage: start_test.py APINIT [TEST...]
"""

import json
import os
import socket

import machine
from machine import (
    APPLETS,
    AS_ANOTHER,
    ATH10K,
    ATH9K,
    BLUE,
    BOARD,
    MTD_EEPROM,
    MTD_HEAD,
    MTD_ROOTFS_DATA,
    WHITE,
    WITH_MOUNTS,
    MachineTest,
    mounts,
    read_file,
    write_file,
)


class Show(MachineTest):
    def show(self):
        return self.machine.run("--show")

    def test_show_prints_the_board_as_json_and_nothing_else(self):
        result = self.show()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(json.loads(result.stdout), BOARD)
        self.assertTrue(result.stdout.endswith("}\n"))

    def test_show_tells_why_there_are_no_addresses_without_the_wan_interface(self):
        self.machine.eth0 = ""
        result = self.show()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        error = "the address of eth0 cannot be read"
        expected = {**BOARD, "mac_addresses": None, "mac_addresses_error": error}
        self.assertEqual(json.loads(result.stdout), expected)

    def without_phy0(self):
        radios = [BOARD["radios"][0], {"phy": "phy0", "mode": 25, "mac": None}]
        error = "the address of phy0 cannot be read"
        return {**BOARD, "radios": radios, "mac_addresses": None, "mac_addresses_error": error}

    def test_show_has_no_address_of_a_radio_that_cannot_be_read(self):
        os.unlink(self.machine.path("sys/class/ieee80211/phy0/addresses"))
        result = self.show()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(json.loads(result.stdout), self.without_phy0())

    def test_show_has_no_address_of_a_radio_that_is_no_text(self):
        write_file(self.machine.path("sys/class/ieee80211/phy0/addresses"), b"\xff\xfe\n")
        result = self.show()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(json.loads(result.stdout), self.without_phy0())

    def test_show_changes_nothing(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_EEPROM + MTD_ROOTFS_DATA)
        self.machine.script = WITH_MOUNTS
        before = self.machine.files()
        self.assertEqual(self.show().returncode, 0)
        self.assertEqual(self.machine.files(), before)
        before = read_file(self.machine.path("mounts_before"))
        self.assertEqual(read_file(self.machine.path("mounts_after")), before)

    def test_show_fails_where_it_cannot_print(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = self.machine.run("--show", stdout=full)
        self.assertEqual((result.returncode, result.stderr), (1, "apinit: cannot print the board\n"))

    def test_show_ends_where_it_cannot_print(self):
        # A packet has room for any other piece of the text.
        write_file(self.machine.path("sys/class/ieee80211/phy0/addresses"), "0" * (1 << 20))
        near, far = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with far:
            with near:
                result = self.machine.run("--show", stdout=near)
            said = []
            while piece := far.recv(65536):
                said.append(piece)
        self.assertEqual((result.returncode, result.stderr), (1, "apinit: cannot print the board\n"))
        self.assertIn(b'"unifiacpro"', b"".join(said))
        self.assertNotEqual(said[-1], b"\n")


class Report(MachineTest):
    def said(self):
        lines = self.run_well("--no-overlay", "true").stdout.splitlines()
        return [line.removeprefix("apinit: ") for line in lines[:4]]

    def test_it_says_what_it_finds_before_it_starts(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_ROOTFS_DATA + MTD_EEPROM)
        expected = ["board: Ubiquiti UniFi AC PRO (unifiacpro)"]
        expected += ["partition rootfs_data: mtd77", "partition EEPROM: mtd7", "console: ttyS0"]
        self.assertEqual(self.said(), expected)

    def test_it_says_what_it_does_not_find(self):
        self.machine.have_files_in_proc(MTD_HEAD, "root=/dev/mtd5\n")
        expected = ["partition rootfs_data: none", "partition EEPROM: none", "console: none"]
        self.assertEqual(self.said()[1:], expected)

    def test_it_says_a_console_that_is_the_last_parameter_on_one_line(self):
        self.machine.have_files_in_proc(cmdline="quiet console=ttyS1\n")
        result = self.run_well("--no-overlay", "true")
        self.assertIn("apinit: console: ttyS1\napinit: ", result.stdout)


class Overlay(MachineTest):
    def start(self, script, *options):
        self.machine.script = WITH_MOUNTS
        result = self.run_well(*options, "sh", "-c", script)
        self.before, self.after = (
            mounts(read_file(self.machine.path(name))) for name in ("mounts_before", "mounts_after")
        )
        return result

    def test_root_is_read_only_before_and_an_overlay_in_memory_after(self):
        self.machine.have_files_in_proc()
        result = self.start("cat /proc/self/mountinfo >/sys/seen")
        self.assertEqual(self.before["/"][0], "tmpfs")
        self.assertIn("ro", self.before["/"][1])
        self.assertIn("not found a valid overlay filesystem\n", result.stderr)
        self.assertIn("fallback to ramoverlay\n", result.stdout)
        self.assertEqual(mounts(read_file(self.machine.path("sys/seen"))), self.after)
        self.assertEqual(self.after["/"][0], "overlay")
        self.assertIn("noatime", self.after["/"][1])
        self.assertIn("rw", self.after["/"][1])
        self.assertEqual(self.after["/system"], self.before["/"])
        self.assertEqual(self.after["/tmp/root"][0], "tmpfs")

    def test_other_file_systems_are_where_they_were(self):
        self.machine.have_files_in_proc()
        self.start("true")
        for place in ("/proc", "/proc/real", "/dev", "/dev/null", "/sys", "/tmp"):
            self.assertEqual(self.after[place][0], self.before[place][0], place)
        added = set(self.after) - set(self.before)
        self.assertEqual((added, set(self.before) - set(self.after)), ({"/system", "/tmp/root"}, set()))

    def test_a_file_written_to_the_root_is_in_the_upper_layer_only(self):
        self.machine.have_files_in_proc()
        self.start(
            "echo text >/bin/new && cp /tmp/root/upper/bin/new /sys/upper && cp /bin/new /sys/root"
            " && ls /system/bin >/sys/lower"
        )
        self.assertEqual(read_file(self.machine.path("sys/upper")), "text\n")
        self.assertEqual(read_file(self.machine.path("sys/root")), "text\n")
        lower = read_file(self.machine.path("sys/lower")).split()
        self.assertEqual(sorted(lower), sorted(["busybox", *APPLETS]))

    def test_a_partition_that_does_not_mount_is_erased_once_before_memory_is_taken(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_EEPROM + MTD_ROOTFS_DATA)
        result = self.start("true")
        erased = read_file(self.machine.path("sys/erased"))
        self.assertEqual(erased, "/usr/sbin/flash_eraseall -jq /dev/mtd77\n")
        self.assertRegex(result.stderr, r"apinit: data partition mount failed: err=-\d+\n")
        self.assertEqual(self.after["/"][0], "overlay")
        self.assertNotIn("/data", self.after)

    def test_no_overlay_leaves_the_root_as_it_is(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_ROOTFS_DATA)
        result = self.start("touch /new || true", "--no-overlay")
        self.assertEqual(self.after, self.before)
        self.assertIn("touch: /new: Read-only file system\n", result.stderr)
        self.assertFalse(os.path.exists(self.machine.path("sys/erased")))

    def start_without(self, *directories):
        """Starts it where these are missing in the root, and there is a partition that could be erased."""
        self.machine.have_files_in_proc(MTD_HEAD + MTD_EEPROM + MTD_ROOTFS_DATA)
        remove = "".join(f"rmdir root{directory}; " for directory in directories)
        prepare = f"mount -o remount,rw root; {remove} mount -o remount,ro root\n"
        self.machine.script = prepare + WITH_MOUNTS
        result = self.run_well("echo", "started")
        self.assertIn("started\n", result.stdout)
        before, after = (read_file(self.machine.path(name)) for name in ("mounts_before", "mounts_after"))
        self.assertEqual(after, before)
        self.assertFalse(os.path.exists(self.machine.path("sys/erased")))
        return [line for line in result.stderr.splitlines() if "caldata" not in line and "export" not in line]

    def test_a_root_that_lacks_a_directory_of_the_overlay_stays_and_flash_memory_is_not_erased(self):
        for missing in (["/system"], ["/mnt"], ["/data"], ["/system", "/mnt", "/data"]):
            with self.subTest(missing=missing):
                self.setUp()  # another machine
                line = f"apinit: the root lacks {' '.join(missing)}: it stays as it is, without an overlay"
                self.assertEqual(self.start_without(*missing), [line])

    def test_a_file_is_no_directory_of_the_overlay(self):
        self.machine.have_files_in_proc()
        prepare = "mount -o remount,rw root; rmdir root/data; : >root/data; mount -o remount,ro root\n"
        self.machine.script = prepare + AS_ANOTHER
        result = self.run_well("true")
        self.assertIn("apinit: the root lacks /data: it stays as it is, without an overlay\n", result.stderr)

    def test_no_overlay_needs_no_directory_of_it(self):
        self.machine.have_files_in_proc()
        self.machine.script = "mount -o remount,rw root; rmdir root/mnt; mount -o remount,ro root\n" + AS_ANOTHER
        self.assertNotIn("lacks", self.run_well("--no-overlay", "true").stderr)

    def test_a_root_that_cannot_be_changed_is_no_reason_not_to_start(self):
        self.machine.have_files_in_proc()
        self.machine.script = "mount -t tmpfs -o ro tmpfs root/tmp\n" + AS_ANOTHER
        result = self.run_well("sh", "-c", "echo started; touch /new || true")
        self.assertIn("started\n", result.stdout)
        self.assertRegex(result.stderr, r"apinit: overlayfs mount failed: err=-\d+\n")
        self.assertIn("Read-only file system\n", result.stderr)


class Calibration(MachineTest):
    def firmware(self, *options):
        """What a started command finds in /lib/firmware: (file of the ath9k, file of the ath10k)."""
        self.run_well(*options, "sh", "-c", f"cp /lib/firmware/{ATH9K} /lib/firmware/{ATH10K} /sys")
        found = []
        for name in (ATH9K, os.path.basename(ATH10K)):
            with open(self.machine.path("sys", name), "rb") as file:
                found.append(file.read())
        return tuple(found)

    def test_calibration_data_is_there_before_the_command(self):
        self.machine.have_files_in_proc()
        eeprom = self.machine.eeprom
        self.assertEqual(self.firmware(), (eeprom[4096:20480], eeprom[20480:22596]))

    def test_calibration_data_that_is_there_stays(self):
        self.machine.have_files_in_proc()
        old = f"mount -o remount,rw root; echo old >root/lib/firmware/{ATH9K}; mount -o remount,ro root\n"
        self.machine.script = old + AS_ANOTHER
        self.assertEqual(self.firmware(), (b"old\n", self.machine.eeprom[20480:22596]))

    def test_without_calibration_data_it_says_so_and_goes_on(self):
        self.machine.have_files_in_proc(MTD_HEAD)
        result = self.run_well("sh", "-c", "ls /lib/firmware /lib/firmware/ath10k; echo started")
        missing = "apinit: caldata: not found 'EEPROM' mtd partition\napinit: unable to export the "
        self.assertIn(f"{missing}{ATH9K}\n{missing}{ATH10K}\n", result.stderr)
        self.assertIn("/lib/firmware:\nath10k\n\n/lib/firmware/ath10k:\nstarted\n", result.stdout)

    def test_on_a_read_only_root_calibration_data_is_not_there(self):
        self.machine.have_files_in_proc()
        result = self.run_well("--no-overlay", "true")
        self.assertIn(f"apinit: caldata: unable to open /lib/firmware/{ATH9K}: err=-30\n", result.stderr)


    def test_start_up_work_that_never_ends_is_killed_and_the_command_started(self):
        self.machine.have_files_in_proc()
        write_file(self.machine.path("dev/mtd7"), self.machine.eeprom[:5000])
        alone = """until [ "$(grep -lx apinit /proc/real/[0-9]*/comm)" = /proc/real/$PPID/comm ]; do
            sleep 0.02; done; echo alone"""
        result = self.run_well("sh", "-c", alone)
        killed = "apinit: the board's start-up work does not end, and was killed\n"
        self.assertEqual(result.stderr.count(killed), 1, result)
        self.assertTrue(result.stdout.endswith("\nalone\napinit: sh has ended with status 0\n"), result)

    def test_start_up_work_that_never_ends_is_ended_though_nobody_is_left_to_kill_it(self):
        self.machine.have_files_in_proc()
        write_file(self.machine.path("dev/mtd7"), "")
        self.machine.script = """chroot root /sbin/apinit --change-this-machine "$@" &
            count() { [ "$(cat root/proc/real/[0-9]*/comm | grep -cx apinit)" = $1 ]; }
            until count 2; do sleep 0.02; done
            kill -KILL $!
            until count 0; do sleep 0.1; done"""
        self.run_well("true")


class Led(MachineTest):
    OFF = {"trigger": "none", "brightness": "0"}

    def test_led_blinks_while_it_starts(self):
        self.machine.have_files_in_proc(MTD_HEAD + MTD_ROOTFS_DATA)
        self.run_well("true")
        self.assertEqual(read_file(self.machine.path("sys/led_while_starting")), "timer")

    def test_led_is_blue_while_the_command_runs(self):
        self.run_well("--no-overlay", "cp", "-r", "/sys/class/leds", "/sys/seen")
        seen = self.machine.path("sys/seen")
        attributes = ("trigger", "brightness")
        blue = {name: read_file(os.path.join(seen, os.path.basename(BLUE), name)) for name in attributes}
        white = {name: read_file(os.path.join(seen, os.path.basename(WHITE), name)) for name in attributes}
        self.assertEqual((blue, white), ({"trigger": "none", "brightness": "255"}, self.OFF))

    def check_blinks_fast(self):
        self.assertEqual(self.machine.led(BLUE), self.OFF)
        white = self.machine.led(WHITE)
        white.pop("brightness", None)
        self.assertEqual(white, {"trigger": "timer", "delay_on": "100", "delay_off": "100"})

    def test_led_blinks_fast_once_the_command_has_ended(self):
        self.run_well("--no-overlay", "true")
        self.check_blinks_fast()

    def test_led_blinks_fast_if_the_command_cannot_be_started(self):
        self.machine.run("--no-overlay", "nothing")
        self.check_blinks_fast()

    def test_a_machine_without_leds_starts(self):
        self.machine.script = "mount -t tmpfs -o ro tmpfs root/sys\n" + AS_ANOTHER
        result = self.run_well("--no-overlay", "echo", "started")
        self.assertIn("started\n", result.stdout)
        self.assertIn(f"apinit: led: unable to open /sys/{WHITE}/trigger: err=-2\n", result.stderr)


if __name__ == "__main__":
    machine.main(__doc__)

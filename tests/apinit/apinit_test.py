"""
The start-up program on a machine of its own: a disposable root tree in private namespaces, which is really
pivoted, with real processes and a real network interface; only the hardware is made of files.

Usage: apinit_test.py APINIT [TEST...]

The tree has Debian's busybox-static for a system. /dev, /sys and the fixed files of /proc are folders here,
so that what was written there can be read afterwards. Run it as root.
"""

import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from daemons import EMULATOR, PATIENCE_S, die_with_the_test, skip_if_emulated, wait_until

APINIT = ""  # from the command line

WHITE, BLUE = "class/leds/ubnt:white:dome", "class/leds/ubnt:blue:dome"
ATH9K, ATH10K = "ath9k-eeprom-ahb-18100000.wmac.bin", "ath10k/cal-pci-0000:00:00.0.bin"
MTD_HEAD = 'dev:    size   erasesize  name\nmtd0: 00060000 00010000 "u-boot"\n'
MTD_EEPROM = 'mtd7: 00010000 00010000 "EEPROM"\n'
MTD_ROOTFS_DATA = 'mtd77: 00900000 00010000 "rootfs_data"\n'  # there is none, so it never mounts

MAC_ETH0, MAC_PHY1, MAC_PHY0 = "02:00:5e:00:00:10", "02:00:5e:00:00:21", "02:00:5e:00:00:20"
BOARD = {
    "id": "unifiacpro",
    "vendor": "Ubiquiti",
    "model": "UniFi AC PRO",
    "interfaces": {"wan": "eth0", "lan": None},
    "radios": [
        {"phy": "phy1", "mode": 14, "mac": MAC_PHY1},
        {"phy": "phy0", "mode": 25, "mac": MAC_PHY0},
    ],
    "switch": {"device": "switch0", "cpu": "0", "cpu_lan": "0", "wan": "2", "lan": "3"},
    "mac_addresses": [MAC_ETH0, MAC_PHY1, MAC_PHY0],
}

APPLETS = "sh cat cp echo env grep kill ls pwd readlink sleep touch umount true chmod mkfifo".split()
ERASE_RECORDER = f"""#!/bin/sh
echo "$0" "$@" >>/sys/erased
cat /sys/{WHITE}/trigger >/sys/led_while_starting
"""

# In the namespaces, before anything is private to the tree. The last line starts what is asked for.
SET_UP = r"""
set -e
mount -t tmpfs -o mode=0755 tmpfs root
cd root
mkdir -p bin sbin lib/firmware/ath10k usr/sbin proc dev sys tmp data mnt system
cp "$APINIT" sbin/apinit
cp -rL ../libraries/. .
cp /bin/busybox bin
for applet in $APPLETS; do ln -s busybox "bin/$applet"; done
cp ../flash_eraseall usr/sbin
mount --bind ../dev dev
[ ! -e dev/null ] || mount --bind /dev/null dev/null
mount --bind ../sys sys
mount -t tmpfs -o mode=1777 tmpfs tmp
if [ -d ../proc ]; then
    mount --bind ../proc proc
    mount -t proc proc proc/real
else
    mount -t proc proc proc
    [ ! -e proc/mtd ] || mount --bind /dev/null proc/mtd
fi
mount -o remount,ro "$PWD"
[ -z "$ETH0" ] || ip link add eth0 address "$ETH0" type veth peer name other
cd ..
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
"""
AS_PROCESS_1 = 'exec env -i PATH=/bin $ENVIRONMENT /usr/sbin/chroot root /sbin/apinit "$@"'
# As another, which is to be told to do its work. --show, which has none, goes with no other option.
AS_ANOTHER = r"""
[ "$1" = --show ] || set -- --change-this-machine "$@"
env -i PATH=/bin $ENVIRONMENT /usr/sbin/chroot root /sbin/apinit "$@"; exit $?"""
# As another, with the mounts before and after; those after are the tree's, wherever its root is now.
WITH_MOUNTS = r"""
[ "$1" = --show ] || set -- --change-this-machine "$@"
mounts() { chroot root /bin/cat /proc/self/mountinfo; }
mounts >mounts_before
status=0
env -i PATH=/bin /usr/sbin/chroot root /sbin/apinit "$@" || status=$?
mounts >mounts_after
exit $status
"""
# A sanitized program looks for leaks in /proc, which is then not there, or cannot be opened.
WITHOUT_LEAK_CHECK = "ASAN_OPTIONS=detect_leaks=0"
# The child shares no memory with its parent there, and cannot say that it did not become another program.
SPAWN_TELLS_NOTHING = "under the emulator posix_spawn does not report that a program cannot be started"
# Where the libraries of an emulated APINIT are; emulated.py runs this then.
LIBRARY_ROOT = os.environ.get("QEMU_LD_PREFIX", "")


def libraries_of(*command):
    """Where the shared libraries and the dynamic loader are for a program; `command` lists them."""
    lines = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return re.findall(r"^\s*(?:\S+ => )?(/\S+) \(", lines, re.MULTILINE)


def place_of(library):
    """Where it is in the tree: not where our own was built, which what is mounted there may hide."""
    return library if re.match(r"/(usr/)?lib", library) else "/lib/" + os.path.basename(library)


def libraries_to_have():
    """What APINIT needs in its tree: place to file."""
    if not EMULATOR:
        return {place_of(path): path for path in libraries_of("ldd", APINIT)}
    needed = {place_of(path): path for path in libraries_of("ldd", EMULATOR)}
    for path in libraries_of(EMULATOR, "-E", "LD_TRACE_LOADED_OBJECTS=1", APINIT):
        inside = LIBRARY_ROOT + path
        needed[place_of(path)] = inside if os.path.exists(inside) else path
    return needed


def write_file(path, content):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb" if isinstance(content, bytes) else "w") as file:
        file.write(content)


def read_file(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def children_of(parent):
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            stat = read_file(f"/proc/{name}/stat")
        except (FileNotFoundError, ProcessLookupError):
            continue
        if int(stat.rpartition(")")[2].split()[1]) == parent:
            found.append(int(name))
    return found


class Machine:
    """A machine that has not been started yet. Its hardware can be changed until it is."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="apinit_test_")
        self.eth0 = MAC_ETH0
        self.environment = ""
        self.script = AS_ANOTHER
        self.eeprom = os.urandom(0x10000)
        os.mkdir(self.path("root"))
        write_file(self.path("flash_eraseall"), ERASE_RECORDER)
        os.chmod(self.path("flash_eraseall"), 0o755)
        write_file(self.path("dev/null"), "")
        write_file(self.path("dev/mtd7"), self.eeprom)
        for led in (WHITE, BLUE):
            write_file(self.path("sys", led, "trigger"), "[none] timer")
        for phy, mac in (("phy0", MAC_PHY0), ("phy1", MAC_PHY1)):
            write_file(self.path("sys/class/ieee80211", phy, "addresses"), mac + "\n02:00:00:00:00:00\n")

    def path(self, *names):
        return os.path.join(self.folder.name, *names)

    def have_files_in_proc(self, mtd=MTD_HEAD + MTD_EEPROM, cmdline="root=/dev/mtd5 console=ttyS0,115200\n"):
        """
        /proc has these files, and processes as symbolic links: real enough for all but kill_children, which
        looks for directories.
        """
        os.makedirs(self.path("proc/real"))
        for name in ("self", "mounts", *map(str, range(1, 1000))):
            os.symlink("real/" + name, self.path("proc", name))
        write_file(self.path("proc/mtd"), mtd)
        write_file(self.path("proc/cmdline"), cmdline)

    def have_libraries(self):
        if os.path.exists(self.path("libraries")):
            return
        for place, file in libraries_to_have().items():
            link = self.path("libraries" + place)
            os.makedirs(os.path.dirname(link), exist_ok=True)
            os.symlink(file, link)

    def have_kernel_log(self):
        """/dev/kmsg is a pipe, which keeps each message; returns its reading end."""
        os.mkfifo(self.path("dev/kmsg"))
        return open(os.open(self.path("dev/kmsg"), os.O_RDWR | os.O_NONBLOCK), "rb", buffering=0)

    def start(self, *arguments, **popen):
        self.have_libraries()
        environment = {
            "PATH": os.environ["PATH"],
            "APINIT": APINIT,
            "APPLETS": " ".join(APPLETS),
            "ETH0": self.eth0,
            "ENVIRONMENT": self.environment,
        }
        command = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--"]
        command += ["/bin/sh", "-c", SET_UP + self.script, "sh", *arguments]
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        return subprocess.Popen(
            command,
            cwd=self.folder.name,
            env=environment,
            text=True,
            preexec_fn=die_with_the_test,
            **{**options, **popen},
        )

    def run(self, *arguments, **popen):
        """Starts it and waits until it has ended."""
        given = popen.pop("input", None)
        if given is not None:
            popen["stdin"] = subprocess.PIPE
        with self.start(*arguments, **popen) as process:
            try:
                out, err = process.communicate(given, PATIENCE_S)
            finally:
                process.kill()
        return subprocess.CompletedProcess(arguments, process.returncode, out, err)

    def led(self, led):
        """Its attributes as they were last written."""
        folder = self.path("sys", led)
        return {name: read_file(os.path.join(folder, name)) for name in os.listdir(folder)}

    def files(self):
        """All files of its hardware and what they hold."""
        found = {}
        for top in ("dev", "sys"):
            for folder, _, names in os.walk(self.path(top)):
                for name in names:
                    with open(os.path.join(folder, name), "rb") as file:
                        found[os.path.join(folder, name)] = file.read()
        return found


class MachineTest(unittest.TestCase):
    def setUp(self):
        self.machine = Machine()
        self.addCleanup(self.machine.folder.cleanup)

    def run_well(self, *arguments, **popen):
        """Runs it where it ends with 0; returns what it and the command have said."""
        result = self.machine.run(*arguments, **popen)
        self.assertEqual(result.returncode, 0, result)
        return result

    def told(self, script, *options):
        """What this script of the shell says as the command; no word of apinit."""
        out = self.run_well("--no-overlay", *options, "sh", "-c", script).stdout
        return [line for line in out.splitlines() if not line.startswith("apinit: ")]


def mounts(text):
    """By their place: the file system, and the options of this mount."""
    found = {}
    for line in text.splitlines():
        before, _, behind = line.partition(" - ")
        words = before.split()
        found[words[4]] = (behind.split()[0], words[5].split(","))
    return found


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


WAIT_FOR_EVER = "sleep 1000 & wait"


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


class CommandLine(unittest.TestCase):
    """Nothing of this gets as far as to look at the machine."""

    def ask(self, *arguments):
        return subprocess.run(
            [APINIT, *arguments],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=PATIENCE_S,
            check=False,
        )

    def check_refused(self, message, *arguments):
        result = self.ask(*arguments)
        expected = (2, "", f"apinit: {message}, see apinit --help\n")
        self.assertEqual((result.returncode, result.stdout, result.stderr), expected)

    def test_help_names_every_option(self):
        result = self.ask("--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        options = ("--quiet", "--no-overlay", "--change-this-machine", "--show", "--help", "-h", "--version")
        for text in (*options, "COMMAND [ARGUMENT]..."):
            self.assertIn(text, result.stdout)

    def test_unknown_options_are_refused(self):
        for option in ("--nope", "-x", "--show=1"):
            self.check_refused(f"bad option '{option}'", option)
            self.check_refused(f"bad option '{option}'", "--quiet", option, "true")

    def test_a_command_is_needed(self):
        usage = self.ask("--help").stdout
        for options in ((), ("--quiet",), ("--no-overlay", "--")):
            result = self.ask(*options)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (2, "", usage))

    def test_show_starts_no_command(self):
        self.check_refused("unexpected argument 'true'", "--show", "true")

    def test_show_goes_with_no_other_option(self):
        for option in ("--quiet", "--no-overlay", "--change-this-machine"):
            self.check_refused("no other option goes with '--show'", "--show", option)
            self.check_refused("no other option goes with '--show'", option, "--show")

    def test_help_fails_where_it_cannot_be_printed(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run([APINIT, "--help"], stdout=full, stderr=subprocess.PIPE, check=False)
        self.assertEqual((result.returncode, result.stderr), (1, b"apinit: cannot print the help\n"))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    APINIT = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)

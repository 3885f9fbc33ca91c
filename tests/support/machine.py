"""
A machine of a test's own for apinit: a disposable root tree in private namespaces, which is really pivoted, with
real processes and a real network interface; only the hardware is made of files.

The tree has Debian's busybox-static for a system. /dev, /sys and the fixed files of /proc are folders here,
so that what was written there can be read afterwards. Run it as root.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

from daemons import EMULATOR, PATIENCE_S, die_with_the_test

PROGRAMS = {}  # name to path, from the command line

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
WAIT_FOR_EVER = "sleep 1000 & wait"  # of the shell
# The child shares no memory with its parent there, and cannot say that it did not become another program.
SPAWN_TELLS_NOTHING = "under the emulator posix_spawn does not report that a program cannot be started"
# Where the libraries of an emulated apinit are; emulated.py runs this then.
LIBRARY_ROOT = os.environ.get("QEMU_LD_PREFIX", "")


def libraries_of(*command):
    """Where the shared libraries and the dynamic loader are for a program; `command` lists them."""
    lines = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return re.findall(r"^\s*(?:\S+ => )?(/\S+) \(", lines, re.MULTILINE)


def place_of(library):
    """Where it is in the tree: not where our own was built, which what is mounted there may hide."""
    return library if re.match(r"/(usr/)?lib", library) else "/lib/" + os.path.basename(library)


def libraries_to_have():
    """What apinit needs in its tree: place to file."""
    if not EMULATOR:
        return {place_of(path): path for path in libraries_of("ldd", PROGRAMS["apinit"])}
    needed = {place_of(path): path for path in libraries_of("ldd", EMULATOR)}
    for path in libraries_of(EMULATOR, "-E", "LD_TRACE_LOADED_OBJECTS=1", PROGRAMS["apinit"]):
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
        for name in ("self", "mounts", *map(str, range(1, 200))):
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
            "APINIT": PROGRAMS["apinit"],
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


def main(script_documentation):
    if len(sys.argv) < 2:
        sys.exit(script_documentation)
    PROGRAMS["apinit"] = os.path.abspath(sys.argv.pop(1))
    unittest.main(module="__main__", verbosity=2)


def mounts(text):
    """By their place: the file system, and the options of this mount."""
    found = {}
    for line in text.splitlines():
        before, _, behind = line.partition(" - ")
        words = before.split()
        found[words[4]] = (behind.split()[0], words[5].split(","))
    return found

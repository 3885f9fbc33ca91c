"""
What holds for every program and script: what it answers to --help and --version, what it says when it cannot do its
work, and that nothing it is told changes the machine it is tried on.

Usage: programs_test.py TREE VERSION APSTATD APCTL APFW APINIT UBUSD UBUS CALDATA_TEST [TEST...]

TREE is the source tree. The machine is a root tree, a network and a process namespace that end with the test. Run it
as root.
"""

import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from daemons import NO_BUS, PATIENCE_S, die_with_the_test, wait_until

TREE, VERSION, PROGRAMS, CALDATA_TEST = "", "", {}, ""  # from the command line
NAMES = ("apstatd", "apctl", "apfw", "apinit", "ubusd", "ubus")
DAEMONS = ("apstatd", "apctl")
SCRIPTS = ("bare", "bench", "board", "bus", "demo", "size", "sysroot", "test")
LEFT_BEHIND_S = 5  # after that a process that has not ended is one that was left behind
OWN_NETWORK = ("unshare", "--net", "--", "sh", "-ec", 'ip link set lo up <>/dev/null 1>&0 2>&0; exec "$@"', "sh")
# In a network of its own no port below 1024 is free for everybody, whatever holds for the machine's.
WITHOUT_LOW_PORTS = (*OWN_NETWORK, "setpriv", "--bounding-set=-net_bind_service", "--inh-caps=-net_bind_service", "--")


def attempt(*command, **popen):
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
    options |= {"text": True, "timeout": PATIENCE_S, "check": False, "preexec_fn": die_with_the_test}
    return subprocess.run(command, **{**options, **popen})


def found(result):
    return result.returncode, result.stdout, result.stderr


class Questions(unittest.TestCase):
    def test_help_is_printed_on_standard_output(self):
        for name in NAMES:
            with self.subTest(name):
                result = attempt(PROGRAMS[name], "--help")
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertTrue(result.stdout.lower().startswith(f"usage: {name} "), result.stdout)
                self.assertIn("--version", result.stdout)
                self.assertEqual(found(attempt(PROGRAMS[name], "-h")), found(result))

    def test_version_is_that_of_the_project(self):
        for name in NAMES:
            with self.subTest(name):
                self.assertEqual(found(attempt(PROGRAMS[name], "--version")), (0, f"{name} {VERSION}\n", ""))

    def test_answers_that_cannot_be_printed_are_a_failure(self):
        for name in ("apstatd", "apctl", "apfw", "apinit"):
            for option, what in (("--help", "help"), ("-h", "help"), ("--version", "version")):
                with self.subTest(name), open("/dev/full", "w", encoding="utf-8") as full:
                    result = attempt(PROGRAMS[name], option, stdout=full)
                    self.assertEqual(found(result), (1, None, f"{name}: cannot print the {what}\n"))

    def test_what_is_no_option_is_refused_on_standard_error(self):
        for name in NAMES:
            for words in (["--nonsense"], ["-Z"], ["--nonsense=1"], ["--versions"], ["--help=1"]):
                with self.subTest(name, words=words):
                    result = attempt(PROGRAMS[name], *words)
                    self.assertEqual((result.returncode, result.stdout), (1 if name == "ubusd" else 2, ""))
                    self.assertNotEqual(result.stderr, "")


class Listening(unittest.TestCase):
    """Each daemon says in one line why it does not listen, or that there is no bus."""

    def check_refused(self, name, text, *options, status=1, before=()):
        result = attempt(*before, PROGRAMS[name], "--bus", NO_BUS, *options)
        self.assertEqual(found(result), (status, "", f"{name}: {text}\n"))

    def test_a_port_that_is_taken_is_one_line(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            for name in DAEMONS:
                text = f"cannot listen on 127.0.0.1:{port}: Address already in use"
                self.check_refused(name, text, "--port", str(port))

    def test_a_port_that_may_not_be_taken_is_one_line(self):
        for name in DAEMONS:
            text = "cannot listen on 127.0.0.1:80: Permission denied"
            self.check_refused(name, text, "--port", "80", before=WITHOUT_LOW_PORTS)

    def test_a_port_above_65535_is_one_line(self):
        for name in DAEMONS:
            for port in ("65536", "70000", "4294967376", "18446744073709551696"):
                text = f"bad port '{port}': not a number from 0 to 65535"
                self.check_refused(name, text, "--port", port, status=2)

    def start(self, *command):
        process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, preexec_fn=die_with_the_test
        )
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def start_bus(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = f"{folder.name}/bus"
        self.start(PROGRAMS["ubusd"], "-s", path)
        wait_until(lambda: attempt(PROGRAMS["ubus"], "-s", path, "list").returncode == 0, "the bus is there")
        return path

    def said_at_start(self, name, bus):
        """What it prints, after where it listens, until it has been stopped."""
        process = self.start(PROGRAMS[name], "--port", "0", "--bus", bus)
        self.assertIn("listening on", process.stdout.readline())
        process.send_signal(signal.SIGTERM)  # which it hears after all that it says at its start
        said = process.stdout.read()
        self.assertEqual(process.wait(PATIENCE_S), 0)
        return said

    def test_a_bus_that_is_absent_is_one_line(self):
        for name in DAEMONS:
            line = f"{name}: there is no bus at {NO_BUS}: looking for it once a second\n"
            self.assertEqual(self.said_at_start(name, NO_BUS), line)

    def test_a_bus_that_is_there_is_no_line(self):
        bus = self.start_bus()
        for name in DAEMONS:
            self.assertEqual(self.said_at_start(name, bus), "")


class Descriptors(unittest.TestCase):
    """A program that is started with its standard streams closed."""

    def start_closed(self, *command):
        def prepare():
            die_with_the_test()
            os.closerange(0, 3)

        process = subprocess.Popen(command, preexec_fn=prepare)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def descriptors(self, process):
        folder = f"/proc/{process.pid}/fd"
        try:
            return {int(name): os.readlink(f"{folder}/{name}") for name in os.listdir(folder)}
        except FileNotFoundError:
            return {}

    def check_null(self, process):
        """It has opened its sockets, and none of them is a standard stream."""

        def has_opened():
            self.assertIsNone(process.poll(), "it has ended")
            return any(target.startswith("socket:") for target in self.descriptors(process).values())

        wait_until(has_opened, "it has a socket")
        opened = self.descriptors(process)
        self.assertEqual([opened[fd] for fd in range(3)], ["/dev/null"] * 3, opened)

    def test_daemons_serve_and_have_the_null_device(self):
        for name, port in (("apstatd", 8080), ("apctl", 8081)):
            process = self.start_closed(*OWN_NETWORK, PROGRAMS[name], "--bus", NO_BUS)
            wait_until(lambda: os.readlink(f"/proc/{process.pid}/exe") == PROGRAMS[name], "it is the daemon")
            self.check_null(process)
            ask = ["nsenter", f"--net=/proc/{process.pid}/ns/net", "--", "curl", "-sS", "--noproxy", "*"]
            ask += ["--max-time", str(PATIENCE_S), "--retry", "100", "--retry-connrefused", "--retry-delay", "1"]
            path = {"apstatd": "status", "apctl": "aps"}[name]
            result = attempt(*ask, f"http://127.0.0.1:{port}/{path}")
            self.assertEqual((result.returncode, json.loads(result.stdout) is None), (0, False), result)
            process.terminate()
            self.assertEqual(process.wait(PATIENCE_S), 0)

    def test_bus_daemon_and_command_have_the_null_device(self):
        with tempfile.TemporaryDirectory() as folder:
            path = f"{folder}/bus"
            daemon = self.start_closed(PROGRAMS["ubusd"], "-s", path)
            wait_until(lambda: attempt(PROGRAMS["ubus"], "-s", path, "list").returncode == 0, "the bus is there")
            self.check_null(daemon)
            self.check_null(self.start_closed(PROGRAMS["ubus"], "-s", path, "listen"))
            daemon.terminate()
            self.assertEqual(daemon.wait(PATIENCE_S), 0)


# ---- The machine ----

# A developer's: no /system and /data unless asked for, no /lib/firmware, this machine's programs. What a program could
# write to is its own, and so are LEDs. The last line becomes process 1, which is this script again.
SET_UP = r"""
set -e
mount -t tmpfs -o mode=0755 tmpfs "$FOLDER"
cd "$FOLDER"
mkdir proc sys dev tmp var run root mnt etc usr usr/lib $DIRECTORIES
bind() { mount --bind "$1" "./$2"; mount -o remount,bind,ro "./$2"; }
put() {
    if [ -L "$1" ]; then cp -a "$1" ".$1"
    elif [ -d "$1" ]; then mkdir ".$1"; bind "$1" "$1"
    else : >".$1"; bind "$1" "$1"; fi
}
for path in /bin /sbin /lib*; do put "$path"; done
for path in /usr/*; do [ "$path" = /usr/lib ] || put "$path"; done
for path in /usr/lib/*; do [ "$path" = /usr/lib/firmware ] || put "$path"; done
bind /etc etc
mkdir -p "./$TREE" "./$BUILD"
bind "$TREE" "$TREE"
bind "$BUILD" "$BUILD"
mount -t proc proc proc
mount -t tmpfs tmpfs sys
for led in white blue; do mkdir -p sys/class/leds/ubnt:$led:dome; echo none >sys/class/leds/ubnt:$led:dome/trigger; done
for name in null zero full random urandom; do : >dev/$name; mount --bind /dev/$name dev/$name; done
: >dev/kmsg
ip link set lo up
PATH=/usr/sbin:/usr/bin:/sbin:/bin
exec chroot . /usr/bin/python3 -B "$TREE/tests/programs/programs_test.py" --machine
"""


def read_tree(*tops):
    """Every file below, with what it holds."""
    seen = {}
    for top in tops:
        for folder, folders, names in os.walk(top):
            for name in folders:
                seen[os.path.join(folder, name)] = None
            for name in names:
                path = os.path.join(folder, name)
                if os.path.islink(path):
                    seen[path] = os.readlink(path)
                elif os.path.isfile(path):
                    seen[path] = pathlib.Path(path).read_bytes().decode("latin-1")
    return seen


def read_settings(folder):
    seen = {}
    for path in sorted(pathlib.Path(folder).rglob("*")):
        try:
            seen[str(path)] = path.read_text() if path.is_file() else None
        except OSError:
            pass  # some can only be written
    return seen


def output_of(words):
    try:
        return subprocess.run(words, stdout=subprocess.PIPE, text=True, check=True).stdout
    except FileNotFoundError:
        return None  # the root is another one


def state():
    """What there is on the machine that a program could change."""
    seen = {"root": sorted(os.listdir("/")), "firmware": os.path.exists("/lib/firmware")}
    seen["mounts"] = pathlib.Path("/proc/self/mountinfo").read_text().splitlines()
    seen["processes"] = processes()
    seen["settings"] = {**read_settings("/proc/sys/net/core"), **read_settings("/proc/sys/net/ipv4")}
    seen["directories"] = {name: os.listdir(name) for name in ("/data", "/system") if os.path.exists(name)}
    seen["files"] = read_tree("/sys", "/dev", "/tmp", "/var", "/run", "/root", "/mnt")
    for words in (["nft", "-j", "list", "ruleset"], ["ip", "-j", "address"], ["ip", "-j", "route"]):
        seen[" ".join(words)] = output_of(words)
    return seen


def differences(before, after):
    return [key for key in before if before[key] != after[key]]


def run_on_the_machine(command):
    """To its end, or, if it has begun to serve, until it is told to stop."""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        start_new_session=True,
    )
    said, deadline = "", time.monotonic() + PATIENCE_S
    while "listening on" not in said and time.monotonic() < deadline:
        if select.select([process.stdout], [], [], 0.01)[0]:
            piece = os.read(process.stdout.fileno(), 65536).decode()
            if not piece:
                break
            said += piece
        elif process.poll() is not None:
            break
    if "listening on" in said:
        process.terminate()
    try:
        said += process.communicate(timeout=PATIENCE_S)[0]
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        said += "(it did not end)"
    return process.returncode, said


def processes():
    return sorted(name for name in os.listdir("/proc") if name.isdigit())


def reap():
    """What was left behind is ours, as process 1. What is about to end may take its time."""
    deadline = time.monotonic() + LEFT_BEHIND_S
    while len(processes()) > 1 and time.monotonic() < deadline:
        try:
            os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            pass
        time.sleep(0.01)


def be_process_1():
    """Runs the commands that come on standard input, and says of each how it ended and what it has changed."""
    answers = []
    before = state()
    for command in json.load(sys.stdin):
        status, said = run_on_the_machine(command)
        reap()
        after = state()
        changed = differences(before, after)
        answers.append({"command": command, "status": status, "said": said, "changed": changed})
        before = after
    json.dump(answers, sys.stdout)


class Machine(unittest.TestCase):
    def run_commands(self, *commands, directories=()):
        """On a machine of their own, one after the other: what process 1 has to say of each."""
        with tempfile.TemporaryDirectory() as folder:
            environment = {
                **os.environ,
                "FOLDER": folder,
                "TREE": TREE,
                "BUILD": os.path.dirname(os.path.dirname(CALDATA_TEST)),
                "DIRECTORIES": " ".join(directories),
            }
            command = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--", "/bin/bash", "-c", SET_UP]
            patience_s = PATIENCE_S + 5 * len(commands)
            result = attempt(*command, env=environment, stdin=None, input=json.dumps(commands), timeout=patience_s)
        self.assertEqual(result.returncode, 0, result)
        return json.loads(result.stdout)

    def check_unchanged(self, *commands, **machine):
        answers = self.run_commands(*commands, **machine)
        self.assertEqual(len(answers), len(commands))
        for answer in answers:
            self.assertEqual(answer["changed"], [], answer)
            self.assertNotIn("(it did not end)", answer["said"])
        return answers

    def program(self, name, *cases):
        return [[PROGRAMS[name], *case.split()] for case in cases]

    def test_start_up_program_changes_nothing_that_it_was_not_told_to_change(self):
        wrong = ["", "true", "--no-overlay true", "--quiet true", "-- true", "--show", "--show true", "--nonsense true"]
        wrong += ["--help", "-h", "--version", "--change-this-machine", "--change-this-machine --show", "/nonexistent"]
        commands = self.program("apinit", *wrong)
        in_namespace = [["unshare", "--pid", "--fork", "--kill-child", *command] for command in commands]
        # A command line that makes no sense leaves process 1 where it is, for ever.
        in_namespace = [["timeout", "-s", "KILL", "1", *command] for command in in_namespace]
        for directories in ((), ("data", "system")):
            answers = self.check_unchanged(*commands, directories=directories)
            for answer in answers:
                self.assertIn(answer["status"], (0, 2), answer)
            self.check_unchanged(*in_namespace, directories=directories)

    def test_firewall_changes_nothing_that_it_was_not_told_to_change(self):
        mac = "02:00:5e:10:00:01"
        words = ["", "up", "down", f"block {mac}", f"unblock {mac}", "status", "up --guest eth0 --portal 1", "flush"]
        words += ["--help", "-h", "--version", "up up", "--change-this-machine", "--change-this-machine nonsense"]
        words += ["--change-this-machine up --nonsense", "--change-this-machine block x"]
        self.check_unchanged(*self.program("apfw", *words))

    def test_daemons_change_nothing(self):
        words = ["", "--help", "--version", "--port 0", "--port 65536", "--port", "--address nonsense", "nonsense"]
        words += ["--bus /", "--bus /nonexistent", "--name / ", "--nonsense"]
        self.check_unchanged(*self.program("apstatd", *words), *self.program("apctl", *words))

    def test_bus_changes_nothing(self):
        words = ["", "nonsense", "-s /", "-s /etc/hosts", "-s /tmp", "-s /dev/null", "-s", "-A", "-s /nonexistent/bus"]
        words += ["-h", "--help", "--version", "--nonsense"]
        commands = ["", "list", "call", "call a b", "subscribe a", "listen", "-s / list", "nonsense", "-t x list", "-h"]
        self.check_unchanged(*self.program("ubusd", *words), *self.program("ubus", *commands))

    def test_bus_daemon_does_not_take_a_file_for_its_socket(self):
        write = ["sh", "-c", 'echo mine >/tmp/file; "$0" -s /tmp/file; cat /tmp/file', PROGRAMS["ubusd"]]
        (answer,) = self.run_commands(write)
        self.assertEqual(answer["said"], "ubusd: unable to listen on /tmp/file: Address already in use\nmine\n")

    def test_scripts_change_nothing_when_they_are_told_nonsense(self):
        cases = {
            "bare": ("--nonsense", "nonsense", "nonsense nonsense"),
            "bench": ("--nonsense", "nonsense", "nft-build nonsense", "--raise"),
            "board": ("--nonsense", "nonsense", "--shell", "--shell --nonsense"),
            "bus": ("", "nonsense", "mips mipsel", "--nonsense"),
            "demo": ("--nonsense", "nonsense", "--port", "--address", "--once nonsense"),
            "size": ("--nonsense", "nonsense nonsense"),
            "sysroot": ("", "nonsense", "mips mipsel", "--nonsense"),
            "test": ("--nonsense", "nonsense", "--all nonsense", "-R x --nonsense"),
        }
        commands = []
        for name in SCRIPTS:
            commands += [[f"{TREE}/scripts/{name}", *case.split()] for case in cases[name]]
        for answer in self.check_unchanged(*commands):
            self.assertIn(answer["status"], (1, 2), answer)
            self.assertRegex(answer["said"], r"\Ascripts/[^\n]+\n\Z")

    def answers_of_scripts(self, option):
        answers = self.check_unchanged(*([f"{TREE}/scripts/{name}", option] for name in SCRIPTS))
        for answer in answers:
            self.assertEqual(answer["status"], 0, answer)
        return [answer["said"] for answer in answers]

    def test_scripts_answer_help_and_change_nothing(self):
        helps = self.answers_of_scripts("--help")
        for name, text in zip(SCRIPTS, helps):
            self.assertRegex(text, rf"(?m)^ +scripts/{name}\b")
            self.assertNotRegex(text, "(?m)^#|set -e")
        self.assertEqual(self.answers_of_scripts("-h"), helps)

    def test_scripts_answer_version_and_change_nothing(self):
        expected = [f"scripts/{name} {VERSION}\n" for name in SCRIPTS]
        self.assertEqual(self.answers_of_scripts("--version"), expected)

    def test_help_of_bench_names_its_sections(self):
        (answer,) = self.check_unchanged([f"{TREE}/scripts/bench", "--help"])
        sections = re.findall(r'^    "([a-z-]+)": section_', pathlib.Path(TREE, "bench/run.py").read_text(), re.M)
        self.assertGreater(len(sections), 10)
        self.assertTrue(answer["said"].endswith(f"\nSections: {' '.join(sections)}\n"), answer)

    def test_benchmarks_that_are_told_nonsense_change_nothing(self):
        run = ["/usr/bin/python3", "-B", f"{TREE}/bench/run.py"]
        self.check_unchanged([*run, "--help"], [*run, "nonsense"], [*run, "--raise-limits", "nonsense"],
            [*run, "--write", "--quick"])

    def test_tests_of_calibration_data_need_no_folder_of_the_machine_and_make_none(self):
        (answer,) = self.check_unchanged([CALDATA_TEST, "--gtest_filter=caldata_export.*"])
        self.assertEqual(answer["status"], 0, answer["said"])
        self.assertIn("[  PASSED  ]", answer["said"])

    def test_a_change_of_the_machine_is_noticed(self):
        commands = {
            "mounts": self.program("apinit", "--change-this-machine true"),
            "nft -j list ruleset": self.program("apfw", "--change-this-machine up"),
            "firmware": [["mkdir", "/lib/firmware"]],
            "settings": [["sh", "-c", "echo 1 >/proc/sys/net/ipv4/ip_forward"]],
            "files": [["sh", "-c", "echo timer >/sys/class/leds/ubnt:white:dome/trigger"]],
            "processes": [["sh", "-c", "sleep 1000 >/dev/null 2>&1 &"]],
            "ip -j address": [["ip", "link", "add", "other", "type", "veth"]],
        }
        for key, given in commands.items():
            (answer,) = self.run_commands(*given, directories=("data", "system"))
            self.assertIn(key, answer["changed"], answer)


def main():
    global TREE, VERSION, CALDATA_TEST
    if sys.argv[1:] == ["--machine"]:
        return be_process_1()
    if len(sys.argv) < 4 + len(NAMES):
        sys.exit(__doc__)
    TREE, VERSION = os.path.abspath(sys.argv.pop(1)), sys.argv.pop(1)
    PROGRAMS.update((name, os.path.abspath(sys.argv.pop(1))) for name in NAMES)
    CALDATA_TEST = os.path.abspath(sys.argv.pop(1))
    return unittest.main(verbosity=2)


if __name__ == "__main__":
    main()

"""Takes the daemon out of README.md, builds it as it stands, and asks it something with curl."""

import argparse
import os
import pathlib
import re
import signal
import subprocess
import time

import house

DEADLINE_S = 60

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--compiler", required=True)
parser.add_argument("--library", dest="shared_object", required=True)
parser.add_argument("--include", required=True, help="the folder that has apbase/")
parser.add_argument("--sanitize", default="")
arguments = parser.parse_args()

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
readme = pathlib.Path(arguments.tree, "README.md").read_text()
programs = re.findall(r"^```c\n(.*?)^```$", readme, flags=re.DOTALL | re.MULTILINE)
if len(programs) != 1:
    house.fail(f"README.md has {len(programs)} C programs, not one")
line_count = programs[0].count("\n")
if line_count > 30:
    house.fail(f"README.md says 30 lines, its daemon has {line_count}")
(scratch / "hello.c").write_text(programs[0])

command = [arguments.compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", f"-I{arguments.include}"]
if arguments.sanitize:
    command.append(f"-fsanitize={arguments.sanitize}")
library_folder = os.path.dirname(arguments.shared_object)
command += ["-o", scratch / "hello", scratch / "hello.c", f"-L{library_folder}", "-lapbase"]
house.run(command, "README.md's daemon does not compile")


def listening_port(process):
    """The TCP port at which `process` listens, from /proc; None if there is none yet."""
    own = set()
    for entry in os.scandir(f"/proc/{process.pid}/fd"):
        try:
            own.add(os.readlink(entry.path))
        except FileNotFoundError:
            pass
    for line in pathlib.Path(f"/proc/{process.pid}/net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        address, state, inode = fields[1], fields[3], fields[9]
        if state == "0A" and f"socket:[{inode}]" in own:
            return int(address.split(":")[1], 16)
    return None


# With port 0 the kernel chooses a free one.
daemon = subprocess.Popen(
    [scratch / "hello", "0"], env={**os.environ, "LD_LIBRARY_PATH": library_folder}, stdin=subprocess.DEVNULL
)
try:
    deadline = time.monotonic() + DEADLINE_S
    port = None
    while port is None:
        if daemon.poll() is not None:
            house.fail(f"README.md's daemon ended with status {daemon.returncode} instead of listening")
        if time.monotonic() > deadline:
            house.fail("README.md's daemon does not listen")
        port = listening_port(daemon)
        time.sleep(0.01)
    url = f"http://127.0.0.1:{port}/"
    answer = house.run(["curl", "-sS", "--fail", "--max-time", str(DEADLINE_S), url, url], "curl has no answer")
    if answer != "Hello from an access point\n" * 2:
        house.fail(f"README.md's daemon answered {answer!r}")
    refused = house.run(
        ["curl", "-sS", "--max-time", str(DEADLINE_S), "-o", "/dev/null", "-w", "%{http_code}", "-d", "x", url],
        "curl has no answer to a POST",
    )
    if refused != "405":
        house.fail(f"README.md's daemon answered a POST with {refused}")
    daemon.send_signal(signal.SIGTERM)
    status = daemon.wait(DEADLINE_S)
    if status != -signal.SIGTERM:
        house.fail(f"README.md's daemon ended with status {status} on SIGTERM")
finally:
    daemon.kill()
    daemon.wait()

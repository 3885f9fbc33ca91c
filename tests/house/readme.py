"""Takes the daemon out of README.md, builds it as it stands, as C11 and as C++20, and tries what it promises.

It listens at a port of its own choice, so this runs in a network namespace of its own.
"""

import argparse
import ctypes
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import house

DEADLINE_S = 60
LINES_MAX = 40  # as the heading says
PORT = 8080
CLONE_NEWNET = 0x40000000

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--scratch", required=True)
parser.add_argument("--c", required=True)
parser.add_argument("--cxx", required=True)
parser.add_argument("--library", dest="shared_object", required=True)
parser.add_argument("--include", required=True, help="the folder that has apbase/")
parser.add_argument("--sanitize", default="")
arguments = parser.parse_args()

scratch = pathlib.Path(house.fresh_folder(arguments.scratch))
library_folder = os.path.dirname(arguments.shared_object)
environment = {**os.environ, "LD_LIBRARY_PATH": library_folder}


def extract():
    """Writes the daemon to a file."""
    readme = pathlib.Path(arguments.tree, "README.md").read_text()
    programs = re.findall(r"^```c\n(.*?)^```$", readme, flags=re.DOTALL | re.MULTILINE)
    if len(programs) != 1:
        house.fail(f"README.md has {len(programs)} C programs, not one")
    line_count = programs[0].count("\n")
    if line_count > LINES_MAX or f"in {LINES_MAX} lines" not in readme:
        house.fail(f"README.md should say {LINES_MAX} lines, and its daemon has {line_count}")
    (scratch / "hello.c").write_text(programs[0])


def build(name, compiler, *language):
    command = [compiler, *language, "-Wall", "-Wextra", "-Wpedantic", "-Werror", f"-I{arguments.include}"]
    if arguments.sanitize:
        command.append(f"-fsanitize={arguments.sanitize}")
    command += ["-o", scratch / name, scratch / "hello.c", "-x", "none", f"-L{library_folder}", "-lapbase"]
    house.run(command, f"README.md's daemon does not compile with {' '.join(language)}")
    return scratch / name


def enter_network_of_its_own():
    if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNET) != 0:
        house.fail(f"no network namespace: {os.strerror(ctypes.get_errno())} (run as root)")
    house.run(["ip", "link", "set", "lo", "up"], "the namespace has no network")


def wait_until_it_listens(daemon):
    deadline = time.monotonic() + DEADLINE_S
    while True:
        with socket.socket() as client:
            if client.connect_ex(("127.0.0.1", PORT)) == 0:
                return
        if daemon.poll() is not None:
            house.fail(f"README.md's daemon ended with status {daemon.returncode} instead of listening")
        if time.monotonic() > deadline:
            house.fail("README.md's daemon does not listen")
        time.sleep(0.01)


def check_answers():
    url = f"http://127.0.0.1:{PORT}/"
    curl = ["curl", "-sS", "--noproxy", "*", "--max-time", str(DEADLINE_S), "-w", "%{http_code} %{num_connects}\n"]
    answer = house.run([*curl, url, url], "curl has no answer")
    if answer != "Hello from an access point\n200 1\nHello from an access point\n200 0\n":
        house.fail(f"README.md's daemon answers, twice on one connection: {answer!r}")


def check_refusal(method):
    """What follows a request with another method may be its body, so it must not be taken for the next request."""
    with socket.create_connection(("127.0.0.1", PORT), DEADLINE_S) as client:
        client.sendall(f"{method} / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n".encode())
        received = b""
        try:
            while piece := client.recv(4096):
                received += piece
        except ConnectionResetError:
            pass  # what was not read is answered so when a connection ends
        except TimeoutError:
            house.fail(f"README.md's daemon does not close the connection after {method}")
    if not received.startswith(b"HTTP/1.1 405 ") or received.count(b"HTTP/1.1 ") != 1:
        house.fail(f"README.md's daemon answers {method} with {received!r}")


def check_busy_port(program):
    second = house.attempt([program], env=environment, timeout=DEADLINE_S)
    expected = f"hello: unable to listen at port {PORT}: Address already in use\n"
    if second.returncode != 1 or second.stderr != expected:
        house.fail(f"a second daemon ends with status {second.returncode} and says {second.stderr!r}")


def check(program):
    daemon = subprocess.Popen([program], env=environment, stdin=subprocess.DEVNULL)
    try:
        wait_until_it_listens(daemon)
        check_answers()
        for method in ("POST", "HEAD", "PUT", "BREW"):
            check_refusal(method)
        check_busy_port(program)
        check_answers()
        daemon.send_signal(signal.SIGTERM)
        status = daemon.wait(DEADLINE_S)
        if status != -signal.SIGTERM:
            house.fail(f"README.md's daemon ended with status {status} on SIGTERM")
    finally:
        daemon.kill()
        daemon.wait()


extract()
enter_network_of_its_own()
check(build("hello", arguments.c, "-std=c11"))
check(build("hello_cxx", arguments.cxx, "-std=c++20", "-x", "c++"))

"""
Runs a command where programs of another machine start like this machine's: the kernel hands them to an emulator
(binfmt_misc), also where its path leads nowhere, as inside a chroot. Nothing outside of the command sees this.

Usage: emulated.py LITTLE_ENDIAN|BIG_ENDIAN COMMAND [ARGUMENT...]

The programs are 32-bit MIPS's, of that byte order. In the environment, APBASE_EMULATOR is the path of qemu for that, and
QEMU_LD_PREFIX the folder of its libraries. Exits with 77 where the kernel can do this only for everybody (before
Linux 6.7), or not at all. Run it as root.
"""

import ctypes
import os
import sys

CLONE_NEWUSER, CLONE_NEWNS = 0x10000000, 0x20000
MS_REC_PRIVATE = 0x4000 | 1 << 18
BINFMT_MISC = "/proc/sys/fs/binfmt_misc"
SKIPPED = 77

libc = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def handed_over(emulator, big_endian):
    """
    The line that registers it: programs, position-independent or not, of that processor. F: the emulator is opened
    now, and needs no path later; P: it is told argv[0] as well.
    """
    head = bytes((0x7F, *b"ELF", 1, 2 if big_endian else 1, 1))  # 32 bits, byte order, version
    numbers = bytes((0, 2, 0, 8) if big_endian else (2, 0, 8, 0))  # ET_EXEC; EM_MIPS
    any_kind = bytes((255, 254, 255, 255) if big_endian else (254, 255, 255, 255))  # or ET_DYN
    magic, mask = head + bytes(9) + numbers, b"\xff" * len(head) + bytes(9) + any_kind
    escaped = ("".join(f"\\x{byte:02x}" for byte in field) for field in (magic, mask))
    return ":apbase:M:0:" + ":".join(escaped) + f":{emulator}:FP"


def map_ids_of(process, before):
    for kind, ranges in before.items():
        with open(f"/proc/{process}/{kind}", "w") as file:
            file.write("".join(f"{inside} {inside} {count}\n" for inside, count in ranges))


def have_own_namespaces():
    """User and mount namespaces, in which every user and group is who it was before."""
    before = {}
    for kind in ("uid_map", "gid_map"):
        with open(f"/proc/self/{kind}") as file:
            before[kind] = [(line.split()[0], line.split()[2]) for line in file]
    reader, writer = os.pipe()
    us = os.getpid()
    outside = os.fork()
    if outside == 0:
        try:
            os.close(writer)
            if os.read(reader, 1):
                map_ids_of(us, before)
            os._exit(0)
        finally:
            os._exit(1)
    os.close(reader)
    check(libc.unshare(CLONE_NEWUSER | CLONE_NEWNS))
    os.write(writer, b".")
    os.close(writer)
    if os.waitpid(outside, 0)[1] != 0:
        raise AssertionError("users and groups of the namespace cannot be set")
    check(libc.mount(None, b"/", None, MS_REC_PRIVATE, None))


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    emulator, big_endian = os.environ["APBASE_EMULATOR"], sys.argv[1] == "BIG_ENDIAN"
    if not os.path.exists(emulator):
        sys.exit(f"emulated.py: there is no {emulator}; install qemu-user")
    try:
        have_own_namespaces()
        check(libc.mount(b"binfmt_misc", BINFMT_MISC.encode(), b"binfmt_misc", 0, None))
    except OSError as error:
        print(f"skipped: this machine has no binfmt_misc for one user namespace alone: {error}")
        sys.exit(SKIPPED)
    with open(f"{BINFMT_MISC}/register", "w") as register:
        register.write(handed_over(emulator, big_endian))
    os.execvp(sys.argv[2], sys.argv[2:])


if __name__ == "__main__":
    main()

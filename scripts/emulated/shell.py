#!/usr/bin/python3 -B
"""Boots the emulated access point once, with the terminal as its console: scripts/board --shell runs it."""

import os
import sys
import termios

import machine


def main():
    top = sys.argv[1]
    folder = f"{top}/flash"
    machine.look_for_parts(top)
    if not os.path.exists(folder):
        os.makedirs(f"{folder}.new", exist_ok=True)
        machine.make_flash(f"{folder}.new")
        os.rename(f"{folder}.new", folder)
    terminal = termios.tcgetattr(sys.stdin)
    try:
        with machine.Emulator([*machine.command_line(top, folder), "-serial", "mon:stdio"]) as emulator:
            print(f"==> apstatd of the board will answer at {emulator.url()}; flash memory is in {folder}")
            print("==> To leave: poweroff -f, or the keys Ctrl-A and then x, which cuts the power", flush=True)
            emulator.process.wait()
    finally:
        termios.tcsetattr(sys.stdin, termios.TCSADRAIN, terminal)


if __name__ == "__main__":
    machine.run_script(main)

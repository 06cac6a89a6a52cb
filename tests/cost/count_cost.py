#!/usr/bin/env python3
"""Counts what an exchange of values costs, as the difference between many and twice as many of them."""

import re
import subprocess
import sys
import tempfile

EXCHANGES = 1000
MOST_INSTRUCTIONS = 8500
MOST_ALLOCATIONS = 9


def number_after(words, text):
    found = re.search(words + r"\s*([0-9,]+)", text)
    if not found:
        sys.exit(f"valgrind does not tell of '{words}':\n{text}")
    return int(found.group(1).replace(",", ""))


def run(tool, program, exchanges):
    command = ["valgrind", *tool, program, str(exchanges)]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
    return done.stderr


def instructions(program, exchanges):
    with tempfile.NamedTemporaryFile() as profile:
        tool = ["--tool=callgrind", f"--callgrind-out-file={profile.name}"]
        return number_after(r"refs:", run(tool, program, exchanges))


def allocations(program, exchanges):
    return number_after(r"total heap usage:", run(["--leak-check=no"], program, exchanges))


def check(name, count, program, most):
    each = (count(program, 2 * EXCHANGES) - count(program, EXCHANGES)) / EXCHANGES
    print(f"{name} of an exchange: {each:.1f} (at most {most})")
    return each <= most


def main():
    program = sys.argv[1]
    good = check("instructions", instructions, program, MOST_INSTRUCTIONS)
    good = check("allocations", allocations, program, MOST_ALLOCATIONS) and good
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()

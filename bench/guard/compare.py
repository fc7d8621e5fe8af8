"""Counts instructions under callgrind and compares them with the kept figures. Runs in a mount
namespace of its own, where it may replace /run and /dev/shm."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

KEPT = pathlib.Path(__file__).with_name("expected.json")
OPERATIONS = (
    "write",
    "read",
    "notify",
    "deliver",
    "number_write",
    "typed_write",
    "number_read",
    "typed_read",
)
# So much more may the header for C++ cost than the calls in C that it makes.
TYPED = {"typed_write": "number_write", "typed_read": "number_read"}
MOST_TYPED = 1.05
TOLERANCE = 0.03
FEW, MANY = 500, 2500
# The C library chooses its memcpy by the processor; without these it takes the one that every
# x86-64 has, so that another processor gives the same count.
ONE_MEMCPY = (
    "glibc.cpu.hwcaps=-AVX2,-AVX,-AVX512F,-AVX512VL,-AVX512BW,-ERMS,-FSRM,-SSSE3,"
    "-Fast_Unaligned_Copy,-AVX_Fast_Unaligned_Load"
)


def count(program, operation, times, folder):
    """All instructions of one run."""
    output = pathlib.Path(folder) / f"{operation}-{times}"
    subprocess.run(
        [
            "valgrind",
            "--tool=callgrind",
            "--quiet",
            f"--callgrind-out-file={output}",
            program,
            operation,
            str(times),
        ],
        check=True,
        timeout=120,
        env={**os.environ, "GLIBC_TUNABLES": ONE_MEMCPY},
    )
    return int(re.search(r"^(?:totals|summary): (\d+)", output.read_text(), re.M).group(1))


def measure(program):
    figures = {}
    with tempfile.TemporaryDirectory() as folder:
        for operation in OPERATIONS:
            few = count(program, operation, FEW, folder)
            many = count(program, operation, MANY, folder)
            figures[operation] = round((many - few) / (MANY - FEW), 1)
    return figures


def main():
    program, keep = sys.argv[1], "--keep" in sys.argv[2:]
    for place in ("/run", "/dev/shm"):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", place], check=True)
    figures = measure(program)
    if keep:
        KEPT.write_text(json.dumps(figures, indent=1) + "\n")
    kept = json.loads(KEPT.read_text())
    wrong = 0
    for operation in OPERATIONS:
        change = figures[operation] / kept[operation] - 1
        wrong += abs(change) > TOLERANCE
        print(
            f"guard: {operation}: {figures[operation]} instructions, kept {kept[operation]}, "
            f"{change:+.1%}{' (more than 3 %)' if abs(change) > TOLERANCE else ''}"
        )
    for typed, plain in TYPED.items():
        ratio = figures[typed] / figures[plain]
        wrong += ratio > MOST_TYPED
        print(f"guard: {typed}: {ratio:.3f} times {plain}, at most {MOST_TYPED}")
    if wrong:
        print("guard: if the change is meant, keep it with bench/guard/run --keep and say why")
    return 1 if wrong else 0


sys.exit(main())

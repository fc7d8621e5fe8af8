"""What the measurements of whole programs share: places of their own, processes, and what these cost."""

import os
import re
import signal
import subprocess
import sys
from pathlib import Path

TICKS = os.sysconf("SC_CLK_TCK")


def enter_private_places():
    """Goes on in a mount namespace with an empty /run and /dev/shm; starts the program anew for that.

    Needs root or user namespaces.
    """
    if os.environ.get("KP_BENCH_INSIDE") != "1":
        os.environ["KP_BENCH_INSIDE"] = "1"
        options = ["-m"] if os.geteuid() == 0 else ["-mr"]
        os.execvp("unshare", ["unshare", *options, sys.executable, *sys.argv])
    for folder in ("/dev/shm", "/run"):
        subprocess.run(["mount", "-t", "tmpfs", "none", folder], check=True)


def start(*command, **options):
    """A process whose input and output are pipes of text."""
    return subprocess.Popen(
        [str(word) for word in command], stdout=subprocess.PIPE, stdin=subprocess.PIPE, text=True, **options
    )


def stop(process, number=signal.SIGTERM):
    """Ends a process and waits for it."""
    process.send_signal(number)
    process.wait()


def output_of(*command):
    """What a program prints."""
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False).stdout


def cpu_seconds(process):
    """The processor time that a process has used so far."""
    fields = Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def memory_kib(process, kind="VmRSS"):
    """A process's memory: VmRSS with what it maps of files, RssAnon what is its own."""
    return int(re.search(kind + r":\s+(\d+)", Path(f"/proc/{process.pid}/status").read_text())[1])


def changes(build, topics, rate, seconds):
    """Writes numbers to so many topics `a/…` at so many rounds a second; 0: as fast as they go."""
    process = start(build / "bench/changes", topics, rate, seconds)
    process.stdout.readline()
    return process


def end_changes(process):
    """How many values were written, and what 50 and 99 of 100 rounds took at most, in ns."""
    figures = [int(word) for word in process.stdout.readline().split()]
    process.stdin.close()
    process.wait()
    return figures


def broker(work, port, *lines):
    """A mosquitto on the loopback, whose files are in the folder `work`."""
    path = work / "mosquitto.conf"
    path.write_text(
        "\n".join(
            (f"listener {port} 127.0.0.1", "allow_anonymous true", "user root", "log_type error", *lines)
        )
        + "\n"
    )
    return start("mosquitto", "-c", path, stderr=subprocess.DEVNULL)

"""What the tests share. They run in a sandbox, one file a process; see CMakeLists.txt."""

import os
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable, List, Tuple

import pytest

pytest_plugins = ["zu_kp.pytest_plugin"]

ROOT = Path(__file__).resolve().parents[2]


def threads() -> int:
    """The threads of this process, those of the library included."""
    return len(os.listdir("/proc/self/task"))


def descriptors() -> int:
    """The open descriptors of this process."""
    return len(os.listdir("/proc/self/fd"))


def settled_descriptors() -> int:
    """The same, when the peers of the device have made and dropped their connections."""
    counts = [-1] * 5
    while len(set(counts)) > 1 or counts[0] < 0:
        time.sleep(0.05)
        counts = [*counts[1:], descriptors()]
    return counts[0]


def settled_at(expected: Tuple[int, int]) -> Tuple[int, int]:
    """Threads and descriptors as soon as they are as expected, or those after half a minute: a peer on a busy
    machine drops its connection late."""
    end = time.monotonic() + 30
    while (found := (threads(), descriptors())) != expected and time.monotonic() < end:
        time.sleep(0.05)
    return found


@pytest.fixture
def run_python() -> Callable[..., "subprocess.CompletedProcess[str]"]:
    """Runs a program text in an interpreter of its own and gives what became of it."""

    def run(text: str, *options: str, timeout: float = 60) -> "subprocess.CompletedProcess[str]":
        command: List[str] = [sys.executable, *options, "-c", text]
        return subprocess.run(command, capture_output=True, text=True, timeout=timeout, check=False)

    return run

"""The pytest plugin, as its users have it."""

import subprocess
import sys
from pathlib import Path

import pytest
import zu_kp as kp

TESTS = """
def test_first(kp_device):
    kp_device.provide("a/b", "double", 3.5)
    assert kp_device.wait_for("a/b", 3.5).quality == 1

def test_second(kp_device):
    import zu_kp as kp
    assert kp.list() == []

def test_waits_in_vain(kp_device):
    kp_device.provide("a/b", "double", 1.0)
    kp_device.wait_for("a/b", 3.5, timeout=0.1)
"""


def run(folder: Path, **environment: str) -> str:
    import os

    (folder / "test_it.py").write_text(TESTS)
    command = [
        sys.executable,
        "-m",
        "pytest",
        "-p",
        "zu_kp.pytest_plugin",
        "-p",
        "no:cacheprovider",
        "-rs",
        "test_it.py",
    ]
    result = subprocess.run(
        command, cwd=folder, env={**os.environ, **environment}, capture_output=True, text=True, check=False
    )
    return result.stdout


def test_each_test_has_an_empty_store(kp_device, tmp_path):
    output = run(tmp_path)

    assert "2 passed" in output
    assert "a/b is not 3.5 after 0.1 s: it is 1.0" in output


def test_outside_of_a_sandbox_tests_are_skipped_with_a_word(tmp_path):
    output = run(tmp_path, KP_SANDBOX="mnt:[1]")

    assert "3 skipped" in output
    assert "kp sandbox -- pytest" in output


def test_wait_for_sees_what_a_thread_writes(kp_device):
    import threading

    kp_device.provide("a", "int8", 1)
    timer = threading.Timer(0.1, lambda: kp_device.write("a", 2))
    timer.start()

    assert kp_device.wait_for("a", 2, timeout=20).value == 2
    timer.join()


def test_wait_for_waits_for_a_topic_too(kp_device):
    with pytest.raises(pytest.fail.Exception, match="it never had a value"):
        kp_device.wait_for("missing", 1, timeout=0.05)
    assert kp.list() in ([], ["missing"])

"""The one file serves every Python that is at hand."""

import os
import subprocess
from pathlib import Path

import pytest

CANDIDATES = [
    Path(folder, f"python3.{minor}")
    for folder in (*os.environ["PATH"].split(":"), *map(str, Path.home().glob(".pyenv/versions/3.*/bin")))
    for minor in range(9, 20)
]
PYTHONS = sorted(
    {path.resolve() for path in CANDIDATES if os.access(path, os.X_OK) and ".pyenv/shims" not in str(path)}
)


@pytest.mark.parametrize("python", PYTHONS, ids=str)
def test_a_python_runs_the_module(kp_device, python):
    command = [str(python), "-X", "dev", str(Path(__file__).with_name("smoke.py"))]

    result = subprocess.run(command, capture_output=True, text=True, timeout=100, check=False)

    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.startswith("done")


def test_there_is_one():
    assert PYTHONS

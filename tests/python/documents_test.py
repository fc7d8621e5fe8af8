"""Every example of docs/python.md, and the programs in examples/python, run as they stand."""

import csv
import re
import subprocess
import sys
import time

import pytest
import zu_kp as kp
from conftest import ROOT

EXAMPLES = ROOT / "examples" / "python"
BLOCKS = re.findall(
    r"```python\n(.*?)```", (ROOT / "docs" / "python.md").read_text(encoding="utf-8"), re.DOTALL
)


@pytest.fixture
def plant(kp_device):
    """The small plant, running."""
    child = subprocess.Popen([sys.executable, str(EXAMPLES / "plant.py")])
    kp_device.provide("ready", "boolean", True)
    deadline = time.monotonic() + 20
    while "cam/roi" not in kp.list() and time.monotonic() < deadline:
        time.sleep(0.01)
    time.sleep(0.2)
    yield child
    child.terminate()
    child.wait(20)


def run(*command, timeout=60):
    return subprocess.run(
        [sys.executable, *command], capture_output=True, text=True, timeout=timeout, check=False
    )


@pytest.mark.parametrize("block", BLOCKS, ids=lambda block: str(BLOCKS.index(block)))
def test_an_example_of_the_document_runs(plant, tmp_path, block):
    if "numpy" in block:
        pytest.importorskip("numpy")
    is_test = "def test_" in block
    path = tmp_path / ("test_oven.py" if is_test else "example.py")
    path.write_text(block)
    if is_test:
        plant.terminate()
        plant.wait(20)

    options = ("-m", "pytest", "-p", "zu_kp.pytest_plugin", "-p", "no:cacheprovider") if is_test else ()
    result = run(*options, str(path))

    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout
    assert "skipped" not in result.stdout


def test_the_document_has_examples():
    assert len(BLOCKS) == 7


def test_the_logger_writes_a_table(plant, tmp_path):
    path = tmp_path / "log.csv"

    result = run(str(EXAMPLES / "log_csv.py"), "plant/#", str(path), "2")

    assert (result.returncode, result.stderr) == (0, "")
    with path.open(newline="", encoding="utf-8") as file:
        rows = list(csv.DictReader(file))
    assert {row["topic"] for row in rows} >= {"plant/oven/temperature", "plant/tank/level"}
    assert len(rows) > 5


def test_the_alarm_goes_off(plant, kp_device):
    kp_device.provide("plant/oven/setpoint", "double", 400.0)

    result = run(str(EXAMPLES / "alarm.py"), "25", "4")

    assert result.returncode == 0, result.stderr
    assert "ALARM at" in result.stdout
    assert "% full" in result.stdout


@pytest.mark.parametrize("name", ["log_csv.py", "alarm.py"])
def test_a_wrong_call_explains_itself(name):
    result = run(str(EXAMPLES / name))

    assert result.returncode != 0
    assert name in result.stderr

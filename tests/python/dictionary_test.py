"""describe(): what the dictionary says of a topic."""

import warnings
from pathlib import Path

import pytest
import zu_kp as kp

OVEN = """["plant/oven/+"]
type = "double"
unit = "°C"
range = [0, 320]
limits = { low = 20, high = 250 }
stale = 5
["plant/oven/state"]
names = { 0 = "off", -1 = "fault" }
"""


@pytest.fixture
def folder(tmp_path, monkeypatch):
    (tmp_path / "oven.toml").write_text(OVEN, encoding="utf-8")
    monkeypatch.setenv("KP_DICTIONARY", str(tmp_path))
    return tmp_path


def test_describe_gives_the_facts_by_their_keys(folder):
    assert kp.describe("plant/oven/temperature") == {
        "type": "double",
        "unit": "°C",
        "range": (0.0, 320.0),
        "limits": {"low": 20.0, "high": 250.0},
        "stale": 5.0,
    }
    assert kp.describe("plant/oven/state")["names"] == {0: "off", -1: "fault"}


def test_a_topic_that_is_not_known_has_no_facts(folder):
    assert kp.describe("other") == {}


def test_the_directory_can_be_given_as_a_path_of_any_bytes(tmp_path):
    directory = tmp_path / "\udcff"
    directory.mkdir()
    (directory / "a.toml").write_text('[a]\nunit = "m"\n', encoding="utf-8")

    assert kp.describe("a", directory) == {"unit": "m"}
    assert kp.describe("a", str(directory)) == {"unit": "m"}


def test_a_directory_that_is_missing_is_warned_of(tmp_path):
    with pytest.warns(RuntimeWarning, match="none: No such file or directory"):
        assert kp.describe("a", tmp_path / "none") == {}


def test_all_facts_are_those_of_the_file(tmp_path):
    (tmp_path / "a.toml").write_text(
        '[a]\ntype = "string"\nsize = 9\ndescription = "\\u00e4 \\"x\\""\n'
        "record = { deadband = 0.5, at-least = 600, keep = true }\n",
        encoding="utf-8",
    )

    assert kp.describe("a", tmp_path) == {
        "type": "string",
        "size": 9,
        "description": 'ä "x"',
        "record": {"deadband": 0.5, "at-least": 600.0, "keep": True},
    }


def test_changes_are_followed_and_mistakes_warned_of_once(folder):
    assert kp.describe("plant/oven/temperature")["unit"] == "°C"
    replacement: Path = folder / "new"
    replacement.write_text('["plant/oven/+"]\nunit = "K"\nunits = 1\n', encoding="utf-8")
    replacement.rename(folder / "oven.toml")

    with pytest.warns(RuntimeWarning, match='oven.toml:3:1: "units" is not known'):
        assert kp.describe("plant/oven/temperature")["unit"] == "°C"
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert kp.describe("plant/oven/temperature")["unit"] == "°C"


def test_what_is_no_topic_is_refused(folder):
    with pytest.raises(kp.TopicError):
        kp.describe("a/../b")

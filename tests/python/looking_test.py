"""get() and list(): they join nothing, create nothing and show nothing half written."""

import datetime
import os
import warnings
from pathlib import Path

import pytest
import zu_kp as kp

STORE = Path("/dev/shm/zu-kp")


def test_get_gives_value_quality_and_times(kp_device):
    kp_device.provide("plant/oven", "double").write(21.5, quality=3, source_time=1_700_000_000_123_456)

    reading = kp.get("plant/oven")

    assert (reading.topic, reading.value, reading.type, reading.quality) == ("plant/oven", 21.5, "double", 3)
    assert reading.bytes == bytes.fromhex("0000000000803540")
    assert reading.source_time_us == 1_700_000_000_123_456
    assert reading.source_time == datetime.datetime(
        2023, 11, 14, 22, 13, 20, 123456, tzinfo=datetime.timezone.utc
    )
    age = datetime.datetime.now(datetime.timezone.utc) - reading.time
    assert datetime.timedelta(0) <= age < datetime.timedelta(minutes=1)
    assert "plant/oven" in repr(reading) and "21.5" in repr(reading)


def test_a_reading_does_not_change(kp_device):
    provider = kp_device.provide("a", "string", "first, and long enough")
    reading = kp.get("a")

    provider.write("second")

    assert reading.value == "first, and long enough"


def test_a_time_beyond_the_calendar_is_an_overflow(kp_device):
    kp_device.provide("a", "int8").write(1, source_time=2**64 - 1)

    with pytest.raises(OverflowError, match="year 9999"):
        _ = kp.get("a").source_time


def test_looking_joins_and_creates_nothing(kp_device):
    kp_device.provide("a", "int8", 1)
    before = (os.listdir("/run/providers"), kp.list(), len(os.listdir("/proc/self/task")))

    kp.get("a")
    kp.list("#")
    with pytest.raises(kp.NotFoundError):
        kp.get("b/c")

    assert (os.listdir("/run/providers"), kp.list(), len(os.listdir("/proc/self/task"))) == before


@pytest.mark.parametrize(
    "topic, kind, text",
    [
        ("no/such", FileNotFoundError, "no/such: no such topic"),
        ("a/below", FileNotFoundError, "one of its levels is a topic itself"),
        ("", ValueError, "at least one level"),
        ("a/../b", ValueError, "is not a topic"),
        ("a\0b", ValueError, "NUL"),
        ("x" * 256, ValueError, "longer than 255 bytes"),
        ("declared", OSError, "no value has been written yet"),
        ("short", OSError, "5 bytes instead of 4080"),
        ("link", OSError, "a symbolic link"),
    ],
)
def test_what_cannot_be_shown_says_why(kp_device, topic, kind, text):
    kp_device.provide("a", "int8", 1)
    kp_device.provide("declared", "int8")
    (STORE / "short").write_bytes(b"short")
    (STORE / "link").symlink_to("/etc/passwd")

    with pytest.raises(kind, match=text) as caught:
        kp.get(topic)

    assert isinstance(caught.value, kp.Error)


def test_a_topic_is_text():
    with pytest.raises(TypeError, match="a topic is a str"):
        kp.get(b"a")


def test_a_write_that_does_not_end_is_busy_at_last(kp_device):
    provider = kp_device.provide("a", "int8", 1)
    with (STORE / "a").open("r+b") as file:
        file.seek(42)
        file.write(b"\1")

    with pytest.raises(BlockingIOError, match="does not end"):
        kp.get("a")
    with pytest.raises(kp.BusyError):
        provider.read()


def test_list_is_sorted_and_selects_by_pattern(kp_device):
    for topic in ("b", "a/c/d/e/f", "a/b"):
        kp_device.provide(topic, "int8")

    assert kp.list() == ["a/b", "a/c/d/e/f", "b"]
    assert kp.list("a/#") == ["a/b", "a/c/d/e/f"]
    assert kp.list("+") == ["b"]
    assert kp.list("no/#") == []


def test_a_name_that_is_not_utf8_survives(kp_device):
    kp_device.provide("a", "int8", 7)
    os.rename(STORE / "a", bytes(STORE) + b"/\xff")

    (name,) = kp.list()

    assert kp.get(name).value == 7


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can become somebody who may not look")
def test_a_closed_directory_is_left_out_with_a_warning(kp_device, run_python):
    kp_device.provide("open", "int8", 1)
    kp_device.provide("closed/a", "int8", 1)
    (STORE / "open").chmod(0o644)  # whatever the umask
    (STORE / "closed").chmod(0o700)

    result = run_python(
        "import os, zu_kp as kp; kp.list()  # while its files may be read\n"
        "os.setgid(65534); os.setuid(65534); print(kp.list(), kp.get('open').value)\n"
        "try: kp.get('closed/a')\n"
        "except PermissionError as error: print(error.errno, isinstance(error, kp.Error))"
    )

    assert result.stdout == "['open'] 1\n13 True\n"
    assert "RuntimeWarning: closed: Permission denied" in result.stderr


def test_no_warning_when_all_is_open(kp_device):
    kp_device.provide("a/b", "int8", 1)

    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert kp.list() == ["a/b"]

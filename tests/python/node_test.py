"""Nodes, providers and consumers."""

import datetime
import os

import pytest
import zu_kp as kp
from conftest import settled_descriptors


def test_a_node_joins_the_mesh_and_leaves_it(kp_device):
    with kp.Node("mixer") as node:
        assert node.is_open
        assert "mixer" in os.listdir("/run/providers")
        assert node.fileno() >= 0

    assert not node.is_open
    assert "mixer" not in os.listdir("/run/providers")
    assert repr(node) == "<zu_kp.Node 'mixer' not open>"


def test_a_node_without_a_name_makes_one_up(kp_device):
    with kp.Node():
        assert len(os.listdir("/run/providers")) == 3


def test_a_node_that_is_not_open_says_how_to_open_it():
    node = kp.Node("early")

    with pytest.raises(kp.ClosedError, match="use with, async with or open"):
        node.provide("a", "int8")
    with pytest.raises(ValueError):
        node.fileno()


def test_a_closed_node_stays_closed(kp_device):
    node = kp.Node("once").open()
    provider = node.provide("a", "int8")
    consumer = node.consume("a")
    provider.write(1)
    node.close()
    node.close()

    for use in (
        node.open,
        node.notify,
        node.fileno,
        lambda: provider.write(1),
        consumer.read,
        lambda: consumer.value,
    ):
        with pytest.raises(kp.ClosedError):
            use()
    with pytest.raises(kp.ClosedError):
        node.watch("#")
    provider.close()


def test_a_name_that_cannot_be_a_file_fails_and_leaves_nothing(kp_device):
    before = os.listdir("/run/providers"), settled_descriptors()

    with pytest.raises(OSError, match='cannot open a node "a/b"') as caught:
        kp.Node("a/b").open()

    assert isinstance(caught.value, kp.Error)
    assert (os.listdir("/run/providers"), settled_descriptors()) == before


def test_no_permission_is_a_permission_error(kp_device, run_python):
    if os.geteuid() != 0:
        pytest.skip("only root can become somebody without rights")
    os.chmod("/run/providers", 0o700)
    text = (
        "import os, zu_kp as kp; os.setgid(65534); os.setuid(65534)\n"
        "try: kp.Node('x').open()\n"
        "except PermissionError as error: print(isinstance(error, kp.Error), error)"
    )

    result = run_python(text)

    assert result.stdout.startswith("True")


def test_a_consumer_may_come_before_its_provider(kp_device):
    consumer = kp_device.watcher.consume("later/on")
    assert consumer.type is None
    assert not consumer.has_value
    with pytest.raises(kp.NoValueError, match="later/on: no value"):
        consumer.read()

    kp_device.provide("later/on", "uint8", 7)

    assert (consumer.value, consumer.type, consumer.has_value) == (7, "uint8", True)


def test_reading_failures_are_not_printed_by_the_library(kp_device, capfd):
    with pytest.raises(kp.NoValueError):
        _ = kp_device.watcher.consume("a").value

    assert capfd.readouterr().err == ""


def test_quality_and_source_time_travel_along(kp_device):
    provider = kp_device.provide("a", "double")
    moment = datetime.datetime(2024, 2, 29, 12, 0, 0, 1, tzinfo=datetime.timezone.utc)

    provider.write(1.0, quality=4, source_time=moment)
    assert (provider.read().quality, provider.read().source_time) == (4, moment)
    provider.write(2.0, quality=255)
    assert provider.read().quality == 4
    provider.write(3.0)
    assert provider.read().quality == 1


@pytest.mark.parametrize(
    "extras, kind",
    [
        ({"quality": 256}, OverflowError),
        ({"quality": -1}, OverflowError),
        ({"quality": "good"}, TypeError),
        ({"source_time": datetime.datetime(2024, 1, 1)}, ValueError),
        ({"source_time": -1}, OverflowError),
        ({"source_time": 1.5}, TypeError),
        ({"unknown": 1}, TypeError),
    ],
)
def test_wrong_extras_write_nothing(kp_device, extras, kind):
    provider = kp_device.provide("a", "double")

    with pytest.raises(kind):
        provider.write(1.0, **extras)

    assert not provider.has_value


def test_a_value_can_be_assigned(kp_device):
    provider = kp_device.provide("a", "double")

    provider.value = 2.5

    assert kp.get("a").value == 2.5
    assert (provider.type, provider.size, provider.topic) == ("double", 8, "a")
    with pytest.raises(AttributeError):
        del provider.value


def test_the_last_tag_takes_its_topic_along(kp_device):
    with kp_device.provider.provide("short/lived", "int8") as provider:
        provider.write(1)
        with kp_device.watcher.consume("short/lived") as consumer:
            assert consumer.value == 1
            provider.close()
            assert kp.list() == ["short/lived"]
    assert kp.list() == []
    with pytest.raises(kp.ClosedError, match="the tag is closed"):
        provider.write(2)


def test_a_topic_is_written_as_one_path(kp_device):
    assert kp_device.provide("//a///b/", "int8").topic == "a/b"


@pytest.mark.parametrize("size", [0, 4001])
def test_a_size_has_limits(kp_device, size):
    with pytest.raises(ValueError, match="1 to 4000"):
        kp_device.provider.provide("a", "string", size=size)


def test_a_batch_sends_one_notice_for_all(kp_device):
    first, second = kp_device.provide("a", "int8"), kp_device.provide("b", "int8")
    with kp_device.watcher.watch("#", timeout=5) as watch:
        with kp_device.provider.batch():
            first.write(1)
            second.write(2)
        seen = {next(watch).topic, next(watch).topic}

    assert seen == {"a", "b"}

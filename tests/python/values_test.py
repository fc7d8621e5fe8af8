"""Values of every type on their way through a topic, and those that do not fit."""

import math
import struct

import pytest
import zu_kp as kp
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

ANY = settings(
    max_examples=60, deadline=None, database=None, suppress_health_check=[HealthCheck.function_scoped_fixture]
)


def integers(bits, signed):
    low = -(2 ** (bits - 1)) if signed else 0
    return st.integers(low, low + 2**bits - 1)


FITTING = {
    "boolean": st.booleans(),
    "int8": integers(8, True),
    "int16": integers(16, True),
    "int32": integers(32, True),
    "int64": integers(64, True),
    "uint8": integers(8, False),
    "uint16": integers(16, False),
    "uint32": integers(32, False),
    "uint64": integers(64, False),
    "float": st.floats(width=32),
    "double": st.floats(),
    "string": st.text(min_size=1, max_size=1000).filter(lambda text: 1 <= len(text.encode()) <= 4000),
    "bytearray": st.binary(min_size=1, max_size=4000),
    "raw": st.binary(min_size=1, max_size=4000),
}
INTEGERS = [name for name in kp.TYPES if "int" in name]


def same(first, second):
    """Equal, and of one kind; not a number is the same as itself."""
    if isinstance(first, float) and math.isnan(first):
        return isinstance(second, float) and math.isnan(second)
    return type(first) is type(second) and first == second


def test_every_type_has_values_here():
    assert tuple(FITTING) == kp.TYPES


@pytest.mark.parametrize("name", kp.TYPES)
def test_what_is_written_is_read(kp_device, name):
    provider = kp_device.provide("a/b", name)
    consumer = kp_device.watcher.consume("a/b")

    @ANY
    @given(value=FITTING[name], quality=st.integers(1, 254), source_time=st.integers(0, 2**64 - 1))
    def check(value, quality, source_time):
        provider.write(value, quality, source_time)
        reading = consumer.read()
        assert same(reading.value, value)
        assert same(consumer.value, value)
        assert same(kp.get("a/b").value, value)
        assert (reading.type, reading.quality, reading.source_time_us) == (name, quality, source_time)

    check()


@pytest.mark.parametrize("name", INTEGERS)
def test_an_integer_out_of_range_tells_the_limits(kp_device, name):
    provider = kp_device.provide("a", name)
    size = 8 * struct.calcsize({"8": "b", "6": "h", "2": "i", "4": "q"}[name[-1]])
    low = 0 if name.startswith("u") else -(2 ** (size - 1))

    @ANY
    @given(value=st.one_of(st.integers(max_value=low - 1), st.integers(min_value=low + 2**size)))
    def check(value):
        with pytest.raises(
            OverflowError, match=f"{name}, which holds {low} to {low + 2**size - 1}"
        ) as caught:
            provider.write(value)
        assert isinstance(caught.value, kp.Error)

    check()
    assert not provider.has_value


@pytest.mark.parametrize("name", INTEGERS)
def test_an_integer_takes_whole_floats_only(kp_device, name):
    provider = kp_device.provide("a", name)

    provider.write(3.0)

    assert same(provider.value, 3)
    for value in (math.nan, 0.5):
        with pytest.raises(kp.InvalidValueError):
            provider.write(value)
    with pytest.raises(OverflowError):
        provider.write(math.inf)
    assert provider.value == 3


@pytest.mark.parametrize(
    "name, value",
    [
        ("boolean", 1),
        ("int32", "1"),
        ("double", "1"),
        ("double", None),
        ("string", 1),
        ("raw", "text"),
        ("raw", [1, 2]),
        ("bytearray", 5),
    ],
)
def test_a_value_of_another_kind_is_a_type_error(kp_device, name, value):
    provider = kp_device.provide("a", name)

    with pytest.raises(TypeError, match=f"{name} takes") as caught:
        provider.write(value)

    assert isinstance(caught.value, kp.Error)
    assert not provider.has_value


@pytest.mark.parametrize(
    "name, value", [("string", ""), ("raw", b""), ("string", "x" * 4001), ("raw", bytes(4001))]
)
def test_a_value_of_a_wrong_size_tells_the_limits(kp_device, name, value):
    provider = kp_device.provide("a", name)

    with pytest.raises(ValueError, match=f"{len(value)} bytes, where 1 to 4000 are declared"):
        provider.write(value)


def test_the_declared_size_is_the_limit(kp_device):
    provider = kp_device.provider.provide("a", "string", size=3)
    provider.write("abc")

    with pytest.raises(ValueError, match="1 to 3"):
        provider.write("abcd")

    assert provider.value == "abc"


def test_a_float_beyond_32_bits_overflows(kp_device):
    provider = kp_device.provide("a", "float")

    with pytest.raises(OverflowError, match="3.4e38"):
        provider.write(1e39)
    with pytest.raises(OverflowError):
        provider.write(10**400)
    provider.write(math.inf)

    assert provider.value == math.inf


def test_a_string_that_is_not_utf8_comes_as_bytes_with_a_flag(kp_device):
    provider = kp_device.provide("a", "string", b"\xff\xfe")

    reading = provider.read()

    assert reading.value == b"\xff\xfe"
    assert not reading.is_text
    provider.write("ö")
    assert provider.read().is_text


def test_a_surrogate_is_no_text(kp_device):
    with pytest.raises(kp.InvalidValueError, match="surrogate"):
        kp_device.provide("a", "string").write("\ud800")


@pytest.mark.parametrize("kind", [float, int, str, bytes, bool, "float64", "Double", "", None, 10])
def test_a_type_is_a_name_of_the_library(kp_device, kind):
    with pytest.raises(TypeError, match="'boolean', 'int8'.*'raw'") as caught:
        kp_device.provider.provide("a", kind)

    assert isinstance(caught.value, kp.Error)
    assert ("how many bytes" in str(caught.value)) == isinstance(kind, type)


def test_anything_with_a_buffer_is_bytes(kp_device):
    provider = kp_device.provide("a", "raw")

    provider.write(bytearray(b"ab"))
    assert provider.value == b"ab"
    provider.write(memoryview(b"abcd")[::2])
    assert provider.value == b"ac"


def test_bytes_are_an_array_when_numpy_is_there(kp_device):
    numpy = pytest.importorskip("numpy")
    provider = kp_device.provide("cam/roi", "raw")

    provider.write(numpy.array([1, 2, 65535], "uint16"))

    array = kp_device.watcher.consume("cam/roi").numpy("uint16")
    assert array.tolist() == [1, 2, 65535]
    assert not array.flags.writeable
    assert provider.read().numpy("<u2").tolist() == [1, 2, 65535]
    with pytest.raises(ValueError, match="6 bytes are no whole number"):
        provider.numpy("uint32")


def test_numpy_scalars_are_numbers(kp_device):
    numpy = pytest.importorskip("numpy")

    assert kp_device.provide("a", "double", numpy.float64(1.5)).value == 1.5
    assert kp_device.provide("b", "int16", numpy.int64(-7)).value == -7
    assert kp_device.provide("c", "boolean", numpy.bool_(True)).value is True


def test_numpy_is_imported_on_demand_only(kp_device, run_python):
    result = run_python("import sys, zu_kp; print('numpy' in sys.modules)")

    assert result.stdout == "False\n"

"""What the extension module makes with Python's own libraries: times and arrays."""

from __future__ import annotations

import datetime
from typing import TYPE_CHECKING, Any, Union

from ._errors import InvalidValueError, RangeError, TypeMismatchError

if TYPE_CHECKING:
    import numpy
    import numpy.typing

_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_MICROSECOND = datetime.timedelta(microseconds=1)
_MOST = 2**64 - 1


def as_datetime(microseconds: int) -> datetime.datetime:
    """The aware time (UTC) that lies so long after the Unix epoch."""
    try:
        return _EPOCH + datetime.timedelta(microseconds=microseconds)
    except OverflowError:
        raise RangeError(f"{microseconds} us lie beyond the year 9999") from None


def as_microseconds(time: Union[int, datetime.datetime]) -> int:
    """Microseconds from the Unix epoch to an aware time, or an int as it is."""
    if isinstance(time, datetime.datetime):
        if time.tzinfo is None:
            raise InvalidValueError("a source_time needs a time zone")
        time = (time - _EPOCH) // _MICROSECOND
    if not isinstance(time, int):
        raise TypeMismatchError("a source_time is an aware datetime, or microseconds as an int")
    if not 0 <= time <= _MOST:
        raise RangeError(f"a source_time is 0 to {_MOST} microseconds")
    return time


def as_array(data: bytes, dtype: numpy.typing.DTypeLike) -> numpy.ndarray[Any, numpy.dtype[Any]]:
    """The bytes as a read-only array. Imports numpy when it is first called."""
    import numpy  # pylint: disable=import-outside-toplevel

    item = numpy.dtype(dtype)
    if item.itemsize == 0 or len(data) % item.itemsize:
        raise InvalidValueError(f"{len(data)} bytes are no whole number of items of {item}")
    return numpy.frombuffer(data, item)

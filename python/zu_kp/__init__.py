"""Tags: named latest values between the processes of one device.

Look at what is there, which joins nothing and needs permission to read only:

    import zu_kp as kp
    kp.get("plant/oven/temperature").value
    kp.list("plant/#")
    kp.describe("plant/oven/temperature")["unit"]

Take part, in asyncio or without it:

    async with kp.Node("logger") as node:
        await node.provide("plant/oven/setpoint", "double").write(180.0)
        async for change in node.watch("plant/#"):
            print(change.topic, change.value, change.quality, change.source_time)

    with kp.Node("reader") as node:
        level = node.consume("plant/tank/level")
        for change in node.watch("plant/#", timeout=5):
            print(change.topic, change.value, level.value)

Types are the library's names (kp.TYPES); values are bool, int, float, str and bytes. Times are
microseconds since the Unix epoch (int) and aware datetimes. Every failure is a kp.Error, and the
built-in exception that fits.
"""

from ._dictionary import describe
from ._errors import (
    AccessError,
    BusyError,
    ClosedError,
    CorruptError,
    Error,
    ForkedError,
    InvalidValueError,
    LimitError,
    NotFoundError,
    NoValueError,
    RangeError,
    TopicError,
    TypeMismatchError,
)
from ._native import TYPES, Consumer, Notice, Provider, Reading, get, list
from ._node import Node, Watch

__all__ = [
    "AccessError",
    "BusyError",
    "ClosedError",
    "Consumer",
    "CorruptError",
    "Error",
    "ForkedError",
    "InvalidValueError",
    "LimitError",
    "Node",
    "NotFoundError",
    "NoValueError",
    "Notice",
    "Provider",
    "RangeError",
    "Reading",
    "TYPES",
    "TopicError",
    "TypeMismatchError",
    "Watch",
    "describe",
    "get",
    "list",
]

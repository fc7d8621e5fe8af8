#!/usr/bin/env python3
"""run.py LIBRARY: measures the Python package beside cffi and ctypes on the same library.

Needs a sandbox and PYTHONPATH, as `bench/python/run` sets them. All that is compared takes turns within
one run, so that what else the machine does meets each alike. Prints a table.
"""

import asyncio
import ctypes
import os
import statistics
import subprocess
import sys
import time
import timeit
from typing import Any, Callable, Dict, List

import cffi
import zu_kp as kp

ROUNDS = 300
LOOPS = 1_000

DECLARATIONS = """
typedef struct kp_t kp_t;
typedef struct kp_tag_t kp_tag_t;
kp_t *kp_new(const char *, void *);
kp_tag_t *kp_tag_provider_new(kp_t *, const char *, uint32_t, uint32_t, uint32_t);
kp_tag_t *kp_tag_consumer_new(kp_t *, const char *);
int32_t kp_tag_write(kp_t *, kp_tag_t *, const void *, uint32_t);
int32_t kp_tag_read(kp_tag_t *, void *, uint32_t);
int32_t kp_tag_read_consistent(kp_tag_t *, void *, uint32_t, uint32_t *, uint64_t *, uint64_t *);
"""

WRITER = """
import signal, sys, time, zu_kp as kp
signal.signal(signal.SIGTERM, lambda *_: sys.exit())  # closes the node: nothing dead is left
topics, rate = int(sys.argv[1]), float(sys.argv[2])
with kp.Node() as node:
    tags = [node.provide(f"bench/{number}", "int64") for number in range(topics)]
    next_time = time.monotonic()
    while True:
        next_time += 1 / rate
        time.sleep(max(0, next_time - time.monotonic()))
        with node.batch():
            for tag in tags:
                tag.write(time.monotonic_ns())
"""


def through_cffi(library: str) -> Dict[str, Any]:
    """A provider and a consumer by way of cffi."""
    ffi = cffi.FFI()
    ffi.cdef(DECLARATIONS)
    lib = ffi.dlopen(library)
    handle = lib.kp_new(b"bench-cffi", ffi.NULL)
    return {
        "lib": lib,
        "handle": handle,
        "tag": lib.kp_tag_provider_new(handle, b"cffi", 10, 8, 0),
        "reader": lib.kp_tag_consumer_new(handle, b"cffi"),
        "buffer": ffi.new("double *"),
        "quality": ffi.new("uint32_t *"),
        "times": ffi.new("uint64_t[2]"),
    }


def through_ctypes(library: str) -> Dict[str, Any]:
    """The same by way of ctypes."""
    lib = ctypes.CDLL(library)
    pointer, number = ctypes.c_void_p, ctypes.c_uint32
    for name, result, arguments in (
        ("kp_new", pointer, [ctypes.c_char_p, pointer]),
        ("kp_tag_provider_new", pointer, [pointer, ctypes.c_char_p, number, number, number]),
        ("kp_tag_consumer_new", pointer, [pointer, ctypes.c_char_p]),
        ("kp_tag_write", ctypes.c_int32, [pointer, pointer, pointer, number]),
        ("kp_tag_read", ctypes.c_int32, [pointer, pointer, number]),
        ("kp_tag_read_consistent", ctypes.c_int32, [pointer, pointer, number, pointer, pointer, pointer]),
    ):
        function = getattr(lib, name)
        function.restype, function.argtypes = result, arguments
    handle = lib.kp_new(b"bench-ctypes", None)
    buffer = ctypes.c_double()
    return {
        "lib": lib,
        "handle": handle,
        "tag": lib.kp_tag_provider_new(handle, b"ctypes", 10, 8, 0),
        "reader": lib.kp_tag_consumer_new(handle, b"ctypes"),
        "buffer": buffer,
        "at": ctypes.byref(buffer),
        "quality": ctypes.byref(ctypes.c_uint32()),
        "time": ctypes.byref(ctypes.c_uint64()),
        "source": ctypes.byref(ctypes.c_uint64()),
    }


def values(library: str) -> Dict[str, float]:
    """Nanoseconds of each way, without those of the loop around it."""
    with kp.Node("bench-values") as node, node.batch():
        provider = node.provide("own", "double")
        own = {"provider": provider, "consumer": node.consume("own")}
        by_cffi, by_ctypes = through_cffi(library), through_ctypes(library)
        ways = {
            "loop": timeit.Timer("pass"),
            "write: zu_kp": timeit.Timer("provider.write(2.5)", globals=own),
            "write: cffi": timeit.Timer(
                "buffer[0] = 2.5; lib.kp_tag_write(handle, tag, buffer, 8)", globals=by_cffi
            ),
            "write: ctypes": timeit.Timer(
                "buffer.value = 2.5; lib.kp_tag_write(handle, tag, at, 8)", globals=by_ctypes
            ),
            "read: zu_kp": timeit.Timer("consumer.value", globals=own),
            "read: cffi": timeit.Timer("lib.kp_tag_read(reader, buffer, 8); buffer[0]", globals=by_cffi),
            "read: cffi, consistent": timeit.Timer(
                "lib.kp_tag_read_consistent(reader, buffer, 8, quality, times, times + 1); buffer[0]",
                globals=by_cffi,
            ),
            "read: ctypes": timeit.Timer("lib.kp_tag_read(reader, at, 8); buffer.value", globals=by_ctypes),
            "read: ctypes, consistent": timeit.Timer(
                "lib.kp_tag_read_consistent(reader, at, 8, quality, time, source); buffer.value",
                globals=by_ctypes,
            ),
        }
        provider.write(1.5)
        taken: Dict[str, List[float]] = {name: [] for name in ways}
        for _ in range(ROUNDS):
            for name, timer in ways.items():
                taken[name].append(timer.timeit(LOOPS) / LOOPS * 1e9)
    best = {name: min(times) for name, times in taken.items()}
    loop = best.pop("loop")
    return {name: time_ns - loop for name, time_ns in best.items()}


class Writer:
    """A process that writes the time into so many topics, so often a second."""

    def __init__(self, topics: int, rate: float) -> None:
        """Starts it."""
        self._child = subprocess.Popen([sys.executable, "-c", WRITER, str(topics), str(rate)])

    def __enter__(self) -> None:
        """Waits for the first topic."""
        while "bench/0" not in kp.list():
            time.sleep(0.01)

    def __exit__(self, *_: object) -> None:
        """Stops it."""
        self._child.terminate()
        self._child.wait()


async def bare_hops(count: int) -> List[int]:
    """Nanoseconds from a write to a callback of add_reader that reads the value."""
    hops: List[int] = []
    async with kp.Node("bench-bare") as node:
        consumer = node.consume("bench/0")
        loop = asyncio.get_running_loop()
        done = loop.create_future()

        def ready() -> None:
            node._dispatch()  # takes the notice, and nothing else without a watch
            hops.append(time.monotonic_ns() - consumer.value)
            if len(hops) == count:
                loop.remove_reader(node.fileno())
                done.set_result(None)

        loop.add_reader(node.fileno(), ready)
        await done
    return hops[5:]


async def watched_hops(count: int) -> List[int]:
    """The same to the body of an async for."""
    hops: List[int] = []
    async with kp.Node("bench-watch") as node:
        async for change in node.watch("bench/0", initial=False):
            hops.append(time.monotonic_ns() - change.value)
            if len(hops) == count:
                break
    return hops[5:]


def hops() -> Dict[str, float]:
    """The medians in microseconds, both ways taking turns."""
    taken: Dict[str, List[int]] = {"hop: add_reader": [], "hop: async for": []}
    ways: Dict[str, Callable[[int], Any]] = {"hop: add_reader": bare_hops, "hop: async for": watched_hops}
    with Writer(1, 500):
        for _ in range(6):
            for name, way in ways.items():
                taken[name] += asyncio.run(way(200))
    return {name: statistics.median(times) / 1000 for name, times in taken.items()}


async def follow(seconds: float) -> Dict[str, float]:
    """The part of a core that following 100 topics takes, and the changes seen a second."""
    seen = 0
    async with kp.Node("bench-load") as node:
        before = time.process_time()
        async for _ in node.watch("bench/#", timeout=seconds):
            seen += 1
        used = time.process_time() - before
    return {"load: percent of a core": used / seconds * 100, "load: changes a second": seen / seconds}


def rounds(count: int) -> Dict[str, float]:
    """What so many rounds of open, watch and close leave behind."""

    def one() -> None:
        with kp.Node("bench-round") as node, node.watch("own") as watch:
            watch.take()

    def held() -> List[int]:
        return [len(os.listdir("/proc/self/task")), len(os.listdir("/proc/self/fd"))]

    for _ in range(5):
        one()
    before = held()
    for _ in range(count):
        one()
    left = [after - start for after, start in zip(held(), before)]
    return {"rounds": count, "rounds: threads left": left[0], "rounds: descriptors left": left[1]}


def main() -> None:
    """Measures and prints."""
    result = {**values(sys.argv[1]), **hops()}
    with Writer(100, 100):
        result.update(asyncio.run(follow(5)))
    result.update(rounds(int(os.environ.get("KP_PYTHON_ROUNDS", "1000"))))
    for name, number in result.items():
        print(f"{name:30} {number:10.1f}")
    for kind, others in (
        ("read", ("cffi", "cffi, consistent", "ctypes", "ctypes, consistent")),
        ("write", ("cffi", "ctypes")),
    ):
        for other in others:
            ratio = result[f"{kind}: {other}"] / result[f"{kind}: zu_kp"]
            print(f"{kind + ' beside ' + other:30} {ratio:10.2f} times")
    print(
        f"{'async for beside add_reader':30} {result['hop: async for'] / result['hop: add_reader']:10.2f} times"
    )


if __name__ == "__main__":
    main()

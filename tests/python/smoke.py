"""What every version of Python has to do with the one file: run by versions_test.py, needs nothing else."""

import asyncio
import os
import sys
import threading
import time

import zu_kp as kp

VALUES = {
    "boolean": True,
    "int8": -128,
    "int16": 32767,
    "int32": -1,
    "int64": 2**63 - 1,
    "uint8": 255,
    "uint16": 65535,
    "uint32": 2**32 - 1,
    "uint64": 2**64 - 1,
    "float": 0.5,
    "double": 1e300,
    "string": "ö" * 100,
    "bytearray": b"\0\1",
    "raw": bytes(4000),
}


def expect(kind, call):
    """The call raises an exception of this kind that is a kp.Error too."""
    try:
        call()
    except kind as error:
        assert isinstance(error, kp.Error), repr(error)
    else:
        raise AssertionError(f"no {kind.__name__}")


async def follow() -> None:
    """Ten changes by way of asyncio."""
    async with kp.Node("a") as node, kp.Node("b") as other:
        provider = other.provide("async/x", "int32")
        await provider.write(0)
        seen = []
        async for change in node.watch("async/#", timeout=20):
            seen.append(change.value)
            if len(seen) == 10:
                break
            await provider.write(len(seen))
    assert seen == list(range(10)), seen


def main() -> None:
    """Types, errors, watches, threads and fork."""
    with kp.Node("provider") as node, kp.Node("watcher") as watcher:
        # It is kept, since a topic goes with its last user.
        providers = {name: node.provide("values/" + name, name) for name in VALUES}
        for name, value in VALUES.items():
            providers[name].write(value, quality=2, source_time=7)
            for reading in (kp.get("values/" + name), watcher.consume("values/" + name).read()):
                assert (reading.value, reading.quality, reading.source_time_us) == (value, 2, 7)
        present = sorted(c.topic for c in watcher.watch("values/#", timeout=0))
        assert present == sorted("values/" + name for name in VALUES), present
        small = node.provide("small", "int8")
        expect(OverflowError, lambda: small.write(128))
        expect(ValueError, lambda: small.write(float("nan")))
        expect(TypeError, lambda: small.write("1"))
        expect(TypeError, lambda: node.provide("other", float))
        expect(FileNotFoundError, lambda: kp.get("no/such"))

        ended = threading.Event()
        watch = watcher.watch("never/#")
        threading.Thread(target=lambda: (list(watch), ended.set())).start()
        time.sleep(0.1)
        watch.close()
        assert ended.wait(10)

        child = os.fork()
        if child == 0:
            expect(kp.ForkedError, lambda: small.write(1))
            os._exit(0)
        assert os.waitpid(child, 0)[1] == 0
    asyncio.run(follow())
    print("done", sys.version_info[:2])


main()

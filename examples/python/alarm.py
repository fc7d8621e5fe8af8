#!/usr/bin/env python3
"""An asyncio consumer: two tasks on one node, of which one watches and one looks.

    alarm.py LIMIT [SECONDS]

Provides plant/oven/alarm, which is true while plant/oven/temperature is above the limit, and prints
once a second how the tank stands.
"""

import asyncio
import contextlib
import sys

import zu_kp as kp


async def guard(node: kp.Node, limit: float) -> None:
    """Raises and ends the alarm."""
    alarm = node.provide("plant/oven/alarm", "boolean")
    await alarm.write(False)
    async for change in node.watch("plant/oven/temperature"):
        is_hot = change.value > limit
        if is_hot != alarm.value:
            await alarm.write(is_hot)
            state = "ALARM" if is_hot else "ok"
            print(f"{change.time:%H:%M:%S} {state} at {change.value} degrees", flush=True)


async def report(node: kp.Node) -> None:
    """Prints the level once a second."""
    level = node.consume("plant/tank/level")
    while True:
        with contextlib.suppress(kp.NoValueError, kp.BusyError):
            print(f"the tank is {level.value:.0f} % full", flush=True)
        await asyncio.sleep(1)


async def main() -> None:
    """Runs both for so long."""
    limit = float(sys.argv[1])
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else None
    async with kp.Node() as node:
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(asyncio.gather(guard(node, limit), report(node)), seconds)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    with contextlib.suppress(KeyboardInterrupt):
        asyncio.run(main())

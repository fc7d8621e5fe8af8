#!/usr/bin/env python3
"""A small plant to try things on: an oven that follows its setpoint, a tank that fills, a camera.

    plant.py [SECONDS]

Provides plant/oven/temperature, plant/oven/heating, plant/tank/level and cam/roi; reads
plant/oven/setpoint, which anybody may provide. Ends after so many seconds, or with Ctrl-C.
"""

import array
import contextlib
import math
import sys
import time

import zu_kp as kp

STEP = 0.05  # seconds


def setpoint(consumer: kp.Consumer) -> float:
    """What somebody asks for, or 20 degrees."""
    with contextlib.suppress(kp.NoValueError, kp.BusyError):
        return float(consumer.value)
    return 20.0


def main() -> None:
    """Steps the plant."""
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else math.inf
    end = time.monotonic() + seconds
    with kp.Node() as node:
        temperature = node.provide("plant/oven/temperature", "double")
        heating = node.provide("plant/oven/heating", "boolean")
        level = node.provide("plant/tank/level", "float")
        image = node.provide("cam/roi", "raw", size=64)
        wanted = node.consume("plant/oven/setpoint")
        now = 20.0
        while time.monotonic() < end:
            target = setpoint(wanted)
            now += (target - now) * STEP
            with node.batch():  # one notice for all four
                temperature.write(round(now, 3))
                heating.write(now < target - 0.5)
                level.write(50 + 50 * math.sin(time.monotonic()))
                image.write(array.array("H", (int(now * 10) + pixel for pixel in range(32))))
            time.sleep(STEP)


if __name__ == "__main__":
    with contextlib.suppress(KeyboardInterrupt):
        main()

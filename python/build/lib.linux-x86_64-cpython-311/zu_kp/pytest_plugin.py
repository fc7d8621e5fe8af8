"""A device of its own for each test: the fixture ``kp_device``.

Run the tests in a sandbox, ``kp sandbox -- pytest``: outside of one the tests that use the fixture are
skipped, so that none touches the machine's own tags.
"""

from __future__ import annotations

import os
import shutil
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

import zu_kp as kp

_STORE = Path("/dev/shm/zu-kp")
_OUTSIDE = "this test needs a store of its own; run: kp sandbox -- pytest"


def in_sandbox() -> bool:
    """Says whether this process runs in a sandbox: KP_SANDBOX has the name of its mount namespace."""
    try:
        return os.readlink("/proc/self/ns/mnt") == os.environ.get("KP_SANDBOX")
    except OSError:
        return False


def _empty_store() -> None:
    """Removes every topic that an earlier test has left."""
    if not _STORE.is_dir():
        return
    for entry in _STORE.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry)
        else:
            entry.unlink()


class Device:
    """An empty store with a provider and a watcher ready to use. Made by the fixture ``kp_device``."""

    def __init__(self, provider: kp.Node, watcher: kp.Node) -> None:
        """Takes two open nodes."""
        self.provider = provider
        self.watcher = watcher
        self._providers: dict[str, kp.Provider] = {}

    def provide(
        self, topic: str, type: str, value: Any = None
    ) -> kp.Provider:  # pylint: disable=redefined-builtin
        """Declares a topic, and writes its first value when one is given."""
        made = self._providers[topic] = self.provider.provide(topic, type)
        if value is not None:
            made.write(value)
        return made

    def write(self, topic: str, value: Any, quality: int = 1) -> None:
        """Writes a topic that provide() has declared."""
        self._providers[topic].write(value, quality=quality)

    def get(self, topic: str) -> kp.Reading:
        """The latest value; see kp.get()."""
        return kp.get(topic)

    def wait_for(self, topic: str, value: Any, timeout: float = 1) -> kp.Reading:
        """Waits until a topic has a value, and gives it; fails the test after ``timeout`` seconds."""
        # A value is found by the watch, or by the looks beside it when its writer sends no notice.
        deadline = time.monotonic() + timeout
        last = "never had a value"
        while True:
            left = deadline - time.monotonic()
            try:
                reading = kp.get(topic)
                if reading.value == value:
                    return reading
                last = f"is {reading.value!r}"
            except (kp.NotFoundError, kp.NoValueError):
                pass
            if left <= 0:
                pytest.fail(f"{topic} is not {value!r} after {timeout} s: it {last}")
            with self.watcher.watch(topic, timeout=min(left, 0.05), initial=False) as watch:
                next(iter(watch), None)


@pytest.fixture
def kp_device() -> Iterator[Device]:
    """An empty store with a provider and a watcher (Device); skips the test outside of a sandbox."""
    if not in_sandbox():
        pytest.skip(_OUTSIDE)
    _empty_store()
    with kp.Node("kp-device-provider") as provider, kp.Node("kp-device-watcher") as watcher:
        yield Device(provider, watcher)
    _empty_store()

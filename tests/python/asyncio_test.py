"""Nodes and watches in asyncio."""

import asyncio
import os
import select
import time

import pytest
import zu_kp as kp

pytestmark = pytest.mark.asyncio


async def test_a_write_awaited_reaches_a_watch(kp_device):
    async with kp.Node("logger") as node, kp.Node("oven") as oven:
        setpoint = oven.provide("plant/oven/setpoint", "double")
        await setpoint.write(180.0)
        seen = []
        async for change in node.watch("plant/#", timeout=20):
            seen.append((change.topic, change.value, change.quality))
            if len(seen) == 3:
                break
            await setpoint.write(180.0 + len(seen))

    assert seen == [("plant/oven/setpoint", value, 1) for value in (180.0, 181.0, 182.0)]


async def test_a_write_sends_its_notice_when_it_is_awaited(kp_device):
    async with kp.Node("a") as node:
        provider = node.provide("a", "int8")
        first = provider.write(1)
        provider.write(2)
        assert kp.get("a").value == 2
        assert node._is_marked

        await first

        assert not node._is_marked
        watch = kp_device.watcher.watch("a")
        assert watch.take().value == 2


async def test_the_timeout_ends_the_iteration(kp_device):
    async with kp.Node("a") as node:
        started = time.monotonic()
        assert [change async for change in node.watch("#", timeout=0.1)] == []
        assert time.monotonic() - started < 5


async def test_what_is_there_comes_whatever_the_timeout(kp_device):
    for number in range(100):
        kp_device.provide(f"a/{number}", "int8", number)

    async with kp.Node("a") as node:
        changes = [change.value async for change in node.watch("a/#", timeout=0)]

    assert sorted(changes) == list(range(100))


async def test_tasks_watch_side_by_side(kp_device):
    provider = kp_device.provide("a/b", "int8", 0)

    async def follow(node, pattern):
        values = []
        async for change in node.watch(pattern, timeout=20):
            values.append(change.value)
            if change.value == 3:
                return values
        return values

    async with kp.Node("a") as node:
        tasks = [asyncio.create_task(follow(node, pattern)) for pattern in ("a/#", "+/b", "a/b")]
        for value in (1, 2, 3):
            await asyncio.sleep(0.02)
            provider.write(value)
        for values in await asyncio.gather(*tasks):
            assert values[-1] == 3
            assert values == sorted(set(values))


@pytest.mark.parametrize("end", ["watch", "node"])
async def test_an_iteration_ends_with_close(kp_device, end):
    node = kp.Node("closing")
    await node.__aenter__()
    watch = node.watch("#")

    async def follow():
        return [change async for change in watch]

    task = asyncio.create_task(follow())
    await asyncio.sleep(0.05)
    started = time.monotonic()
    (watch if end == "watch" else node).close()

    assert await asyncio.wait_for(task, 10) == []
    assert time.monotonic() - started < 1
    node.close()


async def test_a_cancelled_iteration_can_go_on(kp_device):
    provider = kp_device.provide("a", "int8")
    async with kp.Node("a") as node:
        watch = node.watch("a")
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(watch.__anext__(), 0.05)

        provider.write(1)

        assert (await asyncio.wait_for(watch.__anext__(), 20)).value == 1


async def test_one_watch_has_one_waiting_task(kp_device):
    async with kp.Node("a") as node:
        watch = node.watch("a")
        task = asyncio.create_task(watch.__anext__())
        await asyncio.sleep(0.01)
        with pytest.raises(RuntimeError, match="another task"):
            await watch.__anext__()
        task.cancel()


async def test_opening_fails_as_without_asyncio(kp_device):
    with pytest.raises(OSError) as caught:
        async with kp.Node("no/name"):
            pass
    assert isinstance(caught.value, kp.Error)


async def test_opening_does_not_hold_up_the_loop(kp_device):
    turns = 0

    async def count():
        nonlocal turns
        while True:
            turns += 1
            await asyncio.sleep(0)

    counting = asyncio.create_task(count())
    await asyncio.sleep(0)
    before = turns
    async with kp.Node("a"):
        assert turns > before
    counting.cancel()


async def test_a_cancelled_opening_leaves_nothing(kp_device):
    before = sorted(os.listdir("/run/providers"))

    async def use():
        async with kp.Node("given-up"):
            pass

    task = asyncio.create_task(use())
    await asyncio.sleep(0)
    task.cancel()
    with pytest.raises(asyncio.CancelledError):
        await task
    for _ in range(3000):
        if sorted(os.listdir("/run/providers")) == before:
            break
        await asyncio.sleep(0.01)
    assert sorted(os.listdir("/run/providers")) == before


async def test_another_loop_may_wait_for_the_descriptor(kp_device):
    """What trio and anyio do: wait for fileno(), then take()."""
    provider = kp_device.provide("a", "int8")
    watch = kp_device.watcher.watch("a", initial=False)
    assert watch.take() is None

    # The peers may not be connected yet, so nobody may hear of the first write.
    for value in range(100):
        provider.write(value)
        if select.select([kp_device.watcher], [], [], 0.2)[0]:
            break

    assert watch.take().value == value
    assert watch.take() is None

"""What ends: nodes that are forgotten, processes that fork, interpreters that exit; and what is left."""

import asyncio
import gc
import logging
import os
import sys
import time
import tracemalloc
import warnings

import pytest
import zu_kp as kp
from conftest import settled_at, settled_descriptors, threads


def test_a_forgotten_node_is_closed_with_a_warning(kp_device):
    before = threads(), settled_descriptors()
    node = kp.Node("forgotten").open()
    assert threads() > before[0]

    with pytest.warns(ResourceWarning, match="unclosed <zu_kp.Node 'forgotten' open>"):
        del node
        gc.collect()

    assert settled_at(before) == before
    assert "forgotten" not in os.listdir("/run/providers")


def test_a_node_in_a_cycle_is_found(kp_device):
    node = kp.Node("cycle").open()
    node.mine = [node, node.provide("a", "int8"), node.watch("a")]

    with pytest.warns(ResourceWarning, match="unclosed"):
        del node
        gc.collect()

    assert "cycle" not in os.listdir("/run/providers")


def test_a_closed_node_is_forgotten_in_silence(kp_device):
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        node = kp.Node("closed").open()
        node.close()
        del node
        gc.collect()


def test_a_tag_keeps_its_node(kp_device):
    node = kp.Node("kept").open()
    provider = node.provide("a", "int8")
    held = node
    del node
    gc.collect()

    provider.write(5)

    assert kp.get("a").value == 5
    held.close()


def test_the_child_of_a_fork_is_told(kp_device):
    provider = kp_device.provide("a", "int8", 1)
    consumer = kp_device.watcher.consume("a")
    watch = kp_device.watcher.watch("a")
    read_end, write_end = os.pipe()
    child = os.fork()
    if child == 0:
        answers = []
        for use in (lambda: provider.write(2), consumer.read, kp_device.provider.notify, watch.__next__):
            try:
                use()
                answers.append("none")
            except kp.ForkedError:
                answers.append("forked")
            except StopIteration:
                answers.append("stop")
        kp_device.provider.close()
        with kp.Node("child"):
            answers.append(str(kp.get("a").value))
        os.write(write_end, " ".join(answers).encode())
        os._exit(0)
    os.close(write_end)
    with os.fdopen(read_end) as pipe:
        told = pipe.read()
    assert os.waitpid(child, 0)[1] == 0

    assert told == "forked forked forked forked 1"
    assert {"kp-device-provider", "kp-device-watcher"} <= set(os.listdir("/run/providers"))
    provider.write(3)
    assert consumer.value == 3


@pytest.mark.parametrize("kind", ["thread", "daemon"])
def test_the_interpreter_ends_though_a_thread_iterates(kp_device, run_python, kind):
    text = f"""
import threading, time, zu_kp as kp
node = kp.Node("exit").open()
thread = threading.Thread(target=lambda: list(node.watch("#")), daemon={kind == "daemon"})
thread.start()
time.sleep(0.2)
print(time.monotonic())
"""
    result = run_python(text)

    assert result.returncode == 0, result.stderr
    assert time.monotonic() - float(result.stdout) < 5
    assert "exit" not in os.listdir("/run/providers")
    assert result.stderr == ""


def test_the_interpreter_ends_though_a_loop_was_left(kp_device, run_python):
    text = """
import asyncio, time, zu_kp as kp
async def main():
    node = kp.Node("loop")
    await node.__aenter__()
    async def follow():
        async for _ in node.watch("#"):
            pass
    asyncio.ensure_future(follow())
    await asyncio.sleep(0.05)
    return node
node = asyncio.run(main())
print(time.monotonic())
"""
    result = run_python(text)

    assert result.returncode == 0, result.stderr
    assert time.monotonic() - float(result.stdout) < 5
    assert "loop" not in os.listdir("/run/providers")


def test_no_python_runs_on_the_librarys_threads(kp_device):
    seen = set()
    provider = kp_device.provide("a", "int8")
    watch = kp_device.watcher.watch("a", timeout=20)

    def note(frame, event, argument):
        seen.add(__import__("threading").get_ident())

    import threading

    threading.setprofile(note)
    sys.setprofile(note)
    try:
        for value in range(20):
            provider.write(value)
            next(watch)
    finally:
        sys.setprofile(None)
        threading.setprofile(None)

    assert seen == {threading.get_ident()}


def test_rounds_leave_no_thread_descriptor_or_reference(kp_device, caplog):
    # On a busy machine asyncio warns of slow steps, and pytest keeps each warning.
    caplog.set_level(logging.ERROR, logger="asyncio")
    rounds = int(os.environ.get("KP_PYTHON_ROUNDS", "30"))
    kp_device.provide("a/b", "int8", 1)

    def one():
        with kp.Node("round") as node:
            with node.watch("#") as watch:
                assert next(watch).value == 1

    async def one_more():
        async with kp.Node("round") as node:
            async for change in node.watch("#"):
                assert change.value == 1
                break

    for _ in range(3):
        one()
        asyncio.run(one_more())
    gc.collect()
    tracemalloc.start()
    before = threads(), settled_descriptors(), len(gc.get_objects()), tracemalloc.get_traced_memory()[0]
    for _ in range(rounds):
        one()
        asyncio.run(one_more())
    gc.collect()
    after = len(gc.get_objects()), tracemalloc.get_traced_memory()[0]
    tracemalloc.stop()

    assert settled_at(before[:2]) == before[:2]
    assert after[0] - before[2] < 50
    assert after[1] - before[3] < 20_000

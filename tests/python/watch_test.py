"""Watches without asyncio: newest values, no queue, and an end that comes in time."""

import itertools
import os
import signal
import subprocess
import sys
import threading
import time

import pytest
import zu_kp as kp

PROVIDER = """
import sys, time, zu_kp as kp
with kp.Node() as node:
    tags = [node.provide(topic, "double") for topic in sys.argv[1].split(",")]
    print("ready", flush=True)
    for line in sys.stdin:
        for tag in tags:
            tag.write(float(line))
        print("written", flush=True)
"""


@pytest.fixture
def provider_process():
    """A provider in a process of its own: call it with a value to have it written."""
    started = []

    def start(*topics):
        child = subprocess.Popen(
            [sys.executable, "-c", PROVIDER, ",".join(topics)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        started.append(child)
        assert child.stdout.readline() == "ready\n"

        def write(value):
            child.stdin.write(f"{value}\n")
            child.stdin.flush()
            assert child.stdout.readline() == "written\n"

        write.pid = child.pid
        return write

    yield start
    for child in started:
        child.stdin.close()
        child.wait(30)
        child.stdout.close()


def test_changes_of_another_process_arrive(kp_device, provider_process):
    write = provider_process("plant/a")
    watch = kp_device.watcher.watch("plant/#", timeout=20)
    for value in (1.0, 2.0, 3.0):
        write(value)
        assert next(watch).value == value


def test_what_is_there_comes_first_unless_unwanted(kp_device):
    kp_device.provide("a/b", "int8", 1)
    kp_device.provide("a/c", "int8")

    assert [c.value for c in kp_device.watcher.watch("a/#", timeout=0.1)] == [1]
    assert not list(kp_device.watcher.watch("a/#", timeout=0.1, initial=False))


def test_a_topic_that_comes_later_is_followed(kp_device, provider_process):
    watch = kp_device.watcher.watch("late/#", timeout=20)
    write = provider_process("late/a", "other/b")

    write(5)

    assert next(watch).topic == "late/a"
    assert watch.take() is None


def test_a_topic_that_nobody_announces_is_found(kp_device):
    program = os.environ["KP_PROGRAM"]
    watch = kp_device.watcher.watch("x/#", timeout=20)
    assert watch.take() is None

    def set_again():
        for value in range(100):
            subprocess.run(
                [program, "set", "x/y", str(value), "--type", "double"], check=True, stdout=subprocess.DEVNULL
            )
            if found.wait(0.1):
                return

    found = threading.Event()
    thread = threading.Thread(target=set_again)
    thread.start()
    change = next(watch)
    found.set()
    thread.join()

    assert change.topic == "x/y"


def test_nothing_is_queued_and_the_last_value_is_never_lost(kp_device):
    provider = kp_device.provide("a", "int32")
    watch = kp_device.watcher.watch("a", timeout=20)

    for value in range(2000):
        provider.write(value)

    seen = []
    while not seen or seen[-1] != 1999:
        seen.append(next(watch).value)
    assert len(seen) < 10
    assert seen == sorted(set(seen))
    time.sleep(0.05)
    assert watch.take() is None


def test_two_watches_of_one_node_both_see_a_change(kp_device):
    provider = kp_device.provide("a/b", "int8")
    first = kp_device.watcher.watch("a/#", timeout=20)
    second = kp_device.watcher.watch("+/b", timeout=20)

    provider.write(1)

    assert next(first).value == 1
    assert next(second).value == 1


def test_neighbours_and_old_values_are_not_reported(kp_device):
    providers = [kp_device.provide(f"a/{number}", "int32") for number in range(200)]
    watch = kp_device.watcher.watch("a/#", timeout=20)
    kp_device.watcher.watch("b/#")

    with kp_device.provider.batch():
        for number, provider in enumerate(providers):
            provider.write(number)
    seen = sorted(next(watch).value for _ in providers)

    assert seen == list(range(200))
    assert watch.take() is None


@pytest.mark.parametrize("pattern", ["", "a/../b", "a/" + "x" * 256])
def test_a_pattern_that_cannot_match_is_refused(kp_device, pattern):
    with pytest.raises(kp.TopicError):
        kp_device.watcher.watch(pattern)


def test_a_timeout_is_the_time_of_the_whole_iteration(kp_device):
    started = time.monotonic()

    assert not list(kp_device.watcher.watch("#", timeout=0.2))

    assert 0.2 <= time.monotonic() - started < 5


def test_what_is_there_comes_whatever_the_timeout(kp_device):
    for number in range(100):
        kp_device.provide(f"a/{number}", "int8", number)

    changes = list(kp_device.watcher.watch("a/#", timeout=0))
    late = kp_device.watcher.watch("a/#", timeout=0.01)
    time.sleep(0.02)

    assert sorted(change.value for change in changes) == list(range(100))
    assert sorted(change.value for change in late) == list(range(100))


def test_a_zero_timeout_waits_for_nothing(kp_device):
    kp_device.provide("a", "int8", 1)

    assert not list(kp_device.watcher.watch("#", timeout=0, initial=False))
    assert not list(kp_device.watcher.watch("b/#", timeout=0))


def test_a_timeout_ends_a_watch_of_what_changes_without_a_pause(kp_device, provider_process):
    write = provider_process("a")
    write(0)
    stop = threading.Event()
    values = itertools.count(1)
    writer = threading.Thread(target=lambda: [write(next(values)) for _ in iter(stop.is_set, True)])
    writer.start()
    try:
        assert list(kp_device.watcher.watch("a", timeout=0.1))
    finally:
        stop.set()
        writer.join()


@pytest.mark.parametrize("end", ["watch", "node"])
def test_an_iteration_in_a_thread_ends_with_close(kp_device, end):
    node = kp.Node("closing").open()
    watch = node.watch("#")
    ended = []
    thread = threading.Thread(target=lambda: ended.append(list(watch)))
    thread.start()
    time.sleep(0.1)

    started = time.monotonic()
    (watch if end == "watch" else node).close()
    thread.join(10)

    assert ended == [[]]
    assert time.monotonic() - started < 1
    node.close()


def test_waiting_lets_other_threads_run(kp_device):
    counted = 0
    done = threading.Event()

    def wait():
        list(kp_device.watcher.watch("#", timeout=0.3))
        done.set()

    thread = threading.Thread(target=wait)
    thread.start()
    while not done.is_set():
        counted += 1
    thread.join()

    assert counted > 1000


def test_a_blocked_read_lets_other_threads_run(kp_device):
    provider = kp_device.provide("a", "int8", 1)
    with open("/dev/shm/zu-kp/a", "r+b") as file:
        file.seek(42)
        file.write(b"\1")
    counted = 0
    done = threading.Event()

    def read():
        for _ in range(20):
            with pytest.raises(kp.BusyError):
                provider.read()
        done.set()

    thread = threading.Thread(target=read)
    thread.start()
    while not done.is_set():
        counted += 1
    thread.join()

    assert counted > 100


def test_a_stopped_peer_does_not_hold_the_interpreters_lock(kp_device, provider_process):
    peer = provider_process("b")
    provider = kp_device.provide("a", "int32")
    os.kill(peer.pid, signal.SIGSTOP)
    done = threading.Event()

    def write():
        for value in range(2000):  # far more notices than the peer's buffer takes
            provider.write(value)
        done.set()

    thread = threading.Thread(target=write)
    thread.start()
    try:
        started = time.monotonic()
        time.sleep(0.3)
        assert time.monotonic() - started < 5
        assert not done.is_set()
        assert kp.get("a").value > 0
    finally:
        os.kill(peer.pid, signal.SIGCONT)
    thread.join(30)
    assert done.is_set()


def test_a_signals_handler_can_end_an_iteration(kp_device):
    class Alarm(Exception):
        """Raised by the handler."""

    def ring(*_):
        raise Alarm

    before = signal.signal(signal.SIGALRM, ring)
    signal.setitimer(signal.ITIMER_REAL, 0.1)
    try:
        with pytest.raises(Alarm):
            list(kp_device.watcher.watch("#", timeout=20))
    finally:
        signal.signal(signal.SIGALRM, before)


def test_a_watch_may_be_closed_in_its_own_body(kp_device):
    kp_device.provide("a", "int8", 1)
    watch = kp_device.watcher.watch("#", timeout=20)

    for _ in watch:
        watch.close()

    assert watch.take() is None


def test_the_body_may_open_and_close_tags(kp_device):
    provider = kp_device.provide("a", "int8", 0)
    seen = []
    for change in kp_device.watcher.watch("a", timeout=20):
        with kp_device.watcher.consume("a") as consumer:
            assert consumer.value == change.value
        seen.append(change.value)
        if len(seen) == 5:
            break
        provider.write(len(seen))

    assert seen == [0, 1, 2, 3, 4]

"""Nodes and watches: the extension module's, with context managers and asyncio."""

from __future__ import annotations

import asyncio
import atexit
import contextlib
import threading
import warnings
import weakref
from collections.abc import Iterator
from types import TracebackType
from typing import Callable, Optional, Type, Union

from ._errors import ClosedError
from ._native import Consumer, NodeBase, Provider, Reading, WatchBase

_LOOK_EVERY = 1.0  # seconds

_open_nodes: weakref.WeakSet[Node] = weakref.WeakSet()


class Watch(WatchBase):
    """The changes of the topics that a pattern covers. Made by Node.watch().

    Iterate over it with ``for`` or ``async for``. Each topic that has changed is delivered once, with its
    newest value; nothing is queued, so whoever is slow misses values, but never the last one. A watch
    belongs to one consumer: share none between threads or tasks.
    """

    def __init__(self, node: Node, pattern: str, timeout: Optional[float], initial: bool) -> None:
        """Use Node.watch()."""
        del pattern, timeout, initial  # taken by WatchBase.__new__
        self._of = node
        self._waiter: Optional[asyncio.Future[None]] = None
        self._timer: Optional[asyncio.TimerHandle] = None

    def __aiter__(self) -> Watch:
        """The watch itself."""
        return self

    async def __anext__(self) -> Reading:
        """The next change. Ends when the watch or its node is closed, and after the timeout."""
        while True:
            change = self.take()
            if change is not None:
                return change
            if self._is_over:
                self._stop_waiting()
                self.close()
                raise StopAsyncIteration
            await self._wait()

    async def _wait(self) -> None:
        """Returns when something may have happened."""
        loop = asyncio.get_running_loop()
        if self._waiter is not None:
            raise RuntimeError("another task waits for this watch")
        self._of._listen(loop)  # pylint: disable=protected-access
        left = self._seconds_left
        if self._timer is None and left is not None:
            self._timer = loop.call_later(left + 0.001, self._wake)
        self._waiter = loop.create_future()
        waiting = self._of._waiting  # pylint: disable=protected-access
        waiting.append(self)
        try:
            await self._waiter
        finally:
            self._waiter = None
            waiting.remove(self)

    def _wake(self) -> None:
        """Lets the task go that waits, on the loop's thread."""
        if self._waiter is not None and not self._waiter.done():
            self._waiter.set_result(None)

    def _stop_waiting(self) -> None:
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None

    def close(self) -> None:
        """Ends the watch, and with it every iteration over it."""
        super().close()
        self._stop_waiting()
        self._of._wake_waiting()  # pylint: disable=protected-access

    def __enter__(self) -> Watch:
        """The watch itself."""
        return self

    def __exit__(self, *_: object) -> None:
        """Closes the watch."""
        self.close()


class Node(NodeBase):
    """A member of the device's mesh: provides, consumes and watches topics.

    Open it with ``with``, ``async with`` or open(), and close it in the same way. Opening takes one of
    the 32 places of the mesh and a few milliseconds; a peer that was killed costs 3 seconds once. Its
    threads are the library's, on which no Python code ever runs. Methods may be called from any
    thread. After a fork the child has to make a node of its own.
    """

    def __init__(self, name: Optional[str] = None) -> None:
        """Names a node, and opens nothing yet.

        ``name`` is the file name of its socket, at most 92 bytes and without a slash. Use it once per
        device. None makes up a number.
        """
        self._name = name
        self._loop: Optional[asyncio.AbstractEventLoop] = None
        self._descriptor = -1  # that the loop listens to
        self._waiting: list[Watch] = []
        self._is_given_up = False
        self._look_timer: Optional[asyncio.TimerHandle] = None

    @property
    def name(self) -> Optional[str]:
        """The name that was given, or None."""
        return self._name

    def open(self) -> Node:
        """Joins the mesh; once. Raises AccessError or LimitError with the reason."""
        if self._name is None:
            self._open()
        else:
            self._open(self._name)
        _open_nodes.add(self)
        return self

    def close(self) -> None:
        """Sends what was not told yet, closes every tag, ends every iteration and leaves the mesh."""
        self._unlisten()
        self._close()
        _open_nodes.discard(self)
        self._wake_waiting()

    def __enter__(self) -> Node:
        """Opens the node. Writes in the block send their notice at once, but for those in batch()."""
        return self.open()

    def __exit__(self, *_: object) -> None:
        """Closes the node."""
        self.close()

    async def __aenter__(self) -> Node:
        """Opens the node on a thread of its own. Awaiting a write in the block sends its notice."""
        self._defers_notices = True
        loop = asyncio.get_running_loop()
        opening = loop.run_in_executor(None, self._open_unless_given_up)
        try:
            await asyncio.shield(opening)
        except asyncio.CancelledError:
            # Whoever comes last closes: the thread, or the loop, which may end before the thread
            # does.
            self._is_given_up = True
            opening.add_done_callback(lambda _: self.close())
            raise
        return self

    def _open_unless_given_up(self) -> None:
        """open() on a thread, for a task that may be cancelled meanwhile."""
        self.open()
        if self._is_given_up:
            self.close()

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        """Closes the node on a thread of its own."""
        self._unlisten()
        await asyncio.shield(asyncio.get_running_loop().run_in_executor(None, self.close))

    def __del__(self) -> None:
        """Closes a node that was forgotten, with a ResourceWarning."""
        if self.is_open:
            warnings.warn(f"unclosed {self!r}", ResourceWarning, source=self)
            self.close()

    def __repr__(self) -> str:
        """Name and state."""
        return f"<zu_kp.Node {self._name!r} {'open' if self.is_open else 'not open'}>"

    def provide(
        self,
        topic: str,
        type: str,
        size: int = 4000,
        extra_info: int = 0,  # pylint: disable=redefined-builtin
    ) -> Provider:
        """Declares a topic, and discards the value that it had.

        ``type`` is one of kp.TYPES: a Python type does not say how many bytes a number has. ``size`` is
        the most bytes of a string, bytearray or raw, 1 to 4000. ``extra_info`` is a number for readers.
        Raises TypeMismatchError, TopicError, InvalidValueError, AccessError, LimitError.
        """
        return self._provide(topic, type, size, extra_info)

    def consume(self, topic: str) -> Consumer:
        """Opens a topic to read it again and again; it need not exist yet.

        Needs permission to write, since the topic counts its consumers; kp.get() needs none.
        Raises TopicError, AccessError, LimitError.
        """
        return self._consume(topic)

    def watch(self, pattern: str, timeout: Optional[float] = None, initial: bool = True) -> Watch:
        """Follows the topics that a pattern covers, those that come later included.

        Iterate over the result with ``for`` or ``async for``: first comes what is there, unless
        ``initial`` is False, then each change that peers tell of. What this node writes itself is no
        change, nor is what has the quality 0. The iteration ends ``timeout`` seconds from now, but not
        before what is there was delivered: with 0 it gives just that. It ends within 100 ms of close(),
        of the loop's end and of the interpreter's exit.
        """
        return Watch(self, pattern, timeout, initial)

    @contextlib.contextmanager
    def batch(self) -> Iterator[Node]:
        """Holds the notices back over a block, and sends one for all writes at its end."""
        before = self._defers_notices
        self._defers_notices = True
        try:
            yield self
        finally:
            self._defers_notices = before
            if self.is_open and self._is_marked:
                self.notify()

    # What follows belongs to asyncio and runs on the loop's thread.

    def _listen(self, loop: asyncio.AbstractEventLoop) -> None:
        """Has the loop call when changes come; a node serves one loop at a time."""
        if self._look_timer is None:
            self._look_timer = loop.call_later(_LOOK_EVERY, self._look)
        if self._loop is loop:
            return
        if self._loop is not None and not self._loop.is_closed():
            raise RuntimeError("the node serves another loop; give each loop a node of its own")
        self._descriptor = self.fileno()
        loop.add_reader(self._descriptor, self._ready)
        self._loop = loop

    def _look(self) -> None:
        """What was written without a notice that arrived is found by a look once a second."""
        self._look_timer = None
        if self._loop is not None and self._waiting and self.is_open:
            self._look_timer = self._loop.call_later(_LOOK_EVERY, self._look)
            self._ready()

    def _unlisten(self) -> None:
        loop, self._loop = self._loop, None
        timer, self._look_timer = self._look_timer, None
        if timer is not None:
            timer.cancel()
        if loop is None or loop.is_closed():
            return
        with contextlib.suppress(RuntimeError):  # there is no running loop, or it closes meanwhile
            if asyncio.get_running_loop() is loop:
                loop.remove_reader(self._descriptor)
                return
        with contextlib.suppress(RuntimeError):
            loop.call_soon_threadsafe(loop.remove_reader, self._descriptor)

    def _ready(self) -> None:
        """Called by the loop when the descriptor is readable."""
        self._dispatch()
        for watch in self._waiting:
            if watch._has_waiting:  # pylint: disable=protected-access
                watch._wake()  # pylint: disable=protected-access

    def _wake_waiting(self) -> None:
        """Lets every task go that waits; from any thread."""
        for watch in list(self._waiting):
            waiter = watch._waiter  # pylint: disable=protected-access
            if waiter is not None:
                with contextlib.suppress(RuntimeError):
                    waiter.get_loop().call_soon_threadsafe(watch._wake)  # pylint: disable=protected-access


def _close_all() -> None:
    """Ends what still waits when the interpreter does."""
    for node in list(_open_nodes):
        with contextlib.suppress(ClosedError):
            node.close()


# atexit comes after the threads were waited for, which is too late for one that waits in an
# iteration.
_at_threads_end: Callable[[Callable[[], None]], Union[object, None]] = getattr(
    threading, "_register_atexit", atexit.register
)
_at_threads_end(_close_all)

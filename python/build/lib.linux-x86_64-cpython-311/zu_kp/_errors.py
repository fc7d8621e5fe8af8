"""The exceptions of the package. Every one is a ``kp.Error``, and also the built-in one that fits."""


class Error(Exception):
    """Something that the tags of this device could not do. The text says what and why."""


class NotFoundError(Error, FileNotFoundError):
    """There is no such topic."""


class AccessError(Error, PermissionError):
    """The system does not allow it to this user."""


class NoValueError(Error, OSError):
    """The topic exists, but no provider has declared it yet, or no value has been written yet."""


class BusyError(Error, BlockingIOError):
    """A write of the topic has begun and does not end: its writer may have died in it."""


class CorruptError(Error, OSError):
    """What lies under the topic's name is no segment, or one that contradicts itself."""


class LimitError(Error, OSError):
    """The system has run out of something; ``errno`` says of what."""


class TopicError(Error, ValueError):
    """The text is not a topic, or not one where a pattern cannot stand."""


class InvalidValueError(Error, ValueError):
    """The value does not fit the topic's type: NaN for an integer, too long, or empty."""


class RangeError(Error, OverflowError):
    """The number lies outside the limits of the topic's type."""


class TypeMismatchError(Error, TypeError):
    """The value is of a kind that the topic's type cannot hold, or a type is named that there is not."""


class ClosedError(Error, ValueError):
    """The node, provider, consumer or watch is closed, or the node is not open yet."""


class ForkedError(Error, RuntimeError):
    """The node belongs to the process that this one was forked from. Open one of your own."""

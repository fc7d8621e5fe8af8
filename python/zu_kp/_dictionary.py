"""What the tags of the device mean, from its dictionary (see kp-tags(5))."""

from __future__ import annotations

import json
import os
from typing import Any, Dict, Union

from . import _native


def describe(topic: str, dictionary: Union[str, os.PathLike[str]] = "") -> Dict[str, Any]:
    """What the dictionary says of a topic, by the keys of its files; empty when it says nothing.

    type, unit and description are str; size is in bytes; range is (least, most) and limits a dict
    of float, in the unit; stale is in seconds; record a dict with deadband (in the unit), at-least
    (seconds) and keep; names a dict from int to str.

    Reads the files of the directory `dictionary`, else of KP_DICTIONARY, else of
    /etc/zu-kp/tags.d, again when they have changed. Each mistake in them is a RuntimeWarning, once;
    the rest of a new file holds, and a file that was read before stays as it was. Any thread may
    call it. Raises TopicError for what can be no topic.
    """
    told = json.loads(_native.describe(topic, dictionary))
    facts = {key: fact["value"] for key, fact in told.items()}
    if "range" in facts:
        facts["range"] = tuple(facts["range"])
    if "names" in facts:
        facts["names"] = {int(number): name for number, name in facts["names"].items()}
    return facts

#!/usr/bin/env python3
"""Logs every change of a pattern to a CSV file.

    log_csv.py PATTERN FILE [SECONDS]

A line has the write's time (ISO 8601), the topic, the value (bytes in hexadecimal), its type and its
quality. Ends after so many seconds, or with Ctrl-C; the file is complete then.
"""

import contextlib
import csv
import sys

import zu_kp as kp


def main() -> int:
    """Writes until the end."""
    if len(sys.argv) not in (3, 4):
        print(__doc__, file=sys.stderr)
        return 2
    pattern, path = sys.argv[1:3]
    timeout = float(sys.argv[3]) if len(sys.argv) > 3 else None
    with kp.Node() as node, open(path, "w", newline="", encoding="utf-8") as file:
        table = csv.writer(file)
        table.writerow(["time", "topic", "value", "type", "quality"])
        for change in node.watch(pattern, timeout=timeout):
            value = change.value.hex() if isinstance(change.value, bytes) else change.value
            table.writerow([change.time.isoformat(), change.topic, value, change.type, change.quality])
    return 0


if __name__ == "__main__":
    with contextlib.suppress(KeyboardInterrupt):
        sys.exit(main())

"""What the measurements left in bench/results, and how figures and tables are written."""

import json
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
RESULTS = ROOT / "bench" / "results"
PLACEMENTS = (("one", "one CPU"), ("two", "two CPUs"), ("free", "free"))


def load(name):
    path = RESULTS / f"{name}.json"
    return json.loads(path.read_text()) if path.exists() else []


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows])


def short(number):
    if number is None:
        return "–"
    if number >= 100:
        return f"{number:.0f}"
    return f"{number:.1f}" if number >= 10 else f"{number:.2f}"


def unique(rows, key):
    return list(dict.fromkeys(row[key] for row in rows))


def pick(rows, **wanted):
    for row in rows:
        if all(row[key] == value for key, value in wanted.items()):
            return row
    return None

"""What is changed: the mutants of a file, each one change of one line, and the lists of those that are known."""

import dataclasses
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
# A change of each kind: its name, what it looks for, what stands there instead.
SWAPS = [
    ("comparison", r" < ", " <= "),
    ("comparison", r" > ", " >= "),
    ("comparison", r" <= ", " < "),
    ("comparison", r" >= ", " > "),
    ("comparison", r" == ", " != "),
    ("comparison", r" != ", " == "),
    ("logic", r" && ", " || "),
    ("logic", r" \|\| ", " && "),
    ("arithmetic", r" \+ ", " - "),
    ("arithmetic", r" - ", " + "),
    ("result", r"\breturn -1;", "return 0;"),
    ("result", r"\breturn 0;", "return -1;"),
    ("result", r"\breturn true;", "return false;"),
    ("result", r"\breturn false;", "return true;"),
    ("order", r"\bload_acquire\(", "load_relaxed("),
    ("order", r"\bstore_release\(", "store_relaxed("),
]
CONDITION = re.compile(r"\b(if|while) \((.*)\)( \{)?$")
CONSTANT = re.compile(r"\bconstexpr\b.*?[={](?: |\()?(-?\d[\d']*)")
STATEMENT = re.compile(r"^\s+(?:\(void\))?[a-z_][\w.:>\[\]-]*(?:\(.*\)| = .*|\+\+|--);$")
LOCK = re.compile(r"^\s+(?:const )?(?:MutexLock|SemaphoreLock|WriteMark)\b.*;$")


@dataclasses.dataclass(frozen=True)
class Mutant:
    """One changed line of a file, whose path begins with `src/`."""

    file: str
    line: int
    kind: str
    before: str
    after: str

    def key(self) -> str:
        """What a list names it by: independent of the line's number."""
        return "\t".join((self.file, self.kind, self.before.strip(), self.after.strip()))


def without_text(line: str) -> str:
    """The line with the inside of its string literals and its comment blanked, at the same columns."""
    line = re.sub(r'"(?:[^"\\]|\\.)*"', lambda found: '"' + "_" * (len(found[0]) - 2) + '"', line)
    return re.sub(r"//.*", lambda found: " " * len(found[0]), line)


def mutants_of_line(line: str) -> list[tuple[str, str]]:
    """The kinds of change that fit a line, each with the changed line."""
    code = without_text(line)
    if code.lstrip().startswith(("#", "static_assert", "template", "KP_")) or not code.strip():
        return []
    found = []
    condition = CONDITION.search(code.rstrip())
    # To negate a plain condition and to swap its comparison is the same.
    is_plain = condition and not re.search(r"&&|\|\|", code)
    for kind, pattern, instead in SWAPS:
        if is_plain and pattern in (" == ", " != "):
            continue
        for place in re.finditer(pattern, code):
            found.append((kind, line[: place.start()] + instead + line[place.end() :]))
    if condition and ";" not in condition[2]:
        inside = line[condition.start(2) : condition.end(2)]
        found.append(("negated", line[: condition.start(2)] + f"!({inside})" + line[condition.end(2) :]))
    constant = CONSTANT.search(code)
    if constant:
        number = int(constant[1].replace("'", ""))
        # One more of many nanoseconds or bytes is nothing.
        other = number + 1 if number < 100 else number * 10
        found.append(("constant", line[: constant.start(1)] + str(other) + line[constant.end(1) :]))
    if code.rstrip().endswith("= delete;"):
        return found
    if LOCK.match(code.rstrip()):
        found.append(("lock", ""))
    elif STATEMENT.match(code.rstrip()) and not code.lstrip().startswith(("return", "break", "using")):
        found.append(("dropped", re.match(r"\s*", line)[0] + ";"))
    return found


def mutants_of(path: Path) -> list[Mutant]:
    """Every mutant of a file, outside of comments."""
    found = []
    for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
        for kind, after in mutants_of_line(line):
            found.append(Mutant(str(path.relative_to(ROOT)), number, kind, line, after))
    return found


def kept(name: str) -> dict[str, str]:
    """A kept list: the reason by a mutant's key."""
    reasons = {}
    for line in (ROOT / "scripts" / name).read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            key, reason = line.rsplit("\t", 1)
            reasons[key] = reason
    return reasons

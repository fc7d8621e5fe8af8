"""The tests: how they are run, how long each takes, and which lines of the library each one runs."""

import bisect
import concurrent.futures
import dataclasses
import functools
import hashlib
import json
import os
import re
import resource
import signal
import subprocess
import sys
import time
from pathlib import Path

from mutation.build import BUILD, FAILED_SEND, LIBRARY, changed_sources, library_hash
from mutation.changes import ROOT, Mutant

# What a test may take beside its usual time tenfold, since others run at the same time.
PATIENCE_SECONDS = 20
# A mutant may ask for memory without end.
MEMORY_BYTES = 8 << 30
# The whole store is tried once already: what is repeated without openat2 is what looks for a path.
ONE_BY_ONE = "*Topic*:*Link*:*Director*:*Descriptor*"
Lines = dict[str, set[int]]


@dataclasses.dataclass(frozen=True)
class Test:
    """One test of one program, with its usual time in seconds."""

    program: str
    name: str
    seconds: float = 0.0


class Process:
    """A test program that runs some of its tests up to the first failure."""

    def __init__(
        self, command: list[str], tests: list[Test], library: Path, marks: Path | None = None
    ) -> None:
        self.end = time.monotonic() + PATIENCE_SECONDS + 10 * sum(test.seconds for test in tests)
        names = ":".join(test.name for test in tests)
        environment = dict(os.environ, LD_LIBRARY_PATH=str(library), GTEST_FAIL_FAST="1")
        if marks:
            environment["KP_COVER"] = str(marks)
        self.output = open(os.memfd_create("output"), "r+b")  # pylint: disable=consider-using-with
        # A process group of its own, so that children of a test that hangs end with it.
        self.running = subprocess.Popen(  # pylint: disable=consider-using-with
            [*command, f"--gtest_filter={names}"],
            stdin=subprocess.DEVNULL,
            stdout=self.output,
            stderr=subprocess.DEVNULL,
            env=environment,
            start_new_session=True,
        )
        resource.prlimit(self.running.pid, resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))

    def failure(self) -> str | None:
        """None while it runs, empty when all tests have passed, else what failed."""
        status = self.running.poll()
        if status is None:
            return "hangs" if time.monotonic() > self.end else None
        if status == 0:
            return ""
        self.output.seek(0)
        text = self.output.read().decode(errors="replace")
        found = re.search(r"\[  FAILED  \] ([\w/]+\.[\w/]+)", text)
        begun = re.findall(r"\[ RUN      \] ([\w/]+\.[\w/]+)", text)
        return found[1] if found else f"{begun[-1] if begun else 'start'} (status {status})"

    def stop(self) -> None:
        """Ends whatever it left running."""
        try:
            os.killpg(self.running.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.running.wait()
        self.output.close()


def first_failure(processes: list[Process]) -> str:
    """Waits for all, or for the first failure; empty when none failed. Ends them all."""
    try:
        waiting = list(processes)
        while waiting:
            for process in list(waiting):
                failure = process.failure()
                if failure:
                    return failure
                if failure == "":
                    waiting.remove(process)
            time.sleep(0.01)
        return ""
    finally:
        for process in processes:
            process.stop()


def library_folder(made: Path, program: str) -> Path:
    """Where a program finds its library."""
    return made / program if program == FAILED_SEND else made


def listed(program: str, command: list[str]) -> list[Test]:
    """The tests of a program."""
    text = subprocess.run(
        [
            *command,
            "--gtest_list_tests",
            f"--gtest_filter={ONE_BY_ONE if program == 'without_openat2' else '*'}",
        ],
        check=True,
        capture_output=True,
        text=True,
        env=dict(os.environ, LD_LIBRARY_PATH=str(library_folder(BUILD / "plain", program))),
    ).stdout
    suite, found = "", []
    for line in text.splitlines():
        name = line.split("#")[0].rstrip()
        if line.startswith("  "):
            found.append(Test(program, suite + name.strip()))
        elif name.endswith("."):
            suite = name
    return found


class Places:
    """The lines that belong to each place that marks itself."""

    def __init__(self, library: Path) -> None:
        code = subprocess.run(
            ["objdump", "-d", "--no-show-raw-insn", "-j", ".text", library],
            check=True,
            capture_output=True,
            text=True,
        ).stdout
        rows = re.findall(r"^\s+([0-9a-f]+):\s+(.*)$", code, re.MULTILINE)
        addresses = [int(address, 16) for address, _ in rows]
        # A mark is the address behind the call.
        calls = [
            place
            for place, (_, text) in enumerate(rows)
            if "__sanitizer_cov_trace_pc" in text and "call" in text
        ]
        self.marks = [addresses[place + 1] for place in calls]
        names = subprocess.run(
            ["addr2line", "-e", library],
            check=True,
            capture_output=True,
            text=True,
            input="\n".join(hex(address) for address in addresses),
        ).stdout.splitlines()
        self.lines: dict[int, set[tuple[str, int]]] = {mark: set() for mark in self.marks}
        for address, name in zip(addresses, names):
            found = re.match(r"(.*):(\d+)", name)
            block = bisect.bisect_right(self.marks, address) - 1
            if found and block >= 0 and found[1].startswith(f"{ROOT}/src/"):
                file = str(Path(found[1]).relative_to(ROOT))
                self.lines[self.marks[block]].add((file, int(found[2])))
        self.known = set().union(*self.lines.values())

    def run_in(self, marks: Path) -> set[tuple[str, int]]:
        """The lines that a test has run."""
        seen = marks.read_bytes()
        return set().union(*(lines for mark, lines in self.lines.items() if seen[mark : mark + 1] == b"\1"))


class Suite:
    """All tests, each with its time and the lines that it runs. What is known is kept while src/ stays."""

    def __init__(self, commands: dict[str, list[str]]) -> None:
        self.commands = commands
        self.lines: dict[Test, set[tuple[str, int]]] = {}

    def measure(self, jobs: int) -> None:
        """Runs each test that is not known yet by itself. Ends when one fails without a change."""
        store, sources = BUILD / "cover.json", library_hash()
        kept = json.loads(store.read_text()) if store.exists() else {}
        known = kept["tests"] if kept.get("sources") == sources else {}
        self.places = Places(BUILD / "cover" / LIBRARY)
        other = Places(BUILD / "cover" / FAILED_SEND / LIBRARY)

        def measured(test: Test) -> None:
            name = f"{test.program} {test.name}"
            marks = BUILD / "cover" / (hashlib.md5(name.encode()).hexdigest() + ".marks")
            folder = library_folder(BUILD / "cover", test.program)
            patient = dataclasses.replace(test, seconds=30)
            for _ in range(3):
                begin = time.monotonic()
                failure = first_failure([Process(self.commands[test.program], [patient], folder, marks)])
                if not failure:
                    places = other if test.program == FAILED_SEND else self.places
                    known[name] = [time.monotonic() - begin, sorted(places.run_in(marks))]
                    marks.unlink()
                    return
                print(f"mutate: {name}: {failure} without a change", flush=True)

        tests = [test for program, command in self.commands.items() for test in listed(program, command)]
        unknown = [test for test in tests if f"{test.program} {test.name}" not in known]
        with concurrent.futures.ThreadPoolExecutor(3 * jobs) as pool:
            list(pool.map(measured, unknown))
        store.write_text(json.dumps({"sources": sources, "tests": known}), encoding="utf-8")
        for test in tests:
            if f"{test.program} {test.name}" not in known:
                sys.exit(f"mutate: {test.name} fails without a change")
            seconds, lines = known[f"{test.program} {test.name}"]
            self.lines[dataclasses.replace(test, seconds=seconds)] = {(file, line) for file, line in lines}

    @functools.cache
    def of_line(self, file: str, line: int) -> frozenset[Test]:
        """The tests that run a line."""
        return frozenset(test for test, lines in self.lines.items() if (file, line) in lines)

    def of_mutant(self, mutant: Mutant) -> list[Test]:
        """The tests that may notice a mutant, those that run least first."""
        found = set()
        named = re.search(r"constexpr.*?\b(k[A-Z]\w*)", mutant.before)
        if named:
            found = self.of_name(named[1], 3)
        elif (mutant.file, mutant.line) in self.places.known:
            found = set(self.of_line(mutant.file, mutant.line))
        else:  # a part of a statement that stands on several lines
            near = [
                line
                for file, line in self.places.known
                if file == mutant.file and abs(line - mutant.line) < 9
            ]
            for sign in (1, -1):
                nearest = min(
                    (line for line in near if (line - mutant.line) * sign > 0),
                    key=lambda line: abs(line - mutant.line),
                    default=0,
                )
                found |= self.of_line(mutant.file, nearest)
        if not found:  # a record or a macro, which has no code of its own
            files = {str(source.relative_to(ROOT)) for source in changed_sources(mutant)}
            found = {test for test, lines in self.lines.items() if any(file in files for file, _ in lines)}
        return sorted(found, key=lambda test: (len(self.lines[test]), test.name))

    @functools.cache
    def of_name(self, name: str, depth: int) -> set[Test]:
        """The tests that run a line which uses a constant, or a constant made of it."""
        found: set[Test] = set()
        for path in sorted((ROOT / "src").rglob("*.[ch]*")):
            file = str(path.relative_to(ROOT))
            for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
                if not re.search(rf"\b{name}\b", line.split("//")[0]):
                    continue
                other = re.search(r"constexpr.*?\b(k[A-Z]\w*)", line)
                if other and other[1] != name and depth:
                    found |= self.of_name(other[1], depth - 1)
                for near in range(number - 3, number + 4):
                    found |= self.of_line(file, near)
        return found

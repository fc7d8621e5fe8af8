"""How it is built: the tests once, against the library as a shared object that alone is made anew for a mutant."""

import concurrent.futures
import hashlib
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from mutation.changes import ROOT, Mutant

BUILD = ROOT / "build" / "mutate"
AREAS = ("support", "store", "notify", "core")
# It runs after each instruction of the library, of which unoptimised code has too many.
TOO_SLOW = ("test_single_step",)
# This program replaces the sending of a notice instead of calls of the system.
FAILED_SEND = "test_core_failed_send"
LIBRARY = "libkp_mutant.so"
# No debug information and nothing optimised, which compiles fastest. Inline functions stay the
# library's own: those of the tests, which keep the original headers, do not replace them.
FLAGS = "-std=gnu++20 -O0 -w -fPIC -pthread -fno-exceptions -fno-rtti -fvisibility-inlines-hidden".split()
# The tests run under AddressSanitizer and UndefinedBehaviorSanitizer as well. These find in a plain
# run a part of what they find: whoever leaves an array, or has no defined result, ends at once.
UNDEFINED = "-fsanitize=undefined -fno-sanitize=vptr -fsanitize-undefined-trap-on-error".split()
FLAGS += ["-D_GLIBCXX_ASSERTIONS", *UNDEFINED]
COMPILER = os.environ.get("CXX", "c++")
LINKER = ["-fuse-ld=lld"] if shutil.which("ld.lld") else []
SOURCES = sorted((ROOT / "src").rglob("*.cpp"))


def run(*command: object) -> bool:
    """Runs a command without its output; whether it succeeded."""
    words = [str(word) for word in command]
    return subprocess.run(words, check=False, capture_output=True).returncode == 0


def need(what: str, *command: object) -> None:
    """Runs a command without which nothing goes on."""
    made = subprocess.run([str(word) for word in command], check=False, capture_output=True, text=True)
    if made.returncode != 0:
        sys.exit(f"mutate: {what} failed without a change:\n{made.stdout[-2000:]}{made.stderr[-2000:]}")


def object_of(source: Path, folder: Path) -> Path:
    """The object of a source, in a folder without subfolders."""
    return folder / ("-".join(source.relative_to(ROOT / "src").parts) + ".o")


def compile_source(source: Path, made: Path, before: tuple[object, ...] = ()) -> bool:
    """Compiles one source of the library; `before` are arguments that go first."""
    folders = (f"-I{ROOT}/src", f"-I{ROOT}/include")
    header = ("-include", BUILD / "system.h")
    return run(COMPILER, *FLAGS, *before, *folders, *header, "-c", source, "-o", made)


def link(objects: list[Path], made: Path, wrapped: list[str]) -> bool:
    """Links the library; calls of the functions in `wrapped` go to the shims of the program."""
    wraps = [f"-Wl,--wrap={name}" for name in wrapped]
    # Its own functions are its own, whatever the program brings.
    own = (f"-Wl,-soname,{LIBRARY}", "-Wl,-Bsymbolic-functions")
    # The compiler's library has a __wrap_pthread_create of its own, so only the C library is
    # searched.
    return run(COMPILER, *LINKER, "-shared", "-nodefaultlibs", *own, *wraps, *objects, "-lc", "-o", made)


def wrapped_by(program: str) -> list[str]:
    """The functions that a program replaces."""
    if program == FAILED_SEND:
        return ["kp_notify_send"]
    calls = (ROOT / "tests/testing/calls.def").read_text(encoding="utf-8")
    return re.findall(r"^KP_CALL\((\w+),", calls, re.MULTILINE)


def headers_of(source: Path) -> set[str]:
    """The library's own headers that a source includes, over each other too."""
    found: set[str] = set()
    ahead = [source]
    while ahead:
        for name in re.findall(r'^#include "(.*)"', ahead.pop().read_text(encoding="utf-8"), re.MULTILINE):
            path = ROOT / "src" / name
            if path.exists() and f"src/{name}" not in found:
                found.add(f"src/{name}")
                ahead.append(path)
    return found


def changed_sources(mutant: Mutant) -> list[Path]:
    """What has to be compiled for a mutant."""
    if mutant.file.endswith(".cpp"):
        return [ROOT / mutant.file]
    return [source for source in SOURCES if mutant.file in headers_of(source)]


def library_hash() -> str:
    """Names the library's text and how it is compiled."""
    digest = hashlib.sha256(Path(__file__).read_bytes())
    for path in sorted((ROOT / "src").rglob("*.[ch]*")):
        digest.update(path.read_bytes())
    return digest.hexdigest()


def system_headers() -> str:
    """The headers of the system that the library includes, as one, to be compiled once."""
    names = set()
    for path in (ROOT / "src").rglob("*.[ch]*"):
        names |= set(re.findall(r"^#include <.*>$", path.read_text(encoding="utf-8"), re.MULTILINE))
    return "\n".join(sorted(names)) + "\n"


def build_variant(folder: Path, extra: tuple[object, ...], more: list[Path], jobs: int) -> None:
    """Compiles the unchanged library in one way and links it with `more` objects."""
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        if not all(pool.map(lambda one: compile_source(one, object_of(one, folder), extra), SOURCES)):
            sys.exit("mutate: the library does not compile without a change")
    objects = [object_of(source, folder) for source in SOURCES] + more
    for program in ("", FAILED_SEND):
        (folder / program).mkdir(exist_ok=True)
        if not link(objects, folder / program / LIBRARY, wrapped_by(program)):
            sys.exit("mutate: the library does not link without a change")


def build_library(jobs: int) -> None:
    """Compiles the unchanged library, once as it is and once so that it tells which places run."""
    stamp = BUILD / "library.stamp"
    if stamp.exists() and stamp.read_text(encoding="utf-8") == library_hash():
        return
    for folder in ("plain", "cover"):
        (BUILD / folder).mkdir(parents=True, exist_ok=True)
    header = BUILD / "system.h"
    header.write_text(system_headers(), encoding="utf-8")
    need("a header", COMPILER, *FLAGS, "-x", "c++-header", header, "-o", f"{header}.gch")
    marks = BUILD / "cover" / "marks.o"
    cover = Path(__file__).parent / "cover.c"
    need("compiling cover.c", COMPILER, "-x", "c", "-fPIC", "-O1", "-c", cover, "-o", marks)
    build_variant(BUILD / "plain", (), [], jobs)
    build_variant(BUILD / "cover", ("-g1", "-fsanitize-coverage=trace-pc"), [marks], jobs)
    stamp.write_text(library_hash(), encoding="utf-8")


def build_programs(jobs: int) -> dict[str, list[str]]:
    """Builds every test program of the areas; how each is started, by its name."""
    tree = BUILD / "tests"
    options = [f"-DKP_BUILD_{part}=OFF" for part in ("TOOLS", "MQTT", "EXAMPLES", "PYTHON", "WEB")]
    need(
        "cmake",
        "cmake",
        "-S",
        ROOT,
        "-B",
        tree,
        "-G",
        "Ninja",
        "-DCMAKE_BUILD_TYPE=Debug",
        "-DCMAKE_CXX_FLAGS=-w -g1",
        *options,
    )
    targets = subprocess.run(
        ["ninja", "-C", tree, "-t", "targets", "all"], check=True, capture_output=True, text=True
    ).stdout
    pattern = rf"^(tests/(?:{'|'.join(AREAS)})/CMakeFiles/(\w+)\.dir/\S*\.o):"
    objects: dict[str, list[str]] = {}
    for name, program in re.findall(pattern, targets, re.MULTILINE):
        if program in TOO_SLOW:
            continue
        objects.setdefault(program, []).append(name)
    testing = "tests/testing/libkp_testing.a"
    need("building the tests", "ninja", "-C", tree, f"-j{jobs}", testing, *sum(objects.values(), []))
    commands = {}
    for program, parts in objects.items():
        made = BUILD / "programs" / program
        made.parent.mkdir(exist_ok=True)
        library = [] if program == "without_openat2" else [BUILD / "plain" / LIBRARY]
        need(
            f"linking {program}",
            COMPILER,
            *LINKER,
            "-no-pie",
            "-rdynamic",
            "-pthread",
            "-o",
            made,
            *[tree / part for part in parts if not part.endswith("gch")],
            tree / testing,
            *library,
            "-lgmock",
            "-lgtest",
        )
        commands[program] = [str(made)]
    # The store once more where the system does not know openat2.
    helper = commands.pop("without_openat2", None)
    if helper:
        commands["without_openat2"] = helper + commands["test_store"]
    return commands

"""Runs all programs of the benchmark and writes bench/results/*.json. Runs in mount and network
namespaces of its own, where it replaces /run, /dev/shm and, for the sockets of some peers, /tmp."""

import json
import os
import pathlib
import platform
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULTS = ROOT / "bench" / "results"
VALUES = ("kp", "boost", "iceoryx", "redis", "lmdb")
NOTICES = ("limit", "kp", "zeromq", "nng", "iceoryx", "cyclonedds", "lcm", "mosquitto", "redis", "sdbus")
LONGEST_S = 400


def enter_private_places():
    for place in ("/run", "/dev/shm", "/tmp"):
        if not str(ROOT).startswith(place + "/"):
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", place], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up", "multicast", "on"], check=True)
    subprocess.run(["ip", "route", "add", "224.0.0.0/4", "dev", "lo"], check=True)


def run(program, *arguments):
    """The JSON that a program prints; None when it is not built or fails, which is said."""
    if not program.exists():
        print(f"bench: {program.name} is not built, its library is missing", file=sys.stderr)
        return None
    start = time.monotonic()
    try:
        done = subprocess.run([program, *arguments], stdout=subprocess.PIPE, check=True, timeout=LONGEST_S)
        print(
            f"bench: {program.name} {' '.join(arguments)}: {time.monotonic() - start:.1f} s", file=sys.stderr
        )
        return json.loads(done.stdout)
    except (subprocess.SubprocessError, json.JSONDecodeError) as error:
        print(f"bench: {program.name} {' '.join(arguments)} failed: {error}", file=sys.stderr)
        return None


def write(name, content):
    RESULTS.mkdir(exist_ok=True)
    (RESULTS / f"{name}.json").write_text(json.dumps(content, indent=1) + "\n")


def rows_of(folder, kind, contestants, *arguments):
    rows = []
    for contestant in contestants:
        rows += run(folder / f"{kind}-{contestant}", *arguments) or []
    return rows


def first_value(path, key):
    for line in pathlib.Path(path).read_text().splitlines():
        if line.startswith(key):
            return line.split(":", 1)[1].strip()
    return ""


def library_size(build):
    library = (build / "src" / "libzu-kp.so.3").resolve()
    stripped = build / "stripped.so"
    subprocess.run(["strip", "-o", stripped, library], check=True)
    return stripped.stat().st_size


def describe_machine(build):
    return {
        "processor": first_value("/proc/cpuinfo", "model name"),
        "processors": os.cpu_count(),
        "virtual": "hypervisor" in first_value("/proc/cpuinfo", "flags"),
        "memory": first_value("/proc/meminfo", "MemTotal"),
        "kernel": platform.release(),
        "c_library": " ".join(platform.libc_ver()),
        "compiler": subprocess.run(
            ["c++", "--version"], capture_output=True, text=True, check=True
        ).stdout.splitlines()[0],
        "clock": pathlib.Path("/sys/devices/system/clocksource/clocksource0/current_clocksource")
        .read_text()
        .strip(),
        "load_at_start": round(os.getloadavg()[0], 1),
        "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()),
        "library_bytes": library_size(build),
    }


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    wanted = sys.argv[2:] or [
        "machine",
        "values",
        "latency",
        "fanout",
        "footprint",
        "growth",
        "tools",
        "mqtt",
        "web",
    ]
    programs = build / "bench"
    start = time.monotonic()
    enter_private_places()
    if "machine" in wanted:
        write("machine", describe_machine(build))
    if "values" in wanted:
        write("values", rows_of(programs, "value", VALUES))
    for kind in ("latency", "fanout", "footprint"):
        if kind in wanted:
            write(kind, rows_of(programs, "notice", NOTICES, kind))
    if "growth" in wanted:
        write("endpoints", run(programs / "growth-endpoints") or [])
        tags = run(programs / "growth-tags", "--benchmark_format=json", "--benchmark_min_time=0.05")
        write("growth", (tags or {}).get("benchmarks", []))
    if "tools" in wanted:
        kp = str(build / "tools" / "kp" / "kp")
        write("tools", run(ROOT / "bench" / "tools" / "run", kp, "--json") or [])
    for name in ("mqtt", "web"):
        if name in wanted:
            subprocess.run([ROOT / "bench" / name / "run", build], check=True)
    print(f"bench: all in {time.monotonic() - start:.0f} s", file=sys.stderr)


main()

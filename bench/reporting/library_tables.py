"""The tables of the library, as texts."""

from reporting.figures import PLACEMENTS, load, pick, short, table, unique


def machine_table():
    machine = load("machine")
    return table(["", ""], [[key.replace("_", " "), value] for key, value in machine.items()])


def value_tables():
    values = load("values")
    parts = []
    for operation in ("write", "read", "fresh write", "fresh read"):
        rows = []
        for contestant in unique(values, "contestant"):
            for size in (4, 64, 1000, 4000):
                found = [
                    pick(values, contestant=contestant, placement=placement, size=size, operation=operation)
                    for placement, _ in PLACEMENTS
                ]
                if not any(found):
                    continue
                two = found[1]
                rows.append(
                    [
                        contestant,
                        size,
                        short(two["own_ns"]["p50"]),
                        short(two["own_ns"]["p99"]),
                        short(two["limit_ns"]["p50"]),
                        f"{two['over_limit_ns']:+.1f}",
                        *[short(row["ratio"]) if row else "–" for row in found],
                    ]
                )
        parts.append(
            f"#### {operation.capitalize()}\n\n"
            + table(
                [
                    "contestant",
                    "bytes",
                    "p50 ns",
                    "p99 ns",
                    "limit ns",
                    "over limit ns",
                    "× limit, one CPU",
                    "two CPUs",
                    "free",
                ],
                rows,
            )
        )
    return "\n\n".join(parts)


def latency_table():
    rows = []
    latency = load("latency")
    for pace in ("ping-pong", "1 kHz"):
        for contestant in unique(latency, "contestant"):
            found = [
                pick(latency, contestant=contestant, placement=placement, pace=pace)
                for placement, _ in PLACEMENTS
            ]
            if not all(found):
                continue
            rows.append(
                [
                    pace,
                    contestant,
                    *[
                        f"{short(row['own_us']['p50'])} / {short(row['own_us']['p99'])} / "
                        f"{short(row['own_us']['p99.9'])}"
                        for row in found
                    ],
                    *[f"{short(row['ratio_p50'])} / {short(row['ratio_p99'])}" for row in found],
                ]
            )
    return table(
        [
            "pace",
            "contestant",
            *[f"µs p50 / p99 / p99.9, {name}" for _, name in PLACEMENTS],
            *[f"× limit p50 / p99, {name}" for _, name in PLACEMENTS],
        ],
        rows,
    )


def fanout_table():
    rows = []
    for row in load("fanout"):
        rows.append(
            [
                row["contestant"],
                row["receivers"],
                dict(PLACEMENTS)[row["placement"]],
                short(row["own"]["send_us"]["p50"]),
                short(row["own"]["delay_us"]["p50"]),
                short(row["own"]["delay_us"]["p99"]),
                short(row["own"]["cpu_us"]),
                short(row["ratio_delay"]),
                short(row["ratio_cpu"]),
                row["lost"],
            ]
        )
    return table(
        [
            "contestant",
            "receivers",
            "placement",
            "send µs",
            "last has it µs p50",
            "p99",
            "CPU µs of all",
            "× limit, last",
            "× limit, CPU",
            "lost",
        ],
        rows,
    )


def footprint_table():
    footprint = load("footprint")
    rows = [
        [
            row["contestant"],
            short(row["open_ms"]),
            short(row["close_ms"]),
            short(row["open_beside_30_ms"]),
            short(row["close_beside_30_ms"]),
            f"{row['private_kb']:.0f}",
            f"{row['private_beside_30_kb']:.0f}",
            f"{row['threads']:.0f}",
            f"{row['stack_address_space_kb'] / 1024:.0f}",
        ]
        for row in footprint
    ]
    return table(
        [
            "contestant",
            "open ms",
            "close ms",
            "open ms beside 30",
            "close ms beside 30",
            "private kB more",
            "the same beside 30",
            "threads",
            "stacks' MB of addresses",
        ],
        rows,
    )


def growth_tables():
    growth = load("growth")
    rows = [
        [
            row["name"],
            f"{row['real_time'] / 1000:.3f}",
            *(f"{row[key]:.1f}" if key in row else "" for key in ("create_us", "memory_bytes")),
        ]
        for row in growth
    ]
    endpoints = [
        [row["endpoints"], short(row["connected_ms"] or None), f"{row['runs_connected']} of {row['runs']}"]
        for row in load("endpoints")
    ]
    kp = pick(load("footprint"), contestant="kp")
    opening = [[n + 1, short(ms)] for n, ms in enumerate(kp["each_open_ms"])] if kp else []
    return "\n\n".join(
        [
            table(
                ["operation / size", "µs", "creating one tag µs", "private bytes a tag, with its page"], rows
            ),
            table(
                ["endpoints started at once", "all connected after ms", "runs in which all were"], endpoints
            ),
            table(["n-th endpoint", "opening ms"], opening[::5]),
        ]
    )

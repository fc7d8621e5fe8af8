"""Turns bench/results/*.json into the tables of docs/performance.md and its plots."""

import json
import pathlib
import re
import subprocess
from statistics import median

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULTS = ROOT / "bench" / "results"
PLOTS = ROOT / "docs" / "plots"
DOCUMENT = ROOT / "docs" / "performance.md"
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


def machine_table():
    machine = load("machine")
    return table(["", ""], [[key.replace("_", " "), value] for key, value in machine.items()])


def goal_row(goal, figures, most):
    """One figure for each place; said to be missed where one is above the goal."""
    missed = [place for place, figure in figures.items() if figure > most]
    verdict = "kept" if not missed else "missed: " + ", ".join(missed)
    return [goal, ", ".join(f"{place} {figure:.2f}" for place, figure in figures.items()), verdict]


def goals_table():
    values, rows = load("values"), []

    def by_placement(key, **wanted):
        found = {
            name: pick(values, contestant="kp_tag", placement=placement, **wanted)
            for placement, name in PLACEMENTS
        }
        return {name: row[key] for name, row in found.items() if row}

    for size in (4, 64, 1000, 4000):
        rows.append(
            goal_row(
                f"write of {size} bytes ≤ 1.15 × limit",
                by_placement("ratio", operation="write", size=size),
                1.15,
            )
        )
    for size in (4, 64):
        rows.append(
            goal_row(
                f"read of {size} bytes ≤ 4 ns over limit",
                by_placement("over_limit_ns", operation="read", size=size),
                4,
            )
        )
    for size in (1000, 4000):
        rows.append(
            goal_row(
                f"read of {size} bytes ≤ 1.15 × limit",
                by_placement("ratio", operation="read", size=size),
                1.15,
            )
        )
    for size in (4, 64, 1000, 4000):
        rows.append(
            goal_row(
                f"fresh read of {size} bytes ≤ 1.15 × limit",
                by_placement("ratio", operation="fresh read", size=size),
                1.15,
            )
        )
    latency = [row for row in load("latency") if row["contestant"] == "kp"]
    names = dict(PLACEMENTS)
    for pace in ("ping-pong", "1 kHz"):
        for part in ("p50", "p99"):
            rows.append(
                goal_row(
                    f"change to callback, {pace}, {part} ≤ 1.10 × limit",
                    {names[row["placement"]]: row[f"ratio_{part}"] for row in latency if row["pace"] == pace},
                    1.10,
                )
            )
    rows.append(
        goal_row(
            "fan-out to 31, CPU of all ≤ 1.10 × limit",
            {
                names[row["placement"]]: row["ratio_cpu"]
                for row in load("fanout")
                if row["contestant"] == "kp" and row["receivers"] == 31
            },
            1.10,
        )
    )
    footprint = load("footprint")
    kp = pick(footprint, contestant="kp")
    if kp:
        rows.append(
            goal_row(
                "private memory of a handle ≤ 100 kB over the program before it",
                {"": kp["private_kb"]},
                100,
            )
        )
        over = sorted(ms - 10 for ms in kp["each_open_ms"])
        rows.append(
            goal_row(
                "opening the n-th endpoint of 31 ≤ 1 ms over its wait of 10 ms",
                {"median n": over[len(over) // 2], "worst n": over[-1]},
                1,
            )
        )
    web = load("web")
    return table(["goal", "measured", ""], rows + (web_goals(web) if web else []))


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


def tools_table():
    return table(
        ["figure", "measured", "at most"],
        [[row["name"], row["figure"], row["most"]] for row in load("tools")],
    )


def writers_table(writers, usual):
    """What writers wait beside others; `usual` names the row that the others are compared with."""
    plain = median(pick(writers, beside=usual)["p99_us"])
    return table(
        ["beside", "p50 µs", "p99 µs", "p99 of each round, sorted", f"× the p99 beside {usual}"],
        [
            [
                one["beside"],
                short(median(one["p50_us"])),
                short(median(one["p99_us"])),
                ", ".join(short(figure) for figure in sorted(one["p99_us"])),
                short(median(one["p99_us"]) / plain),
            ]
            for one in writers
        ],
    )


def mqtt_tables():
    mqtt = load("mqtt")
    if not mqtt:
        return "", ""
    memory, rates = mqtt["memory"], mqtt["rates"]
    each = (memory["full_kib"] - memory["empty_kib"]) * 1024 / memory["topics"]

    def row(title, text):
        return [title, *(text(rate) for rate in rates)]

    main = "\n\n".join(
        [
            f"Measured {mqtt['date']} with mosquitto {mqtt['mosquitto']}, {mqtt['processors']} "
            f"processors, load {mqtt['load_at_start']} at the start.",
            table(
                ["", *(f"QoS {rate['qos']}" for rate in rates)],
                [
                    row(
                        "changes a second, 1,000 tags written as fast as they go",
                        lambda rate: f"{rate['changes_per_s']:,.0f}",
                    ),
                    row(
                        "mosquitto_pub's own rate in the same run (no properties)",
                        lambda rate: f"{rate['mosquitto_pub_per_s']:,.0f}",
                    ),
                    row(
                        "delay from the write to the receipt by mosquitto_sub, p50, 10 tags at 10/s",
                        lambda rate: f"{rate['delay_p50_ms']:.2f} ms",
                    ),
                    row("the same, p99", lambda rate: f"{rate['delay_p99_ms']:.2f} ms"),
                    row(
                        "processor time, 1,000 tags at 10 changes a second each",
                        lambda rate: f"{rate['bridge_cpu_percent']:.0f} % of a core for "
                        f"{rate['messages_per_s']:,.0f} messages/s",
                    ),
                    row(
                        "mosquitto's own processor time meanwhile",
                        lambda rate: f"{rate['mosquitto_cpu_percent']:.0f} %",
                    ),
                ],
            ),
            f"Memory: {memory['empty_kib'] / 1024:.1f} MiB without topics, "
            f"{memory['full_kib'] / 1024:.1f} MiB with {memory['topics']:,}, so {each:.0f} bytes a topic.",
        ]
    )
    return main, writers_table(mqtt["writers"], "a follower")


def web_goals(web):
    """The goals of the web page's server, each with the figure that stands for it."""
    page, _, _ = web["pages"]["rows"]
    server = page["programs"][0]
    rest = web["at_rest"]["programs"][0]
    nobody, *_, beside = web["writers"]
    megabytes = server["mapped_kib"] * 1024 / 1e6
    return [
        goal_row("kp-web, 10 pages at 10 Hz ≤ 10 % of a core", {"": server["core_percent"]}, 10),
        goal_row("kp-web, 10 pages at 10 Hz ≤ 20 MB", {"": megabytes}, 20),
        goal_row("kp-web, a client that never reads ≤ 64 KB", {"": max(web["stalled"]["kib_each"])}, 64),
        goal_row("kp-web, 10,000 topics at rest ≤ 2 % of a core", {"": rest["core_percent"]}, 2),
        goal_row(
            "a writer's p99 beside kp-web with 10 pages ≤ 1.10 × that beside nobody",
            {"": median(beside["p99_us"]) / median(nobody["p99_us"])},
            1.10,
        ),
    ]


def web_tables():
    web = load("web")
    if not web:
        return "", "", ""
    rows = [*web["pages"]["rows"], web["at_rest"]]
    stalled = ", ".join(short(figure) for figure in web["stalled"]["kib_each"])
    main = "\n\n".join(
        [
            f"Measured {web['date']} with mosquitto {web['mosquitto']} and node-exporter {web['exporter']}, "
            f"{web['processors']} processors, load {web['load_at_start']} at the start. The writer came to "
            f"{web['pages']['rounds_per_s']:.1f} rounds a second.",
            table(
                [
                    "what",
                    "values a second",
                    "program",
                    "share of a core",
                    "own memory, MB",
                    "with mapped files, MB",
                ],
                [
                    [
                        row["what"],
                        f"{row['values_per_s']:,.0f}",
                        program["name"],
                        f"{program['core_percent']:.1f} %",
                        short(program["own_kib"] * 1024 / 1e6),
                        short(program["mapped_kib"] * 1024 / 1e6),
                    ]
                    for row in rows
                    for program in row["programs"]
                ],
            ),
            f"{web['stalled']['clients']} clients that never read cost, looked at each 5 s, {stalled} KiB each.",
        ]
    )
    scrapes = table(
        [
            f"{web['metrics']['samples']:,} samples of 1,000 topics from",
            "ms a scrape",
            "processor ms a scrape",
            "KB",
            "MB of memory",
        ],
        [
            [
                row["name"],
                short(row["ms"]),
                short(row["cpu_ms"]),
                short(row["bytes"] / 1e3),
                short(row["mapped_kib"] * 1024 / 1e6),
            ]
            for row in web["metrics"]["rows"]
        ],
    )
    return main, writers_table(web["writers"], "nobody"), scrapes


def plot(name, commands, data):
    PLOTS.mkdir(parents=True, exist_ok=True)
    blocks = "\n".join(f"${label} << EOD\n{text}\nEOD" for label, text in data.items())
    script = (
        f"set terminal svg size 800,480 font 'sans,12' background 'white'\n"
        f"set output '{PLOTS / name}.svg'\n{blocks}\nset grid\n{commands}\n"
    )
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


OWN_COLOUR = "#c1121f"
# Told apart by colour, dashes and points, so that they also are without colours.
COLOURS = (
    "#4a6fa5",
    "#6a994e",
    "#bc6c25",
    "#7b5ea7",
    "#2a9d8f",
    "#8d99ae",
    "#b08968",
    "#577590",
    "#9a8c98",
    "#386641",
    "#a5a58d",
    "#5c677d",
)


def curve(block, title, place):
    """One line of a plot; the library's own is drawn heavy and red, so that it is seen first."""
    if title in ("kp", "kp_tag"):
        style = f"lw 4 pt 7 ps 0.8 lc rgb '{OWN_COLOUR}'"
    elif title == "limit":
        style = "lw 2 dt 2 pt 1 lc rgb 'black'"
    else:
        style = f"lw 1.5 dt {place % 4 + 2} pt {place % 12 + 1} lc rgb '{COLOURS[place % 12]}'"
    return f'{block} using 1:2 with linespoints {style} title "{title}"'


def plot_values(operation):
    values = [row for row in load("values") if row["placement"] == "two" and row["operation"] == operation]
    data, curves = {}, []
    for index, contestant in enumerate(unique(values, "contestant")):
        rows = [row for row in values if row["contestant"] == contestant]
        if contestant == "kp_tag":
            data["limit"] = "\n".join(f"{row['size']} {row['limit_ns']['p50']}" for row in rows)
            curves.append(curve("$limit", "limit", index))
        data[f"c{index}"] = "\n".join(f"{row['size']} {row['own_ns']['p50']}" for row in rows)
        curves.append(curve(f"$c{index}", contestant, index))
    plot(
        f"value-{operation.replace(' ', '-')}",
        "set logscale xy\nset key outside noenhanced\nset xlabel 'bytes'\nset ylabel 'ns, median'\n"
        f"set title '{operation.capitalize()} of a value, two CPUs'\nplot {', '.join(curves)}",
        data,
    )


def plot_latency(pace):
    rows = [row for row in load("latency") if row["pace"] == pace and row["placement"] == "one"]
    rows.sort(key=lambda row: row["own_us"]["p50"])
    names = [row["contestant"] for row in rows]
    text = "\n".join(f"\"{row['contestant']}\" {row['own_us']['p50']} {row['own_us']['p99']}" for row in rows)
    plot(
        f"change-{pace.replace(' ', '')}",
        "set style data histograms\nset style fill solid 0.7\nset logscale y\n"
        "set xtics rotate by -35 noenhanced\nset ylabel 'µs'\nset bmargin 6\n"
        f"set title 'Change to callback, {pace}, one CPU'\n"
        f"set style rect fs solid 0.15 noborder fc rgb '{OWN_COLOUR}'\n"
        f"set object 1 rect from {names.index('kp') - 0.5}, graph 0 "
        f"to {names.index('kp') + 0.5}, graph 1 behind\n"
        "plot $d using 2:xtic(1) lc rgb '#4a6fa5' title 'p50', "
        "'' using 3 lc rgb '#bc6c25' title 'p99'",
        {"d": text},
    )


def plot_fanout():
    rows = [row for row in load("fanout") if row["placement"] == "free"]
    data, curves = {}, []
    for index, contestant in enumerate(unique(rows, "contestant")):
        data[f"c{index}"] = "\n".join(
            f"{row['receivers']} {row['own']['delay_us']['p50']}"
            for row in rows
            if row["contestant"] == contestant
        )
        curves.append(curve(f"$c{index}", contestant, index))
    plot(
        "fanout",
        "set logscale xy\nset key outside noenhanced\nset xlabel 'receivers'\n"
        "set ylabel 'µs until the last has it, median'\nset title 'Fan-out, free placement'\n"
        f"plot {', '.join(curves)}",
        data,
    )


def plot_growth():
    data, curves = {}, []
    for index, name in enumerate(
        ("get_tag", "walk/1", "walk/100", "match_new_tag", "list_topics", "subscribe_pattern")
    ):
        base, _, changed = name.partition("/")
        points = []
        for row in load("growth"):
            parts = row["name"].split("/")
            if parts[0] == base and (not changed or parts[2:] == [changed]):
                points.append(f"{parts[1]} {row['real_time'] / 1000}")
        data[f"c{index}"] = "\n".join(points)
        title = f"{base}, {changed} changed" if changed else base
        curves.append(curve(f"$c{index}", title, index))
    plot(
        "growth",
        "set logscale xy\nset key outside noenhanced\nset xlabel 'tags, topics or patterns'\n"
        f"set ylabel 'µs'\nset title 'Growth'\nplot {', '.join(curves)}",
        data,
    )


def main():
    parts = {
        "machine": machine_table(),
        "goals": goals_table(),
        "values": value_tables(),
        "latency": latency_table(),
        "fanout": fanout_table(),
        "footprint": footprint_table(),
        "growth": growth_tables(),
        "tools": tools_table(),
    }
    parts["mqtt"], parts["mqtt-writers"] = mqtt_tables()
    parts["web"], parts["web-writers"], parts["web-metrics"] = web_tables()
    text = DOCUMENT.read_text()
    for name, part in parts.items():
        begin, end = f"<!-- begin {name} -->", f"<!-- end {name} -->"
        text = re.sub(f"{begin}.*?{end}", lambda _: f"{begin}\n{part}\n{end}", text, flags=re.S)
        print(part, end="\n\n")
    DOCUMENT.write_text(text)
    for operation in ("write", "read", "fresh read"):
        plot_values(operation)
    for pace in ("ping-pong", "1 kHz"):
        plot_latency(pace)
    plot_fanout()
    plot_growth()


main()

"""The plots of docs/plots."""

import subprocess

from reporting.figures import ROOT, load, pick, short, unique

PLOTS = ROOT / "docs" / "plots"
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


def plot(name, commands, data):
    PLOTS.mkdir(parents=True, exist_ok=True)
    blocks = "\n".join(f"${label} << EOD\n{text}\nEOD" for label, text in data.items())
    script = (
        f"set terminal svg size 800,480 font 'sans,12' background 'white'\n"
        f"set output '{PLOTS / name}.svg'\n{blocks}\nset grid\n{commands}\n"
    )
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


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

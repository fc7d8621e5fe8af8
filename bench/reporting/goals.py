"""The goals of the benchmarks, and whether what was measured keeps them."""

from statistics import median

from reporting.figures import PLACEMENTS, load, pick, table


def goal_row(goal, figures, most):
    """One figure for each place; said to be missed where one is above the goal."""
    missed = [place for place, figure in figures.items() if figure > most]
    verdict = "kept" if not missed else "missed: " + ", ".join(missed)
    return [goal, ", ".join(f"{place} {figure:.2f}" for place, figure in figures.items()), verdict]


def value_goals():
    values, rows = load("values"), []
    near_limit, close_to_limit = ("ratio", 1.15, "≤ 1.15 × limit"), ("over_limit_ns", 4, "≤ 4 ns over limit")
    for operation, sizes, (key, most, goal) in (
        ("write", (4, 64, 1000, 4000), near_limit),
        ("read", (4, 64), close_to_limit),
        ("read", (1000, 4000), near_limit),
        ("fresh read", (4, 64, 1000, 4000), near_limit),
    ):
        for size in sizes:
            found = {
                name: pick(values, contestant="kp_tag", placement=placement, operation=operation, size=size)
                for placement, name in PLACEMENTS
            }
            figures = {name: row[key] for name, row in found.items() if row}
            rows.append(goal_row(f"{operation} of {size} bytes {goal}", figures, most))
    return rows


def notice_goals():
    rows = []
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
    return rows


def footprint_goals():
    kp = pick(load("footprint"), contestant="kp")
    if not kp:
        return []
    over = sorted(ms - 10 for ms in kp["each_open_ms"])
    return [
        goal_row(
            "private memory of a handle ≤ 100 kB over the program before it", {"": kp["private_kb"]}, 100
        ),
        goal_row(
            "opening the n-th endpoint of 31 ≤ 1 ms over its wait of 10 ms",
            {"median n": over[len(over) // 2], "worst n": over[-1]},
            1,
        ),
    ]


def web_goals():
    """The goals of the web page's server, each with the figure that stands for it."""
    web = load("web")
    if not web:
        return []
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


def goals_table():
    rows = [*value_goals(), *notice_goals(), *footprint_goals(), *web_goals()]
    return table(["goal", "measured", ""], rows)

"""The tables of the tools, the bridge and the web server, as texts."""

from statistics import median

from reporting.figures import load, pick, short, table


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


def web_work_table(web):
    """What the server and what one would take instead cost, with pages and without."""
    rows = [*web["pages"]["rows"], web["at_rest"]]
    stalled = ", ".join(short(figure) for figure in web["stalled"]["kib_each"])
    return "\n\n".join(
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


def web_scrapes_table(web):
    return table(
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


def web_tables():
    """The work, the writers beside it and the scrapes."""
    web = load("web")
    if not web:
        return "", "", ""
    return web_work_table(web), writers_table(web["writers"], "nobody"), web_scrapes_table(web)

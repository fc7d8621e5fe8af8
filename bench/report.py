"""Turns bench/results/*.json into the tables of docs/performance.md and its plots."""

import re

from reporting import library_tables, plots, tool_tables
from reporting.figures import ROOT
from reporting.goals import goals_table

DOCUMENT = ROOT / "docs" / "performance.md"


def main():
    parts = {
        "machine": library_tables.machine_table(),
        "goals": goals_table(),
        "values": library_tables.value_tables(),
        "latency": library_tables.latency_table(),
        "fanout": library_tables.fanout_table(),
        "footprint": library_tables.footprint_table(),
        "growth": library_tables.growth_tables(),
        "tools": tool_tables.tools_table(),
    }
    parts["mqtt"], parts["mqtt-writers"] = tool_tables.mqtt_tables()
    parts["web"], parts["web-writers"], parts["web-metrics"] = tool_tables.web_tables()
    text = DOCUMENT.read_text()
    for name, part in parts.items():
        begin, end = f"<!-- begin {name} -->", f"<!-- end {name} -->"
        text = re.sub(f"{begin}.*?{end}", lambda _: f"{begin}\n{part}\n{end}", text, flags=re.S)
        print(part, end="\n\n")
    DOCUMENT.write_text(text)
    for operation in ("write", "read", "fresh read"):
        plots.plot_values(operation)
    for pace in ("ping-pong", "1 kHz"):
        plots.plot_latency(pace)
    plots.plot_fanout()
    plots.plot_growth()


main()

// Draws the last ten minutes of the chosen topics: numbers as curves, everything else as bands.
import { element, keyOf, shown, valueText } from "./text.js";

const kKeptMs = 600e3;
const kBandHeight = 26;
const kColours = ["#3b82f6", "#e07a1f", "#16a34a", "#c026d3", "#dc2626", "#0d9488", "#8b5cf6", "#a16207"];

const isCurve = (value) => typeof value === "number";

export class Trend {
  constructor(place, remove) {
    this.place = place;
    this.plot = place.querySelector("#plot");
    this.bands = place.querySelector("#bands");
    this.legend = place.querySelector("#legend");
    this.remove = remove;
    this.lines = new Map(); // by key: { name, points: [[ms, value, text]] }
    this.isPaused = false;
    setInterval(() => this.draw(), 500);
  }

  // Takes the topics that are to be shown, and forgets what is known of the others.
  // `rowOf(key)` gives the newest row, where there is one.
  choose(topics, rowOf) {
    const keys = new Set(topics.map(keyOf));
    for (const key of this.lines.keys())
      if (!keys.has(key))
        this.lines.delete(key);
    for (const topic of topics)
      if (!this.lines.has(keyOf(topic))) {
        this.lines.set(keyOf(topic), { name: topic.topic, points: [] });
        const row = rowOf(keyOf(topic));
        if (row)
          this.take(row);
      }
    this.place.hidden = topics.length === 0;
    this.legend.replaceChildren(...topics.map((topic, at) => {
      const item = element("li");
      const button = element("button", "✕ " + shown(topic.topic));
      button.style.color = kColours[at % kColours.length];
      button.setAttribute("aria-label", "Take " + shown(topic.topic) + " out of the trend");
      button.addEventListener("click", () => this.remove(keyOf(topic)));
      item.append(button);
      return item;
    }));
    this.graph?.destroy();
    this.graph = null;
    this.draw();
  }

  take(row) {
    const line = this.lines.get(keyOf(row));
    if (!line || row.value === null)
      return;
    const { points } = line;
    points.push([Date.now(), row.value, valueText(row)]);
    while (points[0][0] < Date.now() - kKeptMs)
      points.shift();
  }

  pause(isPaused) {
    this.isPaused = isPaused;
  }

  zoomOut() {
    this.graph?.resetZoom();
  }

  draw() {
    if (this.place.hidden || document.hidden || this.isPaused || !globalThis.Dygraph)
      return;
    const all = [...this.lines.values()];
    this.drawCurves(all.map((line, at) => ({ ...line, colour: kColours[at % kColours.length] }))
      .filter((line) => line.points.some((point) => isCurve(point[1]))));
    this.drawBands(all.filter((line) => line.points.some((point) => !isCurve(point[1]))));
  }

  drawCurves(curves) {
    this.plot.classList.toggle("empty", curves.length === 0);
    if (curves.length === 0)
      return;
    const now = Date.now();
    const rows = curves.flatMap((curve, at) => [...curve.points, [now, curve.points.at(-1)[1]]]
      .map(([time, value]) => {
        const row = new Array(curves.length + 1).fill(null);
        [row[0], row[at + 1]] = [new Date(time), isCurve(value) ? value : null];
        return row;
      })).sort((a, b) => a[0] - b[0]);
    const labels = ["time", ...curves.map((curve) => shown(curve.name))];
    const looks = { file: rows, labels, colors: curves.map((curve) => curve.colour) };
    if (this.graph && this.shownCurves === labels.length) {
      this.graph.updateOptions(looks);
      return;
    }
    this.graph?.destroy();
    this.shownCurves = labels.length;
    // The library's legend measures text with a style in HTML, which the page's policy forbids. The
    // page has a list instead.
    const { PLUGINS: plugins, Plugins: known } = globalThis.Dygraph;
    globalThis.Dygraph.PLUGINS = plugins.filter((plugin) => plugin !== known.Legend);
    this.graph = new globalThis.Dygraph(this.plot, rows, { ...looks, connectSeparatedPoints: true,
      stepPlot: true, strokeWidth: 1.5, gridLineColor: "#8884", axisLineColor: "#888" });
  }

  // Says where a time stands in the bands: below the same time of the curves, if there are any.
  timeAxis(bands, now, width) {
    if (this.graph)
      return { start: this.graph.xAxisRange()[0], place: (time) => this.graph.toDomXCoord(time) };
    const start = Math.min(now - 10e3, ...bands.map((band) => band.points[0][0]));
    return { start, place: (time) => ((time - start) / (now - start)) * width };
  }

  drawBands(changing) {
    const bands = changing.map((band) => ({ ...band, points: band.points.filter(
      (point, index) => index === 0 || point[2] !== band.points[index - 1][2]) }));
    const height = bands.length * kBandHeight;
    const width = this.bands.clientWidth;
    const scale = globalThis.devicePixelRatio || 1;
    this.bands.width = width * scale;
    this.bands.height = height * scale;
    this.bands.style.height = height + "px";
    const pen = this.bands.getContext("2d");
    pen.scale(scale, scale);
    pen.font = "12px system-ui, sans-serif";
    const now = Date.now();
    const { start, place } = this.timeAxis(bands, now, width);
    bands.forEach((band, at) => {
      const texts = [...new Set(band.points.map((point) => point[2]))];
      band.points.forEach(([time, , text], index) => {
        const left = place(Math.max(start, time));
        const right = place(band.points[index + 1]?.[0] ?? now);
        pen.fillStyle = kColours[texts.indexOf(text) % kColours.length];
        if (right <= place(start))
          return; // to the left of what a zoom shows
        pen.fillRect(left, at * kBandHeight + 2, Math.max(1, right - left), kBandHeight - 4);
        pen.fillStyle = "#fff";
        if (right - left > 40)
          pen.fillText(text, left + 4, at * kBandHeight + 17, right - left - 8);
      });
    });
    this.bands.setAttribute("aria-label", bands.map((band) => shown(band.name)).join(", "));
  }
}

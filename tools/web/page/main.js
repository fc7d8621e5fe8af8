// Joins the parts of the page: which view is shown, what it shows, and the address that leads
// there.
import { showFindings, showPeers } from "./device.js";
import { showDetails } from "./details.js";
import { filterOf } from "./filter.js";
import { lines, Live } from "./live.js";
import { Mappers } from "./mappers.js";
import { Table } from "./table.js";
import { addressOf, keyOf, mark } from "./text.js";
import { markTree, showTree } from "./tree.js";
import { Trend } from "./trend.js";

const kDeviceMs = 3000;
const find = (id) => document.getElementById(id);

// Says what fills each view anew. A live stream fills that of the tags.
const kViews = new Map([
  ["tags", () => {}],
  ["peers", () => showPeers(find("peers"), find("no-peers"))],
  ["doctor", () => showFindings(find("findings"), find("healthy"))],
]);

let topics = [];
let byKey = new Map();
let view = { trend: [] };
let inView = [];

// Everything that a link to what is seen needs stands behind the "#" of the address.
function readAddress() {
  const words = new URLSearchParams(location.hash.slice(1));
  return { view: words.get("view") ?? "tags", filter: words.get("q") ?? "", topic: words.get("topic"),
    trend: words.getAll("trend") };
}

function addressWith(changes) {
  const { view: name, filter, topic, trend } = { ...view, ...changes };
  const words = new URLSearchParams({ view: name });
  if (filter)
    words.set("q", filter);
  if (topic)
    words.set("topic", topic);
  trend.forEach((key) => words.append("trend", key));
  return "#" + words;
}

function go(changes) {
  history.replaceState(null, "", addressWith(changes));
  show();
}

const table = new Table(find("table"), {
  look: (addresses) => { inView = addresses; follow(); },
  choose: (key) => go({ topic: key }),
});
const trend = new Trend(find("trend"), (key) =>
  go({ trend: view.trend.filter((other) => other !== key) }));

const mappers = new Mappers(() => facts());

// One stream serves the table, the facts and the trend. The trend's topics stay in it while their
// rows are out of view.
const live = new Live(10, {
  changed: (row) => {
    table.take(row);
    trend.take(row);
    if (view.topic === keyOf(row))
      facts();
  },
  gone: (key) => table.forget(key),
  listed: () => list(),
  broken: (isBroken) => {
    find("state").textContent = isBroken ? "connection lost" : "live";
    find("state").classList.toggle("broken", isBroken);
  },
});

function follow() {
  const chosen = [view.topic, ...view.trend].map((key) => byKey.get(key)).filter((topic) => topic);
  live.follow([...new Set([...inView, ...chosen.map(addressOf)])]);
}

function facts() {
  const topic = byKey.get(view.topic);
  find("details").hidden = !topic;
  mappers.choose(topic);
  if (!topic)
    return;
  showDetails(find("details"), topic, table.values.get(view.topic)?.row, mappers.texts());
  find("trend-add").setAttribute("aria-pressed", view.trend.includes(view.topic));
}

async function list() {
  try {
    const { objects, ahead } = await lines("/topics");
    topics = objects;
    table.ahead = ahead;
  } catch {
    setTimeout(list, 2000);
    return;
  }
  byKey = new Map(topics.map((topic) => [keyOf(topic), topic]));
  showTree(find("tree"), topics, (filter) => addressWith({ filter, view: "tags" }));
  if (topics.length === 0)
    setTimeout(list, 2000); // without a topic there is no stream that tells of the first
  show();
}

async function showDevice() {
  try {
    await kViews.get(view.view)?.();
  } catch {
    find("state").textContent = "connection lost";
  }
}

function show() {
  const before = view;
  view = readAddress();
  for (const name of kViews.keys()) {
    find("view-" + name).hidden = name !== view.view;
    mark(find("go-" + name), "page", name === view.view);
    find("go-" + name).href = addressWith({ view: name });
  }
  if (find("filter") !== document.activeElement)
    find("filter").value = view.filter;
  const passes = filterOf(view.filter);
  table.byKey = byKey;
  table.show(topics.filter((topic) => passes(topic.topic)));
  find("empty").hidden = table.topics.length > 0;
  table.select(view.topic);
  markTree(find("tree"), view.filter);
  facts();
  if (String(before.trend) !== String(view.trend) || trend.lines.size !== view.trend.length)
    trend.choose(view.trend.map((key) => byKey.get(key)).filter((topic) => topic),
      (key) => table.values.get(key)?.row);
  follow();
  if (before.view !== view.view)
    showDevice();
}

function press(event) {
  const isTyping = event.target.matches("input");
  if (event.key === "/" && !isTyping) {
    event.preventDefault();
    find("filter").select();
  } else if (event.key === "Escape") {
    find("table").focus();
    go({ topic: null });
  } else if (event.key === "Enter" && event.target === find("filter")) {
    event.preventDefault();
    find("table").focus();
  } else if (event.key === "Enter" && event.target === find("table") && view.topic) {
    event.preventDefault();
    find("trend-add").focus();
  }
}

function turnTheme() {
  const isDark = matchMedia("(prefers-color-scheme: dark)").matches;
  const now = document.documentElement.dataset.theme ?? (isDark ? "dark" : "light");
  document.documentElement.dataset.theme = now === "dark" ? "light" : "dark";
}

find("filter").addEventListener("input", (event) => go({ filter: event.target.value }));
find("close").addEventListener("click", () => go({ topic: null }));
find("theme").addEventListener("click", turnTheme);
find("skip").addEventListener("click", (event) => { event.preventDefault(); find("table").focus(); });
find("zoom-out").addEventListener("click", () => trend.zoomOut());
find("trend-add").addEventListener("click", () => go({ trend: view.trend.includes(view.topic)
  ? view.trend.filter((key) => key !== view.topic) : [...view.trend, view.topic] }));
find("pause").addEventListener("click", (event) => {
  const isPaused = event.target.getAttribute("aria-pressed") !== "true";
  event.target.setAttribute("aria-pressed", isPaused);
  trend.pause(isPaused);
});
addEventListener("keydown", press);
addEventListener("hashchange", show);
setInterval(() => document.hidden || showDevice(), kDeviceMs);

const drawing = document.createElement("script");
drawing.src = "/lib/dygraph.js";
document.head.append(drawing);
show();
list();

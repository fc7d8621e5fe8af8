// The live table. Only the rows in view are in the page, and only their topics are streamed, so ten
// thousand topics cost no more than forty.
import { addressOf, ageText, element, keyOf, shown, stateClass, stateText, valueText } from "./text.js";

const kBeyond = 4; // rows beyond the view, so that scrolling a little shows no gap
const kRateMs = 5000;

export class Table {
  // `look(addresses)` is called with the topics in view, `choose(key)` when somebody chooses a row.
  constructor(region, { look, choose }) {
    this.region = region;
    this.body = region.querySelector("tbody");
    this.table = region.querySelector("table");
    this.look = look;
    this.choose = choose;
    this.topics = [];
    this.byKey = new Map();
    this.values = new Map();
    this.chosen = null;
    this.ahead = 0;
    this.rows = new Map();
    region.addEventListener("scroll", () => this.draw(), { passive: true });
    region.addEventListener("keydown", (event) => this.press(event));
    new ResizeObserver(() => this.draw()).observe(region);
    setInterval(() => this.age(), 500);
  }

  show(topics) {
    this.topics = topics;
    this.table.setAttribute("aria-rowcount", topics.length + 1);
    this.draw(true);
  }

  take(row) {
    const key = keyOf(row);
    const seen = this.values.get(key)?.seen ?? [];
    const now = performance.now();
    seen.push(now);
    while (seen.length > 0 && seen[0] < now - kRateMs)
      seen.shift();
    this.values.set(key, { row, seen });
    const line = this.rows.get(key);
    if (line)
      this.fill(line, key);
  }

  forget(key) {
    this.values.delete(key);
  }

  select(key) {
    this.chosen = key;
    for (const [other, line] of this.rows)
      line.setAttribute("aria-selected", other === key);
  }

  height() {
    return 1.75 * parseFloat(getComputedStyle(document.documentElement).fontSize);
  }

  draw(anew = false) {
    const height = this.height();
    const first = Math.max(0, Math.floor(this.region.scrollTop / height) - kBeyond);
    const count = Math.ceil(this.region.clientHeight / height) + 2 * kBeyond;
    const last = Math.min(this.topics.length, first + count);
    if (!anew && first === this.first && last === this.last)
      return;
    [this.first, this.last] = [first, last];
    this.rows.clear();
    const lines = [this.space(first * height)];
    for (let at = first; at < last; ++at)
      lines.push(this.line(this.topics[at], at));
    lines.push(this.space((this.topics.length - last) * height));
    this.body.replaceChildren(...lines);
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.look(this.topics.slice(first, last).map(addressOf)), 120);
  }

  space(height) {
    const line = element("tr", undefined, "space");
    line.setAttribute("aria-hidden", "true");
    line.style.height = height + "px";
    return line;
  }

  line(topic, at) {
    const line = element("tr", undefined, "row");
    const key = keyOf(topic);
    line.setAttribute("aria-rowindex", at + 2);
    line.setAttribute("aria-selected", key === this.chosen);
    const kinds = ["topic", "value", "state", "number", "number age", "number", "number", "number"];
    for (const kind of kinds)
      line.append(element("td", "", kind));
    line.firstChild.textContent = shown(topic.topic);
    line.firstChild.title = shown(topic.topic);
    line.addEventListener("click", () => this.choose(key));
    this.rows.set(key, line);
    this.fill(line, key);
    return line;
  }

  // A value that nobody renews goes stale without a word from the device.
  stateOf(value, key) {
    const { row } = value;
    const stale = this.byKey.get(key)?.stale;
    if (stale && this.ageOf(row) > stale * 1000)
      return "stale";
    return row.problem ? "cannot be read" : row.state;
  }

  ageOf(row) {
    return Date.now() + this.ahead - row.ts / 1000;
  }

  fill(line, key) {
    const value = this.values.get(key);
    if (!value)
      return;
    const { row, seen } = value;
    const state = this.stateOf(value, key);
    const cells = line.children;
    const has = row.flags.includes("value");
    const text = valueText(row);
    cells[1].textContent = text;
    cells[1].title = text;
    cells[2].textContent = stateText(state);
    cells[3].textContent = row.quality;
    cells[4].textContent = has ? ageText(this.ageOf(row)) : "–";
    const now = performance.now();
    const count = seen.filter((at) => at > now - kRateMs).length;
    cells[5].textContent = count > 1 ? (count / (kRateMs / 1000)).toFixed(1) + "/s" : "–";
    cells[6].textContent = row.providers;
    cells[7].textContent = row.consumers;
    line.className = "row " + stateClass(state);
  }

  age() {
    if (!document.hidden)
      for (const [key, line] of this.rows)
        this.fill(line, key);
  }

  press(event) {
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 20, PageUp: -20, Home: -1e9, End: 1e9 };
    if (!(event.key in steps) || this.topics.length === 0)
      return;
    event.preventDefault();
    const at = this.topics.findIndex((topic) => keyOf(topic) === this.chosen);
    const next = Math.min(this.topics.length - 1, Math.max(0, at + steps[event.key]));
    const height = this.height();
    const room = this.region.clientHeight - 2 * height;
    if (next * height < this.region.scrollTop)
      this.region.scrollTop = next * height;
    if (next * height > this.region.scrollTop + room)
      this.region.scrollTop = next * height - room;
    this.draw();
    this.choose(keyOf(this.topics[next]));
  }
}

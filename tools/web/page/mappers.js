// Finds out who has the chosen topic open, again every few seconds.
import { lines } from "./live.js";
import { addressOf, keyOf, shown } from "./text.js";

const kAgainMs = 10000;

function processText(mapper) {
  const uses = [mapper.open ? mapper.open + " open" : "", mapper.read_only ? "reading only" : ""];
  return mapper.pid + " " + shown(mapper.program) + " (" + shown(mapper.user) + "), " +
    uses.filter((use) => use).join(", ");
}

export class Mappers {
  // `changed()` is called when there is something new.
  constructor(changed) {
    this.changed = changed;
    this.topic = null;
    this.found = null;
    setInterval(() => document.hidden || this.look(), kAgainMs);
  }

  choose(topic) {
    if (topic && this.topic && keyOf(topic) === keyOf(this.topic))
      return;
    this.topic = topic;
    this.found = null;
    this.look();
  }

  async look() {
    const topic = this.topic;
    if (!topic)
      return;
    let found = null;
    try {
      found = (await lines("/mappers?q=" + addressOf(topic))).objects[0];
    } catch {
      // the connection is lost, which the page shows elsewhere
    }
    if (topic !== this.topic)
      return;
    this.found = found;
    this.changed();
  }

  // Gives one text for each process; none before the first look.
  texts() {
    if (!this.found)
      return [];
    const hidden = this.found.hidden_processes;
    return [...this.found.mappers.map(processText),
      ...(hidden ? [(hidden === 1 ? "1 process shows" : hidden + " processes show") + " only to root"] : [])];
  }
}

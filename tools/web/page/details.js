// Shows the facts of one topic.
import { element, keyOf, shown, stateText, valueText } from "./text.js";

const timeText = (us) => (us ? new Date(us / 1000).toISOString() : "–");

function limitsText(topic) {
  return ["lowlow", "low", "high", "highhigh"].filter((name) => topic[name] !== undefined)
    .map((name) => name + " " + topic[name]).join(", ");
}

export function showDetails(place, topic, row, processes) {
  place.querySelector("#details-topic").textContent = shown(topic.topic);
  place.querySelector("#details-text").textContent = topic.description ? shown(topic.description) : "";
  const facts = row ? [
    ["Value", valueText(row)], ["State", stateText(row.state)], ["Problem", row.problem],
    ["Type", row.type ?? "–"], ["Size", row.size + " of " + row.max + " bytes"],
    ["Quality", row.quality], ["Written", timeText(row.ts)], ["Source time", timeText(row.source_ts)],
    ["Extra", row.extra], ["Flags", row.flags.join(", ")],
    ["Providers", row.providers], ["Consumers", row.consumers],
  ] : [];
  if (topic.least !== undefined)
    facts.push(["Range", topic.least + " to " + topic.most]);
  facts.push(["Limits", limitsText(topic)]);
  if (topic.stale)
    facts.push(["Stale after", topic.stale + " s"]);
  if (topic.names)
    facts.push(["Names", Object.entries(topic.names).map((pair) => pair.join(" = ")).join(", ")]);
  facts.push(["Open in", ...processes]);
  const list = place.querySelector("#facts");
  list.replaceChildren();
  for (const [name, ...all] of facts) {
    const texts = all.filter((text) => text !== undefined && text !== "");
    if (texts.length > 0)
      list.append(element("dt", name), ...texts.map((text) => element("dd", shown(text))));
  }
  list.dataset.key = keyOf(topic);
}

// Makes values, ages and names into text for people.

// Gives the name as an address has it. A name that is not UTF-8 comes as base64, byte for byte.
export function addressOf(row) {
  if (!row.topic_b64)
    return encodeURIComponent(row.topic);
  return Array.from(atob(row.topic_b64), (byte) =>
    "%" + byte.charCodeAt(0).toString(16).padStart(2, "0")).join("");
}

// Gives what tells one topic from all others.
export const keyOf = (row) => (row.topic_b64 ? "b64:" + row.topic_b64 : row.topic);

const UNSAFE = new RegExp("[\\u0000-\\u001f\\u007f-\\u009f\\u00ad\\u061c\\u180e\\u200b\\u200e\\u200f" +
  "\\u2028-\\u202e\\u2060-\\u206f\\ufeff\\ufff9-\\ufffb\\u{e0000}-\\u{e007f}]", "gu");

// Escapes what nobody would see, so that no two names look the same, and marks of direction, which
// would turn the text around them.
export function shown(text) {
  return String(text).replace(UNSAFE, (character) => {
    const code = character.codePointAt(0).toString(16);
    return code.length > 4 ? "\\U" + code.padStart(8, "0") : "\\u" + code.padStart(4, "0");
  });
}

export function valueText(row) {
  if (row.problem)
    return "(cannot be read)";
  if (row.value === null || row.value === undefined)
    return "–";
  if (row.name !== undefined)
    return shown(row.name) + " (" + row.value + ")";
  return shown(row.value) + (row.unit ? " " + shown(row.unit) : "");
}

export function ageText(ms) {
  if (ms < 0)
    return "future";
  const units = [[1000, 1, "ms"], [120e3, 1000, "s"], [7200e3, 60e3, "min"], [172800e3, 3600e3, "h"]];
  for (const [below, unit, name] of units)
    if (ms < below)
      return (ms / unit).toFixed(name === "ms" ? 0 : 1) + " " + name;
  return (ms / 86400e3).toFixed(1) + " d";
}

// A mark stands beside the word, for people who see no colours.
const kMarks = { low: "▼ low", high: "▲ high", lowlow: "▼▼ lowlow", highhigh: "▲▲ highhigh",
  stale: "◌ stale", "bad quality": "✕ bad quality", ok: "" };

export const stateText = (state) => kMarks[state] ?? shown(state ?? "");

export function stateClass(state) {
  if (state === "stale")
    return "stale";
  if (state === "low" || state === "high")
    return "warning";
  return state === "lowlow" || state === "highhigh" || state === "bad quality" ? "alarm" : "";
}

export function element(name, text, className) {
  const made = document.createElement(name);
  if (text !== undefined)
    made.textContent = text;
  if (className)
    made.className = className;
  return made;
}

// Marks the link that leads to what is shown now.
export function mark(link, kind, isCurrent) {
  if (isCurrent)
    link.setAttribute("aria-current", kind);
  else
    link.removeAttribute("aria-current");
}

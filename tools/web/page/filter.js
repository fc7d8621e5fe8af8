// Says which topics a filter lets through. With a wildcard it is a pattern, else a part of the
// name.

const isPattern = (text) => text.split("/").some((level) => level[0] === "+" || level[0] === "#");

function covers(pattern, topic) {
  for (let at = 0; at < pattern.length; ++at) {
    if (pattern[at][0] === "#")
      return topic.length > at;
    if (at >= topic.length || (pattern[at][0] !== "+" && pattern[at] !== topic[at]))
      return false;
  }
  return topic.length === pattern.length;
}

export function filterOf(text) {
  const wanted = text.trim();
  if (!wanted)
    return () => true;
  if (!isPattern(wanted)) {
    const part = wanted.toLowerCase();
    return (topic) => topic.toLowerCase().includes(part);
  }
  const pattern = wanted.split("/").filter((level) => level);
  return (topic) => covers(pattern, topic.split("/"));
}

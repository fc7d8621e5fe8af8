// The tree of the topics. A branch is filled when it is opened, so that many topics cost little.
import { element, mark, shown } from "./text.js";

function branchesOf(topics) {
  const root = new Map();
  for (const { topic } of topics) {
    let branch = root;
    const levels = topic.split("/");
    levels.pop();
    for (const level of levels) {
      if (!branch.has(level))
        branch.set(level, new Map());
      branch = branch.get(level);
    }
  }
  return root;
}

function listOf(branch, path, linkTo) {
  const list = element("ul");
  for (const level of [...branch.keys()].sort()) {
    const whole = path ? path + "/" + level : level;
    const item = element("li");
    const link = element("a", shown(level) + "/");
    link.href = linkTo(whole + "/#");
    link.dataset.filter = whole + "/#";
    const below = branch.get(level);
    if (below.size === 0) {
      item.append(link);
    } else {
      const fold = element("details");
      const title = element("summary");
      title.append(link);
      fold.append(title);
      fold.addEventListener("toggle", () => {
        if (fold.open && fold.children.length === 1)
          fold.append(listOf(below, whole, linkTo));
      });
      item.append(fold);
    }
    list.append(item);
  }
  return list;
}

// `linkTo(filter)` gives the address of the view with that filter.
export function showTree(place, topics, linkTo) {
  const open = new Set([...place.querySelectorAll("details[open] > summary > a")]
    .map((link) => link.dataset.filter));
  const all = element("a", "all topics");
  all.href = linkTo("");
  all.dataset.filter = "";
  place.replaceChildren(all, listOf(branchesOf(topics), "", linkTo));
  // Opening fills a branch at the next event, and what it brings may have been open as well.
  const reopen = (part) => {
    for (const fold of part.querySelectorAll("details:not([open])"))
      if (open.delete(fold.querySelector("a").dataset.filter)) {
        fold.addEventListener("toggle", () => reopen(fold), { once: true });
        fold.open = true;
      }
  };
  reopen(place);
}

export function markTree(place, filter) {
  for (const link of place.querySelectorAll("a"))
    mark(link, "true", link.dataset.filter === filter);
}

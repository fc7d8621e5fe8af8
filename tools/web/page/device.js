// Fills the views of the device: its endpoints, and what kp doctor finds.
import { lines } from "./live.js";
import { element, shown } from "./text.js";

export async function showPeers(place, none) {
  const { objects } = await lines("/peers");
  place.replaceChildren(...objects.map((peer) => {
    const line = element("tr", undefined, peer.state === "dead" || peer.stopped ? "alarm" : "");
    const process = peer.pid ? peer.pid + " " + shown(peer.program) : "–";
    const cells = [shown(peer.name), peer.state, process, shown(peer.user),
      peer.connections + "/" + peer.max_connections, peer.unread ?? "–", shown(peer.note)];
    cells.forEach((text, at) => line.append(element("td", text,
      at === 4 || at === 5 ? "number" : at === 1 ? "state" : "")));
    return line;
  }));
  none.hidden = objects.length > 0;
}

export async function showFindings(place, healthy) {
  const { objects } = await lines("/doctor");
  place.replaceChildren(...objects.map((finding) => {
    const item = element("li", undefined, finding.level);
    item.append(element("span", finding.level, "level"),
      " " + shown(finding.subject) + ": " + shown(finding.text) + " ");
    if (finding.fix)
      item.append(element("code", shown(finding.fix)));
    return item;
  }));
  healthy.hidden = objects.some((finding) => finding.level !== "note");
}

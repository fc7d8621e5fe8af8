// Streams the newest values of some topics. When the topics change, a new stream is opened.
import { keyOf } from "./text.js";

export class Live {
  // `changed(row)` is called for each value, `gone(key)` for a topic that went, `listed()` when
  // topics came or went, `broken(isBroken)` when the connection breaks and when it is there again.
  constructor(rate, handlers) {
    this.rate = rate;
    this.handlers = handlers;
    this.asked = "";
    this.source = null;
  }

  // Takes the topics as they stand in an address. Without any the stream ends.
  follow(addresses) {
    const asked = addresses.map((address) => "q=" + address).join("&");
    if (asked === this.asked && this.source)
      return;
    this.asked = asked;
    this.source?.close();
    this.source = null;
    if (addresses.length === 0)
      return;
    const source = new EventSource("/watch?rate=" + this.rate + "&" + asked);
    this.source = source;
    source.onopen = () => this.handlers.broken?.(false);
    source.onerror = () => {
      this.handlers.broken?.(true);
      if (source.readyState === EventSource.CLOSED && source === this.source) {
        this.source = null;
        setTimeout(() => this.source ?? this.follow(addresses), 2000);
      }
    };
    source.onmessage = (event) => this.handlers.changed(JSON.parse(event.data));
    source.addEventListener("gone", (event) => this.handlers.gone?.(keyOf(JSON.parse(event.data))));
    source.addEventListener("topics", () => this.handlers.listed?.());
  }
}

// Gives the lines of JSON at an address, and by how many ms the device's clock is ahead of this
// one.
export async function lines(address) {
  const response = await fetch(address);
  if (!response.ok)
    throw new Error(address + ": " + response.status);
  const ahead = Date.parse(response.headers.get("Date")) - Date.now();
  const text = await response.text();
  const objects = text.split("\n").filter((line) => line).map((line) => JSON.parse(line));
  return { objects, ahead: Math.abs(ahead) > 2000 ? ahead : 0 };
}

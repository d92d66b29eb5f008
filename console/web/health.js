// How a host's health is told.
import {element, badge, printable, ago} from "./dom.js";

const kinds = {healthy: "good", degraded: "warn", off: "bad", silent: "bad"};
const words = {healthy: "Protected", degraded: "Degraded", off: "Off", silent: "Silent"};

export function health_badge(state) {
  return badge(words[state] ?? state, kinds[state] ?? "bad");
}

function sentence(host) {
  if (host.state === "silent") return `Nothing has been heard of it since ${ago(host.seen_ms)}.`;
  const reasons = host.reasons?.length ?? 0;
  if (reasons > 0) return reasons === 1 ? "One thing needs attention:" : `${reasons} things need attention:`;
  return host.last_undone_ms ? `The last change was undone ${ago(host.last_undone_ms)}.` : "Nothing has had to be undone.";
}

export function headline(host) {
  return [
    element("div", {class: "headline " + (kinds[host.state] ?? "bad")}, health_badge(host.state), element("p", {}, sentence(host))),
    host.reasons?.length ? element("ul", {class: "reasons"}, host.reasons.map((reason) => element("li", {},
      reason.path ? [element("code", {}, printable(reason.path)), ": "] : null, printable(reason.text),
      reason.code ? element("span", {class: "faint"}, ` [${reason.code}]`) : null))) : null,
  ].filter(Boolean);
}

// The list of incidents and the timeline of how fast they were undone.
import {element, moment, counted, counts, duration, printable, table} from "./dom.js";
import {host_address} from "./hosts.js";

const failed = (outcomes) => Object.keys(outcomes).some((outcome) => outcome.includes("failed") || outcome.includes("differs"));

export function incident_table(host, incidents, fresh_from) {
  if (incidents.length === 0) return element("p", {class: "faint"}, "There has been no alarm.");
  const rows = incidents.map((incident) => ({
    fresh: incident.last_ms > fresh_from,
    cells: [moment(incident.begun_ms),
      element("a", {href: host_address(host, "incident", incident.id)}, printable(incident.common || "/")),
      `${counted(incident.count, "change")}: ${counts(incident.actions)}`,
      element("span", {class: failed(incident.outcomes) ? "error" : null}, printable(counts(incident.outcomes))),
      duration(incident.slowest_ms)],
  }));
  return table("Incidents, the newest first", [{name: "Time", class: "time"}, {name: "Where", class: "path"}, {name: "What"},
    {name: "Outcome"}, {name: "Slowest", class: "number", told: true}], rows);
}

const shape = "http://www.w3.org/2000/svg";

function drawn(name, attributes, text = "") {
  const made = document.createElementNS(shape, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  made.textContent = text;
  return made;
}

const clock = (time) => new Date(time).toLocaleString([], {dateStyle: "short", timeStyle: "medium"});

/** points: [[time in ms, duration in ms]]. On a scale of powers of ten. */
export function latency_chart(points) {
  if (points.length < 2) return element("p", {class: "faint"}, "There is nothing to show yet.");
  const [width, height, left, bottom, top] = [innerWidth < 640 ? 380 : 800, 180, 60, 24, 10];
  const times = points.map(([time]) => time);
  const [first, last] = [Math.min(...times), Math.max(...times)];
  const low = Math.floor(Math.log10(Math.max(0.1, Math.min(...points.map(([, ms]) => ms)))));
  const high = Math.max(low + 1, Math.ceil(Math.log10(Math.max(...points.map(([, ms]) => ms)))));
  const x = (time) => left + (width - left - 10) * (last === first ? 0.5 : (time - first) / (last - first));
  const y = (ms) => height - bottom - (height - bottom - top) * (Math.log10(Math.max(ms, 10 ** low)) - low) / (high - low);
  const sorted = points.map(([, ms]) => ms).sort((a, b) => a - b);
  const middle = sorted[Math.floor(sorted.length / 2)];
  const told = `Of the last ${points.length} objects that were put back, half took at most ${duration(middle)}, the slowest ${duration(sorted.at(-1))}.`;
  const svg = drawn("svg", {class: "chart", viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": told});
  for (let power = low; power <= high; ++power) {
    svg.append(drawn("line", {class: "axis", x1: left, x2: width - 10, y1: y(10 ** power), y2: y(10 ** power)}),
      drawn("text", {x: left - 6, y: y(10 ** power) + 4, "text-anchor": "end"}, duration(10 ** power)));
  }
  for (const [time, ms] of points) svg.append(drawn("circle", {class: "dot", cx: x(time), cy: y(ms), r: 3}));
  svg.append(drawn("text", {x: left, y: height - 6}, clock(first)),
    drawn("text", {x: width - 10, y: height - 6, "text-anchor": "end"}, clock(last)));
  return element("figure", {}, svg, element("figcaption", {class: "faint"}, told));
}

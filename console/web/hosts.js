// All hosts, the worst first.
import {element, moment, printable, table} from "./dom.js";
import {get} from "./api.js";
import {health_badge} from "./health.js";

const order = ["silent", "off", "degraded", "healthy"];

export function host_address(id, ...more) {
  return "#/" + ["host", encodeURIComponent(id), ...more].join("/");
}

export async function show_hosts(session) {
  const {hosts} = await get(["hosts"]);
  if (session.mode === "host" && hosts.length === 1) {
    location.replace(host_address(hosts[0].id));
    return {content: []};
  }
  hosts.sort((a, b) => order.indexOf(a.state) - order.indexOf(b.state) || a.name.localeCompare(b.name));
  const rows = hosts.map((host) => ({cells: [
    element("a", {href: host_address(host.id)}, printable(host.name)), health_badge(host.state),
    printable(host.reasons?.[0]?.text ?? ""), moment(host.last_undone_ms), String(host.paths)]}));
  return {
    title: "Hosts",
    content: [element("h1", {}, "Hosts"),
      table("Hosts", [{name: "Host"}, {name: "State"}, {name: "Why"}, {name: "Last undone", told: true, class: "time"},
        {name: "Paths", told: true, class: "number"}], rows)],
  };
}

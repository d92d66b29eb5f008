// All hosts, the worst first.
import {element, counted, moment, printable, table} from "./dom.js";
import {get} from "./api.js";
import {health_badge} from "./health.js";

const most = 500;
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
  const filter = element("input", {type: "search", "aria-label": "Only hosts with this text", placeholder: "Find a host"});
  const counts = element("p", {role: "status"});
  const list = element("div", {});
  let known = hosts;
  const fill = () => {
    const wanted = filter.value.toLowerCase();
    const chosen = known.filter((host) => [host.name, host.id, host.state, host.reasons?.[0]?.text ?? ""].some((text) => text.toLowerCase().includes(wanted)))
      .sort((a, b) => order.indexOf(a.state) - order.indexOf(b.state) || a.name.localeCompare(b.name));
    const in_state = (state) => known.filter((host) => host.state === state).length;
    counts.textContent = `${counted(known.length, "host")}: ${order.map((state) => `${in_state(state)} ${state}`).join(", ")}.`
      + (chosen.length > most ? ` The first ${most} of ${chosen.length} are shown.` : "");
    list.replaceChildren(table("Hosts", [{name: "Host", class: "path"}, {name: "State"}, {name: "Why", class: "path"},
      {name: "Last heard", told: true, class: "time"}, {name: "Last undone", told: true, class: "time"}, {name: "Paths", told: true, class: "number"}],
    chosen.slice(0, most).map((host) => ({cells: [element("a", {href: host_address(host.id)}, printable(host.name)), health_badge(host.state),
      printable(host.reasons?.[0]?.text ?? ""), moment(host.seen_ms), moment(host.last_undone_ms), String(host.paths)]}))));
  };
  filter.addEventListener("input", fill);
  fill();
  return {
    title: "Hosts",
    content: [element("h1", {}, "Hosts"), counts, filter, list],
    refresh: async () => { known = (await get(["hosts"])).hosts; fill(); },
  };
}

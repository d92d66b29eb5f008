// Pages that only a fleet has.
import {element, badge, moment, printable, table} from "./dom.js";
import {get} from "./api.js";
import {host_address} from "./hosts.js";

const host_link = (id) => id ? element("a", {href: host_address(id)}, printable(id)) : "the collector";

export async function show_events() {
  const {events} = await get(["events"]);
  const kinds = {silent: "bad", back: "good"};
  return {title: "Events", content: [element("h1", {}, "What happened to hosts"),
    table("Events, the newest first", [{name: "Time", class: "time"}, {name: "Host", class: "path"}, {name: "What"}, {name: "Details", class: "path"}],
      events.reverse().map((event) => ({cells: [moment(event.time_ms), host_link(event.agent_id), badge(event.kind, kinds[event.kind] ?? "warn"), printable(event.text)]})))]};
}

export async function show_results() {
  const {results} = await get(["results"]);
  const verdict_of = (text) => { try { return JSON.parse(text); } catch { return {}; } };
  const kinds = {on: "good", off: "warn", rejected: "bad", refused: "bad"};
  const rows = results.map((one) => {
    const answer = verdict_of(one.result);
    const verdict = String(answer.verdict ?? "unknown");
    return {cells: [host_link(one.agent_id), printable(one.feature), badge(verdict, kinds[verdict] ?? "warn"), String(answer.version ?? ""),
      element("code", {}, String(answer.sha256 ?? "").slice(0, 12)), moment(one.time_ms)]};
  });
  return {title: "Policies", content: [element("h1", {}, "What the hosts answered to policies"),
    element("p", {}, "Policies are signed and published with ", element("code", {}, "sentrel_collector policy"), "; nobody without the operator's key can do that."),
    table("Answers", [{name: "Host", class: "path"}, {name: "Feature"}, {name: "Verdict"}, {name: "Version", told: true, class: "number"},
      {name: "SHA-256", told: true}, {name: "Time", class: "time"}], rows)]};
}

export async function show_acts() {
  const {acts} = await get(["acts"]);
  return {title: "Audit log", content: [element("h1", {}, "What users did"),
    table("Acts, the newest first", [{name: "Time", class: "time"}, {name: "User"}, {name: "What", class: "path"}],
      acts.map((act) => ({cells: [moment(act.time_ms), printable(act.user), printable(act.act)]})))]};
}

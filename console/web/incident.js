// One incident: what was changed, by object.
import {element, badge, counted, counts, duration, moment, printable} from "./dom.js";
import {address, get} from "./api.js";
import {text_difference, attribute_difference} from "./diff.js";
import {host_address} from "./hosts.js";

function outcome_badge(outcome) {
  const kind = /failed|differs|given up/.test(outcome) ? "bad" : /restored|removed/.test(outcome) ? "good" : "warn";
  return outcome ? badge(outcome, kind) : null;
}

function change(host, alarm) {
  const parts = [text_difference(alarm.diff), attribute_difference(alarm.diff_attr)].filter(Boolean);
  if (alarm.evidence) {
    parts.push(element("p", {}, element("a", {href: "/api/" + address(["hosts", host, "evidence", alarm.evidence]), download: true},
      "Save what was found"), element("span", {class: "faint"}, ` SHA-256 ${alarm.evidence}`)));
  }
  if (alarm.who_lines.length) {
    parts.push(element("details", {}, element("summary", {}, "Who did it"),
      element("pre", {}, alarm.who_lines.map(printable).join("\n"))));
  }
  return element("section", {class: "change"},
    element("header", {}, element("h2", {}, printable(alarm.path)), badge(alarm.action), outcome_badge(alarm.outcome),
      element("span", {class: "faint"}, moment(alarm.time_ms), alarm.duration_ms >= 0 ? ` · ${duration(alarm.duration_ms)}` : "",
        alarm.count > 1 ? ` · ${counted(alarm.count, "change")}` : "", alarm.who ? ` · ${printable(alarm.who)}` : "")),
    parts.length ? element("div", {class: "body"}, parts) : null);
}

export async function show_incident(session, host, number) {
  const {incident, alarms, left_out: left} = await get(["hosts", host, "incidents", number]);
  return {
    title: incident.common,
    content: [
      element("p", {}, element("a", {href: host_address(host)}, "Back to the host")),
      element("h1", {}, printable(incident.common || "/")),
      element("p", {}, moment(incident.begun_ms), ` · ${counted(incident.count, "change")}: ${counts(incident.actions)}`,
        ` · ${counts(incident.outcomes)}`, incident.slowest_ms >= 0 ? ` · slowest ${duration(incident.slowest_ms)}` : ""),
      ...alarms.map((alarm) => change(host, alarm)),
      left > 0 ? element("p", {class: "faint"}, `${counted(left, "more alarm")}: morvanectl alarms --all shows them.`) : null,
    ].filter(Boolean),
  };
}

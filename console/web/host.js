// One host: health, protected paths, incidents.
import {element, ago, badge, counted, moment, printable} from "./dom.js";
import {get} from "./api.js";
import {headline} from "./health.js";
import {host_address} from "./hosts.js";
import {incident_table, latency_chart} from "./incidents.js";
import * as decisions from "./decisions.js";
import {act_buttons} from "./centre.js";

const second = 1000;

function state_of(path) {
  const kind = path.problem || path.last_failure ? "warn" : path.state === "ready" ? "good" : "warn";
  return badge(path.state, kind);
}

function told_of(path) {
  const baseline = path.baseline;
  const items = [
    ["Changes", path.auto_restore ? "are undone" : "are only reported"],
    ["Watched", counted(path.watched_directories, "directory", "directories")],
    ["Trusted", baseline ? [`generation ${baseline.generation} since `, moment(baseline.approved_at * second), ": ", printable(baseline.approval)] : "nothing yet"],
    ["Copies", [printable(path.backup_path || "none"), path.last_local_backup ? [", ", moment(path.last_local_backup * second)] : ""]],
    ["Looked at", path.last_look ? `${ago(path.last_look.ended_at * second)}, ${counted(path.last_look.objects, "object")}` : "not yet"],
  ];
  if (path.held > 0) items.push(["Held", path.held === 1 ? "1 change waits for a decision" : `${path.held} changes wait for a decision`]);
  if (path.problem) items.push(["Problem", printable(path.problem)]);
  return element("dl", {}, items.flatMap(([name, value]) => [element("dt", {}, name), element("dd", {}, value)]));
}

function path_card(session, host, path, pause) {
  const may = session.role !== "viewer";
  const act = (text, open) => element("button", {onclick: () => open(session, host, path), disabled: !may}, text);
  return element("section", {class: "card"},
    element("div", {class: "headline"}, element("h3", {}, printable(path.path)), state_of(path)),
    pause ? element("p", {}, badge("Paused", "warn"), " until ", moment(pause.until * second), pause.reason ? [": ", printable(pause.reason)] : "") : null,
    told_of(path),
    session.mode === "fleet" ? act_buttons(session, host, path) : element("div", {class: "acts"},
      element("button", {onclick: () => decisions.verify(session, host, path)}, "Verify"),
      act("Roll back…", decisions.roll_back),
      pause ? act("Resume…", decisions.resume) : act("Pause…", decisions.pause)));
}

export async function show_host(session, id) {
  const load = () => Promise.all([get(["hosts", id]), get(["hosts", id, "incidents"]), get(["hosts", id, "latency"])]);
  let [answer, list, latency] = await load();
  let newest = Math.max(0, ...list.incidents.map((one) => one.last_ms));
  const paths = element("div", {class: "cards"});
  const top = element("div", {});
  const incidents = element("div", {});
  const chart = element("div", {});
  const fill = (fresh_from) => {
    const status = answer.status;
    const pause_of = (path) => (status.pauses ?? []).find((pause) => pause.path === path.path);
    top.replaceChildren(...headline(answer.host));
    paths.replaceChildren(...(status.protected_paths ?? []).map((path) => path_card(session, session.mode === "fleet" ? answer.host : id, path, pause_of(path))));
    if (paths.childElementCount === 0) paths.append(element("p", {class: "faint"}, "No path is protected yet: morvanectl protect DIRECTORY."));
    incidents.replaceChildren(incident_table(id, list.incidents, fresh_from));
    chart.replaceChildren(latency_chart(latency.points));
  };
  fill(Infinity);
  return {
    title: answer.host.name,
    content: [element("h1", {}, printable(answer.host.name)), top,
      element("h2", {}, "Protected paths"), paths,
      element("h2", {}, "Incidents"), incidents,
      element("h2", {}, "How fast changes were undone"), chart,
      element("h2", {}, "Agent"),
      element("p", {}, `Version ${answer.host.version}, identity ${answer.host.id}${answer.host.approved ? `, approved state ${answer.host.approved.slice(0, 12)}` : ""}. `, session.mode === "fleet" ? null : element("a", {href: host_address(id, "policies")}, "Policies"))],
    refresh: async () => {
      [answer, list, latency] = await load();
      const held = document.activeElement?.closest("a, button")?.textContent;
      fill(newest);
      newest = Math.max(newest, ...list.incidents.map((one) => one.last_ms));
      // The element that had the focus was made anew.
      if (held && document.activeElement === document.body) {
        [...document.querySelectorAll("main a, main button")].find((one) => one.textContent === held)?.focus();
      }
    },
  };
}

// Pages that only a fleet has.
import {element, badge, moment, printable, table} from "./dom.js";
import {get, post} from "./api.js";
import {progress_line, rollout_rows, verdict_badge} from "./centre.js";
import {host_address} from "./hosts.js";

const host_link = (id) => id ? element("a", {href: host_address(id)}, printable(id)) : "the collector";

export async function show_events() {
  const {events} = await get(["events"]);
  const kinds = {silent: "bad", back: "good"};
  return {title: "Events", content: [element("h1", {}, "What happened to hosts"),
    table("Events, the newest first", [{name: "Time", class: "time"}, {name: "Host", class: "path"}, {name: "What"}, {name: "Details", class: "path"}],
      events.reverse().map((event) => ({cells: [moment(event.time_ms), host_link(event.agent_id), badge(event.kind, kinds[event.kind] ?? "warn"), printable(event.text)]})))]};
}

const most_hosts = 500;
const rollout_columns = [{name: "Time", class: "time"}, {name: "What", class: "path"}, {name: "State"}, {name: "Answered", told: true, class: "number"},
  {name: "By", told: true}, {name: "Why", class: "path"}];

export async function show_results(session) {
  const load = () => Promise.all([get(["results"]), get(["rollouts"])]);
  const place = element("div", {});
  const fill = ([{results}, {rollouts}]) => {
    const verdict_of = (text) => { try { return JSON.parse(text); } catch { return {}; } };
    const rows = results.map((one) => {
      const answer = verdict_of(one.result);
      return {cells: [host_link(one.agent_id), printable(one.feature), verdict_badge(answer), String(answer.version ?? ""),
        element("code", {}, String(answer.sha256 ?? "").slice(0, 12)), moment(one.time_ms)]};
    });
    place.replaceChildren(element("h2", {}, "Published from here"),
      rollouts.length > 0 ? table("Rollouts, the newest first", rollout_columns, rollout_rows(rollouts)) : element("p", {class: "faint"}, "Nothing yet."),
      element("h2", {}, "Who has which policy"),
      table("Answers", [{name: "Host", class: "path"}, {name: "Feature"}, {name: "Verdict"}, {name: "Version", told: true, class: "number"},
        {name: "SHA-256", told: true}, {name: "Time", class: "time"}], rows));
  };
  fill(await load());
  return {title: "Policies and acts", content: [element("h1", {}, "Policies and acts"),
    element("p", {}, "Hosts take them only with the operator's signature."),
    session.role === "admin" ? element("p", {}, element("a", {class: "button", href: "#/policy"}, "New policy…")) : "", place],
  refresh: async () => fill(await load())};
}

/** One policy or act on its way to hosts. */
export async function show_rollout(session, id) {
  const place = element("div", {});
  const change = (action, text, kind) => element("button", {class: kind, onclick: async () => { await post(["rollouts", id, action]); await refresh(); }}, text);
  const fill = ({rollout, hosts}) => {
    const rank = (host) => host.answer === null ? 1 : ["done", "on", "off"].includes(host.answer.verdict) ? 2 : 0;
    const first = [...hosts].sort((a, b) => rank(a) - rank(b) || a.wave - b.wave).slice(0, most_hosts);
    const may = session.role === "admin" || (session.role === "operator" && rollout.kind === "act");
    place.replaceChildren(progress_line(rollout),
      element("p", {class: "faint"}, `Number ${rollout.number}, SHA-256 `, element("code", {}, rollout.sha256.slice(0, 12)), ", published by ", printable(rollout.author), " ", moment(rollout.time_ms)),
      !may ? "" : rollout.state === "running" ? change("stop", "Stop", "risky")
        : rollout.state === "stopped" && rollout.wave < rollout.waves ? change("continue", "Go on with the next wave", "risky") : "",
      table("Hosts", [{name: "Host", class: "path"}, {name: "Wave", told: true, class: "number"}, {name: "Sent", told: true, class: "time"}, {name: "Answer"}, {name: "Message", class: "path"}],
        first.map((host) => ({cells: [host_link(host.agent_id), String(host.wave), moment(host.sent_ms), verdict_badge(host.answer),
          printable(host.answer?.message ?? host.answer?.reason ?? host.answer?.errors?.[0]?.message ?? "")]}))),
      hosts.length > most_hosts ? element("p", {class: "faint"}, `${hosts.length - most_hosts} more hosts are not shown.`) : "");
    return rollout;
  };
  const refresh = async () => fill(await get(["rollouts", id]));
  const {kind, name} = await refresh();
  const follow = async () => {
    while (place.isConnected) {
      await new Promise((resolve) => setTimeout(resolve, 1000));
      if ((await refresh()).state !== "running") return;
    }
  };
  setTimeout(follow, 0);
  return {title: `${kind} ${name}`, content: [element("p", {}, element("a", {href: "#/results"}, "Policies and acts")), element("h1", {}, `${kind} `, printable(name)), place], refresh};
}

export async function show_acts() {
  const {acts} = await get(["acts"]);
  return {title: "Audit log", content: [element("h1", {}, "What users did"),
    table("Acts, the newest first", [{name: "Time", class: "time"}, {name: "User"}, {name: "What", class: "path"}],
      acts.map((act) => ({cells: [moment(act.time_ms), printable(act.user), printable(act.act)]})))]};
}

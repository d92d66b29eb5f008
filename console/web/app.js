// The frame: login, addresses and news. What a page shows is the business of its own file.
import {element, counted} from "./dom.js";
import * as api from "./api.js";
import {show_hosts} from "./hosts.js";
import {show_host} from "./host.js";
import {show_incident} from "./incident.js";
import {show_policies} from "./policies.js";
import {show_events, show_results, show_rollout, show_acts} from "./fleet.js";
import {show_policy} from "./policy.js";
import {forget_key} from "./centre.js";

const main = document.getElementById("main");
let session = null;
let shown = {};          // the page: {refresh} takes news
let turn = 0;            // counts addresses, so that a late answer does not replace a newer page

const pages = [
  {pattern: /^#\/events$/, show: show_events},
  {pattern: /^#\/results$/, show: () => show_results(session)},
  {pattern: /^#\/rollout\/(\d+)$/, show: (id) => show_rollout(session, id)},
  {pattern: /^#\/policy$/, show: () => show_policy(session)},
  {pattern: /^#\/acts$/, show: show_acts},
  {pattern: /^#\/host\/([^/]+)$/, show: (id) => show_host(session, decodeURIComponent(id))},
  {pattern: /^#\/host\/([^/]+)\/incident\/(\d+)$/, show: (id, number) => show_incident(session, decodeURIComponent(id), number)},
  {pattern: /^#\/host\/([^/]+)\/policies$/, show: (id) => show_policies(session, decodeURIComponent(id))},
];

function page_of(hash) {
  for (const page of pages) {
    const match = page.pattern.exec(hash);
    if (match) return () => page.show(...match.slice(1));
  }
  return () => show_hosts(session);
}

function failure(problem) {
  return element("p", {class: "error", role: "alert"}, problem.message);
}

/** Puts a page into the frame. Only a move to another address takes the focus. */
async function show(is_move) {
  const own = ++turn;
  try {
    const page = await page_of(location.hash)();
    if (own !== turn) return;
    shown = page;
    main.replaceChildren(...page.content);
    for (const link of document.querySelectorAll("#pages a")) {
      if (link.hash === location.hash || (link.hash === "#/" && location.hash === "")) link.setAttribute("aria-current", "page");
      else link.removeAttribute("aria-current");
    }
    document.title = page.title ? `${page.title} · Sentrel` : "Sentrel";
  } catch (problem) {
    if (own !== turn) return;
    if (problem instanceof api.NotLoggedIn) return ask_to_log_in();
    shown = {};
    main.replaceChildren(failure(problem), element("button", {onclick: () => show(true)}, "Try again"));
  }
  if (is_move) main.focus();
}

/** Name, password and, where the user has one, a code. */
function login_form() {
  const field = (name, type, text, complete) => [element("label", {for: name}, text),
    element("input", {id: name, name, type, autocomplete: complete, autocapitalize: "none", spellcheck: "false"})];
  const end = element("p", {class: "error", role: "alert"});
  const form = element("form", {onsubmit: async (event) => {
    event.preventDefault();
    const value = (name) => form.elements[name].value;
    try {
      await api.log_in({user: value("user"), password: value("password"), code: value("code").replace(/\s/g, "")});
      await begin();
    } catch (problem) {
      end.textContent = problem.message;
    }
  }}, field("user", "text", "User", "username"), field("password", "password", "Password", "current-password"),
  field("code", "text", "Code, if you have a second factor", "one-time-code"), element("p", {}, element("button", {class: "main"}, "Log in")), end);
  return form;
}

async function ask_to_log_in() {
  session = null;
  forget_key();
  document.getElementById("who").replaceChildren();
  const {access} = await api.session().catch(() => ({}));
  if (access === "password") return main.replaceChildren(element("h1", {}, "Log in"), login_form());
  main.replaceChildren(element("h1", {}, "You are not logged in"),
    element("p", {}, "Start ", element("code", {}, "morvanectl console"), " and open the address that it prints. Each address is good once."));
}

async function log_in_by_address() {
  const match = /^#token=([0-9a-f]+)$/.exec(location.hash);
  if (!match) return;
  history.replaceState(null, "", "/#/");
  await api.log_in({token: match[1]});
}

/** A fleet has pages beside its hosts. */
function show_pages() {
  const links = session.mode !== "fleet" ? [] : [["#/", "Hosts"], ["#/events", "Events"], ["#/results", "Policies and acts"],
    ...(session.role === "admin" ? [["#/acts", "Audit log"]] : [])];
  document.getElementById("pages").replaceChildren(...links.map(([href, text]) => element("a", {href}, text)));
}

function show_user() {
  document.getElementById("who").replaceChildren(element("span", {}, `${session.user} (${session.role})`),
    element("button", {onclick: async () => { await api.post(["logout"]); ask_to_log_in(); }}, "Log out"));
}

const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

/** Waits for news and hands them to the page; also once a minute, since ages are shown. */
async function follow() {
  let known = {};
  while (session !== null) {
    try {
      const news = await api.get(["changes"], known);
      known = {after: news.after};
      if (news.alarms > 0) document.getElementById("news").textContent = counted(news.alarms, "new alarm");
      if (shown.refresh && document.querySelector("dialog[open]") === null) await shown.refresh();
    } catch (problem) {
      if (problem instanceof api.NotLoggedIn) return ask_to_log_in();
      await pause(3000);
    }
  }
}

document.getElementById("skip").addEventListener("click", (event) => {
  event.preventDefault();
  main.focus();
});

async function begin() {
  session = await api.session();
  if (!session.logged_in) throw new api.NotLoggedIn();
  show_user();
  show_pages();
  await show(false);
  follow();
}

addEventListener("hashchange", () => { if (session !== null) show(true); });
try {
  await log_in_by_address();
  await begin();
} catch (problem) {
  await ask_to_log_in();
  if (!(problem instanceof api.NotLoggedIn) || problem.message) main.append(failure(problem));
}

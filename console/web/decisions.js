// What an operator decides about a protected path.
import {element, counted, moment, printable} from "./dom.js";
import {get, post} from "./api.js";
import {open} from "./dialog.js";

const wait = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

/** Follows a decision that the agent carries out; its last sentence, or an error. */
async function follow(host, id, tell) {
  for (;;) {
    const progress = await get(["hosts", host, "requests", id]);
    if (progress.state === "done") return progress.message;
    if (progress.state === "failed") throw new Error(progress.message);
    tell(progress.objects > 0 ? `${counted(progress.objects, "object")} so far…` : "Working…");
    await wait(300);
  }
}

async function decide(host, action, request, tell) {
  const {id} = await post(["hosts", host, action], request);
  return follow(host, id, tell);
}

const kinds = {changed: "changed", attributes: "attributes", added: "added", missing: "missing"};

function choices(differences) {
  const boxes = differences.map((one) => element("input", {type: "checkbox", value: one.path, checked: true}));
  const all = element("input", {type: "checkbox", checked: true, oninput: () => boxes.forEach((box) => { box.checked = all.checked; })});
  return {
    chosen: () => boxes.filter((box) => box.checked).map((box) => box.value),
    list: element("fieldset", {class: "list"}, element("legend", {}, "Differences"), element("label", {class: "inline"}, all, "All"),
      differences.map((one, at) => element("label", {class: "inline"}, boxes[at], `${kinds[one.kind] ?? one.kind}: `, printable(one.shown), one.detail ? ` (${one.detail})` : ""))),
  };
}

/** decided: called when the chosen differences were accepted or restored. */
function offer(session, host, result, body, end, decided = async () => {}) {
  if (result.differences.length === 0) return;
  const {chosen, list} = choices(result.differences);
  body.append(list);
  if (result.left_out > 0) body.append(element("p", {}, `${counted(result.left_out, "more difference")} not shown.`));
  if (session.role === "viewer") return;
  const act = (text, action, kind) => element("button", {class: kind, onclick: async () => {
    const paths = chosen();
    if (paths.length === 0) { end.textContent = "Nothing is chosen."; return; }
    body.querySelectorAll("button, input").forEach((one) => { one.disabled = true; });
    try {
      end.textContent = await decide(host, action, {paths}, (text_now) => { end.textContent = text_now; });
      await decided();
    } catch (problem) {
      end.textContent = problem.message;
    }
  }}, text);
  body.append(element("p", {}, "Accepting makes the chosen state the one that is trusted. Restoring undoes the chosen changes."),
    element("div", {class: "acts"}, act("Accept the chosen", "accept", "risky"), act("Restore the chosen", "restore", "main")));
}

/** Compares and returns the result. */
async function compare(host, path, end) {
  const {job} = await post(["hosts", host, "verify"], {path: path.path});
  for (;;) {
    const result = await get(["hosts", host, "jobs", job]);
    if (result.state !== "running") return result;
    end.textContent = `${counted(result.objects, "object")} compared…`;
    await wait(200);
  }
}

function open_comparison(title, path, go_on) {
  const end = element("p", {role: "status"}, "Comparing…");
  open(title, async (body) => {
    body.append(element("p", {}, element("code", {}, printable(path.path))), end);
    try {
      await go_on(body, end);
    } catch (problem) {
      end.className = "error";
      end.textContent = problem.message;
    }
  });
}

export function verify(session, host, path) {
  open_comparison("Verify the site", path, async (body, end) => {
    const result = await compare(host, path, end);
    end.textContent = result.message;
    offer(session, host, result, body, end);
  });
}

/** Only when the site is what is trusted, or its differences were decided on. */
export function resume(session, host, path) {
  open_comparison("Resume undoing", path, async (body, end) => {
    const result = await compare(host, path, end);
    end.textContent = result.message;
    const finish = async () => {
      await post(["hosts", host, "resume"], {path: path.path, equal: result.is_equal});
      end.textContent += " The pause has ended.";
    };
    if (result.is_equal) return finish();
    offer(session, host, result, body, end, finish);
  });
}

export async function roll_back(session, host, path) {
  const {generations} = await get(["hosts", host, "generations"]);
  const own = generations.filter((one) => one.path === path.path.replace(/(.)\/$/, "$1")).reverse();
  const choice = element("select", {}, own.map((one) => element("option", {value: one.generation},
    `${one.generation}: ${new Date(one.approved_at * 1000).toLocaleString()}, ${counted(one.objects, "object")}, ${one.approval}`)));
  open("Roll back", (body) => body.append(
    element("p", {}, element("code", {}, printable(path.path))),
    element("label", {}, "To generation ", choice),
    element("p", {}, "Copies and site become what was approved then, as a new generation. Nothing is changed unless all contents are there.")),
  {text: "Roll back", risky: true, run: (tell) => decide(host, "rollback", {path: path.path, generation: Number(choice.value)}, tell)});
}

export function pause(session, host, path) {
  const minutes = element("input", {type: "number", min: 1, max: 1440, value: 10});
  const reason = element("input", {type: "text", maxlength: 200});
  open("Pause undoing", (body) => body.append(
    element("p", {}, element("code", {}, printable(path.path))),
    element("p", {}, "Changes go on to raise alarms, and nothing is undone. For a new release, morvanectl deploy is safer: the site stays guarded."),
    element("label", {}, "Minutes ", minutes), element("label", {}, "Reason ", reason)),
  {text: "Pause", risky: true, run: async () => {
    await post(["hosts", host, "pause"], {path: path.path, seconds: Number(minutes.value) * 60, reason: reason.value});
    return "Undoing is paused.";
  }});
}

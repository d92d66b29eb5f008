// The policies of a host: look, check, apply.
import {element, moment, printable} from "./dom.js";
import {get, post} from "./api.js";
import {open} from "./dialog.js";
import {host_address} from "./hosts.js";

function messages(title, kind, list) {
  if (!list?.length) return null;
  return element("div", {}, element("h3", {}, title), element("ul", {class: kind},
    list.map((one) => element("li", {}, one.pointer ? [element("code", {}, one.pointer), ": "] : null, printable(one.message ?? one.text ?? String(one))))));
}

function editor(session, host, policy, document_text) {
  const text = element("textarea", {spellcheck: "false", "aria-label": `Policy of ${policy.feature}`});
  text.value = document_text;
  const end = element("div", {role: "status"});
  const run = async (action) => {
    end.replaceChildren("Working…");
    try {
      const verdict = await post(["hosts", host, "policies", policy.feature, action], {document: text.value});
      const is_refused = verdict.errors?.length > 0;
      const sentence = is_refused ? "It is refused." : action === "check" ? "It can be applied." : `It is applied; the feature is ${verdict.state}.`;
      end.replaceChildren(...[element("p", {class: is_refused ? "error" : ""}, sentence),
        messages("Errors", "error", verdict.errors), messages("Warnings", "", verdict.warnings)].filter(Boolean));
    } catch (problem) {
      end.replaceChildren(element("p", {class: "error"}, problem.message));
    }
  };
  return element("section", {class: "card"}, element("h2", {}, policy.feature),
    element("p", {class: "faint"}, `${policy.state}, applied `, moment(policy.applied_at * 1000)), text,
    element("div", {class: "acts"}, element("button", {onclick: () => run("check")}, "Check"),
      element("button", {class: "risky", disabled: session.role !== "admin", onclick: () => open("Apply the policy", (body) => body.append(
        element("p", {}, `${policy.feature}: what the site holds now becomes the state that is trusted.`)),
      {text: "Apply", risky: true, run: async () => { await run("apply"); return end.textContent; }})}, "Apply…")), end);
}

export async function show_policies(session, host) {
  const {policies} = await get(["hosts", host, "policies"]);
  const texts = await Promise.all(policies.map((policy) => get(["hosts", host, "policies", policy.feature])));
  return {
    title: "Policies",
    content: [element("p", {}, element("a", {href: host_address(host)}, "Back to the host")), element("h1", {}, "Policies"),
      element("p", {}, "Applying a policy approves the state that the site has then: look at it first."),
      ...policies.map((policy, at) => editor(session, host, policy, texts[at].document))],
  };
}

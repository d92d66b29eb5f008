// A policy for many hosts: written with the schema's help, checked, signed, rolled out in waves.
import {element, printable} from "./dom.js";
import {get, post} from "./api.js";
import {open} from "./dialog.js";
import {publish_within} from "./centre.js";

const features = {
  sentrel_feature: "/policy-sentrel_feature.schema.json",
  backupserver_feature: "/policy-backupserver_feature.schema.json",
};

const types = {
  object: (value) => value !== null && typeof value === "object" && !Array.isArray(value),
  array: Array.isArray, string: (value) => typeof value === "string", boolean: (value) => typeof value === "boolean",
  integer: Number.isInteger, number: (value) => typeof value === "number",
};

/** What of the schema the document does not keep, as "/content/key: sentence". */
function faults_in(schema, value, pointer = "") {
  const faults = [];
  const fault = (at, text) => faults.push(`${at || "/"}: ${text}`);
  if (schema.type && !types[schema.type]?.(value)) return [`${pointer || "/"}: must be of the type ${schema.type}`];
  if ("const" in schema && value !== schema.const) fault(pointer, `must be ${JSON.stringify(schema.const)}`);
  if (schema.enum && !schema.enum.includes(value)) fault(pointer, `must be one of ${JSON.stringify(schema.enum)}`);
  if (value < schema.minimum) fault(pointer, `must be at least ${schema.minimum}`);
  if (value > schema.maximum) fault(pointer, `must be at most ${schema.maximum}`);
  for (const key of schema.required ?? []) if (!(key in value)) fault(`${pointer}/${key}`, "is missing");
  if (schema.properties && types.object(value)) {
    for (const [key, member] of Object.entries(value)) {
      if (schema.properties[key]) faults.push(...faults_in(schema.properties[key], member, `${pointer}/${key}`));
      else if (schema.type) fault(`${pointer}/${key}`, "is no key of this policy");
    }
  }
  if (schema.items && Array.isArray(value)) value.forEach((one, at) => faults.push(...faults_in(schema.items, one, `${pointer}/${at}`)));
  if (schema.if && faults_in(schema.if, value).length === 0) faults.push(...faults_in(schema.then ?? {}, value, pointer));
  return faults;
}

/** Key and description, as in the schema. */
function keys_of(schema, name = "") {
  const own = name && schema.description ? [[name, schema.description]] : [];
  const members = Object.entries(schema.properties ?? {}).flatMap(([key, member]) => keys_of(member, name ? `${name}.${key}` : key));
  return [...own, ...members, ...(schema.items ? keys_of(schema.items, `${name}[]`) : [])];
}

/** The text of the policy that was published last. */
async function last_policy(feature) {
  const {rollouts} = await get(["rollouts"]);
  const last = rollouts.find((one) => one.kind === "policy" && one.name === feature);
  if (!last) throw new Error("None was published from here.");
  const {document} = await get(["rollouts", last.id]);
  return JSON.parse(JSON.parse(document).content).policy;
}

export async function show_policy(session) {
  if (session.role !== "admin") return {title: "Policy", content: [element("h1", {}, "New policy"), element("p", {}, "Only an administrator may change a policy.")]};
  const {hosts} = await get(["hosts"]);
  const groups = [...new Set(hosts.flatMap((host) => host.groups ?? []))].sort();
  const feature = element("select", {id: "feature"}, Object.keys(features).map((name) => element("option", {value: name}, name)));
  const audience = element("select", {id: "audience"}, element("option", {value: "*"}, `All ${hosts.length} hosts`),
    groups.map((group) => element("option", {value: "@" + group}, `Group ${group}`)),
    hosts.slice(0, 500).map((host) => element("option", {value: host.id}, `${host.name} (${host.id})`)));
  const percent = element("input", {id: "percent", type: "number", min: 1, max: 100, value: 5});
  const text = element("textarea", {id: "policy-text", spellcheck: "false"});
  const end = element("div", {role: "status"});
  const help = element("dl", {class: "help"});
  let schema = {};
  const load_schema = async () => {
    schema = await (await fetch(features[feature.value])).json();
    help.replaceChildren(...keys_of(schema).flatMap(([key, told]) => [element("dt", {}, element("code", {}, key)), element("dd", {}, told)]));
  };
  feature.addEventListener("change", load_schema);
  await load_schema();
  /** True when the text keeps the schema; shows the faults. */
  const is_right = () => {
    let faults;
    try {
      faults = faults_in(schema, JSON.parse(text.value));
    } catch (problem) {
      faults = [problem.message];
    }
    end.replaceChildren(faults.length === 0 ? element("p", {}, "The text keeps the schema. Hosts check more: their directories, for example.")
      : element("ul", {class: "error"}, faults.map((fault) => element("li", {}, printable(fault)))));
    return faults.length === 0;
  };
  const guarded = (run) => async () => {
    try {
      await run();
    } catch (problem) {
      end.replaceChildren(element("p", {class: "error"}, problem.message));
    }
  };
  const check = guarded(async () => {
    const one = hosts.find((host) => host.id === audience.value || (host.groups ?? []).includes(audience.value.slice(1)) || audience.value === "*");
    const prepared = await post(["prepare"], {act: "check", hosts: [one.id], request: {feature: feature.value, text: text.value}, valid_s: 900});
    open("Check on a host", (body) => publish_within(body, prepared, 100, (found, place) => {
      const details = found.hosts[0]?.answer?.details ?? {};
      for (const kind of ["errors", "warnings"]) {
        if (details[kind]?.length > 0) place.append(element("h3", {}, kind === "errors" ? "Errors" : "Warnings"),
          element("ul", {}, details[kind].map((each) => element("li", {}, element("code", {}, printable(each.pointer ?? "")), " ", printable(each.message ?? "")))));
      }
    }));
  });
  const publish = guarded(async () => {
    if (!is_right()) return;
    const prepared = await post(["prepare"], {feature: feature.value, hosts: [audience.value], policy: text.value});
    open("Roll out the policy", (body) => {
      publish_within(body, prepared, Number(percent.value));
      body.prepend(element("p", {}, "What is in the protected directories of each host at that moment becomes the state that is trusted."));
    });
  });
  return {title: "New policy", content: [element("p", {}, element("a", {href: "#/results"}, "Policies and acts")), element("h1", {}, "New policy"),
    element("div", {class: "fields"}, element("label", {for: "feature"}, "Feature"), feature, element("label", {for: "audience"}, "For"), audience,
      element("label", {for: "percent"}, "Hosts in the first wave, in percent"), percent),
    element("p", {class: "faint"}, "All others follow when those have taken it. A rejection, a missing answer or more alarms stop it."),
    element("label", {for: "policy-text"}, "Policy, JSON"), text,
    element("div", {class: "acts"}, element("button", {onclick: guarded(async () => { text.value = await last_policy(feature.value); })}, "Begin with the last one"),
      element("button", {onclick: is_right}, "Check the text"), element("button", {onclick: check}, "Check on a host…"),
      element("button", {class: "risky", onclick: publish}, "Go on to sign…")), end,
    element("details", {}, element("summary", {}, "Keys of this policy"), help)]};
}

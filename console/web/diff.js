// Shows what was changed: the text side by side, the attributes in a table.
import {element, printable} from "./dom.js";

/** Hunks of a difference in the normal format: found (<) against approved (>). Null: another format. */
function hunks(text) {
  const found = [];
  for (const line of text.split("\n")) {
    if (/^\d+(,\d+)?[acd]\d+(,\d+)?$/.test(line)) {
      found.push({where: line, is: [], was: []});
    } else if (line === "" || line === "---" || line.startsWith("\\ ")) {
      continue;
    } else if (found.length === 0 || !/^[<>]/.test(line)) {
      return null;
    } else {
      found.at(-1)[line[0] === "<" ? "is" : "was"].push(line.slice(2));
    }
  }
  return found;
}

function side(title, kind, parts) {
  const lines = parts.flatMap((hunk) => {
    const height = Math.max(hunk.is.length, hunk.was.length);
    const own = hunk[kind];
    const rows = [element("div", {class: "line where"}, hunk.where)];
    for (let at = 0; at < height; ++at) {
      rows.push(element("div", {class: "line code" + (at < own.length ? " " + kind : "")}, at < own.length ? printable(own[at]) : ""));
    }
    return rows;
  });
  return element("div", {class: "side"}, element("h3", {}, title), lines);
}

export function text_difference(text) {
  if (!text) return null;
  const parts = hunks(text);
  if (parts === null || parts.length === 0) return element("pre", {class: "list"}, text.split("\n").flatMap((line) => [printable(line), "\n"]));
  return element("div", {class: "diff"}, side("Approved", "was", parts), side("Found", "is", parts));
}

/** "before(uid:0 …) after(uid:0 …)": before is what was approved. */
export function attribute_difference(text) {
  const match = /^before\((.*)\) after\((.*)\)$/s.exec(text ?? "");
  if (!match) return null;
  const read = (list) => Object.fromEntries(list.split(" ").map((item) => [item.slice(0, item.indexOf(":")), item.slice(item.indexOf(":") + 1)]));
  const [before, after] = [read(match[1]), read(match[2])];
  const names = {uid: "Owner", gid: "Group", mode: "Mode", size: "Size"};
  const changed = Object.keys(before).filter((key) => before[key] !== after[key]);
  if (changed.length === 0) return null;
  const only = [before, after].find((one, at, both) => Object.values(both[1 - at]).every((value) => value === ""));
  if (only) return element("p", {class: "faint"}, `${only.mode}, owner ${only.uid}, group ${only.gid}, ${only.size} bytes`);
  return element("table", {class: "attributes"},
    element("caption", {class: "unseen"}, "Attributes that differ"),
    element("thead", {}, element("tr", {}, ["Attribute", "Approved", "Found"].map((name) => element("th", {scope: "col"}, name)))),
    element("tbody", {}, changed.map((key) => element("tr", {},
      element("th", {scope: "row"}, names[key] ?? key), element("td", {class: "code"}, before[key] || "none"), element("td", {class: "code"}, after[key] || "none")))));
}

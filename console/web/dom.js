// Builds elements. Names of files and contents are chosen by attackers, so text only ever becomes text nodes.

/** element("a", {href: "#/"}, "text", child…); an attribute that is null or false is left out. */
export function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (key === "onclick" || key === "onsubmit" || key === "oninput") {
      made.addEventListener(key.slice(2), value);
    } else {
      made.setAttribute(key, value === true ? "" : value);
    }
  }
  made.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined && child !== false));
  return made;
}

const hidden = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff\ufff9-\ufffb]/u;

/** The text with each character that does not show, or turns the direction, made visible. */
export function printable(text) {
  const parts = [];
  let plain = "";
  for (const character of String(text)) {
    if (!hidden.test(character)) {
      plain += character;
      continue;
    }
    parts.push(plain, element("span", {class: "escape"}, "U+" + character.codePointAt(0).toString(16).toUpperCase().padStart(4, "0")));
    plain = "";
  }
  parts.push(plain);
  return element("bdi", {}, parts);
}

export function badge(text, kind = "") {
  return element("span", {class: "badge " + kind}, text);
}

/** A table whose rows become blocks on a narrow screen. columns: [{name, class}]; rows: arrays of children. */
export function table(caption, columns, rows) {
  return element("table", {class: "wide"},
    element("caption", {class: "unseen"}, caption),
    element("thead", {}, element("tr", {}, columns.map((column) => element("th", {scope: "col", class: column.class}, column.name)))),
    element("tbody", {}, rows.map((row) => element("tr", {class: row.fresh ? "fresh" : null},
      row.cells.map((cell, at) => element("td", {class: columns[at].class, "data-name": columns[at].told ? columns[at].name : null}, cell))))));
}

/** Local date and time; the date is left out today. */
export function moment(milliseconds) {
  if (!milliseconds) return "never";
  const at = new Date(milliseconds);
  const two = (number) => String(number).padStart(2, "0");
  const time = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
  const is_today = at.toDateString() === new Date().toDateString();
  const text = is_today ? time : `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ${time}`;
  return element("time", {datetime: at.toISOString(), title: at.toString()}, text);
}

/** "3 minutes ago" */
export function ago(milliseconds) {
  const seconds = Math.max(0, Math.round((Date.now() - milliseconds) / 1000));
  const [count, unit] = seconds < 60 ? [seconds, "second"] : seconds < 3600 ? [Math.floor(seconds / 60), "minute"]
    : seconds < 86400 ? [Math.floor(seconds / 3600), "hour"] : [Math.floor(seconds / 86400), "day"];
  return `${count} ${unit}${count === 1 ? "" : "s"} ago`;
}

export function counted(count, one, many = one + "s") {
  return `${count} ${count === 1 ? one : many}`;
}

/** "200 modify, 14 add": the most frequent first. */
export function counts(by_name) {
  return Object.entries(by_name).filter(([name]) => name !== "").sort((a, b) => b[1] - a[1])
    .map(([name, count]) => `${count} ${name}`).join(", ");
}

export function duration(milliseconds) {
  if (milliseconds === null || milliseconds === undefined || milliseconds < 0) return "";
  return milliseconds < 1000 ? `${milliseconds.toFixed(1)} ms` : `${(milliseconds / 1000).toFixed(1)} s`;
}

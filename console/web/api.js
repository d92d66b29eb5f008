// Talks to the server. A failure is an Error whose message is a sentence for the user.

let csrf = "";

export class NotLoggedIn extends Error {}

async function ask(path, options = {}) {
  let response;
  try {
    response = await fetch("/api/" + path, {credentials: "same-origin", ...options});
  } catch (failure) {
    if (failure.name === "AbortError") throw failure;
    throw new Error("The console does not answer; is it still running?");
  }
  let body = {};
  try {
    body = await response.json();
  } catch {
    if (response.ok) throw new Error("The console's answer cannot be read.");
  }
  if (response.status === 401) throw new NotLoggedIn(body.error ?? "Log in first.");
  if (!response.ok) throw new Error(body.error ?? `The console answered ${response.status}.`);
  return body;
}

/** Path segments and parameters, encoded. */
export function address(segments, parameters = {}) {
  const query = new URLSearchParams(parameters).toString();
  return segments.map(encodeURIComponent).join("/") + (query ? "?" + query : "");
}

export function get(segments, parameters = {}, signal = undefined) {
  return ask(address(segments, parameters), {signal});
}

export function post(segments, body = {}) {
  return ask(address(segments), {
    method: "POST",
    headers: {"Content-Type": "application/json", "X-Csrf-Token": csrf},
    body: JSON.stringify(body),
  });
}

export async function session() {
  const known = await ask("session");
  csrf = known.csrf ?? "";
  return known;
}

export async function log_in(credentials) {
  const known = await post(["login"], credentials);
  csrf = known.csrf ?? "";
  return known;
}

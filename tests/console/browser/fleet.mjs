// Looks at the console of a fleet as a person does. Usage: node fleet.mjs URL KEY OTHER_KEY.
import assert from "node:assert/strict";
import fs from "node:fs/promises";
import {open_browser, pictures} from "./browser.mjs";

const [url, key, other_key] = process.argv.slice(2);
const {browser, page, faults, looks_good, tab_to} = await open_browser();

try {
  await page.goto(url);
  await page.getByLabel("User").fill("anna");
  await page.getByLabel("Password").fill("wrong horse");
  await page.keyboard.press("Enter");
  await page.getByText("This is not valid").waitFor();
  await looks_good("login");
  await page.getByLabel("Password").fill("correct horse");
  const begun = Date.now();
  await page.keyboard.press("Enter");
  await page.getByText("5000 hosts: 1 silent").waitFor();
  console.log(`5,000 hosts listed ${Date.now() - begun} ms after the login`);
  // The worst first.
  assert.match(await page.locator("tbody tr").first().textContent(), /web42.*Silent/s);
  assert.match(await page.locator("tbody tr").nth(1).textContent(), /Off|Degraded/);
  const typed = Date.now();
  await page.getByLabel("Only hosts with this text").fill("web4999");
  await page.getByRole("link", {name: "web4999"}).waitFor();
  console.log(`found ${Date.now() - typed} ms after typing`);
  await looks_good("hosts");

  // Hosts that say nonsense break nothing but their own rows.
  await page.getByLabel("Only hosts with this text").fill("onerror");
  await page.getByRole("link", {name: "<img src=x onerror=hacked=1>"}).waitFor();
  for (const id of ["host-1", "host-2"]) {
    await page.goto(`${url}/#/host/${id}`);
    await page.getByRole("heading", {name: id}).waitFor();
  }
  await page.goto(`${url}/#/host/host-0`);
  await page.getByText("1 change waits for a decision").waitFor();
  await looks_good("fleet-host");
  await page.getByRole("link", {name: "/var/www/html/index.html"}).click();
  await page.getByText("<script>hacked = 1</script>").waitFor();
  assert.equal(await page.evaluate(() => window.hacked), undefined);

  // An act: signed with a stranger's key the host refuses it, with the operator's it does it.
  const sign = async (file) => {
    await page.getByRole("button", {name: "Go on to sign"}).last().click();
    await page.getByLabel("File with the operator's private key").setInputFiles(file);
    await looks_good("sign");
    await page.getByRole("button", {name: "Sign and publish"}).click();
  };
  await page.goto(`${url}/#/host/host-4`);
  await page.getByRole("heading", {name: "web4"}).waitFor();
  await page.getByText("behind the collector's, so it may refuse acts").waitFor();
  await tab_to("Pause…");
  await page.keyboard.press("Enter");
  await page.getByLabel("Reason").fill("release 7");
  await looks_good("act");
  await sign(other_key);
  await page.getByText("the signature is not that of the fleet's key").waitFor();
  await page.keyboard.press("Escape");
  await page.getByRole("button", {name: "Verify…"}).click();
  await page.getByRole("button", {name: "Go on to sign"}).click();
  await page.getByRole("button", {name: "Forget it"}).click();
  await page.getByLabel("File with the operator's private key").setInputFiles(key);
  await page.getByRole("button", {name: "Sign and publish"}).click();
  await page.getByLabel("added: /var/www/html/new <b>.php").waitFor();
  await looks_good("differences");
  await page.getByRole("button", {name: "Restore the chosen…"}).click();
  await page.getByRole("button", {name: "Go on to sign"}).click();
  // Signed on another machine: what the page saves is what sentrel_collector sign takes.
  await page.getByText("Sign on another machine").click();
  const [saved] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", {name: "Save the document"}).click()]);
  assert.equal(JSON.parse(await fs.readFile(await saved.path(), "utf8")).kind, "act");
  await page.getByRole("button", {name: "Sign and publish"}).click();
  await page.getByText("As asked for.").waitFor();
  await page.keyboard.press("Escape");

  // A policy: the schema's faults, then waves, which a rejection stops.
  await page.goto(`${url}/#/policy`);
  await page.getByLabel("For", {exact: true}).selectOption("@web");
  await page.getByLabel("Policy, JSON").fill('{"enabled": "yes", "content": {"os_type": 0, "colour": 1}}');
  await page.getByRole("button", {name: "Check the text"}).click();
  await page.getByText("/enabled: must be of the type boolean").waitFor();
  await page.getByText("/content/colour: is no key of this policy").waitFor();
  await looks_good("policy");
  await page.getByLabel("Policy, JSON").fill('{"enabled": false}');
  await page.getByRole("button", {name: "Go on to sign"}).click();
  await page.getByRole("button", {name: "Sign and publish"}).click();
  await page.getByText("answered rejected").waitFor();
  await page.keyboard.press("Escape");
  await page.goto(`${url}/#/results`);
  await page.getByRole("link", {name: "policy sentrel_feature"}).first().click();
  await page.getByText("1 of 20 hosts answered").waitFor();
  await looks_good("rollout");
  await page.getByRole("button", {name: "Go on with the next wave"}).click();
  await page.getByText("20 of 20 hosts answered").waitFor();
  await page.getByText("done", {exact: true}).waitFor();

  await page.getByRole("link", {name: "Events"}).click();
  await page.getByText("the connection of the host is lost").waitFor();
  await page.getByRole("link", {name: "Policies and acts"}).click();
  await page.getByText("abcdef012345").waitFor();
  await looks_good("results");
  await page.getByRole("link", {name: "Audit log"}).click();
  await page.getByText("logged in").waitFor();
  await page.getByText("went on with the policy sentrel_feature").waitFor();
  await looks_good("audit");
  await page.getByRole("button", {name: "Log out"}).click();
  await page.getByLabel("User").waitFor();
  assert.deepEqual(faults, []);
} catch (failure) {
  console.log(`${page.url()}\n${(await page.locator("body").innerText().catch(() => "")).slice(0, 2000)}`);
  if (pictures) await page.screenshot({path: `${pictures}/failure.png`});
  throw failure;
} finally {
  await browser.close();
}

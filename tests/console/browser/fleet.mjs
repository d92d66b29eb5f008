// Looks at the console of a fleet as a person does. Usage: node fleet.mjs URL.
import assert from "node:assert/strict";
import {open_browser, pictures} from "./browser.mjs";

const [url] = process.argv.slice(2);
const {browser, page, faults, looks_good} = await open_browser();

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
  assert.equal(await page.getByRole("button", {name: "Verify"}).count(), 0, "the centre cannot do that yet");
  await looks_good("fleet-host");
  await page.getByRole("link", {name: "/var/www/html/index.html"}).click();
  await page.getByText("<script>hacked = 1</script>").waitFor();
  assert.equal(await page.evaluate(() => window.hacked), undefined);

  await page.getByRole("link", {name: "Events"}).click();
  await page.getByText("the connection of the host is lost").waitFor();
  await page.getByRole("link", {name: "Policies"}).click();
  await page.getByText("abcdef012345").waitFor();
  await looks_good("results");
  await page.getByRole("link", {name: "Audit log"}).click();
  await page.getByText("logged in").waitFor();
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

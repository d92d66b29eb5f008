// Drives the console as a person does, with Chromium, and attacks the site meanwhile.
// Usage: node console.mjs MORVANECTL SITE. Pictures go to $SENTREL_PICTURES when that is set.
import assert from "node:assert/strict";
import {spawn} from "node:child_process";
import fs from "node:fs";
import {open_browser, pictures} from "./browser.mjs";

const [morvanectl, site] = process.argv.slice(2);
const deadline = 60_000;

function start_console() {
  const program = spawn(morvanectl, ["console"], {stdio: ["ignore", "pipe", "inherit"]});
  return new Promise((resolve, reject) => {
    let text = "";
    program.stdout.on("data", (data) => {
      text += data;
      if (text.includes("\n")) resolve({program, url: text.trim()});
    });
    program.on("exit", (code) => reject(new Error(`the console ended with ${code}`)));
  });
}

const {program, url} = await start_console();
const {browser, page, faults, looks_good, tab_to} = await open_browser();

const write = (name, text) => fs.writeFileSync(`${site}/${name}`, text);
const read = (name) => fs.readFileSync(`${site}/${name}`, "utf8");
async function becomes(name, text) {
  const end = Date.now() + deadline;
  while (read(name) !== text && Date.now() < end) await new Promise((resolve) => setTimeout(resolve, 20));
  assert.equal(read(name), text);
}
const dialog = page.locator("dialog");

try {
  await page.goto(url);
  await page.getByText("Protected", {exact: true}).waitFor();
  assert.ok(!page.url().includes("token"), "the token stays in the address");
  const approved = read("index.html");

  // An attack shows without a reload.
  const attacked = Date.now();
  write("index.html", "<h1>Hacked</h1>\n<script>hacked = 1</script>\n");
  await page.locator("table.wide a").first().waitFor();
  console.log(`on the page ${Date.now() - attacked} ms after the change`);
  await becomes("index.html", approved);
  const hostile = "<img src=x onerror=hacked=1>\u202egnp.php";
  write(hostile, "<script>hacked = 1</script>");
  await page.getByText(/2 changes: /).waitFor();
  await looks_good("host");

  // By keyboard to the incident and back.
  await tab_to(`${site}/`);
  await page.keyboard.press("Enter");
  await page.getByRole("heading", {name: "index.html"}).waitFor();
  assert.equal(await page.evaluate(() => document.activeElement.id), "main");
  assert.equal(await page.locator(".diff .side").first().locator(".was").first().textContent(), approved.trimEnd());
  assert.match(await page.locator(".diff .side").nth(1).textContent(), /<script>hacked = 1<\/script>/);
  assert.match(await page.locator("main").textContent(), /<img src=x onerror=hacked=1>U\+202Egnp\.php/);
  assert.equal(await page.evaluate(() => window.hacked), undefined);
  const [download] = await Promise.all([page.waitForEvent("download"), page.getByText("Save what was found").last().click()]);
  assert.equal(fs.readFileSync(await download.path(), "utf8"), "<script>hacked = 1</script>");
  await looks_good("incident");
  await page.getByText("Back to the host").click();

  // A change in a pause is accepted, then rolled back.
  await page.getByRole("button", {name: "Pause…"}).click();
  await dialog.getByLabel("Reason").fill("a new page");
  await looks_good("pause");
  await dialog.getByRole("button", {name: "Pause", exact: true}).click();
  await dialog.getByText("Undoing is paused.").waitFor();
  await page.keyboard.press("Escape");
  write("index.html", "a new page\n");
  await page.getByText("1 change waits for a decision").first().waitFor();
  await page.getByRole("button", {name: "Resume…"}).click();
  await dialog.getByText(`changed: ${site}/index.html`).waitFor();
  await looks_good("resume");
  await dialog.getByRole("button", {name: "Accept the chosen"}).click();
  await dialog.getByText("The pause has ended.").waitFor();
  await page.keyboard.press("Escape");
  await page.getByText(/generation 2 since/).waitFor();
  assert.equal(read("index.html"), "a new page\n");
  await page.getByRole("button", {name: "Roll back…"}).click();
  await dialog.getByLabel("To generation").selectOption("1");
  await dialog.getByRole("button", {name: "Roll back", exact: true}).click();
  await dialog.getByText(/is generation 3 now/).waitFor();
  await page.keyboard.press("Escape");
  await becomes("index.html", approved);

  // A policy with a fault is refused with its place.
  await page.getByText("Policies", {exact: true}).click();
  const text = page.getByLabel("Policy of sentrel_feature");
  await text.fill((await text.inputValue()).replace(/"dirlist"/, '"dirlisst"'));
  await page.getByRole("button", {name: "Check"}).click();
  await page.getByText("dirlisst").last().waitFor();
  await looks_good("policies");

  // Nobody else gets in with the same address.
  const other = await (await browser.newContext()).newPage();
  await other.goto(url);
  await other.getByText("You are not logged in").waitFor();
  assert.deepEqual(faults, []);

  const ended = new Promise((resolve) => program.on("exit", resolve));
  program.kill("SIGINT");
  assert.equal(await ended, 0);
} catch (failure) {
  console.log(`${page.url()}\n${await page.locator("body").innerText().catch(() => "")}`);
  if (pictures) await page.screenshot({path: `${pictures}/failure.png`, fullPage: true});
  throw failure;
} finally {
  program.kill("SIGKILL");
  await browser.close();
}

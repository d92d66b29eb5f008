// Chromium as the tests of the console use it.
import assert from "node:assert/strict";
import fs from "node:fs";
import {createRequire} from "node:module";
import {chromium} from "playwright-core";

/** Pictures go to this folder when it is set. */
export const pictures = process.env.SENTREL_PICTURES;

const deadline = 60_000;
const axe = fs.readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");

export async function open_browser() {
  const browser = await chromium.launch({executablePath: "/usr/bin/chromium", args: ["--no-sandbox", "--disable-gpu",
    "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync"]});
  // The console's policy against foreign scripts would also keep axe out.
  const context = await browser.newContext({viewport: {width: 1200, height: 900}, bypassCSP: true, acceptDownloads: true});
  const page = await context.newPage();
  page.setDefaultTimeout(deadline);
  const faults = [];
  page.on("pageerror", (error) => faults.push(error.message));
  page.on("console", (message) => {
    // Asked before the login.
    if (message.type() === "error" && !message.text().includes("401")) faults.push(message.text());
  });

  /** In both colour schemes, at desktop and phone width: nothing hangs over, and axe finds nothing. */
  async function looks_good(name) {
    for (const scheme of ["light", "dark"]) {
      await page.emulateMedia({colorScheme: scheme});
      for (const [device, size] of [["desktop", {width: 1200, height: 900}], ["phone", {width: 360, height: 740}]]) {
        await page.setViewportSize(size);
        if (pictures) await page.screenshot({path: `${pictures}/${name}-${device}-${scheme}.png`});
        const wide = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
        assert.ok(wide <= 0, `${name} on a ${device} is ${wide} pixels too wide`);
        await page.evaluate(axe);
        const {violations} = await page.evaluate(() => window.axe.run());
        assert.deepEqual(violations.map((one) => `${one.id}: ${one.nodes[0].html}`), [], `${name}, ${device}, ${scheme}`);
      }
    }
    await page.setViewportSize({width: 1200, height: 900});
  }

  /** Presses Tab until the element with that text has the focus. */
  async function tab_to(text) {
    for (let presses = 0; presses < 60; ++presses) {
      await page.keyboard.press("Tab");
      if (await page.evaluate((wanted) => document.activeElement?.textContent.includes(wanted), text)) return;
    }
    assert.fail(`${text} cannot be reached by the keyboard`);
  }
  return {browser, page, faults, looks_good, tab_to};
}

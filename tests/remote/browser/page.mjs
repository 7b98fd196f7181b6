// Opens the phone's page from a pairing link in headless Chromium, waits for
// the laptop's status, presses "Let it sleep" or a mode button and reports
// what the page showed, with a screenshot.
//   node page.mjs <link> <screenshot.png> <button id or mode>
// Prints one JSON line: {"status": …, "mode": …, "message": …}.
import puppeteer from 'puppeteer-core';

const [link, screenshot, press] = process.argv.slice(2);
const browser = await puppeteer.launch({
  executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking',
         '--disable-component-update', '--disable-sync', '--no-first-run'],
});
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 390, height: 760, deviceScaleFactor: 1 });
  const errors = [];
  page.on('pageerror', (e) => errors.push(String(e)));
  await page.goto(link, { waitUntil: 'load' });
  // The status arrives from the laptop, through the relay.
  await page.waitForFunction(() => document.getElementById('mode').textContent !== '–', { timeout: 20000 });
  const before = await page.$eval('#status', (e) => e.textContent);
  const selector = press === 'sleep' ? '#sleep' : `button[data-mode="${press}"]`;
  await page.click(selector);
  await page.waitForFunction(() => document.getElementById('message').textContent === 'Done.', { timeout: 20000 });
  // The refresh after the command shows the new mode.
  await page.waitForFunction((want) => document.getElementById('mode').textContent === want, { timeout: 20000 },
                             press === 'off' ? 'Off' : 'When busy');
  await page.screenshot({ path: screenshot });
  const out = {
    before,
    status: await page.$eval('#status', (e) => e.textContent),
    mode: await page.$eval('#mode', (e) => e.textContent),
    battery: await page.$eval('#battery', (e) => e.textContent),
    message: await page.$eval('#message', (e) => e.textContent),
    errors,
  };
  process.stdout.write(JSON.stringify(out) + '\n');
} finally {
  await browser.close();
}

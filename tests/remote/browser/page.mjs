// Opens the phone's page in headless Chromium as a phone would: first from a
// link without its key and from one whose relay is dead, then from the real
// pairing link, where it waits for the laptop's status, shows the power
// figures, takes a screenshot and presses "Let it sleep" or a mode button.
//   node page.mjs <link> <screenshot.png> <button id or mode>
// Prints one JSON line: {"status": …, "mode": …, "message": …, "power": …}.
import puppeteer from 'puppeteer-core';

const [link, screenshot, press] = process.argv.slice(2);
const browser = await puppeteer.launch({
  executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking',
         '--disable-component-update', '--disable-sync', '--no-first-run'],
});
const text = (page, selector) => page.$eval(selector, (e) => e.textContent);
const enabledButtons = (page) =>
  page.$$eval('button[data-cmd]', (all) => all.filter((b) => !b.disabled).length);

try {
  const page = await browser.newPage();
  await page.setViewport({ width: 390, height: 760, deviceScaleFactor: 1 });
  const errors = [];
  page.on('pageerror', (e) => errors.push(String(e)));

  // A link that lost its key: nothing can be sent.
  await page.goto(link.split('#')[0], { waitUntil: 'load' });
  await page.waitForFunction(() => document.getElementById('status').textContent !== 'Connecting…',
                             { timeout: 10000 });
  const noKey = { status: await text(page, '#status'), enabled: await enabledButtons(page) };

  // The relay is down (nothing listens on the discard port).
  const params = new URLSearchParams(link.split('#')[1]);
  params.set('r', 'http://127.0.0.1:9');
  // Only a fresh load runs the page again (a new fragment alone doesn't).
  await page.goto('about:blank');
  await page.goto(link.split('#')[0] + '#' + params.toString(), { waitUntil: 'load' });
  await page.waitForFunction(() => document.getElementById('status').textContent !== 'Connecting…',
                             { timeout: 20000 });
  const deadRelay = { status: await text(page, '#status') };

  await page.goto('about:blank');
  await page.goto(link, { waitUntil: 'load' });
  // The status arrives from the laptop, through the relay.
  await page.waitForFunction(() => document.getElementById('mode').textContent !== '–', { timeout: 20000 });
  const before = await text(page, '#status');
  const enabled = await enabledButtons(page);

  await page.click('#power-button');
  await page.waitForFunction(() => !document.getElementById('power').hidden, { timeout: 20000 });
  await page.waitForFunction(() => document.getElementById('message').textContent === 'Done.', { timeout: 20000 });
  const power = {
    hours: await text(page, '#hours'),
    saving: await text(page, '#saving'),
    apps: await page.$$eval('#apps li', (all) => all.map((li) => li.textContent)),
  };
  await page.screenshot({ path: screenshot, fullPage: true });

  const selector = press === 'sleep' ? '#sleep' : `button[data-mode="${press}"]`;
  await page.evaluate(() => { document.getElementById('message').textContent = ''; });
  await page.click(selector);
  await page.waitForFunction(() => document.getElementById('message').textContent === 'Done.', { timeout: 20000 });
  // The refresh after the command shows the new mode.
  await page.waitForFunction((want) => document.getElementById('mode').textContent === want, { timeout: 20000 },
                             press === 'off' ? 'Off' : 'When busy');
  const out = {
    noKey,
    deadRelay,
    before,
    enabled,
    power,
    status: await text(page, '#status'),
    mode: await text(page, '#mode'),
    battery: await text(page, '#battery'),
    message: await text(page, '#message'),
    errors,
  };
  process.stdout.write(JSON.stringify(out) + '\n');
} finally {
  await browser.close();
}

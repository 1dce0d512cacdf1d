// The emulator's console in a real browser (Debian's chromium, headless):
// a collection and a trigger added through the forms, a photo tried, a scan
// by `zrk` seen in the live log and the history, the trigger deleted and a
// scan no longer matching, a drill, and a reset.
//
//   node console.test.mjs EMULATOR ZRK SAMPLES SCREENSHOT_DIR
import { spawn, execFile } from 'node:child_process';
import { once } from 'node:events';
import { mkdirSync } from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { promisify } from 'node:util';
import assert from 'node:assert/strict';
import puppeteer from 'puppeteer-core';

const [emulatorPath, zrkPath, samples, shots] = process.argv.slice(2);
mkdirSync(shots, { recursive: true });
const run = promisify(execFile);
let step = 'starting';

// The emulator, and the address of its first line.
const emulator = spawn(emulatorPath, ['--port', '0', '--seed', `${samples}/seed`], { stdio: ['ignore', 'pipe', 'pipe'] });
let out = '', err = '';
emulator.stdout.on('data', (chunk) => { out += chunk; });
emulator.stderr.on('data', (chunk) => { err += chunk; });
for (let i = 0; i < 300 && !out.includes('\n'); ++i) await sleep(100);
const url = (out.match(/^zrk-emulator listening on (\S+)/) || [])[1];
let browser;

// `zrk` against the emulator: its JSON answer, or its exit status when it fails.
async function zrk(...args) {
  const env = { ...process.env, ZRK_BASE_URL: url, ZRK_APP_KEY: 'demo-key', ZRK_APP_SECRET: 'demo-secret' };
  try {
    const { stdout } = await run(zrkPath, ['--json', '--timeout', '30', ...args], { env });
    return JSON.parse(stdout);
  } catch (error) {
    return { exitStatus: error.code };
  }
}

try {
  assert.ok(url, `the emulator did not start: ${err}`);
  assert.ok(err.includes(`zrk-emulator: console on ${url}/\n`), err);
  browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    // The sandbox needs user namespaces, which root and containers lack.
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage'],
  });
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 900 });
  page.on('dialog', (dialog) => dialog.accept());
  const failures = [];
  page.on('pageerror', (error) => failures.push(error.message));
  // A picture the page replaced while it loaded is aborted, not failed.
  page.on('requestfailed', (request) => {
    if (request.failure()?.errorText !== 'net::ERR_ABORTED') failures.push(`${request.url()} failed`);
  });
  const text = (selector) => page.$eval(selector, (node) => node.textContent);
  const until = (fn, ...args) => page.waitForFunction(fn, { timeout: 20000 }, ...args);

  step = 'overview';
  await page.goto(`${url}/`);
  await page.waitForSelector('[data-trigger="jazz-night"] img');
  assert.match(await text('#facts'), /apps: demo-key.*3 collections, 8 triggers/);
  // Everything the page loaded came from the emulator itself.
  const foreign = await page.evaluate((origin) =>
    performance.getEntriesByType('resource').map((r) => r.name).filter((name) => !name.startsWith(origin)), url);
  assert.deepEqual(foreign, []);

  step = 'new collection';
  await page.type('#collection-id', 'mine');
  await page.type('#collection-name', 'My posters');
  await page.click('#new-collection button');
  await page.waitForSelector('[data-collection="mine"]');

  step = 'add a trigger';
  const addTrigger = async (id, file) => {
    await page.select('#trigger-collection', 'mine');
    await page.$eval('#trigger-id', (input, value) => { input.value = value; }, id);
    await page.type('#trigger-name', 'My star dome');
    await page.type('#trigger-payload-url', 'https://example.com/mine');
    await page.type('#trigger-payload-data', 'Hello from my poster');
    await (await page.$('#trigger-file')).uploadFile(file);
    await page.$eval('#add-trigger .message', (node) => { node.textContent = ''; });
    await page.click('#add-trigger button');
    await until(() => document.querySelector('#add-trigger .message').textContent !== '');
    return text('#add-trigger .message');
  };
  // Bad input is refused with the emulator's message, and changes nothing.
  assert.match(await addTrigger('bad', `${samples}/seed/science-museum/star-dome.json`), /neither a JPEG nor a PNG/);
  await page.$eval('#add-trigger', (form) => form.reset());
  assert.match(await addTrigger('my-star', `${samples}/seed/science-museum/star-dome.jpg`), /added/);
  await page.waitForSelector('[data-trigger="my-star"] img');
  assert.match(await addTrigger('my-star', `${samples}/seed/science-museum/star-dome.jpg`), /taken/);

  step = 'try a photo';
  await page.select('#try-collection', 'mine');
  await (await page.$('#try-file')).uploadFile(`${samples}/photos/star-dome-photo.jpg`);
  await until(() => document.querySelector('#try-verdict').textContent.includes('my-star'));
  assert.match(await text('#try-verdict'), /Matches "My star dome" \(my-star\), score \d+.*Hello from my poster/);
  await until(() => document.querySelector('#try-picture').naturalWidth > 300);
  await page.select('#try-collection', 'city-festival');
  await (await page.$('#try-file')).uploadFile(`${samples}/photos/star-dome-photo.jpg`);
  await until(() => document.querySelector('#try-verdict').textContent.startsWith('No trigger matches'));
  await page.select('#try-collection', 'mine');
  await (await page.$('#try-file')).uploadFile(`${samples}/photos/star-dome-photo.jpg`);
  await until(() => document.querySelector('#try-verdict').textContent.includes('my-star'));
  await until(() => document.querySelector('#try-picture').complete);

  step = 'zrk scan in the live log';
  const scan = await zrk('scan', `${samples}/photos/star-dome-photo.jpg`, '--collection', 'mine');
  assert.equal(scan.triggerId, 'my-star', JSON.stringify(scan));
  await until(() => [...document.querySelectorAll('tr.entry td.path')].some((td) => td.textContent === '/app/v1/scan/mine'));
  await page.waitForSelector(`#scans li[data-scan="${scan.scanId}"] img[alt="my-star"]`);
  await page.evaluate(() => [...document.querySelectorAll('tr.entry')]
    .find((row) => row.querySelector('td.path').textContent === '/app/v1/scan/mine').click());
  const details = await page.$eval('tr.details:not([hidden])', (node) => node.textContent);
  assert.match(details, /Authorization: Bearer \*\*\*\*/);
  assert.match(details, /part "file" file image\.jpg.*, \d+ bytes/);
  assert.match(details, /matched my-star/);
  await page.waitForSelector('tr.details:not([hidden]) img');
  // The console's own picture loads stay out of the log it shows.
  assert.deepEqual(await page.$$eval('tr.entry td.path', (cells) =>
    cells.map((cell) => cell.textContent).filter((path) => path.startsWith('/files/'))), []);
  await page.evaluate(() => window.scrollTo(0, 0));
  await page.screenshot({ path: `${shots}/console.png` });
  await page.screenshot({ path: `${shots}/console-full.png`, fullPage: true });

  step = 'delete the trigger';
  await page.click('[data-delete-trigger="my-star"]');
  await until(() => !document.querySelector('[data-trigger="my-star"]'));
  const missed = await zrk('scan', `${samples}/photos/star-dome-photo.jpg`, '--collection', 'mine');
  assert.ok(missed.scanId && missed.triggerId === undefined && missed.score === 0, JSON.stringify(missed));
  await page.waitForSelector(`#scans li[data-scan="${missed.scanId}"]`);

  step = 'drills';
  await page.$eval('#drill-fail-rate', (input) => { input.value = '1'; });
  await page.click('#drills button[type=submit]');
  await until(() => document.querySelector('#drills .message').textContent.includes('failure rate 1'));
  assert.equal((await zrk('collections')).exitStatus, 1);

  step = 'reset';
  await page.click('#reset');
  await until(() => document.querySelector('#drills .message').textContent.startsWith('Reset'));
  await until(() => !document.querySelector('[data-collection="mine"]') && document.querySelector('#fact-scans').textContent === '0 scans');
  assert.equal(await page.$eval('#drill-fail-rate', (input) => input.value), '0');
  assert.equal((await zrk('collections')).length, 3, 'the drill was not reset');
  await page.screenshot({ path: `${shots}/console-reset.png` });
  assert.deepEqual(failures, [], 'the page met errors');
} catch (error) {
  console.error(`console in chromium, at "${step}": ${error.stack || error}`);
  console.error(err);
  process.exitCode = 1;
} finally {
  if (browser) await browser.close();
  // It stops cleanly, with 0, on SIGTERM: no crash or sanitizer report on the way.
  const exited = emulator.exitCode === null ? once(emulator, 'exit') : Promise.resolve([emulator.exitCode]);
  emulator.kill('SIGTERM');
  const [status] = await exited;
  if (status !== 0) {
    console.error(`zrk-emulator exited with ${status}:\n${err}`);
    process.exitCode = 1;
  }
  console.log(process.exitCode ? 'console in chromium: 0 passed, 1 failed' : 'console in chromium: 1 passed, 0 failed');
}

// A session uploaded to vdl-collector must play on the collector's own page: rrweb-player loaded from the
// collector, the events fetched from it, the player mounted with the recorded screen and no page error.
//
// Needs the collector program; CTest passes it (browser_player_page_test):
//   VDL_COLLECTOR_BIN   vdl-collector (without it this file is skipped)
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { mkdtemp, readFile, rm } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { launchBrowser, packEvent } from './replay.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const collectorBin = process.env.VDL_COLLECTOR_BIN;

let folder;
let collector;
const readToken = randomBytes(16).toString('hex');
let baseUrl;
let browser;
before(async () => {
  if (!collectorBin) return;
  folder = await mkdtemp(path.join(tmpdir(), 'vdl-player-page-'));
  collector = spawn(collectorBin, ['--api-key', 'page-key', '--read-token', readToken, '--db', path.join(folder, 'db.sqlite3'), '--watch-stdin'],
    { stdio: ['pipe', 'pipe', 'inherit'] });
  baseUrl = await new Promise((resolve, reject) => {
    let output = '';
    collector.stdout.on('data', (chunk) => {
      output += chunk;
      const listening = /listening on (http:\/\/\S+)/.exec(output);
      if (listening) resolve(listening[1]);
    });
    collector.on('exit', (code) => reject(new Error(`vdl-collector ended with ${code}: ${output}`)));
  });
  browser = await launchBrowser();
});
after(async () => {
  await browser?.close();
  collector?.stdin.end();
  if (folder) await rm(folder, { recursive: true, force: true });
});

test('the session page plays an uploaded session in rrweb-player',
  { skip: collectorBin ? false : 'VDL_COLLECTOR_BIN is not set (CTest runs this as browser_player_page_test)' }, async () => {
    const events = JSON.parse(await readFile(path.join(here, 'fixtures/good.json'), 'utf8'));
    const upload = await fetch(`${baseUrl}/sessions/v2/track?device_id=phone%2F1&session_id=9&seq_number=0&mobile_translation=false`, {
      method: 'POST',
      headers: { authorization: 'Bearer page-key', 'content-type': 'application/json' },
      body: JSON.stringify({ version: 2, events: events.map(packEvent) }),
    });
    assert.equal(upload.status, 200, await upload.text());

    const page = await browser.newPage({ viewport: { width: 1000, height: 1000 } });
    const problems = [];
    page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
    page.on('console', (message) => {
      if (message.type() === 'error') problems.push(`console error: ${message.text()}`);
    });
    page.on('requestfailed', (request) => problems.push(`request failed: ${request.url()}`));
    // The link signs the browser in (a cookie) and lands on the page, whose events fetch sends the cookie.
    await page.goto(`${baseUrl}/sessions/phone/1/9?token=${readToken}`);
    assert.equal(new URL(page.url()).search, '');
    await page.waitForSelector('body[data-state]', { timeout: 5000 });

    if (await page.getAttribute('body', 'data-state') !== 'playing') assert.fail(await page.textContent('#status'));
    assert.equal(await page.textContent('#event-count'), String(events.length));
    // The replay frame holds the recorded screen's document.
    const frame = page.frameLocator('.rr-player .replayer-wrapper iframe');
    await frame.locator('body *').first().waitFor({ state: 'attached', timeout: 5000 });
    assert.deepEqual(problems, []);
  });

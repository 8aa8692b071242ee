// A session uploaded to vdl-collector must play on the collector's own page: rrweb-player loaded from the
// collector, the events fetched from it, and, at laptop, desktop and phone window sizes, a player that fits the
// window with usable controls, scrubs to where the timeline is clicked and draws the recorded frame there.
//
// Needs the collector program; CTest passes it (browser_player_page_test):
//   VDL_COLLECTOR_BIN   vdl-collector (without it this file is skipped)
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { mkdtemp, rm } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';

import { launchBrowser, packEvent } from './replay.mjs';

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

// A 40 s session whose screen reads "step N" from N×10 s on, so a scrubbed frame shows where it landed.
const t0 = Date.UTC(2025, 10, 22, 8, 0, 0);
const text = (value) => ({ id: 6, type: 3, textContent: value });
const events = [
  { type: 4, timestamp: t0, data: { href: 'ios://com.verdalune.demo', width: 390, height: 844 } },
  { type: 2, timestamp: t0, data: { initialOffset: { left: 0, top: 0 }, node: { id: 1, type: 0, childNodes: [
    { id: 2, type: 2, tagName: 'html', attributes: {}, childNodes: [
      { id: 3, type: 2, tagName: 'head', attributes: {}, childNodes: [] },
      { id: 4, type: 2, tagName: 'body', attributes: { style: 'margin: 0; font: 48px sans-serif' }, childNodes: [
        { id: 5, type: 2, tagName: 'div', attributes: { id: 'step' }, childNodes: [text('step 0')] }] }] }] } } },
  ...[1, 2, 3, 4].map((n) => ({ type: 3, timestamp: t0 + n * 10000,
    data: { source: 0, texts: [{ id: 6, value: `step ${n}` }], attributes: [], removes: [], adds: [] } })),
];

// Laptop, desktop and phone windows; each scrubs forward, back, then forward again.
const windows = [{ width: 1280, height: 800 }, { width: 1920, height: 1080 }, { width: 390, height: 844 }];
const scrubs = [0.85, 0.15, 0.55];

test('the session page fits the window and scrubs where clicked',
  { skip: collectorBin ? false : 'VDL_COLLECTOR_BIN is not set (CTest runs this as browser_player_page_test)' }, async () => {
    const upload = await fetch(`${baseUrl}/sessions/v2/track?device_id=phone%2F1&session_id=9&seq_number=0&mobile_translation=false`, {
      method: 'POST',
      headers: { authorization: 'Bearer page-key', 'content-type': 'application/json' },
      body: JSON.stringify({ version: 2, events: events.map(packEvent) }),
    });
    assert.equal(upload.status, 200, await upload.text());

    for (const viewport of windows) {
      const size = `${viewport.width}×${viewport.height}`;
      const page = await browser.newPage({ viewport });
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
      assert.deepEqual(await page.$$eval('dd', (items) => items.map((item) => [item.id, item.textContent])), [
        ['device-id', 'phone/1'], ['session-id', '9'], ['start-time', new Date(t0).toISOString()],
        ['duration', '40 s'], ['event-count', String(events.length)]]);

      // The player, its frame and every control lie inside the window; the timeline is usable.
      const boxes = await page.evaluate(() => {
        const box = (element) => {
          const { left, top, right, bottom, width, height } = element.getBoundingClientRect();
          return { left, top, right, bottom, width, height };
        };
        return {
          player: box(document.querySelector('.rr-player')),
          frame: box(document.querySelector('.replayer-wrapper iframe')),
          progress: box(document.querySelector('.rr-progress')),
          controls: [...document.querySelectorAll('.rr-controller__btns > *')].map(box),
        };
      });
      const inside = (inner, outer) => inner.left >= outer.left - 0.5 && inner.right <= outer.right + 0.5 &&
        inner.top >= outer.top - 0.5 && inner.bottom <= outer.bottom + 0.5;
      const windowBox = { left: 0, top: 0, right: viewport.width, bottom: viewport.height };
      assert.ok(inside(boxes.player, windowBox), `${size}: the player ${JSON.stringify(boxes.player)} leaves the window`);
      assert.ok(inside(boxes.frame, boxes.player), `${size}: the frame ${JSON.stringify(boxes.frame)} leaves the player`);
      // The frame takes the room the window leaves it: as tall as the player allows or as wide as the window.
      assert.ok(boxes.frame.height >= boxes.player.height - 80 - 2 || boxes.frame.width >= viewport.width * 0.9,
        `${size}: the frame ${JSON.stringify(boxes.frame)} does not fill the player ${JSON.stringify(boxes.player)}`);
      assert.ok(boxes.progress.width >= 300, `${size}: the timeline is ${boxes.progress.width} px`);
      for (const control of boxes.controls) {
        assert.ok(inside(control, boxes.player), `${size}: a control ${JSON.stringify(control)} leaves the player`);
      }

      const frame = page.frameLocator('.rr-player .replayer-wrapper iframe');
      for (const fraction of scrubs) {
        await page.mouse.click(boxes.progress.left + fraction * boxes.progress.width,
          boxes.progress.top + boxes.progress.height / 2);
        const seconds = fraction * 40;
        const shown = await page.textContent('.rr-timeline__time');
        const [minutes, secs] = shown.split(':').map(Number);
        assert.ok(Math.abs(minutes * 60 + secs - seconds) <= 1, `${size}: clicked at ${seconds} s, the player shows ${shown}`);
        assert.equal(await frame.locator('#step').textContent({ timeout: 2000 }), `step ${Math.floor(seconds / 10)}`,
          `${size}: the frame at ${seconds} s`);
      }
      // The player follows the window: from a phone's width to a laptop's.
      if (viewport === windows.at(-1)) {
        await page.setViewportSize(windows[0]);
        await page.waitForFunction(() => document.querySelector('.rr-player').offsetWidth >= 700, null, { timeout: 2000 });
      }
      assert.deepEqual(problems, []);
      await page.close();
    }
  });

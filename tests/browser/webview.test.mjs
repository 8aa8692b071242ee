// A real page recorded by the script the library injects into web views, its messages fed through the
// library on the simulated device, and the merged recording replayed: the page must show inside the web
// view's frame as it was, through a restart of the page's recording, and look like the device's frames
// outside the web view and the blocked regions, where the scenario writes them.
//
// Needs the two programs the build makes; CTest passes them (browser_webview_test):
//   VDL_RECORD_WEBVIEW_BIN   vdl_record_webview_scenario (without it this file is skipped)
//   VDL_INJECTED_SCRIPT_BIN  vdl-injected-script (default build/release/tools/vdl-injected-script)
//   VDL_WEBVIEW_OUT          where messages.json, events.json, webview.png and fidelity.txt go (default a
//                            temporary folder)
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { mkdir, mkdtemp, readFile, writeFile } from 'node:fs/promises';
import http from 'node:http';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

import { compareFrames, formatFidelity, frameReplayOptions, loadFrames } from './fidelity.mjs';
import { launchBrowser, replayEvents } from './replay.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const recordBin = process.env.VDL_RECORD_WEBVIEW_BIN;
const scriptBin = process.env.VDL_INJECTED_SCRIPT_BIN || path.resolve(here, '../../build/release/tools/vdl-injected-script');
const run = promisify(execFile);

// Mean SSIM and worst 16 pt tile outside the masks, set from measurement: a good build scores 1.000 on both
// frames. The web view's page is masked (the device cannot draw it) and fills up to 71% of the screen, so
// the masked share may reach three quarters here.
const FIDELITY_THRESHOLDS = { ssim: 0.95, local: 0.85, maxMaskShare: 0.75 };

// The page the web view shows: a heading, a field, a list that a timer keeps changing and a style sheet.
const PAGE = `<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>Order status</title>
<style>
  body { font-family: sans-serif; margin: 16px; background: rgb(255, 248, 232); }
  h1 { color: rgb(0, 90, 200); font-size: 26px; }
  li { padding: 4px; border-bottom: 1px solid rgb(220, 200, 160); }
  footer { margin-top: 900px; }
</style></head>
<body>
  <h1>Your order is on its way</h1>
  <label>Note for the driver <input id="note" type="text"></label>
  <ul id="steps"><li>Packed</li></ul>
  <footer>Questions? Call us.</footer>
  <script>
    let step = 1;
    const list = document.getElementById('steps');
    window.listTimer = setInterval(() => {
      step += 1;
      const item = document.createElement('li');
      item.textContent = 'Step ' + step;
      list.appendChild(item);
      if (list.children.length > 3) list.firstElementChild.remove();
    }, 120);
  </script>
</body></html>`;

// A page with an AMD module loader (a stub that counts its calls), loaded before the script is evaluated.
const AMD_PAGE = `<!DOCTYPE html><html><head><script>
  window.defineCalls = 0;
  window.define = function() { window.defineCalls += 1; };
  window.define.amd = {};
</script></head><body><p>Loaded by a module loader</p></body></html>`;

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

let server;
let browser;
before(async () => {
  if (!recordBin) return;
  server = http.createServer((request, response) => {
    response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' });
    response.end(request.url === '/amd' ? AMD_PAGE : PAGE);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  browser = await launchBrowser();
});
after(async () => {
  await browser?.close();
  server?.close();
});

test('a page recorded in a web view replays inside the web view\'s frame, through a restart of its recording',
  { skip: recordBin ? false : 'VDL_RECORD_WEBVIEW_BIN is not set (CTest runs this as browser_webview_test)' }, async (t) => {
    const out = process.env.VDL_WEBVIEW_OUT || await mkdtemp(path.join(tmpdir(), 'vdl-webview-'));
    await mkdir(out, { recursive: true });
    const script = (await run(scriptBin, [], { maxBuffer: 16 << 20 })).stdout;

    // The page side, as the platform runs it: the message handler the bridge registers, the bridge's user
    // script at document start, and the bridge's evaluation once the page has loaded.
    const context = await browser.newContext({ viewport: { width: 390, height: 600 } });
    const messages = [];
    const pageErrors = [];
    await context.exposeBinding('vdlDeliver', (_source, body) => { messages.push({ at: Date.now(), body }); });
    await context.addInitScript(() => {
      window.webkit = { messageHandlers: { vdl_injected_session_replay: { postMessage: (body) => window.vdlDeliver(body) } } };
    });
    const page = await context.newPage();
    // Added to the page, not the context, so that the blank document a new page starts with stays
    // unrecorded, as in a web view that loads its first page.
    await page.addInitScript({ content: script });
    page.on('pageerror', (error) => pageErrors.push(error.message));
    page.on('console', (message) => { if (message.type() === 'error') pageErrors.push(message.text()); });
    let live;
    try {
      await page.goto(`http://127.0.0.1:${server.address().port}/order`, { waitUntil: 'load' });
      assert.equal(await page.evaluate(script), true);
      await sleep(300);
      await page.click('#note');
      await page.type('#note', 'Ring twice', { delay: 20 });
      await sleep(200);
      // Attaching the web view again re-evaluates the script: the page's recording starts afresh.
      assert.equal(await page.evaluate(script), true);
      await page.mouse.wheel(0, 240);
      await sleep(400);
      await page.evaluate(() => clearInterval(window.listTimer));
      await sleep(150);
      live = await page.evaluate(() => ({
        text: document.body.innerText, note: document.getElementById('note').value, compatMode: document.compatMode,
        scrollY: window.scrollY,
      }));
    } finally {
      await context.close();
    }
    assert.deepEqual(pageErrors, []);
    const pageEvents = messages.map((m) => JSON.parse(m.body.event));
    const pageFullSnapshots = pageEvents.filter((e) => e.type === 2).length;
    assert.equal(pageFullSnapshots, 3, 'one recording from the user script, one per evaluation');
    assert.ok(pageEvents.some((e) => e.type === 3 && e.data.source === 5), 'the typing was recorded');

    const t0 = messages[0].at;
    const messagesFile = path.join(out, 'messages.json');
    await writeFile(messagesFile, JSON.stringify(messages.map((m) => ({ t: m.at - t0, body: m.body }))));
    const recorded = await run(recordBin, [messagesFile, out], { maxBuffer: 16 << 20 });
    // Every page event is expected to make it: a dropped or undecodable one is logged as an error.
    assert.doesNotMatch(recorded.stderr, /^\[error\]/m);
    const events = JSON.parse(await readFile(path.join(out, 'events.json'), 'utf8'));

    const attaches = events.filter((e) => e.type === 3 && e.data.source === 0 && e.data.isAttachIframe);
    assert.equal(attaches.length, pageFullSnapshots, 'every page full snapshot is attached');
    const frameIds = new Set(attaches.map((e) => e.data.adds[0].parentId));
    assert.equal(frameIds.size, 1, 'one web view');
    const [frameId] = frameIds;

    // The screenshot shows the page as the last restart of its recording found it, before it scrolls. The same
    // replay photographs the moments of the device's frames.
    const frames = await loadFrames(path.join(out, 'frames.json'));
    const result = await replayEvents(events, {
      browser, screenshot: { path: path.join(out, 'webview.png'), at: { index: events.indexOf(attaches.at(-1)) } },
      iframes: [{ id: frameId }],
      ...frameReplayOptions(frames, { saveDir: path.join(out, 'replay-frames') }),
    });
    const problems = result.problems.map((p) => `#${p.index} (${p.event}) [${p.kind}] ${p.message}`).join('\n');
    assert.equal(problems, '', `${problems}\nrecorder: ${recorded.stdout}`);
    const [shown] = result.iframes;
    assert.equal(shown.documentId, attaches.at(-1).data.adds[0].node.id, 'the last page document is the one shown');
    assert.deepEqual([shown.text, shown.compatMode, shown.scrollY], [live.text, live.compatMode, live.scrollY]);
    assert.match(shown.text, /Your order is on its way/);
    assert.deepEqual([live.note, ...shown.inputs.map((input) => input.value)], ['Ring twice', 'Ring twice']);
    assert.ok(shown.styleRules >= 3, `the page's style sheet is replayed (${shown.styleRules} rules)`);

    await t.test('the replay looks like the device\'s frames outside the web view', async () => {
      const report = compareFrames(frames, result, { thresholds: FIDELITY_THRESHOLDS });
      await writeFile(path.join(out, 'fidelity.txt'), `${formatFidelity(report)}\n`);
      console.log(formatFidelity(report));
      assert.ok(report.ok, formatFidelity(report));
    });
  });

test('a page with a module loader is recorded too, without the recorder handed to its loader',
  { skip: recordBin ? false : 'VDL_RECORD_WEBVIEW_BIN is not set (CTest runs this as browser_webview_test)' }, async () => {
    const script = (await run(scriptBin, [], { maxBuffer: 16 << 20 })).stdout;
    const page = await browser.newPage();
    const events = [];
    try {
      await page.exposeFunction('vdlDeliver', (body) => { events.push(JSON.parse(body.event)); });
      await page.goto(`http://127.0.0.1:${server.address().port}/amd`, { waitUntil: 'load' });
      await page.evaluate(() => {
        window.webkit = { messageHandlers: { vdl_injected_session_replay: { postMessage: (body) => window.vdlDeliver(body) } } };
      });
      assert.equal(await page.evaluate(script), true);
      await sleep(300);
      assert.equal(await page.evaluate(() => window.defineCalls), 0);
    } finally {
      await page.close();
    }
    const snapshot = events.find((e) => e.type === 2);
    assert.ok(snapshot, `a full snapshot arrives (${events.length} events)`);
    assert.match(JSON.stringify(snapshot.data), /Loaded by a module loader/);
  });

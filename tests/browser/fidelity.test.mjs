// The pixel comparison of a replay with device frames, against frames made from the replay itself: the
// same image must score 1, and what a faulty replay would look like (soft text, masks over most of the
// screen) must fail, while a difference the masks hide must not.
import assert from 'node:assert/strict';
import { mkdtemp, rm, writeFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';

import { PNG } from 'pngjs';

import { DEFAULT_THRESHOLDS, formatFidelity, loadFrames, measureFidelity } from './fidelity.mjs';
import { launchBrowser, replayEvents } from './replay.mjs';

const T0 = 1_700_000_000_000;
const div = (id, style, text) => ({ id, type: 2, tagName: 'div', attributes: { style },
  childNodes: text ? [{ id: id + 1000, type: 3, textContent: text }] : [] });
const line = (i) => div(200 + i, `position: absolute; left: 24px; top: ${40 + i * 28}px; font: 17px sans-serif; color: #222`,
  `Statement ${i + 1}: card ending 40${i}, paid in full`);
// A screen of text with one blocked field; a later capture blocks a panel over most of the screen.
const EVENTS = [
  { type: 4, timestamp: T0, data: { href: 'ios://fidelity', width: 390, height: 844 } },
  { type: 2, timestamp: T0, data: { node: { id: 1, type: 0, childNodes: [{ id: 2, type: 2, tagName: 'html', attributes: {}, childNodes: [
    { id: 3, type: 2, tagName: 'head', attributes: {}, childNodes: [] },
    { id: 4, type: 2, tagName: 'body', attributes: { style: 'margin: 0; background: #fff' }, childNodes: [
      ...Array.from({ length: 20 }, (_, i) => line(i)),
      div(100, 'position: absolute; left: 24px; top: 640px; width: 342px; height: 44px; background-color: #D6D7DC'),
    ] }] }] } } },
  { type: 3, timestamp: T0 + 500, data: { source: 0, texts: [], removes: [], adds: [], attributes: [
    { id: 100, attributes: { style: 'position: absolute; left: 0px; top: 0px; width: 390px; height: 700px; background-color: #D6D7DC' } }] } },
];
const FIRST = { index: 1 };

let browser, scratch, sharp, soft, hidden;
before(async () => {
  browser = await launchBrowser();
  scratch = await mkdtemp(path.join(tmpdir(), 'vdl-fidelity-'));
  const shot = async (deviceScaleFactor) => (await replayEvents(EVENTS, { browser, deviceScaleFactor,
    screenshots: [{ at: FIRST, masks: true }] })).screenshots[0];
  const three = await shot(3);
  sharp = PNG.sync.read(three.png);
  soft = upscale(PNG.sync.read((await shot(1)).png), 3);
  // What the device showed in the blocked field: text the replay has a placeholder for.
  hidden = PNG.sync.read(three.png);
  const [field] = three.masks;
  for (let y = field.y * 3; y < (field.y + field.height) * 3; y += 1) {
    for (let x = field.x * 3; x < (field.x + field.width) * 3; x += 1) hidden.data.set((x >> 3) % 2 ? [0, 0, 0] : [255, 255, 255], (y * hidden.width + x) * 4);
  }
});
after(async () => {
  await browser?.close();
  await rm(scratch, { recursive: true, force: true });
});

// Text drawn at 1× and stretched to 3× (bilinear), as a replay of too low a resolution would show it.
function upscale(image, k) {
  const out = new PNG({ width: image.width * k, height: image.height * k });
  const at = (x, y, c) => image.data[(Math.min(image.height - 1, y) * image.width + Math.min(image.width - 1, x)) * 4 + c];
  for (let y = 0; y < out.height; y += 1) {
    const sy = Math.max(0, (y + 0.5) / k - 0.5), y0 = Math.floor(sy), fy = sy - y0;
    for (let x = 0; x < out.width; x += 1) {
      const sx = Math.max(0, (x + 0.5) / k - 0.5), x0 = Math.floor(sx), fx = sx - x0;
      for (let c = 0; c < 4; c += 1) {
        out.data[(y * out.width + x) * 4 + c] = Math.round((at(x0, y0, c) * (1 - fx) + at(x0 + 1, y0, c) * fx) * (1 - fy)
          + (at(x0, y0 + 1, c) * (1 - fx) + at(x0 + 1, y0 + 1, c) * fx) * fy);
      }
    }
  }
  return out;
}

test('frames made from the replay score by what differs outside the masks', async () => {
  const entries = [['same', sharp, { time: T0 }], ['soft-text', soft, FIRST], ['only-under-mask', hidden, FIRST],
    ['mostly-masked', sharp, { index: 2 }]];
  for (const [name, image] of entries) await writeFile(path.join(scratch, `${name}.png`), PNG.sync.write(image, { deflateLevel: 1, filterType: 0 }));
  await writeFile(path.join(scratch, 'frames.json'), JSON.stringify(entries.map(([name, , at]) => ({ name, file: `${name}.png`, scale: 3, ...at }))));
  const frames = await loadFrames(path.join(scratch, 'frames.json'));
  const report = await measureFidelity(EVENTS, frames, { browser });
  console.log(formatFidelity(report));
  const row = Object.fromEntries(report.frames.map((r) => [r.name, r]));

  assert.deepEqual([row.same.ssim, row.same.local, row.same.psnr, row.same.failures], [1, 1, Infinity, []]);
  assert.equal(row.same.index, 1, 'a time picks the last event at or before it');
  assert.ok(row.same.maskShare > 0.03 && row.same.maskShare < 0.06, `the field is ${row.same.maskShare} of the frame`);

  assert.ok(row['soft-text'].local < DEFAULT_THRESHOLDS.local, `soft text: worst tile ${row['soft-text'].local}`);
  assert.deepEqual(row['only-under-mask'].failures, []);
  assert.equal(row['only-under-mask'].ssim, 1);
  assert.ok(row['mostly-masked'].maskShare > 0.8);
  assert.match(row['mostly-masked'].failures.join(), /masks cover 8\d\.\d% of the frame/);
  assert.equal(report.ok, false);
});

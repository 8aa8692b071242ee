#!/usr/bin/env node
// How close a replay looks to what the device's screen showed. The simulated device saves its screen as PNG
// "device frames" at its own scale, listed in frames.json with the moment each was taken; the recording is
// replayed once in rrweb's Replayer, photographed at each of those moments at the frame's pixel size, and
// each pair is compared with SSIM outside the regions the replay cannot show as the device did. Usable as a
// command and as a module (the browser tests import it).
//
//   node tests/browser/fidelity.mjs --frames FILE [--threshold X]
//       [--local-threshold X] [--save-replays DIR] [--report FILE] [any option of replay.mjs] INPUT...
//
// --report also writes the comparison's table to FILE.
//
// frames.json: [{"name", "file" (relative to frames.json), "scale", "time" (ms on the recording's clock: the
// replay shows the last event at or before it) | "index" (of the last event written when the frame was
// taken)}], in time order.
import { mkdir, readFile, writeFile } from 'node:fs/promises';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { PNG } from 'pngjs';
import { ssim } from 'ssim.js';

import { loadRecording, PLACEHOLDER_RGB, RecordingError, parseArgs as parseReplayArgs, replayEvents, replayOptionsOf, formatResult }
  from './replay.mjs';

// What a frame must reach unless a caller says otherwise; each test names its own.
export const DEFAULT_THRESHOLDS = {
  ssim: 0.95,        // mean SSIM of the blocks outside the masks: the frame as a whole
  local: 0.85,       // SSIM of the worst tile: a wrong button, a shifted row or a line of soft text shows here
  maxMaskShare: 0.5, // a replay that masks most of the screen proves nothing, however alike the rest
};
// A tile is about 16 points square, a line of body text: small enough that one wrong control fills most of
// one, large enough (dozens of blocks) that a stray pixel of anti-aliasing does not.
export const TILE_POINTS = 16;
// Bezkrovny's SSIM scores blocks that do not overlap, in one pass: a 1170×2532 pair in about half a second
// at full resolution. Weber's sliding window takes four times as long; ssim.js's default first shrinks the
// images to about 256 px, which would average soft text into sharp text.
export const SSIM_OPTIONS = { ssim: 'bezkrovny', downsample: false, windowSize: 8 };

// ---- frames.json ----

// The frames listed in `file`, each with its image's bytes and the point of the replay it shows ({time} or
// {index}, as replayEvents takes it).
export async function loadFrames(file) {
  let text;
  try {
    text = await readFile(file, 'utf8');
  } catch (error) {
    throw new RecordingError(`${file}: ${error.message}`);
  }
  let list;
  try {
    list = JSON.parse(text);
  } catch (error) {
    throw new RecordingError(`${file}: not JSON (${error.message})`);
  }
  if (!Array.isArray(list) || !list.length) throw new RecordingError(`${file}: not a non-empty array of frames`);
  const frames = [];
  for (const [i, entry] of list.entries()) {
    const where = `${file} [${i}]`;
    if (typeof entry?.name !== 'string' || typeof entry.file !== 'string') throw new RecordingError(`${where}: needs "name" and "file"`);
    if (!(entry.scale > 0)) throw new RecordingError(`${where}: "scale" must be a positive number`);
    let at;
    if (Number.isInteger(entry.index) && entry.index >= 0) at = { index: entry.index };
    else if (typeof entry.time === 'number') at = { time: entry.time };
    else throw new RecordingError(`${where}: needs a "time" or an "index"`);
    const image = path.resolve(path.dirname(file), entry.file);
    let png;
    try {
      png = await readFile(image);
    } catch (error) {
      throw new RecordingError(`${where}: ${error.message}`);
    }
    frames.push({ name: entry.name, file: image, scale: entry.scale, at, png });
  }
  if (new Set(frames.map((f) => f.scale)).size > 1) throw new RecordingError(`${file}: the frames have different scales`);
  return frames;
}

// What replayEvents needs to photograph each frame's moment at its size, with the masks of that moment.
export function frameReplayOptions(frames, { saveDir } = {}) {
  return {
    deviceScaleFactor: frames[0].scale,
    screenshots: frames.map((f) => ({ name: f.name, at: f.at, masks: true, path: saveDir ? path.join(saveDir, `replay-${f.name}.png`) : undefined })),
  };
}

// ---- comparing two images ----

function decode(png, what) {
  try {
    return PNG.sync.read(png);
  } catch (error) {
    throw new RecordingError(`${what}: not a PNG (${error.message})`);
  }
}

// Compares a device frame with the replay's screenshot, both PNG bytes of one size. `masks` are rectangles in
// CSS pixels (`scale` image pixels each). Both images are painted with the placeholder colour there, so the
// windows along a mask's edge see the same flat colour on its side in both, and windows centred inside a mask
// are left out of every figure. Returns {ssim, local, worstTile: {x, y} (points), psnr (dB, over the RGB of
// unmasked pixels; Infinity when they are equal), maskShare, width, height, ms}. `local` is the mean SSIM
// of the worst tile, `worstTile` where it lies.
export function compareImages(devicePng, replayPng, { scale = 1, masks = [] } = {}) {
  const started = Date.now();
  const a = decode(devicePng, 'device frame');
  const b = decode(replayPng, 'replay screenshot');
  if (a.width !== b.width || a.height !== b.height) {
    throw new RecordingError(`the device frame is ${a.width}×${a.height} px, the replay ${b.width}×${b.height} px`);
  }
  const { width, height } = a;
  const masked = new Uint8Array(width * height);
  let maskedCount = 0;
  for (const m of masks) {
    const x0 = Math.max(0, Math.floor(m.x * scale)), x1 = Math.min(width, Math.ceil((m.x + m.width) * scale));
    const y0 = Math.max(0, Math.floor(m.y * scale)), y1 = Math.min(height, Math.ceil((m.y + m.height) * scale));
    for (let y = y0; y < y1; y += 1) {
      for (let x = x0; x < x1; x += 1) {
        const p = y * width + x;
        if (!masked[p]) maskedCount += 1;
        masked[p] = 1;
        for (const image of [a, b]) image.data.set(PLACEHOLDER_RGB, p * 4);
      }
    }
  }

  let squares = 0;
  for (let p = 0; p < width * height; p += 1) {
    if (masked[p]) continue;
    for (let c = 0; c < 3; c += 1) {
      const d = a.data[p * 4 + c] - b.data[p * 4 + c];
      squares += d * d;
    }
  }
  const unmasked = width * height - maskedCount;
  const mse = unmasked ? squares / (3 * unmasked) : 0;

  // Bezkrovny's SSIM scores the image in blocks that do not overlap: block (x, y) covers the square from pixel
  // (x·B, y·B), B = windowSize, the last row and column cut by the frame's edge.
  const map = ssim(a, b, SSIM_OPTIONS).ssim_map;
  const block = SSIM_OPTIONS.windowSize;
  const tile = Math.max(block, Math.round((TILE_POINTS * scale) / block) * block);
  const perTile = tile / block;
  const tilesX = Math.ceil(map.width / perTile), tilesY = Math.ceil(map.height / perTile);
  const tileSum = new Float64Array(tilesX * tilesY), tileCount = new Uint32Array(tilesX * tilesY);
  let sum = 0, count = 0;
  for (let y = 0; y < map.height; y += 1) {
    const cy = Math.min(height - 1, y * block + (block >> 1));
    const row = Math.floor(y / perTile) * tilesX;
    for (let x = 0; x < map.width; x += 1) {
      if (masked[cy * width + Math.min(width - 1, x * block + (block >> 1))]) continue;
      const v = map.data[y * map.width + x];
      sum += v;
      count += 1;
      const t = row + Math.floor(x / perTile);
      tileSum[t] += v;
      tileCount[t] += 1;
    }
  }
  // A tile counts when at least half of its blocks are compared.
  let worst = null;
  for (let t = 0; t < tileSum.length; t += 1) {
    if (tileCount[t] * 2 < perTile * perTile) continue;
    const mean = tileSum[t] / tileCount[t];
    if (!worst || mean < worst.mean) worst = { t, mean };
  }
  return {
    width, height,
    ssim: count ? sum / count : 1,
    local: worst ? worst.mean : 1,
    worstTile: worst ? { x: ((worst.t % tilesX) * tile) / scale, y: (Math.floor(worst.t / tilesX) * tile) / scale } : null,
    psnr: mse ? 10 * Math.log10((255 * 255) / mse) : Infinity,
    maskShare: maskedCount / (width * height),
    ms: Date.now() - started,
  };
}

// ---- a replay against its frames ----

// Compares each frame with its screenshot in `result` (of a replay run with frameReplayOptions(frames)).
export function compareFrames(frames, result, { thresholds = {} } = {}) {
  const limits = { ...DEFAULT_THRESHOLDS, ...thresholds };
  const shots = new Map((result.screenshots ?? []).map((s) => [s.name, s]));
  const rows = frames.map((frame) => {
    const shot = shots.get(frame.name);
    const row = { name: frame.name, index: shot?.index ?? null, masks: shot?.masks ?? [], failures: [] };
    if (!shot) {
      row.failures.push('the replay took no screenshot for it (see the replay\'s problems)');
      return row;
    }
    try {
      Object.assign(row, compareImages(frame.png, shot.png, { scale: frame.scale, masks: shot.masks }));
    } catch (error) {
      if (!(error instanceof RecordingError)) throw error;
      row.failures.push(error.message);
      return row;
    }
    if (row.maskShare > limits.maxMaskShare) row.failures.push(`masks cover ${pct(row.maskShare)} of the frame`);
    if (row.ssim < limits.ssim) row.failures.push(`mean SSIM ${row.ssim.toFixed(4)} < ${limits.ssim}`);
    if (row.local < limits.local) {
      row.failures.push(`worst tile SSIM ${row.local.toFixed(4)} < ${limits.local}, at (${row.worstTile.x}, ${row.worstTile.y}) pt`);
    }
    return row;
  });
  return { ok: rows.every((r) => !r.failures.length), thresholds: limits, frames: rows };
}

// Replays `events` once and compares every frame. Options: browser, thresholds, saveDir (where the replay's
// screenshots go as replay-<name>.png), and any other option of replayEvents. The report holds the replay's
// result (`replay`); its `ok` is the frames' alone.
export async function measureFidelity(events, frames, { thresholds, saveDir, ...replayOptions } = {}) {
  if (saveDir) await mkdir(saveDir, { recursive: true });
  const replay = await replayEvents(events, { ...replayOptions, ...frameReplayOptions(frames, { saveDir }) });
  return { ...compareFrames(frames, replay, { thresholds }), replay };
}

const pct = (share) => `${(share * 100).toFixed(1)}%`;

export function formatFidelity(report) {
  const t = report.thresholds;
  const lines = [`fidelity ${report.ok ? 'ok' : 'FAILED'}: ${report.frames.length} frame(s) against the replay, SSIM outside masks`
    + ` (thresholds: mean >= ${t.ssim}, worst ${TILE_POINTS} pt tile >= ${t.local}, masked <= ${pct(t.maxMaskShare)})`];
  const table = [['frame', 'event', 'mean SSIM', 'worst tile', 'at (pt)', 'PSNR dB', 'masked', 'ms', '']];
  for (const r of report.frames) {
    const measured = r.ssim !== undefined;
    table.push([r.name, r.index === null ? '-' : `#${r.index}`,
      measured ? r.ssim.toFixed(4) : '-', measured ? r.local.toFixed(4) : '-',
      measured && r.worstTile ? `${r.worstTile.x},${r.worstTile.y}` : '-',
      measured ? (Number.isFinite(r.psnr) ? r.psnr.toFixed(1) : 'inf') : '-',
      measured ? `${pct(r.maskShare)} (${r.masks.length})` : '-', measured ? String(r.ms) : '-',
      r.failures.length ? 'FAIL' : 'ok']);
  }
  const widths = table[0].map((_, c) => Math.max(...table.map((row) => row[c].length)));
  for (const row of table) lines.push(`  ${row.map((cell, c) => cell.padEnd(widths[c])).join('  ')}`.trimEnd());
  for (const r of report.frames) for (const f of r.failures) lines.push(`  ${r.name}: ${f}`);
  return lines.join('\n');
}

// ---- command line ----

const USAGE = 'usage: node tests/browser/fidelity.mjs --frames FILE [--threshold X]'
  + ' [--local-threshold X] [--save-replays DIR] [--report FILE] [options of replay.mjs] INPUT...';

export async function main(argv) {
  try {
    const own = { thresholds: {} };
    const rest = [];
    for (let i = 0; i < argv.length; i += 1) {
      const flag = argv[i];
      const value = () => {
        if (i + 1 >= argv.length) throw new RecordingError(`${flag} needs a value\n${USAGE}`);
        i += 1;
        return argv[i];
      };
      const share = (text) => {
        const x = Number(text);
        if (!(x >= 0 && x <= 1)) throw new RecordingError(`${flag} takes a number from 0 to 1, not "${text}"`);
        return x;
      };
      if (flag === '--frames') own.frames = value();
      else if (flag === '--threshold') own.thresholds.ssim = share(value());
      else if (flag === '--local-threshold') own.thresholds.local = share(value());
      else if (flag === '--save-replays') own.saveDir = value();
      else if (flag === '--report') own.report = value();
      else if (flag === '-h' || flag === '--help') {
        console.log(USAGE);
        return 0;
      } else rest.push(flag);
    }
    if (!own.frames) throw new RecordingError(`no frames given\n${USAGE}`);
    const options = parseReplayArgs(rest);
    const events = await loadRecording(options.inputs);
    const replayOptions = await replayOptionsOf(options);
    const frames = await loadFrames(own.frames);
    const report = await measureFidelity(events, frames, { ...replayOptions, thresholds: own.thresholds, saveDir: own.saveDir });
    const { replay, ...fidelity } = report;
    if (options.json) {
      console.log(JSON.stringify({ replay: { ...replay, screenshots: undefined }, fidelity }, null, 2));
    } else {
      console.log(formatResult(replay));
    }
    const text = formatFidelity(report);
    if (!options.json) console.log(text);
    if (own.report) await writeFile(own.report, `${text}\n`);
    return replay.ok && report.ok ? 0 : 1;
  } catch (error) {
    if (!(error instanceof RecordingError)) throw error;
    console.error(`fidelity: ${error.message}`);
    return 2;
  }
}

if (process.argv[1] && path.resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  process.exitCode = await main(process.argv.slice(2));
}

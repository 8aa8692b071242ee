#!/usr/bin/env node
// Replays a recording in rrweb's own Replayer, in headless Chromium, and fails on anything that would make the
// replay differ from what was recorded. Usable as a command and as a module (the browser tests import it).
//
//   node tests/browser/replay.mjs [--checkpoints FILE] [--screenshot PNG] [--dump-iframe-text ID]
//                                 [--at-index N | --at-time MS] [--max-problems N] [--json] INPUT...
//
// An INPUT is a JSON array of rrweb events, an upload body ({"events": [...]}), a block file (one packed
// event per line) or a folder of block files.
import { readFile, readdir, stat } from 'node:fs/promises';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import zlib from 'node:zlib';

const here = path.dirname(fileURLToPath(import.meta.url));
const repoRoot = path.resolve(here, '../..');
const requireFromRepo = createRequire(path.join(repoRoot, 'package.json'));

export const CHROMIUM = process.env.VDL_CHROMIUM || '/usr/bin/chromium';

const EVENT_TYPES = ['DomContentLoaded', 'Load', 'FullSnapshot', 'IncrementalSnapshot', 'Meta', 'Custom', 'Plugin'];
const SOURCES = ['mutation', 'mouse move', 'interaction', 'scroll', 'viewport resize', 'input', 'touch move',
  'media', 'style sheet rule', 'canvas', 'font', 'log', 'drag', 'style declaration', 'selection',
  'adopted style sheet', 'custom element'];
const INTERACTIONS = ['mouseUp', 'mouseDown', 'click', 'contextMenu', 'dblClick', 'focus', 'blur', 'touchStart',
  'touchMove', 'touchEnd', 'touchCancel'];

export class RecordingError extends Error {}

// The plain colour a blocked node shows in the replay instead of its content (the converter's placeholder,
// #D6D7DC), as the browser reads it back from an element's style.
export const PLACEHOLDER_RGB = [0xd6, 0xd7, 0xdc];
const PLACEHOLDER_CSS = `rgb(${PLACEHOLDER_RGB.join(', ')})`;

// ---- reading recordings ----

// A packed event is a JSON string literal whose characters, taken as Latin-1 bytes, are a zlib stream of the
// event's JSON with "v":"v1" added. `text` is either that literal or the string it stands for; an element of
// an upload body's "events" array, once the body is parsed, is still a literal and goes through here as is.
export function decodePackedEvent(text, where = 'packed event') {
  let chars = text;
  try {
    while (chars.startsWith('"')) chars = JSON.parse(chars);
  } catch (error) {
    throw new RecordingError(`${where}: not a JSON string literal (${error.message})`);
  }
  for (let i = 0; i < chars.length; i += 1) {
    if (chars.charCodeAt(i) > 0xff) {
      throw new RecordingError(`${where}: character U+${chars.charCodeAt(i).toString(16)} at ${i} is not Latin-1`);
    }
  }
  let json;
  try {
    json = zlib.inflateSync(Buffer.from(chars, 'latin1')).toString('utf8');
  } catch (error) {
    throw new RecordingError(`${where}: not a zlib stream (${error.message})`);
  }
  let event;
  try {
    event = JSON.parse(json);
  } catch (error) {
    throw new RecordingError(`${where}: inflated text is not JSON (${error.message})`);
  }
  if (event === null || typeof event !== 'object' || event.v !== 'v1') {
    throw new RecordingError(`${where}: the event has no "v":"v1"`);
  }
  delete event.v;
  return event;
}

function sortedKeys(value) {
  if (Array.isArray(value)) return value.map(sortedKeys);
  if (value === null || typeof value !== 'object') return value;
  return Object.fromEntries(Object.keys(value).sort().map((key) => [key, sortedKeys(value[key])]));
}

// The inverse of decodePackedEvent, the way the library stores events: one line of a block file.
export function packEvent(event) {
  const json = JSON.stringify(sortedKeys({ ...event, v: 'v1' }));
  return JSON.stringify(zlib.deflateSync(Buffer.from(json, 'utf8')).toString('latin1'));
}

function decodeBlock(text, file) {
  const events = [];
  text.split('\n').forEach((line, i) => {
    if (line.trim() === '') return;
    events.push(decodePackedEvent(line.replace(/\r$/, ''), `${file}:${i + 1}`));
  });
  return events;
}

function decodeJson(text, file) {
  let value;
  try {
    value = JSON.parse(text);
  } catch (error) {
    throw new RecordingError(`${file}: not JSON (${error.message})`);
  }
  const list = Array.isArray(value) ? value : value && Array.isArray(value.events) ? value.events : null;
  if (!list) throw new RecordingError(`${file}: neither an array of events nor a body with an "events" array`);
  return list.map((item, i) => (typeof item === 'string' ? decodePackedEvent(item, `${file} events[${i}]`) : item));
}

function decodeFile(text, file) {
  return text.trimStart().startsWith('"') ? decodeBlock(text, file) : decodeJson(text, file);
}

// Block files are named <deviceId>_<sessionId>_<sequenceNumber>.replay; they are read in sequence order.
function blockOrder(a, b) {
  const key = (name) => {
    const parts = path.basename(name, path.extname(name)).split('_');
    const seq = Number(parts.at(-1));
    const session = Number(parts.at(-2));
    return parts.length >= 3 && Number.isFinite(seq) && Number.isFinite(session) ? [parts.slice(0, -2).join('_'), session, seq] : null;
  };
  const ka = key(a), kb = key(b);
  if (ka && kb) {
    if (ka[0] !== kb[0]) return ka[0] < kb[0] ? -1 : 1;
    if (ka[1] !== kb[1]) return ka[1] - kb[1];
    return ka[2] - kb[2];
  }
  return a < b ? -1 : a > b ? 1 : 0;
}

export async function loadRecording(inputs) {
  const events = [];
  for (const input of [inputs].flat()) {
    let info;
    try {
      info = await stat(input);
    } catch {
      throw new RecordingError(`${input}: no such file or folder`);
    }
    let files = [input];
    if (info.isDirectory()) {
      const names = (await readdir(input, { withFileTypes: true }))
        .filter((entry) => entry.isFile() && !entry.name.startsWith('.'))
        .map((entry) => entry.name)
        .sort(blockOrder);
      if (!names.length) throw new RecordingError(`${input}: the folder holds no block files`);
      files = names.map((name) => path.join(input, name));
    }
    for (const file of files) events.push(...decodeFile(await readFile(file, 'utf8'), file));
  }
  return events;
}

// ---- replaying ----

export async function launchBrowser() {
  const { chromium } = await import('playwright-core');
  // This machine's network is closed: the browser's own background traffic would only be refused.
  return chromium.launch({
    executablePath: CHROMIUM,
    headless: true,
    args: ['--disable-gpu', '--disable-quic', '--disable-background-networking', '--disable-component-update',
      '--disable-sync', '--no-first-run'],
  });
}

export function describeEvent(event) {
  if (!event || typeof event !== 'object') return 'not an event';
  const type = EVENT_TYPES[event.type] ?? `type ${event.type}`;
  if (event.type !== 3 || !event.data) return type;
  const d = event.data;
  const source = SOURCES[d.source] ?? `source ${d.source}`;
  if (d.source === 2) return `${source} ${INTERACTIONS[d.type] ?? d.type}`;
  if (d.source === 0) {
    const parts = ['adds', 'removes', 'attributes', 'texts'].filter((k) => d[k]?.length).map((k) => `${d[k].length} ${k}`);
    return `${source} (${parts.join(', ') || 'empty'})`;
  }
  return source;
}

function structuralProblems(entries) {
  const problems = [];
  entries.forEach(({ index, event }, position) => {
    if (!event || typeof event !== 'object' || !Number.isInteger(event.type) || typeof event.timestamp !== 'number') {
      problems.push({ index, position, kind: 'malformed', message: 'an event needs an integer "type" and a numeric "timestamp"' });
    } else if ([2, 3, 4].includes(event.type) && (event.data === null || typeof event.data !== 'object')) {
      problems.push({ index, position, kind: 'malformed', message: 'the event has no "data" object' });
    }
  });
  if (problems.length) return problems;
  const firstFull = entries.findIndex((e) => e.event.type === 2);
  if (firstFull === -1) {
    problems.push({ index: null, position: null, kind: 'structure', message: 'the recording has no full snapshot' });
  } else if (!entries.slice(0, firstFull).some((e) => e.event.type === 4)) {
    problems.push({ index: entries[firstFull].index, position: firstFull, kind: 'structure',
      message: 'no Meta event comes before the first full snapshot, so the Replayer never gives its frame a size' });
  }
  return problems;
}

function playbackPosition(entries, at) {
  if (!at) return entries.length - 1;
  if (at.index !== undefined) {
    const position = entries.findIndex((e) => e.index === at.index);
    if (position === -1) throw new RecordingError(`no event #${at.index} to take the screenshot at`);
    return position;
  }
  const time = at.relative ? entries[0].event.timestamp + at.time : at.time;
  let position = -1;
  entries.forEach((e, i) => { if (e.event.timestamp <= time) position = i; });
  if (position === -1) throw new RecordingError(`no event at or before time ${time}`);
  return position;
}

function normalizeCheckpoints(checkpoints, count) {
  return (checkpoints || []).map((c, i) => {
    const node = c.node ?? c.event?.data?.node ?? c.data?.node;
    if (!Number.isInteger(c.index) || c.index < 0 || c.index >= count) {
      throw new RecordingError(`checkpoint ${i}: index ${c.index} is not an event of this recording`);
    }
    if (!node || typeof node !== 'object') throw new RecordingError(`checkpoint ${i}: no full snapshot node`);
    return { index: c.index, node };
  });
}

// Replays `events` (in recording order) and returns what went wrong. Options: browser (a launched one to
// share; otherwise one is launched and closed here), checkpoints ([{index, node}]), screenshot ({path, at:
// {index} | {time, relative}}), screenshots (several in one replay: [{name?, path?, at, masks?}], into
// result.screenshots in playback order as {name, path, index, png (the image's bytes), masks}; with
// `masks: true`, the frame's rectangles in CSS pixels that show a placeholder or a web page: [{kind, id, x, y,
// width, height}]), deviceScaleFactor (image pixels per CSS pixel, default 1), iframes ([{id, at}]: what the
// iframe element `id` shows at that point, into result.iframes as {id, index, documentId, doctype, compatMode,
// scrollY, text (body.innerText), inputs: [{id, value}], styleRules}), maxProblems. Without `at`, a
// screenshot or an iframe is taken after the last event.
export async function replayEvents(events, options = {}) {
  const started = Date.now();
  const entries = events.map((event, index) => ({ index, event }));
  const structure = structuralProblems(entries);
  // The Replayer plays events in timestamp order (a stable sort), whatever order they were written in.
  if (!structure.some((p) => p.kind === 'malformed')) entries.sort((a, b) => a.event.timestamp - b.event.timestamp);
  const reordered = entries.filter((e, position) => e.index !== position).length;
  const result = {
    ok: false, events: events.length, reordered, problems: [], checkpoints: 0, screenshot: null,
    blockedRequests: [], compatMode: null, ms: 0,
  };
  result.problems.push(...structure);
  if (structure.length) return finish(result, events, started);

  const checkpoints = normalizeCheckpoints(options.checkpoints, events.length);
  result.checkpoints = checkpoints.length;
  // Where playback pauses to look at the replay: for the screenshot and for each iframe to read.
  const stops = [];
  const shots = [...options.screenshot ? [options.screenshot] : [], ...options.screenshots ?? []];
  for (const shot of shots) stops.push({ position: playbackPosition(entries, shot.at), screenshot: shot });
  if (options.screenshots) result.screenshots = [];
  for (const frame of options.iframes ?? []) {
    if (!Number.isInteger(frame.id)) throw new RecordingError(`an iframe to read needs an integer node id, not ${frame.id}`);
    stops.push({ position: playbackPosition(entries, frame.at), iframe: frame.id });
  }
  // Stable: screenshots at one point are taken in the order they were asked for.
  stops.sort((a, b) => a.position - b.position);
  if (options.iframes) result.iframes = [];
  const meta = entries.find((e) => e.event.type === 4).event.data;
  const viewport = {
    width: Math.min(4096, Math.max(1, Math.ceil(Number(meta.width) || 800))),
    height: Math.min(4096, Math.max(1, Math.ceil(Number(meta.height) || 600))),
  };

  const browser = options.browser ?? await launchBrowser();
  const context = await browser.newContext({ viewport, deviceScaleFactor: options.deviceScaleFactor ?? 1 });
  try {
    // Nothing may come from the network: the replay must stand on the recording alone.
    await context.route('**/*', (route) => {
      result.blockedRequests.push(route.request().url());
      return route.abort('blockedbyclient');
    });
    const page = await context.newPage();
    const browserMessages = [];
    let appliedThrough = -1;
    page.on('console', (message) => {
      // The driver takes over console.warn and console.error of the page's scripts, so what arrives here
      // comes from the browser itself. Refused network requests are reported on their own.
      if (!['error', 'warning'].includes(message.type())) return;
      if (/ERR_BLOCKED_BY_CLIENT/.test(message.text())) return;
      browserMessages.push({ index: null, position: appliedThrough, kind: `browser ${message.type()}`, message: message.text() });
    });
    await page.setContent('<!DOCTYPE html><html><head><style>html, body { margin: 0; background: #fff; }'
      + ' #replay-root iframe { border: 0; display: block; }</style></head><body><div id="replay-root"></div></body></html>');
    const rrwebDist = path.dirname(requireFromRepo.resolve('rrweb'));
    await page.addStyleTag({ path: path.join(rrwebDist, 'style.css') });
    // The Replayer's pointer is drawn over the frame; the device's screen has none, so screenshots leave it out.
    await page.addStyleTag({ content: '.replayer-mouse, .replayer-mouse-tail { display: none !important; }' });
    await page.addScriptTag({ path: path.join(rrwebDist, 'rrweb.umd.cjs') });
    await page.addScriptTag({ path: path.join(here, 'page-driver.js') });
    await page.evaluate((init) => window.vdlReplay.start(init), {
      events: entries, checkpoints, maxProblems: options.maxProblems ?? 20,
    });

    const applyThrough = async (position) => {
      await page.evaluate((p) => window.vdlReplay.applyThrough(p), position);
      appliedThrough = position;
    };
    for (const stop of stops) {
      await applyThrough(stop.position);
      const index = entries[stop.position].index;
      if (stop.screenshot) {
        await page.evaluate(() => window.vdlReplay.settle());
        const png = await page.locator('#replay-root iframe').screenshot({ path: stop.screenshot.path });
        if (stop.screenshot === options.screenshot) {
          result.screenshot = { path: stop.screenshot.path, index };
        } else {
          const masks = stop.screenshot.masks ? await page.evaluate((c) => window.vdlReplay.maskRects(c), PLACEHOLDER_CSS) : undefined;
          result.screenshots.push({ name: stop.screenshot.name, path: stop.screenshot.path, index, png, masks });
        }
      } else {
        const frame = { ...await page.evaluate((id) => window.vdlReplay.iframeContent(id), stop.iframe), index };
        if (frame.error) result.problems.push({ index, kind: 'iframe', message: frame.error });
        result.iframes.push(frame);
      }
    }
    await applyThrough(entries.length - 1);
    const end = await page.evaluate(() => window.vdlReplay.finish());
    result.compatMode = end.compatMode;
    result.problems.push(...end.problems.map((p) => withEvent(p, events)), ...browserMessages);
  } finally {
    await context.close();
    if (!options.browser) await browser.close();
  }
  return finish(result, events, started);
}

function withEvent(problem, events) {
  if (problem.index === null || problem.index === undefined) return problem;
  const event = events[problem.index];
  const t0 = events.reduce((min, e) => Math.min(min, e?.timestamp ?? Infinity), Infinity);
  return { ...problem, event: `${describeEvent(event)}, t=+${(event?.timestamp ?? t0) - t0} ms` };
}

function finish(result, events, started) {
  result.problems = result.problems.map((p) => (p.event ? p : withEvent(p, events)));
  result.ok = result.problems.length === 0;
  result.ms = Date.now() - started;
  const counts = {};
  for (const e of events) {
    const name = describeEvent(e).replace(/ \(.*\)$/, '');
    counts[name] = (counts[name] ?? 0) + 1;
  }
  result.counts = counts;
  return result;
}

export function formatResult(result) {
  const counts = Object.entries(result.counts).map(([name, n]) => `${n} ${name}`).join(', ');
  const lines = [];
  if (result.ok) {
    lines.push(`replay ok: ${result.events} events (${counts}) in ${result.ms} ms`);
  } else {
    lines.push(`replay FAILED: ${result.problems.length} problem(s) in ${result.events} events (${counts})`);
    for (const p of result.problems) {
      const where = p.index !== null && p.index !== undefined ? `event #${p.index} (${p.event})` : 'recording';
      lines.push(`  ${where}: [${p.kind}] ${p.message}`);
    }
  }
  if (result.reordered) lines.push(`  note: ${result.reordered} events play in a different order than written (timestamps)`);
  if (result.checkpoints) lines.push(`  ${result.checkpoints} checkpoint(s) compared`);
  if (result.screenshot) lines.push(`  screenshot after event #${result.screenshot.index}: ${result.screenshot.path}`);
  for (const frame of (result.iframes ?? []).filter((f) => !f.error)) {
    lines.push(`  iframe ${frame.id} after event #${frame.index} shows: ${JSON.stringify(frame.text)}; fields: `
      + `${JSON.stringify(frame.inputs.map((input) => input.value))}; ${frame.styleRules} style rule(s)`);
  }
  if (result.blockedRequests.length) {
    lines.push(`  note: ${result.blockedRequests.length} network request(s) refused, first ${result.blockedRequests[0]}`);
  }
  return lines.join('\n');
}

// ---- command line ----

const USAGE = 'usage: node tests/browser/replay.mjs [--checkpoints FILE] [--screenshot PNG] [--dump-iframe-text ID]'
  + ' [--at-index N | --at-time MS|+MS] [--max-problems N] [--json] INPUT...';

export function parseArgs(argv) {
  const options = { inputs: [], json: false };
  const value = (i, flag) => {
    if (i + 1 >= argv.length) throw new RecordingError(`${flag} needs a value\n${USAGE}`);
    return argv[i + 1];
  };
  const integer = (text, flag) => {
    if (!/^\+?\d+$/.test(text)) throw new RecordingError(`${flag} takes a whole number, not "${text}"`);
    return Number(text);
  };
  for (let i = 0; i < argv.length; i += 1) {
    const arg = argv[i];
    switch (arg) {
      case '--checkpoints': options.checkpoints = value(i, arg); i += 1; break;
      case '--screenshot': options.screenshot = value(i, arg); i += 1; break;
      case '--dump-iframe-text': options.iframe = integer(value(i, arg), arg); i += 1; break;
      case '--at-index': options.at = { index: integer(value(i, arg), arg) }; i += 1; break;
      case '--at-time': {
        const text = value(i, arg);
        options.at = { time: integer(text, arg), relative: text.startsWith('+') };
        i += 1;
        break;
      }
      case '--max-problems': options.maxProblems = integer(value(i, arg), arg); i += 1; break;
      case '--json': options.json = true; break;
      case '-h': case '--help': options.help = true; break;
      default:
        if (arg.startsWith('--')) throw new RecordingError(`unknown option ${arg}\n${USAGE}`);
        options.inputs.push(arg);
    }
  }
  if (!options.help && !options.inputs.length) throw new RecordingError(`no recording given\n${USAGE}`);
  if (options.at && !options.screenshot && options.iframe === undefined) {
    throw new RecordingError('--at-index and --at-time choose when to take --screenshot or --dump-iframe-text');
  }
  return options;
}

// The options of replayEvents that a command line (parseArgs) asks for, its checkpoints file read.
export async function replayOptionsOf(options) {
  let checkpoints = [];
  if (options.checkpoints) {
    try {
      checkpoints = JSON.parse(await readFile(options.checkpoints, 'utf8'));
    } catch (error) {
      throw new RecordingError(`${options.checkpoints}: ${error.message}`);
    }
  }
  return {
    checkpoints,
    maxProblems: options.maxProblems,
    screenshot: options.screenshot ? { path: options.screenshot, at: options.at } : undefined,
    iframes: options.iframe !== undefined ? [{ id: options.iframe, at: options.at }] : undefined,
  };
}

export async function main(argv) {
  let options;
  try {
    options = parseArgs(argv);
    if (options.help) {
      console.log(USAGE);
      return 0;
    }
    const events = await loadRecording(options.inputs);
    const result = await replayEvents(events, await replayOptionsOf(options));
    console.log(options.json ? JSON.stringify(result, null, 2) : formatResult(result));
    return result.ok ? 0 : 1;
  } catch (error) {
    if (!(error instanceof RecordingError)) throw error;
    console.error(`replay: ${error.message}`);
    return 2;
  }
}

if (process.argv[1] && path.resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  process.exitCode = await main(process.argv.slice(2));
}

import assert from 'node:assert/strict';
import { mkdtemp, readFile, rm } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { launchBrowser, replayEvents } from './replay.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const fixture = (name) => path.join(here, 'fixtures', name);
const readJson = async (name) => JSON.parse(await readFile(fixture(name), 'utf8'));

let scratch;
before(async () => { scratch = await mkdtemp(path.join(tmpdir(), 'vdl-replay-')); });
after(async () => { await rm(scratch, { recursive: true, force: true }); });

describe('replaying in Chromium', () => {
  let browser;
  before(async () => { browser = await launchBrowser(); });
  after(async () => { await browser?.close(); });

  const problemsOf = (result) => result.problems.map((p) => `#${p.index} [${p.kind}] ${p.message}`).join('\n');

  test('a good recording replays cleanly, matches its checkpoints and is photographed at the chosen event', async () => {
    const png = path.join(scratch, 'replay.png');
    const result = await replayEvents(await readJson('good.json'), {
      browser,
      checkpoints: await readJson('good.checkpoints.json'),
      screenshot: { path: png, at: { index: 5 } },
    });
    assert.equal(problemsOf(result), '');
    assert.equal(result.checkpoints, 2);
    assert.deepEqual(result.screenshot, { path: png, index: 5 });
    const header = await readFile(png);
    assert.equal(header.subarray(1, 4).toString(), 'PNG');
    // The frame takes the size the Meta event gives the screen.
    assert.deepEqual([header.readUInt32BE(16), header.readUInt32BE(20)], [390, 844]);
  });

  test('each broken recording fails at the event that breaks it', async () => {
    const cases = [
      ['bad-missing-parent.json', 3, 'missing node', /adds\[0\] puts node 104 under parent 999/],
      ['bad-unknown-attribute-id.json', 3, 'missing node', /attributes\[0\] names node 777/],
      ['bad-touch-missing-node.json', 3, 'missing node', /interaction \(type 7\) names node 555/],
      ['bad-replayer-throws.json', 3, 'page error', /TypeError/],
      ['bad-remove-wrong-parent.json', 3, 'replayer warning', /not a child of this node/],
    ];
    for (const [name, index, kind, message] of cases) {
      const result = await replayEvents(await readJson(name), { browser });
      assert.equal(result.ok, false, name);
      assert.ok(result.problems.some((p) => p.index === index && p.kind === kind && message.test(p.message)),
        `${name}:\n${problemsOf(result)}`);
    }
  });

  test('faults that only show in the order of events or of a mutation are caught', async () => {
    const good = await readJson('good.json');
    const t0 = good[0].timestamp;
    const mutation = (fields) => ({ type: 3, timestamp: t0 + 200,
      data: { source: 0, texts: [], attributes: [], removes: [], adds: [], ...fields } });
    const withWebView = (fullSnapshot) => {
      const copy = structuredClone(fullSnapshot);
      copy.data.node.childNodes[0].childNodes[1].childNodes.at(-1).childNodes.push(
        { id: 110, type: 2, tagName: 'iframe', attributes: { style: 'left: 0px; top: 400px; width: 390px; height: 300px' }, childNodes: [] });
      return copy;
    };
    const page = await readJson('webview.json');
    const attach = (parentId, renumber = (id) => id, dt = 0) => {
      const event = structuredClone(page[2]);
      event.timestamp += dt;
      event.data.adds[0].parentId = parentId;
      event.data.adds[0].node = JSON.parse(JSON.stringify(event.data.adds[0].node).replace(/"id":(\d+)/g, (_, id) => `"id":${renumber(Number(id))}`));
      return event;
    };
    const cases = [
      ['page document under an element, not an iframe', [page[0], page[1], attach(100)], 2, /puts document node 300 under <div> 100/],
      ['page document reusing an id of the replay', [page[0], page[1], attach(110, (id) => (id === 305 ? 101 : id))], 2,
        /document node 300 holds node 101, an id the replay already uses/],
      // A page recording restarted in the same web view: its first document is gone.
      ['node of a page document that the next one replaced', [...page.slice(0, 3), attach(110, (id) => id + 100, 50), page[4]], 4,
        /input names node 309, whose document is no longer shown/],
      // A touch whose own time is earlier than the capture that added its target plays before that capture.
      ['touch before its target', [...good.slice(0, 2), mutation({ adds: good[2].data.adds }),
        { type: 3, timestamp: t0 + 150, data: { source: 2, type: 7, id: 103, x: 1, y: 1, pointerType: 2 } }],
        3, /names node 103/],
      // Removing a node forgets its descendants, so they cannot be removed after it.
      ['descendant removed after its ancestor', [...good.slice(0, 2), mutation({ removes: [{ parentId: 11, id: 15 }, { parentId: 100, id: 101 }] })],
        2, /removes\[1\] names node 101, which was already removed/],
      ['children inside an added node', [...good.slice(0, 2), mutation({ adds: [{ parentId: 100, node: { id: 300, type: 2, tagName: 'div', attributes: {},
        childNodes: [{ id: 301, type: 2, tagName: 'div', attributes: {}, childNodes: [] }] } }] })],
        2, /carries 1 child node/],
      ['element added under an iframe', [good[0], withWebView(good[1]), mutation({ adds: [{ parentId: 110, node: { id: 112, type: 2, tagName: 'div', attributes: {}, childNodes: [] } }] })],
        2, /puts node 112 under iframe 110/],
      ['attribute value that is not text', [...good.slice(0, 2), mutation({ attributes: [{ id: 101, attributes: { 'data-n': 3 } }] })],
        2, /sets "data-n" of node 101 to 3/],
      ['duplicate id in a full snapshot', [good[0], { ...good[1], data: { ...good[1].data, node: { ...good[1].data.node,
        childNodes: [...good[1].data.node.childNodes, { id: 11, type: 3, textContent: 'x' }] } } }],
        1, /node id 11 is used twice/],
      ['full snapshot without a Meta event before it', good.slice(1), 0, /no Meta event/],
    ];
    for (const [name, events, index, message] of cases) {
      const result = await replayEvents(events, { browser });
      assert.ok(result.problems.some((p) => p.index === index && message.test(p.message)), `${name}:\n${problemsOf(result)}`);
    }
  });

  test('a web page attached under its iframe replays whole; the page shows its text, typed value and style', async () => {
    const result = await replayEvents(await readJson('webview.json'), { browser, iframes: [{ id: 110, at: { index: 2 } }, { id: 110 }] });
    assert.equal(problemsOf(result), '');
    const [attached, end] = result.iframes;
    assert.deepEqual([attached.index, attached.documentId, attached.text], [2, 300, 'Hello page\none']);
    assert.deepEqual([end.index, end.text, end.inputs, end.styleRules], [5, 'Hello page\nuno\ntwo', [{ id: 309, value: 'typed' }], 1]);
  });

  test('a replay that differs from its checkpoint fails with the differing nodes', async () => {
    const checkpoints = await readJson('good.checkpoints.json');
    const body = checkpoints[1].node.childNodes[0].childNodes[1];
    const window = body.childNodes.at(-1);
    window.childNodes[0].attributes.style = 'left: 0px; top: 0px; width: 390px; height: 120px';
    window.childNodes.splice(1, 1); // the banner added by event 7
    const result = await replayEvents(await readJson('good.json'), { browser, checkpoints });
    const messages = result.problems.filter((p) => p.index === 7 && p.kind === 'checkpoint').map((p) => p.message);
    assert.equal(messages.length, 2, problemsOf(result));
    assert.match(messages[0], /node 101: style ".*height: 96px.*" in the replay, ".*height: 120px.*" expected/);
    assert.match(messages[1], /the replay has node 105 \(<div> under node 100\)/);
  });
});

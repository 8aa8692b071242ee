// Runs inside the replay page, next to rrweb's bundle. It feeds the recording to rrweb's Replayer one event
// at a time and writes down everything that would make the replay differ from the recorded screen: node ids
// the Replayer cannot find (it drops such changes with no more than a debug line), its warnings, console
// errors and page errors (an exception in an event ends a real playback for good).
(() => {
  'use strict';

  const problems = [];
  let current = null; // the event being applied: { index, position }
  let lastApplied = null; // errors of a failed event surface a task later, after `current` moved on
  let replayer = null;
  let events = []; // [{ index, event }] in playback order
  let cursor = 0; // next position to apply
  let checkpoints = new Map(); // input index -> expected document node
  let maxProblems = 20;
  let lastCast = null;

  // A pending web page document: rrweb keeps a document added under an iframe that does not exist yet and
  // attaches it once that iframe is built. It is a fault only if the iframe never comes.
  const pendingDocuments = new Map(); // document id -> { index, parentId }

  function describe(value) {
    if (value instanceof Error) return (value.stack || value.message).split('\n').slice(0, 3).join('\n');
    if (typeof value === 'string') return value;
    if (value && typeof value === 'object' && typeof value.nodeName === 'string') {
      const id = replayer ? replayer.getMirror().getId(value) : -1;
      return `<${value.nodeName.toLowerCase()} id=${id}>`;
    }
    try {
      const text = JSON.stringify(value);
      return text.length > 400 ? text.slice(0, 400) + '…' : text;
    } catch {
      return String(value);
    }
  }

  function note(kind, message) {
    const at = current || lastApplied;
    problems.push({
      index: at ? at.index : null,
      position: at ? at.position : null,
      kind,
      message,
    });
  }

  for (const level of ['warn', 'error']) {
    const original = console[level].bind(console);
    console[level] = (...args) => {
      note(`console.${level}`, args.map(describe).join(' '));
      original(...args);
    };
  }
  window.addEventListener('error', (e) => note('page error', describe(e.error || e.message)));
  window.addEventListener('unhandledrejection', (e) => note('page error', describe(e.reason)));

  const logger = {
    warn: (...args) => note('replayer warning', args.map(describe).join(' ')),
    // rrweb's debug lines are only ever about nodes it could not find.
    log: (...args) => note('replayer debug', args.map(describe).join(' ')),
  };

  function mirror() {
    return replayer.getMirror();
  }

  function subtreeIds(node, into) {
    const id = mirror().getId(node);
    if (id !== -1) into.add(id);
    for (const child of node.childNodes || []) subtreeIds(child, into);
    return into;
  }

  function serializedSubtreeIds(node, into) {
    into.push(node.id);
    for (const child of node.childNodes || []) serializedSubtreeIds(child, into);
    return into;
  }

  function fullSnapshotProblems(node) {
    const out = [];
    const seen = new Set();
    const visit = (n, path) => {
      if (!Number.isInteger(n.id)) out.push(`node at ${path} has no integer id (${describe(n.id)})`);
      else if (seen.has(n.id)) out.push(`node id ${n.id} is used twice (again at ${path})`);
      seen.add(n.id);
      (n.childNodes || []).forEach((child, i) => visit(child, `${path}.${i}`));
    };
    visit(node, 'root');
    if (node.type !== 0) out.push(`the snapshot's root is node type ${node.type}, not a document (0)`);
    return out;
  }

  // A node the mirror still knows can be out of every shown document: one of a web page document that a
  // later page document replaced in its iframe, or of the page inside an iframe that was removed (removing
  // an iframe forgets only the iframe's own id). The Replayer applies changes to such nodes without a word.
  function shown(node) {
    if (!node) return false;
    const doc = node.nodeType === Node.DOCUMENT_NODE ? node : node.ownerDocument;
    return Boolean(doc && doc.defaultView) && (node === doc || node.isConnected);
  }

  function absence(id) {
    const m = mirror();
    if (!m.has(id)) return 'which is not in the replay';
    if (!shown(m.getNode(id))) return 'whose document is no longer shown (replaced or removed)';
    return null;
  }

  // A web page's document goes under its web view's iframe with its whole tree, which the Replayer builds
  // into the iframe's document in one go.
  function pageDocumentProblems(i, node, parentId, exists) {
    const out = [];
    const parent = exists(parentId) ? mirror().getNode(parentId) : null;
    if (parent && parent.nodeName !== 'IFRAME') {
      out.push(`adds[${i}] puts document node ${node.id} under <${parent.nodeName.toLowerCase()}> ${parentId}; the Replayer would reopen the replay's own document with it`);
    }
    const seen = new Set();
    for (const id of serializedSubtreeIds(node, [])) {
      if (seen.has(id)) out.push(`adds[${i}]: node id ${id} is used twice in document node ${node.id}`);
      else if (mirror().has(id)) out.push(`adds[${i}]: document node ${node.id} holds node ${id}, an id the replay already uses`);
      seen.add(id);
    }
    return out;
  }

  function mutationProblems(d) {
    const out = [];
    const m = mirror();
    // rrweb applies all removes, then all adds, then texts, then attributes. Removing a node also forgets
    // every id beneath it, so a descendant listed after its ancestor is "not found".
    const gone = new Set();
    const exists = (id) => m.has(id) && !gone.has(id) && shown(m.getNode(id));
    (d.removes || []).forEach((r, i) => {
      if (!exists(r.id)) {
        out.push(gone.has(r.id)
          ? `removes[${i}] names node ${r.id}, which was already removed with an ancestor earlier in this mutation`
          : `removes[${i}] names node ${r.id}, ${absence(r.id)}`);
        return;
      }
      if (!exists(r.parentId)) out.push(`removes[${i}] names parent ${r.parentId} of node ${r.id}, which is not in the replay`);
      subtreeIds(m.getNode(r.id), gone);
    });

    const added = new Set();
    const addedAnywhere = new Set((d.adds || []).map((a) => a.node && a.node.id));
    (d.adds || []).forEach((a, i) => {
      const node = a.node || {};
      const isDocument = node.type === 0;
      if (!exists(a.parentId) && !added.has(a.parentId)) {
        if (isDocument) pendingDocuments.set(node.id, { index: current.index, parentId: a.parentId });
        else out.push(`adds[${i}] puts node ${node.id} under parent ${a.parentId}, ${absence(a.parentId) || 'which is not in the replay'}`);
      }
      // rrweb holds a node back until its next sibling exists and retries within the same mutation only.
      if (a.nextId !== undefined && a.nextId !== null && a.nextId !== -1 && !exists(a.nextId) && !addedAnywhere.has(a.nextId)) {
        out.push(`adds[${i}] puts node ${node.id} before node ${a.nextId}, which is not in the replay`);
      }
      if (!Number.isInteger(node.id)) out.push(`adds[${i}] has a node without an integer id`);
      if (isDocument) {
        out.push(...pageDocumentProblems(i, node, a.parentId, exists));
        for (const id of serializedSubtreeIds(node, [])) added.add(id);
        return;
      }
      const parent = exists(a.parentId) ? m.getNode(a.parentId) : null;
      if (parent && parent.nodeName === 'IFRAME') {
        out.push(`adds[${i}] puts node ${node.id} under iframe ${a.parentId}; the Replayer takes whatever is added under an iframe for the iframe's document and never shows it`);
      }
      if (node.childNodes && node.childNodes.length) {
        out.push(`adds[${i}] carries ${node.childNodes.length} child node(s) in node ${node.id}; the Replayer builds only the added node itself, so each child needs its own entry`);
      }
      if (exists(node.id)) {
        const meta = m.getMeta(m.getNode(node.id));
        if (meta && (meta.type !== node.type || (meta.tagName || '') !== (node.tagName || ''))) {
          out.push(`adds[${i}] reuses id ${node.id}, which already names a different node (${meta.tagName || 'type ' + meta.type})`);
        }
      }
      added.add(node.id);
    });

    const removedHere = new Set((d.removes || []).map((r) => r.id));
    const present = (id) => exists(id) || added.has(id);
    (d.texts || []).forEach((t, i) => {
      if (!present(t.id) && !removedHere.has(t.id)) out.push(`texts[${i}] names node ${t.id}, which is not in the replay`);
    });
    (d.attributes || []).forEach((a, i) => {
      if (!present(a.id) && !removedHere.has(a.id)) {
        out.push(`attributes[${i}] names node ${a.id}, which is not in the replay`);
        return;
      }
      for (const [name, value] of Object.entries(a.attributes || {})) {
        const kept = value === null || typeof value === 'string' || (name === 'style' && typeof value === 'object');
        if (!kept) out.push(`attributes[${i}] sets "${name}" of node ${a.id} to ${describe(value)}; the Replayer ignores anything but text or null there`);
      }
    });
    return out;
  }

  function incrementalProblems(d) {
    const out = [];
    // -1 is how the web recorder marks a target it never serialized; the Replayer skips those events.
    const need = (what, id) => {
      if (id === -1) return;
      const why = absence(id);
      if (why) out.push(`${what} names node ${id}, ${why}`);
    };
    switch (d.source) {
      case 0: return mutationProblems(d);
      case 1: case 6: case 12:
        (d.positions || []).forEach((p, i) => need(`positions[${i}]`, p.id));
        break;
      case 2: need(`interaction (type ${d.type})`, d.id); break;
      case 3: need('scroll', d.id); break;
      case 5: need('input', d.id); break;
      case 7: need('media interaction', d.id); break;
      case 8: case 13: if (d.id !== undefined) need('style sheet change', d.id); break;
      case 14: (d.ranges || []).forEach((r, i) => { need(`ranges[${i}].start`, r.start); need(`ranges[${i}].end`, r.end); }); break;
      case 15: need('adopted style sheets', d.id); break;
    }
    return out;
  }

  function eventProblems(event) {
    if (event.type === 2) return fullSnapshotProblems(event.data.node);
    if (event.type === 3) {
      if (mirror().getId(replayer.iframe.contentDocument) === -1) {
        return ['an incremental event before any full snapshot'];
      }
      return incrementalProblems(event.data);
    }
    return [];
  }

  // ---- checkpoints: the replayed document against a full snapshot of the same capture ----

  const scratch = document.createElement('div');
  // The declarations as the browser reads them, by property name: a change of single properties
  // appends the ones it adds, and the order of different properties means nothing.
  function normalStyle(text) {
    scratch.setAttribute('style', text || '');
    const style = scratch.style;
    const declarations = [];
    for (let i = 0; i < style.length; i += 1) {
      const name = style.item(i);
      const priority = style.getPropertyPriority(name);
      declarations.push(`${name}: ${style.getPropertyValue(name)}${priority ? ` !${priority}` : ''};`);
    }
    return declarations.sort().join(' ');
  }
  // Class names the Replayer itself puts on replayed elements (paused playback, the hovered path).
  const replayerClasses = new Set(['rrweb-paused', ':hover']);
  function normalClass(text, dropReplayerOwn = false) {
    return (text || '').split(/\s+/).filter((c) => c && !(dropReplayerOwn && replayerClasses.has(c))).join(' ');
  }

  function expectedElements(node) {
    const out = [];
    const visit = (n, parent) => {
      if (n.type === 2) {
        const attrs = n.attributes || {};
        out.push({
          id: n.id, parent, tag: String(n.tagName).toLowerCase(),
          style: normalStyle(typeof attrs.style === 'string' ? attrs.style : ''),
          class: normalClass(typeof attrs.class === 'string' ? attrs.class : ''),
        });
      }
      for (const child of n.childNodes || []) visit(child, n.id);
    };
    visit(node, null);
    return out;
  }

  function replayedElements() {
    const m = mirror();
    const doc = replayer.iframe.contentDocument;
    const out = [];
    const unmapped = [];
    const visit = (el, parent) => {
      const id = m.getId(el);
      if (id === -1) {
        // The Replayer's own style element, put in front of <head>, is not part of the recording.
        const own = el.tagName === 'STYLE' && el.parentNode === doc.documentElement;
        if (!own) unmapped.push(`<${el.localName}> under node ${parent}`);
        return;
      }
      out.push({
        id, parent, tag: el.localName.toLowerCase(),
        style: normalStyle(el.getAttribute('style')),
        class: normalClass(el.getAttribute('class'), true),
      });
      for (const child of el.children) visit(child, id);
    };
    if (doc.documentElement) visit(doc.documentElement, m.getId(doc));
    return { elements: out, unmapped };
  }

  function compareCheckpoint(expectedNode) {
    const expected = expectedElements(expectedNode);
    const { elements: actual, unmapped } = replayedElements();
    const diffs = unmapped.map((u) => `the replay has an element without an id: ${u}`);
    const byId = new Map(actual.map((e) => [e.id, e]));
    const expectedIds = new Set(expected.map((e) => e.id));
    for (const want of expected) {
      const got = byId.get(want.id);
      if (!got) { diffs.push(`node ${want.id} (<${want.tag}> under node ${want.parent}) is missing from the replay`); continue; }
      if (got.tag !== want.tag) diffs.push(`node ${want.id}: tag <${got.tag}> in the replay, <${want.tag}> expected`);
      if (got.parent !== want.parent) diffs.push(`node ${want.id}: parent ${got.parent} in the replay, ${want.parent} expected`);
      if (got.style !== want.style) diffs.push(`node ${want.id}: style "${got.style}" in the replay, "${want.style}" expected`);
      if (got.class !== want.class) diffs.push(`node ${want.id}: class "${got.class}" in the replay, "${want.class}" expected`);
    }
    for (const got of actual) {
      if (!expectedIds.has(got.id)) diffs.push(`the replay has node ${got.id} (<${got.tag}> under node ${got.parent}), which the snapshot has not`);
    }
    if (!diffs.length) {
      // Same nodes, same parents: only the order of siblings can still differ.
      const order = (list) => list.map((e) => e.id);
      const a = order(actual), b = order(expected);
      const at = a.findIndex((id, i) => id !== b[i]);
      if (at !== -1) diffs.push(`sibling order differs: node ${a[at]} in the replay where node ${b[at]} is expected`);
    }
    return diffs;
  }

  // ---- driving the Replayer ----

  function nextTask() {
    return new Promise((resolve) => {
      const channel = new MessageChannel();
      channel.port1.onmessage = () => resolve();
      channel.port2.postMessage(null);
    });
  }

  async function applyOne(entry, position) {
    current = { index: entry.index, position };
    const event = entry.event;
    for (const message of eventProblems(event)) note('missing node', message);
    // Live mode with a baseline far in the future makes the Replayer cast every added event at once,
    // synchronously, as it does for the events before a seek target.
    replayer.addEvent(event);
    await Promise.resolve();
    await nextTask();
    if (lastCast !== event) note('not applied', 'the Replayer did not finish applying this event');
    const expected = checkpoints.get(entry.index);
    if (expected) {
      for (const message of compareCheckpoint(expected)) note('checkpoint', message);
    }
    lastApplied = current;
  }

  window.vdlReplay = {
    start(options) {
      events = options.events;
      checkpoints = new Map(options.checkpoints.map((c) => [c.index, c.node]));
      maxProblems = options.maxProblems;
      const root = document.getElementById('replay-root');
      replayer = new rrweb.Replayer([], {
        root,
        liveMode: true,
        // Mutations go straight to the DOM: the virtual DOM is flushed only by a seek, never in live mode.
        useVirtualDom: false,
        showWarning: true,
        showDebug: true,
        mouseTail: false,
        logger,
      });
      replayer.on('event-cast', (event) => { lastCast = event; });
      replayer.startLive(Number.MAX_SAFE_INTEGER);
      cursor = 0;
      return problems.length;
    },

    // Applies events up to and including playback position `last`; stops early when enough went wrong.
    async applyThrough(last) {
      while (cursor <= last && cursor < events.length && problems.length < maxProblems) {
        await applyOne(events[cursor], cursor);
        cursor += 1;
      }
      current = null;
      return { cursor, problems: problems.length };
    },

    // Shows the pointer where the last touch left it, as the Replayer does after a seek, and waits until the
    // images of the style sheet are decoded, so that a screenshot shows the screen as replayed.
    async settle() {
      const emitter = replayer.emitter;
      if (emitter) emitter.emit('flush');
      const doc = replayer.iframe.contentDocument;
      const urls = new Set();
      for (const el of doc.querySelectorAll('*')) {
        const bg = doc.defaultView.getComputedStyle(el).backgroundImage || '';
        for (const match of bg.matchAll(/url\("([^"]+)"\)/g)) urls.add(match[1]);
      }
      await Promise.all([...urls].map((url) => {
        const img = new Image();
        img.src = url;
        return img.decode().catch(() => note('image', `an image of the replay does not decode: ${url.slice(0, 80)}`));
      }));
      await new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
    },

    // Where the replay cannot show what the device showed, in CSS pixels of the frame: elements painted with
    // the placeholder a blocked node gets (`placeholder` as the computed colour reads, "rgb(r, g, b)") and web
    // view iframes, whose page the device's own drawing does not hold. Each is cut to what its scrolling or
    // clipping ancestors and the frame let show.
    maskRects(placeholder) {
      const doc = replayer.iframe.contentDocument;
      const view = doc.defaultView;
      const frame = { left: 0, top: 0, right: view.innerWidth, bottom: view.innerHeight };
      const rects = [];
      for (const el of doc.querySelectorAll('iframe, [style*="background"]')) {
        const kind = el.nodeName === 'IFRAME' ? 'web view' : el.style.backgroundColor === placeholder ? 'blocked' : null;
        if (!kind || view.getComputedStyle(el).visibility === 'hidden') continue;
        const r = el.getBoundingClientRect();
        let box = { left: r.left, top: r.top, right: r.right, bottom: r.bottom };
        const clip = (c) => {
          box = { left: Math.max(box.left, c.left), top: Math.max(box.top, c.top),
            right: Math.min(box.right, c.right), bottom: Math.min(box.bottom, c.bottom) };
        };
        for (let up = el.parentElement; up && up !== doc.documentElement; up = up.parentElement) {
          if (view.getComputedStyle(up).overflow !== 'visible') clip(up.getBoundingClientRect());
        }
        clip(frame);
        if (box.right <= box.left || box.bottom <= box.top) continue;
        rects.push({ kind, id: mirror().getId(el), x: box.left, y: box.top, width: box.right - box.left,
          height: box.bottom - box.top });
      }
      return rects;
    },

    // What the replay shows inside the iframe element `id`: its page's visible text, the values of its
    // fields and how many style rules apply there.
    iframeContent(id) {
      const iframe = mirror().getNode(id);
      if (!iframe || iframe.nodeName !== 'IFRAME') return { id, error: `node ${id} is not an iframe of the replay` };
      const doc = iframe.contentDocument;
      if (!doc || !doc.body) return { id, error: `iframe ${id} shows no page` };
      const fields = [...doc.querySelectorAll('input, textarea, select')];
      return {
        id,
        documentId: mirror().getId(doc),
        doctype: doc.doctype ? doc.doctype.name : null,
        compatMode: doc.compatMode,
        scrollY: doc.defaultView.scrollY,
        text: doc.body.innerText,
        inputs: fields.map((field) => ({ id: mirror().getId(field), value: field.value })),
        // The Replayer adds a style element of its own to every document it builds; only the page's count.
        styleRules: [...doc.styleSheets].filter((sheet) => sheet.ownerNode && mirror().getId(sheet.ownerNode) !== -1)
          .reduce((n, sheet) => n + sheet.cssRules.length, 0),
      };
    },

    finish() {
      current = null;
      for (const [id, pending] of pendingDocuments) {
        if (!mirror().has(id)) {
          problems.push({ index: pending.index, position: null, kind: 'missing node',
            message: `a web page document (node ${id}) waits for iframe ${pending.parentId}, which never appears` });
        }
      }
      return { problems, compatMode: replayer.iframe.contentDocument.compatMode };
    },
  };
})();

// The inspector page: the tree as it changes, a plot of chosen numeric values, the peer's events,
// and editing. It talks to the plexa process that served it over one WebSocket: the process sends
// a snapshot and then batches of changes; the page applies whatever arrived once per animation
// frame and acknowledges each batch, and the process holds back the next one until then (keeping
// only each attribute's latest value), so the page never falls behind however fast values change.
'use strict';

(function () {
  const MaxLogRows = 500;
  const MaxSamplesPerSeries = 20000;
  const ReconnectMs = 1000;
  const Colours = ['#1f6fd1', '#d1541f', '#2b9a3d', '#8d3fc4', '#c49a1f', '#1fb0c4', '#c41f7a', '#555'];
  const StringTypes = { string: true, asset: true };

  const treeBox = document.getElementById('tree');
  const canvas = document.getElementById('plot');
  const logBody = document.querySelector('#log tbody');

  // path -> { row, valueEl, type, value }
  const attributes = new Map();
  // node path ('' is the root) -> { el, children }
  const nodes = new Map([['', { el: null, children: treeBox }]]);
  // "path" or "path[i]" -> { path, index, colour, samples: [[t, v], ...] }
  const series = new Map();
  let socket = null;
  let incoming = [];
  let readOnly = false;
  let serverTime = 0; // seconds, from the last batch
  let nextEditId = 1;
  const removals = new Map(); // edit id -> path
  let lastPlotPoints = 0;
  let droppedEvents = 0;
  const stats = { batches: 0, applyMs: [], frames: 0, firstFrame: 0, lastFrame: 0 };

  function text(value) {
    return JSON.stringify(value);
  }

  function numericComponents(value) {
    if (typeof value === 'number') return [value];
    if (Array.isArray(value) && value.length > 0 && value.length <= 4 && value.every(v => typeof v === 'number'))
      return value;
    return null;
  }

  // ---- the tree ----

  function nodeFor(path) {
    let node = nodes.get(path);
    if (node) return node;
    const slash = path.lastIndexOf('/');
    const parent = nodeFor(slash < 0 ? '' : path.slice(0, slash));
    const el = document.createElement('div');
    el.className = 'node';
    el.dataset.path = path;
    const label = document.createElement('div');
    label.className = 'label';
    label.textContent = path.slice(slash + 1);
    label.addEventListener('click', () => el.classList.toggle('folded'));
    label.append(removeButton(path));
    const children = document.createElement('div');
    children.className = 'children';
    el.append(label, children);
    parent.children.append(el);
    node = { el, children };
    nodes.set(path, node);
    return node;
  }

  function pruneNode(path) {
    while (path !== '') {
      const node = nodes.get(path);
      if (!node || node.children.childElementCount > 0) return;
      node.el.remove();
      nodes.delete(path);
      const slash = path.lastIndexOf('/');
      path = slash < 0 ? '' : path.slice(0, slash);
    }
  }

  // Only the process that serves the tree can remove from it (a peer keeps what it owns).
  function removeButton(path) {
    const button = document.createElement('button');
    button.className = 'remove';
    button.textContent = '\u00d7';
    button.title = `remove ${path}`;
    button.addEventListener('click', e => {
      e.stopPropagation();
      const id = nextEditId++;
      removals.set(id, path);
      send({ op: 'remove', id, path });
    });
    return button;
  }

  function plotToggles(entry) {
    entry.toggles.textContent = '';
    const components = numericComponents(entry.value);
    if (!components) return;
    components.forEach((_, i) => {
      const key = components.length === 1 && typeof entry.value === 'number' ? entry.path : `${entry.path}[${i}]`;
      const button = document.createElement('button');
      button.className = 'plot-toggle';
      button.dataset.series = key;
      button.textContent = typeof entry.value === 'number' ? 'plot' : String(i);
      button.title = `plot ${key}`;
      button.addEventListener('click', () => toggleSeries(key, entry.path, typeof entry.value === 'number' ? -1 : i));
      markToggle(button);
      entry.toggles.append(button);
    });
  }

  function setAttribute(path, type, value) {
    let entry = attributes.get(path);
    if (!entry) {
      const slash = path.lastIndexOf('/');
      const parent = nodeFor(slash < 0 ? '' : path.slice(0, slash));
      const row = document.createElement('div');
      row.className = 'attr' + (readOnly ? ' readonly' : '');
      row.dataset.path = path;
      const name = document.createElement('span');
      name.className = 'name';
      name.textContent = path.slice(slash + 1);
      const typeEl = document.createElement('span');
      typeEl.className = 'type';
      const valueEl = document.createElement('span');
      valueEl.className = 'value';
      const toggles = document.createElement('span');
      row.append(name, typeEl, valueEl, toggles, removeButton(path));
      parent.children.append(row);
      entry = { path, row, typeEl, valueEl, toggles, type: null, value: undefined, editing: null };
      valueEl.addEventListener('click', () => startEdit(entry));
      attributes.set(path, entry);
    }
    const shapeChanged = entry.type !== type || (numericComponents(entry.value) || []).length !==
                         (numericComponents(value) || []).length;
    entry.value = value;
    const shown = text(value);
    if (entry.text !== shown) {
      entry.text = shown;
      entry.valueEl.textContent = shown;
    }
    if (entry.type !== type) entry.typeEl.textContent = type;
    entry.type = type;
    if (shapeChanged) plotToggles(entry);
  }

  function removeAttribute(path) {
    const entry = attributes.get(path);
    if (!entry) return;
    entry.row.remove();
    attributes.delete(path);
    const slash = path.lastIndexOf('/');
    pruneNode(slash < 0 ? '' : path.slice(0, slash));
  }

  function clearTree() {
    treeBox.textContent = '';
    attributes.clear();
    nodes.clear();
    nodes.set('', { el: null, children: treeBox });
  }

  // ---- editing ----

  function editText(entry) {
    if (StringTypes[entry.type] && typeof entry.value === 'string') return entry.value;
    return text(entry.value);
  }

  function startEdit(entry) {
    if (readOnly || entry.editing) return;
    const input = document.createElement('input');
    input.className = 'edit';
    input.value = editText(entry);
    input.spellcheck = false;
    const error = document.createElement('span');
    error.className = 'error';
    entry.valueEl.hidden = true;
    entry.row.insertBefore(input, entry.valueEl.nextSibling);
    entry.row.insertBefore(error, input.nextSibling);
    entry.editing = { input, error, id: 0 };
    input.addEventListener('keydown', e => {
      if (e.key === 'Enter') {
        entry.editing.id = nextEditId++;
        error.textContent = '';
        send({ op: 'set', id: entry.editing.id, path: entry.path, text: input.value });
      } else if (e.key === 'Escape') {
        endEdit(entry);
      }
    });
    input.focus();
    input.select();
  }

  function endEdit(entry) {
    if (!entry.editing) return;
    entry.editing.input.remove();
    entry.editing.error.remove();
    entry.editing = null;
    entry.valueEl.hidden = false;
  }

  function editResult(reply) {
    if (removals.has(reply.id)) {
      removals.delete(reply.id);
      document.getElementById('message').textContent = reply.error || '';
      return;
    }
    const entry = attributes.get(reply.path);
    if (!entry || !entry.editing || entry.editing.id !== reply.id) return;
    if (reply.error) entry.editing.error.textContent = reply.error;
    else endEdit(entry);
  }

  // ---- the plot ----

  function toggleSeries(key, path, index) {
    if (series.has(key)) {
      series.delete(key);
    } else {
      const used = new Set([...series.values()].map(s => s.colour));
      const colour = Colours.find(c => !used.has(c)) || Colours[series.size % Colours.length];
      series.set(key, { path, index, colour, samples: [] });
      sample(series.get(key));
    }
    markToggles();
    drawLegend();
  }

  function markToggle(button) {
    const s = series.get(button.dataset.series);
    button.classList.toggle('on', !!s);
    button.style.background = s ? s.colour : '';
  }

  function markToggles() {
    document.querySelectorAll('.plot-toggle').forEach(markToggle);
  }

  function drawLegend() {
    const legend = document.getElementById('legend');
    legend.textContent = '';
    for (const [key, s] of series) {
      const span = document.createElement('span');
      span.style.color = s.colour;
      span.textContent = '\u25cf ' + key;
      legend.append(span);
    }
  }

  function sample(s) {
    const entry = attributes.get(s.path);
    if (!entry) return;
    const components = numericComponents(entry.value);
    if (!components) return;
    const v = components[s.index < 0 ? 0 : s.index];
    if (typeof v !== 'number') return;
    s.samples.push([serverTime, v]);
    if (s.samples.length > MaxSamplesPerSeries) s.samples.splice(0, s.samples.length - MaxSamplesPerSeries);
  }

  function drawPlot() {
    const seconds = Math.max(1, Math.min(600, Number(document.getElementById('seconds').value) || 30));
    const width = canvas.clientWidth || canvas.width;
    const height = canvas.clientHeight || canvas.height;
    if (canvas.width !== width) canvas.width = width;
    if (canvas.height !== height) canvas.height = height;
    const g = canvas.getContext('2d');
    g.clearRect(0, 0, width, height);
    const left = 56, right = 10, top = 10, bottom = 24;
    const end = serverTime, start = end - seconds;
    let min = Infinity, max = -Infinity;
    for (const s of series.values()) {
      while (s.samples.length > 1 && s.samples[1][0] < start) s.samples.shift();
      for (const [t, v] of s.samples) {
        if (t >= start && isFinite(v)) { min = Math.min(min, v); max = Math.max(max, v); }
      }
    }
    if (min === Infinity) { min = 0; max = 1; }
    if (min === max) { min -= 0.5; max += 0.5; }
    const x = t => left + (t - start) / seconds * (width - left - right);
    const y = v => top + (max - v) / (max - min) * (height - top - bottom);
    g.strokeStyle = '#d5d9e0';
    g.fillStyle = '#667';
    g.font = '11px sans-serif';
    g.lineWidth = 1;
    g.beginPath();
    const stepSeconds = [1, 2, 5, 10, 30, 60, 120, 300].find(st => seconds / st <= 10) || 600;
    for (let s = 0; s <= seconds; s += stepSeconds) {
      const px = Math.round(x(end - s)) + 0.5;
      g.moveTo(px, top);
      g.lineTo(px, height - bottom);
      g.fillText(s === 0 ? '0 s' : `-${s} s`, px - 12, height - 8);
    }
    for (let i = 0; i <= 4; i++) {
      const v = min + (max - min) * i / 4;
      const py = Math.round(y(v)) + 0.5;
      g.moveTo(left, py);
      g.lineTo(width - right, py);
      g.fillText(Number(v.toPrecision(4)).toString(), 4, py + 4);
    }
    g.stroke();
    let points = 0;
    for (const s of series.values()) {
      g.strokeStyle = s.colour;
      g.fillStyle = s.colour;
      g.lineWidth = 1.5;
      g.beginPath();
      let first = true;
      for (const [t, v] of s.samples) {
        if (!isFinite(v)) { first = true; continue; }
        const px = x(Math.max(t, start)), py = y(v);
        if (first) g.moveTo(px, py); else g.lineTo(px, py);
        first = false;
      }
      g.stroke();
      for (const [t, v] of s.samples) {
        if (t < start || !isFinite(v)) continue;
        g.fillRect(x(t) - 1.5, y(v) - 1.5, 3, 3);
        points++;
      }
    }
    lastPlotPoints = points;
  }

  // ---- the event log ----

  function pad(n, width) {
    return String(n).padStart(width, '0');
  }

  function logEvent(e) {
    const row = document.createElement('tr');
    const d = new Date(e.time);
    const cells = [`${pad(d.getHours(), 2)}:${pad(d.getMinutes(), 2)}:${pad(d.getSeconds(), 2)}.${pad(d.getMilliseconds(), 3)}`,
                   e.name, String(e.bytes)];
    for (const c of cells) {
      const td = document.createElement('td');
      td.textContent = c;
      row.append(td);
    }
    const items = document.createElement('td');
    items.className = 'items';
    items.textContent = e.items ? e.items.map(text).join(', ') : `(${e.itemsOmitted} bytes of items not shown)`;
    const mark = (label, bad) => {
      const span = document.createElement('span');
      span.className = 'mark' + (bad ? ' bad' : '');
      span.textContent = label;
      items.append(span);
    };
    if (e.sliced) mark('sliced');
    if (!e.complete) mark('unreadable rest', true);
    row.append(items);
    if (e.sliced) row.classList.add('sliced');
    logBody.insertBefore(row, logBody.firstChild);
    while (logBody.childElementCount > MaxLogRows) logBody.lastChild.remove();
  }

  // ---- the connection ----

  function formatRate(bytes) {
    if (bytes >= 1048576) return (bytes / 1048576).toFixed(1) + ' MB/s';
    if (bytes >= 1024) return (bytes / 1024).toFixed(1) + ' kB/s';
    return Math.round(bytes) + ' B/s';
  }

  function showStatus(status) {
    const state = document.getElementById('state');
    state.textContent = status.state;
    state.className = 'state ' + status.state.replace(/ /g, '-');
    document.getElementById('address').textContent =
      (status.role === 'serve' ? 'serving at ' : 'peer ') + status.address + ` (${status.sessions} connected)`;
    document.getElementById('rates').textContent =
      `in ${formatRate(status.rxBytesPerSecond)}, out ${formatRate(status.txBytesPerSecond)}`;
    document.body.classList.toggle('can-remove', status.role === 'serve' && !status.readOnly);
    if (readOnly !== status.readOnly) {
      readOnly = status.readOnly;
      document.getElementById('readonly').hidden = !readOnly;
      for (const entry of attributes.values()) {
        entry.row.classList.toggle('readonly', readOnly);
        if (readOnly) endEdit(entry);
      }
    }
  }

  function applyBatch(batch) {
    serverTime = batch.t;
    if (batch.status) showStatus(batch.status);
    if (batch.snapshot) clearTree();
    for (const [path, type, value] of batch.set) setAttribute(path, type, value);
    for (const path of batch.del) removeAttribute(path);
    for (const e of batch.events) logEvent(e);
    droppedEvents += batch.droppedEvents;
    document.getElementById('dropped').textContent = droppedEvents ? `(${droppedEvents} not shown: too many)` : '';
    for (const s of series.values()) sample(s);
    document.getElementById('count').textContent = `${attributes.size} attributes`;
  }

  function frame(now) {
    stats.frames++;
    if (!stats.firstFrame) stats.firstFrame = now;
    stats.lastFrame = now;
    if (incoming.length) {
      const batches = incoming;
      incoming = [];
      const began = performance.now();
      for (const b of batches) applyBatch(b);
      stats.applyMs.push(performance.now() - began);
      if (stats.applyMs.length > 1000) stats.applyMs.shift();
      stats.batches += batches.length;
      for (let i = 0; i < batches.length; i++) send({ op: 'ack' });
    }
    drawPlot();
    requestAnimationFrame(frame);
  }

  function send(message) {
    if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
  }

  function connect() {
    socket = new WebSocket(`ws://${location.host}/socket`);
    socket.onmessage = m => {
      const message = JSON.parse(m.data);
      if (message.op === 'batch') incoming.push(message);
      else if (message.op === 'result') editResult(message);
      else if (message.op === 'error') console.warn('plexa: ' + message.message);
    };
    socket.onopen = () => {
      const pattern = document.getElementById('search').value.trim();
      if (pattern) send({ op: 'filter', pattern });
    };
    socket.onclose = () => {
      const state = document.getElementById('state');
      state.textContent = 'page disconnected from plexa; retrying';
      state.className = 'state down';
      incoming = [];
      setTimeout(connect, ReconnectMs);
    };
  }

  let searchTimer = 0;
  document.getElementById('search').addEventListener('input', e => {
    clearTimeout(searchTimer);
    searchTimer = setTimeout(() => send({ op: 'filter', pattern: e.target.value.trim() }), 150);
  });

  // For tests and measurements: what the page has applied and drawn.
  window.inspector = {
    attributeCount: () => attributes.size,
    plotPoints: () => lastPlotPoints,
    stats: () => {
      const sorted = [...stats.applyMs].sort((a, b) => a - b);
      const seconds = (stats.lastFrame - stats.firstFrame) / 1000;
      return {
        batches: stats.batches,
        applyMsMedian: sorted.length ? sorted[Math.floor(sorted.length / 2)] : 0,
        applyMsMax: sorted.length ? sorted[sorted.length - 1] : 0,
        fps: seconds > 0 ? stats.frames / seconds : 0,
      };
    },
    resetStats: () => { stats.applyMs = []; stats.frames = 0; stats.firstFrame = 0; stats.batches = 0; },
  };

  connect();
  requestAnimationFrame(frame);
})();

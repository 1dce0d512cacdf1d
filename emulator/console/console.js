// The emulator's console: reads and changes the emulator through its own
// /__emulator/ routes. Text from the emulator goes into the page as text
// only, never as markup: trigger names and request headers come from anyone.
'use strict';

const $ = (selector) => document.querySelector(selector);
let uploadLimit = 16 * 1024 * 1024;
let cursor = 0;  // the newest request shown
let shownCatalog = '';  // the collections as last drawn, as JSON
let shownScans = '';

function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name === 'text') node.textContent = value;
    else if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else if (value !== undefined && value !== null) node.setAttribute(name, value);
  }
  node.append(...children.filter((child) => child !== null && child !== undefined));
  return node;
}

// The answer's JSON; throws an Error with the emulator's message on a 4xx or 5xx.
async function api(method, path, body, type) {
  const options = { method, headers: {} };
  if (body instanceof FormData || body instanceof Blob) options.body = body;
  else if (body !== undefined) options.body = JSON.stringify(body);
  if (type) options.headers['Content-Type'] = type;
  else if (body !== undefined && !(body instanceof FormData)) options.headers['Content-Type'] = 'application/json';
  const response = await fetch(path, options);
  const json = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(json.message || `HTTP ${response.status}`);
  return json;
}

// The emulator leaves the console's own picture loads out of its request log.
const viaConsole = (path) => `${path}?via=console`;

function say(form, text, ok) {
  const message = form.querySelector('.message');
  message.textContent = text;
  message.className = 'message ' + (ok ? 'ok' : 'error');
}

const count = (n, noun) => `${n} ${noun}${n === 1 ? '' : 's'}`;

function tooLarge(file) {
  return file.size > uploadLimit ? `${file.name} is ${(file.size / 1048576).toFixed(1)} MB; the emulator takes at most ${uploadLimit / 1048576} MB` : null;
}

// Overview: facts, collections with their triggers, the collection pickers.

// The drill fields are filled at start and after a reset only, never under
// the hands of someone editing them.
async function refreshOverview(fillDrills = false) {
  const overview = await api('GET', '/__emulator/overview');
  uploadLimit = overview.uploadLimit;
  const triggerCount = overview.collections.reduce((sum, c) => sum + c.triggers.length, 0);
  $('#facts').replaceChildren(
    el('li', { text: `apps: ${overview.apps.join(', ')}` }),
    el('li', { text: `${count(overview.collections.length, 'collection')}, ${count(triggerCount, 'trigger')}`, id: 'fact-catalog' }),
    el('li', { text: count(overview.users, 'user'), id: 'fact-users' }),
    el('li', { text: count(overview.scans, 'scan'), id: 'fact-scans' }),
    el('li', { text: overview.persistent ? 'kept in SQLite' : 'in memory' }));
  // Drawn again only when it changed: new requests refresh the counts often.
  const catalog = JSON.stringify(overview.collections);
  if (catalog !== shownCatalog) {
    shownCatalog = catalog;
    $('#catalog').replaceChildren(...overview.collections.map(collectionView));
    if (!overview.collections.length) $('#catalog').append(el('p', { class: 'empty', text: 'No collections yet.' }));
  }
  for (const select of [$('#trigger-collection'), $('#try-collection')]) {
    const chosen = select.value;
    const first = select.id === 'try-collection' ? [el('option', { value: '', text: 'every collection' })] : [];
    select.replaceChildren(...first, ...overview.collections.map((c) => el('option', { value: c.id, text: `${c.name} (${c.id})` })));
    if ([...select.options].some((o) => o.value === chosen)) select.value = chosen;
  }
  if (fillDrills) {
    $('#drill-latency').value = overview.drills.latencyMs;
    $('#drill-fail-rate').value = overview.drills.failRate;
  }
}

function collectionView(collection) {
  const triggers = collection.triggers.map((t) => el('div', { class: 'trigger', 'data-trigger': t.id },
    el('img', { src: viaConsole(t.imageUrl), alt: t.name, loading: 'lazy' }),
    el('div', { class: 'name', text: t.name }),
    el('div', { class: 'id', text: t.id }),
    t.payloadUrl ? el('div', { class: 'payload', text: t.payloadUrl }) : null,
    t.payloadData ? el('div', { class: 'payload', text: t.payloadData }) : null,
    el('button', { class: 'small', title: `Delete trigger ${t.id}`, 'data-delete-trigger': t.id, text: '✕',
      onclick: () => remove(`trigger "${t.id}"`, `/__emulator/triggers/${encodeURIComponent(t.id)}`) })));
  return el('div', { class: 'collection', 'data-collection': collection.id },
    el('div', { class: 'collection-head' },
      el('h3', { text: collection.name }),
      el('span', { class: 'id', text: collection.id }),
      el('button', { class: 'small', 'data-delete-collection': collection.id, text: 'Delete collection',
        onclick: () => remove(`collection "${collection.id}" and its ${collection.triggers.length} triggers`,
          `/__emulator/collections/${encodeURIComponent(collection.id)}`) })),
    triggers.length ? el('div', { class: 'triggers' }, ...triggers) : el('p', { class: 'empty', text: 'No triggers.' }));
}

async function remove(what, path) {
  if (!confirm(`Delete ${what}?`)) return;
  try {
    await api('DELETE', path);
  } catch (error) {
    alert(error.message);
  }
  await refreshOverview();
}

$('#new-collection').addEventListener('submit', async (event) => {
  event.preventDefault();
  const form = event.target;
  try {
    await api('POST', '/__emulator/collections', { id: $('#collection-id').value.trim(), name: $('#collection-name').value.trim() });
    say(form, `Collection "${$('#collection-id').value.trim()}" created.`, true);
    form.reset();
    await refreshOverview();
  } catch (error) {
    say(form, error.message, false);
  }
});

$('#add-trigger').addEventListener('submit', async (event) => {
  event.preventDefault();
  const form = event.target;
  const file = $('#trigger-file').files[0];
  const problem = file ? tooLarge(file) : 'Pick a JPEG or PNG image.';
  if (problem) return say(form, problem, false);
  const data = new FormData(form);
  data.delete('collection');
  const collection = $('#trigger-collection').value;
  try {
    await api('POST', `/__emulator/collections/${encodeURIComponent(collection)}/triggers`, data);
    say(form, `Trigger "${data.get('id')}" added to "${collection}".`, true);
    form.reset();
    $('#trigger-collection').value = collection;
    await refreshOverview();
  } catch (error) {
    say(form, error.message, false);
  }
});

// Try a photo.

async function tryPhoto(file) {
  const form = $('#try');
  const problem = tooLarge(file);
  if (problem) return say(form, problem, false);
  say(form, `Trying ${file.name}…`, true);
  const collection = $('#try-collection').value;
  const data = new FormData();
  data.append('file', file);
  try {
    const result = await api('POST', '/__emulator/try' + (collection ? `?collection=${encodeURIComponent(collection)}` : ''), data);
    say(form, '', true);
    const verdict = $('#try-verdict');
    verdict.className = result.matched ? 'matched' : '';
    verdict.textContent = result.matched
      ? `Matches "${result.triggerName}" (${result.triggerId}), score ${result.score}, ${result.inliers} points agree. ` +
        `Payload: ${result.payloadUrl || '-'} ${result.payloadData ? '· ' + result.payloadData : ''}`
      : 'No trigger matches this photo' + (collection ? ` in "${collection}".` : '.');
    $('#try-picture').src = result.picture;
    $('#try-result').hidden = false;
  } catch (error) {
    $('#try-result').hidden = true;
    say(form, error.message, false);
  }
}

$('#try-file').addEventListener('change', (event) => {
  if (event.target.files[0]) tryPhoto(event.target.files[0]);
  event.target.value = '';
});
const drop = $('#drop');
drop.addEventListener('dragover', (event) => { event.preventDefault(); drop.classList.add('over'); });
drop.addEventListener('dragleave', () => drop.classList.remove('over'));
drop.addEventListener('drop', (event) => {
  event.preventDefault();
  drop.classList.remove('over');
  if (event.dataTransfer.files[0]) tryPhoto(event.dataTransfer.files[0]);
});

// Requests, live: polled with a cursor, newest on top.

function requestRow(entry) {
  const time = new Date(entry.time * 1000).toLocaleTimeString();
  const latency = entry.latencyMs === null ? '' : `${entry.latencyMs.toFixed(1)} ms`;
  const row = el('tr', { class: 'entry' + (entry.status >= 400 ? ' status-error' : ''), 'data-sequence': entry.sequence },
    el('td', { text: time }), el('td', { text: entry.method }),
    el('td', { class: 'path', text: entry.path + (entry.query ? '?' + entry.query : '') }),
    el('td', { class: 'status', text: entry.status }), el('td', { text: latency }));
  const headers = entry.headers.map(([name, value]) => `${name}: ${value}`).join('\n');
  const body = entry.body;
  const summary = body === null ? 'no body'
    : body.json !== undefined ? JSON.stringify(body.json, null, 2)
    : body.parts ? body.parts.map((p) => `part "${p.name}"` + (p.filename ? ` file ${p.filename}` : '') +
        (p.contentType ? ` ${p.contentType}` : '') + `, ${p.size} bytes` + (p.value !== undefined ? `: ${p.value}` : '')).join('\n')
    : `${body.contentType || 'body'}, ${entry.bodySize} bytes`;
  const details = el('tr', { class: 'details', hidden: '' }, el('td', { colspan: 5 },
    el('pre', { text: headers }), el('pre', { text: summary }),
    body && body.scanImage ? el('img', { src: viaConsole(body.scanImage), alt: 'the uploaded photo' }) : null,
    body && body.triggerId ? el('span', { text: ` matched ${body.triggerId}` }) : null));
  row.addEventListener('click', () => { details.hidden = !details.hidden; });
  return [row, details];
}

async function pollRequests() {
  try {
    const log = await api('GET', `/__emulator/requests?after=${cursor}`);
    if (log.requests.length) {
      cursor = log.last;
      const rows = log.requests.reverse().flatMap(requestRow);
      $('#requests').prepend(...rows);
      while ($('#requests').children.length > 400) $('#requests').lastChild.remove();
      await Promise.all([refreshOverview(), refreshScans()]);
    }
  } catch (error) {
    // The emulator stopped or restarted; the next poll tries again.
  }
  setTimeout(pollRequests, 700);
}

// Scan history: each photo beside the trigger it matched.

async function refreshScans() {
  const { scans } = await api('GET', '/__emulator/scans?count=30');
  const shown = JSON.stringify(scans);
  if (shown === shownScans) return;
  shownScans = shown;
  $('#scans').replaceChildren(...scans.map((scan) => el('li', { 'data-scan': scan.scanId },
    el('img', { src: viaConsole(scan.imageUrl), alt: 'scanned photo' }),
    el('span', { class: 'arrow', text: '→' }),
    scan.matched ? el('img', { src: viaConsole(scan.thumbnailUrl), alt: scan.triggerId }) : null,
    el('span', { text: `${new Date(scan.timestamp * 1000).toLocaleTimeString()} · ${scan.matched ? scan.triggerId : 'no match'}` +
      ` · ${scan.appKey}${scan.appUser ? ' / ' + scan.appUser : ''}` }))));
  if (!scans.length) $('#scans').append(el('li', { class: 'empty', text: 'No scans yet.' }));
}

// Drills and reset.

$('#drills').addEventListener('submit', async (event) => {
  event.preventDefault();
  const form = event.target;
  try {
    const drills = await api('POST', '/__emulator/drills',
      { latencyMs: Number($('#drill-latency').value), failRate: Number($('#drill-fail-rate').value) });
    say(form, `Latency ${drills.latencyMs} ms, failure rate ${drills.failRate}.`, true);
  } catch (error) {
    say(form, error.message, false);
  }
});

$('#reset').addEventListener('click', async () => {
  if (!confirm('Drop users, tokens and scans, and bring the collections back to the seed?')) return;
  const form = $('#drills');
  try {
    await api('POST', '/__emulator/reset');
    say(form, 'Reset: back to the seed.', true);
    await Promise.all([refreshOverview(true), refreshScans()]);
  } catch (error) {
    say(form, error.message, false);
  }
});

refreshOverview(true).then(refreshScans).finally(pollRequests);

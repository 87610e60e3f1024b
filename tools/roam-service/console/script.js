'use strict';

// What a frame contains goes onto the page as text nodes only, never as markup.

const mostFrames = 500;
const retryAfterMs = 1000;

const byId = (id) => document.getElementById(id);
const decoder = new TextDecoder('utf-8');

let socket = null;
let paused = false;
let held = [];
let missed = 0;
let lastNumber = 0;
let switchesOnTheWay = false; // what the service says of them until then is older

// ---- texts ----

const invisible = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g;

const named = {'\n': '\\n', '\r': '\\r', '\t': '\\t'};

/** Control characters and those that turn or hide text, as something that can be seen. */
function visible(text) {
  return text.replace(invisible, (character) => {
    const code = character.charCodeAt(0);
    if (named[character]) return named[character];
    if (code < 0x100) return `\\x${code.toString(16).padStart(2, '0')}`;
    return `\\u${code.toString(16).padStart(4, '0')}`;
  });
}

function bytesOf(hex) {
  const bytes = new Uint8Array(hex.length / 2);
  for (let index = 0; index < bytes.length; ++index) {
    bytes[index] = parseInt(hex.slice(2 * index, 2 * index + 2), 16);
  }
  return bytes;
}

function two(number) {
  return String(number).padStart(2, '0');
}

function clockText(ms, withFraction) {
  const time = new Date(ms);
  const text = `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}`;
  return withFraction ? `${text}.${String(time.getMilliseconds()).padStart(3, '0')}` : text;
}

function ageText(ms) {
  const seconds = Math.max(0, Math.floor(ms / 1000));
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ${seconds % 60} s`;
  return `${Math.floor(seconds / 3600)} h ${Math.floor(seconds / 60) % 60} min`;
}

function hexDump(bytes) {
  const lines = [];
  for (let offset = 0; offset < bytes.length; offset += 16) {
    const part = [...bytes.slice(offset, offset + 16)];
    const hex = part.map((byte) => byte.toString(16).padStart(2, '0')).join(' ');
    const text = part.map((byte) => (byte < 0x20 || byte > 0x7e ? '.' : String.fromCharCode(byte)));
    lines.push(`${offset.toString(16).padStart(4, '0')}  ${hex.padEnd(47)}  ${text.join('')}`);
  }
  return lines.join('\n');
}

function element(name, className, text) {
  const made = document.createElement(name);
  if (className) made.className = className;
  if (text !== undefined) made.textContent = text;
  return made;
}

function setText(target, text) {
  if (target.textContent !== text) target.textContent = text;
}

// ---- frames ----

/** A close frame's payload is a code and a text. */
function frameText(record, bytes) {
  if (record.kind !== 'close' || bytes.length < 2) return visible(decoder.decode(bytes));
  return visible(`${bytes[0] * 256 + bytes[1]} ${decoder.decode(bytes.slice(2))}`.trim());
}

function frameDetails(record, bytes, text) {
  const notes = [`daemon ${record.daemon}`, `${record.kind}, ${record.size} bytes`];
  if (record.frames > 1) notes.push(`${record.frames} fragments`);
  if (bytes.length < record.size) notes.push(`the first ${bytes.length} bytes are shown`);
  const whole = element('div');
  whole.append(element('pre', '', `${notes.join(' · ')}\n\n${text}`),
    element('pre', 'dump', hexDump(bytes)));
  return whole;
}

function frameRow(record) {
  const bytes = bytesOf(record.hex);
  const text = frameText(record, bytes);
  const row = element('li', `${record.sent ? 'sent' : 'received'} ${record.kind}`);
  const details = element('details');
  const summary = element('summary');
  const control = record.kind === 'text' ? '' : record.kind;
  const parts = record.frames > 1 ? ` ×${record.frames}` : '';
  const way = `${record.sent ? '→' : '←'} ${record.daemon} ${control}${parts}`;
  const wayCell = element('span', 'way', way.trim());
  wayCell.title = record.sent ? `sent to daemon ${record.daemon}` : `received from daemon ${record.daemon}`;
  const hex = (record.hex.slice(0, 64).match(/../g) || []).join(' ');
  summary.append(element('span', 'time', clockText(record.time, true)), wayCell,
    element('span', 'size', `${record.size} B`),
    element('span', 'text', text.slice(0, 300)),
    element('span', 'hex', hex));
  details.append(summary);
  details.addEventListener('toggle', () => {
    if (details.open && details.childElementCount === 1) {
      details.append(frameDetails(record, bytes, text));
    }
  });
  row.append(details);
  return row;
}

function showFrames(records) {
  const list = byId('frames');
  const rows = document.createDocumentFragment();
  for (const record of records) rows.prepend(frameRow(record));
  // Who reads further down keeps what is being read in view.
  const before = list.scrollHeight;
  const reading = list.scrollTop > 0;
  list.prepend(rows);
  if (reading) list.scrollTop += list.scrollHeight - before;
  while (list.childElementCount > mostFrames) list.lastElementChild.remove();
}

function takeFrames(update) {
  if (update.last_number < lastNumber) lastNumber = 0; // the service was started anew
  const records = update.records.filter((record) => record.number > lastNumber);
  missed += Math.max(0, update.last_number - lastNumber - records.length);
  lastNumber = update.last_number;
  if (paused) held = held.concat(records).slice(-mostFrames);
  else showFrames(records);
  const notes = [];
  if (paused) notes.push(`paused, ${held.length} waiting`);
  if (missed) notes.push(`${missed} earlier ones are not shown`);
  setText(byId('frames-note'), notes.join('; '));
}

// ---- daemons ----

function daemonRow(id) {
  const row = element('tr');
  row.dataset.id = id;
  for (let index = 0; index < 5; ++index) row.append(element('td'));
  return row;
}

function showDaemon(row, daemon, now) {
  const ping = daemon.last_ping === undefined ? 'none yet'
    : `${clockText(daemon.last_ping)}, ${ageText(now - daemon.last_ping)} ago`;
  const texts = [String(daemon.id), daemon.open ? daemon.address : `${daemon.address} (closing)`,
    `${clockText(daemon.since)}, ${ageText(now - daemon.since)}`, ping,
    `${daemon.pings_unanswered} of ${daemon.pings}`];
  texts.forEach((text, index) => setText(row.children[index], text));
  row.children[4].classList.toggle('warn', daemon.pings_unanswered > 0);
}

function showDaemons(update) {
  const body = byId('daemons');
  const known = new Map([...body.children].map((row) => [Number(row.dataset.id), row]));
  for (const daemon of update.daemons) {
    const row = known.get(daemon.id) || body.appendChild(daemonRow(daemon.id));
    known.delete(daemon.id);
    showDaemon(row, daemon, update.now);
  }
  known.forEach((row) => row.remove());
  setText(byId('daemon-count'), String(update.daemons.length));
  byId('no-daemon').hidden = update.daemons.length > 0;
  document.querySelectorAll('.daemon-choice').forEach((choice) => offer(choice, update.daemons));
}

/** Keeps what is chosen, even when that daemon is gone: a fault must not hit the others instead. */
function offer(choice, daemons) {
  const wanted = new Map(daemons.map((daemon) =>
    [String(daemon.id), `daemon ${daemon.id}, ${daemon.address}`]));
  if (choice.value && !wanted.has(choice.value)) {
    wanted.set(choice.value, `daemon ${choice.value}, gone`);
  }
  for (const option of [...choice.options]) {
    if (option.value && !wanted.has(option.value)) option.remove();
    else if (option.value) setText(option, wanted.get(option.value));
    wanted.delete(option.value);
  }
  wanted.forEach((text, value) => choice.add(new Option(text, value)));
}

// ---- counters and chart ----

function drawLine(line, rates, top) {
  const step = 600 / (rates.length - 1);
  line.setAttribute('points', rates.map((rate, index) =>
    `${(index * step).toFixed(1)},${(118 - 116 * rate / top).toFixed(1)}`).join(' '));
}

function showTraffic(update) {
  const top = Math.max(5, ...update.received.rates, ...update.sent.rates);
  for (const side of ['received', 'sent']) {
    drawLine(byId(`line-${side}`), update[side].rates, top);
    for (const what of ['messages', 'frames', 'bytes']) {
      setText(byId(`${side}-${what}`), update[side][what].toLocaleString('en'));
    }
  }
  setText(byId('chart-top'), String(top));
  const lastFull = (rates) => rates[rates.length - 2];
  byId('chart').setAttribute('aria-label', `frames per second: ${lastFull(update.received.rates)} ` +
    `received, ${lastFull(update.sent.rates)} sent, at most ${top} in the last minute`);
}

// ---- switches ----

function showValue(input, property, value) {
  if (input !== document.activeElement || property === 'checked') input[property] = value;
}

function showSwitches(switches) {
  if (switchesOnTheWay) return;
  showValue(byId('no-pongs'), 'checked', switches.no_pongs);
  showValue(byId('stop-reading'), 'checked', switches.stop_reading);
  showValue(byId('fragments'), 'value', String(switches.fragments));
  showValue(byId('delay'), 'value', String(switches.delay_ms));
}

function setSwitches() {
  if (!byId('fragments').reportValidity() || !byId('delay').reportValidity()) return;
  switchesOnTheWay = true;
  command({cmd: 'switches', no_pongs: byId('no-pongs').checked,
    stop_reading: byId('stop-reading').checked, fragments: Number(byId('fragments').value),
    delay_ms: Number(byId('delay').value)});
}

// ---- the connection to the service ----

function showState(text, bad) {
  setText(byId('state'), text);
  byId('state').classList.toggle('bad', bad);
}

function showUpdate(update) {
  setText(byId('url'), update.url);
  const away = update.away_ms !== undefined;
  showState(away ? `away, back in ${Math.ceil(update.away_ms / 1000)} s` : 'serving', away);
  byId('return').hidden = !away;
  showDaemons(update);
  showTraffic(update);
  showSwitches(update.switches);
  takeFrames(update);
}

function showAnswer(answer) {
  switchesOnTheWay = false;
  setText(byId('answer'), answer.text);
  byId('answer').classList.toggle('bad', !answer.ok);
}

function command(what) {
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(what));
  else showAnswer({ok: false, text: 'roam-service is not there'});
}

function connect() {
  socket = new WebSocket(`ws://${location.host}/console`, 'roam-console');
  socket.addEventListener('message', (event) => {
    const told = JSON.parse(event.data);
    if (told.type === 'update') showUpdate(told);
    else if (told.type === 'answer') showAnswer(told);
  });
  socket.addEventListener('close', () => {
    showState('roam-service is not there, trying again', true);
    setTimeout(connect, retryAfterMs);
  });
}

// ---- what the person does ----

function chosen(id) {
  return byId(id).value === '' ? null : Number(byId(id).value);
}

function onSubmit(id, act) {
  byId(id).addEventListener('submit', (event) => {
    event.preventDefault();
    act();
  });
}

function setPaused(wanted) {
  paused = wanted;
  byId('pause').setAttribute('aria-pressed', String(paused));
  if (paused) return;
  showFrames(held);
  held = [];
}

onSubmit('send-form', () => command({cmd: 'send', to: chosen('send-to'), text: byId('send-text').value}));
onSubmit('close-form', () => command({cmd: 'close', to: chosen('fault-to'), code: Number(byId('close-code').value)}));
onSubmit('reset-form', () => command({cmd: 'reset', to: chosen('fault-to')}));
onSubmit('away-form', () => command({cmd: 'away', seconds: Number(byId('away-seconds').value)}));
byId('return').addEventListener('click', () => command({cmd: 'return'}));
byId('switches').addEventListener('change', setSwitches);
byId('send-text').addEventListener('keydown', (event) => {
  if (event.key === 'Enter' && (event.ctrlKey || event.metaKey)) byId('send-form').requestSubmit();
});
byId('pause').addEventListener('click', () => setPaused(!paused));
byId('clear').addEventListener('click', () => {
  byId('frames').replaceChildren();
  held = [];
  missed = 0;
});
byId('hide-pings').addEventListener('change', (event) =>
  byId('frames').classList.toggle('no-pings', event.target.checked));

connect();

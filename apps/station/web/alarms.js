// Alarms: the active list with acknowledge and shelve (operator and up), and
// the journal by time range.
'use strict';

let canAck = false;

async function act(line) {
  const a = await zq.command(line);
  document.getElementById('alarm-message').textContent = a.output || ('result ' + a.result);
  await refresh();
  await loadJournal();
}

function comment() {
  return document.getElementById('comment').value.replace(/[\x00-\x1f\x7f]/g, ' ').trim();
}

async function refresh() {
  const data = await zq.get('/api/alarms');
  canAck = data.can_ack;
  document.querySelectorAll('.operator-only').forEach((e) => { e.hidden = !canAck; });
  const body = document.querySelector('#alarms tbody');
  body.textContent = '';
  for (const a of data.alarms) {
    const tr = document.createElement('tr');
    tr.dataset.alarm = a.name;
    tr.className = 'sev-' + a.severity;
    tr.appendChild(zq.el('td', a.name));
    tr.appendChild(zq.el('td', a.state));
    tr.appendChild(zq.el('td', a.severity));
    tr.appendChild(zq.el('td', zq.number(a.value)));
    tr.appendChild(zq.el('td', zq.time(a.t_us)));
    tr.appendChild(zq.el('td', a.guidance));
    tr.appendChild(zq.el('td', a.shelved_until ? zq.time(a.shelved_until) : ''));
    const cell = zq.el('td');
    if (canAck) {
      cell.appendChild(zq.button('Acknowledge', 'ack', () => act(('ack ' + a.name + ' ' + comment()).trim())));
      cell.appendChild(zq.button('Shelve', 'shelve', () => {
        const minutes = parseInt(document.getElementById('shelve-minutes').value, 10) || 30;
        act(('shelve ' + a.name + ' ' + minutes + ' ' + comment()).trim());
      }));
    }
    tr.appendChild(cell);
    body.appendChild(tr);
  }
}

function epoch(input) {
  if (!input.value) return '';
  const ms = Date.parse(input.value + 'Z');
  return isNaN(ms) ? '' : String(ms / 1000);
}

async function loadJournal() {
  const q = new URLSearchParams();
  const since = epoch(document.getElementById('since')), until = epoch(document.getElementById('until'));
  if (since) q.set('since', since);
  if (until) q.set('until', until);
  const data = await zq.get('/api/alarm-history?' + q.toString());
  const body = document.querySelector('#journal tbody');
  body.textContent = '';
  for (const e of data.entries.slice().reverse()) {
    const tr = document.createElement('tr');
    tr.className = 'sev-' + e.severity;
    for (const v of [zq.time(e.t_us), e.point, e.action, e.from, e.to, e.severity, zq.number(e.value), e.user,
      e.comment]) {
      tr.appendChild(zq.el('td', v));
    }
    body.appendChild(tr);
  }
}

document.addEventListener('DOMContentLoaded', () => {
  document.getElementById('journal-load').addEventListener('click', () => loadJournal().catch(console.warn));
  zq.every(2000, refresh);
  loadJournal().catch(console.warn);
});

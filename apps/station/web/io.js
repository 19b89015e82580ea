// I/O: the bits by name; switches only for the levels that may set them
// (the station refuses the rest whatever is sent).
'use strict';

async function act(op, name) {
  const a = await zq.command('io ' + op + ' ' + name);
  document.getElementById('io-message').textContent = a.output || ('result ' + a.result);
  await refresh();
}

async function refresh() {
  const data = await zq.get('/api/io');
  const body = document.querySelector('#io tbody');
  for (const b of data.bits) {
    let tr = null;
    for (const row of body.rows) if (row.dataset.bit === b.name) tr = row;
    if (!tr) {
      tr = document.createElement('tr');
      tr.dataset.bit = b.name;
      tr.appendChild(zq.el('td', b.bit));
      tr.appendChild(zq.el('td', b.name));
      tr.appendChild(zq.el('td', '', 'state'));
      const cell = zq.el('td');
      if (data.can_set) {
        for (const op of ['set', 'clear', 'toggle']) cell.appendChild(zq.button(op, op, () => act(op, b.name)));
      }
      tr.appendChild(cell);
      body.appendChild(tr);
    }
    const state = tr.querySelector('.state');
    state.textContent = b.value ? 'on' : 'off';
    state.className = 'state ' + (b.value ? 'on' : 'off');
  }
}

document.addEventListener('DOMContentLoaded', () => zq.every(1000, refresh));

// Settings: read for everyone; changed and saved by admins through
// "config set" and "config save", whose answers are shown as they are.
'use strict';

function say(answer) {
  document.getElementById('settings-message').textContent = answer.output || ('result ' + answer.result);
}

async function load() {
  const data = await zq.get('/api/settings');
  const body = document.querySelector('#settings tbody');
  body.textContent = '';
  for (const s of data.settings) {
    const tr = document.createElement('tr');
    tr.dataset.setting = s.name;
    tr.appendChild(zq.el('td', s.name));
    const value = zq.el('td', data.can_change ? '' : s.value, 'value');
    let input = null;
    if (data.can_change) {
      input = document.createElement('input');
      input.className = 'edit';
      input.value = s.value;
      value.appendChild(input);
    }
    tr.appendChild(value);
    tr.appendChild(zq.el('td', s.unit));
    tr.appendChild(zq.el('td', s.range));
    tr.appendChild(zq.el('td', s.description));
    const cell = zq.el('td');
    if (input) {
      cell.appendChild(zq.button('Apply', 'apply', async () => {
        say(await zq.command('config set ' + s.name + ' ' + input.value));
      }));
    }
    tr.appendChild(cell);
    body.appendChild(tr);
  }
  document.getElementById('save').hidden = !data.can_change;
}

document.addEventListener('DOMContentLoaded', () => {
  document.getElementById('save').addEventListener('click', async () => say(await zq.command('config save')));
  load().catch((e) => console.warn(e));
});

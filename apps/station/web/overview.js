// Overview: every point's value, unit, quality, age and alarm state; the
// station's cycle statistics, version and uptime; the newest log entries.
'use strict';

function rowOf(body, name) {
  for (const tr of body.rows) if (tr.dataset.point === name) return tr;
  const tr = document.createElement('tr');
  tr.dataset.point = name;
  for (const cls of ['name', 'value', 'unit', 'quality', 'age', 'alarm', 'description']) tr.appendChild(zq.el('td', '', cls));
  body.appendChild(tr);
  return tr;
}

async function refreshPoints() {
  const data = await zq.get('/api/points');
  const body = document.querySelector('#points tbody');
  for (const p of data.points) {
    const tr = rowOf(body, p.name);
    tr.className = 'sev-' + p.severity + ' state-' + p.alarm.replace(/[^a-z]/gi, '');
    tr.querySelector('.name').textContent = p.name;
    tr.querySelector('.value').textContent = zq.number(p.value);
    tr.querySelector('.unit').textContent = p.unit;
    tr.querySelector('.quality').textContent = p.quality;
    tr.querySelector('.age').textContent = p.age_s < 0 ? 'never' : p.age_s.toFixed(3) + ' s';
    tr.querySelector('.alarm').textContent = p.alarm + (p.severity !== 'none' ? ' (' + p.severity + ')' : '');
    tr.querySelector('.description').textContent = p.description;
  }
}

async function refreshStatus() {
  const s = await zq.get('/api/status');
  document.getElementById('version').textContent = s.version;
  const up = Math.floor(s.uptime_s);
  document.getElementById('uptime').textContent =
      Math.floor(up / 86400) + 'd ' + new Date(up * 1000).toISOString().substr(11, 8);
  document.getElementById('cycle-stats').textContent =
      s.cycles + ' cycles of ' + s.period_us + ' us; length min ' + zq.number(s.cycle_min_us) + ' us, avg ' +
      zq.number(s.cycle_avg_us) + ' us, max ' + zq.number(s.cycle_max_us) + ' us; ' + s.overruns + ' overruns';
}

async function refreshLog() {
  const s = await zq.load();
  document.getElementById('log-part').hidden = s.level !== 'admin';
  if (s.level !== 'admin') return;
  const data = await zq.get('/api/log');
  const body = document.querySelector('#log tbody');
  body.textContent = '';
  for (const e of data.entries) {
    const tr = document.createElement('tr');
    tr.className = 'log-' + e.type;
    tr.appendChild(zq.el('td', zq.time(e.time * 1e6)));
    tr.appendChild(zq.el('td', e.type));
    tr.appendChild(zq.el('td', e.text, 'text'));
    body.appendChild(tr);
  }
}

document.addEventListener('DOMContentLoaded', () => {
  zq.every(1000, refreshPoints);
  zq.every(3000, refreshLog);
  zq.every(1000, refreshStatus);
});

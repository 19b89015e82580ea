// Trend: live samples of the chosen points over WebSocket, plotted with
// their acquisition times against their limits, the I/O bits as step lines.
// window.zqTrend.series holds what is plotted: {NAME: [[t_us, value], ...]}.
'use strict';

const zqTrend = {series: {}, io: {}, paused: false, received: 0};
window.zqTrend = zqTrend;

const kKeep = 300000;   // samples kept per series; beyond, the older half is thinned
const kRows = 1500;     // samples per series handed to the plot
let limits = {};        // NAME -> {lo, hi, lolo, hihi}
let graph = null;
let socket = null;
let dirty = false;

function chosen() {
  return Array.from(document.getElementById('points-select').selectedOptions).map((o) => o.value);
}

function windowUs() {
  const m = Math.min(60, Math.max(1, parseInt(document.getElementById('minutes').value, 10) || 1));
  return m * 60e6;
}

function keep(list, newest) {
  const oldest = newest - windowUs();
  let cut = 0;
  while (cut < list.length && list[cut][0] < oldest) cut++;
  if (cut > 0) list.splice(0, cut);
  if (list.length > kKeep) {
    const half = list.length >> 1;
    const thinned = list.slice(0, half).filter((_, i) => i % 2 === 0);
    list.splice(0, half, ...thinned);
  }
}

function take(message) {
  if (message.type === 'samples') {
    let newest = 0;
    for (const [name, t, v] of message.samples) {
      (zqTrend.series[name] = zqTrend.series[name] || []).push([t, v]);
      newest = Math.max(newest, t);
      zqTrend.received++;
    }
    for (const name in zqTrend.series) keep(zqTrend.series[name], newest);
  } else if (message.type === 'io') {
    for (const name in message.bits) {
      const list = (zqTrend.io[name] = zqTrend.io[name] || []);
      list.push([message.t_us, message.bits[name]]);
      keep(list, message.t_us);
    }
  }
  dirty = true;
}

function subscribe() {
  const names = chosen();
  for (const name in zqTrend.series) if (!names.includes(name)) delete zqTrend.series[name];
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify({subscribe: names, io: true}));
}

function connect() {
  socket = new WebSocket('wss://' + window.location.host + '/ws');
  socket.addEventListener('open', subscribe);
  socket.addEventListener('message', (e) => take(JSON.parse(e.data)));
  socket.addEventListener('close', () => {
    document.getElementById('trend-state').textContent = 'live data lost, reconnecting';
    setTimeout(connect, 2000);
  });
  document.getElementById('trend-state').textContent = '';
}

function rows() {
  const names = Object.keys(zqTrend.series).filter((n) => zqTrend.series[n].length > 0);
  const bits = Object.keys(zqTrend.io);
  const labels = ['time'].concat(names, bits);
  const width = labels.length;
  const out = [];
  const add = (list, column, step) => {
    for (let i = 0; i < list.length; i += step) {
      const row = new Array(width).fill(null);
      row[0] = new Date(list[i][0] / 1000);
      row[column] = list[i][1];
      out.push(row);
    }
  };
  names.forEach((n, k) => {
    const list = zqTrend.series[n];
    add(list, k + 1, Math.max(1, Math.ceil(list.length / kRows)));
  });
  bits.forEach((n, k) => add(zqTrend.io[n], names.length + 1 + k, 1));
  out.sort((a, b) => a[0] - b[0]);
  return {labels, names, bits, data: out};
}

function drawLimits(canvas, area, g) {
  canvas.save();
  canvas.setLineDash([6, 4]);
  canvas.strokeStyle = '#c0392b';
  for (const name of Object.keys(zqTrend.series)) {
    const l = limits[name] || {};
    for (const v of [l.lolo, l.lo, l.hi, l.hihi]) {
      if (typeof v !== 'number') continue;
      const y = g.toDomYCoord(v);
      if (y < area.y || y > area.y + area.h) continue;
      canvas.beginPath();
      canvas.moveTo(area.x, y);
      canvas.lineTo(area.x + area.w, y);
      canvas.stroke();
    }
  }
  canvas.restore();
}

// The series' names in their colours (dygraphs' own legend is markup with
// style attributes, which the page's Content-Security-Policy blocks).
function legend(g) {
  const box = document.getElementById('trend-legend');
  const labels = g.getLabels().slice(1), colors = g.getColors();
  if (box.dataset.labels === labels.join('\n')) return;
  box.dataset.labels = labels.join('\n');
  box.textContent = '';
  labels.forEach((name, i) => {
    const item = zq.el('span', '\u25a0 ' + name, 'legend-item');
    item.style.color = colors[i];  // CSSOM, allowed by the policy
    box.appendChild(item);
  });
}

function draw() {
  if (!dirty || zqTrend.paused) return;
  dirty = false;
  const r = rows();
  if (r.data.length === 0) return;
  const series = {};
  for (const b of r.bits) series[b] = {axis: 'y2', stepPlot: true, strokeWidth: 1};
  const options = {labels: r.labels, series, connectSeparatedPoints: true, underlayCallback: drawLimits,
    axes: {y2: {valueRange: [-0.1, 1.1], drawGrid: false}},
    legend: 'never', animatedZooms: false, drawCallback: legend};
  if (!graph || graph.numColumns() !== r.labels.length) {
    if (graph) graph.destroy();
    graph = new Dygraph(document.getElementById('trend-plot'), r.data, options);
  } else {
    graph.updateOptions(Object.assign({file: r.data}, options, graph.isZoomed() ? {} : {dateWindow: null}));
  }
}

async function start() {
  // The page draws its own legend: dygraphs' one styles its markup inline.
  Dygraph.PLUGINS = Dygraph.PLUGINS.filter((p) => p !== Dygraph.Plugins.Legend);
  const data = await zq.get('/api/points');
  const select = document.getElementById('points-select');
  for (const p of data.points) {
    limits[p.name] = {lo: p.lo, hi: p.hi, lolo: p.lolo, hihi: p.hihi};
    const o = zq.el('option', p.name + (p.unit ? ' (' + p.unit + ')' : ''));
    o.value = p.name;
    select.appendChild(o);
  }
  if (select.options.length > 0) select.options[0].selected = true;
  select.addEventListener('change', subscribe);
  document.getElementById('pause').addEventListener('click', (e) => {
    zqTrend.paused = !zqTrend.paused;
    e.target.textContent = zqTrend.paused ? 'Resume' : 'Pause';
    dirty = true;
  });
  connect();
  setInterval(draw, 250);
}

document.addEventListener('DOMContentLoaded', () => start().catch(console.warn));

// Shared by every page: the session, JSON requests with the CSRF token,
// commands through the station's command layer, and small DOM helpers.
// Everything from the station goes into the page as text, never as markup.
'use strict';

const zq = {
  session: null,

  // The session (user, level, CSRF token); to the login page without one.
  async load() {
    if (zq.session) return zq.session;
    zq.session = await zq.get('/api/session');
    const who = document.getElementById('whoami');
    if (who) who.textContent = zq.session.user + ' (' + zq.session.level + ')';
    document.body.classList.add('level-' + zq.session.level);
    return zq.session;
  },

  async get(url) {
    const r = await fetch(url, {credentials: 'same-origin', cache: 'no-store'});
    if (r.status === 401) {
      window.location.href = '/login.html';
      throw new Error('not logged in');
    }
    if (!r.ok) throw new Error(url + ': ' + r.status);
    return r.json();
  },

  async post(url, body) {
    const s = await zq.load();
    return fetch(url, {
      method: 'POST', credentials: 'same-origin', cache: 'no-store',
      headers: {'Content-Type': 'application/json', 'X-CSRF-Token': s.csrf},
      body: body === undefined ? '' : JSON.stringify(body),
    });
  },

  // Runs one command line as the logged-in user: {result, output}.
  async command(line) {
    const r = await zq.post('/api/command', {command: line});
    if (r.status === 401) window.location.href = '/login.html';
    try {
      return await r.json();
    } catch (e) {
      return {result: r.status, output: 'refused (' + r.status + ')'};
    }
  },

  el(tag, text, cls) {
    const e = document.createElement(tag);
    if (text !== undefined && text !== null) e.textContent = String(text);
    if (cls) e.className = cls;
    return e;
  },

  button(text, cls, action) {
    const b = zq.el('button', text, cls);
    b.type = 'button';
    b.addEventListener('click', action);
    return b;
  },

  number(v) {
    if (v === null || v === undefined) return '';
    return Math.abs(v) >= 1000 || v === Math.round(v) ? String(Math.round(v * 1000) / 1000) : v.toPrecision(5);
  },

  time(us) {
    return us ? new Date(us / 1000).toISOString().replace('T', ' ').replace('Z', '') : '';
  },

  // Repeats `fn` every `ms` while the page is open.
  every(ms, fn) {
    const run = () => fn().catch((e) => console.warn(e)).finally(() => setTimeout(run, ms));
    run();
  },
};

// The navigation, the user and the logout button at the top of every page.
function header() {
  const top = document.getElementById('top');
  const nav = document.createElement('nav');
  for (const [id, href, text] of [['overview', '/index.html', 'Overview'], ['trend', '/trend.html', 'Trend'],
    ['alarms', '/alarms.html', 'Alarms'], ['io', '/io.html', 'I/O'], ['settings', '/settings.html', 'Settings'],
    ['downloads', '/downloads.html', 'Downloads']]) {
    const a = zq.el('a', text);
    a.id = 'nav-' + id;
    a.href = href;
    nav.appendChild(a);
  }
  top.appendChild(nav);
  const who = zq.el('span');
  who.id = 'whoami';
  top.appendChild(who);
  const logout = zq.button('Log out', '', async () => {
    await zq.post('/api/logout');
    window.location.href = '/login.html';
  });
  logout.id = 'logout';
  top.appendChild(logout);
}

document.addEventListener('DOMContentLoaded', () => {
  header();
  zq.load().catch((e) => console.warn(e));
});

// Startup: every item with its type, origin and state, a switch for each that can be switched,
// the protected ones shown but locked, and the state read back after each change.
import { api, h, progressView, runScan, showBanner } from './api.js';

const kSwitchable = ['enabled', 'enabled-runtime', 'disabled', 'linked', 'linked-runtime', 'unknown'];
const kTypes = { 'login-item': 'Login item', 'user-agent': 'Your unit', 'global-agent': 'Every session', daemon: 'System unit' };
const state = { items: null, all: false, running: false, busy: new Set() };
let view = null;

const switchable = (item) => !item.protected && (item.domain === 'login' || kSwitchable.includes(item.state));

async function flip(item, enabled) {
  const name = item.label ?? item.path;
  state.busy.add(item.path);
  render();
  try {
    const answer = await api('POST', '/api/startup', { item: name, enabled });
    item.enabled = answer.enabled;
    item.state = answer.state;
    showBanner('');
  } catch (error) {
    showBanner(`${name} was not switched: ${error.message}`);
  }
  state.busy.delete(item.path);
  render();
}

function row(item) {
  const locked = !switchable(item) || state.busy.has(item.path);
  const name = item.label ?? item.path;
  return h('tr', { 'data-item': name },
    h('td', {}, h('label', { className: 'switch' },
      h('input', { type: 'checkbox', role: 'switch', checked: item.enabled, disabled: locked,
        'aria-label': `${name} starts by itself`, onchange: (e) => flip(item, e.target.checked) }),
      item.enabled ? 'on' : 'off')),
    h('td', {}, h('strong', {}, name), item.protected ? h('span', { className: 'badge' }, ' protected') : null,
      h('div', { className: 'path muted' }, item.path), item.runs ? h('div', { className: 'muted' }, `runs ${item.runs}`) : null),
    h('td', {}, kTypes[item.type] || item.type),
    h('td', { className: 'state' }, item.state, item.next ? h('div', { className: 'muted' }, `next ${item.next}`) : null),
    h('td', {}, item.origin === 'package' ? `package ${item.package}` : item.origin));
}

async function scan() {
  showBanner('');
  state.running = true;
  const progress = progressView();
  render(progress.element);
  try {
    const { result } = await runScan('startup', { all: true }, (p) => progress.update(p));
    state.items = result.items;
  } catch (error) {
    showBanner(`The startup items could not be listed: ${error.message}`);
  }
  state.running = false;
  render();
}

function render(progress) {
  if (!view) return;
  const shown = state.items ? state.items.filter((item) => state.all || item.domain === 'login' || kSwitchable.includes(item.state)) : [];
  view.replaceChildren(...[
    h('h1', {}, 'Startup'),
    h('section', { className: 'card', 'aria-label': 'List' },
      h('p', { className: 'muted' }, 'What starts by itself at login and at boot. A system unit needs root or the privileged helper; units the system needs are shown but locked.'),
      h('div', { className: 'row' },
        h('button', { className: 'primary', id: 'start-startup', disabled: state.running, onclick: scan }, state.items ? 'List again' : 'List'),
        h('label', {}, h('input', { type: 'checkbox', id: 'show-all', checked: state.all, onchange: (e) => { state.all = e.target.checked; render(); } }),
          'Also the units no one switches (static, masked, generated)')),
      progress || null),
    state.items ? h('section', { className: 'card', id: 'startup-result', 'aria-label': 'Startup items' },
      h('p', { id: 'summary' }, `${shown.length} items, ${shown.filter((i) => i.enabled).length} start by themselves.`),
      h('table', { className: 'items' },
        h('thead', {}, h('tr', {}, ['Starts', 'Item', 'Type', 'State', 'From'].map((t) => h('th', {}, t)))),
        h('tbody', {}, shown.map(row)))) : null,
  ].filter(Boolean));
}

export function show(main) {
  view = main;
  render();
  if (!state.items && !state.running) scan();
}

export function leave() {
  view = null;
}

// Duplicates: choose folders and options, search with progress, look through the groups a page
// at a time, choose what goes by a keep rule and check boxes, confirm, and see the outcome.
import { api, confirmDialog, follow, formatBytes, formatDate, h, parseSize, showBanner } from './api.js';

const kPageSize = 50;
const kPictures = /\.(jpe?g|png|gif|webp)$/i;

// Kept while the user visits other pages.
const state = {
  home: null, folders: [], roots: [], exclude: [], minSize: '0', hidden: false,
  scan: null, running: false, progress: 0, current: '', result: null, groups: [],
  page: 0, keep: 'first', selected: new Set(), outcome: null,
};
let view = null;

function bytesToGain(group) {
  return group.length > 1 ? group[0].size * (group.length - 1) : 0;
}

// The member the keep rule keeps, as the engine chooses it: the first of equals wins.
function keptIndex(group, rule) {
  let best = 0;
  group.forEach((member, i) => {
    const b = group[best];
    if (rule === 'newest' && member.modified > b.modified) best = i;
    if (rule === 'oldest' && member.modified < b.modified) best = i;
    if (rule === 'shortest-path' && member.path.length < b.path.length) best = i;
  });
  return best;
}

// Every member but the kept one of each group is chosen.
function chooseByRule() {
  state.selected = new Set();
  for (const group of state.groups) {
    const kept = keptIndex(group, state.keep);
    group.forEach((member, i) => { if (i !== kept) state.selected.add(member.path); });
  }
}

function selectionTotals() {
  let count = 0;
  let bytes = 0;
  for (const group of state.groups) {
    for (const member of group) {
      if (state.selected.has(member.path)) {
        count += 1;
        bytes += member.size;
      }
    }
  }
  return { count, bytes };
}

function takeResult(result) {
  state.result = result;
  state.groups = result.groups.filter((g) => g.length > 1);
  state.groups.sort((a, b) => bytesToGain(b) - bytesToGain(a));
  state.page = 0;
  chooseByRule();
}

async function startScan() {
  const minSize = parseSize(state.minSize);
  if (minSize === null) {
    showBanner(`Not a size: ${state.minSize}`);
    return;
  }
  showBanner('');
  state.outcome = null;
  state.result = null;
  state.groups = [];
  try {
    const body = { kind: 'dupes', roots: state.roots.length ? state.roots : [state.home], min_size: minSize,
      hidden: state.hidden, exclude: state.exclude };
    const { id } = await api('POST', '/api/scans', body);
    state.scan = id;
    state.running = true;
    state.progress = 0;
    render();
    const settled = await follow(`/api/scans/${id}/events`, (p) => {
      state.progress = p.progress;
      state.current = p.current_path;
      showProgress();
    });
    const scan = await api('GET', `/api/scans/${id}`);
    state.running = false;
    if (settled === 'failed' || !scan.result) {
      showBanner('The search failed.');
    } else {
      takeResult(scan.result);
    }
  } catch (error) {
    state.running = false;
    showBanner(`The search could not run: ${error.message}`);
  }
  render();
}

async function stopScan() {
  try {
    await api('DELETE', `/api/scans/${state.scan}`);
  } catch (error) {
    showBanner(`The search could not be stopped: ${error.message}`);
  }
}

async function deleteChosen() {
  const { count, bytes } = selectionTotals();
  if (count === 0) return;
  const yes = await confirmDialog(
    `Delete ${count} ${count === 1 ? 'file' : 'files'}?`,
    `${count} ${count === 1 ? 'copy' : 'copies'}, ${formatBytes(bytes)}, will be deleted. One member of every group stays, and each copy is compared byte for byte with the member kept just before it goes.`,
    `Delete ${count}`);
  if (!yes) return;
  try {
    const { id } = await api('POST', `/api/scans/${state.scan}/deletions`, { paths: [...state.selected], keep: state.keep });
    state.running = true;
    state.progress = 0;
    render();
    await follow(`/api/deletions/${id}/events`, (p) => {
      state.progress = p.progress;
      state.current = p.current_path;
      showProgress();
    });
    const outcome = await api('GET', `/api/deletions/${id}`);
    state.outcome = outcome;
    const gone = new Set(outcome.deleted);
    state.groups = state.groups.map((g) => g.filter((m) => !gone.has(m.path))).filter((g) => g.length > 1);
    chooseByRule();
  } catch (error) {
    showBanner(`Nothing was deleted: ${error.message}`);
  }
  state.running = false;
  render();
}

function showProgress() {
  if (!view) return;
  const bar = view.querySelector('#scan-progress');
  const current = view.querySelector('#scan-current');
  if (bar) bar.value = state.progress;
  if (current) current.textContent = state.current;
}

function rootsEditor() {
  const input = h('input', { type: 'text', id: 'root-input', placeholder: '/path/to/folder', 'aria-label': 'Folder to search', size: 40 });
  const add = (path) => {
    const text = path.trim();
    if (text && !state.roots.includes(text)) state.roots.push(text);
    render();
  };
  const picker = h('select', { id: 'root-picker', 'aria-label': 'A folder of the home folder',
    onchange: (event) => { if (event.target.value) add(event.target.value); } },
  h('option', { value: '' }, 'Add a folder of the home folder…'),
  state.folders.map((name) => h('option', { value: `${state.home}/${name}` }, name)));
  return h('div', {},
    h('div', { className: 'row' },
      h('span', {}, 'Search'),
      h('div', { className: 'chips', id: 'roots' },
        state.roots.length === 0 ? h('span', { className: 'muted' }, `the home folder (${state.home || '…'})`) : null,
        state.roots.map((root) => h('span', { className: 'chip' }, h('span', {}, root),
          h('button', { 'aria-label': `Remove ${root}`, onclick: () => { state.roots = state.roots.filter((r) => r !== root); render(); } }, '×'))))),
    h('div', { className: 'row' },
      input,
      h('button', { onclick: () => add(input.value), id: 'root-add' }, 'Add'),
      picker));
}

function optionsEditor() {
  const exclude = h('input', { type: 'text', id: 'exclude-input', placeholder: 'a folder to leave out', size: 30, 'aria-label': 'A folder to leave out' });
  return h('div', {},
    h('div', { className: 'row' },
      h('label', {}, 'Smallest file',
        h('input', { type: 'text', id: 'min-size', value: state.minSize, size: 8,
          oninput: (event) => { state.minSize = event.target.value; } })),
      h('label', {}, h('input', { type: 'checkbox', id: 'hidden', checked: state.hidden,
        onchange: (event) => { state.hidden = event.target.checked; } }), 'Enter hidden folders'),
      exclude,
      h('button', { onclick: () => { const t = exclude.value.trim(); if (t) state.exclude.push(t); render(); } }, 'Leave out')),
    state.exclude.length ? h('div', { className: 'chips' }, 'Left out:', state.exclude.map((path) => h('span', { className: 'chip' }, h('span', {}, path),
      h('button', { 'aria-label': `Keep ${path}`, onclick: () => { state.exclude = state.exclude.filter((p) => p !== path); render(); } }, '×')))) : null);
}

function memberRow(group, member, kept) {
  const isKept = member === group[kept];
  const picture = (member.kind === 'photo' || kPictures.test(member.path)) && member.kind !== 'folder';
  const box = h('input', {
    type: 'checkbox', checked: state.selected.has(member.path), disabled: isKept,
    'aria-label': isKept ? `${member.path} is kept` : `Delete ${member.path}`,
    onchange: (event) => {
      if (event.target.checked) state.selected.add(member.path);
      else state.selected.delete(member.path);
      showTotals();
    },
  });
  return h('div', { className: `member${isKept ? ' kept' : ''}` },
    box,
    picture ? h('img', { className: 'thumb', alt: '', loading: 'lazy',
      src: `/api/scans/${state.scan}/picture?path=${encodeURIComponent(member.path)}` })
      : h('div', { className: 'nothumb' }, member.kind),
    h('span', { className: 'path' }, member.path),
    h('span', { className: 'facts' }, `${formatBytes(member.size)} · ${formatDate(member.modified)}`));
}

function showTotals() {
  const { count, bytes } = selectionTotals();
  const totals = view && view.querySelector('#totals');
  if (totals) totals.textContent = `${count} chosen, ${formatBytes(bytes)}`;
  const button = view && view.querySelector('#delete-chosen');
  if (button) button.disabled = count === 0 || state.running;
}

function resultView() {
  if (!state.result) return null;
  const groups = state.groups;
  const pages = Math.max(1, Math.ceil(groups.length / kPageSize));
  state.page = Math.min(state.page, pages - 1);
  const shown = groups.slice(state.page * kPageSize, (state.page + 1) * kPageSize);
  const gain = groups.reduce((sum, g) => sum + bytesToGain(g), 0);
  const pager = () => h('div', { className: 'pager' },
    h('button', { disabled: state.page === 0, onclick: () => { state.page -= 1; render(); } }, 'Previous'),
    h('span', {}, `Groups ${groups.length ? state.page * kPageSize + 1 : 0}–${state.page * kPageSize + shown.length} of ${groups.length}`),
    h('button', { disabled: state.page >= pages - 1, onclick: () => { state.page += 1; render(); } }, 'Next'));
  return h('section', { className: 'card', id: 'result', 'aria-label': 'Duplicate groups' },
    h('p', { id: 'summary' }, `${groups.length} groups; ${formatBytes(gain)} could be freed by keeping one of each.`,
      state.result.stopped ? ' The search was stopped: only what it settled is shown.' : '',
      state.result.errors.length ? ` ${state.result.errors.length} paths could not be read.` : ''),
    h('div', { className: 'toolbar' },
      h('label', {}, 'Keep ',
        h('select', { id: 'keep-rule', onchange: (event) => { state.keep = event.target.value; chooseByRule(); render(); } },
          [['first', 'the first found'], ['newest', 'the newest'], ['oldest', 'the oldest'], ['shortest-path', 'the shortest path']]
            .map(([value, label]) => h('option', { value, selected: state.keep === value }, label)))),
      h('span', { id: 'totals' }),
      h('button', { className: 'danger', id: 'delete-chosen', onclick: deleteChosen }, 'Delete chosen…')),
    pager(),
    shown.map((group) => {
      const kept = keptIndex(group, state.keep);
      return h('div', { className: 'group' },
        h('div', { className: 'group-head' }, `${group.length} × ${formatBytes(group[0].size)}`,
          h('span', { className: 'muted' }, `${formatBytes(bytesToGain(group))} to gain`)),
        group.map((member) => memberRow(group, member, kept)));
    }),
    pages > 1 ? pager() : null);
}

function outcomeView() {
  const o = state.outcome;
  if (!o) return null;
  return h('div', { className: `outcome${o.failed.length ? ' failed' : ''}`, id: 'outcome', role: 'status' },
    `${o.deleted.length} deleted, ${formatBytes(o.bytes)} freed`,
    o.failed.length ? `; ${o.failed.length} not deleted:` : '.',
    o.failed.length ? h('ul', {}, o.failed.slice(0, 50).map((f) => h('li', {}, `${f.path}: ${f.reason}`))) : null);
}

function render() {
  if (!view) return;
  const searching = state.running;
  view.replaceChildren(...[
    h('h1', {}, 'Duplicates'),
    h('section', { className: 'card', 'aria-label': 'Search' },
      rootsEditor(),
      optionsEditor(),
      h('div', { className: 'row' },
        h('button', { className: 'primary', id: 'start-scan', disabled: searching, onclick: startScan }, 'Search'),
        h('button', { id: 'stop-scan', disabled: !searching, onclick: stopScan }, 'Stop')),
      searching ? h('div', { className: 'progress' },
        h('progress', { id: 'scan-progress', max: 1, value: state.progress, 'aria-label': 'Progress' }),
        h('div', { className: 'current', id: 'scan-current' }, state.current)) : null),
    outcomeView(),
    resultView()].filter(Boolean));
  showTotals();
}

export async function show(main) {
  view = main;
  const start = location.hash.includes('start=home');
  try {
    if (state.home === null) {
      const home = await api('GET', '/api/home');
      state.home = home.home;
      state.folders = home.folders;
    }
  } catch (error) {
    if (error.status !== 401) showBanner(`The home folder could not be read: ${error.message}`);
  }
  if (view !== main) return;
  render();
  if (start && !state.running && state.home) {
    state.roots = [];
    history.replaceState(null, '', '#/dupes');
    startScan();
  }
}

export function leave() {
  view = null;
}

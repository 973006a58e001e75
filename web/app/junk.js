// Junk: the categories with their sizes and what is inside, a box per item and per category,
// clean, and the outcome per category.
import { confirmAndDelete, formatBytes, h, outcomeBox, progressView, runScan, showBanner } from './api.js';

const kCategories = [
  ['caches', 'System caches'], ['logs', 'Logs no program writes any more'], ['trash', 'Trash'],
  ['disk_images', 'Disk images'], ['apps', 'Application caches and logs'], ['browsers', 'Browsers'],
  ['orphans', 'Left by no installed application'],
];

const state = { scan: null, result: null, items: {}, selected: new Set(), outcome: null, lines: [], running: false, open: new Set() };
let view = null;

// Each category's items: a file, or an application's group of files.
function itemsOf(result) {
  const items = {};
  for (const [key] of kCategories) {
    items[key] = (result[key] || []).map((entry) => (entry.files
      ? { key: `${key}:${entry.id}`, label: entry.id, paths: entry.files.map((f) => f.path),
        size: entry.files.reduce((sum, f) => sum + f.size, 0), files: entry.files }
      : { key: `${key}:${entry.path}`, label: entry.path, paths: [entry.path], size: entry.size }));
  }
  return items;
}

function chosen() {
  const categories = [];
  const paths = new Set();
  let bytes = 0;
  let count = 0;
  for (const [key] of kCategories) {
    const items = state.items[key];
    const picked = items.filter((item) => state.selected.has(item.key));
    if (picked.length === 0) continue;
    if (picked.length === items.length) categories.push(key);
    for (const item of picked) {
      for (const path of item.paths) {
        if (!paths.has(path)) count += 1;
        if (picked.length !== items.length) paths.add(path);
      }
      bytes += item.size;
    }
  }
  return { categories, paths: [...paths], bytes, count };
}

function categoryView([key, title]) {
  const items = state.items[key];
  const size = items.reduce((sum, item) => sum + item.size, 0);
  const picked = items.filter((item) => state.selected.has(item.key)).length;
  const box = h('input', {
    type: 'checkbox', id: `category-${key}`, checked: items.length > 0 && picked === items.length, disabled: items.length === 0,
    'aria-label': `Clean all of ${title}`,
    onclick: (e) => e.stopPropagation(),
    onchange: (e) => {
      for (const item of items) { if (e.target.checked) state.selected.add(item.key); else state.selected.delete(item.key); }
      render();
    },
  });
  box.indeterminate = picked > 0 && picked < items.length;
  const details = h('details', { className: 'category', 'data-category': key, open: state.open.has(key),
    ontoggle: (e) => { if (e.target.open) state.open.add(key); else state.open.delete(key); } },
  h('summary', {}, box, h('strong', {}, title), h('span', { className: 'muted' }, `${items.length} ${items.length === 1 ? 'item' : 'items'}, ${formatBytes(size)}`)),
  h('div', { className: 'items' }, items.length === 0 ? h('p', { className: 'muted' }, 'Nothing here.') : items.map((item) => h('div', { className: 'item' },
    h('input', { type: 'checkbox', checked: state.selected.has(item.key), 'aria-label': `Clean ${item.label}`,
      onchange: (e) => { if (e.target.checked) state.selected.add(item.key); else state.selected.delete(item.key); render(); } }),
    h('span', { className: 'path' }, item.label, item.files ? h('span', { className: 'muted' }, ` (${item.files.map((f) => f.kind).filter((v, i, a) => a.indexOf(v) === i).join(', ')}: ${item.files.length} ${item.files.length === 1 ? 'entry' : 'entries'})`) : null),
    h('span', { className: 'facts' }, formatBytes(item.size))))));
  return details;
}

async function scan() {
  showBanner('');
  state.running = true;
  state.outcome = null;
  const progress = progressView();
  render(progress.element);
  try {
    const { id, result } = await runScan('junk', {}, (p) => progress.update(p));
    state.scan = id;
    state.result = result;
    state.items = itemsOf(result);
    state.selected = new Set();
    for (const [key] of kCategories) {
      if (key === 'disk_images') continue; // a disk image is a thing someone keeps: only when asked
      for (const item of state.items[key]) state.selected.add(item.key);
    }
  } catch (error) {
    showBanner(`The junk scan could not run: ${error.message}`);
  }
  state.running = false;
  render();
}

async function clean() {
  const { categories, paths, bytes, count } = chosen();
  if (count === 0) return;
  try {
    const outcome = await confirmAndDelete(state.scan, { paths, categories, count, bytes,
      what: categories.length ? `all of ${categories.join(', ')}` : '' });
    if (!outcome) return;
    state.outcome = outcome;
    const gone = new Set(outcome.deleted);
    state.lines = [];
    for (const [key, title] of kCategories) {
      const items = state.items[key].filter((item) => state.selected.has(item.key));
      if (items.length === 0) continue;
      const went = items.filter((item) => item.paths.every((p) => gone.has(p)));
      state.lines.push(`${title}: ${went.length} of ${items.length} cleaned, ${formatBytes(went.reduce((s, i) => s + i.size, 0))}`);
      state.items[key] = state.items[key].filter((item) => !went.includes(item));
    }
    state.selected = new Set([...state.selected].filter((k) => Object.values(state.items).some((list) => list.some((i) => i.key === k))));
  } catch (error) {
    showBanner(`Nothing was cleaned: ${error.message}`);
  }
  render();
}

function render(progress) {
  if (!view) return;
  const { bytes, count } = state.result ? chosen() : { bytes: 0, count: 0 };
  view.replaceChildren(...[
    h('h1', {}, 'Junk'),
    h('section', { className: 'card', 'aria-label': 'Scan' },
      h('p', { className: 'muted' }, 'Caches that are rebuilt, logs no program writes any more, the trash, disk images in your home folder, and what applications keep but can do without.'),
      h('div', { className: 'row' }, h('button', { className: 'primary', id: 'start-junk', disabled: state.running, onclick: scan }, 'Scan')),
      progress || null),
    state.outcome ? outcomeBox(state.outcome, state.lines) : null,
    state.result ? h('section', { className: 'card', id: 'junk-result', 'aria-label': 'Junk found' },
      h('div', { className: 'toolbar' },
        h('span', { id: 'totals' }, `${count} chosen, ${formatBytes(bytes)}`),
        h('button', { className: 'danger', id: 'clean', disabled: count === 0, onclick: clean }, 'Clean…')),
      kCategories.map(categoryView)) : null,
  ].filter(Boolean));
}

export function show(main) {
  view = main;
  render();
  if (location.hash.includes('start=1') && !state.running) {
    history.replaceState(null, '', '#/junk');
    scan();
  }
}

export function leave() {
  view = null;
}

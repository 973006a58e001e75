// Space: where the home folder's space goes, as a treemap measured once by the engine (click a
// folder to go down, the path bar to go up), and the largest files as a table to choose from.
import { confirmAndDelete, formatBytes, h, outcomeBox, parseSize, progressView, runScan, showBanner } from './api.js';

const state = { folder: '', minSize: '10M', scan: null, result: null, path: [], selected: new Set(), outcome: null, running: false };
let view = null;

function currentNode() {
  return state.path[state.path.length - 1];
}

function nodeLabel(node) {
  return node.smaller ? `${node.smaller} smaller items` : node.name;
}

function treemap() {
  const node = currentNode();
  const box = h('div', { id: 'treemap', className: 'treemap', role: 'group', 'aria-label': `Space in ${node.name}` });
  const bar = h('nav', { className: 'pathbar', 'aria-label': 'Folders above' },
    state.path.map((step, i) => h('button', {
      disabled: i === state.path.length - 1,
      onclick: () => { state.path = state.path.slice(0, i + 1); render(); },
    }, step.name)));
  requestAnimationFrame(() => layout(box, node));
  return h('section', { className: 'card', 'aria-label': 'Where the space goes' },
    h('h2', {}, `${formatBytes(node.size)} in ${node.name}`), bar, box);
}

function layout(box, node) {
  const width = box.clientWidth;
  const height = box.clientHeight;
  if (!width || !height) return;
  // One level at a time: the folder's entries are the tiles, each as large as what it holds.
  const root = d3.hierarchy({ top: true, children: node.children || [] }, (d) => (d.top ? d.children : null))
    .sum((d) => (d.top ? 0 : d.size));
  d3.treemap().size([width, height]).paddingInner(2).round(true)(root);
  const tiles = (root.children || []).filter((leaf) => leaf.x1 - leaf.x0 >= 1 && leaf.y1 - leaf.y0 >= 1);
  box.replaceChildren(...tiles.map((leaf, i) => {
    const d = leaf.data;
    const isFolder = Array.isArray(d.children);
    const tile = h(isFolder ? 'button' : 'div', {
      className: `tile${isFolder ? ' folder' : ''}${d.smaller ? ' smaller' : ''}`,
      title: `${nodeLabel(d)}: ${formatBytes(d.size)}`,
      'data-name': d.name,
      onclick: isFolder ? () => { state.path.push(d); render(); } : undefined,
    }, h('span', { className: 'tile-name' }, nodeLabel(d)), h('span', { className: 'tile-size' }, formatBytes(d.size)));
    tile.style.left = `${leaf.x0}px`;
    tile.style.top = `${leaf.y0}px`;
    tile.style.width = `${leaf.x1 - leaf.x0}px`;
    tile.style.height = `${leaf.y1 - leaf.y0}px`;
    tile.style.setProperty('--hue', String((i * 47) % 360));
    return tile;
  }));
}

function totals() {
  let bytes = 0;
  for (const f of state.result.files) if (state.selected.has(f.path)) bytes += f.size;
  return { count: state.selected.size, bytes };
}

function filesTable() {
  const files = state.result.files;
  const { count, bytes } = totals();
  return h('section', { className: 'card', 'aria-label': 'Largest files' },
    h('h2', {}, `The ${files.length} largest files`),
    h('div', { className: 'toolbar' },
      h('span', { id: 'totals' }, `${count} chosen, ${formatBytes(bytes)}`),
      h('button', { className: 'danger', id: 'delete-chosen', disabled: count === 0 || state.running, onclick: deleteChosen }, 'Delete chosen…')),
    h('table', { className: 'files' },
      h('tbody', {}, files.map((f) => h('tr', {},
        h('td', {}, h('input', { type: 'checkbox', checked: state.selected.has(f.path), 'aria-label': `Delete ${f.path}`,
          onchange: (e) => { if (e.target.checked) state.selected.add(f.path); else state.selected.delete(f.path); render(); } })),
        h('td', { className: 'path' }, f.path),
        h('td', { className: 'facts' }, formatBytes(f.size)))))));
}

async function deleteChosen() {
  const { count, bytes } = totals();
  try {
    const outcome = await confirmAndDelete(state.scan, { paths: [...state.selected], count, bytes });
    if (!outcome) return;
    state.outcome = outcome;
    const gone = new Set(outcome.deleted);
    state.result.files = state.result.files.filter((f) => !gone.has(f.path));
    state.selected = new Set();
  } catch (error) {
    showBanner(`Nothing was deleted: ${error.message}`);
  }
  render();
}

async function measure() {
  const minSize = parseSize(state.minSize);
  if (minSize === null) {
    showBanner(`Not a size: ${state.minSize}`);
    return;
  }
  showBanner('');
  state.running = true;
  state.outcome = null;
  const progress = progressView();
  render(progress.element);
  try {
    const options = { min_size: minSize, count: 200, tree: true };
    if (state.folder.trim()) options.root = state.folder.trim();
    const { id, result } = await runScan('large', options, (p) => progress.update(p));
    state.scan = id;
    state.result = result;
    state.path = [result.tree];
    state.selected = new Set();
  } catch (error) {
    showBanner(`The folder could not be measured: ${error.message}`);
  }
  state.running = false;
  render();
}

function render(progress) {
  if (!view) return;
  view.replaceChildren(...[
    h('h1', {}, 'Space'),
    h('section', { className: 'card', 'aria-label': 'Measure' },
      h('div', { className: 'row' },
        h('label', {}, 'Folder ', h('input', { type: 'text', id: 'space-folder', value: state.folder, placeholder: 'the home folder', size: 30,
          oninput: (e) => { state.folder = e.target.value; } })),
        h('label', {}, 'List files from ', h('input', { type: 'text', id: 'space-min', value: state.minSize, size: 6,
          oninput: (e) => { state.minSize = e.target.value; } })),
        h('button', { className: 'primary', id: 'start-space', disabled: state.running, onclick: measure }, 'Measure')),
      progress || null),
    state.outcome ? outcomeBox(state.outcome) : null,
    state.result && state.result.tree ? treemap() : null,
    state.result ? filesTable() : null,
  ].filter(Boolean));
}

export function show(main) {
  view = main;
  render();
  if (location.hash.includes('start=1') && !state.running) {
    history.replaceState(null, '', '#/space');
    measure();
  }
}

export function leave() {
  view = null;
}

window.addEventListener('resize', () => { if (view && state.result) render(); });

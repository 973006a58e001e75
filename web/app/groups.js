// A page of groups of files to choose from and delete: an installed application's files, or what
// a removed one left. Each page gives the scan to run and how its result reads as groups.
import { confirmAndDelete, formatBytes, h, outcomeBox, progressView, runScan, showBanner } from './api.js';

export function groupsPage({ title, intro, kind, options, groupsOf, empty, id, deletable = () => true }) {
  const state = { scan: null, groups: null, selected: new Set(), outcome: null, running: false, open: new Set() };
  let view = null;

  function totals() {
    let bytes = 0;
    for (const group of state.groups) for (const f of group.files) if (state.selected.has(f.path)) bytes += f.size;
    return { count: state.selected.size, bytes };
  }

  function groupView(group) {
    const free = group.files.filter(deletable);
    const picked = free.filter((f) => state.selected.has(f.path)).length;
    const box = h('input', { type: 'checkbox', checked: free.length > 0 && picked === free.length,
      disabled: free.length === 0, 'aria-label': `Delete all of ${group.title}`,
      onclick: (e) => e.stopPropagation(),
      onchange: (e) => {
        for (const f of free) { if (e.target.checked) state.selected.add(f.path); else state.selected.delete(f.path); }
        render();
      } });
    box.indeterminate = picked > 0 && picked < free.length;
    const size = group.files.reduce((sum, f) => sum + f.size, 0);
    return h('details', { className: 'category', 'data-group': group.key, open: state.open.has(group.key),
      ontoggle: (e) => { if (e.target.open) state.open.add(group.key); else state.open.delete(group.key); } },
    h('summary', {}, box,
      group.icon
        ? h('img', { className: 'app-icon', alt: '', width: 32, height: 32, src: `/api/scans/${state.scan}/icon?app=${encodeURIComponent(group.key)}` })
        : h('span', { className: 'app-icon', 'aria-hidden': 'true' }, (group.title || '?').slice(0, 1).toUpperCase()),
      h('strong', {}, group.title),
      group.subtitle ? h('span', { className: 'muted' }, group.subtitle) : null,
      h('span', { className: 'muted' }, `${group.files.length} ${group.files.length === 1 ? 'file' : 'files'}, ${formatBytes(size)}`)),
    h('div', { className: 'items' }, group.files.length === 0 ? h('p', { className: 'muted' }, 'No files found.') : group.files.map((f) => h('div', { className: 'item' },
      h('input', { type: 'checkbox', checked: state.selected.has(f.path), 'aria-label': `Delete ${f.path}`,
        disabled: !deletable(f), title: deletable(f) ? undefined : 'Settings and data stay while the application is installed',
        onchange: (e) => { if (e.target.checked) state.selected.add(f.path); else state.selected.delete(f.path); render(); } }),
      h('span', { className: 'badge' }, f.kind),
      h('span', { className: 'path' }, f.path),
      h('span', { className: 'facts' }, formatBytes(f.size))))));
  }

  async function scan() {
    showBanner('');
    state.running = true;
    state.outcome = null;
    const progress = progressView();
    render(progress.element);
    try {
      const { id: scanId, result } = await runScan(kind, options, (p) => progress.update(p));
      state.scan = scanId;
      state.groups = groupsOf(result);
      state.selected = new Set();
    } catch (error) {
      showBanner(`The scan could not run: ${error.message}`);
    }
    state.running = false;
    render();
  }

  async function remove() {
    const { count, bytes } = totals();
    try {
      const outcome = await confirmAndDelete(state.scan, { paths: [...state.selected], count, bytes });
      if (!outcome) return;
      state.outcome = outcome;
      const gone = new Set(outcome.deleted);
      for (const group of state.groups) group.files = group.files.filter((f) => !gone.has(f.path));
      state.selected = new Set([...state.selected].filter((p) => !gone.has(p)));
    } catch (error) {
      showBanner(`Nothing was deleted: ${error.message}`);
    }
    render();
  }

  function render(progress) {
    if (!view) return;
    const { count, bytes } = state.groups ? totals() : { count: 0, bytes: 0 };
    const total = state.groups ? state.groups.reduce((s, g) => s + g.size, 0) : 0;
    view.replaceChildren(...[
      h('h1', {}, title),
      h('section', { className: 'card', 'aria-label': 'Scan' },
        h('p', { className: 'muted' }, intro),
        h('div', { className: 'row' }, h('button', { className: 'primary', id: `start-${id}`, disabled: state.running, onclick: scan }, 'Scan')),
        progress || null),
      state.outcome ? outcomeBox(state.outcome) : null,
      state.groups ? h('section', { className: 'card', id: `${id}-result`, 'aria-label': title },
        h('p', { id: 'summary' }, state.groups.length === 0 ? empty : `${state.groups.length} in all, ${formatBytes(total)}.`),
        h('div', { className: 'toolbar' },
          h('span', { id: 'totals' }, `${count} chosen, ${formatBytes(bytes)}`),
          h('button', { className: 'danger', id: 'delete-chosen', disabled: count === 0, onclick: remove }, 'Delete chosen…')),
        state.groups.map(groupView)) : null,
    ].filter(Boolean));
  }

  return {
    show(main) {
      view = main;
      render();
      if (location.hash.includes('start=1') && !state.running) {
        history.replaceState(null, '', `#/${id}`);
        scan();
      }
    },
    leave() {
      view = null;
    },
  };
}

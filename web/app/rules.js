// Rules: what the rule document compiles to, where the files of one identifier are looked for,
// and a document of your own checked before it is used.
import { api, h, showBanner } from './api.js';

const state = { id: '', document: '', report: null, running: false };
let view = null;

async function ask() {
  showBanner('');
  state.running = true;
  render();
  try {
    state.report = state.document.trim()
      ? await api('POST', '/api/rules/check', { document: state.document, for: state.id })
      : await api('GET', `/api/rules?for=${encodeURIComponent(state.id)}`);
  } catch (error) {
    state.report = null;
    showBanner(`The rules could not be read: ${error.message}`);
  }
  state.running = false;
  render();
}

function servedTable(title, nodes) {
  return h('div', {},
    h('h2', {}, `${title} (${nodes.length} paths)`),
    h('table', { className: 'items' }, h('tbody', {}, nodes.map((n) => h('tr', {},
      h('td', {}, h('span', { className: 'badge' }, n.kind)),
      h('td', { className: 'path' }, n.path),
      h('td', { className: 'muted' }, `node ${n.node}, priority ${n.priority}`))))));
}

function reportView(report) {
  const kinds = Object.entries(report.rules).map(([kind, count]) => `${count} ${kind}`).join(', ');
  return h('section', { className: 'card', id: 'rules-result', 'aria-label': 'What the rules say' },
    h('p', { id: 'summary' }, `Rules: ${kinds}.`),
    h('table', { className: 'items' }, h('tbody', {}, Object.entries(report.nodes).map(([root, count]) => h('tr', {},
      h('td', { className: 'path' }, root), h('td', {}, `${count} nodes`))))),
    report.shadowed.length ? h('div', {}, h('h2', {}, `${report.shadowed.length} paths shut out by paths compiled before them`),
      h('ul', {}, report.shadowed.map((s) => h('li', {}, `${s.key}: ${s.path}`)))) : null,
    report.for ? servedTable(`What serves ${report.for.id} as the uninstaller scans`, report.for.nodes) : null,
    report.for ? servedTable('As the clean-up scans junk (caches and logs)', report.for.junk) : null);
}

function render() {
  if (!view) return;
  view.replaceChildren(...[
    h('h1', {}, 'Rules'),
    h('section', { className: 'card', 'aria-label': 'Ask' },
      h('p', { className: 'muted' }, 'The rule document tells where each application keeps its files. Name an identifier to see where its files are looked for; paste a document to check it instead of the one built in.'),
      h('div', { className: 'row' },
        h('label', {}, 'Identifier ', h('input', { type: 'text', id: 'rules-for', value: state.id, size: 30, placeholder: 'org.videolan.vlc',
          oninput: (e) => { state.id = e.target.value; } })),
        h('button', { className: 'primary', id: 'show-rules', disabled: state.running, onclick: ask }, 'Show')),
      h('textarea', { id: 'rules-document', rows: 6, 'aria-label': 'A rule document to check', placeholder: 'A rule document (YAML) to check; empty for the one built in',
        oninput: (e) => { state.document = e.target.value; } }, state.document)),
    state.report ? reportView(state.report) : null,
  ].filter(Boolean));
}

export function show(main) {
  view = main;
  render();
  if (!state.report && !state.running) ask();
}

export function leave() {
  view = null;
}

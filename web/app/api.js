// What every page shares: requests to the server, its event streams, and how numbers read.

export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

const banner = () => document.getElementById('banner');

export function showBanner(text) {
  banner().textContent = text;
  banner().hidden = !text;
}

// A JSON request to the API; the cookie set by the printed address carries the token.
export async function api(method, path, body) {
  const options = { method, headers: {}, credentials: 'same-origin' };
  if (body !== undefined) {
    options.headers['Content-Type'] = 'application/json';
    options.body = JSON.stringify(body);
  }
  const response = await fetch(path, options);
  const text = await response.text();
  let data = null;
  try {
    data = text ? JSON.parse(text) : null;
  } catch {
    data = null;
  }
  if (response.status === 401) {
    showBanner('This page has no token: open the address that "ravelin serve" printed.');
  }
  if (!response.ok) throw new ApiError(response.status, (data && data.error) || response.statusText);
  return data;
}

// Follows a job's events until it settles; `onProgress` gets {progress, current_path}. Resolves
// with the settled state.
export function follow(path, onProgress) {
  return new Promise((resolve, reject) => {
    const source = new EventSource(path);
    source.addEventListener('progress', (event) => onProgress(JSON.parse(event.data)));
    source.addEventListener('finished', (event) => {
      source.close();
      resolve(JSON.parse(event.data).state);
    });
    source.onerror = () => {
      source.close();
      reject(new ApiError(0, 'the connection to the server was lost'));
    };
  });
}

// Sizes as the engine's reports write them: powers of 1000.
export function formatBytes(bytes) {
  const units = ['bytes', 'KB', 'MB', 'GB', 'TB', 'PB'];
  let value = Number(bytes);
  if (!Number.isFinite(value) || value < 0) return '?';
  if (value < 1000) return `${value} ${value === 1 ? 'byte' : 'bytes'}`;
  let unit = 0;
  while (value >= 1000 && unit < units.length - 1) {
    value /= 1000;
    unit += 1;
  }
  return `${value.toFixed(value < 10 ? 1 : 0)} ${units[unit]}`;
}

export function formatDate(seconds) {
  if (!seconds) return '';
  return new Date(seconds * 1000).toLocaleString(undefined, {
    year: 'numeric', month: 'short', day: 'numeric', hour: '2-digit', minute: '2-digit',
  });
}

// A size typed by a person: "4096", "10K", "1.5M", "2G" (powers of 1024), "10MB" (powers of
// 1000). Null for anything else.
export function parseSize(text) {
  const match = /^\s*(\d+(?:\.\d+)?)\s*([kmgt]?)(i?b)?\s*$/i.exec(text);
  if (!match) return null;
  const power = ' kmgt'.indexOf(match[2].toLowerCase() || ' ');
  const decimal = match[3] && match[3].toLowerCase() === 'b' && match[2] !== '';
  return Math.round(Number(match[1]) * (decimal ? 1000 : 1024) ** power);
}

// An element with attributes and children; text is always text, never markup.
export function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith('on')) element.addEventListener(key.slice(2), value);
    else if (key === 'className') element.className = value;
    else if (value === true) element.setAttribute(key, '');
    else element.setAttribute(key, value);
  }
  for (const child of children.flat()) {
    if (child === null || child === undefined || child === false) continue;
    element.append(child instanceof Node ? child : String(child));
  }
  return element;
}

// Asks before a destructive step; resolves true for yes.
export function confirmDialog(title, text, action) {
  const dialog = document.getElementById('confirm');
  document.getElementById('confirm-title').textContent = title;
  document.getElementById('confirm-text').textContent = text;
  document.getElementById('confirm-ok').textContent = action;
  dialog.returnValue = '';
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => resolve(dialog.returnValue === 'ok'), { once: true });
  });
}

// Starts a scan of `kind`, follows it, and resolves with {id, state, result}.
export async function runScan(kind, options, onProgress) {
  const { id } = await api('POST', '/api/scans', { kind, ...options });
  const state = await follow(`/api/scans/${id}/events`, onProgress);
  const scan = await api('GET', `/api/scans/${id}`);
  return { id, state, result: scan.result };
}

// Asks, then deletes `paths` (and `categories` of junk) named by scan `scanId`; resolves with the
// outcome, or null when the user said no.
export async function confirmAndDelete(scanId, { paths = [], categories = [], count, bytes, what, extra = {} }) {
  const yes = await confirmDialog(
    `Delete ${count} ${count === 1 ? 'item' : 'items'}?`,
    `${count} ${count === 1 ? 'item' : 'items'}${what ? ` (${what})` : ''}, ${formatBytes(bytes)}, will be deleted: first with your rights, then through the privileged helper for what you may not delete, if it is installed.`,
    `Delete ${count}`);
  if (!yes) return null;
  const body = { ...extra };
  if (paths.length) body.paths = paths;
  if (categories.length) body.categories = categories;
  const { id } = await api('POST', `/api/scans/${scanId}/deletions`, body);
  await follow(`/api/deletions/${id}/events`, () => {});
  return api('GET', `/api/deletions/${id}`);
}

// The outcome of a deletion, as a box of its own.
export function outcomeBox(outcome, lines = []) {
  const failed = outcome.failed || [];
  return h('div', { className: `outcome${failed.length ? ' failed' : ''}`, id: 'outcome', role: 'status' },
    `${outcome.deleted.length} deleted, ${formatBytes(outcome.bytes)} freed`,
    failed.length ? `; ${failed.length} not deleted:` : '.',
    lines.length ? h('ul', {}, lines.map((line) => h('li', {}, line))) : null,
    failed.length ? h('ul', {}, failed.slice(0, 50).map((f) => h('li', {}, `${f.path}: ${f.reason}`))) : null);
}

// A progress bar with the path being read, for a scan that runs.
export function progressView() {
  const bar = h('progress', { max: 1, value: 0, id: 'scan-progress', 'aria-label': 'Progress' });
  const current = h('div', { className: 'current', id: 'scan-current' });
  const element = h('div', { className: 'progress' }, bar, current);
  return {
    element,
    update(p) {
      bar.value = p.progress;
      current.textContent = p.current_path;
    },
  };
}

// The overview: the start-up disk, processors, memory and network as live charts, sensors, and
// the scans to start.
import { api, formatBytes, h, showBanner } from './api.js';

const kWindow = 60; // seconds shown
let source = null;
let charts = [];
let onResize = null;

const palette = ['#2f6f8f', '#d1793a', '#5c9e4a', '#9a5fb0', '#c4a23a', '#3a9ec4', '#c4553a', '#6b7b8c'];

function cssColor(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim() || '#888';
}

function makeChart(element, series, format) {
  const axis = { stroke: cssColor('--muted'), grid: { stroke: cssColor('--line'), width: 1 },
    ticks: { stroke: cssColor('--line') } };
  const options = {
    width: Math.max(200, element.clientWidth),
    height: 160,
    legend: { show: true, live: false },
    cursor: { show: false },
    scales: { x: { time: true }, y: { range: format.range } },
    axes: [axis, { ...axis, size: 70, values: (u, values) => values.map(format.tick) }],
    series: [{}, ...series.map((label, i) => ({
      label, stroke: palette[i % palette.length], width: 1.5,
      value: (u, v) => (v === null || v === undefined ? '-' : format.tick(v)),
    }))],
  };
  const data = [[], ...series.map(() => [])];
  const plot = new uPlot(options, data, element);
  const chart = {
    plot, data, element,
    push(time, values) {
      data[0].push(time);
      values.forEach((v, i) => data[i + 1].push(v));
      while (data[0].length > 0 && data[0][0] < time - kWindow) data.forEach((column) => column.shift());
      plot.setData(data);
    },
  };
  charts.push(chart);
  return chart;
}

const percent = { range: [0, 100], tick: (v) => `${Math.round(v)} %` };
const rate = { range: (u, min, max) => [0, Math.max(1000, (max || 0) * 1.2)], tick: (v) => `${formatBytes(Math.round(v))}/s` };

function card(title, ...children) {
  return h('section', { className: 'card', 'aria-label': title }, h('h2', {}, title), ...children);
}

export async function show(main) {
  const diskBar = h('div');
  const diskLegend = h('div', { className: 'legend' });
  const cpuChart = h('div', { className: 'chart', id: 'cpu-chart' });
  const memoryChart = h('div', { className: 'chart', id: 'memory-chart' });
  const networkChart = h('div', { className: 'chart', id: 'network-chart' });
  const memoryText = h('p', { className: 'muted' });
  const sensors = h('div', { id: 'sensors' });
  const freed = h('p', { className: 'muted', id: 'freed', role: 'status' });
  const helper = h('div', { id: 'helper' }, h('p', { className: 'muted' }, 'Asking the helper…'));
  const freeButton = h('button', { id: 'free-memory', onclick: async () => {
    freeButton.disabled = true;
    freed.textContent = 'Freeing memory…';
    try {
      const out = await api('POST', '/api/monitor/free-memory', {});
      freed.textContent = `Free memory ${formatBytes(out.free_before)} before, ${formatBytes(out.free_after)} after.`;
    } catch (error) {
      freed.textContent = `Memory could not be freed: ${error.message}`;
    }
    freeButton.disabled = false;
  } }, 'Free memory');
  const processors = h('p', { className: 'muted' });
  main.append(
    h('h1', {}, 'Overview'),
    h('div', { className: 'grid' },
      card('Start-up disk', h('div', { className: 'bar', role: 'img', id: 'disk-bar' }, diskBar), diskLegend),
      card('Scans',
        h('p', { className: 'muted' }, 'Look for what takes space and can go.'),
        h('div', { className: 'scan-buttons' },
          h('button', { className: 'primary', id: 'start-dupes', onclick: () => { location.hash = '#/dupes?start=home'; } },
            'Find duplicates in the home folder'),
          h('button', { onclick: () => { location.hash = '#/dupes'; } }, 'Choose folders…'),
          h('button', { id: 'start-space', onclick: () => { location.hash = '#/space?start=1'; } }, 'Where the space goes'),
          h('button', { id: 'start-junk', onclick: () => { location.hash = '#/junk?start=1'; } }, 'Find junk'),
          h('button', { onclick: () => { location.hash = '#/apps?start=1'; } }, 'Applications and their files'),
          h('button', { onclick: () => { location.hash = '#/leftovers?start=1'; } }, 'Leftovers of removed applications'),
          h('button', { onclick: () => { location.hash = '#/startup'; } }, 'What starts by itself'))),
      card('Processors', processors, cpuChart),
      card('Memory', memoryText, memoryChart, h('div', { className: 'row' }, freeButton), freed),
      card('Network', networkChart),
      card('Sensors', sensors),
      card('Privileged helper', helper)));
  api('GET', '/api/helper').then((status) => {
    helper.replaceChildren(...[
      h('p', {}, status.installed ? `Installed${status.installed_version ? `, version ${status.installed_version}` : ''}.` : 'Not installed: what your rights refuse stays, and system units can\'t be switched.'),
      h('p', { className: 'muted' }, status.answers ? 'It answers.' : 'It doesn\'t answer.'),
      status.installed ? null : h('p', { className: 'muted' }, 'Install it with: ravelin helper install')].filter(Boolean));
  }).catch((error) => {
    if (error.status !== 401) helper.replaceChildren(h('p', { className: 'muted' }, `Its status could not be read: ${error.message}`));
  });

  try {
    const [disk, snapshot] = await Promise.all([api('GET', '/api/disk'), api('GET', '/api/monitor')]);
    const used = disk.total - disk.free;
    diskBar.style.width = `${disk.total > 0 ? (100 * used) / disk.total : 0}%`;
    diskBar.parentElement.setAttribute('aria-label', `${formatBytes(used)} used of ${formatBytes(disk.total)}`);
    diskLegend.replaceChildren(
      h('span', {}, `${formatBytes(used)} used`),
      h('span', {}, `${formatBytes(disk.free)} free of ${formatBytes(disk.total)}${disk.ssd ? ', solid state' : ''}`));
    processors.textContent = `${snapshot.cpu.length} processors, busy share of each`;
    showSensors(sensors, snapshot);
    const cpu = makeChart(cpuChart, snapshot.cpu.map((_, i) => `cpu${i}`), percent);
    const memory = makeChart(memoryChart, ['used'], percent);
    const network = makeChart(networkChart, ['in', 'out'], rate);
    if (snapshot.memory) {
      memoryText.textContent = `${formatBytes(snapshot.memory.total)} in all`;
    }
    source = new EventSource('/api/monitor/events');
    source.addEventListener('snapshot', (event) => {
      const s = JSON.parse(event.data);
      const now = Date.now() / 1000;
      cpu.push(now, s.cpu);
      if (s.memory) memory.push(now, [(100 * (s.memory.total - s.memory.free)) / s.memory.total]);
      if (s.network) network.push(now, [s.network.in, s.network.out]);
      main.dataset.snapshots = String(Number(main.dataset.snapshots || 0) + 1);
    });
    onResize = () => charts.forEach((c) => c.plot.setSize({ width: Math.max(200, c.element.clientWidth), height: 160 }));
    window.addEventListener('resize', onResize);
  } catch (error) {
    if (error.status !== 401) showBanner(`The overview could not be read: ${error.message}`);
  }
}

function showSensors(element, snapshot) {
  const rows = [];
  if (snapshot.cpu_temperature >= 0) rows.push(h('p', {}, `Processor ${snapshot.cpu_temperature.toFixed(1)} °C`));
  snapshot.fans.forEach((fan, i) => {
    rows.push(h('p', {}, `Fan ${i + 1}: ${fan.actual < 0 ? '?' : Math.round(fan.actual)} rpm`));
  });
  if (rows.length === 0) rows.push(h('p', { className: 'muted' }, 'This machine reports no temperature or fan sensors.'));
  element.replaceChildren(...rows);
}

export function leave() {
  if (source) source.close();
  source = null;
  charts.forEach((c) => c.plot.destroy());
  charts = [];
  if (onResize) window.removeEventListener('resize', onResize);
  onResize = null;
}

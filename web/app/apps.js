// Applications: every installed application, its size and its files by kind.
import { formatBytes } from './api.js';
import { groupsPage } from './groups.js';

const page = groupsPage({
  id: 'apps',
  title: 'Applications',
  intro: 'Every installed application, with the files it keeps (caches, logs, settings, support files) found and measured. Its caches and logs can go; its settings and data stay while it is installed.',
  kind: 'apps',
  options: { files: true },
  // Its caches and logs; its settings and data stay while it is installed.
  deletable: (file) => file.kind === 'cache' || file.kind === 'log',
  empty: 'No installed applications were found.',
  groupsOf: (result) => result.apps
    .map((app) => ({
      key: app.id,
      icon: Boolean(app.icon),
      title: app.names[0] || app.id,
      subtitle: `${app.id}${app.organization ? ` by ${app.organization}` : ''}; the application itself ${formatBytes(app.appSize)}`,
      files: [...app.files].sort((a, b) => (a.kind === b.kind ? b.size - a.size : a.kind < b.kind ? -1 : 1)),
      size: app.size,
    }))
    .sort((a, b) => b.size - a.size),
});

export const { show, leave } = page;

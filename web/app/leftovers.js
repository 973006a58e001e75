// Leftovers: what applications that are no longer installed left behind.
import { groupsPage } from './groups.js';

const page = groupsPage({
  id: 'leftovers',
  title: 'Leftovers',
  intro: 'What applications that are no longer installed left behind. Nothing an installed application owns is listed.',
  kind: 'leftovers',
  options: {},
  empty: 'Nothing is left over.',
  groupsOf: (result) => result.leftovers
    .map((entry) => ({ key: entry.id, title: entry.id, files: entry.files, size: entry.size }))
    .sort((a, b) => b.size - a.size),
});

export const { show, leave } = page;

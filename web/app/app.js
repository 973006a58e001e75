// The pages and the address bar: "#/overview", "#/space", "#/dupes", "#/junk", "#/apps",
// "#/leftovers", "#/startup", "#/rules". Each page module gives `show(main)`
// and may give `leave()` to close its streams.
import * as overview from './overview.js';
import * as dupes from './dupes.js';
import * as space from './space.js';
import * as junk from './junk.js';
import * as apps from './apps.js';
import * as leftovers from './leftovers.js';
import * as startup from './startup.js';
import * as rules from './rules.js';
import { showBanner } from './api.js';

const pages = { overview, space, dupes, junk, apps, leftovers, startup, rules };
let current = null;

function route() {
  const name = (location.hash.replace(/^#\//, '').split('?')[0]) || 'overview';
  const page = pages[name] || overview;
  if (current && current.leave) current.leave();
  current = page;
  for (const link of document.querySelectorAll('nav a')) {
    if (link.dataset.page === name) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
  const main = document.getElementById('main');
  main.replaceChildren();
  showBanner('');
  page.show(main);
  main.focus();
}

window.addEventListener('hashchange', route);
route();

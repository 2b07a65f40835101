// Asks the agent every two seconds and shows what it says. While the page is not seen it asks seldom.

import {get, poll} from './api.js';
import {announce, byId, setText} from './dom.js';
import {Explorer} from './explorer.js';
import {Figures} from './figures.js';
import {Finder} from './finder.js';
import {clock, duration} from './format.js';
import {History} from './history.js';
import {Overview} from './overview.js';
import {Selection} from './selection.js';

const PAUSE_MS = 2000;
const UNSEEN_PAUSE_MS = 30000;
const LONGEST_PAUSE_MS = 15000;  // after failures
const ROUNDS_OF_SEARCH = 4;  // from one look for new metrics and series to the next

const past = new History();
const selection = new Selection(() => onSelection());
const explorer = new Explorer(selection, past, () => storeAddress());
const finder = new Finder((metric, added) => explorer.choose(metric, added));
const overview = new Overview((name) => {
  byId('find').value = name;
  finder.chooseFirst();
  byId('metrics').scrollIntoView();
});
const figures = new Figures();

let agentAhead = 0;  // its clock, against that of the browser
let failures = 0;
let lastAnswer = null;
let rounds = 0;
let timer = null;
let asking = false;
let askAgain = false;

const agentNow = () => Date.now() + agentAhead;

async function askPoints() {
  const {ids} = selection;
  past.keep(ids);
  if (ids.length === 0) return;
  const parameters = ids.map((id) => ['id', id]);
  parameters.push(['since_ms', String(Math.floor(past.since(ids, agentNow())))]);
  past.take(await get('points', parameters), ids);
  selection.complete(past);
}

async function ask() {
  const {body: status, fresh} = await poll('status');
  if (fresh) agentAhead = status.agent.now_ms - Date.now();
  overview.show(status, agentNow());
  figures.show(status);
  if (rounds++ % ROUNDS_OF_SEARCH === 0) await Promise.all([finder.refresh(), explorer.refresh()]);
  await askPoints();
  explorer.tick(agentNow());
}

function showContact(failure) {
  const node = byId('contact');
  node.classList.toggle('bad', failure !== null);
  document.body.classList.toggle('stale', failure !== null);
  if (failure === null) {
    setText(node, 'live');
    return;
  }
  const since = lastAnswer === null ? '' : ` since ${clock(lastAnswer)}, ${duration(Date.now() - lastAnswer)}`;
  const why = failure.name === 'TimeoutError' ? '' : ` (${failure.message})`;
  setText(node, `The agent does not answer${since}${why}`);
}

async function round() {
  if (asking) {
    askAgain = true;
    return;
  }
  asking = true;
  askAgain = false;
  clearTimeout(timer);
  try {
    await ask();
    if (failures > 0) announce('The agent answers again.');
    failures = 0;
    lastAnswer = Date.now();
    showContact(null);
  } catch (failure) {
    if (++failures === 1) announce('The agent does not answer.');
    showContact(failure);
  }
  asking = false;
  if (askAgain) {
    round();
    return;
  }
  const pause = Math.min(PAUSE_MS * 2 ** Math.max(0, failures - 1), LONGEST_PAUSE_MS);
  timer = setTimeout(round, document.hidden ? UNSEEN_PAUSE_MS : pause);
}

function storeAddress() {
  const parts = new URLSearchParams();
  if (selection.items.length > 0) parts.set('plot', selection.text);
  if (explorer.range !== 300) parts.set('range', String(explorer.range));
  const text = parts.toString().replaceAll('%2C', ',');
  history.replaceState(null, '', location.pathname + (text === '' ? '' : `?${text}`) + location.hash);
}

function onSelection() {
  storeAddress();
  explorer.draw();
  round();
}

function restore() {
  const parts = new URLSearchParams(location.search);
  explorer.setRange(Number(parts.get('range') ?? 300));
  selection.restore(parts.get('plot') ?? '');
}

document.addEventListener('visibilitychange', () => {
  if (!document.hidden) round();
});
restore();
round();

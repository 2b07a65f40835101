// The search over all metrics.

import {get} from './api.js';
import {byId, el, reconcile, setText} from './dom.js';
import {count, visible} from './format.js';
import {BAND, timerPart} from './lines.js';

const PAGE = 100;
const PAUSE_MS = 150;  // while somebody types

// Timers that are ten gauges become one result, if the gauges of a band are among them.
function grouped(metrics) {
  const stems = new Map();
  for (const metric of metrics) {
    const part = timerPart(metric.name);
    if (part === null) continue;
    const key = `${metric.tenant} ${part.stem}`;
    stems.set(key, (stems.get(key) ?? new Set()).add(part.column));
  }
  const made = new Map();
  for (const metric of metrics) {
    const part = timerPart(metric.name);
    const columns = part && stems.get(`${metric.tenant} ${part.stem}`);
    if (part && BAND.every((column) => columns.has(column))) {
      const joint = metric.name[part.stem.length];
      made.set(`${metric.tenant} ${part.stem}`, {
        ...metric, name: part.stem, kind: 'timer', parts: BAND.map((column) => part.stem + joint + column),
      });
    } else {
      made.set(`${metric.tenant} ${metric.name} ${metric.kind}`, metric);
    }
  }
  return [...made.values()];
}

export class Finder {
  // `choose` gets a metric and whether it is added to those that are plotted.
  constructor(choose) {
    this.choose = choose;
    this.input = byId('find');
    this.list = byId('results');
    this.metrics = [];
    this.asked = 0;  // counts searches: an answer that is overtaken is left out
    this.waits = false;  // for the answer to the last one
    this.input.addEventListener('input', () => {
      clearTimeout(this.timer);
      this.timer = setTimeout(() => this.search(), PAUSE_MS);
    });
    this.input.addEventListener('keydown', (event) => this.onInputKey(event));
    this.list.addEventListener('keydown', (event) => this.onListKey(event));
    byId('more').addEventListener('click', () => this.search(this.metrics.length));
    document.addEventListener('keydown', (event) => {
      const typing = event.target.closest('input, textarea, select');
      if (event.key !== '/' || typing || event.ctrlKey || event.metaKey || event.altKey) return;
      event.preventDefault();
      this.input.focus();
      this.input.select();
    });
  }

  // Searches again, as metrics come and go, but not while somebody looks at more than the first page, and never
  // instead of a search that somebody waits for.
  async refresh() {
    if (!this.waits && this.metrics.length <= PAGE) await this.search();
  }

  async search(offset = 0) {
    const asked = ++this.asked;
    this.waits = true;
    const text = this.input.value.trim();
    let answer;
    try {
      answer = await get('metrics', {search: text, limit: PAGE, offset});
    } catch (failure) {
      if (asked !== this.asked) return false;
      this.waits = false;
      setText(byId('found'), `No answer: ${failure.message}`);
      return false;
    }
    if (asked !== this.asked) return false;
    this.waits = false;
    this.metrics = offset === 0 ? answer.metrics : [...this.metrics, ...answer.metrics];
    this.show(answer.total, text);
    return true;
  }

  show(total, text) {
    const metrics = grouped(this.metrics);
    setText(byId('found'), total === 0 ? (text === '' ? 'No metrics yet' : 'No metric has that in its name')
                                       : `${count(total)} ${total === 1 ? 'metric' : 'metrics'}`);
    byId('more').hidden = this.metrics.length >= total;
    reconcile(this.list, metrics, (m) => JSON.stringify([m.tenant, m.name, m.kind]), () => this.makeLine(),
              (line, metric) => this.update(line, metric));
  }

  makeLine() {
    const line = el('li');
    line.append(
      el('button', {type: 'button', className: 'name', onclick: () => this.choose(line.metric, false)}),
      el('span', {className: 'muted'}),
      el('button', {type: 'button', className: 'add', text: '+', onclick: () => this.choose(line.metric, true)}));
    return line;
  }

  update(line, metric) {
    const [name, about, add] = line.children;
    line.metric = metric;
    setText(name, visible(metric.name));
    name.title = metric.tenant ? `of ${visible(metric.tenant)}` : '';
    setText(about, `${visible(metric.kind).replace('_', ' ')} · ${count(metric.series)}`);
    add.setAttribute('aria-label', `Add ${visible(metric.name)} to the plot`);
  }

  onInputKey(event) {
    if (event.key === 'ArrowDown') {
      event.preventDefault();
      this.list.querySelector('.name')?.focus();
    } else if (event.key === 'Enter') {
      this.chooseFirst();
    }
  }

  async chooseFirst() {
    clearTimeout(this.timer);
    if (await this.search()) this.list.querySelector('.name')?.click();
  }

  onListKey(event) {
    const step = {ArrowDown: 'nextElementSibling', ArrowUp: 'previousElementSibling'}[event.key];
    if (step === undefined) return;
    event.preventDefault();
    const next = event.target.closest('li')[step];
    (next?.querySelector(`.${event.target.classList[0]}`) ?? this.input).focus();
  }
}

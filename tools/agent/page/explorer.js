// The plots of the series that were chosen, and the series of the metric that was opened last.

import {get} from './api.js';
import {byId, el, reconcile, setText} from './dom.js';
import {clock, count, duration, labels, number, visible} from './format.js';
import {HeatMap} from './heatmap.js';
import {Legend} from './legend.js';
import {isHistogram, linesOf} from './lines.js';
import {courseOf, heatOf} from './course.js';
import {Plot} from './plot.js';
import {itemOf, timersOf} from './selection.js';

const RANGES = [[60, '1 min'], [300, '5 min'], [900, '15 min'], [3600, '1 h']];
const AT_ONCE = 8;  // series that are plotted when a metric is opened
const BANDS_AT_ONCE = 2;  // of timers: more of them hide each other
const LISTED = 50;
const COLORS = 8;

export class Explorer {
  constructor(selection, history, changed) {
    this.selection = selection;
    this.history = history;
    this.changed = changed;
    this.range = 300;
    this.log = false;
    this.cursor = null;
    this.zoomed = false;
    this.form = '';  // of what is plotted
    this.asked = 0;  // counts questions for series: an answer that is overtaken is left out
    this.waits = false;  // for the answer to the last one
    this.now = Date.now();
    this.colors = new Map();  // key of a line -> index
    this.maps = new Map();  // key of an item -> HeatMap
    this.plot = new Plot(byId('plot'), (time) => this.point(time), (zoomed) => this.zoom(zoomed));
    this.legend = new Legend(byId('legend'), ({item}) => selection.remove(item.key),
                             ({item, at, grows}) => {
                               item.grows = {...item.grows, [at]: !grows};
                               this.draw();
                             });
    this.makeTools();
    byId('narrow').addEventListener('input', () => {
      clearTimeout(this.timer);
      this.timer = setTimeout(() => this.list(), 150);
    });
    addEventListener('resize', () => this.draw());
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.draw());
  }

  makeTools() {
    for (const [seconds, text] of RANGES) {
      byId('ranges').append(el('label', {}, el('input', {
        type: 'radio', name: 'range', value: seconds, checked: seconds === this.range,
        onchange: () => this.setRange(seconds),
      }), el('span', {text})));
    }
    byId('scale').addEventListener('click', () => {
      this.log = !this.log;
      byId('scale').setAttribute('aria-pressed', String(this.log));
      this.draw();
    });
    byId('follow').addEventListener('click', () => {
      this.plot.drop();
      this.zoom(false);
    });
    byId('clear').addEventListener('click', () => this.selection.replace([]));
  }

  setRange(seconds) {
    if (!RANGES.some(([known]) => known === seconds)) return;
    this.range = seconds;
    for (const input of byId('ranges').querySelectorAll('input')) input.checked = input.value === String(seconds);
    this.changed();
    this.draw();
  }

  zoom(zoomed) {
    this.zoomed = zoomed;
    byId('follow').hidden = !zoomed;
    if (!zoomed) this.draw();
  }

  // --- the series of a metric ---

  // Plots the first series of a metric, and lists all of them if there are more.
  async choose(metric, added) {
    this.metric = metric;
    clearTimeout(this.timer);
    byId('narrow').value = '';
    const listed = await this.list();
    if (listed === null) return;
    const items = listed.slice(0, metric.kind === 'timer' ? BANDS_AT_ONCE : AT_ONCE);
    if (added) {
      this.selection.add(items);
    } else {
      this.selection.replace(items);
    }
  }

  async ask(metric, search) {
    const of = (name) => get('series', {metric: name, search, limit: LISTED, offset: 0});
    if (metric.parts) {
      const answers = await Promise.all(metric.parts.map(of));
      return {total: answers[0].total, items: timersOf(metric.name, answers)};
    }
    const answer = await of(metric.name);
    return {total: answer.total, items: answer.series.map((one) => ({...itemOf(one), ...one}))};
  }

  // Lists them again, as values change and series come and go.
  async refresh() {
    if (this.metric !== undefined && !this.waits) await this.list();
  }

  async list() {
    const {metric} = this;
    const asked = ++this.asked;
    this.waits = true;
    let answer;
    try {
      answer = await this.ask(metric, byId('narrow').value.trim());
    } catch (failure) {
      if (asked !== this.asked) return null;
      this.waits = false;
      setText(byId('left-out'), `No answer: ${failure.message}`);
      return null;
    }
    if (asked !== this.asked) return null;
    this.waits = false;
    const {total, items} = answer;
    for (const item of items) item.news = this.now - item.age_ms;
    byId('others').hidden = byId('narrow').value === '' && total <= 1;
    setText(byId('others-title'), `Series of ${visible(metric.name)}`);
    setText(byId('left-out'), total > items.length ? `${count(total - items.length)} more: narrow them down by a label` : '');
    this.listed = items;
    this.showListed();
    return items;
  }

  showListed() {
    reconcile(byId('series'), this.listed ?? [], ({key}) => key, () => this.makeLine(), (line, item) => {
      line.item = item;
      const [box, of, value, age] = line.children;
      box.checked = this.selection.has(item.key);
      setText(of, labels(item.labels) || visible(item.name));
      const histogram = isHistogram(item);
      setText(value, histogram ? '' : (item.values ?? []).slice(0, 3).map(number).join(' · '));
      setText(age, `${duration(this.now - item.news)} ago`);
    });
  }

  makeLine() {
    const line = el('label', {className: 'series'});
    const box = el('input', {type: 'checkbox', onchange: () => {
      if (box.checked) {
        this.selection.add([line.item]);
      } else {
        this.selection.remove(line.item.key);
      }
    }});
    line.append(box, el('span', {className: 'name'}), el('span', {className: 'number'}),
                el('span', {className: 'number muted'}));
    return line;
  }

  // --- the plots ---

  colorOf(key) {
    if (!this.colors.has(key)) {
      const taken = new Set(this.colors.values());
      let free = 0;
      while (taken.has(free) && free < COLORS - 1) ++free;
      this.colors.set(key, taken.has(free) ? this.colors.size % COLORS : free);
    }
    return getComputedStyle(document.documentElement).getPropertyValue(`--color-${this.colors.get(key)}`).trim();
  }

  // All lines of the selection with their points.
  lines() {
    const rows = [];
    for (const item of this.selection.items) {
      const series = this.history.get(item.ids[0]);
      if (series === undefined) continue;
      for (const line of linesOf(item, series.columns)) {
        const points = courseOf(item, line, this.history);
        rows.push({...line, item, points, color: this.colorOf(line.key), time: series.points.at(-1)?.[0]});
      }
    }
    return rows;
  }

  draw() {
    const newest = this.selection.ids.map((id) => this.history.get(id)?.points.at(-1)?.[0] ?? 0);
    const end = Math.max(this.now, ...newest);
    const shown = [end - this.range * 1000, end];
    for (const key of this.colors.keys()) {
      if (!this.selection.items.some((item) => key.startsWith(item.key))) this.colors.delete(key);
    }
    const rows = this.lines();
    byId('empty').hidden = this.selection.items.length > 0;
    byId('clear').hidden = this.selection.items.length === 0;
    // A plot that was zoomed stands until another one is wanted.
    const form = JSON.stringify([rows.map(({key, grows}) => [key, grows]), this.log, this.range]);
    if (this.zoomed && form !== this.form) {
      this.zoomed = false;
      this.plot.drop();
    }
    this.form = form;
    byId('follow').hidden = !this.zoomed;
    if (!this.zoomed) this.plot.show(rows, shown, this.log);
    const maps = this.drawMaps(shown);
    this.rows = [...rows, ...maps];
    this.legend.show(this.rows, this.cursor, this.now);
    this.showReach(shown);
    this.showListed();
  }

  drawMaps(shown) {
    const items = this.selection.items.filter((item) => isHistogram(item) && this.history.get(item.key));
    for (const [key, map] of this.maps) {
      if (items.some((item) => item.key === key)) continue;
      map.node.remove();
      this.maps.delete(key);
    }
    return items.map((item) => {
      if (!this.maps.has(item.key)) this.maps.set(item.key, new HeatMap(byId('heatmaps'), item));
      const series = this.history.get(item.key);
      const {buckets, columns} = heatOf(series);
      this.maps.get(item.key).show(buckets, columns, shown);
      const points = columns.filter(({to}) => to > shown[0])
        .map(({to, counts}) => [to, counts.reduce((all, one) => all + one, 0)]);
      return {key: item.key, item, column: 'samples', color: 'var(--heat)', points, isMap: true,
              time: series.points.at(-1)?.[0]};
    });
  }

  // How far back the plot goes, while that is less than what is shown.
  showReach([from]) {
    const first = Math.min(...this.selection.ids.map((id) => this.history.get(id)?.points[0]?.[0] ?? Infinity));
    setText(byId('reach'), Number.isFinite(first) && first > from + 5000 ? `since ${clock(first)}` : '');
  }

  point(time) {
    this.cursor = time;
    this.legend.show(this.rows ?? [], time, this.now);
  }

  tick(now) {
    this.now = now;
    this.draw();
  }
}

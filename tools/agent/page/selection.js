// The series that are plotted. An item is {key, ids, name, kind, labels, grows}: one series, or the
// three gauges of a timer's band. The address of the page holds them, so a reload keeps the plot.

import {BAND, timerPart} from './lines.js';

export const MOST_IDS = 64;  // that the agent answers at a time

export class Selection {
  constructor(changed) {
    this.items = [];
    this.changed = changed;
  }

  get ids() {
    return this.items.flatMap(({ids}) => ids);
  }

  has(key) {
    return this.items.some((item) => item.key === key);
  }

  // Those that are there already, or for which there is no room, are left out.
  add(items) {
    for (const item of items) {
      if (!this.has(item.key) && this.ids.length + item.ids.length <= MOST_IDS) this.items.push(item);
    }
    this.changed();
  }

  replace(items) {
    this.items = [];
    this.add(items);
  }

  remove(key) {
    this.items = this.items.filter((item) => item.key !== key);
    this.changed();
  }

  get text() {
    return this.items.map(({key}) => key).join(',');
  }

  // From the text; the names follow with the first points.
  restore(text) {
    const keys = text.split(',').filter((key) => /^[0-9a-f]+(-[0-9a-f]+){0,2}$/i.test(key));
    this.replace(keys.map((key) => ({key, ids: key.split('-'), name: '', kind: '', labels: {}})));
  }

  // Takes names and kinds from what the agent has answered. Items that it does not know go.
  complete(history) {
    for (const item of this.items.filter(({kind}) => kind === '')) {
      const parts = item.ids.map((id) => history.get(id));
      if (parts.every(Boolean)) {
        const {name, kind, labels} = parts[0];
        const isTimer = parts.length > 1;
        Object.assign(item, {name: isTimer ? timerPart(name)?.stem ?? name : name, labels,
                             kind: isTimer ? 'timer' : kind});
      }
    }
    if (this.items.some(({kind}) => kind === '')) {
      this.items = this.items.filter(({kind}) => kind !== '');
      this.changed();
    }
  }
}

export function itemOf(series) {
  const {id, name, kind, labels} = series;
  return {key: id, ids: [id], name, kind, labels};
}

// From the series of the metrics of BAND: a timer for all that have the same labels.
export function timersOf(stem, answers) {
  const byLabels = answers.map(({series}) =>
    new Map(series.map((one) => [JSON.stringify(one.labels), one])));
  const made = [];
  for (const [labels, first] of byLabels[0]) {
    const parts = byLabels.map((map) => map.get(labels));
    if (!parts.every(Boolean)) continue;
    const ids = parts.map(({id}) => id);
    made.push({key: ids.join('-'), ids, name: stem, kind: 'timer', labels: first.labels,
               columns: BAND, values: parts.map(({values}) => values[0]),
               time_ms: first.time_ms, age_ms: first.age_ms});
  }
  return made;
}

// The table below the plot: for each line its color, newest value or that under the cursor, least and
// greatest of the time shown, and age.

import {el, reconcile, setText} from './dom.js';
import {duration, labels, number, visible} from './format.js';

const middle = (value) => (Array.isArray(value) ? value[1] : value);

function valueText(value) {
  if (Array.isArray(value)) return value.map(number).join(' · ');
  return number(value);
}

// The newest value at that time, or of all.
function valueAt(points, time) {
  const at = time === null ? points : points.filter((point) => point[0] <= time);
  return at.at(-1)?.[1] ?? null;
}

// Those that all rows have.
function sharedLabels(rows) {
  if (rows.length < 2) return {};
  const [first, ...others] = rows.map(({item}) => item.labels);
  return Object.fromEntries(Object.entries(first).filter(([key, value]) =>
    others.every((other) => other[key] === value)));
}

export class Legend {
  // `remove` and `toggle` get a row.
  constructor(parent, remove, toggle) {
    this.remove = remove;
    this.toggle = toggle;
    const heads = ['Series', 'Value', 'Least', 'Greatest', 'Age', ''].map((text, i) =>
      el('th', {scope: 'col', text, className: i > 0 ? 'number' : ''}));
    this.body = el('tbody');
    this.table = el('table', {className: 'legend'}, el('caption', {className: 'unseen', text: 'Series plotted'}),
                    el('thead', {}, el('tr', {}, ...heads)), this.body);
    this.shared = el('p', {className: 'muted labels'});
    parent.append(this.table, this.shared);
  }

  // Labels that all of them have are said once, below. Rows are {key, item, column, color, points, grows, at, time, isMap}.
  show(rows, cursor, now) {
    this.table.hidden = rows.length === 0;
    const shared = sharedLabels(rows);
    setText(this.shared, Object.keys(shared).length > 0 ? `All have ${labels(shared)}` : '');
    reconcile(this.body, rows, ({key}) => key, () => this.makeRow(), (line, row) => {
      line.row = row;
      this.update(line, row, Object.keys(shared), cursor, now);
    });
  }

  makeRow() {
    const line = el('tr');
    const cell = (title) => el('td', {className: 'number', 'data-title': title});
    line.append(
      el('td', {className: 'name'}, el('span', {className: 'swatch', 'aria-hidden': 'true'}),
         el('span', {className: 'what'}), ' ', el('span', {className: 'muted labels'})),
      cell('Value'), cell('Least'), cell('Greatest'), cell('Age'),
      el('td', {className: 'actions'},
         el('button', {type: 'button', text: '/s', title: 'What it grows by in a second',
                       onclick: () => this.toggle(line.row)}),
         el('button', {type: 'button', text: '×', onclick: () => this.remove(line.row)})));
    return line;
  }

  update(line, row, shared, cursor, now) {
    const {item, column, color, points, grows, at, time, isMap} = row;
    const [name, value, least, greatest, age, actions] = line.cells;
    const [swatch, what, of] = name.children;
    const title = visible(item.name) + (column ? ` ${visible(column)}` : '');
    swatch.style.backgroundColor = color;
    setText(what, title + (grows ? ', per second' : ''));
    setText(of, labels(item.labels, shared));
    const values = points.map((point) => point[1]).filter((one) => Number.isFinite(middle(one)));
    const [low, high] = [0, 2].map((end) => values.map((one) => (Array.isArray(one) ? one[end] : one)));
    setText(value, isMap ? number(values.at(-1)) : valueText(valueAt(points, cursor)));
    setText(least, values.length > 0 ? number(Math.min(...low)) : '–');
    setText(greatest, values.length > 0 ? number(Math.max(...high)) : '–');
    setText(age, time === undefined ? '–' : duration(now - time));
    const [rate, remove] = actions.children;
    rate.hidden = at === undefined;
    rate.setAttribute('aria-pressed', String(Boolean(grows)));
    rate.setAttribute('aria-label', `${title} per second`);
    remove.setAttribute('aria-label', `Remove ${title} ${labels(item.labels)}`);
  }
}

// A histogram over time: a column for each interval, a row for each bucket, darker where more
// samples are.

import {el, setText} from './dom.js';
import {clock, labels, number, visible} from './format.js';
import {GUTTER} from './plot.js';

const ROW = 16;
const AXIS = 18;
const MOST_ROWS = 24;  // of full height; more of them are lower

const bounds = (buckets, i) =>
  `${number(buckets[i].from)} to ${i + 1 < buckets.length ? number(buckets[i + 1].from) : 'more'}`;

export class HeatMap {
  constructor(parent, item) {
    this.title = el('figcaption', {text: `${visible(item.name)} ${labels(item.labels)}`});
    this.canvas = el('canvas', {role: 'img'});
    this.pointed = el('p', {className: 'muted pointed'});
    this.node = el('figure', {className: 'heatmap'}, this.title, this.canvas, this.pointed);
    this.cells = [];
    this.canvas.addEventListener('mousemove', (event) => this.point(event));
    this.canvas.addEventListener('mouseleave', () => this.rest());
    parent.append(this.node);
  }

  // Buckets are {from}, the lowest first; columns are {from, to, counts}.
  show(buckets, columns, [from, to]) {
    this.buckets = buckets;
    const style = getComputedStyle(this.canvas);
    const width = this.node.clientWidth;
    const rowHeight = Math.max(2, Math.min(ROW, Math.floor(ROW * MOST_ROWS / buckets.length)));
    const height = rowHeight * buckets.length + AXIS;
    const ratio = window.devicePixelRatio || 1;
    this.canvas.width = width * ratio;
    this.canvas.height = height * ratio;
    this.canvas.style.width = `${width}px`;
    this.canvas.style.height = `${height}px`;
    const context = this.canvas.getContext('2d');
    context.scale(ratio, ratio);
    const x = (time) => GUTTER + (width - GUTTER) * (time - from) / (to - from);
    const y = (bucket) => rowHeight * (buckets.length - 1 - bucket);

    const shown = columns.filter((column) => column.to > from && column.from < to);
    const most = shown.reduce((high, {counts}) => Math.max(high, ...counts), 1);
    this.cells = [];
    context.fillStyle = style.getPropertyValue('--heat');
    for (const column of shown) {
      const left = Math.max(GUTTER, x(column.from));
      const right = Math.min(width, x(column.to));
      column.counts.forEach((count, bucket) => {
        if (!(count > 0)) return;
        context.globalAlpha = 0.08 + 0.92 * Math.sqrt(count / most);
        context.fillRect(left, y(bucket), Math.max(1, right - left - 0.5), rowHeight - 1);
        this.cells.push({left, right, top: y(bucket), bottom: y(bucket) + rowHeight, count, bucket, column});
      });
    }
    context.globalAlpha = 1;
    this.drawAxes(context, style, {buckets, rowHeight, width, from, to, x, y});
    this.newest = shown.at(-1);
    this.rest();
  }

  drawAxes(context, style, {buckets, rowHeight, width, from, to, x, y}) {
    context.fillStyle = style.color;
    context.font = `11px ${style.fontFamily}`;
    context.textAlign = 'right';
    context.textBaseline = 'middle';
    const each = Math.ceil(12 / rowHeight);
    buckets.forEach((bucket, i) => {
      if (i % each === 0) context.fillText(number(bucket.from), GUTTER - 8, y(i) + rowHeight / 2);
    });
    context.textAlign = 'center';
    const ticks = Math.max(1, Math.floor((width - GUTTER) / 130));
    for (let i = 0; i < ticks; ++i) {
      const time = from + (to - from) * (i + 0.5) / ticks;
      context.fillText(clock(time), x(time), rowHeight * buckets.length + AXIS / 2 + 1);
    }
  }

  point(event) {
    const {offsetX: x, offsetY: y} = event;
    const cell = this.cells.find(({left, right, top, bottom}) =>
      x >= left && x < right && y >= top && y < bottom);
    if (cell === undefined) {
      this.rest();
    } else {
      setText(this.pointed, `${clock(cell.column.to)}: ${number(cell.count)} from ${bounds(this.buckets, cell.bucket)}`);
    }
  }

  // What the newest column says: also for those who do not see the map.
  rest() {
    let text = 'no samples in this time';
    if (this.newest) {
      const {counts, to} = this.newest;
      const sum = counts.reduce((all, count) => all + count, 0);
      const top = counts.indexOf(Math.max(...counts));
      text = `${clock(to)}: ${number(sum)} samples` + (sum > 0 ? `, most from ${bounds(this.buckets, top)}` : '');
    }
    setText(this.pointed, text);
    this.canvas.setAttribute('aria-label', `Heat map. ${text}`);
  }
}

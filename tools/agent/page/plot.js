// Lines and bands over time, by dygraphs. Only numbers get into it: what it shows as markup, its
// legend and titles, is left out.

/* global Dygraph */

import {clock, number} from './format.js';

Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) =>
  [Dygraph.Plugins.Axes, Dygraph.Plugins.Grid].includes(plugin));

const HEIGHT = 260;
const FEW_BANDS = 2;  // more of them are paler
export const GUTTER = 58;  // for the labels at the left

const asBand = (value) => (value === null ? null : Array.isArray(value) ? value : [value, value, value]);

// The lines by their times: a row for each, null where a line has no point.
function rowsOf(lines, [from, to], bands) {
  const rows = new Map();
  lines.forEach(({points}, i) => {
    for (const [time, value] of points) {
      if (time < from || time > to) continue;
      let row = rows.get(time);
      if (row === undefined) {
        row = [new Date(time), ...lines.map(() => null)];
        rows.set(time, row);
      }
      row[i + 1] = bands ? asBand(value) : value ?? NaN;
    }
  });
  return [...rows.keys()].sort((a, b) => a - b).map((time) => rows.get(time));
}

export class Plot {
  // `onCursor` gets the time under the cursor, or null; `onZoom` is told that the plot stands.
  constructor(node, onCursor, onZoom) {
    this.node = node;
    this.onCursor = onCursor;
    this.onZoom = onZoom;
    this.graph = null;
    this.form = '';  // of the graph: it is made anew when that changes
    this.rows = [];
    this.row = null;  // under the cursor, by keyboard
    node.addEventListener('keydown', (event) => this.onKey(event));
    node.addEventListener('blur', () => this.leave());
  }

  // Lines are {key, color, points}; a value of a band is [low, middle, high].
  show(lines, range, log) {
    this.node.hidden = lines.length === 0;
    if (lines.length === 0) {
      this.drop();
      return;
    }
    this.node.style.width = '';  // which the library sets, so that it would not follow the window
    const bands = lines.some(({band}) => band);
    const style = getComputedStyle(this.node);
    const form = JSON.stringify([lines.map(({key, color, band}) => [key, color, band]), log,
                                 style.color, this.node.clientWidth]);
    this.rows = rowsOf(lines, range, bands);
    // The library wants one.
    const file = this.rows.length > 0 ? this.rows : [[new Date(range[1]), ...lines.map(() => null)]];
    if (form === this.form) {
      this.graph.updateOptions({file, dateWindow: range});
      return;
    }
    this.drop();
    this.form = form;
    this.graph = new Dygraph(this.node, file, this.options(lines, range, log, bands, style));
  }

  options(lines, range, log, bands, style) {
    const {mousedown, mousemove, mouseup, dblclick} = Dygraph.defaultInteractionModel;
    return {
      labels: ['time', ...lines.map(({key}) => key)],
      colors: lines.map(({color}) => color),
      customBars: bands,
      dateWindow: range,
      logscale: log,
      includeZero: !log,
      height: HEIGHT,
      width: this.node.clientWidth,
      connectSeparatedPoints: true,
      fillAlpha: lines.filter(({band}) => band).length > FEW_BANDS ? 0.07 : 0.2,
      strokeWidth: 1.5,
      highlightCircleSize: 3,
      yRangePad: 4,
      axisLabelFontSize: 11,
      axisLineColor: style.getPropertyValue('--line'),
      gridLineColor: style.getPropertyValue('--line'),
      gridLineWidth: 1,
      interactionModel: {mousedown, mousemove, mouseup, dblclick},
      axes: {
        x: {axisLabelFormatter: (time) => clock(time.getTime()), pixelsPerLabel: 90, axisLabelWidth: 70},
        y: {axisLabelFormatter: (value) => number(value), axisLabelWidth: GUTTER - 6, pixelsPerLabel: 36},
      },
      highlightCallback: (event, time) => this.onCursor(time),
      unhighlightCallback: () => this.onCursor(null),
      zoomCallback: () => this.onZoom(this.graph.isZoomed()),
    };
  }

  onKey(event) {
    const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    if (event.key === 'Escape') this.leave();
    if (step === undefined || this.rows.length === 0) return;
    event.preventDefault();
    const last = this.rows.length - 1;
    this.row = this.row === null ? last : Math.min(last, Math.max(0, this.row + step));
    this.graph.setSelection(this.row, undefined, false, true);
  }

  leave() {
    this.row = null;
    this.graph?.clearSelection();
    this.onCursor(null);
  }

  drop() {
    if (this.graph === null) return;
    this.graph.destroy();
    this.graph = null;
    this.form = '';
    this.row = null;
    this.onCursor(null);
  }
}

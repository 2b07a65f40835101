// The few numbers that tell at a glance how things are, each with its course of the last minutes.

import {byId, el, setText} from './dom.js';
import {count, number} from './format.js';

const MOST_VALUES = 150;
const FEWEST_VALUES = 20;  // that take the whole width
const WIDTH = 110;
const HEIGHT = 22;

const total = (list, of) => list.reduce((all, one) => all + (of(one) ?? 0), 0);

function own(status, name) {
  return status.numbers.find((one) => one.name === name)?.value ?? null;
}

function destinationsText({destinations}) {
  const away = destinations.filter(({up}) => !up).length;
  if (destinations.length === 0) return 'none';
  return away === 0 ? `${destinations.length} up` : `${away} of ${destinations.length} away`;
}

const FIGURES = [
  {title: 'Services', value: (s) => s.services.length, text: count},
  {title: 'Points a second', value: (s) => total(s.services, (one) => one.points_per_s), text: number, course: true},
  {title: 'Series', value: (s) => own(s, 'tidegate_agent_series'), text: count, course: true},
  {title: 'Destinations', value: (s) => total(s.destinations, ({up}) => (up ? 0 : 1)),
   text: (value, status) => destinationsText(status), bad: (value) => value > 0},
  {title: 'Points that wait', value: (s) => total(s.destinations, (d) => d.queue_points + (d.spool_points ?? 0)),
   text: count, course: true},
  {title: 'Dropped', value: (s) => total(s.drops, (drop) => drop.count), text: count, course: true,
   bad: (value) => value > 0},
];

function draw(canvas, values) {
  const ratio = window.devicePixelRatio || 1;
  canvas.width = WIDTH * ratio;
  canvas.height = HEIGHT * ratio;
  const context = canvas.getContext('2d');
  context.scale(ratio, ratio);
  context.strokeStyle = getComputedStyle(canvas).color;
  context.lineWidth = 1.25;
  const most = Math.max(...values, 1e-9);
  const step = WIDTH / (Math.max(values.length, FEWEST_VALUES) - 1);
  context.beginPath();
  values.forEach((value, i) => {
    context.lineTo(WIDTH - (values.length - 1 - i) * step, HEIGHT - 2 - (HEIGHT - 4) * value / most);
  });
  context.stroke();
}

export class Figures {
  constructor() {
    this.rows = FIGURES.map((figure) => {
      const value = el('dd', {className: 'value'});
      const canvas = el('canvas', {'aria-hidden': 'true'});
      byId('figures').append(el('div', {}, el('dt', {text: figure.title}), value,
                                ...(figure.course ? [el('dd', {className: 'course'}, canvas)] : [])));
      return {...figure, node: value, canvas, values: []};
    });
  }

  show(status) {
    for (const {value, text, bad, course, node, canvas, values} of this.rows) {
      const now = value(status);
      setText(node, text(now, status));
      node.classList.toggle('bad', bad?.(now) ?? false);
      if (!course) continue;
      values.push(now ?? 0);
      if (values.length > MOST_VALUES) values.shift();
      draw(canvas, values);
    }
  }
}

// What /api/status tells: tables, and the problems above them.

import {announce, byId, el, reconcile, setText, Table} from './dom.js';
import {bytes, clock, count, duration, labels, number, visible} from './format.js';

function stateOf({up, since_ms: since}, now) {
  const time = since ? duration(now - since) : '';
  return up ? {text: since ? `up for ${time}` : 'up', className: 'good', title: since ? clock(since) : ''}
            : {text: since ? `away since ${clock(since)}, ${time}` : 'away', className: 'bad'};
}

const sum = (values) => Object.values(values ?? {}).reduce((all, value) => all + value, 0);

function refusalOf({last_refusal: refusal}) {
  if (!refusal) return '–';
  const status = refusal.status ? `${refusal.status}: ` : '';
  return `${status}${visible(refusal.text)} (${clock(refusal.at_ms)})`;
}

function destinationColumns(now) {
  return [
    {title: 'Name', name: true, cell: (d) => visible(d.name)},
    {title: 'Kind', cell: (d) => visible(d.type)},
    {title: 'To', name: true, cell: (d) => visible(d.url)},
    {title: 'State', cell: (d) => stateOf(d, now())},
    {title: 'Waiting', number: true, cell: (d) => ({
      text: count(d.queue_points), title: `${bytes(d.queue_bytes)}; at most ${count(d.queue_limit_points)} points`,
    })},
    {title: 'On disk', number: true, cell: (d) => count(d.spool_points)},
    {title: 'Forwarded', number: true, cell: (d) => count(d.forwarded_points)},
    {title: 'Retried', number: true, cell: (d) => count(d.retried_points)},
    {title: 'Dropped', number: true, cell: (d) => {
      const dropped = sum(d.dropped);
      return {text: count(dropped), className: dropped > 0 ? 'bad' : ''};
    }},
    {title: 'Last refusal', name: true, cell: refusalOf},
  ];
}

const dropColumns = [
  {title: 'Lost', number: true, cell: (d) => count(d.count)},
  {title: 'Why', cell: (d) => ({text: visible(d.reason), href: d.href})},
  {title: 'Where', name: true, cell: (d) => visible(d.destination ?? '')},
  {title: 'Last', cell: (d) => (d.last_ms ? clock(d.last_ms) : '–')},
  {title: 'Meaning', cell: (d) => visible(d.help ?? '')},
  {title: 'Number', name: true, cell: (d) => visible(d.number)},
];

function serviceColumns(now) {
  return [
    {title: 'Tenant', name: true, cell: (s) => visible(s.tenant)},
    {title: 'Account', name: true, cell: (s) => visible([s.account_id, s.project_id].filter(Boolean).join(' / '))},
    {title: 'Program', name: true, cell: (s) => visible(s.name ?? '')},
    {title: 'Process', number: true, cell: (s) => (s.pid ? String(s.pid) : '–')},
    {title: 'Slot', number: true, cell: (s) => (s.slot ?? '–') + ''},
    {title: 'Points/s', number: true, cell: (s) => number(s.points_per_s)},
    {title: 'Interval', number: true, cell: (s) => (s.interval_s ? `${number(s.interval_s)} s` : '–')},
    {title: 'Last packet', number: true, cell: (s) => {
      const age = now() - s.last_packet_ms;
      const late = s.interval_s && age > 3000 * s.interval_s;
      return {text: `${duration(age)} ago`, className: late ? 'bad' : '', title: clock(s.last_packet_ms)};
    }},
  ];
}

const pairs = (values) => Object.entries(values ?? {}).map(([name, value]) => ({name, value}));

export class Overview {
  // `open` is called with the name of a metric that somebody chose.
  constructor(open) {
    this.open = open;
    this.now = Date.now();
    this.away = new Map();  // name of a destination -> since when
    const clockOfAgent = () => this.now;
    this.destinations = new Table(byId('destinations'), 'Destinations', destinationColumns(clockOfAgent),
                                  'Points go nowhere but to this page and /metrics.');
    this.drops = new Table(byId('dropped'), 'Everything that was dropped', dropColumns,
                           'Nothing was dropped.');
    this.services = new Table(byId('services'), 'Connected services', serviceColumns(clockOfAgent),
                              'No service is connected.');
    this.rules = new Table(byId('rules'), 'Rules', [
      {title: 'Rule', name: true, cell: (r) => visible(r.name)},
      {title: 'Action', cell: (r) => visible(r.action)},
      {title: 'Matched', number: true, cell: (r) => count(r.matched)},
      {title: 'Idle', number: true, cell: (r) => (r.idle_s === null ? '–' : duration(r.idle_s * 1000))},
    ], 'There are no rules.');
    this.collisions = new Table(byId('collisions'), 'Names that collide', [
      {title: 'When', cell: (c) => clock(c.at_ms)},
      {title: 'What', name: true, cell: (c) => visible(c.text)},
    ], 'No names collide.');
    this.settings = new Table(byId('settings'), 'Settings in effect', [
      {title: 'Setting', name: true, cell: (s) => visible(s.name)},
      {title: 'Value', name: true, cell: (s) => visible(s.value)},
    ], 'None.');
    const numbers = el('details', {}, el('summary', {text: 'Show all'}));
    byId('numbers').append(numbers);
    this.numbers = new Table(numbers, 'The agent\'s own numbers', [
      {title: 'Name', name: true, cell: (n) => visible(n.name)},
      {title: 'Labels', name: true, cell: (n) => labels(n.labels)},
      {title: 'Value', number: true, cell: (n) => count(n.value)},
    ], 'None.');
    this.top = el('ol', {className: 'top'});
    byId('top').append(this.top);
  }

  show(status, now) {
    const {agent} = status;
    this.now = now;
    setText(byId('agent'), `${visible(agent.host)} · ${visible(agent.version)} · process ${agent.pid} · ` +
                               `up for ${duration(agent.uptime_s * 1000)}`);
    document.title = `${visible(agent.host)}: tidegate-agent`;
    this.destinations.show(status.destinations, (d) => d.name, (d) => (d.up ? '' : 'is-bad'));
    this.drops.show(status.drops, (d) => [d.number, d.reason, d.destination].join(), () => 'is-bad');
    this.services.show(status.services,
                       (s) => [s.tenant, s.account_id, s.project_id, s.pid, s.slot, s.name].join());
    this.rules.show(status.rules, (r) => r.name);
    this.collisions.show(status.collisions, (c) => c.text);
    this.settings.show(pairs(status.settings), (s) => s.name);
    this.numbers.show(status.numbers, (n) => n.name + labels(n.labels));
    this.showTop(status.top_metrics);
    this.showAlarms(status);
  }

  showTop(metrics) {
    const most = Math.max(1, ...metrics.map(({series}) => series));
    reconcile(this.top, metrics, ({name, tenant}) => `${tenant} ${name}`, ({name, tenant}) =>
      el('li', {}, el('button', {type: 'button', className: 'name', text: visible(name), title: visible(tenant),
                                 onclick: () => this.open(name)}),
         el('meter', {min: 0, 'aria-hidden': 'true'}), el('span', {className: 'number'})),
    (line, {series}) => {
      const [, meter, text] = line.children;
      meter.max = most;
      meter.value = series;
      setText(text, `${count(series)} series`);
    });
  }

  showAlarms({destinations, drops}) {
    const alarms = destinations.filter(({up}) => !up).map((d) => ({
      key: `away ${d.name}`,
      to: '#destinations',
      text: `${visible(d.name)} is ${stateOf(d, this.now).text}; ` +
            `${count(d.queue_points + (d.spool_points ?? 0))} points wait` +
            (d.last_refusal ? `: ${visible(d.last_refusal.text)}` : ''),
    }));
    const lost = drops.reduce((all, drop) => all + drop.count, 0);
    if (lost > 0) alarms.push({key: 'dropped', to: '#dropped', text: `${count(lost)} dropped since the start`});
    reconcile(byId('alarms'), alarms, ({key}) => key,
              ({to}) => el('li', {}, el('a', {href: to})),
              (line, {text}) => setText(line.firstElementChild, text));
    this.announceChanges(destinations);
  }

  announceChanges(destinations) {
    for (const {name, up, last_refusal: refusal} of destinations) {
      const since = this.away.get(name);
      if (!up && since === undefined) {
        this.away.set(name, this.now);
        announce(`Destination ${visible(name)} is away. ${refusal ? visible(refusal.text) : ''}`);
      } else if (up && since !== undefined) {
        this.away.delete(name);
        announce(`Destination ${visible(name)} is up again, after ${duration(this.now - since)}.`);
      }
    }
  }
}

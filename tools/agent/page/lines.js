// What is drawn of a series: which numbers of its points, as lines or bands over time.

// Ends the names of the ten gauges that a timer can be.
const TIMER_GAUGE = /^(.*[._]timer)[._](min|max|avg|sum|counter|pct50|pct90|pct95|pct99|pct999)$/;
// Of a timer: the lower end, the line and the upper end of its band.
export const BAND = ['pct50', 'pct95', 'pct99'];

// {stem, column} of the name of a gauge that is a part of a timer, or null.
export function timerPart(name) {
  const match = TIMER_GAUGE.exec(name);
  return match && {stem: match[1], column: match[2]};
}

export const isHistogram = (item) => item.kind === 'histogram';

// The totals among the kinds: drawn as what they grow by in a second.
function growsByDefault(item) {
  switch (item.kind) {
    case 'counter': return true;
    case 'meter': return !/[._]rate$/.test(item.name);
    case 'delta_counter': return true;
    default: return false;
  }
}

// The lines of an item of the selection: {key, column, band, grows}. `band` has three columns.
export function linesOf(item, columns) {
  if (isHistogram(item)) return [];
  if (item.kind === 'timer') return [{key: item.key, column: 'pct50 to pct99', band: BAND}];
  const several = columns.length > 1;
  return columns.map((column) => ({
    key: several ? `${item.key} ${column}` : item.key,
    column: several ? column : '',
    at: column,
    grows: item.grows?.[column] ?? growsByDefault(item),
  }));
}

// The differences of a total by the seconds between its points. A total that falls has begun anew.
export function growth(points) {
  const made = [];
  for (let i = 1; i < points.length; ++i) {
    const [time, value] = points[i];
    const [before, last] = points[i - 1];
    const known = value !== null && last !== null && value >= last && time > before;
    made.push([time, known ? (value - last) * 1000 / (time - before) : NaN]);
  }
  return made;
}

// A silence that is much longer than the usual time between points ends the line.
export function withGaps(points, gap) {
  if (points.length < 3) return points;
  const steps = points.slice(1).map(([time], i) => time - points[i][0]).sort((a, b) => a - b);
  const long = Math.max(3 * steps[Math.floor(steps.length / 2)], 5000);
  const made = [];
  for (const point of points) {
    const last = made[made.length - 1];
    if (last && point[0] - last[0] > long) made.push([last[0] + 1, gap]);
    made.push(point);
  }
  return made;
}

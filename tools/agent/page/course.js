// From the points of series to what is drawn: the course of a line, and the columns of a heat map.

import {BAND, growth, withGaps} from './lines.js';

// The numbers of one column, as [time, value].
function columnOf(series, name) {
  const at = series.columns.indexOf(name);
  return series.points.map((point) => [point[0], point[1 + at]]);
}

// Three courses as one of bands. Times that not all of them have are left out.
function bandOf(courses) {
  const [middle, high] = courses.slice(1).map((course) => new Map(course));
  return courses[0]
    .filter(([time, value]) => [value, middle.get(time), high.get(time)].every(Number.isFinite))
    .map(([time, low]) => [time, [low, middle.get(time), high.get(time)]]);
}

export function courseOf(item, line, history) {
  const series = item.ids.map((id) => history.get(id));
  if (line.band) {
    if (!series.every(Boolean)) return [];
    const courses = series.length > 1 ? series.map((one) => columnOf(one, one.columns[0]))
                                      : BAND.map((name) => columnOf(series[0], name));
    return withGaps(bandOf(courses), [NaN, NaN, NaN]);
  }
  const points = columnOf(series[0], line.at ?? line.column).map(([time, value]) => [time, value ?? NaN]);
  return withGaps(line.grows ? growth(points) : points, NaN);
}

const BUCKET = /^(?:hist:)?b-(.*)$/;

// {buckets: [{from}], columns: [{from, to, counts}]}: what came into each bucket between two points.
export function heatOf({columns, points}) {
  const found = columns.map((name, i) => ({match: BUCKET.exec(name), at: i + 1}))
    .filter(({match}) => match !== null)
    .map(({match, at}) => ({from: Number(match[1]), at}))
    .sort((a, b) => a.from - b.from);
  const made = [];
  for (let i = 1; i < points.length; ++i) {
    const counts = found.map(({at}) => points[i][at] - points[i - 1][at]);
    // Totals that fall have begun anew.
    if (counts.every((one) => one >= 0)) made.push({from: points[i - 1][0], to: points[i][0], counts});
  }
  return {buckets: found, columns: made};
}

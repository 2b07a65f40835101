// The points of the series that are plotted, as far back as the page shows any.

export const REACH_MS = 3600e3;
const MOST_POINTS = 4000;  // of one series
const ASK_AGAIN_MS = 10000;  // points can come late
const LONGEST_INTERVAL_MS = 60e3;  // of a service; the point of an interval comes after its end

export class History {
  constructor() {
    this.series = new Map();  // id -> {name, kind, labels, columns, points}
    this.asked = new Set();  // ids of the last question, also those that the agent does not know
    this.answered = 0;  // when the agent did so last, by its clock
  }

  // Takes an answer of /api/points to a question for these.
  take(answer, ids) {
    this.asked = new Set(ids);
    this.answered = answer.now_ms;
    for (const {id, name, kind, labels, columns, points} of answer.series) {
      const before = this.series.get(id);
      const same = before && before.columns.join() === columns.join();
      const kept = same ? before.points : [];
      this.series.set(id, {name, kind, labels, columns, points: merged(kept, points, answer.now_ms)});
    }
  }

  // Forgets all but these.
  keep(ids) {
    for (const id of [...this.asked].filter((one) => !ids.includes(one))) {
      this.asked.delete(id);
      this.series.delete(id);
    }
  }

  get(id) {
    return this.series.get(id);
  }

  // From when on /api/points is to be asked: a series that is new needs all that the agent has. One
  // that is silent or gone does not make it send again what the others had since.
  since(ids, now) {
    if (!ids.every((id) => this.asked.has(id))) return Math.max(0, now - REACH_MS);
    const ends = ids.map((id) => this.series.get(id)?.points.at(-1)?.[0] ?? 0);
    return Math.max(Math.min(now, ...ends), this.answered - 2 * LONGEST_INTERVAL_MS) - ASK_AGAIN_MS;
  }
}

// Both in the order of their times. Of two points of one time the later report counts.
function merged(old, fresh, now) {
  if (fresh.length === 0) return old;
  const from = fresh[0][0];
  const times = new Map();
  for (const point of old.filter(([time]) => time >= from)) times.set(point[0], point);
  for (const point of fresh) times.set(point[0], point);
  const tail = [...times.values()].sort((a, b) => a[0] - b[0]);
  return [...old.filter(([time]) => time < from && time > now - REACH_MS), ...tail].slice(-MOST_POINTS);
}

// Numbers, times and foreign texts as the page shows them.

const STEPS = [[1e12, 'T'], [1e9, 'G'], [1e6, 'M'], [1e4, 'k', 1e3]];

// Four digits at most; null and undefined are numbers that JSON cannot say.
export function number(value) {
  if (value === null || value === undefined || Number.isNaN(value)) return '–';
  const size = Math.abs(value);
  for (const [from, letter, by = from] of STEPS) {
    if (size >= from) return trimmed(value / by) + letter;
  }
  if (size !== 0 && size < 1e-3) return value.toExponential(2);
  return trimmed(value);
}

function trimmed(value) {
  if (Number.isInteger(value)) return String(value);
  return String(Number(value.toPrecision(4)));
}

// Whole, with groups of three.
export function count(value) {
  return Number.isFinite(value) ? value.toLocaleString('en').replaceAll(',', '\u2009') : '–';
}

export function bytes(value) {
  if (!Number.isFinite(value)) return '–';
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    ++unit;
  }
  return `${trimmed(unit === 0 ? value : Number(value.toPrecision(3)))} ${units[unit]}`;
}

export function duration(ms) {
  if (!Number.isFinite(ms)) return '–';
  const seconds = Math.max(0, Math.round(ms / 1000));
  if (seconds < 120) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  if (minutes < 120) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  if (hours < 48) return `${hours} h ${minutes % 60} min`;
  return `${Math.floor(hours / 24)} d ${hours % 24} h`;
}

const pad = (part) => String(part).padStart(2, '0');

// In the zone of the browser, without the date if it is of today.
export function clock(ms) {
  const time = new Date(ms);
  const text = `${pad(time.getHours())}:${pad(time.getMinutes())}:${pad(time.getSeconds())}`;
  if (time.toDateString() === new Date().toDateString()) return text;
  return `${time.getFullYear()}-${pad(time.getMonth() + 1)}-${pad(time.getDate())} ${text}`;
}

const UNSEEN = /[\u0000-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g;

// A foreign text in which nothing hides: characters without a shape, and those that turn the
// direction of what follows, become \u{202e}.
export function visible(text) {
  return String(text).replace(UNSEEN, (c) => `\\u{${c.charCodeAt(0).toString(16)}}`);
}

export function labels(values, without = []) {
  const parts = Object.entries(values ?? {})
    .filter(([key]) => !without.includes(key))
    .map(([key, value]) => `${visible(key)}="${visible(value)}"`);
  return parts.join(' ');
}

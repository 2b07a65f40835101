// What the page is made of. All texts are set as texts: nothing that a service sends is markup.

export const byId = (id) => document.getElementById(id);

export function el(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.startsWith('on')) {
      made.addEventListener(name.slice(2), value);
    } else if (name === 'text') {
      made.textContent = value;
    } else if (name === 'className' || typeof value === 'boolean') {
      made[name] = value;
    } else {
      made.setAttribute(name, value);
    }
  }
  made.append(...children);
  return made;
}

// Only if it differs: the text that somebody selects stays selected.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

// Makes the children of `parent` those of `items`, by their keys. Elements that stay keep the focus.
// Of items with one key each gets its own child, in their order.
export function reconcile(parent, items, keyOf, make, update) {
  const old = new Map([...parent.children].map((child) => [child.dataset.key, child]));
  const seen = new Set();
  let at = parent.firstElementChild;
  for (const item of items) {
    let key = String(keyOf(item));
    while (seen.has(key)) key += ' again';
    seen.add(key);
    let child = old.get(key);
    old.delete(key);
    if (child === undefined) {
      child = make(item);
      child.dataset.key = key;
    }
    if (child === at) {
      at = at.nextElementSibling;
    } else {
      parent.insertBefore(child, at);
    }
    update(child, item);
  }
  for (const child of old.values()) child.remove();
}

// Only documents that the agent has.
function safeLink(href) {
  return typeof href === 'string' && /^docs\/[a-z_]+\.md/.test(href) ? href : null;
}

function updateCell(cell, value) {
  const {text, className = '', href, title} = typeof value === 'object' ? value : {text: value};
  if (cell.className !== cell.dataset.base + className) cell.className = cell.dataset.base + className;
  if (title !== undefined && cell.title !== title) cell.title = title;
  const link = safeLink(href);
  if (link === null) {
    setText(cell, text);
    return;
  }
  let anchor = cell.querySelector('a');
  if (anchor === null) {
    anchor = el('a');
    cell.replaceChildren(anchor);
  }
  if (anchor.getAttribute('href') !== link) anchor.setAttribute('href', link);
  setText(anchor, text);
}

// A table in `section`, or one sentence while it has no rows. Columns are
// {title, cell: row -> text or {text, className, href, title}, number, name}.
export class Table {
  constructor(section, caption, columns, none) {
    this.columns = columns;
    this.body = el('tbody');
    this.none = el('p', {className: 'muted', text: none});
    const heads = columns.map(({title, number}) =>
      el('th', {scope: 'col', className: number ? 'number' : '', text: title}));
    this.table = el('table', {}, el('caption', {className: 'unseen', text: caption}),
                    el('thead', {}, el('tr', {}, ...heads)), this.body);
    section.append(this.table, this.none);
  }

  show(rows, keyOf, rowClass = () => '') {
    this.table.hidden = rows.length === 0;
    this.none.hidden = rows.length !== 0;
    reconcile(this.body, rows, keyOf, () => this.makeRow(), (line, row) => {
      if (line.className !== rowClass(row)) line.className = rowClass(row);
      this.columns.forEach(({cell}, i) => updateCell(line.cells[i], cell(row)));
    });
  }

  makeRow() {
    return el('tr', {}, ...this.columns.map(({title, number, name}) => {
      const base = `${number ? 'number ' : ''}${name ? 'name ' : ''}`;
      return el('td', {'data-title': title, 'data-base': base, className: base});
    }));
  }
}

let spoken = Promise.resolve();

// Says it to those who do not see the page. One after the other, as a region says its newest text.
export function announce(text) {
  spoken = spoken.then(() => {
    byId('announcements').textContent = text;
    return new Promise((done) => { setTimeout(done, 1000); });
  });
}

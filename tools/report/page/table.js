'use strict';
// The table of micrographs: sorted, filtered, and of thousands of rows only those in sight.
const Table = {
  rowHeight: 49,
  images: new Map(),  // thumbnails made so far: rows are made anew at every change
  order: [],       // numbers of the micrographs in the table
  sort: 'number', down: false,
  columns: [
    {key: 'thumbnail', title: '', width: 82},
    {key: 'name', title: 'Micrograph', value: i => Data.index.names[i]},
    {key: 'number', title: 'No.', width: 64, number: true, value: i => i, text: i => i + 1},
    {key: 'kept', title: 'Picks', width: 76, number: true, value: i => Model.kept[i],
     text: i => Model.counted[i] ? Model.kept[i] : '…'},
    {key: 'best', title: 'Best', width: 74, number: true, value: i => Model.best[i], text: i => Table.score(Model.best[i])},
    {key: 'mean', title: 'Mean', width: 74, number: true, value: i => Model.mean[i], text: i => Table.score(Model.mean[i])},
    {key: 'closed', title: 'Closed', width: 80, number: true, value: i => Data.index.closed[i],
     text: i => Data.index.closed[i] < 0 ? '' : (Data.index.closed[i] * 100).toFixed(1) + ' %'},
    {key: 'state', title: 'State', width: 112, value: i => Table.state(i)},
  ],
  states: ['as picked', 'no picks', 'changed', 'left out', 'problem'],

  score(value) { return Number.isNaN(value) ? '' : value.toFixed(3); },

  state(i) {
    const edits = Model.edits.get(i);
    if (edits && edits.left_out) return 'left out';
    if (Data.index.problems[i]) return 'problem';
    if (Model.hasEdits(i)) return 'changed';
    return Model.counted[i] && Model.kept[i] === 0 ? 'no picks' : 'as picked';
  },

  start() {
    const heads = document.getElementById('heads');
    for (const column of Table.columns) {
      const head = document.createElement('th');
      head.scope = 'col';
      if (column.width) head.style.width = column.width + 'px';
      if (column.number) head.className = 'number';
      if (column.value) {
        const button = document.createElement('button');
        button.type = 'button';
        button.dataset.key = column.key;
        button.onclick = () => {
          Table.down = Table.sort === column.key ? !Table.down : column.number === true && column.key !== 'number';
          Table.sort = column.key;
          Table.arrange();
        };
        head.append(button);
      }
      heads.append(head);
    }
    const states = document.getElementById('filter-state');
    for (const state of Table.states) states.add(new Option(state, state));
    for (const id of ['filter-name', 'filter-state', 'filter-least', 'filter-most'])
      document.getElementById(id).addEventListener('input', Table.arrange);
    document.getElementById('leave-out-shown').onclick = () => Table.leaveOutShown(true);
    document.getElementById('take-in-shown').onclick = () => Table.leaveOutShown(false);
    document.getElementById('table').addEventListener('scroll', () => requestAnimationFrame(Table.draw));
    new ResizeObserver(Table.draw).observe(document.getElementById('table'));
    Table.arrange();
  },

  leaveOutShown(out) {
    for (const i of Table.order) if (Model.editsOf(i).left_out !== out) Stage.change(i, edits => { edits.left_out = out; });
    Table.draw();
  },

  // Filters and sorts. Not done while a limit moves: rows would jump about.
  arrange() {
    const name = document.getElementById('filter-name').value.toLowerCase();
    const state = document.getElementById('filter-state').value;
    const number = (id, none) => { const v = document.getElementById(id).value; return v === '' ? none : Number(v); };
    const least = number('filter-least', -Infinity), most = number('filter-most', Infinity);
    Table.order = [];
    for (let i = 0; i < Data.index.names.length; i++)
      if (Model.kept[i] >= least && Model.kept[i] <= most && (!name || Data.index.names[i].toLowerCase().includes(name)) &&
          (!state || Table.state(i) === state)) Table.order.push(i);
    const {value} = Table.columns.find(column => column.key === Table.sort), sign = Table.down ? -1 : 1;
    const low = v => typeof v === 'number' && Number.isNaN(v) ? -Infinity : v;
    if (Table.sort !== 'number' || Table.down) {
      const keys = new Map(Table.order.map(i => [i, low(value(i))]));
      Table.order.sort((a, b) => {
        const x = keys.get(a), y = keys.get(b);
        return x < y ? -sign : x > y ? sign : a - b;
      });
    }
    for (const button of document.querySelectorAll('#heads button')) {
      const {key} = button.dataset, {title} = Table.columns.find(column => column.key === key);
      button.textContent = title + (key === Table.sort ? (Table.down ? ' ▾' : ' ▴') : '');
      button.parentElement.setAttribute('aria-sort', key !== Table.sort ? 'none' : Table.down ? 'descending' : 'ascending');
    }
    document.getElementById('shown').textContent =
        `${Table.order.length} of ${Data.index.names.length} micrographs shown`;
    Table.draw();
  },

  // The numbers of the micrographs in sight.
  inSight() {
    const box = document.getElementById('table');
    const from = Math.max(0, Math.floor(box.scrollTop / Table.rowHeight) - 2);
    return {from, to: Math.min(Table.order.length, from + Math.ceil(box.clientHeight / Table.rowHeight) + 5)};
  },

  draw() {
    if (document.getElementById('overview').hidden) return;
    const {from, to} = Table.inSight(), body = document.getElementById('rows');
    const rows = [Table.gap(from)];
    for (let place = from; place < to; place++) rows.push(Table.row(Table.order[place], place));
    rows.push(Table.gap(Table.order.length - to));
    const focused = document.activeElement && document.activeElement.dataset.micrograph;
    body.replaceChildren(...rows);
    body.parentElement.setAttribute('aria-rowcount', Table.order.length + 1);
    if (focused !== undefined) body.querySelector(`a[data-micrograph="${focused}"]`)?.focus({preventScroll: true});
  },

  gap(rows) {
    const row = document.createElement('tr');
    row.className = 'gap';
    row.setAttribute('aria-hidden', 'true');
    const cell = row.insertCell();
    cell.colSpan = Table.columns.length;
    cell.style.height = rows * Table.rowHeight + 'px';
    return row;
  },

  row(i, place) {
    const row = document.createElement('tr'), state = Table.state(i);
    row.setAttribute('aria-rowindex', place + 2);
    if (state === 'left out') row.className = 'out';
    for (const column of Table.columns) {
      const cell = row.insertCell();
      if (column.number) cell.className = 'number';
      if (column.key === 'thumbnail') Table.addThumbnail(cell, i);
      else if (column.key === 'name') Table.addLink(cell, i);
      else cell.textContent = column.text ? column.text(i) : column.value(i);
      if (column.key === 'state' && state === 'problem') {
        cell.classList.add('bad');
        cell.title = Data.index.problems[i].join('\n');
      }
    }
    row.onclick = () => Stage.show(i);
    return row;
  },

  addThumbnail(cell, i) {
    if (Data.index.nx[i] === 0) return;
    if (!Table.images.has(i)) {
      if (Table.images.size > 400) Table.images.clear();
      const image = document.createElement('img');
      image.loading = 'lazy';
      image.alt = '';
      image.src = Data.picture(i, 'thumbnails');
      Table.images.set(i, image);
    }
    cell.append(Table.images.get(i));
  },

  addLink(cell, i) {
    const link = document.createElement('a');
    link.href = '#' + (i + 1);
    link.textContent = Data.index.names[i];
    link.title = Data.index.names[i];
    link.dataset.micrograph = i;
    link.onclick = event => event.preventDefault();
    cell.append(link);
  },
};

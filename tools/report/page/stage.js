'use strict';
// One micrograph: the picture, its picks, and what the mouse and the keys do to them.
const Stage = {
  i: -1,               // number of the micrograph, -1: none
  picks: null, kept: null, rejected: null,
  scale: 1, x: 0, y: 0,  // of the picture: page pixels a pixel of the micrograph, and where its first corner is
  mode: 'pick',
  focus: -1,           // the pick that the keys have chosen
  undo: new Map(),     // by number: what the edits were
  drag: null,
  low: 0, high: 1,     // ends of the colours of scores

  element: id => document.getElementById(id),
  edits() { return Model.editsOf(Stage.i); },
  radius() { return Data.index.diameter / 2; },

  start() {
    const stage = Stage.element('stage');
    const scores = Data.index.scores.filter(s => !Number.isNaN(s)).sort();
    if (scores.length > 0) [Stage.low, Stage.high] = [0.02, 0.98].map(q => scores[Math.floor(q * (scores.length - 1))]);
    Stage.drawLegend();
    stage.addEventListener('pointerdown', Stage.press);
    stage.addEventListener('pointermove', Stage.move);
    stage.addEventListener('pointerup', Stage.release);
    stage.addEventListener('pointercancel', () => { Stage.drag = null; });
    stage.addEventListener('pointerleave', () => { Stage.element('tip').hidden = true; });
    stage.addEventListener('wheel', event => {
      event.preventDefault();
      Stage.zoom(1.2 ** -Math.sign(event.deltaY), event.offsetX, event.offsetY);
    }, {passive: false});
    Stage.element('picture').onload = Stage.place;
    new ResizeObserver(Stage.fit).observe(stage);
  },

  // Opens a micrograph; its chunk may have to be fetched first.
  show(i) {
    Stage.i = i;
    Stage.focus = -1;
    Stage.picks = null;
    Stage.element('overview').hidden = true;
    Stage.element('micrograph').hidden = false;
    Stage.element('this').hidden = false;
    Stage.element('picture').removeAttribute('src');
    Stage.element('tip').hidden = true;
    history.replaceState(null, '', '#' + (i + 1));
    Data.load(Data.chunkOf(i), () => {
      if (Stage.i !== i) return;
      Stage.picks = Data.picks(i);
      Stage.rejected = Data.rejected(i);
      Stage.kept = Selection.keep(Stage.picks, Model.rules, Stage.edits());
      const source = Data.picture(i, 'images');
      if (source) Stage.element('picture').src = source;
      const problems = Data.index.problems[i];
      Stage.element('nothing').hidden = source !== '';
      Stage.element('nothing').textContent = problems ? problems.join('\n') : '';
      Stage.fit();
      Stage.changed();
      // The next one is likely to be looked at next.
      const next = Stage.neighbour(1);
      if (next >= 0 && Data.index.imagesApart) new Image().src = Data.picture(next, 'images');
    });
    Main.showWhere();
    Stage.element('stage').focus({preventScroll: true});
  },

  close() {
    if (Stage.i < 0) return;
    const i = Stage.i;
    Stage.i = -1;
    Stage.element('overview').hidden = false;
    Stage.element('micrograph').hidden = true;
    Stage.element('this').hidden = true;
    history.replaceState(null, '', '#');
    Main.showWhere();
    Table.arrange();
    Charts.draw();
    document.querySelector(`a[data-micrograph="${i}"]`)?.focus();
  },

  // The micrograph `step` rows on in the table, or -1.
  neighbour(step) {
    const place = Table.order.indexOf(Stage.i), next = Table.order[place + step];
    return next === undefined ? -1 : next;
  },

  go(step) {
    const next = Stage.neighbour(step);
    if (next >= 0) Stage.show(next);
  },

  // --- Where things are ---

  fit() {
    if (Stage.i < 0 || Data.index.nx[Stage.i] === 0) return Stage.draw();
    const stage = Stage.element('stage'), nx = Data.index.nx[Stage.i], ny = Data.index.ny[Stage.i];
    Stage.scale = Math.min(stage.clientWidth / nx, stage.clientHeight / ny);
    Stage.x = (stage.clientWidth - nx * Stage.scale) / 2;
    Stage.y = (stage.clientHeight - ny * Stage.scale) / 2;
    Stage.place();
  },

  zoom(factor, x, y) {
    const scale = Math.min(Math.max(Stage.scale * factor, 0.005), 8);
    Stage.x = x - (x - Stage.x) * scale / Stage.scale;
    Stage.y = y - (y - Stage.y) * scale / Stage.scale;
    Stage.scale = scale;
    Stage.place();
  },

  place() {
    if (Stage.i < 0) return;
    const scale = Stage.scale * Data.index.bins[Stage.i];
    Stage.element('picture').style.transform = `translate(${Stage.x}px, ${Stage.y}px) scale(${scale})`;
    Stage.draw();
  },

  // The middle of a pixel of the micrograph on the page, and back.
  toPage(x, y) { return [Stage.x + (x + 0.5) * Stage.scale, Stage.y + (y + 0.5) * Stage.scale]; },
  fromPage(x, y) { return [(x - Stage.x) / Stage.scale - 0.5, (y - Stage.y) / Stage.scale - 0.5]; },

  // Levels from low to high become black to white: brightness and contrast filters work on pictures of other files too.
  setContrast() {
    if (Stage.i < 0 || !Data.isHere(Stage.i)) return;
    const step = Number(Stage.element('contrast').value), [from, to] = Data.levels(Stage.i, step);
    const low = from / 255, slope = 255 / Math.max(to - from, 1), contrast = 1 + 2 * low * slope;
    Stage.element('picture').style.filter = `brightness(${slope / contrast}) contrast(${contrast})`;
    Stage.element('contrast-text').textContent = +(Data.index.clippedShares[step] * 100).toFixed(2) + ' %';
  },

  // --- Drawing ---

  // From dark blue over green to yellow, also for the colour-blind.
  colours: [[68, 90, 200], [40, 150, 190], [60, 190, 110], [170, 220, 50], [255, 225, 60]],

  colourOf(score) {
    if (Number.isNaN(score)) return 'rgb(200, 200, 200)';
    const span = Stage.high - Stage.low, last = Stage.colours.length - 1;
    const place = span > 0 ? Math.min(1, Math.max(0, (score - Stage.low) / span)) * last : last;
    const at = Math.min(Math.floor(place), last - 1), part = place - at;
    const mix = Stage.colours[at].map((c, k) => Math.round(c + (Stage.colours[at + 1][k] - c) * part));
    return `rgb(${mix.join(', ')})`;
  },

  drawLegend() {
    const bar = Stage.element('legend-bar'), ctx = bar.getContext('2d');
    bar.width = 150;
    bar.height = 10;
    for (let x = 0; x < 150; x++) {
      ctx.fillStyle = Stage.colourOf(Stage.low + x / 149 * (Stage.high - Stage.low));
      ctx.fillRect(x, 0, 1, 10);
    }
    Stage.element('legend-low').textContent = 'score ' + Stage.low.toFixed(2);
    Stage.element('legend-high').textContent = Stage.high.toFixed(2);
  },

  circle(ctx, x, y, colour, dashed) {
    const [px, py] = Stage.toPage(x, y), radius = Math.max(3, Stage.radius() * Stage.scale);
    if (px < -radius || py < -radius || px > ctx.canvas.clientWidth + radius || py > ctx.canvas.clientHeight + radius) return;
    ctx.setLineDash(dashed ? [3, 4] : []);
    for (const [width, style] of dashed ? [[1.25, colour]] : [[3.5, 'rgba(0, 0, 0, 0.45)'], [1.75, colour]]) {
      ctx.lineWidth = width;
      ctx.strokeStyle = style;
      ctx.beginPath();
      ctx.arc(px, py, radius, 0, 2 * Math.PI);
      ctx.stroke();
    }
  },

  drawRejected(ctx) {
    ctx.setLineDash([]);
    ctx.strokeStyle = 'rgba(255, 77, 77, 0.8)';
    ctx.lineWidth = 1.25;
    const half = Math.max(2, 0.18 * Stage.radius() * Stage.scale);
    for (let k = 0; k + 1 < Stage.rejected.length; k += 2) {
      const [x, y] = Stage.toPage(Stage.rejected[k], Stage.rejected[k + 1]);
      ctx.strokeRect(x - half, y - half, 2 * half, 2 * half);
    }
  },

  drawPicks(ctx) {
    const {x, y, score} = Stage.picks, dropped = Stage.element('show-dropped').checked, out = Stage.edits().left_out;
    if (dropped) for (let k = 0; k < x.length; k++) if (!Stage.kept[k]) Stage.circle(ctx, x[k], y[k], '#b9c2cc', true);
    for (let k = 0; k < x.length; k++) if (Stage.kept[k]) Stage.circle(ctx, x[k], y[k], Stage.colourOf(score[k]), false);
    if (!out) for (const [ax, ay] of Stage.edits().added) Stage.circle(ctx, ax, ay, '#ff7bf0', false);
    if (Stage.focus >= 0 && Stage.focus < x.length) {
      const [px, py] = Stage.toPage(x[Stage.focus], y[Stage.focus]), half = Stage.radius() * Stage.scale + 5;
      ctx.setLineDash([]);
      ctx.lineWidth = 2;
      ctx.strokeStyle = '#ffffff';
      ctx.strokeRect(px - half, py - half, 2 * half, 2 * half);
    }
  },

  drawBrush(ctx) {
    if (Stage.mode !== 'brush' || !Stage.pointer) return;
    ctx.setLineDash([]);
    ctx.lineWidth = 1.5;
    ctx.strokeStyle = '#ffffff';
    ctx.beginPath();
    ctx.arc(Stage.pointer[0], Stage.pointer[1], Stage.brushRadius() * Stage.scale, 0, 2 * Math.PI);
    ctx.stroke();
  },

  draw() {
    const canvas = Stage.element('overlay'), ratio = devicePixelRatio || 1;
    if (Stage.i < 0 || canvas.clientWidth === 0) return;
    canvas.width = Math.round(canvas.clientWidth * ratio);
    canvas.height = Math.round(canvas.clientHeight * ratio);
    const ctx = canvas.getContext('2d');
    ctx.scale(ratio, ratio);
    if (!Stage.picks) return;
    if (Stage.element('show-rejected').checked) Stage.drawRejected(ctx);
    if (Stage.element('show-picks').checked) Stage.drawPicks(ctx);
    Stage.drawBrush(ctx);
  },

  // The rules or the edits have changed.
  changed() {
    if (Stage.i < 0 || !Stage.picks) return;
    Stage.kept = Selection.keep(Stage.picks, Model.rules, Stage.edits());
    const n = Stage.picks.x.length, {dropped, added, brushed} = Stage.edits();
    Stage.element('this-counts').textContent = `${Model.kept[Stage.i]} of ${n} picks kept, ${dropped.length} dropped by hand, ` +
        `${added.length} added, ${Stage.rejected.length / 2} places closed`;
    Stage.element('left-out').checked = Stage.edits().left_out;
    Stage.element('undo').disabled = !(Stage.undo.get(Stage.i) || []).length;
    Stage.element('reset').disabled = !Model.hasEdits(Stage.i);
    Stage.element('brush-text').textContent = Number(Stage.element('brush').value).toFixed(2) + ' ⌀';
    Stage.setContrast();
    Stage.draw();
  },

  // --- Changes ---

  change(i, edit) {
    if (!Stage.undo.has(i)) Stage.undo.set(i, []);
    Stage.undo.get(i).push(Model.editsOf(i));
    Model.edit(i, edit);
  },

  undoLast() {
    const before = (Stage.undo.get(Stage.i) || []).pop();
    if (before) Model.edit(Stage.i, edits => Object.assign(edits, before));
  },

  reset() { Stage.change(Stage.i, edits => Object.assign(edits, Selection.noEdits())); },
  leaveOut(out) { Stage.change(Stage.i, edits => { edits.left_out = out; }); },

  sameSpot: (a, x, y) => Math.fround(a[0]) === x && Math.fround(a[1]) === y,

  // Drops a pick that is kept, or takes back that it was dropped.
  toggle(k) {
    const x = Stage.picks.x[k], y = Stage.picks.y[k], {dropped} = Stage.edits();
    if (dropped.some(p => Stage.sameSpot(p, x, y)))
      Stage.change(Stage.i, edits => { edits.dropped = edits.dropped.filter(p => !Stage.sameSpot(p, x, y)); });
    else if (Stage.kept[k]) Stage.change(Stage.i, edits => { edits.dropped.push([x, y]); });
    else Panel.say(Stage.why(k));
  },

  // Adds a pick at a whole pixel, if its box lies in the micrograph.
  add(x, y) {
    const half = Math.floor(Data.index.boxsize / 2), at = [Math.round(x), Math.round(y)];
    const inside = at[0] > half && at[1] > half && at[0] < Data.index.nx[Stage.i] - half && at[1] < Data.index.ny[Stage.i] - half;
    if (inside) Stage.change(Stage.i, edits => { edits.added.push(at); });
    else Panel.say('A box around this place would leave the micrograph');
  },

  // Why a pick isn't kept.
  why(k) {
    const {picks} = Stage;
    if (Stage.edits().left_out) return 'The micrograph is left out';
    if (Selection.isDropped(picks, k, Stage.edits())) return 'Dropped by hand or under the brush';
    if (!Selection.passesLimits(picks, k, Model.rules)) return 'Beyond a limit';
    return 'Too near to a better pick, or not among the best';
  },

  // The nearest pick within half a diameter, as {k} of the list or {added}; or null.
  pickAt(x, y) {
    const found = {distance: Stage.radius() ** 2, hit: null};
    const offer = (px, py, hit) => {
      const distance = (px - x) ** 2 + (py - y) ** 2;
      if (distance < found.distance) Object.assign(found, {distance, hit});
    };
    const shown = Stage.element('show-dropped').checked;
    for (let k = 0; k < Stage.picks.x.length; k++)
      if (Stage.kept[k] || shown) offer(Stage.picks.x[k], Stage.picks.y[k], {k});
    Stage.edits().added.forEach((p, added) => offer(p[0], p[1], {added}));
    return found.hit;
  },

  click(x, y) {
    const hit = Stage.pickAt(x, y);
    if (!hit) return Stage.add(x, y);
    if (hit.added !== undefined) return Stage.change(Stage.i, edits => { edits.added.splice(hit.added, 1); });
    Stage.toggle(hit.k);
  },

  brushRadius() { return Number(Stage.element('brush').value) * Data.index.diameter; },

  // A disc under the pointer, not closer to the last one than a third of its radius. Added picks under it go for good.
  brushAt(x, y) {
    const radius = +Stage.brushRadius().toFixed(2), at = [+x.toFixed(1), +y.toFixed(1), radius];
    const last = Stage.drag.disc;
    if (last && (last[0] - x) ** 2 + (last[1] - y) ** 2 < (radius / 3) ** 2) return;
    const edit = edits => {
      edits.brushed.push(at);
      edits.added = edits.added.filter(p => (p[0] - at[0]) ** 2 + (p[1] - at[1]) ** 2 > radius ** 2);
    };
    if (last) Model.edit(Stage.i, edit); else Stage.change(Stage.i, edit);
    Stage.drag.disc = at;
  },

  // --- Mouse ---

  press(event) {
    if (event.button !== 0 || !Stage.picks) return;
    Stage.element('stage').setPointerCapture(event.pointerId);
    Stage.drag = {x: event.offsetX, y: event.offsetY, fromX: Stage.x, fromY: Stage.y, moved: false, disc: null};
    if (Stage.mode === 'brush') Stage.brushAt(...Stage.fromPage(event.offsetX, event.offsetY));
  },

  move(event) {
    if (!Stage.picks) return;
    const box = Stage.element('stage').getBoundingClientRect();
    const x = event.clientX - box.left, y = event.clientY - box.top;
    Stage.pointer = [x, y];
    if (Stage.drag && Stage.mode === 'brush') Stage.brushAt(...Stage.fromPage(x, y));
    if (Stage.drag && Stage.mode === 'pick') {
      Stage.drag.moved = Stage.drag.moved || Math.hypot(x - Stage.drag.x, y - Stage.drag.y) > 4;
      if (Stage.drag.moved) {
        Stage.x = Stage.drag.fromX + x - Stage.drag.x;
        Stage.y = Stage.drag.fromY + y - Stage.drag.y;
        Stage.place();
      }
    }
    if (Stage.mode === 'brush') Stage.draw();
    Stage.showTip(x, y);
  },

  release(event) {
    const drag = Stage.drag;
    Stage.drag = null;
    if (drag && !drag.moved && Stage.mode === 'pick') Stage.click(...Stage.fromPage(event.offsetX, event.offsetY));
  },

  tipText(hit) {
    if (hit.added !== undefined) return 'added by hand';
    const value = (name, v) => Number.isNaN(v) ? '' : `\n${name} ${v.toFixed(3)}`, {k} = hit, {picks} = Stage;
    return `score ${Number.isNaN(picks.score[k]) ? 'none' : picks.score[k].toFixed(4)}` +
        value('local average', picks.average[k]) + value('local sigma', picks.sigma[k]) +
        (Stage.kept[k] ? '' : '\n' + Stage.why(k));
  },

  showTip(x, y) {
    const tip = Stage.element('tip'), hit = Stage.drag ? null : Stage.pickAt(...Stage.fromPage(x, y));
    tip.hidden = !hit;
    if (!hit) return;
    tip.textContent = Stage.tipText(hit);
    tip.style.left = Math.min(x + 14, Stage.element('stage').clientWidth - 190) + 'px';
    tip.style.top = Math.min(y + 14, Stage.element('stage').clientHeight - 80) + 'px';
  },

  setMode(mode) {
    Stage.mode = mode;
    for (const name of ['pick', 'brush']) Stage.element('mode-' + name).setAttribute('aria-pressed', mode === name);
    Stage.draw();
  },

  // --- Keys ---

  stepFocus(step) {
    const n = Stage.picks ? Stage.picks.x.length : 0;
    if (n === 0) return;
    Stage.focus = (Stage.focus + step + n) % n;
    Stage.draw();
    const [x, y] = Stage.toPage(Stage.picks.x[Stage.focus], Stage.picks.y[Stage.focus]);
    Stage.showTip(x, y);
    Panel.say(`Pick ${Stage.focus + 1} of ${n}, ${Stage.tipText({k: Stage.focus}).replaceAll('\n', ', ')}`);
  },

  key(key) {
    const stage = Stage.element('stage'), middle = [stage.clientWidth / 2, stage.clientHeight / 2];
    const tick = id => { const box = Stage.element(id); box.checked = !box.checked; Stage.draw(); };
    const actions = {
      ArrowLeft: () => Stage.go(-1), p: () => Stage.go(-1), ArrowRight: () => Stage.go(1), n: () => Stage.go(1),
      Escape: Stage.close, x: () => Stage.leaveOut(!Stage.edits().left_out), u: Stage.undoLast,
      b: () => Stage.setMode(Stage.mode === 'brush' ? 'pick' : 'brush'),
      '+': () => Stage.zoom(1.25, ...middle), '=': () => Stage.zoom(1.25, ...middle), '-': () => Stage.zoom(0.8, ...middle),
      0: Stage.fit, c: () => tick('show-picks'), r: () => tick('show-rejected'), d: () => tick('show-dropped'),
      ',': () => Stage.stepFocus(-1), '.': () => Stage.stepFocus(1),
      Delete: () => { if (Stage.focus >= 0) Stage.toggle(Stage.focus); },
    };
    if (!actions[key]) return false;
    actions[key]();
    return true;
  },
};

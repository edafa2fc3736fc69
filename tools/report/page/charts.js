'use strict';
// The charts of the overview, drawn on canvases.
const Charts = {
  bins: 160,
  histogram: null,  // number of picks in each bin of score
  low: 0, high: 1,  // of the histogram's axis
  inner: {left: 6, right: 6, top: 6, bottom: 18},

  start() {
    const scores = Data.index.scores;
    let low = Infinity, high = -Infinity;
    for (const s of scores) { if (s < low) low = s; if (s > high) high = s; }
    if (!(low < high)) { low = Number.isFinite(low) ? low - 0.5 : 0; high = low + 1; }
    const step = Charts.niceStep((high - low) / 10);
    Charts.low = Math.floor(low / step) * step;
    Charts.high = Math.ceil(high / step) * step;
    Charts.histogram = new Int32Array(Charts.bins);
    const scale = Charts.bins / (Charts.high - Charts.low);
    for (const s of scores)
      if (!Number.isNaN(s)) Charts.histogram[Math.min(Charts.bins - 1, Math.floor((s - Charts.low) * scale))]++;
    Charts.handle('threshold', 'min_score', -1);
    Charts.handle('ceiling', 'max_score', 1);
    new ResizeObserver(Charts.draw).observe(document.getElementById('charts'));
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', Charts.draw);
  },

  // The score below which a share of the picks lies, to a bin of the histogram.
  quantile(share) {
    const total = Charts.histogram.reduce((a, b) => a + b, 0);
    let below = 0, b = 0;
    while (b < Charts.bins - 1 && (below += Charts.histogram[b]) < share * total) b++;
    return Charts.low + (b + 0.5) / Charts.bins * (Charts.high - Charts.low);
  },

  niceStep(least) {
    const power = 10 ** Math.floor(Math.log10(least));
    return [1, 2, 5, 10].map(m => m * power).find(step => step >= least);
  },

  colour(name) { return getComputedStyle(document.documentElement).getPropertyValue(name); },

  // A canvas ready to be drawn on, in pixels of the page, or null where it has no size.
  begin(id) {
    const canvas = document.getElementById(id), ratio = devicePixelRatio || 1;
    const width = canvas.clientWidth, height = canvas.clientHeight;
    if (width < 20 || height < 20) return null;
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    const ctx = canvas.getContext('2d');
    ctx.scale(ratio, ratio);
    ctx.font = '11px system-ui, sans-serif';
    return {ctx, width, height, floor: height - Charts.inner.bottom};
  },

  x(score, width) {
    const {left, right} = Charts.inner;
    return left + (score - Charts.low) / (Charts.high - Charts.low) * (width - left - right);
  },

  draw() {
    Charts.drawKept();
    const closed = Data.index.closed.map(v => v < 0 ? NaN : v);
    Charts.drawSeries('closed', closed, v => Math.round(v * 100) + ' %');
  },

  // What follows the limits.
  drawKept() {
    Charts.drawHistogram();
    const kept = Model.kept, names = Data.index.names;
    Charts.drawSeries('per-micrograph', kept, v => Math.round(v).toString());
    document.getElementById('per-micrograph').setAttribute('aria-label',
        `Picks kept in each of ${names.length} micrographs, at most ${kept.reduce((a, b) => Math.max(a, b), 0)}`);
  },

  drawHistogram() {
    const area = Charts.begin('histogram');
    if (!area) return;
    const {ctx, width, floor} = area, {top} = Charts.inner;
    const highest = Math.sqrt(Math.max(1, ...Charts.histogram));
    const {least, most} = Charts.limits(), kept = Charts.colour('--bar-kept'), other = Charts.colour('--bar');
    for (let b = 0; b < Charts.bins; b++) {
      const from = Charts.low + b / Charts.bins * (Charts.high - Charts.low);
      const middle = from + 0.5 / Charts.bins * (Charts.high - Charts.low);
      const x = Charts.x(from, width), w = (width - 12) / Charts.bins;
      const h = Math.sqrt(Charts.histogram[b]) / highest * (floor - top);
      ctx.fillStyle = middle >= least && middle <= most ? kept : other;
      ctx.fillRect(x, floor - h, Math.max(w - 0.5, 0.5), h);
    }
    ctx.fillStyle = Charts.colour('--faint');
    ctx.textAlign = 'center';
    const step = Charts.niceStep((Charts.high - Charts.low) / (width / 60));
    for (let s = Math.ceil(Charts.low / step - 1e-6) * step; s <= Charts.high + 1e-9; s += step)
      ctx.fillText(String(+s.toFixed(6)), Math.min(Math.max(Charts.x(s, width), 12), width - 12), floor + 13);
    Charts.placeHandle('threshold', least, width);
    Charts.placeHandle('ceiling', most, width);
    const text = value => value === null ? 'none' : String(value);
    document.getElementById('threshold-text').textContent =
        `from ${text(Model.rules.min_score)} to ${text(Model.rules.max_score)}`;
  },

  limits() {
    const {min_score, max_score} = Model.rules;
    return {least: min_score === null ? Charts.low : min_score, most: max_score === null ? Charts.high : max_score};
  },

  // One value a micrograph, in their order; of those that share a column of pixels the least and the largest.
  drawSeries(id, values, text) {
    const area = Charts.begin(id);
    if (!area) return;
    const {ctx, width, floor} = area, {top} = Charts.inner, left = 46, n = values.length;
    let high = 0;
    for (const v of values) if (v > high) high = v;
    ctx.fillStyle = Charts.colour('--faint');
    if (high === 0 && Array.prototype.every.call(values, Number.isNaN)) {
      ctx.textAlign = 'center';
      ctx.fillText('not known', width / 2, floor / 2);
      return;
    }
    high = high || 1;
    ctx.textAlign = 'right';
    ctx.fillText(text(high), left - 4, top + 8);
    ctx.fillText('0', left - 4, floor);
    ctx.textAlign = 'left';
    ctx.fillText('1', left, floor + 13);
    ctx.textAlign = 'right';
    ctx.fillText(String(n), width - 4, floor + 13);
    ctx.fillStyle = Charts.colour('--line');
    ctx.fillRect(left, floor, width - left - 4, 1);
    ctx.fillStyle = Charts.colour('--bar-kept');
    const span = width - left - 4, wide = Math.max(1, Math.min(14, span / n - 1));
    for (let i = 0; i < n; i++) {
      if (Number.isNaN(values[i])) continue;
      const h = values[i] / high * (floor - top);
      const x = left + (i + 0.5) / n * span - wide / 2;
      if (n <= 200) ctx.fillRect(x, floor - h, wide, Math.max(h, 1)); else ctx.fillRect(x, floor - h - 1, 1.5, 1.5);
    }
  },

  placeHandle(id, score, width) {
    const handle = document.getElementById(id);
    handle.style.left = Charts.x(Math.min(Math.max(score, Charts.low), Charts.high), width) + 'px';
    handle.setAttribute('aria-valuemin', Charts.low);
    handle.setAttribute('aria-valuemax', Charts.high);
    handle.setAttribute('aria-valuenow', score);
  },

  // A line to drag; arrow keys move it by a step of the rule's slider.
  handle(id, rule, side) {
    const handle = document.getElementById(id), plot = handle.parentElement;
    const end = side < 0 ? () => Charts.low : () => Charts.high;
    const setTo = score => {
      const step = Panel.step(rule), rounded = +(Math.round(score / step) * step).toFixed(6);
      Panel.setRule(rule, side < 0 ? (rounded <= end() ? null : rounded) : (rounded >= end() ? null : rounded));
    };
    handle.addEventListener('pointerdown', event => {
      handle.setPointerCapture(event.pointerId);
      event.preventDefault();
      handle.focus();
    });
    handle.addEventListener('pointermove', event => {
      if (!handle.hasPointerCapture(event.pointerId)) return;
      const box = plot.getBoundingClientRect(), {left, right} = Charts.inner;
      const share = (event.clientX - box.left - left) / (box.width - left - right);
      setTo(Charts.low + Math.min(1, Math.max(0, share)) * (Charts.high - Charts.low));
    });
    handle.addEventListener('keydown', event => {
      const steps = {ArrowLeft: -1, ArrowDown: -1, ArrowRight: 1, ArrowUp: 1, PageDown: -10, PageUp: 10}[event.key];
      if (steps === undefined) return;
      event.preventDefault();
      event.stopPropagation();
      const now = Model.rules[rule] === null ? end() : Model.rules[rule];
      setTo(now + steps * Panel.step(rule));
    });
  },
};

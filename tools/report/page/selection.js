'use strict';
// Which picks of a micrograph a selection keeps: the rules of tools/lists/selection.h, word for word, which
// kestrix_lists select applies. tests/selection_examples.json holds both to one another.
const Selection = {
  // Rules without any limit; a limit of null is none.
  none() {
    return {min_score: null, max_score: null, min_average: null, max_average: null, min_sigma: null, max_sigma: null,
            thin: 0, most: -1};
  },

  // What was done by hand in one micrograph, in its pixels: dropped and added are [x, y], brushed [x, y, radius].
  noEdits() { return {left_out: false, dropped: [], brushed: [], added: []}; },

  passes(value, least, most) {
    return (least === null || value >= Math.fround(least)) && (most === null || value <= Math.fround(most));
  },

  passesLimits(picks, i, rules) {
    return Selection.passes(picks.score[i], rules.min_score, rules.max_score) &&
           Selection.passes(picks.average[i], rules.min_average, rules.max_average) &&
           Selection.passes(picks.sigma[i], rules.min_sigma, rules.max_sigma);
  },

  isDropped(picks, i, edits) {
    const x = picks.x[i], y = picks.y[i];
    return edits.dropped.some(p => Math.fround(p[0]) === x && Math.fround(p[1]) === y) ||
           edits.brushed.some(b => (x - b[0]) * (x - b[0]) + (y - b[1]) * (y - b[1]) <= b[2] * b[2]);
  },

  bestFirst(picks, kept) {
    const order = [];
    for (let i = 0; i < kept.length; i++) if (kept[i]) order.push(i);
    const rank = i => Number.isNaN(picks.score[i]) ? -Infinity : picks.score[i];
    return order.sort((a, b) => rank(a) === rank(b) ? a - b : rank(a) > rank(b) ? -1 : 1);
  },

  thinned(picks, order, thin) {
    const kept = [];
    for (const i of order) {
      const near = kept.some(j => {
        const dx = picks.x[i] - picks.x[j], dy = picks.y[i] - picks.y[j];
        return dx * dx + dy * dy < thin * thin;
      });
      if (!near) kept.push(i);
    }
    return kept;
  },

  // picks: single precision columns x, y, score, average, sigma. Returns for each pick 1 or 0.
  keep(picks, rules, edits) {
    const kept = new Uint8Array(picks.x.length);
    if (edits.left_out) return kept;
    for (let i = 0; i < kept.length; i++)
      kept[i] = Selection.passesLimits(picks, i, rules) && !Selection.isDropped(picks, i, edits) ? 1 : 0;
    if (rules.thin <= 0 && rules.most < 0) return kept;
    let order = Selection.bestFirst(picks, kept);
    if (rules.thin > 0) order = Selection.thinned(picks, order, rules.thin);
    if (rules.most >= 0) order = order.slice(0, rules.most);
    kept.fill(0);
    for (const i of order) kept[i] = 1;
    return kept;
  },
};

'use strict';
// What the user has set, and what it comes to: the numbers of picks kept, counted anew at every change.
const Model = {
  rules: Selection.none(),
  edits: new Map(),  // by number of the micrograph
  kept: null, best: null,  // number of picks and best score of each micrograph
  counted: null,     // whether a micrograph's numbers belong to the present rules
  listeners: [],
  run: 0,            // number of the count under way
  timer: 0,

  start() {
    const n = Data.index.names.length;
    Model.kept = new Int32Array(n);
    Model.best = new Float32Array(n).fill(NaN);
    Model.counted = new Uint8Array(n);
  },

  editsOf(i) { return Model.edits.get(i) || Selection.noEdits(); },

  hasEdits(i) {
    const e = Model.edits.get(i);
    return e !== undefined && (e.left_out || e.dropped.length + e.brushed.length + e.added.length > 0);
  },

  // Whether scores alone decide.
  scoresDecide() {
    const r = Model.rules;
    return r.thin <= 0 && [r.min_average, r.max_average, r.min_sigma, r.max_sigma].every(v => v === null);
  },

  set(i, kept, best) {
    Model.kept[i] = kept;
    Model.best[i] = kept > 0 && best > -Infinity ? best : NaN;
    Model.counted[i] = 1;
  },

  // By the scores of the index, which are always here.
  countByScore(i) {
    const scores = Data.index.scores, to = Data.first[i + 1], {min_score, max_score, most: number} = Model.rules;
    const least = min_score === null ? -Infinity : Math.fround(min_score);
    const most = max_score === null ? Infinity : Math.fround(max_score);
    let kept = 0, unscored = 0, best = -Infinity;
    for (let j = Data.first[i]; j < to; j++) {
      const s = scores[j];
      if (s >= least && s <= most) { kept++; if (s > best) best = s; } else if (s !== s) unscored++;
    }
    if (min_score === null && max_score === null) kept += unscored;
    Model.set(i, number >= 0 ? Math.min(kept, number) : kept, best);
  },

  // By all that is known of the picks, where their chunk is here. Returns whether it is.
  countByAll(i) {
    if (!Data.isHere(i)) return false;
    const {score} = Data.picks(i), kept = Selection.keep(Data.picks(i), Model.rules, Model.editsOf(i));
    let number = 0, best = -Infinity;
    for (let j = 0; j < kept.length; j++) {
      if (!kept[j]) continue;
      number++;
      if (score[j] > best) best = score[j];
    }
    const e = Model.editsOf(i);
    Model.set(i, e.left_out ? 0 : number + e.added.length, best);
    return true;
  },

  // Mean score of the picks kept; no number where there is none, or where it isn't known yet. Worked out for those rows of
  // the table only that are in sight, or for a sorting.
  mean(i) {
    if (!Model.counted[i] || Model.kept[i] === 0) return NaN;
    const near = Data.isHere(i), {score} = near ? Data.picks(i) : {score: Data.index.scores.subarray(Data.first[i], Data.first[i + 1])};
    if (!near && !(Model.scoresDecide() && !Model.hasEdits(i))) return NaN;
    const unknown = near ? null : new Float32Array(score.length).fill(NaN);
    const picks = near ? Data.picks(i) : {x: unknown, y: unknown, average: unknown, sigma: unknown, score};
    const kept = Selection.keep(picks, Model.rules, Model.editsOf(i));
    let number = 0, sum = 0;
    for (let j = 0; j < kept.length; j++) if (kept[j] && score[j] === score[j]) { number++; sum += score[j]; }
    return number > 0 ? sum / number : NaN;
  },

  // Returns whether that could be done: what isn't known from scores needs the chunk.
  count(i, known = Model.scoresDecide()) {
    const edits = Model.edits.get(i);
    if (edits && edits.left_out) { Model.set(i, 0, NaN); return true; }
    if (known && !Model.hasEdits(i)) { Model.countByScore(i); return true; }
    return Model.countByAll(i);
  },

  // Counts anew. What scores decide is done at once; the rest in pieces of 10 ms, while chunks are fetched, so that the
  // page stays awake. Micrographs shown come first.
  recount(shown) {
    const run = ++Model.run, n = Data.index.names.length;
    clearTimeout(Model.timer);
    Model.counted.fill(0);
    const left = [], known = Model.scoresDecide();
    for (const i of shown || []) Model.count(i);
    for (let i = 0; i < n; i++)
      if (!Model.counted[i] && !(known && Model.count(i, known))) left.push(i);
    Model.tell();
    let at = 0;
    const goOn = () => {
      if (run !== Model.run) return;
      const end = performance.now() + 10;
      while (at < left.length && performance.now() < end) {
        const i = left[at];
        if (!Model.count(i)) { Data.load(Data.chunkOf(i), goOn); return; }
        at++;
      }
      Model.tell();
      if (at < left.length) Model.timer = setTimeout(goOn, 0);
    };
    if (left.length > 0) Model.timer = setTimeout(goOn, 0);
  },

  // Changes the edits of one micrograph.
  edit(i, change) {
    const before = Model.editsOf(i);
    const after = {left_out: before.left_out, dropped: before.dropped.slice(), brushed: before.brushed.slice(),
                   added: before.added.slice()};
    change(after);
    Model.edits.set(i, after);
    const done = () => { Model.count(i); Model.tell(); };
    if (after.left_out || Data.isHere(i)) done(); else Data.load(Data.chunkOf(i), done);
  },

  tell() { for (const listener of Model.listeners) listener(); },

  totals() {
    let kept = 0, left_out = 0, pending = 0;
    for (let i = 0; i < Model.kept.length; i++) { kept += Model.kept[i]; pending += Model.counted[i] ? 0 : 1; }
    for (const e of Model.edits.values()) left_out += e.left_out ? 1 : 0;
    return {kept, left_out, pending, micrographs: Model.kept.length, all: Data.index.scores.length};
  },

  // The file that kestrix_lists select reads.
  selection() {
    const micrographs = Data.index.names.map((name, i) => {
      const one = {name};
      if (!Model.hasEdits(i)) return one;
      const e = Model.edits.get(i);
      if (e.left_out) one.left_out = true;
      for (const kind of ['dropped', 'brushed', 'added']) if (e[kind].length > 0) one[kind] = e[kind];
      return one;
    });
    return {kestrix_selection: 1, list: Data.index.list, odir: Data.index.odir, boxsize: Data.index.boxsize,
            rules: Model.rules, micrographs};
  },

  // Takes such a file, made on this page or on one of the same micrographs. Returns how many of its micrographs are here.
  take(selection) {
    if (selection.kestrix_selection !== 1) throw new Error('this is no selection of kestrix_report');
    const places = new Map(Data.index.names.map((name, i) => [name, i]));
    Model.rules = Object.assign(Selection.none(), selection.rules);
    Model.edits.clear();
    let found = 0;
    for (const one of selection.micrographs) {
      const i = places.get(one.name);
      if (i === undefined) continue;
      found++;
      const {name, ...edits} = one;
      if (Object.keys(edits).length > 0) Model.edits.set(i, Object.assign(Selection.noEdits(), edits));
    }
    Model.recount();
    return found;
  },
};

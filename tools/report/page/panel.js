'use strict';
// The panel beside the views: limits as sliders with numbers, saving and loading.
const Panel = {
  // A rule's ends and step come from the data; at its far end a slider sets no limit.
  list: [
    {rule: 'min_score', label: 'Minimum score', side: -1, range: () => [Charts.low, Charts.high]},
    {rule: 'max_score', label: 'Maximum score', side: 1, range: () => [Charts.low, Charts.high]},
    {rule: 'thin', label: 'Least distance, Å', side: -1, range: () => [0, Math.ceil(2.5 * Data.index.diameter * Data.index.apix)]},
    {rule: 'most', label: 'At most per micrograph', side: 1,
     range: () => [0, Data.index.counts.reduce((a, b) => Math.max(a, b), 1)]},
    {rule: 'min_average', label: 'Minimum local average', side: -1, range: () => Data.index.average, map: '--write_bg_mic'},
    {rule: 'max_average', label: 'Maximum local average', side: 1, range: () => Data.index.average, map: '--write_bg_mic'},
    {rule: 'min_sigma', label: 'Minimum local sigma', side: -1, range: () => Data.index.sigma, map: '--write_lsigma_mic'},
    {rule: 'max_sigma', label: 'Maximum local sigma', side: 1, range: () => Data.index.sigma, map: '--write_lsigma_mic'},
  ],
  inputs: new Map(),  // by rule: slider, number, step and ends
  frame: 0,

  start() {
    for (const one of Panel.list) Panel.addRule(one);
    const on = (id, event, call) => document.getElementById(id).addEventListener(event, call);
    on('left-out', 'change', event => Stage.leaveOut(event.target.checked));
    on('mode-pick', 'click', () => Stage.setMode('pick'));
    on('mode-brush', 'click', () => Stage.setMode('brush'));
    on('undo', 'click', Stage.undoLast);
    on('reset', 'click', Stage.reset);
    on('brush', 'input', Stage.changed);
    on('contrast', 'input', Stage.setContrast);
    for (const id of ['show-picks', 'show-rejected', 'show-dropped']) on(id, 'change', Stage.draw);
    on('save', 'click', Panel.save);
    on('load', 'click', () => document.getElementById('load-file').click());
    on('load-file', 'change', Panel.loadFile);
    on('start-over', 'click', Panel.startOver);
    on('copy', 'click', Panel.copy);
    document.getElementById('command').textContent = Panel.command();
  },

  // The step of a rule's slider: a thousandth of its range or so, and a round number.
  step(rule) { return Panel.inputs.get(rule).step; },

  addRule(one) {
    const range = one.range(), known = range !== null, [from, to] = range || [0, 1];
    const whole = one.rule === 'most' || one.rule === 'thin';
    const step = whole ? 1 : Charts.niceStep((to - from) / 1000 || 1e-6);
    const low = Math.floor(from / step + 1e-6) * step, high = Math.ceil(to / step - 1e-6) * step;
    const row = document.createElement('div'), text = document.createElement('span');
    const slider = document.createElement('input'), number = document.createElement('input');
    row.className = known ? 'rule' : 'rule off';
    text.textContent = known ? one.label : `${one.label}: needs ${one.map}`;
    Object.assign(slider, {type: 'range', min: low, max: high, step, value: one.side < 0 ? low : high, disabled: !known});
    Object.assign(number, {type: 'number', step: 'any', disabled: !known, placeholder: 'none'});
    slider.id = 'slider-' + one.rule;
    number.id = 'number-' + one.rule;
    slider.setAttribute('aria-label', one.label);
    number.setAttribute('aria-label', one.label + ', a number');
    const end = one.side < 0 ? low : high;
    slider.addEventListener('input', () => {
      const value = Number(slider.value);
      Panel.setRule(one.rule, value === Number((+end).toFixed(6)) || value === end ? null : +value.toFixed(6));
    });
    number.addEventListener('change', () => Panel.setRule(one.rule, number.value === '' ? null : Number(number.value)));
    slider.addEventListener('change', Table.arrange);
    number.addEventListener('change', Table.arrange);
    row.append(text, slider, number);
    document.getElementById('rules').append(row);
    Panel.inputs.set(one.rule, {slider, number, step, end});
  },

  // Distances are shown in Å and kept in pixels; "none" has a number of its own in the two rules that are no limits.
  shown(rule) {
    const value = Model.rules[rule];
    if (rule === 'thin') return value > 0 ? +(value * Data.index.apix).toFixed(3) : null;
    if (rule === 'most') return value >= 0 ? value : null;
    return value;
  },

  setRule(rule, value) {
    if (rule === 'thin') value = value === null ? 0 : Math.max(0, value) / Data.index.apix;
    if (rule === 'most') value = value === null ? -1 : Math.max(0, Math.round(value));
    if (Model.rules[rule] === value) return;
    Model.rules[rule] = value;
    Panel.showRules();
    if (!Panel.frame) Panel.frame = requestAnimationFrame(Panel.apply);
  },

  apply() {
    Panel.frame = 0;
    const {from, to} = Table.inSight();
    Model.recount(Stage.i >= 0 ? [Stage.i] : Table.order.slice(from, to));
  },

  showRules() {
    for (const [rule, {slider, number, end}] of Panel.inputs) {
      const value = Panel.shown(rule);
      slider.value = value === null ? end : value;
      number.value = value === null ? '' : value;
    }
  },

  // --- Saving ---

  command() {
    const quoted = text => /^[\w./+-]+$/.test(text) ? text : `'${text.replaceAll("'", "'\\''")}'`;
    return `cd ${quoted(Data.index.folder)} && kestrix_lists select --selection selection.json`;
  },

  save() {
    const link = document.createElement('a');
    link.href = URL.createObjectURL(new Blob([JSON.stringify(Model.selection()) + '\n'], {type: 'application/json'}));
    link.download = 'selection.json';
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 10000);
    const {kept} = Model.totals();
    Panel.say(`Saved: ${kept} picks. Move selection.json to the folder below, or give its path.`);
  },

  async loadFile(event) {
    const [file] = event.target.files;
    event.target.value = '';
    if (!file) return;
    try {
      const found = Model.take(JSON.parse(await file.text()));
      Stage.undo.clear();
      Panel.showRules();
      Table.arrange();
      Panel.say(`Loaded: ${found} of ${Data.index.names.length} micrographs are in this selection`);
    } catch (problem) {
      Panel.say(`${file.name} can't be used: ${problem.message}`);
    }
  },

  startOver() {
    if (!confirm('Undo all limits and all changes by hand?')) return;
    Model.rules = Selection.none();
    Model.edits.clear();
    Stage.undo.clear();
    Panel.showRules();
    Model.recount();
    Table.arrange();
  },

  async copy() {
    try {
      await navigator.clipboard.writeText(Panel.command());
      Panel.say('Copied');
    } catch (problem) {  // a browser may refuse it
      getSelection().selectAllChildren(document.getElementById('command'));
      Panel.say('Marked: copy it by Ctrl+C');
    }
  },

  say(text) { document.getElementById('message').textContent = text; },
};

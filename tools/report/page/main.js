'use strict';
// Starts the page, shows totals, hands keys on, and keeps the selection over a reload.
const Main = {
  store: 'kestrix ' + location.pathname,
  saving: 0,

  start() {
    if (!Data.index) {
      document.body.textContent = 'data/index.js is missing: the folder of this page is not complete.';
      return;
    }
    Model.start();
    Charts.start();
    Panel.start();
    Main.restore();
    Model.listeners.push(Main.showTotals, Main.showOverview, Stage.changed, Main.keep);
    Model.recount();
    Table.start();
    Stage.start();
    Panel.showRules();
    document.getElementById('to-overview').onclick = Stage.close;
    document.getElementById('previous').onclick = () => Stage.go(-1);
    document.getElementById('next').onclick = () => Stage.go(1);
    document.getElementById('help-button').onclick = () => document.getElementById('help').showModal();
    addEventListener('keydown', Main.key);
    Main.openFromAddress();
    Main.showWhere();
  },

  openFromAddress() {
    const i = parseInt(location.hash.slice(1), 10) - 1;
    if (i >= 0 && i < Data.index.names.length) Stage.show(i);
  },

  key(event) {
    const typed = event.target.closest('input:not([type=range]):not([type=checkbox]), select, dialog');
    if (typed || event.ctrlKey || event.metaKey || event.altKey) return;
    const moves = event.target.matches('input[type=range]') && event.key.startsWith('Arrow');
    if (moves) return;
    if (event.key === '?') document.getElementById('help').showModal();
    else if (Stage.i < 0 || !Stage.key(event.key)) return;
    event.preventDefault();
  },

  showTotals() {
    const t = Model.totals(), n = number => number.toLocaleString('en');
    document.getElementById('totals').textContent = `${n(t.kept)} of ${n(t.all)} picks kept in ${n(t.micrographs)} micrographs` +
        (t.left_out ? `, ${n(t.left_out)} left out` : '') + (t.pending ? ` (counting ${n(t.pending)} …)` : '');
  },

  showOverview() {
    if (document.getElementById('overview').hidden) return;
    Charts.drawKept();
    Table.draw();
  },

  showWhere() {
    const open = Stage.i >= 0;
    document.getElementById('to-overview').setAttribute('aria-pressed', !open);
    for (const [id, step] of [['previous', -1], ['next', 1]])
      document.getElementById(id).disabled = !open || Stage.neighbour(step) < 0;
    document.getElementById('where').textContent =
        open ? `${Table.order.indexOf(Stage.i) + 1} / ${Table.order.length}  ${Data.index.names[Stage.i]}` : '';
    document.title = open ? `${Data.index.names[Stage.i]}: Kestrix picks` : 'Kestrix: picks';
  },

  // --- Over a reload ---

  // What tells this report from another one at the same place.
  signature() { return `${Data.index.names.length} ${Data.index.scores.length} ${Data.index.names[0]}`; },

  keep() {
    clearTimeout(Main.saving);
    Main.saving = setTimeout(() => {
      try {
        const kept = {signature: Main.signature(), rules: Model.rules, edits: [...Model.edits]};
        localStorage.setItem(Main.store, JSON.stringify(kept));
      } catch (problem) { /* no room, or not allowed: the saved file is what counts */ }
    }, 400);
  },

  restore() {
    try {
      const kept = JSON.parse(localStorage.getItem(Main.store));
      if (!kept || kept.signature !== Main.signature()) return;
      Model.rules = Object.assign(Selection.none(), kept.rules);
      Model.edits = new Map(kept.edits);
      const empty = JSON.stringify(Model.rules) === JSON.stringify(Selection.none()) && Model.edits.size === 0;
      if (!empty) Panel.say('Your last limits and changes are back; Start over undoes them.');
    } catch (problem) { /* nothing to restore */ }
  },
};

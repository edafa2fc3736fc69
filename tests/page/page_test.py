#!/usr/bin/env python3
"""The page of kestrix_report in a real browser, held to what kestrix_lists select writes.

  page_test.py KESTRIX_REPORT KESTRIX_LISTS [SELECTIONS]

Ends with 77, skipped, where no headless Chromium is installed.
"""

import json
import os
import random
import struct
import subprocess
import sys
import tempfile
import unittest

from browser import Browser, find_browser

HERE = os.path.dirname(os.path.abspath(__file__))
SIDE, BOX, MICROGRAPHS = 512, 40, 6


def mrc(nx, ny, samples):
    header = bytearray(1024)
    struct.pack_into("<4i", header, 0, nx, ny, 1, 2)
    return bytes(header) + samples


def write_micrograph(folder, number, rng):
    """A micrograph of noise with a list of 150 picks, some at one place or of one score, and maps of --speed 2."""
    name = os.path.join(folder, f"m{number}")
    samples = struct.pack(f"<{SIDE * SIDE}f", *(rng.gauss(0, 1) for _ in range(SIDE * SIDE)))
    with open(name + ".mrc", "wb") as file:
        file.write(mrc(SIDE, SIDE, samples))
    for suffix in ("_bg.mrc", "_lsigma.mrc"):
        side = SIDE // 4
        values = [rng.choice((-1.5, 0.1, rng.gauss(0, 1))) for _ in range(side * side)]
        values[rng.randrange(side * side)] = float("nan")
        with open(name + suffix, "wb") as file:
            file.write(mrc(side, side, struct.pack(f"<{side * side}f", *values)))
    with open(name + "_quorlin.box", "w") as file:
        for _ in range(150):
            x, y = rng.randrange(21, SIDE - 21), rng.randrange(21, SIDE - 21)
            score = rng.choice((0.3, 0.7, rng.random(), rng.random()))
            file.write("%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n" % (x - BOX // 2, y - BOX // 2, BOX, BOX, score, 0, 0))
    with open(name + "_rejected.box", "w") as file:
        file.write("%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n" % (100, 200, 64, 64, -1.6, 1.4))


def random_selection(rng, names, picks):
    def limit(values):
        return rng.choice((None, None, rng.choice(values), rng.uniform(-1, 1)))

    def place():
        return [rng.randrange(30, SIDE - 30), rng.randrange(30, SIDE - 30)]

    micrographs = []
    for name, own in zip(names, picks):
        one = {"name": name}
        if rng.random() < 0.1:
            one["left_out"] = True
        if rng.random() < 0.5:
            one["dropped"] = [list(p) for p in rng.sample(own, 4)]
            one["added"] = [place() for _ in range(rng.randrange(3))]
            one["brushed"] = [place() + [rng.choice((25.0, rng.uniform(5, 90)))] for _ in range(rng.randrange(3))]
        micrographs.append(one)
    rules = {
        "min_score": limit((0.3, 0.7)),
        "max_score": limit((0.7, 0.9)),
        "min_average": limit((-1.5, 0.1)),
        "max_average": limit((0.1, 2)),
        "min_sigma": limit((-1.5, -1)),
        "max_sigma": limit((0.1, 3)),
        "thin": rng.choice((0, 0, 20, rng.uniform(1, 60))),
        "most": rng.choice((-1, -1, 0, 5, 40)),
    }
    return {"kestrix_selection": 1, "list": "_quorlin", "rules": rules, "micrographs": micrographs}


def centres(name):
    with open(name) as file:
        boxes = [[int(word) for word in line.split()[:4]] for line in file]
    return [[x + w // 2, y + h // 2] for x, y, w, h in boxes]


class Page(unittest.TestCase):
    report, lists, selections = None, None, 40

    @classmethod
    def setUpClass(cls):
        cls.kept_folder = tempfile.TemporaryDirectory()
        cls.folder = cls.kept_folder.name
        rng = random.Random(1)
        for number in range(MICROGRAPHS):
            write_micrograph(cls.folder, number, rng)
        cls.names = [f"m{number}.mrc" for number in range(MICROGRAPHS)]

    @classmethod
    def tearDownClass(cls):
        cls.kept_folder.cleanup()

    def run_tool(self, *command, status=0):
        done = subprocess.run(command, cwd=self.folder, capture_output=True, text=True)
        self.assertEqual(status, done.returncode, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def open_page(self, *options, **settings):
        names = [*self.names, *settings.pop("more", [])]
        status = settings.pop("status", 0)
        self.run_tool(self.report, "--apixM", "2", "--diameter", "60", *options, *names, status=status)
        page = Browser(f"file://{self.folder}/kestrix_report/index.html", downloads=self.folder, **settings)
        self.addCleanup(page.close)
        self.addCleanup(lambda: self.assertEqual([], page.problems))
        page.settle()
        return page

    def select(self, selection):
        with open(os.path.join(self.folder, "selection.json"), "w") as file:
            file.write(selection)
        self.run_tool(self.lists, "select", "--selection", "selection.json")
        return [centres(os.path.join(self.folder, name[:-4] + "_selected.box")) for name in self.names]

    def kept_by_page(self, page):
        """What the page draws as kept, and checks that the overview counts the same."""
        kept = page.js(
            """new Promise(done => { const look = () => {
              if (Model.totals().pending > 0) return setTimeout(look, 5);
              done(Data.index.names.map((name, i) => {
                const picks = Data.picks(i), edits = Model.editsOf(i), keep = Selection.keep(picks, Model.rules, edits);
                const all = [];
                for (let k = 0; k < keep.length; k++) if (keep[k]) all.push([picks.x[k], picks.y[k]]);
                return edits.left_out ? [] : all.concat(edits.added);
              })); }; look(); })"""
        )
        self.assertEqual([len(own) for own in kept], page.js("[...Model.kept]"))
        return kept

    def test_the_examples_of_the_rules_hold_in_the_page(self):
        page = self.open_page()
        with open(os.path.join(HERE, "..", "selection_examples.json")) as file:
            examples = json.load(file)["examples"]
        for example in examples:
            columns = list(zip(*example["picks"]))
            texts = [f"Float32Array.from({json.dumps(c)}, v => v === null ? NaN : v)" for c in columns]
            picks = "{" + ",".join(f"{n}: {t}" for n, t in zip(("x", "y", "score", "average", "sigma"), texts)) + "}"
            rules = f"Object.assign(Selection.none(), {json.dumps(example['rules'])})"
            edits = f"Object.assign(Selection.noEdits(), {json.dumps(example.get('edits', {}))})"
            kept = page.js(f"[...Selection.keep({picks}, {rules}, {edits})].flatMap((k, i) => k ? [i] : [])")
            self.assertEqual(example["kept"], kept, example["name"])

    def test_random_selections_come_out_as_the_page_shows_them(self):
        page = self.open_page("--folder")
        rng = random.Random(2)
        picks = [centres(os.path.join(self.folder, name[:-4] + "_quorlin.box")) for name in self.names]
        compared = 0
        for _ in range(self.selections):
            selection = random_selection(rng, self.names, picks)
            page.js(f"void Model.take({json.dumps(selection)})")
            kept = self.kept_by_page(page)
            self.assertEqual(kept, self.select(page.js("JSON.stringify(Model.selection())")))
            compared += sum(len(own) for own in kept)
        print(f"{self.selections} selections agree, {compared} picks in all")

    def test_limits_clicks_brush_and_keys_reach_the_saved_file(self):
        page = self.open_page()
        page.click_on("#threshold")
        line = page.js("(b => [b.x + b.width / 2, b.y + 30])(document.getElementById('threshold').getBoundingClientRect())")
        page.drag([line, (line[0] + 60, line[1]), (line[0] + 120, line[1])])
        least = page.js("Model.rules.min_score")
        self.assertGreater(least, 0.2)
        page.key("ArrowRight")  # the line has the focus
        self.assertAlmostEqual(least + page.js("Panel.step('min_score')"), page.js("Model.rules.min_score"))
        page.js("document.querySelector('a[data-micrograph]').click()")
        page.settle()
        spot = "(([x, y], b) => [x + b.x, y + b.y])(Stage.toPage(Stage.picks.x[K], Stage.picks.y[K]), document.getElementById('stage').getBoundingClientRect())"
        first = page.js("Stage.kept.indexOf(1)")
        page.click(*page.js(spot.replace("K", str(first))))
        self.assertEqual(1, page.js("Model.editsOf(0).dropped.length"))
        page.key("u")
        self.assertEqual(0, page.js("Model.editsOf(0).dropped.length"))
        page.click(*page.js(spot.replace("K", str(first))))
        page.key("d")  # with dropped ones hidden any place that holds no kept pick is free
        free = page.js(
            """(() => { const box = document.getElementById('stage').getBoundingClientRect();
              for (let x = 30; x < 480; x += 7) for (let y = 30; y < 480; y += 7) if (!Stage.pickAt(x, y)) {
                const [px, py] = Stage.toPage(x, y); return [px + box.x, py + box.y]; } })()"""
        )
        page.click(*free)
        self.assertEqual(1, page.js("Model.editsOf(0).added.length"))
        page.key("n")
        self.assertEqual(1, page.js("Stage.i"))
        page.key("b")
        middle = page.js("(b => [b.x + b.width / 2, b.y + b.height / 2])(document.getElementById('stage').getBoundingClientRect())")
        page.drag([middle, (middle[0] + 60, middle[1]), (middle[0] + 120, middle[1] + 20)])
        self.assertGreater(page.js("Model.editsOf(1).brushed.length"), 2)
        page.key("n")
        page.key("x")
        self.assertTrue(page.js("Model.editsOf(2).left_out"))
        page.key(".")
        self.assertIn("Pick 1 of 150", page.js("document.getElementById('message').textContent"))
        kept = self.kept_by_page(page)
        page.key("Escape")
        self.assertFalse(page.js("document.getElementById('overview').hidden"))
        saved = os.path.join(self.folder, "selection.json")
        if os.path.exists(saved):
            os.remove(saved)
        page.click_on("#save")
        page.js("new Promise(done => setTimeout(done, 500))")
        with open(saved) as file:
            text = file.read()
        self.assertEqual(kept, self.select(text))
        self.assertEqual([], kept[2])
        # The selection outlives a reload, and can be loaded into another page.
        page.open(f"file://{self.folder}/kestrix_report/index.html")
        self.assertEqual(kept, self.kept_by_page(page))

    def test_what_cannot_be_read_is_named_and_shown(self):
        with open(os.path.join(self.folder, "short.mrc"), "wb") as file:
            file.write(mrc(400, 400, b"none of it"))
        with open(os.path.join(self.folder, "short_quorlin.box"), "w") as file:
            file.write("1 2 40 40 0.5\nnot a box\n</script><script>alert(1)\n")
        page = self.open_page(more=["short.mrc", "gone.mrc"], status=3)
        self.assertEqual(MICROGRAPHS + 2, page.js("Data.index.names.length"))
        self.assertEqual(["problem"] * 2, page.js(f"[{MICROGRAPHS}, {MICROGRAPHS + 1}].map(Table.state)"))
        page.js(f"Stage.show({MICROGRAPHS})")
        page.settle()
        self.assertIn("ends after", page.js("document.getElementById('nothing').textContent"))
        self.assertIn("line 2 left out", page.js("document.getElementById('nothing').textContent"))


if __name__ == "__main__":
    if find_browser() is None:
        print("skipped: chromium-headless-shell is not installed")
        sys.exit(77)
    Page.report, Page.lists = (os.path.abspath(tool) for tool in sys.argv[1:3])
    if len(sys.argv) > 3:
        Page.selections = int(sys.argv[3])
    unittest.main(argv=sys.argv[:1], verbosity=2)

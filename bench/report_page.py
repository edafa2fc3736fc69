#!/usr/bin/env python3
"""How fast kestrix_report and its page are with many micrographs. Needs chromium-headless-shell for the page.

  bench/report_page.py [MICROGRAPHS [PICKS]]      10000 micrographs with 300 picks each

The micrographs are links to one noise image, so the first figure tells lists, thumbnails and files, not a disk. Folders
stand beside the time of `cat` over the same lists and the same image, read so many times.
"""

import os
import random
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "tests", "page"))
from browser import Browser, find_browser  # noqa: E402

SIDE = 512


def make_data(folder, micrographs, picks):
    rng = random.Random(5)
    header = bytearray(1024)
    struct.pack_into("<4i", header, 0, SIDE, SIDE, 1, 0)
    with open(os.path.join(folder, "noise.dat"), "wb") as file:
        file.write(bytes(header) + rng.randbytes(SIDE * SIDE))
    lists = []
    for _ in range(50):
        lines = ("%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n" % (rng.randrange(440), rng.randrange(440), 64, 64, rng.random() ** 2, 0, 0) for _ in range(picks))
        lists.append("".join(lines))
    for number in range(micrographs):
        base = os.path.join(folder, f"mic_{number:05d}")
        os.symlink("noise.dat", base + ".mrc")
        with open(base + "_quorlin.box", "w") as file:
            file.write(lists[number % 50])


def seconds(call):
    start = time.monotonic()
    call()
    return time.monotonic() - start


def time_tool(folder, micrographs):
    def run(command):
        return lambda: subprocess.run(["bash", "-c", command], cwd=folder, check=True, stdout=subprocess.DEVNULL)

    with open(os.path.join(folder, "list.txt"), "w") as file:
        file.writelines(f"mic_{number:05d}.mrc\n" for number in range(micrographs))
    reading = seconds(run("xargs cat < list.txt; sed s/.mrc/_quorlin.box/ list.txt | xargs cat"))
    tool = os.path.abspath(os.path.join(ROOT, "build", "kestrix_report"))
    making = seconds(run(f"{tool} --apixM 2 --diameter 100 --micrographs list.txt"))
    print(f"cat of images and lists        {reading:8.2f} s")
    print(f"kestrix_report                 {making:8.2f} s, {making / micrographs * 1000:.1f} ms a micrograph")


# Sets limits as a hand on the slider does, one after the other; each time until the page has drawn.
SLIDE = """(async () => {
  const frame = () => new Promise(done => requestAnimationFrame(() => {
    const channel = new MessageChannel(); channel.port1.onmessage = done; channel.port2.postMessage(0); }));
  const times = [];
  for (let k = 1; k <= 40; k++) {
    await frame();
    const start = performance.now();
    RULE;
    Panel.apply();
    times.push(performance.now() - start);
    await frame();
  }
  return times.sort((a, b) => a - b);
})()"""


def time_page(folder):
    page = Browser("about:blank")
    start = time.monotonic()
    page.open(f"file://{folder}/kestrix_report/index.html")
    page.settle()
    print(f"page open and drawn            {time.monotonic() - start:8.2f} s, {page.js('Data.index.scores.length')} picks")
    rules = {"minimum score": "Model.rules.min_score = k / 50", "at most": "Model.rules.min_score = null; Model.rules.most = 10 + k"}
    for name, rule in rules.items():
        times = page.js(SLIDE.replace("RULE", rule))
        print(f"{name + ' moved':30} {times[len(times) // 2]:8.1f} ms in the middle, {times[-1]:.1f} ms at worst, of 40")
    start = time.monotonic()
    page.js("Stage.show(5000 % Data.index.names.length)")
    page.js("new Promise(done => { const look = () => Stage.picks ? done() : setTimeout(look, 5); look(); })")
    page.settle()
    print(f"a micrograph opened            {time.monotonic() - start:8.2f} s")
    times = page.js(SLIDE.replace("RULE", "Model.rules.most = -1; Model.rules.thin = 20 + k / 4"))
    print(f"{'its circles at a least distance':30} {times[len(times) // 2]:7.1f} ms in the middle, {times[-1]:.1f} ms at worst, of 40")
    start = time.monotonic()
    page.js("new Promise(done => { const look = () => Model.totals().pending ? setTimeout(look, 20) : done(); look(); })")
    print(f"all counted at a least distance{time.monotonic() - start:8.2f} s, coordinates fetched meanwhile")
    if page.problems:
        sys.exit("the page complains: " + page.problems[0])
    page.close()


def main():
    micrographs, picks = (int(n) for n in (sys.argv[1:] + ["10000", "300"][len(sys.argv) - 1 :])[:2])
    with tempfile.TemporaryDirectory() as folder:
        make_data(folder, micrographs, picks)
        time_tool(folder, micrographs)
        if find_browser():
            time_page(folder)
        else:
            print("chromium-headless-shell is not installed: the page was not timed")


if __name__ == "__main__":
    main()

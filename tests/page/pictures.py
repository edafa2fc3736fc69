#!/usr/bin/env python3
"""Makes the pictures of kestrix_report's page in docs/images, from the micrographs of the user's guide.

  tests/page/pictures.py [BUILD]      default: build
"""

import os
import subprocess
import sys
import tempfile

from browser import Browser

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
IMAGES = os.path.join(ROOT, "docs", "images")


def pick(build, folder):
    def run(program, arguments):
        subprocess.run([os.path.join(build, program), *arguments.split()], cwd=folder, check=True, stdout=subprocess.DEVNULL)

    os.mkdir(os.path.join(folder, "Micrographs"))
    names = " ".join(f"Micrographs/mic_{number:03}.mrc" for number in range(1, 13))
    run("kestrix_simulate", "--prefix Micrographs/mic_ --number 12 --ice 8 --carbon 0.1 --seed 3 --boxT 128")
    run("kestrix", "--apixM 1.34 --diameter 260 --T Micrographs/mic_templates.mrcs --apixT 2.68 --cc_cutoff 0.05 "
        f"{names} --write_bg_mic --write_lsigma_mic --write_mic_mask")
    run("kestrix_report", f"--apixM 1.34 --diameter 260 {names}")


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
    with tempfile.TemporaryDirectory() as folder:
        pick(build, folder)
        page = Browser(f"file://{folder}/kestrix_report/index.html")
        page.js("Data.index.folder = '/data/session'; document.getElementById('command').textContent = Panel.command()")
        page.js("Panel.setRule('min_score', 0.5)")
        page.settle()
        page.shot(os.path.join(IMAGES, "report_overview.png"))
        page.js("document.querySelector('a[data-micrograph]').click()")
        page.js("new Promise(done => setTimeout(done, 800))")
        page.js("document.activeElement.blur()")
        page.settle()
        page.shot(os.path.join(IMAGES, "report_micrograph.jpg"), quality=72)
        page.close()


if __name__ == "__main__":
    main()

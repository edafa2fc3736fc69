#!/usr/bin/env python3
"""Facts about tools/kestrix_lists.py. Ends with 77, skipped, where numpy or Pillow are missing."""

import importlib.util
import os
import struct
import subprocess
import sys
import tempfile
import unittest

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "kestrix_lists.py")

PARTICLES = """
# version 30001

data_optics

loop_
_rlnOpticsGroupName #1
_rlnOpticsGroup #2
og1 1

# version 30001

data_particles

loop_
_rlnMicrographName #1
_rlnCoordinateY #2
_rlnCoordinateX #3
Micrographs/a.mrc 20.5 10.25
Micrographs/b.mrcs 40 30

Micrographs/a.mrc 60 50
"""

PICKS_STAR = """
data_

loop_
_rlnCoordinateX #1
_rlnCoordinateY #2
_rlnAnglePsi #3
_rlnClassNumber #4
_rlnAutopickFigureOfMerit #5
2       2       0.000000\t0       0.500000
13      2       0.000000\t0       0.300000
2       13      0.000000\t0       0.700000
"""

PICKS_BOX = "0 0 4 4 0.5\t0 0.0\n11 0 4 4 0.3\t0 0.0\n0 11 4 4 0.7\t0 0.0\n"


def mrc(nx, ny, mode, samples, extended=b""):
    header = bytearray(1024)
    struct.pack_into("<4i", header, 0, nx, ny, 1, mode)
    struct.pack_into("<i", header, 92, len(extended))
    return bytes(header) + extended + samples


class Lists(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def write(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def run_tool(self, *arguments):
        return subprocess.run([sys.executable, TOOL, *arguments], capture_output=True, text=True)

    def test_split_writes_a_plain_list_for_each_micrograph(self):
        table = self.write("particles.star", PARTICLES)
        self.assertEqual(0, self.run_tool("split", table, "_bad.star", "--dir", self.folder.name).returncode)
        head = b"\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
        self.assertEqual(head + b"      10.250       20.500\n      50.000       60.000\n", self.read("a_bad.star"))
        self.assertEqual(head + b"      30.000       40.000\n", self.read("b_bad.star"))

    def test_filter_by_score_keeps_the_head_and_the_lines_as_they_are(self):
        for name, text in (("p.star", PICKS_STAR), ("p.box", PICKS_BOX)):
            out = "out" + name[1:]
            self.run_tool("filter", self.write(name, text), self.path(out), "--min_score", "0.5")
            expected = "".join(line for line in text.splitlines(True) if not line.startswith(("13", "11")))
            self.assertEqual(expected, self.read(out).decode())

    def test_filter_by_map_looks_at_the_working_pixel_under_the_centre(self):
        image = self.write("bg.mrc", mrc(2, 2, 2, struct.pack("<4f", 0, -2, 1, 0)))
        limits = ("--map", image, "--map_min", "-1", "--map_max", "0.5", "--speed", "4")
        for name, text in (("p.star", PICKS_STAR), ("p.box", PICKS_BOX)):
            done = self.run_tool("filter", self.write(name, text), self.path("out" + name[1:]), *limits)
            self.assertIn("1 of 3 kept", done.stdout)
        self.assertEqual("0 0 4 4 0.5\t0 0.0\n", self.read("out.box").decode())

    def test_strip_leaves_the_samples_behind_a_plain_header(self):
        samples = struct.pack("<4f", 1, 2, 3, 4)
        source = self.write("e.mrc", mrc(2, 2, 2, samples, b"\7" * 80))
        self.assertEqual(0, self.run_tool("strip", source, self.path("s.mrc")).returncode)
        self.assertEqual(mrc(2, 2, 2, samples), self.read("s.mrc"))
        self.assertEqual(1, self.run_tool("strip", source, source).returncode)

    def test_draw_marks_each_centre(self):
        from PIL import Image

        image = self.write("m.mrc", mrc(16, 16, 0, bytes(range(256))))
        picks = self.write("p.box", PICKS_BOX)
        self.run_tool("draw", image, self.path("out.png"), picks + "=red:box")
        drawn = Image.open(self.path("out.png"))
        self.assertEqual((16, 16), drawn.size)
        self.assertEqual((255, 0, 0), drawn.getpixel((0, 0)))
        self.assertNotEqual((255, 0, 0), drawn.getpixel((8, 8)))

    def test_bad_input_ends_with_one_line(self):
        cases = [
            ("draw", self.write("t.mrc", b"short"), self.path("x.png")),
            ("draw", self.path("none.mrc"), self.path("x.png")),
            ("filter", self.write("c.star", "data_\nloop_\n_rlnAnglePsi #1\n4\n"), self.path("x.star")),
            ("filter", self.write("w.box", "1 2 three 4\n"), self.path("x.box")),
            ("split", self.write("p.star", PICKS_STAR), "_bad.star"),
        ]
        for case in cases:
            done = self.run_tool(*case)
            self.assertEqual(1, done.returncode, case)
            self.assertEqual(1, len(done.stderr.splitlines()), done.stderr)


if __name__ == "__main__":
    if not all(importlib.util.find_spec(module) for module in ("numpy", "PIL")):
        sys.exit(77)
    unittest.main()

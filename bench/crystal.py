#!/usr/bin/env python3
"""What the picker does with a large dark area of a micrograph, and with a list of coordinates to leave out.

crystal.py MICROGRAPH LIST.star --apixM ANGSTROM --diameter ANGSTROM [--speed LEVEL] [--out DIR]

The dark area (an ice crystal) is found on the image itself: its local mean over 7 x 7 pixels lies more than
5 robust deviations of that mean below its median; of such places the piece that holds the darkest one counts.
Prints a table of runs and draws their picks and rejected places. Works on copies in DIR.
Needs python3-numpy, and the build's kestrix_lists.
"""

import argparse
import os
import shutil
import subprocess
import sys

import numpy

WINDOW = 7
DEVIATIONS = 5
SHRINK_OF_SPEED = {0: 1, 1: 2, 2: 4, 3: 6, 4: 8}
SAMPLE_TYPES = {0: "u1", 1: "<i2", 2: "<f4", 6: "<u2"}


def read_image(name):
    """Section 0 of an MRC file without an extended header, row y and column x."""
    with open(name, "rb") as file:
        nx, ny, _, mode = numpy.frombuffer(file.read(1024), "<i4", 4)
        return numpy.fromfile(file, SAMPLE_TYPES[int(mode)], nx * ny).reshape(ny, nx).astype("f4")


def read_points(name):
    """Centres of a list and the side of its boxes, 0 in a STAR file, whose first two columns are x and y."""
    with open(name) as file:
        rows = [line.split() for line in file if line[:1].isdigit() or line[:1] in " -"]
    if name.endswith(".star"):
        return [(float(row[0]), float(row[1]), 0) for row in rows if len(row) > 1]
    boxes = [[int(word) for word in row[:4]] for row in rows]
    return [(x + w // 2, y + h // 2, w) for x, y, w, h in boxes]


def local_mean(image, window):
    padded = numpy.pad(image.astype("f8"), window // 2, mode="symmetric")
    sums = numpy.pad(padded.cumsum(0).cumsum(1), ((1, 0), (1, 0)))
    total = sums[window:, window:] - sums[:-window, window:] - sums[window:, :-window] + sums[:-window, :-window]
    return total / window**2


def dark_area(image):
    """The dark area as a boolean image, grown from the darkest place over all that is dark enough."""
    mean = local_mean(image, WINDOW)
    median = numpy.median(mean)
    dark = mean < median - DEVIATIONS * 1.4826 * numpy.median(abs(mean - median))
    area = numpy.zeros_like(dark)
    area[numpy.unravel_index(mean.argmin(), mean.shape)] = True
    while True:
        grown = area.copy()
        grown[1:] |= area[:-1]
        grown[:-1] |= area[1:]
        grown[:, 1:] |= area[:, :-1]
        grown[:, :-1] |= area[:, 1:]
        grown &= dark
        if (grown == area).all():
            return area
        area = grown


def closed_pixels(mask_name, shape, shrink):
    """Pixels of the micrograph in cells that the mask closes."""
    closed = numpy.kron(read_image(mask_name) == 0, numpy.ones((shrink, shrink), bool))
    whole = numpy.zeros(shape, bool)
    height, width = (min(a, b) for a, b in zip(shape, closed.shape))
    whole[:height, :width] = closed[:height, :width]
    return whole


def boxed_pixels(box_name, shape):
    """Pixels of the micrograph within the boxes of a list."""
    boxed = numpy.zeros(shape, bool)
    for x, y, side in read_points(box_name):
        boxed[max(y - side // 2, 0) : y - side // 2 + side, max(x - side // 2, 0) : x - side // 2 + side] = True
    return boxed


def count_on(area, points):
    height, width = area.shape
    return sum(bool(area[int(y), int(x)]) for x, y, *_ in points if 0 <= x < width and 0 <= y < height)


def least_distance(points, others):
    if not points or not others:
        return float("nan")
    a = numpy.array([p[:2] for p in points])[:, None]
    b = numpy.array([p[:2] for p in others])[None]
    return float(numpy.sqrt(((a - b) ** 2).sum(axis=2)).min())


def pick(args, label, extra):
    """Runs the picker, keeps its lists under the label's name and draws them."""
    command = [args.kestrix, *args.options, args.mic, *extra, "--write_mic_mask"]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    with open(os.path.join(args.out, label + ".log"), "w") as log:
        log.write(done.stdout)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with status {done.returncode}:\n{done.stdout[-2000:]}")
    names = {}
    for kind in ("quorlin.box", "quorlin.star", "rejected.box", "mask.mrc"):
        made = f"{args.base}_{kind}"
        names[kind] = os.path.join(args.out, f"{label}_{kind}")
        if os.path.exists(made):
            os.replace(made, names[kind])
    return names


def vetoed_pixels(box_name, shape):
    """Pixels of the micrograph where no peak counts: nearer to a rejected point than a cell's diagonal."""
    rows, columns = numpy.ogrid[: shape[0], : shape[1]]
    vetoed = numpy.zeros(shape, bool)
    for x, y, side in read_points(box_name):
        reach = int(side * 1.5) + 1
        rows_near, columns_near = slice(max(y - reach, 0), y + reach), slice(max(x - reach, 0), x + reach)
        square = (rows[rows_near] - y) ** 2 + (columns[:, columns_near] - x) ** 2
        vetoed[rows_near, columns_near] |= square < 2 * side**2
    return vetoed


def draw(args, names, label):
    lists = [names["quorlin.box"] + "=lime:circle", args.list + "=yellow:cross"]
    if os.path.exists(names["rejected.box"]):
        lists.insert(0, names["rejected.box"] + "=red:box")
    picture = os.path.join(args.out, label + ".png")
    subprocess.run([args.kestrix + "_lists", "draw", "--diameter", "24", args.mic, picture, *lists], check=True)


def measure(args, area, listed, label, extra):
    """Prints one row of the table. Returns the picks."""
    names = pick(args, label, extra)
    points = read_points(names["quorlin.box"])
    closed = closed_pixels(names["mask.mrc"], area.shape, SHRINK_OF_SPEED[args.speed])
    parts = [area & False, area & False, closed]
    if os.path.exists(names["rejected.box"]):
        parts[:2] = boxed_pixels(names["rejected.box"], area.shape), vetoed_pixels(names["rejected.box"], area.shape)
    shares = "".join(f"{100 * (part & area).sum() / area.sum():10.1f}" for part in parts)
    outside = 100 * (closed & ~area).sum() / (~area).sum()
    print(f"{label:18} {len(points):5} {count_on(area, points):6} {shares} {outside:10.1f} "
          f"{least_distance(points, listed):11.1f}   {' '.join(extra)}")
    draw(args, names, label)
    return points


def report_exclusion(points, excluded, listed, limit):
    """Whether leaving out coordinates took away the picks near them and no others."""
    reach = [point for point in points if least_distance([point], [(int(x), int(y)) for x, y, *_ in listed]) < limit]
    rest = [point for point in points if point not in reach]
    print(f"\nof the {len(points)} picks of the default run {len(reach)} lie within {limit:.1f} pixels of a listed "
          f"coordinate; the run with the list kept {'exactly' if rest == excluded else 'NOT'} the other {len(rest)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("micrograph")
    parser.add_argument("list")
    parser.add_argument("--apixM", required=True)
    parser.add_argument("--diameter", required=True)
    parser.add_argument("--kestrix", default="build/kestrix")
    parser.add_argument("--speed", type=int, default=1)
    parser.add_argument("--out", default="crystal-data")
    args = parser.parse_args()
    args.options = ["--apixM", args.apixM, "--diameter", args.diameter, "--speed", str(args.speed)]
    os.makedirs(args.out, exist_ok=True)
    args.base = os.path.join(args.out, "mic")
    args.mic = args.base + ".mrc"
    shutil.copyfile(args.micrograph, args.mic)
    shutil.copyfile(args.list, args.base + "_listed.star")
    listed = read_points(args.list)
    # A list without comments, which end a head for the picker.
    select = [args.kestrix + "_lists", "select", "--list", "_listed.star", "--suffix", "_plain", args.mic]
    subprocess.run(select, check=True, stdout=subprocess.DEVNULL)

    area = dark_area(read_image(args.mic))
    ys, xs = numpy.where(area)
    print(f"dark area: {area.sum()} pixels, {100 * area.mean():.1f} % of the micrograph, x {xs.min()} to {xs.max()}, "
          f"y {ys.min()} to {ys.max()}")
    print(f"of {len(listed)} listed coordinates {count_on(area, listed)} lie on it\n")
    print(f"{'run':18} picks  on it    boxed %  vetoed %  closed %  elsewhere %  listed min   options")
    exclude = ["--exclusive_picking", "1", "--excluded_suffix"]
    points = measure(args, area, listed, "default", [])
    measure(args, area, listed, "no_detection", ["--detect_ice", "0"])
    for cutoff in ("0.9", "0.7", "0.5", "0.3"):
        measure(args, area, listed, "lsigma_" + cutoff, ["--lsigma_cutoff", cutoff])
    measure(args, area, listed, "lave_min_-0.5", ["--lave_min", "-0.5"])
    measure(args, area, listed, "small_lave_window", ["--lave_D", "100"])
    measure(args, area, listed, "pre_filter", ["--do_pre_filter", "1"])
    measure(args, area, listed, "list_as_given", [*exclude, "_listed.star"])
    excluded = measure(args, area, listed, "list", [*exclude, "_plain.star"])
    measure(args, area, listed, "list_masked", [*exclude, "_plain.star", "--mask_excluded", "1"])
    side = read_points(os.path.join(args.out, "default_rejected.box"))[0][2]
    report_exclusion(points, excluded, listed, side * 2**0.5)


if __name__ == "__main__":
    main()

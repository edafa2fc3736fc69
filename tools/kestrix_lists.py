#!/usr/bin/env python3
"""Help with coordinate lists and MRC files around kestrix.

  draw    draws lists onto a micrograph
  filter  keeps the lines of a list within limits of score and of a diagnostic image
  split   turns a particle table of RELION into one plain list per micrograph, for --excluded_suffix
  strip   copies an MRC file without its extended header

kestrix_lists COMMAND --help tells the options. draw and filter --map need python3-numpy, draw python3-pil too.
"""

import argparse
import os
import sys

SAMPLE_TYPES = {0: "u1", 1: "<i2", 2: "<f4", 6: "<u2"}
HEADER_BYTES = 1024
SHRINK_OF_SPEED = {0: 1, 1: 2, 2: 4, 3: 6, 4: 8}


def need(module, package):
    try:
        return __import__(module)
    except ImportError:
        return sys.exit(f"this needs the Debian package {package}, seen by {sys.executable}")


def header_int(header, offset):
    return int.from_bytes(header[offset : offset + 4], "little", signed=True)


def read_header(file, name):
    header = file.read(HEADER_BYTES)
    if len(header) < HEADER_BYTES:
        sys.exit(f"{name} is shorter than an MRC header")
    return header


# --- Lists ---


def star_tables(lines):
    """All tables of a STAR file: the columns' numbers from 0 by keyword, and the data lines."""
    tables = []
    for line in lines:
        words = line.split()
        if not words or words[0].startswith("#"):
            continue
        if words[0].startswith(("data_", "loop_")):
            tables.append(({}, []))
        elif words[0].startswith("_") and tables:
            columns = tables[-1][0]
            numbered = len(words) > 1 and words[1].startswith("#")
            columns[words[0]] = int(words[1][1:]) - 1 if numbered else len(columns)
        elif tables:
            tables[-1][1].append(line)
    return tables


def star_table(lines, name, wanted):
    """The first table with all the wanted columns."""
    for columns, data in star_tables(lines):
        if all(column in columns for column in wanted):
            return columns, data
    return sys.exit(f"{name} has no table with the columns {' '.join(wanted)}")


def read_points(name):
    """A list's centres, box sides (0 in a STAR file) and scores (nan where it has none), in pixels."""
    with open(name) as file:
        lines = file.readlines()
    if name.endswith(".box"):
        return [box_point(line) for line in lines if line.strip()]
    if not name.endswith(".star"):
        sys.exit(f"{name} is neither a .box nor a .star file")
    columns, data = star_table(lines, name, ["_rlnCoordinateX", "_rlnCoordinateY"])
    return [star_point(line, columns) for line in data]


def box_point(line):
    words = line.split()
    x, y, w, h = (int(word) for word in words[:4])
    return x + w // 2, y + h // 2, w, float(words[4]) if len(words) > 4 else float("nan")


def star_point(line, columns):
    words = line.split()
    score = columns.get("_rlnAutopickFigureOfMerit")
    return (
        float(words[columns["_rlnCoordinateX"]]),
        float(words[columns["_rlnCoordinateY"]]),
        0,
        float("nan") if score is None else float(words[score]),
    )


def write_plain_star(points, name):
    """Coordinates under the shortest head; one that ends at no comment and no keyword that kestrix doesn't know."""
    with open(name, "w") as file:
        file.write("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n")
        file.writelines(f"{float(point[0]):12.3f} {float(point[1]):12.3f}\n" for point in points)


# --- Images ---


def read_image(name):
    """Section 0 of an MRC file as floats, row y and column x. An extended header is skipped."""
    numpy = need("numpy", "python3-numpy")
    with open(name, "rb") as file:
        header = read_header(file, name)
        nx, ny, mode = (header_int(header, offset) for offset in (0, 4, 12))
        if mode not in SAMPLE_TYPES or nx < 1 or ny < 1:
            sys.exit(f"{name}: {nx} x {ny} samples of mode {mode} can't be read")
        file.seek(HEADER_BYTES + max(header_int(header, 92), 0))
        samples = numpy.fromfile(file, SAMPLE_TYPES[mode], nx * ny)
    if samples.size < nx * ny:
        sys.exit(f"{name} ends early: {samples.size} of {nx * ny} samples")
    return samples.reshape(ny, nx).astype("f4")


def grey_picture(image, bin_by):
    """Averages blocks of pixels and spreads all but the extreme values over black to white."""
    numpy = need("numpy", "python3-numpy")
    need("PIL.Image", "python3-pil")
    from PIL import Image

    height, width = (side // bin_by * bin_by for side in image.shape)
    blocks = image[:height, :width].reshape(height // bin_by, bin_by, width // bin_by, bin_by).mean(axis=(1, 3))
    finite = blocks[numpy.isfinite(blocks)]
    low, high = numpy.percentile(finite, [0.5, 99.5]) if finite.size else (0, 1)
    if high <= low and finite.size:
        low, high = finite.min(), finite.max()
    grey = numpy.nan_to_num((blocks - low) / max(high - low, 1e-30), nan=0.0).clip(0, 1) * 255
    return Image.fromarray(grey.astype("u1")).convert("RGB")


# --- draw ---


def default_lists(micrograph):
    base = next((micrograph[: -len(end)] for end in (".mrcs", ".mrc") if micrograph.endswith(end)), micrograph)
    lists = [base + "_rejected.box=red:box", base + "_quorlin.box=lime:circle"]
    return [text for text in lists if os.path.exists(text.split("=")[0])]


def draw_point(draw, x, y, half, colour, shape):
    if shape == "cross":
        draw.line([x - 4, y - 4, x + 4, y + 4], fill=colour, width=2)
        draw.line([x - 4, y + 4, x + 4, y - 4], fill=colour, width=2)
    elif shape == "box":
        draw.rectangle([x - half, y - half, x + half, y + half], outline=colour)
    else:
        draw.ellipse([x - half, y - half, x + half, y + half], outline=colour, width=2)


def draw_lists(micrograph, picture, lists, bin_by=0, diameter=0.0, flip=False):
    image = read_image(micrograph)
    bin_by = bin_by if bin_by > 0 else -(-max(image.shape) // 1200)
    diameter = diameter if diameter > 0 else 24 * bin_by
    drawn = grey_picture(image, bin_by)
    from PIL import Image, ImageDraw

    draw = ImageDraw.Draw(drawn)
    for text in lists or default_lists(micrograph):
        name, _, style = text.partition("=")
        colour, _, shape = style.partition(":")
        for x, y, side, _ in read_points(name):
            half = (side if shape == "box" and side else diameter) / 2 / bin_by
            draw_point(draw, (x + 0.5) / bin_by, (y + 0.5) / bin_by, half, colour or "lime", shape or "circle")
    if flip:
        drawn = drawn.transpose(Image.FLIP_TOP_BOTTOM)
    drawn.save(picture)


# --- filter ---


def point_keeper(args):
    image = read_image(args.map) if args.map else None
    shrink = SHRINK_OF_SPEED[args.speed]

    def keeps(point):
        x, y, _, score = point
        if (args.min_score is not None and not score >= args.min_score) or (
            args.max_score is not None and not score <= args.max_score
        ):
            return False
        if image is None:
            return True
        column, row = int(x) // shrink, int(y) // shrink
        if not (0 <= row < image.shape[0] and 0 <= column < image.shape[1]):
            return False
        value = image[row, column]
        return (args.map_min is None or value >= args.map_min) and (args.map_max is None or value <= args.map_max)

    return keeps


def filter_list(args):
    keeps = point_keeper(args)
    with open(args.list) as file:
        lines = file.readlines()
    columns, data = None, [line for line in lines if line.strip()]
    if args.list.endswith(".star"):
        columns, data = star_table(lines, args.list, ["_rlnCoordinateX", "_rlnCoordinateY"])
    elif not args.list.endswith(".box"):
        sys.exit(f"{args.list} is neither a .box nor a .star file")
    dropped = {line for line in data if not keeps(star_point(line, columns) if columns else box_point(line))}
    with open(args.out, "w") as file:
        file.writelines(line for line in lines if line not in dropped)
    print(f"{args.out}: {sum(line not in dropped for line in data)} of {len(data)} kept")


# --- split ---


def split_table(args):
    with open(args.table) as file:
        lines = file.readlines()
    columns, data = star_table(lines, args.table, ["_rlnMicrographName", "_rlnCoordinateX", "_rlnCoordinateY"])
    points = {}
    for line in data:
        name = line.split()[columns["_rlnMicrographName"]]
        points.setdefault(name, []).append(star_point(line, columns))
    for name, of_one in points.items():
        folder = os.path.dirname(name) if args.dir is None else args.dir
        base = os.path.basename(name)
        base = next((base[: -len(end)] for end in (".mrcs", ".mrc") if base.endswith(end)), base)
        out = os.path.join(folder, base + args.suffix)
        write_plain_star(of_one, out)
        print(f"{out}: {len(of_one)} coordinates")


# --- strip ---


def strip_header(args):
    if os.path.exists(args.out) and os.path.samefile(args.mrc, args.out):
        sys.exit("the copy needs a name of its own")
    with open(args.mrc, "rb") as file:
        header = bytearray(read_header(file, args.mrc))
        extended = header_int(header, 92)
        file.seek(max(extended, 0), os.SEEK_CUR)
        header[92:96] = bytes(4)
        with open(args.out, "wb") as out:
            out.write(header)
            while chunk := file.read(1 << 24):
                out.write(chunk)
    print(f"{args.out}: {max(extended, 0)} bytes of extended header left out")


def parser_of_commands():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    draw = commands.add_parser("draw", help="draw lists onto a micrograph")
    draw.add_argument("micrograph")
    draw.add_argument("picture", help="a .png or .jpg to write")
    draw.add_argument(
        "lists", nargs="*", metavar="LIST[=COLOUR[:circle|box|cross]]", help="default: picks and rejected places"
    )
    draw.add_argument("--bin", type=int, default=0, help="pixels to average; default: until 1200 remain at most")
    draw.add_argument("--diameter", type=float, default=0, help="of the circles, pixels of the micrograph")
    draw.add_argument("--flip", action="store_true", help="y upwards, as EMAN2 and IMOD show images")
    cut = commands.add_parser("filter", help="keep the lines of a list within limits")
    cut.add_argument("list")
    cut.add_argument("out")
    cut.add_argument("--min_score", type=float)
    cut.add_argument("--max_score", type=float)
    cut.add_argument("--map", help="a diagnostic image, such as mic_bg.mrc")
    cut.add_argument("--map_min", type=float, help="least value of the image at the centre")
    cut.add_argument("--map_max", type=float, help="largest value")
    cut.add_argument("--speed", type=int, choices=SHRINK_OF_SPEED, default=2, help="--speed of the run, for --map")
    split = commands.add_parser("split", help="one plain list per micrograph")
    split.add_argument("table", help="a particles.star of RELION, any version")
    split.add_argument("suffix", help="for example _rubbish.star")
    split.add_argument("--dir", help="where to write; default: beside each micrograph")
    strip = commands.add_parser("strip", help="copy an MRC file without its extended header")
    strip.add_argument("mrc")
    strip.add_argument("out")
    return parser


def main():
    args = parser_of_commands().parse_args()
    try:
        if args.command == "draw":
            draw_lists(args.micrograph, args.picture, args.lists, args.bin, args.diameter, args.flip)
        else:
            {"filter": filter_list, "split": split_table, "strip": strip_header}[args.command](args)
    except OSError as problem:
        sys.exit(str(problem))
    except (ValueError, IndexError) as problem:
        sys.exit(f"a line that can't be read: {problem}")


if __name__ == "__main__":
    main()

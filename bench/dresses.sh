#!/usr/bin/env bash
# One micrograph in every dress, written by mrcfile, libtiff's tools and compressors: each must give the lists and the
# particle stack of the plain file, byte for byte. Then RELION cuts particles at the picks of a TIFF and of the plain MRC
# file, which must be the same ones.
#   bench/dresses.sh [-B BUILD]
# Exit status 1 where any differs.
set -eu
cd "$(dirname "$0")/.."
build=build
[ "${1:-}" != -B ] || build=$2
tools/install_packages.sh peer >&2
build=$(realpath "$build")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

mkdir Micrographs
"$build/kestrix_simulate" --nx 1024 --ny 900 --apix 4 --dose 2 --snr 0.05 --seed 3 --templates 0 --prefix sim_ >/dev/null 2>&1
# Whole counts up to 127, which every type holds; those for the half byte up to 15.
/usr/bin/python3 - <<'PYTHON'
import mrcfile, numpy as np
image = mrcfile.read('sim_001.mrc')
counts = np.clip(np.round(image / image.max() * 127), 0, 127)
def write(name, data, compression=None, extended=None):
    with mrcfile.new('Micrographs/' + name, compression=compression, overwrite=True) as f:
        if extended:
            f.set_extended_header(np.frombuffer(b'x' * extended, dtype='V%d' % extended))
            f.header.exttyp = b'FEI1'
        f.set_data(data)
        f.voxel_size = 4.0
write('plain.mrc', counts.astype('float32'))
for kind in ('int8', 'int16', 'uint16', 'float16'):
    write(kind + '.mrc', counts.astype(kind))
for kind in ('>i2', '>f4'):
    write('big_endian_' + kind[1:] + '.mrc', counts.astype(kind))
write('extended.mrc', counts.astype('float32'), extended=768)
write('by_mrcfile.mrc.gz', counts.astype('int16'), 'gzip')
write('by_mrcfile_too.mrc.bz2', counts.astype('float32'), 'bzip2')
counts[::-1].astype('uint16').tofile('top_down.raw')
PYTHON
raw2tiff -w 1024 -l 900 -d short top_down.raw Micrographs/plain_tiff.tif
for options in "-c lzw:2" "-c zip" "-c packbits" "-c zstd" "-t -w 128 -l 64 -c lzw" "-8 -s -r 7" "-B -c none" "-8 -t -B -c zip"; do
  tiffcp $options Micrographs/plain_tiff.tif "Micrographs/tiffcp$(tr -d ' :' <<<"$options").tif"
done
for tool in "gzip gz" "bzip2 bz2" "xz xz"; do
  set -- $tool
  "$1" -c Micrographs/plain.mrc >"Micrographs/by_$1.mrc.$2"
done

OMP_NUM_THREADS=2 "$build/kestrix" --diameter 260 --cc_cutoff 0.2 --extract_raw 1 --any_format 1 Micrographs/*.* >log 2>notes ||
  { tail -n 3 log notes; exit 1; }
cat notes
status=0
for file in Micrographs/*.mrc Micrographs/*.tif Micrographs/*.mrc.*; do
  stem=${file%.mrc*}
  stem=${stem%.tif}
  same=same
  for suffix in _quorlin.box _quorlin.star _nonunique.box _particles.mrcs; do
    cmp -s "Micrographs/plain$suffix" "$stem$suffix" || { same=DIFFERENT; status=1; }
  done
  printf '%-44s %8d bytes  %3d picks  %s\n' "${file#*/}" "$(stat -c %s "$file")" "$(wc -l <"${stem}_quorlin.box")" "$same"
done 2>/dev/null

for file in plain.mrc plain_tiff.tif; do
  name=${file%.*}
  printf 'data_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n_rlnMicrographPixelSize #3\n_rlnVoltage #4\n_rlnSphericalAberration #5\n_rlnAmplitudeContrast #6\ng 1 4.0 300 2.7 0.1\n\n\ndata_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\nMicrographs/%s 1\n' "$file" >"$name.star"
  relion_preprocess --i "$name.star" --coord_dir ./ --coord_suffix _quorlin.star --part_star "${name}_p.star" \
    --part_dir "$name/" --extract --extract_size 86 >relion.log 2>&1 || { tail -n 3 relion.log; exit 1; }
done
/usr/bin/python3 - <<'PYTHON' || status=1
import mrcfile, numpy as np
ours, theirs = (mrcfile.read(n + '/Micrographs/' + n + '.mrcs') for n in ('plain_tiff', 'plain'))
off = np.abs(ours - theirs).max()
mean = theirs.mean(axis=0)
middle, rim = mean[23:63, 23:63].mean(), mean[:8].mean()
print('RELION: %d particles of the TIFF, different from those of the MRC file by %g at most; mean image: middle %.2f, rim %.2f'
      % (len(ours), off, middle, rim))
raise SystemExit(0 if len(ours) > 0 and off == 0 else 1)
PYTHON
exit $status

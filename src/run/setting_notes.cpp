#include "run/setting_notes.h"

#include "platform/failure.h"

namespace {

// The default, which nobody has asked for.
constexpr double kUsualLp = 40;

void note_cells(const Run* run) {
  if (run->sizes.grid_size > 1) return;
  safety_note(nullptr,
              "--min_dist %g makes cells of one pixel, in which no peak can stand out; raise it, or lower --speed.",
              static_cast<double>(run->para.min_dist));
}

void note_band(const Kestrix_Para& para) {
  const double lp = para.lp;
  const double hp = para.hp;
  const double finest = 2.0 * para.shrink * static_cast<double>(para.apixM);
  if (!para.do_bandpass) return;
  if (!(lp > 0) || !(hp > 0)) {
    safety_note(nullptr,
                "--lp %g and --hp %g are limits in angstrom, both above 0; --do_bandpass 0 leaves the band-pass out.",
                lp, hp);
  } else if (lp >= hp) {
    safety_note(nullptr,
                "--lp %g, the fine limit of the band-pass, is not below --hp %g, the coarse one; exchange them.", lp,
                hp);
  } else if (lp < finest && lp != kUsualLp) {
    safety_note(nullptr, "--lp %g is finer than the %g angstrom that the working image holds; lower --speed to use it.",
                lp, finest);
  }
}

void note_box(const Run* run) {
  const RunSizes& s = run->sizes;
  const int box = run->para.boxsize;
  if (box < s.nx && box < s.ny) return;
  safety_note(
      nullptr,
      "--boxsize %d is as large as the micrographs of %d x %d pixels, and picks nearer to the edge than half a box "
      "are dropped; check --apixM and --diameter, or give a smaller box.",
      box, s.nx, s.ny);
}

}  // namespace

void note_settings(const Run* run) {
  note_cells(run);
  note_band(run->para);
  note_box(run);
}

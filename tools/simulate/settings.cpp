#include "simulate/settings.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include "common/options.h"

namespace {

constexpr double kDerived = -1;  // below every bound, so that no option sets it
constexpr double kMostSeed = 9007199254740992.0;
constexpr long kMostSectionSamples = 1L << 29;

constexpr char kPurpose[] =
    "Writes simulated cryo-EM micrographs PREFIX001.mrc, PREFIX002.mrc ... of known particles, the true "
    "centres\n"
    "PREFIX001_truth.star ..., outlines of ice and carbon PREFIX001_areas.star ... where there are any, and "
    "a\n"
    "stack of projections PREFIXtemplates.mrcs to pick with.";

Settings default_settings() {
  Settings s = {};
  s.prefix = "sim_";
  s.number = 1;
  s.nx = s.ny = 4096;
  s.apix = 1.34;
  s.mode = 2;
  s.frames = 1;
  s.seed = 1;
  s.diameter = 260;
  s.shape_name = "body";
  s.count = static_cast<long>(kDerived);
  s.coverage = 0.2;
  s.min_spacing = s.margin = kDerived;
  s.snr = 0.015;
  s.dose = 40;
  s.gradient = 0.02;
  s.optics = {300, 15000, 2.7, 0.1, 0};
  s.templates = 8;
  s.apixT = kDerived;
  s.boxT = static_cast<long>(kDerived);
  s.lowpass = 20;
  return s;
}

std::vector<Option> option_table(Settings* s) {
  const OptionKind flag = OptionKind::flag, integer = OptionKind::integer, real = OptionKind::real;
  return {
      {"prefix", OptionKind::text, &s->prefix, 0, 0, nullptr, "what all output names begin with"},
      {"number", integer, &s->number, 0, 999, nullptr, "micrographs to write"},
      {"nx", integer, &s->nx, 16, 65535, nullptr, "width, pixels"},
      {"ny", integer, &s->ny, 16, 65535, nullptr, "height, pixels"},
      {"apix", real, &s->apix, 0.1, 100, nullptr, "pixel size, Å"},
      {"mode", integer, &s->mode, 0, 6, nullptr, "MRC sample type: 0 uint8, 1 int16, 2 float, 6 uint16"},
      {"frames", integer, &s->frames, 1, 10000, nullptr, "sections per file, each of the dose and snr given"},
      {"seed", integer, &s->seed, 0, kMostSeed, nullptr, "the same seed gives the same files"},
      {"diameter", real, &s->diameter, 10, 10000, nullptr, "particle diameter, Å"},
      {"shape", OptionKind::text, &s->shape_name, 0, 0, nullptr,
       "of the particle: body (lumpy), ball, shell (hollow), barrel, rod"},
      {"count", integer, &s->count, 0, 100000, "from coverage", "particles per micrograph"},
      {"coverage", real, &s->coverage, 0, 1, nullptr, "share of the area within the margins under particles"},
      {"min_spacing", real, &s->min_spacing, 0, 1e6, "1.1 x diameter", "least distance of two centres, Å"},
      {"margin", real, &s->margin, 0, 1e6, "0.7 x diameter", "least distance of a centre from the edges, Å"},
      {"snr", real, &s->snr, 0, 1000, nullptr, "variance of the particles over that of the noise, raw pixels"},
      {"dose", real, &s->dose, 0.001, 10000, nullptr, "electrons per square Å and section"},
      {"noise_free", flag, &s->noise_free, 0, 0, nullptr, "write the expected counts, without shot noise"},
      {"gradient", real, &s->gradient, 0, 1, nullptr, "relative change of the illumination from edge to edge"},
      {"ice", integer, &s->ice, 0, 1000, nullptr, "ice crystals, 150 to 400 Å across"},
      {"carbon", real, &s->carbon, 0, 0.9, nullptr, "share of the micrograph that is carbon film"},
      {"kv", real, &s->optics.kv, 10, 3000, nullptr, "acceleration voltage, kV"},
      {"defocus", real, &s->optics.defocus, 0, 1e5, nullptr, "underfocus, Å"},
      {"cs", real, &s->optics.cs, 0, 10, nullptr, "spherical aberration, mm"},
      {"ac", real, &s->optics.ac, 0, 1, nullptr, "amplitude contrast"},
      {"no_ctf", flag, &s->optics.flat, 0, 0, nullptr, "no transfer function: plain dark projections"},
      {"templates", integer, &s->templates, 0, 10000, nullptr, "projections in the template stack, 0: no stack"},
      {"apixT", real, &s->apixT, 0.1, 100, "2 x apix", "pixel size of the templates, Å"},
      {"boxT", integer, &s->boxT, 4, 8192, "even, 1.25 x diameter", "side of the templates, pixels"},
      {"lowpass", real, &s->lowpass, 0, 1000, nullptr, "resolution of the templates, Å, 0: not filtered"},
  };
}

long even_size(double pixels) { return 2 * static_cast<long>(std::ceil(pixels / 2)); }

void derive_defaults(Settings* s) {
  if (s->min_spacing < 0) s->min_spacing = 1.1 * s->diameter;
  if (s->margin < 0) s->margin = 0.7 * s->diameter;
  if (s->apixT < 0) s->apixT = 2 * s->apix;
  if (s->boxT < 0) s->boxT = even_size(1.25 * s->diameter / s->apixT);
  if (s->count >= 0) return;
  const double width = s->nx * s->apix - 2 * s->margin, height = s->ny * s->apix - 2 * s->margin;
  const double area = width > 0 && height > 0 ? width * height : 0;
  s->count = std::lround(4 * s->coverage * area / (M_PI * s->diameter * s->diameter));
}

void refuse_unworkable(const Settings& s) {
  if (s.mode != 0 && s.mode != 1 && s.mode != 2 && s.mode != 6)
    refuse("--mode is %ld, but must be 0, 1, 2 or 6", s.mode);
  if (s.nx * s.ny > kMostSectionSamples)
    refuse("%ld x %ld pixels are too many, at most %ld fit a section", s.nx, s.ny, kMostSectionSamples);
  if (s.diameter < 8 * s.apix) refuse("--diameter is %g, but must be at least 8 pixels of %g Å", s.diameter, s.apix);
  if (s.apixT > 100) refuse("the templates' pixel size would be %g Å; set --apixT to at most 100", s.apixT);
  if (s.boxT > 8192) refuse("the templates would have %ld pixels a side; set --boxT or a larger --apixT", s.boxT);
}

}  // namespace

bool settings_from_arguments(int argc, char** argv, Settings* settings) {
  *settings = default_settings();
  const std::vector<Option> options = option_table(settings);
  if (parse_options(argc, argv, options.data(), options.size(), nullptr, 0) < 0) {
    print_help("[options]", kPurpose, options.data(), options.size());
    return false;
  }
  if (!shape_from_name(settings->shape_name, &settings->shape))
    refuse("--shape is %s, but must be body, ball, shell, barrel or rod", settings->shape_name);
  derive_defaults(settings);
  refuse_unworkable(*settings);
  return true;
}

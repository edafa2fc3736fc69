#include "report/settings.h"

#include "common/micrograph_names.h"
#include "common/options.h"
#include "formats/image_diagnosis.h"
#include "platform/failure.h"

namespace {

constexpr char kPurpose[] =
    "Makes OUT/index.html, a page to look at picks with nothing but a browser: to move limits, to drop and add picks, "
    "to\n"
    "leave out micrographs, and to save all that as selection.json, which kestrix_lists select applies. Up to 100\n"
    "micrographs the page is one file that can be sent to others; beyond, the folder OUT belongs to it.\n"
    "Local averages and sigmas are there where the run had --write_bg_mic and --write_lsigma_mic.\n"
    "Micrographs and lists that can't be read are named and shown as such, and the exit status is 3.";

// Of the first micrograph that tells one, Å; 0 where none does. 1 is what programs write that don't know it.
double pixel_size_in_headers(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const ImageFacts facts = look_at_image(name.c_str(), {}, false);
    if (!(facts.apix > 0) || facts.apix == 1.0f) continue;
    safety_note(name.c_str(), "its header says %g A a pixel, which is taken for --apixM.",
                static_cast<double>(facts.apix));
    return facts.apix;
  }
  return 0;
}

}  // namespace

bool settings_from_arguments(int argc, char** argv, ReportSettings* s) {
  const Option options[] = {
      {"apixM", OptionKind::real, &s->apixM, 0, 1e6, "by the header", "pixel size of the micrographs, Å"},
      {"diameter", OptionKind::real, &s->diameter, 0, 1e6, "none", "of the particle, Å"},
      {"micrographs", OptionKind::file, &s->micrographs, 0, 0, "none", "more micrographs, a text or STAR file"},
      {"summary", OptionKind::file, &s->summary, 0, 0, "none", "the same from a session's summary"},
      {"list", OptionKind::text, &s->list, 0, 0, nullptr, "suffix of the lists"},
      {"odir", OptionKind::folder, &s->odir, 0, 0, "beside", "folder of the lists and maps"},
      {"out", OptionKind::folder, &s->out, 0, 0, nullptr, "folder to write"},
      {"side", OptionKind::integer, &s->side, 64, 8192, nullptr, "longest side of the pictures, pixels"},
      {"folder", OptionKind::flag, &s->folder, 0, 0, nullptr, "separate files for up to 100 micrographs too"},
  };
  constexpr size_t kOptions = sizeof options / sizeof options[0];
  std::vector<const char*> given(static_cast<size_t>(argc));
  const int found = parse_options(argc, argv, options, kOptions, given.data(), argc);
  if (found < 0) {
    print_help("--diameter D [options] [MICROGRAPH | LIST]...", kPurpose, options, kOptions);
    return false;
  }
  given.resize(static_cast<size_t>(found));
  if (s->diameter <= 0) refuse("needs the diameter of the particle, --diameter");
  s->names = gather_micrographs(given, s->micrographs);
  if (s->summary) {
    std::vector<const char*> all;
    for (const std::string& name : s->names) all.push_back(name.c_str());
    s->names = gather_micrographs(all, s->summary);
  }
  if (s->names.empty()) refuse("which micrographs? Name some, or give --micrographs or --summary");
  if (s->apixM <= 0) s->apixM = pixel_size_in_headers(s->names);
  if (s->apixM <= 0) refuse("needs the pixel size of the micrographs, --apixM");
  return true;
}

// kestrix_simulate: micrographs with known particles, for trying settings, for tests and for benchmarks.
#include <cmath>
#include <cstdio>
#include <string>

#include "common/options.h"
#include "common/truth_file.h"
#include "simulate/micrograph.h"
#include "simulate/mrc_output.h"
#include "simulate/scene.h"
#include "simulate/settings.h"

namespace {

std::string output_name(const Settings& settings, long index, const char* suffix) {
  char number[32];
  snprintf(number, sizeof number, "%03ld", index);
  return std::string(settings.prefix) + number + suffix;
}

/// Refuses counts that the sample type can't hold, with room for six deviations of the noise.
void check_brightness(const Settings& settings, const Workspace& workspace) {
  if (settings.mode == 2) return;
  const double most = settings.mode == 0 ? 255 : settings.mode == 1 ? 32767 : 65535;
  const double brightest = brightest_count(settings, workspace);
  if (brightest + 6 * std::sqrt(brightest) > most)
    refuse("--mode %ld holds counts up to %.0f, but %.1f electrons per pixel are expected; lower --dose", settings.mode,
           most, brightest);
}

void simulate_micrograph(const Settings& settings, const Phantom& phantom, long index, Workspace* workspace) {
  const Scene scene = make_scene(settings, index);
  expose_scene(settings, phantom, scene, workspace);
  check_brightness(settings, *workspace);
  const std::string name = output_name(settings, index, ".mrc");
  write_micrograph(name.c_str(), settings, index, workspace->expected);
  write_truth(output_name(settings, index, "_truth.star").c_str(), scene.particles);
  if (!scene.areas.empty()) write_areas(output_name(settings, index, "_areas.star").c_str(), scene.areas);
  long contaminated = 0;
  for (const TrueParticle& particle : scene.particles) contaminated += particle.contamination != kClean;
  printf("%s: %zu particles, %ld of them on ice or carbon\n", name.c_str(), scene.particles.size(), contaminated);
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  if (!settings_from_arguments(argc, argv, &settings)) return 0;
  const Phantom phantom = make_phantom(settings.diameter, settings.shape);
  if (settings.templates > 0) {
    const std::string name = std::string(settings.prefix) + "templates.mrcs";
    write_templates(name.c_str(), settings, phantom);
    printf("%s: %ld templates of %ld x %ld pixels of %g Å\n", name.c_str(), settings.templates, settings.boxT,
           settings.boxT, settings.apixT);
  }
  if (settings.number == 0) return 0;
  Workspace workspace;
  workspace_new(&workspace, settings);
  for (long index = 1; index <= settings.number; index++) simulate_micrograph(settings, phantom, index, &workspace);
  workspace_free(&workspace);
  return 0;
}

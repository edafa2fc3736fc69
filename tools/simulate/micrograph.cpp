#include "simulate/micrograph.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "common/options.h"
#include "simulate/random.h"

namespace {

/// What ice and carbon do at full thickness: the share of electrons they take away, the deviation of the
/// phase contrast of their texture, and the relative swing and size in Å of their lumps.
struct Material {
  double loss;
  double texture;
  double lumps, lump_size;
};
constexpr Material kIce = {0.20, 0.20, 0.45, 35};
constexpr Material kCarbon = {0.09, 0.10, 0.10, 60};

/// Resolution of the texture, Å: the transfer of amorphous matter has fallen to one half there.
constexpr double kTextureResolution = 8;

/// The image of a point spreads over wavelength * defocus / resolution; detail finer than this is faint in
/// all that is drawn here.
constexpr double kFinestDetail = 8;

int border_pixels(const Settings& s) {
  const double detail = std::max(kFinestDetail, 2 * s.apix);
  const double spread = electron_wavelength(s.optics.kv) * s.optics.defocus / detail;
  return s.optics.flat ? 8 : 8 + static_cast<int>(std::ceil(spread / s.apix));
}

float* canvas_pixel(const Workspace& w, long x, long y) {
  return w.canvas.image + (y + w.border) * w.canvas.stride + x + w.border;
}

void draw_particles(const Settings& s, const Phantom& phantom, const Scene& scene, Workspace* w) {
  canvas_clear(&w->canvas);
  Spot spots[kBlobs];
  for (const TrueParticle& p : scene.particles) {
    project_phantom(phantom, {p.rot, p.tilt, p.psi}, 0, spots);
    add_projection(spots, p.x + w->border, p.y + w->border, s.apix, w->canvas.image, w->canvas.nx, w->canvas.ny,
                   w->canvas.stride);
  }
  canvas_apply_ctf(&w->canvas, s.apix, s.optics, 0);
}

/// Count, sum and sum of squares of the pixels of a disc that lie in the micrograph.
struct Moments {
  double count, sum, square;
};

Moments disc_moments(const Settings& s, const Workspace& w, double cx, double cy) {
  const double radius = s.diameter / s.apix / 2;
  Moments moments = {0, 0, 0};
  const long y0 = std::max(0L, static_cast<long>(std::ceil(cy - radius)));
  const long y1 = std::min(s.ny - 1, static_cast<long>(std::floor(cy + radius)));
  for (long y = y0; y <= y1; y++) {
    const double half = std::sqrt(std::max(0.0, radius * radius - (y - cy) * (y - cy)));
    const long x0 = std::max(0L, static_cast<long>(std::ceil(cx - half)));
    const long x1 = std::min(s.nx - 1, static_cast<long>(std::floor(cx + half)));
    for (long x = x0; x <= x1; x++) {
      const double value = *canvas_pixel(w, x, y);
      moments.count += 1;
      moments.sum += value;
      moments.square += value * value;
    }
  }
  return moments;
}

/// Variance of the canvas over the pixels of all particles' discs; a pixel in two discs counts twice.
double variance_in_discs(const Settings& s, const Scene& scene, const Workspace& w) {
  Moments all = {0, 0, 0};
  for (const TrueParticle& p : scene.particles) {
    const Moments one = disc_moments(s, w, p.x, p.y);
    all.count += one.count;
    all.sum += one.sum;
    all.square += one.square;
  }
  if (all.count == 0) return 0;
  const double mean = all.sum / all.count;
  return all.square / all.count - mean * mean;
}

/// The factor that turns the canvas of particles into contrast.
double particle_contrast(const Settings& s, const Scene& scene, const Workspace& w) {
  const double variance = variance_in_discs(s, scene, w);
  return variance > 0 ? std::sqrt(s.snr / (mean_count(s) * variance)) : 0;
}

void copy_contrast(const Settings& s, double scale, Workspace* w) {
#pragma omp parallel for schedule(static)
  for (long y = 0; y < s.ny; y++)
    for (long x = 0; x < s.nx; x++) w->expected[y * s.nx + x] = static_cast<float>(scale * *canvas_pixel(*w, x, y));
}

double deepest_ice(const Scene& scene, double x, double y, double apix) {
  double depth = 0;
  for (const IceCrystal& crystal : scene.ice) depth = std::max(depth, ice_depth(crystal, x, y, apix));
  return depth;
}

/// White noise in ice and carbon, as strong as their textures are to be, over one row of the canvas.
void draw_texture_row(const Settings& s, const Scene& scene, const Workspace& w, int row) {
  Random random = random_stream(scene.key, Stream::texture, static_cast<uint64_t>(row), 0);
  float* pixels = w.canvas.image + row * w.canvas.stride;
  for (int column = 0; column < w.canvas.nx; column++) {
    const double x = column - w.border, y = row - w.border;
    const double ice = kIce.texture * deepest_ice(scene, x, y, s.apix);
    const double carbon = kCarbon.texture * carbon_depth(scene.carbon, x, y, s.apix);
    const double strength = std::hypot(ice, carbon);
    if (strength > 0) pixels[column] = static_cast<float>(strength * random_gauss(&random));
  }
}

double sum_of_squares(const Canvas& canvas) {
  std::vector<double> rows(static_cast<size_t>(canvas.ny));
#pragma omp parallel for schedule(static)
  for (int y = 0; y < canvas.ny; y++) {
    double sum = 0;
    for (int x = 0; x < canvas.nx; x++) {
      const double value = canvas.image[y * canvas.stride + x];
      sum += value * value;
    }
    rows[static_cast<size_t>(y)] = sum;
  }
  double total = 0;
  for (const double row : rows) total += row;
  return total;
}

/// Adds the texture, seen by the microscope and brought back to the strength it was drawn with.
void add_texture(const Settings& s, const Scene& scene, Workspace* w) {
  canvas_clear(&w->canvas);
#pragma omp parallel for schedule(dynamic, 16)
  for (int row = 0; row < w->canvas.ny; row++) draw_texture_row(s, scene, *w, row);
  const double before = sum_of_squares(w->canvas);
  canvas_apply_ctf(&w->canvas, s.apix, s.optics, kTextureResolution);
  const double after = sum_of_squares(w->canvas);
  if (!(after > 0)) return;
  const double scale = std::sqrt(before / after);
#pragma omp parallel for schedule(static)
  for (long y = 0; y < s.ny; y++)
    for (long x = 0; x < s.nx; x++) w->expected[y * s.nx + x] += static_cast<float>(scale * *canvas_pixel(*w, x, y));
}

double share_left(const Material& material, double depth, uint64_t key, double x, double y, double apix) {
  if (depth == 0) return 1;
  const double lump = lattice_noise(key, x * apix / material.lump_size, y * apix / material.lump_size);
  return 1 - material.loss * depth * (1 + material.lumps * lump);
}

/// Electrons per pixel at a place before the contrast: dose, illumination, loss in ice and carbon.
double beam_at(const Settings& s, const Scene& scene, double x, double y) {
  const auto nx = static_cast<double>(s.nx), ny = static_cast<double>(s.ny);
  const double reach = nx * std::fabs(scene.gradient_cos) + ny * std::fabs(scene.gradient_sin);
  const double along = (x - nx / 2) * scene.gradient_cos + (y - ny / 2) * scene.gradient_sin;
  const double ice = deepest_ice(scene, x, y, s.apix), carbon = carbon_depth(scene.carbon, x, y, s.apix);
  return mean_count(s) * (1 + s.gradient * along / reach) * share_left(kIce, ice, scene.key, x, y, s.apix) *
         share_left(kCarbon, carbon, ~scene.key, x, y, s.apix);
}

/// Turns contrast into counts. Returns false if a count came out negative.
bool apply_beam(const Settings& s, const Scene& scene, Workspace* w) {
  int negative = 0;
#pragma omp parallel for schedule(dynamic, 16) reduction(| : negative)
  for (long y = 0; y < s.ny; y++)
    for (long x = 0; x < s.nx; x++) {
      float* value = &w->expected[y * s.nx + x];
      const double beam = beam_at(s, scene, static_cast<double>(x), static_cast<double>(y));
      *value = static_cast<float>(beam * (1 + *value));
      negative |= *value < 0;
    }
  return !negative;
}

}  // namespace

void workspace_new(Workspace* workspace, const Settings& settings) {
  workspace->border = border_pixels(settings);
  const int width = transform_size(static_cast<int>(settings.nx) + 2 * workspace->border);
  const int height = transform_size(static_cast<int>(settings.ny) + 2 * workspace->border);
  const size_t pixels = static_cast<size_t>(settings.nx) * static_cast<size_t>(settings.ny);
  workspace->expected = static_cast<float*>(malloc(pixels * sizeof(float)));
  if (!workspace->expected || !canvas_new(&workspace->canvas, width, height))
    refuse("no memory for micrographs of %ld x %ld pixels", settings.nx, settings.ny);
}

void workspace_free(Workspace* workspace) {
  canvas_free(&workspace->canvas);
  free(workspace->expected);
  workspace->expected = nullptr;
}

void expose_scene(const Settings& settings, const Phantom& phantom, const Scene& scene, Workspace* workspace) {
  draw_particles(settings, phantom, scene, workspace);
  copy_contrast(settings, particle_contrast(settings, scene, *workspace), workspace);
  if (!scene.areas.empty()) add_texture(settings, scene, workspace);
  if (!apply_beam(settings, scene, workspace))
    refuse(
        "with --snr %g the particles would be darker than black at --dose %g; raise the dose or lower the "
        "ratio",
        settings.snr, settings.dose);
}

double mean_count(const Settings& settings) { return settings.dose * settings.apix * settings.apix; }

double brightest_count(const Settings& settings, const Workspace& workspace) {
  float brightest = 0;
  for (long i = 0; i < settings.nx * settings.ny; i++) brightest = std::max(brightest, workspace.expected[i]);
  return brightest;
}

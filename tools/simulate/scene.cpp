#include "simulate/scene.h"

#include <algorithm>
#include <cmath>

#include "common/options.h"
#include "simulate/random.h"

namespace {

constexpr double kTwoPi = 2 * M_PI;
constexpr int kOutlineCorners = 72;
constexpr int kCarbonCorners = 1440;
constexpr int kTries = 20000;

/// Thickness grows from the edge of a crystal and of the film over these lengths, Å.
constexpr double kIceRamp = 25, kCarbonRamp = 40;

/// 0 at t = 0, 1 at t = 1, level at both ends.
double smooth_step(double t) {
  const double u = std::clamp(t, 0.0, 1.0);
  return u * u * (3 - 2 * u);
}

double outline_wave(const IceCrystal& crystal, double angle) {
  double sum = 1;
  for (int k = 0; k < kHarmonics; k++) sum += crystal.swing[k] * std::cos((k + 2) * angle + crystal.phase[k]);
  return sum;
}

IceCrystal make_crystal(const Settings& s, Random* random) {
  IceCrystal crystal;
  crystal.x = random_between(random, 0, static_cast<double>(s.nx));
  crystal.y = random_between(random, 0, static_cast<double>(s.ny));
  crystal.radius = random_between(random, 75, 200) / s.apix;
  for (int k = 0; k < kHarmonics; k++) {
    crystal.swing[k] = random_between(random, 0, 0.16) / (k + 1);
    crystal.phase[k] = random_between(random, 0, kTwoPi);
  }
  crystal.widest = 0;
  for (int i = 0; i < 360; i++) crystal.widest = std::max(crystal.widest, outline_wave(crystal, i * kTwoPi / 360));
  return crystal;
}

/// Share of the micrograph outside a hole, from the centres of 128 by 128 cells.
double carbon_share(const Settings& s, const CarbonFilm& film) {
  int outside = 0;
  for (int i = 0; i < 128; i++)
    for (int j = 0; j < 128; j++) {
      const double x = (i + 0.5) / 128 * static_cast<double>(s.nx), y = (j + 0.5) / 128 * static_cast<double>(s.ny);
      if (std::hypot(x - film.x, y - film.y) > film.radius) outside++;
    }
  return outside / (128.0 * 128.0);
}

/// A hole larger than the micrograph, moved sideways until the film covers the share that is asked for.
CarbonFilm make_carbon(const Settings& s, Random* random) {
  const double angle = random_between(random, 0, kTwoPi), size = std::hypot(s.nx, s.ny);
  const double radius = size * random_between(random, 0.9, 1.6);
  CarbonFilm film = {0, 0, radius};
  double least = 0, most = radius + size;
  for (int i = 0; i < 40; i++) {
    const double shift = (least + most) / 2;
    film.x = s.nx / 2.0 - shift * std::cos(angle);
    film.y = s.ny / 2.0 - shift * std::sin(angle);
    (carbon_share(s, film) < s.carbon ? least : most) = shift;
  }
  return film;
}

Area crystal_area(const IceCrystal& crystal) {
  Area area = {kOnIce, {}, {}};
  for (int i = 0; i < kOutlineCorners; i++) {
    const double angle = i * kTwoPi / kOutlineCorners, r = ice_outline(crystal, angle);
    area.x.push_back(crystal.x + r * std::cos(angle));
    area.y.push_back(crystal.y + r * std::sin(angle));
  }
  return area;
}

/// The film as a ring around the hole: once around the hole's edge and back far outside the micrograph.
Area carbon_area(const Settings& s, const CarbonFilm& film) {
  Area area = {kOnCarbon, {}, {}};
  const double far = film.radius + 4 * std::hypot(s.nx, s.ny);
  for (const double radius : {film.radius, far})
    for (int i = 0; i <= kCarbonCorners; i++) {
      const int step = radius == far ? kCarbonCorners - i : i;
      const double angle = (step % kCarbonCorners) * kTwoPi / kCarbonCorners;
      area.x.push_back(film.x + radius * std::cos(angle));
      area.y.push_back(film.y + radius * std::sin(angle));
    }
  return area;
}

/// A uniformly distributed orientation.
void turn_at_random(TrueParticle* particle, Random* random) {
  particle->rot = random_between(random, 0, 360);
  particle->tilt = std::acos(random_between(random, -1, 1)) * 360 / kTwoPi;
  particle->psi = random_between(random, 0, 360);
}

bool is_free(const std::vector<TrueParticle>& particles, double x, double y, double spacing) {
  return std::none_of(particles.begin(), particles.end(), [=](const TrueParticle& other) {
    const double dx = x - other.x, dy = y - other.y;
    return dx * dx + dy * dy < spacing * spacing;
  });
}

/// Finds room for one more particle. Returns false where kTries places at random were all taken.
bool add_particle(const Settings& s, Random* random, std::vector<TrueParticle>* particles) {
  const double margin = s.margin / s.apix, spacing = s.min_spacing / s.apix;
  // whole numbers are pixel centres: the micrograph reaches from -0.5 to nx - 0.5
  const double x_end = static_cast<double>(s.nx) - 0.5 - margin, y_end = static_cast<double>(s.ny) - 0.5 - margin;
  if (x_end <= margin - 0.5 || y_end <= margin - 0.5) return false;
  for (int i = 0; i < kTries; i++) {
    const double x = random_between(random, margin - 0.5, x_end), y = random_between(random, margin - 0.5, y_end);
    if (!is_free(*particles, x, y, spacing)) continue;
    TrueParticle particle = {x, y, 0, 0, 0, kClean};
    turn_at_random(&particle, random);
    particles->push_back(particle);
    return true;
  }
  return false;
}

void place_particles(const Settings& s, Random* random, Scene* scene) {
  for (long i = 0; i < s.count; i++)
    if (!add_particle(s, random, &scene->particles))
      refuse("only %ld of %ld particles find room; lower --count, --coverage, --min_spacing or --margin", i, s.count);
  for (TrueParticle& p : scene->particles) p.contamination = contamination_at(scene->areas, p.x, p.y);
}

}  // namespace

double ice_outline(const IceCrystal& crystal, double angle) {
  return crystal.radius * outline_wave(crystal, angle) / crystal.widest;
}

double ice_depth(const IceCrystal& crystal, double x, double y, double apix) {
  const double dx = x - crystal.x, dy = y - crystal.y, square = dx * dx + dy * dy;
  if (square > crystal.radius * crystal.radius) return 0;
  const double inside = ice_outline(crystal, std::atan2(dy, dx)) - std::sqrt(square);
  return smooth_step(inside * apix / kIceRamp);
}

double carbon_depth(const CarbonFilm& carbon, double x, double y, double apix) {
  if (carbon.radius == 0) return 0;
  const double dx = x - carbon.x, dy = y - carbon.y, square = dx * dx + dy * dy;
  if (square < carbon.radius * carbon.radius) return 0;
  return smooth_step((std::sqrt(square) - carbon.radius) * apix / kCarbonRamp);
}

Scene make_scene(const Settings& settings, long index) {
  const auto seed = static_cast<uint64_t>(settings.seed), number = static_cast<uint64_t>(index);
  Random random = random_stream(seed, Stream::scene, number, 0);
  Scene scene = {};
  scene.key = random_bits(&random);
  const double direction = random_between(&random, 0, kTwoPi);
  scene.gradient_cos = std::cos(direction);
  scene.gradient_sin = std::sin(direction);
  if (settings.carbon > 0) {
    scene.carbon = make_carbon(settings, &random);
    scene.areas.push_back(carbon_area(settings, scene.carbon));
  }
  for (long i = 0; i < settings.ice; i++) {
    scene.ice.push_back(make_crystal(settings, &random));
    scene.areas.push_back(crystal_area(scene.ice.back()));
  }
  // a stream of its own: ice and carbon don't move the particles
  Random places = random_stream(seed, Stream::scene, number, 1);
  place_particles(settings, &places, &scene);
  return scene;
}

// What lies in a simulated micrograph and where: particles, ice crystals, the edge of a carbon film.
#pragma once

#include <cstdint>
#include <vector>

#include "common/truth_file.h"
#include "simulate/settings.h"

constexpr int kHarmonics = 4;

/// An ice crystal, a lump whose outline waves about a circle.
struct IceCrystal {
  double x, y;               // centre, pixels
  double radius;             // largest distance of the outline from the centre, pixels
  double swing[kHarmonics];  // relative waves of 2, 3, 4, 5 periods around the outline
  double phase[kHarmonics];
  double widest;  // largest value of the waves' sum
};

/// The carbon film around a round hole; the micrograph shows a part of its edge.
struct CarbonFilm {
  double x, y;    // the hole's centre, pixels
  double radius;  // the hole's radius, pixels; 0: no film
};

/// All that a micrograph shows.
struct Scene {
  std::vector<TrueParticle> particles;
  std::vector<IceCrystal> ice;
  CarbonFilm carbon;
  std::vector<Area> areas;            // outlines of ice and carbon
  double gradient_cos, gradient_sin;  // direction in which the illumination grows
  uint64_t key;                       // of the contamination's texture
};

/// Distance of the outline from the crystal's centre in the direction of an angle, pixels.
double ice_outline(const IceCrystal& crystal, double angle);

/// How far a place has gone from the edge (0) into the crystal's full thickness (1).
double ice_depth(const IceCrystal& crystal, double x, double y, double apix);

/// The same for the carbon film.
double carbon_depth(const CarbonFilm& carbon, double x, double y, double apix);

/// Makes micrograph number `index` of a run. Refuses more particles than find room.
Scene make_scene(const Settings& settings, long index);

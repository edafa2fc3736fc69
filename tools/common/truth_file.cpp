#include "common/truth_file.h"

#include <cstdio>

#include "common/options.h"
#include "common/star_table.h"

namespace {

constexpr const char* kTruthColumns[] = {"_rlnCoordinateX", "_rlnCoordinateY", "_rlnAngleRot",
                                         "_rlnAngleTilt",   "_rlnAnglePsi",    "_kestrixOnContamination"};
constexpr const char* kAreaColumns[] = {"_kestrixAreaNumber", "_kestrixAreaKind", "_kestrixCornerX", "_kestrixCornerY"};

template <int Count>
FILE* create(const char* name, const char* block, const char* const (&columns)[Count]) {
  FILE* file = fopen(name, "w");
  if (!file) refuse("cannot write %s: %m", name);
  fprintf(file, "\n%s\n\nloop_\n", block);
  for (int i = 0; i < Count; i++) fprintf(file, "%s #%d\n", columns[i], i + 1);
  return file;
}

void finish(FILE* file, const char* name) {
  const bool failed = ferror(file) != 0;
  if (fclose(file) != 0 || failed) refuse("writing %s failed: is the disk full?", name);
}

bool inside(const Area& area, double x, double y) {
  bool is_inside = false;
  const size_t corners = area.x.size();
  for (size_t i = 0, j = corners - 1; i < corners; j = i++) {
    if ((area.y[i] > y) == (area.y[j] > y)) continue;
    const double crossing = area.x[i] + (area.x[j] - area.x[i]) * (y - area.y[i]) / (area.y[j] - area.y[i]);
    if (x < crossing) is_inside = !is_inside;
  }
  return is_inside;
}

}  // namespace

int contamination_at(const std::vector<Area>& areas, double x, double y) {
  int found = kClean;
  for (const Area& area : areas)
    if (inside(area, x, y)) found |= area.kind;
  return found;
}

void write_truth(const char* name, const std::vector<TrueParticle>& particles) {
  FILE* file = create(name, "data_", kTruthColumns);
  for (const TrueParticle& p : particles)
    fprintf(file, "%12.4f %12.4f %12.4f %12.4f %12.4f %2d\n", p.x, p.y, p.rot, p.tilt, p.psi, p.contamination);
  finish(file, name);
}

std::vector<TrueParticle> read_truth(const char* name) {
  const std::vector<double> values = read_star_columns(name, kTruthColumns, 6, 2);
  std::vector<TrueParticle> particles;
  for (size_t i = 0; i + 6 <= values.size(); i += 6) {
    const double* v = &values[i];
    particles.push_back({v[0], v[1], v[2], v[3], v[4], v[5] > 0 && v[5] < 4 ? static_cast<int>(v[5]) : 0});
  }
  return particles;
}

void write_areas(const char* name, const std::vector<Area>& areas) {
  FILE* file = create(name, "data_areas", kAreaColumns);
  for (size_t i = 0; i < areas.size(); i++)
    for (size_t j = 0; j < areas[i].x.size(); j++)
      fprintf(file, "%6zu %2d %12.4f %12.4f\n", i + 1, areas[i].kind, areas[i].x[j], areas[i].y[j]);
  finish(file, name);
}

std::vector<Area> read_areas(const char* name) {
  const std::vector<double> values = read_star_columns(name, kAreaColumns, 4, 4);
  std::vector<Area> areas;
  double number = 0;
  for (size_t i = 0; i + 4 <= values.size(); i += 4) {
    if (areas.empty() || values[i] != number) areas.push_back({values[i + 1] == kOnIce ? kOnIce : kOnCarbon, {}, {}});
    number = values[i];
    areas.back().x.push_back(values[i + 2]);
    areas.back().y.push_back(values[i + 3]);
  }
  return areas;
}

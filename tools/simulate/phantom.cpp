#include "simulate/phantom.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "simulate/random.h"

namespace {

constexpr double kDegree = 0.017453292519943295;
constexpr double kSqrtTwoPi = 2.5066282746310002;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kGoldenAngle = 2.399963229728653;

/// Half axes of the ellipsoid that holds the body, as shares of the particle's radius.
constexpr double kHalfAxes[3] = {1.0, 0.86, 0.74};
constexpr double kBallAxes[3] = {1.0, 1.0, 1.0};

/// Centres keep this distance, in particle radii, so that the body fills its ellipsoid.
constexpr double kLeastDistance = 0.24;

/// A Gaussian somewhere in an ellipsoid such that most of it stays inside. Unit: the particle's radius.
Blob random_blob(Random* random, const double half_axes[3]) {
  Blob blob;
  blob.sigma = random_between(random, 0.06, 0.14);
  blob.density = random_between(random, 0.5, 1.5);
  for (;;) {
    const double u = random_between(random, -1, 1), v = random_between(random, -1, 1),
                 w = random_between(random, -1, 1);
    if (u * u + v * v + w * w > 1) continue;
    blob.x = u * (half_axes[0] - 1.5 * blob.sigma);
    blob.y = v * (half_axes[1] - 1.5 * blob.sigma);
    blob.z = w * (half_axes[2] - 1.5 * blob.sigma);
    return blob;
  }
}

bool keeps_distance(const Blob& blob, const Blob* others, int count) {
  for (int i = 0; i < count; i++) {
    const double dx = blob.x - others[i].x, dy = blob.y - others[i].y, dz = blob.z - others[i].z;
    if (dx * dx + dy * dy + dz * dz < kLeastDistance * kLeastDistance) return false;
  }
  return true;
}

void fill_ellipsoid(Random* random, const double half_axes[3], Phantom* phantom) {
  for (int count = 0; count < kBlobs;) {
    const Blob blob = random_blob(random, half_axes);
    if (keeps_distance(blob, phantom->blobs, count)) phantom->blobs[count++] = blob;
  }
}

/// Evenly over a sphere, along a spiral from pole to pole.
Blob shell_blob(int i) {
  const double z = 1 - (2 * i + 1.0) / kBlobs, rho = std::sqrt(1 - z * z), angle = kGoldenAngle * i;
  return {0.83 * rho * std::cos(angle), 0.83 * rho * std::sin(angle), 0.83 * z, 0.13, 1};
}

/// In four layers of ten around an empty channel.
Blob barrel_blob(int i) {
  const int layer = i / 10;
  const double angle = kTwoPi * (i + 0.5 * (layer % 2)) / 10;
  return {0.56 * std::cos(angle), 0.56 * std::sin(angle), -0.54 + 0.36 * layer, 0.13, 1};
}

/// Along a tight helix, a third as thick as it is long.
Blob rod_blob(int i) {
  const double angle = kGoldenAngle * i;
  return {-0.8 + 1.6 * i / (kBlobs - 1.0), 0.16 * std::cos(angle), 0.16 * std::sin(angle), 0.11, 1};
}

void place_blobs(Phantom* phantom, Blob (*blob)(int)) {
  for (int i = 0; i < kBlobs; i++) phantom->blobs[i] = blob(i);
}

double blob_mass(const Blob& blob) { return blob.density * std::pow(blob.sigma * kSqrtTwoPi, 3); }

void move_centre_of_mass_to_origin(Phantom* phantom) {
  double mass = 0, x = 0, y = 0, z = 0;
  for (const Blob& blob : phantom->blobs) {
    mass += blob_mass(blob);
    x += blob_mass(blob) * blob.x;
    y += blob_mass(blob) * blob.y;
    z += blob_mass(blob) * blob.z;
  }
  for (Blob& blob : phantom->blobs) {
    blob.x -= x / mass;
    blob.y -= y / mass;
    blob.z -= z / mass;
  }
}

/// The range of whole numbers within reach of centre, cut to 0 .. count - 1.
void pixels_within(double centre, double reach, int count, int* first, int* last) {
  *first = static_cast<int>(std::clamp(std::ceil(centre - reach), 0.0, static_cast<double>(count)));
  *last = static_cast<int>(std::clamp(std::floor(centre + reach), -1.0, count - 1.0));
}

void add_spot(const Spot& spot, double cx, double cy, double apix, float* image, int nx, int ny, long stride) {
  const double sigma = spot.sigma / apix, scale = -0.5 / (sigma * sigma);
  int x0, x1, y0, y1;
  pixels_within(cx, 5 * sigma, nx, &x0, &x1);
  pixels_within(cy, 5 * sigma, ny, &y0, &y1);
  if (x0 > x1 || y0 > y1) return;
  std::vector<float> along(static_cast<size_t>(x1 - x0 + 1));
  for (int x = x0; x <= x1; x++)
    along[static_cast<size_t>(x - x0)] = static_cast<float>(std::exp(scale * (x - cx) * (x - cx)));
  for (int y = y0; y <= y1; y++) {
    const auto across = static_cast<float>(spot.height * std::exp(scale * (y - cy) * (y - cy)));
    float* row = image + y * stride;
    for (int x = x0; x <= x1; x++) row[x] += across * along[static_cast<size_t>(x - x0)];
  }
}

}  // namespace

bool shape_from_name(const char* name, Shape* shape) {
  static constexpr const char* kNames[] = {"body", "ball", "shell", "barrel", "rod"};
  for (int i = 0; i < 5; i++)
    if (strcmp(name, kNames[i]) == 0) {
      *shape = static_cast<Shape>(i);
      return true;
    }
  return false;
}

Phantom make_phantom(double diameter, Shape shape) {
  Random random = random_stream(0, Stream::phantom, 0, 0);
  Phantom phantom;
  if (shape == Shape::body) fill_ellipsoid(&random, kHalfAxes, &phantom);
  if (shape == Shape::ball) fill_ellipsoid(&random, kBallAxes, &phantom);
  if (shape == Shape::shell) place_blobs(&phantom, shell_blob);
  if (shape == Shape::barrel) place_blobs(&phantom, barrel_blob);
  if (shape == Shape::rod) place_blobs(&phantom, rod_blob);
  move_centre_of_mass_to_origin(&phantom);
  const double radius = diameter / 2;
  for (Blob& blob : phantom.blobs) {
    blob.x *= radius;
    blob.y *= radius;
    blob.z *= radius;
    blob.sigma *= radius;
  }
  return phantom;
}

double phantom_density(const Phantom& phantom, double x, double y, double z) {
  double density = 0;
  for (const Blob& blob : phantom.blobs) {
    const double dx = x - blob.x, dy = y - blob.y, dz = z - blob.z;
    density += blob.density * std::exp(-(dx * dx + dy * dy + dz * dz) / (2 * blob.sigma * blob.sigma));
  }
  return density;
}

void rotation_rows(const Orientation& orientation, double rows[2][3]) {
  const double ca = std::cos(orientation.rot * kDegree), sa = std::sin(orientation.rot * kDegree);
  const double cb = std::cos(orientation.tilt * kDegree), sb = std::sin(orientation.tilt * kDegree);
  const double cg = std::cos(orientation.psi * kDegree), sg = std::sin(orientation.psi * kDegree);
  rows[0][0] = cg * cb * ca - sg * sa;
  rows[0][1] = cg * cb * sa + sg * ca;
  rows[0][2] = -cg * sb;
  rows[1][0] = -sg * cb * ca - cg * sa;
  rows[1][1] = -sg * cb * sa + cg * ca;
  rows[1][2] = sg * sb;
}

void project_phantom(const Phantom& phantom, const Orientation& orientation, double lowpass, Spot* spots) {
  double rows[2][3];
  rotation_rows(orientation, rows);
  // exp(-2 pi^2 s^2 k^2) is one half at k = 1 / lowpass
  const double blur = lowpass * std::sqrt(std::log(2.0) / 2) / M_PI;
  for (int i = 0; i < kBlobs; i++) {
    const Blob& blob = phantom.blobs[i];
    Spot& spot = spots[i];
    spot.x = rows[0][0] * blob.x + rows[0][1] * blob.y + rows[0][2] * blob.z;
    spot.y = rows[1][0] * blob.x + rows[1][1] * blob.y + rows[1][2] * blob.z;
    const double variance = blob.sigma * blob.sigma + blur * blur;
    spot.sigma = std::sqrt(variance);
    // along the view the Gaussian integrates to sigma sqrt(2 pi); the filter spreads what there is
    spot.height = blob.density * blob.sigma * kSqrtTwoPi * blob.sigma * blob.sigma / variance;
  }
}

void add_projection(const Spot* spots, double x, double y, double apix, float* image, int nx, int ny, long stride) {
  for (int i = 0; i < kBlobs; i++)
    add_spot(spots[i], x + spots[i].x / apix, y + spots[i].y / apix, apix, image, nx, ny, stride);
}

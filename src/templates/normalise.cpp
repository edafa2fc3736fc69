// Template normalisation.
#include <cmath>
#include <cstdlib>

#include "math_utils.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"
#include "templates/templates.h"

namespace {
constexpr char unit[] = "quorlin56";

// Sums of squares of a template with which no score over- or underflows, whatever the micrograph.
constexpr double kLeastEnergy = 1e-28;
constexpr double kMostEnergy = 1e24;
}  // namespace

double template_energy(const float* data, unsigned long n) {
  double energy = 0;
  for (unsigned long i = 0; i < n; i++) energy += static_cast<double>(data[i]) * static_cast<double>(data[i]);
  return energy;
}

int rmask_subtract_background(float* data, float radius, int nx, int ny) {
  const float cx = static_cast<float>(nx - 1) / 2;
  const float cy = static_cast<float>(ny - 1) / 2;
  const size_t pixels = static_cast<size_t>(nx) * ny;
  double sum = 0;
  for (int y = 0; y < ny; y++) {
    const float dy = static_cast<float>(y) - cy;
    for (int x = 0; x < nx; x++) {
      const float dx = static_cast<float>(x) - cx;
      float& pixel = data[static_cast<size_t>(y) * nx + x];
      if (dy * dy + dx * dx > radius * radius) {
        pixel = 0.0f;
      } else {
        sum += pixel;
      }
    }
  }
  const auto mean = static_cast<float>(sum / static_cast<double>(pixels));
  for (size_t i = 0; i < pixels; i++) data[i] -= mean;
  return 0;
}

void cpu_2d_normz_withRmask_applymask_inplace(float* data, int nx, int ny, float cx, float cy, float r, float soft) {
  const size_t pixels = static_cast<size_t>(nx) * ny;
  auto* mask = host_new<float>(pixels);
  cpu_2d_generate_rmask_soft(mask, nx, ny, cx, cy, r, soft);
  if (hm_sum(mask, pixels) == 0)
    safety_note(nullptr,
                "--T_norm_type 3 leaves nothing of a template of %d x %d pixels; check --center1_ratio and --diameter.",
                nx, ny);
  hm_normz_withmask_applymask_inplace(data, mask, pixels);
  free(mask);
}

void normalise_template(float* data, int nx, int ny, int T_norm_type, float radius, float center1_ratio) {
  switch (T_norm_type) {
    case 1:
      hm_submean_inplace(data, static_cast<unsigned long>(nx) * static_cast<unsigned long>(ny));
      break;
    case 2:
      rmask_subtract_background(data, radius, nx, ny);
      break;
    case 3:
      cpu_2d_normz_withRmask_applymask_inplace(data, nx, ny, static_cast<float>((nx - 1) / 2.0),
                                               static_cast<float>((ny - 1) / 2.0), radius * (1 - center1_ratio),
                                               radius * center1_ratio);
      break;
    default:
      break;
  }
}

void check_template_usable(const float* data, unsigned long n, int t, int T_norm_type) {
  const double energy = template_energy(data, n);
  const bool finite = std::isfinite(energy);
  if (!finite)
    KESTRIX_FATAL(
        "template %d holds values that are not finite after normalisation (--T_norm_type %d, "
        "--center1_ratio); check the template stack",
        t + 1, T_norm_type);
  if (energy > 0 && (energy < kLeastEnergy || energy > kMostEnergy))
    KESTRIX_FATAL(
        "the values of template %d are too %s for single precision (sum of squares %g after normalisation); scale the "
        "template stack to values of about 1",
        t + 1, energy < 1 ? "small" : "large", energy);
  if (energy == 0)
    KESTRIX_FATAL(
        "template %d is zero everywhere after normalisation (--T_norm_type %d), so that nothing can match "
        "it; check the template stack, or leave such templates out by --skip_empty_templates 1",
        t + 1, T_norm_type);
}

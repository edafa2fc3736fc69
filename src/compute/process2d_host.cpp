// The soft disc on the host.
#include <cmath>
#include <cstddef>

#include "process2d_raw.h"

float hd_guasf1(float v, float s) {
  if (s == 0) return v == 0 ? 1.0f : 0.0f;
  return expf((-v * v) / ((s + s) * s));
}

void cpu_2d_generate_rmask_soft(float* out, int nx, int ny, float cx, float cy, float r, float soft) {
  const float outer = (r + soft) * (r + soft);
  for (int y = 0; y < ny; y++) {
    const float dy = static_cast<float>(y) - cy;
    for (int x = 0; x < nx; x++) {
      const float dx = static_cast<float>(x) - cx;
      const float d2 = dy * dy + dx * dx;
      float value = 0.0f;
      if (d2 > outer) {
        value = 0.0f;
      } else if (d2 <= r * r) {
        value = 1.0f;
      } else {
        value = hd_guasf1(sqrtf(d2) - r, soft / 3.0f);
      }
      out[static_cast<size_t>(y) * nx + x] = value;
    }
  }
}

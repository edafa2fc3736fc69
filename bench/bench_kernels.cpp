// Kernels launched by name against loops written by hand for the same work, on the same threads.
#include <cmath>
#include <cstdlib>

#include "bench/paired.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "process2d_raw.h"

namespace {

constexpr double kLimit = 1.1;
constexpr int kTurns = 16;  // a single turn is too short to time on a busy machine

struct Images {
  int side;
  size_t pixels;
  float *a, *b;
};

Images images_new(int side) {
  Images images{side, static_cast<size_t>(side) * side, nullptr, nullptr};
  images.a = device_new<float>(images.pixels);
  images.b = device_new<float>(images.pixels);
  for (size_t i = 0; i < images.pixels; i++) images.a[i] = images.b[i] = static_cast<float>(i % 251) + 1;
  return images;
}

void images_free(const Images& images) {
  cudaFree(images.a);
  cudaFree(images.b);
}

void divide(benchmark::State& state) {
  const Images im = images_new(static_cast<int>(state.range(0)));
  const auto ours = [&] {
    for (int t = 0; t < kTurns; t++) hcuda_2d_divide_inplace(im.a, im.side, im.side, 1.0001f);
  };
  const auto by_hand = [&] {
    for (int t = 0; t < kTurns; t++) {
      float* d = im.b;
#pragma omp parallel for simd schedule(static)
      for (size_t i = 0; i < im.pixels; i++) d[i] /= 1.0001f;
      benchmark::ClobberMemory();
    }
  };
  run_paired(state, kLimit, ours, by_hand);
  images_free(im);
}

void square_with_mask(benchmark::State& state) {
  const Images im = images_new(static_cast<int>(state.range(0)));
  auto* out = device_new<float>(im.pixels);
  const auto ours = [&] {
    for (int t = 0; t < kTurns; t++) hcuda_sqr_withmask(out, im.a, im.b, im.pixels);
  };
  const auto by_hand = [&] {
    for (int t = 0; t < kTurns; t++) {
      const float* d = im.a;
      const float* mask = im.b;
#pragma omp parallel for simd schedule(static)
      for (size_t i = 0; i < im.pixels; i++) out[i] = (d[i] * d[i]) * mask[i];
      benchmark::ClobberMemory();
    }
  };
  run_paired(state, kLimit, ours, by_hand);
  cudaFree(out);
  images_free(im);
}

void multiply_conjugate(benchmark::State& state) {
  const int ny = static_cast<int>(state.range(0));
  const int hnx = ny / 2 + 1;
  const auto values = static_cast<size_t>(hnx) * ny;
  const Images im = images_new(2 * hnx > ny ? 2 * hnx : ny);
  const auto* A = reinterpret_cast<const float2*>(im.a);
  const auto* B = reinterpret_cast<const float2*>(im.b);
  auto* C = device_new<float2>(values);
  const auto ours = [&] {
    for (int t = 0; t < kTurns; t++)
      hcuda_c2d_multconj_norm(A, B, C, static_cast<unsigned>(hnx), static_cast<unsigned>(ny), 3.0f);
  };
  const auto by_hand = [&] {
    for (int t = 0; t < kTurns; t++) {
#pragma omp parallel for simd schedule(static)
      for (size_t i = 0; i < values; i++) {
        const float2 a = A[i];
        const float2 b = B[i];
        C[i].x = (a.x * b.x + a.y * b.y) / 3.0f;
        C[i].y = (a.y * b.x - a.x * b.y) / 3.0f;
      }
      benchmark::ClobberMemory();
    }
  };
  run_paired(state, kLimit, ours, by_hand);
  cudaFree(C);
  images_free(im);
}

// The rotation as one would write it for this one image: the same formula, row by row.
void rotate_by_hand(const float* in, float* out, int n, float angle) {
  const float t = angle * 0.017453292f;
  const float cosine = cosf(t);
  const float sine = sinf(t);
  const float c = static_cast<float>(n - 1) * 0.5f;
  const auto last = static_cast<float>(n - 1);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < n; y++) {
    for (int x = 0; x < n; x++) {
      const float dx = static_cast<float>(x) - c;
      const float dy = static_cast<float>(y) - c;
      const float sx = c + (dx * cosine + dy * sine);
      const float sy = c + (dy * cosine - dx * sine);
      float value = 0.0f;
      if (sx >= 0 && sx <= last && sy >= 0 && sy <= last) {
        const int ix = static_cast<int>(sx);
        const int iy = static_cast<int>(sy);
        const float fx = sx - static_cast<float>(ix);
        const float fy = sy - static_cast<float>(iy);
        const float* s = in + static_cast<size_t>(iy) * n + ix;
        const int bx = fx != 0 ? 1 : 0;
        const size_t by = fy != 0 ? static_cast<size_t>(n) : 0;
        value = s[0] + fx * (s[bx] - s[0]) + fy * (s[by] - s[0]) + fx * fy * ((s[0] + s[by + bx]) - s[bx] - s[by]);
      }
      out[static_cast<size_t>(y) * n + x] = value;
    }
  }
}

void rotate(benchmark::State& state) {
  const Images im = images_new(static_cast<int>(state.range(0)));
  const auto ours = [&] { hcuda_2d_rotate(im.a, im.b, im.side, im.side, 33.0f); };
  const auto by_hand = [&] {
    rotate_by_hand(im.a, im.b, im.side, 33.0f);
    benchmark::ClobberMemory();
  };
  run_paired(state, kLimit, ours, by_hand);
  images_free(im);
}

// The sum against one that adds in order within each core's share, as a compiler may not vectorise it.
void sum(benchmark::State& state) {
  const Images im = images_new(static_cast<int>(state.range(0)));
  const auto ours = [&] {
    for (int t = 0; t < kTurns; t++) benchmark::DoNotOptimize(hcuda_fast_sum(im.a, im.pixels));
  };
  const auto by_hand = [&] {
    for (int t = 0; t < kTurns; t++) {
      float total = 0;
#pragma omp parallel for schedule(static) reduction(+ : total)
      for (size_t i = 0; i < im.pixels; i++) total += im.a[i];
      benchmark::DoNotOptimize(total);
    }
  };
  run_paired(state, kLimit, ours, by_hand);
  images_free(im);
}

}  // namespace

#define KERNEL_BENCHMARK(name) \
  BENCHMARK(name)->Arg(512)->Arg(958)->Arg(1024)->Arg(1440)->UseManualTime()->Unit(benchmark::kMillisecond)
KERNEL_BENCHMARK(divide);
KERNEL_BENCHMARK(square_with_mask);
KERNEL_BENCHMARK(multiply_conjugate);
KERNEL_BENCHMARK(rotate);
KERNEL_BENCHMARK(sum);

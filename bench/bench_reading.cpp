// Reading a 4096 x 4096 micrograph from the page cache and shrinking it by 4, against memcpy of the same bytes.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/paired.h"
#include "mrcfile.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"

namespace {

constexpr int kSide = 4096;
constexpr int kShrink = 4;
constexpr size_t kPixels = static_cast<size_t>(kSide) * kSide;

void read_and_shrink(benchmark::State& state) {
  const std::string name = "/tmp/kestrix_bench_" + std::to_string(getpid()) + ".mrc";
  auto* raw = host_new<float>(kPixels);
  auto* copy = host_new<float>(kPixels);
  auto* work = host_new<float>(kPixels / (kShrink * kShrink));
  for (size_t i = 0; i < kPixels; i++) raw[i] = static_cast<float>(i % 1021);
  mrcf_write_xyz_data(name.c_str(), raw, kSide, kSide, 1);

  const auto ours = [&] {
    FILE* file = fopen(name.c_str(), "r");
    MRC_HEAD head;
    mrc_read_head(file, &head);
    mrc_read_slice(file, &head, 0, 'z', raw);
    fclose(file);
    cpu_2d_meanshrink_extended_even_square(work, raw, kSide, kSide, kShrink);
  };
  const auto copying = [&] {
    memcpy(copy, raw, kPixels * sizeof(float));
    benchmark::ClobberMemory();
  };
  run_paired(state, 4.0, ours, copying);

  remove(name.c_str());
  free(raw);
  free(copy);
  free(work);
}

}  // namespace

BENCHMARK(read_and_shrink)->UseManualTime()->Unit(benchmark::kMillisecond);

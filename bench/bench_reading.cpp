// Reading a 4096 x 4096 micrograph from the page cache and shrinking it by 4, from files of every kind, each against what
// can't be avoided: copying the bytes, decompressing them to nowhere, or libtiff alone.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/paired.h"
#include "conditioning/conditioning.h"
#include "formats/image_file.h"
#include "mrcfile.h"
#include "platform/host_memory.h"
#ifdef KESTRIX_HAS_TIFF
#include <tiffio.h>
#endif

namespace {

constexpr int kSide = 4096;
constexpr int kShrink = 4;
constexpr size_t kPixels = static_cast<size_t>(kSide) * kSide;

std::string file_name(const char* ending) { return "/tmp/kestrix_bench_" + std::to_string(getpid()) + ending; }

// Counts of a detector: about 40 a pixel, in a sequence that compresses about as badly as noise does.
std::vector<uint8_t> counts(int most) {
  std::vector<uint8_t> values(kPixels);
  uint32_t state = 1;
  for (uint8_t& v : values) {
    int sum = 0;
    for (int i = 0; i < 4; i++) {
      state = state * 1664525u + 1013904223u;
      sum += static_cast<int>(state >> 24);
    }
    v = static_cast<uint8_t>(sum * most / 1024);
  }
  return values;
}

// A whole number as an IEEE half.
uint16_t half_bits(uint8_t v) {
  if (v == 0) return 0;
  const int exponent = 31 - __builtin_clz(v);
  return static_cast<uint16_t>((exponent + 15) << 10 | ((v << (10 - exponent)) & 0x3ff));
}

void write_mrc(const std::string& name, int mode, const std::vector<uint8_t>& values) {
  MRC_HEAD head{};
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, kSide, kSide, 1, mode);
  FILE* file = fopen(name.c_str(), "w");
  fwrite(&head, sizeof head, 1, file);
  std::vector<char> row;
  for (size_t y = 0; y < kSide; y++) {
    row.clear();
    for (size_t x = 0; x < kSide; x++) {
      const uint8_t v = values[y * kSide + x];
      const auto f = static_cast<float>(v);
      const auto s = static_cast<int16_t>(v);
      const uint16_t h = half_bits(v);
      const auto* bytes = reinterpret_cast<const char*>(mode == 2    ? static_cast<const void*>(&f)
                                                        : mode == 1  ? static_cast<const void*>(&s)
                                                        : mode == 12 ? static_cast<const void*>(&h)
                                                                     : &v);
      const size_t size = mode == 2 ? 4 : mode == 0 || mode == 101 ? 1 : 2;
      if (mode == 101 && x % 2 == 1)
        row.back() = static_cast<char>(row.back() | v << 4);
      else
        row.insert(row.end(), bytes, bytes + size);
    }
    fwrite(row.data(), 1, row.size(), file);
  }
  fclose(file);
}

void read_and_shrink_file(const std::string& name, float* work) {
  std::string problem;
  const auto image = open_image(name.c_str(), {}, &problem);
  if (!image || !problem_of_section(*image).empty()) abort();
  read_shrunk_micrograph(*image, kShrink, kNoLimits, work);
}

// Against memcpy of the file's bytes.
void read_and_shrink(benchmark::State& state, int mode) {
  const std::string name = file_name(".mrc");
  write_mrc(name, mode, counts(mode == 101 ? 16 : 100));
  auto* work = host_new<float>(kPixels / (kShrink * kShrink));
  const size_t bytes = mode == 2 ? 4 * kPixels : mode == 101 ? kPixels / 2 : mode == 0 ? kPixels : 2 * kPixels;
  std::vector<char> raw(bytes, 1), copy(bytes);
  const auto copying = [&] {
    memcpy(copy.data(), raw.data(), bytes);
    benchmark::ClobberMemory();
  };
  run_paired(
      state, 4.0, [&] { read_and_shrink_file(name, work); }, copying);
  state.counters["Mpixel/s"] =
      static_cast<double>(kPixels) * 1e-3 / (state.counters["reference_ms"] * state.counters["ratio"]);
  remove(name.c_str());
  free(work);
}

// Against the compressor's own program, which throws away what it has decoded.
void read_and_shrink_compressed(benchmark::State& state, const char* compress, const char* ending,
                                const char* to_nowhere) {
  const std::string name = file_name(".mrc");
  write_mrc(name, 2, counts(100));
  if (system((std::string(compress) + " -f " + name).c_str()) != 0) return state.SkipWithError("isn't installed");
  auto* work = host_new<float>(kPixels / (kShrink * kShrink));
  const std::string command = std::string(to_nowhere) + " " + name + ending + " > /dev/null";
  const auto decoding = [&] {
    if (system(command.c_str()) != 0) abort();
  };
  run_paired(
      state, 1.2, [&] { read_and_shrink_file(name + ending, work); }, decoding);
  remove((name + ending).c_str());
  free(work);
}

#ifdef KESTRIX_HAS_TIFF
void write_tiff(const std::string& name, int compression, const std::vector<uint8_t>& values) {
  TIFF* tiff = TIFFOpen(name.c_str(), "w");
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kSide);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kSide);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 16);
  for (size_t y = 0; y < kSide; y++)
    TIFFWriteScanline(tiff, const_cast<uint8_t*>(values.data() + y * kSide), static_cast<uint32_t>(y), 0);
  TIFFClose(tiff);
}

// Against libtiff, which decodes every strip.
void read_and_shrink_tiff(benchmark::State& state, int compression) {
  const std::string name = file_name(".tif");
  write_tiff(name, compression, counts(100));
  auto* work = host_new<float>(kPixels / (kShrink * kShrink));
  std::vector<uint8_t> decoded(kPixels);
  const auto decoding = [&] {
    TIFF* tiff = TIFFOpen(name.c_str(), "r");
    for (uint32_t strip = 0; strip < kSide / 16; strip++)
      TIFFReadEncodedStrip(tiff, strip, decoded.data() + static_cast<size_t>(strip) * 16 * kSide, -1);
    TIFFClose(tiff);
  };
  run_paired(
      state, 1.2, [&] { read_and_shrink_file(name, work); }, decoding);
  remove(name.c_str());
  free(work);
}
BENCHMARK_CAPTURE(read_and_shrink_tiff, lzw, COMPRESSION_LZW)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink_tiff, deflate, COMPRESSION_ADOBE_DEFLATE)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_CAPTURE(read_and_shrink, float32, 2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink, float16, 12)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink, int16, 1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink, uint8, 0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink, uint4, 101)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink_compressed, gzip, "gzip -1", ".gz", "zcat")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink_compressed, bzip2, "bzip2 -1", ".bz2", "bzcat")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_and_shrink_compressed, xz, "xz -0", ".xz", "xzcat")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

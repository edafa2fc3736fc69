// What the stages of a run are measured against, on the threads that OMP_NUM_THREADS allows: prints "name seconds"
// lines for a micrograph, its working side and a number of angles.
//   kestrix_floors MICROGRAPH.mrc SHRINK ANGLES [WISDOM]
// FFTW's plans are kept in the file WISDOM between calls: good ones take long to find.
#include <fftw3.h>
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/paired.h"
#include "mrcfile.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"

namespace {

constexpr int kRepeats = 5;

template <class F>
double median_seconds(F f) {
  f();
  std::vector<double> seconds;
  seconds.reserve(kRepeats);
  for (int i = 0; i < kRepeats; i++) seconds.push_back(seconds_of(f));
  return median_of(seconds);
}

// A forward and an inverse transform of the padded image, on all cores, planned as the program may plan: by estimate.
double padded_pair(int side) {
  const int P = 2 * side;
  float* image = fftwf_alloc_real(static_cast<size_t>(P) * P);
  fftwf_complex* spectrum = fftwf_alloc_complex(static_cast<size_t>(side + 1) * P);
  std::fill_n(image, static_cast<size_t>(P) * P, 1.0f);
  fftwf_plan_with_nthreads(omp_get_max_threads());
  fftwf_plan forward = fftwf_plan_dft_r2c_2d(P, P, image, spectrum, FFTW_ESTIMATE);
  fftwf_plan inverse = fftwf_plan_dft_c2r_2d(P, P, spectrum, image, FFTW_ESTIMATE);
  const double seconds = median_seconds([&] {
    fftwf_execute(forward);
    fftwf_execute(inverse);
  });
  fftwf_destroy_plan(forward);
  fftwf_destroy_plan(inverse);
  fftwf_free(image);
  fftwf_free(spectrum);
  return seconds;
}

// `count` inverse transforms of the working size, each core running its own, planned as well as FFTW can plan them.
double inverse_transforms(int side, int count) {
  const auto threads = static_cast<size_t>(omp_get_max_threads());
  const size_t pixels = static_cast<size_t>(side) * side;
  const size_t values = static_cast<size_t>(side / 2 + 1) * side;
  float* images = fftwf_alloc_real(threads * pixels);
  fftwf_complex* spectra = fftwf_alloc_complex(threads * values);
  fftwf_plan_with_nthreads(1);
  fftwf_plan inverse = fftwf_plan_dft_c2r_2d(side, side, spectra, images, FFTW_PATIENT);
  memset(spectra, 0, threads * values * sizeof(fftwf_complex));
  const double seconds = median_seconds([&] {
#pragma omp parallel for schedule(dynamic)
    for (int i = 0; i < count; i++) {
      const auto thread = static_cast<size_t>(omp_get_thread_num());
      fftwf_execute_dft_c2r(inverse, spectra + thread * values, images + thread * pixels);
    }
  });
  fftwf_destroy_plan(inverse);
  fftwf_free(images);
  fftwf_free(spectra);
  return seconds;
}

// Reading the file's bytes as they are with one call, and averaging its blocks, both warm.
double read_and_average(const char* name, const MRC_HEAD& head, int shrink) {
  const size_t pixels = static_cast<size_t>(head.nx) * head.ny;
  const int side = get_max_extended_square_even_size(head.nx, head.ny, shrink);
  auto* raw = host_new<float>(pixels);
  auto* work = host_new<float>(static_cast<size_t>(side) * side);
  const double seconds = median_seconds([&] {
    FILE* file = fopen(name, "r");
    MRC_HEAD read_head;
    mrc_read_head(file, &read_head);
    mrc_read_slice(file, &read_head, 0, 'z', raw);
    fclose(file);
    cpu_2d_meanshrink_extended_even_square(work, raw, head.nx, head.ny, shrink);
  });
  free(raw);
  free(work);
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    fprintf(stderr, "Usage: %s MICROGRAPH.mrc SHRINK ANGLES [WISDOM]\n", argv[0]);
    return 1;
  }
  const int shrink = atoi(argv[2]);
  FILE* file = fopen(argv[1], "r");
  if (!file || shrink < 1) {
    fprintf(stderr, "Can't read %s, or a shrink factor below 1.\n", argv[1]);
    return 1;
  }
  MRC_HEAD head;
  mrc_read_head(file, &head);
  fclose(file);
  const int side = get_max_extended_square_even_size(head.nx, head.ny, shrink);
  fftwf_init_threads();
  if (argc == 5) fftwf_import_wisdom_from_filename(argv[4]);
  printf("read_and_average %.6f\n", read_and_average(argv[1], head, shrink));
  printf("padded_pair %.6f\n", padded_pair(side));
  printf("inverse_transforms %.6f\n", inverse_transforms(side, atoi(argv[3])));
  if (argc == 5) fftwf_export_wisdom_to_filename(argv[4]);
  return 0;
}

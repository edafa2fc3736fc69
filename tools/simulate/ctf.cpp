#include "simulate/ctf.h"

#include <fftw3.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <initializer_list>

namespace {

/// The phase shift as a polynomial of k^2, and what the contrast is multiplied by.
struct TransferTerms {
  double offset, linear, quadratic;
  bool flat;
};

TransferTerms transfer_terms(const Optics& optics) {
  const double lambda = electron_wavelength(optics.kv);
  TransferTerms terms;
  terms.offset = std::asin(optics.ac);
  terms.linear = M_PI * lambda * optics.defocus;
  terms.quadratic = -0.5 * M_PI * lambda * lambda * lambda * optics.cs * 1e7;  // Cs in Å
  terms.flat = optics.flat != 0;
  return terms;
}

double transfer(const TransferTerms& terms, double k2) {
  if (terms.flat) return -1;
  return -std::sin(terms.offset + k2 * (terms.linear + k2 * terms.quadratic));
}

/// Multiplies one row of the half-plane spectrum, whose vertical frequency is ky, by the factors.
void filter_row(fftwf_complex* row, const Canvas& canvas, double apix, double ky, const TransferTerms& terms,
                double lowpass) {
  const double scale = 1 / (static_cast<double>(canvas.nx) * canvas.ny);
  const double decay = std::log(2.0) * lowpass * lowpass;
  for (int x = 0; x <= canvas.nx / 2; x++) {
    const double kx = x / (canvas.nx * apix), k2 = kx * kx + ky * ky;
    const auto factor = static_cast<float>(scale * transfer(terms, k2) * (decay > 0 ? std::exp(-decay * k2) : 1));
    row[x][0] *= factor;
    row[x][1] *= factor;
  }
}

}  // namespace

double electron_wavelength(double kv) {
  const double h = 6.62607015e-34, m = 9.1093837015e-31, e = 1.602176634e-19, c = 299792458.0;
  const double energy = e * kv * 1000;
  return 1e10 * h / std::sqrt(2 * m * energy * (1 + energy / (2 * m * c * c)));
}

double ctf_value(const Optics& optics, double k) { return transfer(transfer_terms(optics), k * k); }

int transform_size(int n) {
  for (int size = n + n % 2;; size += 2) {
    int rest = size;
    for (const int prime : {2, 3, 5, 7})
      while (rest % prime == 0) rest /= prime;
    if (rest == 1) return size;
  }
}

bool canvas_new(Canvas* canvas, int nx, int ny) {
  const long stride = 2 * (nx / 2 + 1);
  canvas->nx = nx;
  canvas->ny = ny;
  canvas->stride = stride;
  canvas->image = fftwf_alloc_real(static_cast<size_t>(stride) * static_cast<size_t>(ny));
  if (!canvas->image) return false;
  fftwf_init_threads();
  fftwf_plan_with_nthreads(omp_get_max_threads());
  auto* spectrum = reinterpret_cast<fftwf_complex*>(canvas->image);
  canvas->forward = fftwf_plan_dft_r2c_2d(ny, nx, canvas->image, spectrum, FFTW_ESTIMATE);
  canvas->backward = fftwf_plan_dft_c2r_2d(ny, nx, spectrum, canvas->image, FFTW_ESTIMATE);
  if (!canvas->forward || !canvas->backward) {
    canvas_free(canvas);
    return false;
  }
  canvas_clear(canvas);
  return true;
}

void canvas_free(Canvas* canvas) {
  if (canvas->forward) fftwf_destroy_plan(static_cast<fftwf_plan>(canvas->forward));
  if (canvas->backward) fftwf_destroy_plan(static_cast<fftwf_plan>(canvas->backward));
  fftwf_free(canvas->image);
  *canvas = Canvas();
}

void canvas_clear(Canvas* canvas) {
#pragma omp parallel for schedule(static)
  for (int y = 0; y < canvas->ny; y++)
    memset(canvas->image + y * canvas->stride, 0, static_cast<size_t>(canvas->stride) * sizeof(float));
}

void canvas_apply_ctf(Canvas* canvas, double apix, const Optics& optics, double lowpass) {
  const TransferTerms terms = transfer_terms(optics);
  fftwf_execute(static_cast<fftwf_plan>(canvas->forward));
#pragma omp parallel for schedule(static)
  for (int y = 0; y < canvas->ny; y++) {
    const int frequency = y <= canvas->ny / 2 ? y : y - canvas->ny;
    auto* row = reinterpret_cast<fftwf_complex*>(canvas->image + y * canvas->stride);
    filter_row(row, *canvas, apix, frequency / (canvas->ny * apix), terms, lowpass);
  }
  fftwf_execute(static_cast<fftwf_plan>(canvas->backward));
}

// Operations on whole 2D images: on the device (hcuda_*) and on the host (cpu_*). Images are float, row-major, pixel
// (x, y) of an image of width nx at y * nx + x; spectra are float2 with rows of nx / 2 + 1 values. Buffers belong to
// the caller. Device operations end the run on a device error.
#pragma once

#include <cstddef>

#include "platform/device.h"

// --- Element-wise, on the device ---

/// d[i] = 0.
void hcuda_2d_empty(float* d, int nx, int ny);
/// d[i] = v.
void hcuda_2d_memset(float* d, float v, int nx, int ny);
/// out[i] = in[i]^2.
void hcuda_2d_sqr(float* out, const float* in, int nx, int ny);
/// d[i] = d[i]^2.
void hcuda_2d_sqr_inplace(float* d, int nx, int ny);
/// d[i] = the correctly rounded square root of d[i]; NaN below 0.
void hcuda_2d_sqrt_inplace(float* d, int nx, int ny);
/// d[i] = d[i] / v, a true division.
void hcuda_2d_divide_inplace(float* d, int nx, int ny, float v);
/// a[i] = a[i] - b[i].
void hcuda_x2d_sub_inplace(float* a, const float* b, int nx, int ny);

// --- Geometry, on the device ---

/// Writes the nx by ny image small into the middle of the NX by NY image large, its first pixel at
/// ((NX - nx) / 2, (NY - ny) / 2); the rest of large stays. small must fit.
void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int NX, int NY, int nx, int ny);

/// Cosine and sine of an in-plane angle in degrees, rounded once the same way wherever something is turned.
void turn_of(float psi, float* cosine, float* sine);

/// Turns an image about its centre ((nx - 1) / 2, (ny - 1) / 2) by bilinear sampling of the source position.
/// in, out   device, nx*ny floats, different buffers
/// angle     degrees, from +x towards +y
/// Pixels whose source lies outside the image become 0.
void hcuda_2d_rotate(const float* in, float* out, int nx, int ny, float angle);

/// Resamples an image about its centre to (int)(nx * scale) by (int)(ny * scale) pixels, bilinear, without any filter.
/// in, out   device, nx*ny floats and as many as the scaled size has
/// Pixels whose source lies outside the image become 0.
void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float scale);

/// Exchanges pixel (x, y) with ((x + nx/2) mod nx, (y + ny/2) mod ny): moves the origin of a circular correlation to
/// the middle. ny is even.
void hcuda_2d_swap_ccf_inplace(float* d, unsigned nx, unsigned ny);

/// Mirrors an nx by ny image to 2*nx by 2*ny: the image stands in the top-left quadrant, its last row and column
/// appear twice, and the result continues periodically without a jump.
void hcuda_2d_mirror_pad(float* out, const float* in, int nx, int ny);

/// Cuts the top-left quadrant, nx by ny, out of a 2*nx by 2*ny image.
void hcuda_2d_mirror_pad_inv(float* out, const float* in, int nx, int ny);

/// A disc of 1 out to the radius R about (cx, cy), then hd_guasf(r - R, soft / 3) out to R + soft, then 0.
/// mask   device, nx*ny floats
void hcuda_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float R, float soft);

// --- Spectra, on the device ---

/// C = A * conj(B) / norm, a true division of both parts. A, B, C: hnx * ny values; C may be A or B.
void hcuda_c2d_multconj_norm(const float2* A, const float2* B, float2* C, unsigned hnx, unsigned ny, float norm);
/// A = A * conj(B) / norm.
void hcuda_c2d_multconj_norm_inplace(float2* A, const float2* B, unsigned hnx, unsigned ny, float norm);

// --- On the host ---

/// exp(-v^2 / (2 s^2)), peak 1; for s = 0 it is 1 at v = 0 and 0 elsewhere.
float hd_guasf1(float v, float s);

/// A disc of 1 out to the radius r about (cx, cy), then hd_guasf1(distance - r, soft / 3) out to r + soft, then 0.
/// out   nx*ny floats
void cpu_2d_generate_rmask_soft(float* out, int nx, int ny, float cx, float cy, float r, float soft);

/// Whole blocks of shrink pixels along a side of n, made even: 2 * (n / (2 * shrink)).
int even_side(int n, int shrink);

/// Block averages of width by height output pixels: out[y * stride + x] is the mean of shrink by shrink pixels of `in`,
/// whose rows are nx apart.
void cpu_2d_average_rows(float* out, size_t stride, const float* in, size_t nx, int width, int height, int shrink);

/// Side of the even square that a micrograph of nx by ny pixels becomes: 2 * (max(nx, ny) / (2 * shrink)).
int get_max_extended_square_even_size(int nx, int ny, int shrink);

/// Averages blocks of shrink by shrink pixels into the even square of get_max_extended_square_even_size. What does
/// not fill an even number of blocks is dropped at the high ends; a shorter side is filled up by mirroring.
/// out   square of floats      in   nx*ny floats
/// Sides whose ratio reaches 2 end the run with a fatal error.
void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int shrink);

/// Fills up the shorter side of the square by mirroring; nx and ny are the micrograph's. Fails as above.
void cpu_2d_extend_even(float* data, int nx, int ny, int shrink);

/// Fills the square of side max(nx, ny) in data, whose row stride is that side, from the nx by ny block at its
/// origin by mirroring; the edge row or column is repeated. Fails as above.
void cpu_2d_extend_to_square_mirror_inplace(float* data, int nx, int ny);

/// Averages blocks of shrink by shrink pixels into an image of nx / shrink by ny / shrink; the remainder is dropped.
/// A factor below 1 prints an error and writes nothing.
void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int shrink);

/// cpu_2d_meanshrink of each of nz images that lie one behind the other, in in as in out. A factor below 1 prints its
/// error once and writes nothing.
void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int shrink);

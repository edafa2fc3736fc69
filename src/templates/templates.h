// Templates: getting them to the working pixel size and preparing them for correlation. All on the host but the
// resampling.
#pragma once

#include "formats/image_file.h"

/// Whether T asks for the automatic template: "NULL" or "NONE" in any case.
bool is_auto_template(const char* T);

/// The templates at the working pixel size (apixM * shrink): read from the MRC stack T and resampled or, where
/// is_auto_template(T), one soft disc.
/// nx, ny, nz     set to the size in working pixels and the number of templates
/// radius         working pixels: of the disc;   center1_ratio   share of it that is the flat top
/// apixT, apixM   Å per pixel of templates and micrographs
/// work_side      side of the working image, which no template may exceed
/// Returns nz images of nx*ny floats, one behind the other, which the caller frees with free. A stack that can't be
/// read, and templates that come out smaller than a pixel or larger than the working image, end the run.
/// options        how T is read
float* get_or_create_template_data(int& nx, int& ny, int& nz, const char* T, float radius, float apixT, float apixM,
                                   int shrink, float center1_ratio, int work_side,
                                   const ImageOptions& options = kPlainImages);

/// Reads the whole stack, as above.
float* get_template_data(int& nx, int& ny, int& nz, const char* name);

/// The same of a file of any format.
float* get_template_images(int& nx, int& ny, int& nz, const char* name, const ImageOptions& options);

/// One template: 1 out to radius * center1_ratio, then a Gaussian fall to the radius, in a box of four radii (the
/// radius truncated first).
float* create_template_data(int& nx, int& ny, int& nz, float radius, float center1_ratio);

/// Resamples nz images (host) about their centres by hcuda_2d_scale, on the device one by one.
/// out   nz images of (int)(nx * scale) by (int)(ny * scale) floats
void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float scale);

/// Sets pixels farther than radius from the centre to 0, then subtracts the sum of the rest divided by the number of
/// all pixels from every pixel. Returns 0.
int rmask_subtract_background(float* data, float radius, int nx, int ny);

/// Normalises to weighted mean 0 and deviation 1 under the soft disc of cpu_2d_generate_rmask_soft, then multiplies
/// by it. A disc of sum 0 ends the run.
void cpu_2d_normz_withRmask_applymask_inplace(float* data, int nx, int ny, float cx, float cy, float r, float soft);

/// Normalises one template by T_norm_type: 1 subtracts the mean, 2 rmask_subtract_background, 3 the disc above with
/// a soft edge of radius * center1_ratio; any other value leaves it.
void normalise_template(float* data, int nx, int ny, int T_norm_type, float radius, float center1_ratio);

/// Sum of the squares of a template's n pixels; not finite where one of them isn't.
double template_energy(const float* data, unsigned long n);

/// Ends the run with a message that names template number t (from 0) if its n pixels are all zero or not all finite,
/// or too large or too small for scores in single precision.
void check_template_usable(const float* data, unsigned long n, int t, int T_norm_type);

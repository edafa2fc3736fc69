// Extraction of particles: boxes cut from a raw micrograph or movie and written as one stack.
#pragma once

#include "boxfile.h"
#include "formats/image_file.h"

/// Cuts a w x h image whose corner lies at pixel (x0, y0) of the nx x ny image src into dst, w*h floats that
/// don't overlap src. What lies outside src is 0. Returns 0.
int cpu_x2d_extract_small_from_large(float* dst, int w, int h, const float* src, int nx, int ny, int x0, int y0);

/// The same from each of the nz frames of src, frame f at src + f*nx*ny going to dst + f*w*h. Returns 0.
int cpu_x2d_movie_extract_small_from_large(float* dst, int w, int h, int nz, const float* src, int nx, int ny, int x0,
                                           int y0);

/// Cuts n images at the corners of the first n boxes; image p goes to dst + p*w*h. Returns 0.
int cpu_x2d_extract_ptcls_from_micrograph(float* dst, int w, int h, int n, const float* src, int nx, int ny,
                                          const PTCL_BOX* boxes);

/// Cuts n images from each of nz frames; frame f of particle p goes to dst + (p*nz + f)*w*h. Returns 0.
int cpu_x2d_extract_ptcls_from_movie(float* dst, int w, int h, int nz, int n, const float* src, int nx, int ny,
                                     const PTCL_BOX* boxes);

/// The particles of a micrograph or movie as one block of floats in the order of the functions above, which
/// the caller frees with free. All have the size of the list's first box.
///
/// box_name  coordinate file, of which the first 10240 records count
/// box_size  0, or the size that every box is given around its centre
/// invert    not 0: every sample is multiplied by -1
///
/// Files that can't be read, sizes that make no stack and a lack of memory end the run.
float* get_mrcf_data_ptcls(const char* mic_name, const char* box_name, int box_size, int invert);

/// Writes those particles as a float stack under the micrograph's name with "_particles.mrcs" in place of its
/// suffix. A list without boxes gives a stack of the sizes 0. Fails as get_mrcf_data_ptcls. Returns 0.
int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic_name, const char* box_name, int box_size, int invert);

/// The same of an image that is open, the stack named from out_name. One that doesn't hold all its samples ends the run.
void extract_particles_from_image(const ImageFile& image, const char* mic_name, const char* out_name,
                                  const char* box_name, int box_size);

/// The same, the stack named from out_name in place of the micrograph's name.
void extract_particles_from_micrograph(const char* mic_name, const char* out_name, const char* box_name, int box_size,
                                       int invert);

#include "process2d_mrc.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "math_utils.h"
#include "mrcfile.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "process2d_mrc";

constexpr int kMaxParticles = 10240;

// The boxes of one micrograph, with the size that all of them are cut at.
struct BoxList {
  PTCL_BOX* boxes;
  int n;
  int w, h;
};

BoxList read_boxes(const char* box_name, int box_size) {
  auto* boxes = host_new<PTCL_BOX>(kMaxParticles);
  const int n = read_all_ptcl_boxes(boxes, kMaxParticles, box_name);
  if (box_size != 0) resize_ptcl_boxes(boxes, n, box_size);
  const BoxList list{boxes, n, boxes[0].w, boxes[0].h};
  if (list.w < 0 || list.h < 0) KESTRIX_FATAL("%s has a first box of %d x %d pixels", box_name, list.w, list.h);
  return list;
}

// nz images for each box, which a header must be able to count and memory to hold.
float* new_stack(const BoxList& list, int nz) {
  const size_t image = static_cast<size_t>(list.w) * static_cast<size_t>(list.h);
  const size_t images = static_cast<size_t>(list.n) * static_cast<size_t>(nz);
  if (images > INT_MAX) KESTRIX_FATAL("%zu images are more than an MRC stack can hold", images);
  return static_cast<float*>(host_malloc(images, std::max<size_t>(image, 1) * sizeof(float)));
}

float* cut_particles(const float* data, const MRC_HEAD* head, const BoxList& list, int invert) {
  if (head->nz < 1) fatal_error("get_mrcf_data_ptcls", unit, __LINE__, "Micrograph or movie size error!");
  float* stack = new_stack(list, head->nz);
  if (head->nz == 1) {
    cpu_x2d_extract_ptcls_from_micrograph(stack, list.w, list.h, list.n, data, head->nx, head->ny, list.boxes);
  } else {
    cpu_x2d_extract_ptcls_from_movie(stack, list.w, list.h, head->nz, list.n, data, head->nx, head->ny, list.boxes);
  }
  const unsigned long floats = static_cast<unsigned long>(list.w) * list.h * head->nz * list.n;
  if (invert != 0) hm_invert_inplace(stack, floats);
  return stack;
}

void write_particles(const float* data, const MRC_HEAD* head, const BoxList& list, int invert, const char* out_name) {
  float* stack = cut_particles(data, head, list, invert);
  char name[kTextBytes];
  set_outname_by_suffix(name, out_name, "_particles.mrcs");
  mrcf_write_xyz_data(name, stack, list.w, list.h, head->nz * list.n);
  free(stack);
}

}  // namespace

int cpu_x2d_extract_small_from_large(float* dst, int w, int h, const float* src, int nx, int ny, int x0, int y0) {
  std::fill_n(dst, static_cast<long>(w) * h, 0.0f);
  const long left = x0;
  const long first = std::max(left, 0L);  // columns and rows of src that the box holds
  const long last = std::min(left + w, static_cast<long>(nx));
  const long bottom = y0;
  const long top = std::min(bottom + h, static_cast<long>(ny));
  if (first >= last) return 0;
  for (long y = std::max(bottom, 0L); y < top; y++)
    memcpy(dst + ((y - bottom) * w + first - left), src + (y * nx + first),
           static_cast<size_t>(last - first) * sizeof(float));
  return 0;
}

int cpu_x2d_movie_extract_small_from_large(float* dst, int w, int h, int nz, const float* src, int nx, int ny, int x0,
                                           int y0) {
  const long image = static_cast<long>(w) * h;
  const long frame = static_cast<long>(nx) * ny;
  for (long f = 0; f < nz; f++)
    cpu_x2d_extract_small_from_large(dst + f * image, w, h, src + f * frame, nx, ny, x0, y0);
  return 0;
}

int cpu_x2d_extract_ptcls_from_micrograph(float* dst, int w, int h, int n, const float* src, int nx, int ny,
                                          const PTCL_BOX* boxes) {
  const long image = static_cast<long>(w) * h;
  for (long p = 0; p < n; p++)
    cpu_x2d_extract_small_from_large(dst + p * image, w, h, src, nx, ny, boxes[p].x, boxes[p].y);
  return 0;
}

int cpu_x2d_extract_ptcls_from_movie(float* dst, int w, int h, int nz, int n, const float* src, int nx, int ny,
                                     const PTCL_BOX* boxes) {
  const long particle = static_cast<long>(w) * h * nz;
  for (long p = 0; p < n; p++)
    cpu_x2d_movie_extract_small_from_large(dst + p * particle, w, h, nz, src, nx, ny, boxes[p].x, boxes[p].y);
  return 0;
}

float* get_mrcf_data_ptcls(const char* mic_name, const char* box_name, int box_size, int invert) {
  float* data = get_mrcf_data_all(mic_name);
  MRC_HEAD* head = get_mrcf_head(mic_name);
  const BoxList list = read_boxes(box_name, box_size);
  float* stack = cut_particles(data, head, list, invert);
  free(list.boxes);
  free(head);
  free(data);
  return stack;
}

void extract_particles_from_micrograph(const char* mic_name, const char* out_name, const char* box_name, int box_size,
                                       int invert) {
  const BoxList list = read_boxes(box_name, box_size);
  MRC_HEAD* head = get_mrcf_head(mic_name);
  float* data = get_mrcf_data_all(mic_name);
  write_particles(data, head, list, invert, out_name);
  free(data);
  free(head);
  free(list.boxes);
}

void extract_particles_from_image(const ImageFile& image, const char* mic_name, const char* out_name,
                                  const char* box_name, int box_size) {
  const BoxList list = read_boxes(box_name, box_size);
  const MRC_HEAD& head = image.head();
  for (int z = head.nz - 1; z >= 0; z--)  // the last first, which tells of the others
    if (image.missing_samples(z) > 0)
      KESTRIX_FATAL("%s ends before its section %d of %d; particles can't be cut out", mic_name, z + 1, head.nz);
  const size_t section = static_cast<size_t>(head.nx) * static_cast<size_t>(head.ny);
  auto* data = host_new<float>(section * static_cast<size_t>(head.nz));
  for (int z = 0; z < head.nz; z++) image.read_rows(z, 0, head.ny, data + static_cast<size_t>(z) * section);
  write_particles(data, &head, list, 0, out_name);
  free(data);
  free(list.boxes);
}

int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic_name, const char* box_name, int box_size, int invert) {
  extract_particles_from_micrograph(mic_name, mic_name, box_name, box_size, invert);
  return 0;
}

#include <cstdlib>
#include <cstring>

#include "cuda_general.h"
#include "mrcfile.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "platform/outputs.h"

namespace {

constexpr char unit[] = "mrcfile";

size_t section_floats(const MRC_HEAD* head) { return static_cast<size_t>(head->nx) * static_cast<size_t>(head->ny); }

size_t all_floats(const MRC_HEAD* head) { return section_floats(head) * static_cast<size_t>(head->nz); }

void refuse_other_than_float(const MRC_HEAD* head, const char* function) {
  if (head->mode != 2)
    fatal_error(function, unit, __LINE__,
                "mrc_write_head_alldata() does not support writing float data to other MRC format.");
}

void write_with_statistics(FILE* file, MRC_HEAD* head, const float* data) {
  mrc_set_head_mmm_from_data(head, data, all_floats(head));
  mrc_write_head(file, head);
  if (all_floats(head) == 0) return;
  fwrite(data, section_floats(head) * sizeof(float), static_cast<size_t>(head->nz), file);
}

MRC_HEAD* new_float_head(const char* name, int nx, int ny, int nz) {
  if (nx < 0 || ny < 0 || nz < 0) KESTRIX_FATAL("%s can't be written with the sizes %d x %d x %d", name, nx, ny, nz);
  MRC_HEAD* head = mrc_new_head();
  mrc_set_head_xyz_mode(head, nx, ny, nz, 2);
  return head;
}

// Under the name of the function that owns it: data of the memory that write takes them from.
int write_new_file(const char* function, int (*write)(FILE*, MRC_HEAD*, const float*), const char* name,
                   const float* data, int nx, int ny, int nz) {
  MRC_HEAD* head = new_float_head(name, nx, ny, nz);
  FILE* file = output_open(name, function, unit, __LINE__);
  write(file, head, data);
  free(head);
  output_close(file, function, unit, __LINE__);
  return 0;
}

}  // namespace

int mrc_write_head(FILE* file, const MRC_HEAD* head) {
  if (!head || memcmp(head->cmap, "MAP", 3) != 0) KESTRIX_WARNING("MRC format problem! Check file format!\n");
  if (!head) return 0;
  if (ftell(file) != 0) rewind(file);
  fwrite(head, sizeof *head, 1, file);
  return 0;
}

int mrc_write_head_data(FILE* file, MRC_HEAD* head, const float* data) {
  refuse_other_than_float(head, __func__);
  write_with_statistics(file, head, data);
  return 0;
}

int mrc_write_head_ddata(FILE* file, MRC_HEAD* head, const float* ddata) {
  refuse_other_than_float(head, __func__);
  const size_t bytes = all_floats(head) * sizeof(float);
  auto* data = host_new<float>(all_floats(head));
  if (bytes > 0) CHECK_DEVICE(cudaMemcpy(data, ddata, bytes, cudaMemcpyDeviceToHost));
  write_with_statistics(file, head, data);
  free(data);
  return 0;
}

int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz) {
  return write_new_file(__func__, mrc_write_head_data, name, data, nx, ny, nz);
}

int mrcf_write_xyz_ddata(const char* name, const float* ddata, int nx, int ny, int nz) {
  return write_new_file(__func__, mrc_write_head_ddata, name, ddata, nx, ny, nz);
}

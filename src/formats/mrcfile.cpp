#include "mrcfile.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "math_utils.h"
#include "platform/failure.h"
#include "platform/host_memory.h"

namespace {

constexpr char unit[] = "mrcfile";

struct SampleType {
  int mode;
  int bytes;  // 0: a file of this mode is not accepted
  bool readable;
  const char* name;
};

constexpr SampleType kSampleTypes[] = {{0, 1, true, "Byte"},
                                       {1, 2, true, "Short"},
                                       {2, 4, true, "Float"},
                                       {3, 4, false, "Complex Short"},
                                       {4, 8, false, "Complex Float"},
                                       {6, 2, true, "Unsigned Short"},
                                       {16, 0, false, "RGB"},
                                       {20, 8, false, "Complex Float (Real, Imag)"},
                                       {21, 8, false, "Complex Float (Amp, Rad)"},
                                       {22, 8, false, "Complex Float (Amp, Deg)"}};
constexpr SampleType kUnknownType = {-1, 0, false, "Unknown"};

const SampleType& sample_type(int mode) {
  for (const SampleType& type : kSampleTypes)
    if (type.mode == mode) return type;
  return kUnknownType;
}

// a*b, or the nearest long where a header's numbers make a product that no long holds.
long bounded_product(long a, long b) {
  long product = 0;
  if (__builtin_mul_overflow(a, b, &product)) return (a < 0) == (b < 0) ? LONG_MAX : LONG_MIN;
  return product;
}

long sample_count(const MRC_HEAD* head) { return bounded_product(static_cast<long>(head->nx) * head->ny, head->nz); }

long sample_position(long samples_before, int bytes) {
  const long data_bytes = bounded_product(samples_before, bytes);
  return data_bytes > LONG_MAX - kMrcHeadBytes ? LONG_MAX : kMrcHeadBytes + data_bytes;
}

// Reads up to `bytes` bytes from a position on, past the stream's own buffer; returns how many there were.
size_t read_bytes(FILE* file, long position, size_t bytes, void* dst) {
  size_t done = 0;
  while (done < bytes) {
    const ssize_t got = pread(fileno(file), static_cast<char*>(dst) + done, bytes - done, position);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
    position += got;
  }
  return done;
}

// Reads up to count samples of one type and widens them; returns how many there were.
template <class Sample>
size_t read_widened(FILE* file, long position, size_t count, float* dst) {
  constexpr size_t kChunk = 32768;
  Sample chunk[kChunk];
  size_t done = 0;
  while (done < count) {
    const size_t wanted = std::min(kChunk, count - done);
    const size_t got = read_bytes(file, position, wanted * sizeof(Sample), chunk) / sizeof(Sample);
    for (size_t i = 0; i < got; i++) dst[done + i] = static_cast<float>(chunk[i]);
    done += got;
    position += static_cast<long>(got * sizeof(Sample));
    if (got < wanted) break;
  }
  return done;
}

size_t read_samples(FILE* file, int mode, long position, size_t count, float* dst) {
  switch (mode) {
    case 0:
      return read_widened<uint8_t>(file, position, count, dst);
    case 1:
      return read_widened<int16_t>(file, position, count, dst);
    case 2:
      return read_bytes(file, position, count * sizeof(float), dst) / sizeof(float);
    case 6:
      return read_widened<uint16_t>(file, position, count, dst);
    default:
      return 0;
  }
}

// Reads count samples that lie samples_before samples behind the header; those that the file lacks become 0.
void read_run(FILE* file, int mode, long samples_before, long count, float* dst) {
  if (count <= 0) return;
  const long position = sample_position(samples_before, sample_type(mode).bytes);
  const size_t got = samples_before >= 0 ? read_samples(file, mode, position, static_cast<size_t>(count), dst) : 0;
  std::fill(dst + got, dst + count, 0.0f);
}

void read_section(FILE* file, const MRC_HEAD* head, long slice, float* dst) {
  const long section = static_cast<long>(head->nx) * head->ny;
  read_run(file, head->mode, bounded_product(section, slice), section, dst);
}

void read_y_plane(FILE* file, const MRC_HEAD* head, long slice, float* dst) {
  const long nx = head->nx;
  const long ny = head->ny;
  for (long k = 0; k < head->nz; k++) read_run(file, head->mode, bounded_product(nx, k * ny + slice), nx, dst + k * nx);
}

void read_x_plane(FILE* file, const MRC_HEAD* head, long slice, float* dst) {
  const long rows = bounded_product(head->ny, head->nz);
  for (long row = 0; row < rows; row++)
    read_run(file, head->mode, bounded_product(row, head->nx) + slice, 1, dst + row);
}

bool has_map_stamp(const MRC_HEAD* head) { return memcmp(head->cmap, "MAP", 3) == 0; }

// The check that stands before any read of a whole file, under the name of the function that owns it.
void refuse_wrong_size(FILE* file, const MRC_HEAD* head) {
  if (mrc_check_fsize(file, head) != 0) fatal_error("mrc_read_all", unit, __LINE__, "File size error!");
}

void print_sizes(const char* name, const MRC_HEAD* head) {
  printf("      %-8d%-8d%-8d%-18s  %s\n", head->nx, head->ny, head->nz, mrc_get_head_mode(head), name);
}

}  // namespace

MRC_HEAD* mrc_new_head() {
  auto* head = host_new<MRC_HEAD>(1);
  memset(head, 0, sizeof *head);
  mrc_init_head(head);
  return head;
}

int mrc_init_head(MRC_HEAD* head) {
  mrc_set_head_xyz_mode(head, 1, 1, 1, 2);
  head->nxstart = head->nystart = head->nzstart = 0;
  head->mx = head->my = head->mz = 1;
  head->xlen = head->ylen = head->zlen = 1.0f;
  head->alpha = head->beta = head->gamma = 90.0f;
  head->mapc = 1;
  head->mapr = 2;
  head->maps = 3;
  head->amin = 0.0f;
  head->amax = 255.0f;
  head->amean = 128.0f;
  head->ispg = 1;
  head->nsymbt = 0;
  head->next = 0;
  head->creatid = 1000;
  memset(head->reserved1, 0, sizeof head->reserved1);
  head->nversion = 20141;
  head->xorg = head->yorg = head->zorg = 0.0f;
  head->nlabl = 0;
  memset(head->labels, 0, sizeof head->labels);
  return mrc_set_head_stmp(head);
}

int mrc_set_head_stmp(MRC_HEAD* head) {
  memcpy(head->cmap, "MAP ", 4);
  memcpy(head->stamp, "DA\0\0", 4);
  return 0;
}

int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode) {
  head->nx = nx;
  head->ny = ny;
  head->nz = nz;
  head->mode = mode;
  return 0;
}

int mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long n) {
  head->amax = head->amin = head->amean = head->rms = 0.0f;
  if (n == 0) return 0;
  max_min_mean_value(data, n, head->amax, head->amin, head->amean);
  double sum = 0;
  for (unsigned long i = 0; i < n; i++) {
    const double deviation = static_cast<double>(data[i]) - static_cast<double>(head->amean);
    sum += deviation * deviation;
  }
  head->rms = static_cast<float>(std::sqrt(sum / static_cast<double>(n)));
  return 0;
}

const char* mrc_get_head_mode(const MRC_HEAD* head) { return sample_type(head->mode).name; }

bool mrc_mode_readable(int mode) { return sample_type(mode).readable; }

bool mrc_section_size_valid(const MRC_HEAD* head) {
  constexpr int kMaxSide = 65535;
  constexpr long kMaxSection = 1L << 29;
  const bool sides_valid = head->nx >= 1 && head->nx <= kMaxSide && head->ny >= 1 && head->ny <= kMaxSide;
  return sides_valid && static_cast<long>(head->nx) * head->ny <= kMaxSection;
}

bool mrc_head_sizes_valid(const MRC_HEAD* head) { return mrc_section_size_valid(head) && head->nz >= 1; }

void note_extended_header(const char* name, const MRC_HEAD* head) {
  if (head->next > 0)
    safety_note(name,
                "has an extended header of %d bytes, which is read as image data; give --any_format 1 to skip it.",
                head->next);
}

bool mrc_head_is_like(const MRC_HEAD* one, const MRC_HEAD* other) {
  return one->nx == other->nx && one->ny == other->ny && one->nz == other->nz && one->mode == other->mode;
}

int check_mrc_head_sizes_two(const char* name1, const char* name2, const MRC_HEAD* head1, const MRC_HEAD* head2) {
  if (mrc_head_is_like(head1, head2)) return 0;
  printf(
      "Micrograph \x1b[1m%s\x1b[m has a different size or format from  \x1b[1m%s\x1b[m.\n"
      "Check if all the micrographs are the same sizes and format? \n ",
      name1, name2);
  printf("      Nx      Ny      Nz      Mode             File:\n");
  print_sizes(name1, head1);
  print_sizes(name2, head2);
  end_run(EXIT_FAILURE);
}

long get_file_size(FILE* file) {
  fseek(file, 0, SEEK_END);
  return ftell(file);
}

int mrc_read_head(FILE* file, MRC_HEAD* head) {
  if (ftell(file) != 0) rewind(file);
  memset(head, 0, sizeof *head);
  if (fread(head, 1, sizeof *head, file) < sizeof *head) clearerr(file);  // the rest stays 0
  if (!has_map_stamp(head)) mrc_set_head_stmp(head);
  return 0;
}

int mrc_read_slice(FILE* file, const MRC_HEAD* head, int slice, char axis, float* dst) {
  if (!mrc_mode_readable(head->mode)) return 0;
  if (axis == 'z' || axis == 'Z') {
    read_section(file, head, slice, dst);
  } else if (axis == 'y' || axis == 'Y') {
    read_y_plane(file, head, slice, dst);
  } else if (axis == 'x' || axis == 'X') {
    read_x_plane(file, head, slice, dst);
  }
  return 0;
}

void mrc_read_rows(FILE* file, const MRC_HEAD* head, int slice, int first, int count, float* dst) {
  const long nx = head->nx;
  read_run(file, head->mode, bounded_product(nx * head->ny, slice) + first * nx, count * nx, dst);
}

unsigned long mrc_missing_samples(FILE* file, const MRC_HEAD* head, int slice) {
  const long section = static_cast<long>(head->nx) * head->ny;
  if (!mrc_mode_readable(head->mode) || section <= 0) return 0;
  if (slice < 0) return static_cast<unsigned long>(section);
  const int bytes = sample_type(head->mode).bytes;
  const long first = sample_position(bounded_product(section, slice), bytes);
  const long was_at = ftell(file);
  const long behind_first = get_file_size(file) - first;
  fseek(file, was_at, SEEK_SET);
  if (behind_first < bytes) return static_cast<unsigned long>(section);
  return static_cast<unsigned long>(section - std::min(section, behind_first / bytes));
}

bool mrc_size_is_exact(FILE* file, const MRC_HEAD* head) {
  const long expected = bounded_product(sample_count(head), sample_type(head->mode).bytes);
  const bool sizes_possible = head->nx >= 0 && head->ny >= 0 && head->nz >= 0;
  return sizes_possible && get_file_size(file) - kMrcHeadBytes == expected;
}

int mrc_check_fsize(FILE* file, const MRC_HEAD* head) {
  const int bytes = sample_type(head->mode).bytes;
  if (bytes == 0) {
    KESTRIX_WARNING("File type unknown!");
    return -1;
  }
  if (mrc_size_is_exact(file, head)) return 0;
  printf("File size %ld  %d xyz %ld", get_file_size(file), bytes, bounded_product(sample_count(head), bytes));
  KESTRIX_WARNING("File size error!");
  return -1;
}

int mrc_read_all(FILE* file, const MRC_HEAD* head, float* dst) {
  refuse_wrong_size(file, head);
  if (head->mode == 2) {
    const size_t section_bytes = static_cast<size_t>(head->nx) * static_cast<size_t>(head->ny) * sizeof(float);
    const size_t bytes = section_bytes * static_cast<size_t>(head->nz);
    if (section_bytes == 0 || read_bytes(file, kMrcHeadBytes, bytes, dst) < section_bytes) {
      KESTRIX_WARNING("Reading file failed!\n");
      return -1;
    }
  } else if (mrc_mode_readable(head->mode)) {
    read_samples(file, head->mode, kMrcHeadBytes, static_cast<size_t>(sample_count(head)), dst);
  } else {
    KESTRIX_WARNING("File type unknown!");
  }
  return 0;
}

MRC_HEAD* get_mrcf_head(const char* name) {
  FILE* file = KESTRIX_OPEN_READ(name);
  MRC_HEAD* head = mrc_new_head();
  mrc_read_head(file, head);
  fclose(file);
  return head;
}

float* get_mrcf_data_all(const char* name) {
  FILE* file = KESTRIX_OPEN_READ(name);
  MRC_HEAD* head = mrc_new_head();
  mrc_read_head(file, head);
  refuse_wrong_size(file, head);
  const auto count = static_cast<size_t>(sample_count(head));
  auto* data = host_new<float>(count);
  std::fill_n(data, count, 0.0f);  // for a mode that can't be read, or a read that fails
  mrc_read_all(file, head, data);
  free(head);
  fclose(file);
  return data;
}

long get_mrcf_dim_size(const char* name, const char* keyword) {
  MRC_HEAD* head = get_mrcf_head(name);
  const long nx = head->nx;
  const long ny = head->ny;
  const long nz = head->nz;
  const long all = sample_count(head);
  free(head);
  struct Dimension {
    const char* keyword;
    long size;
  };
  const Dimension dimensions[] = {{"x", nx},       {"y", ny},       {"z", nz},       {"xy", nx * ny}, {"yx", nx * ny},
                                  {"xz", nx * nz}, {"zx", nx * nz}, {"yz", ny * nz}, {"zy", ny * nz}, {"xyz", all}};
  for (const Dimension& dimension : dimensions)
    if (strcasecmp(keyword, dimension.keyword) == 0) return dimension.size;
  printf("Error in function %s(), file %s on line %d: unrecognized dimension keywords %s !\n", __func__, unit, __LINE__,
         keyword);
  printf("valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n");
  return 0;
}

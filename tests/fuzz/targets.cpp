#include "fuzz/targets.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "boxfile.h"
#include "conditioning/conditioning.h"
#include "cuda_general.h"
#include "formats/image_file.h"
#include "mrcfile.h"
#include "process2d_mrc.h"
#include "quorlin56.h"
#include "run/parameters.h"
#include "run/reports.h"
#include "run/run_state.h"
#include "templates/templates.h"

namespace {

constexpr size_t kNameBytes = 512;

// Writes a text beside the input, under the input's name with a suffix in place of its last dot and what follows.
// Returns the name.
const char* write_beside(const char* path, const char* suffix, const char* text) {
  static char name[kNameBytes];
  snprintf(name, kNameBytes, "%.*s%s", static_cast<int>(strrchr(path, '.') - path), path, suffix);
  FILE* file = fopen(name, "w");
  fputs(text, file);
  fclose(file);
  return name;
}

// --- MRC files ---

// Planes are read if they are small: the sizes are only as true as the header.
void read_mrc_parts(const char* path) {
  constexpr long kMostSamples = 4096;
  static float plane[kMostSamples];
  FILE* file = fopen(path, "r");
  MRC_HEAD head;
  mrc_read_head(file, &head);
  mrc_get_head_mode(&head);
  note_extended_header(path, &head);
  mrc_check_fsize(file, &head);
  const long nx = head.nx, ny = head.ny, nz = head.nz;
  const struct {
    char axis;
    long width, height;
  } planes[] = {{'z', nx, ny}, {'Y', nx, nz}, {'x', ny, nz}, {'q', nx, ny}};
  for (const int slice : {0, 1, 2, -1, INT_MAX, head.nz}) {
    mrc_missing_samples(file, &head, slice);
    for (const auto& p : planes)
      if (p.width <= kMostSamples && p.height <= kMostSamples && p.width * p.height <= kMostSamples)
        mrc_read_slice(file, &head, slice, p.axis, plane);
  }
  fclose(file);
  for (const char* keyword : {"x", "xy", "zx", "yz", "xyz", "w"}) get_mrcf_dim_size(path, keyword);
}

void read_mrc_whole(const char* path) { free(get_mrcf_data_all(path)); }

void read_mrc_as_templates(const char* path) {
  int nx = 0, ny = 0, nz = 0;
  free(get_template_data(nx, ny, nz, path));
}

// Only of a micrograph whose section has a size that the program takes.
void cut_from_mrc(const char* path) {
  FILE* file = fopen(path, "r");
  MRC_HEAD head;
  mrc_read_head(file, &head);
  fclose(file);
  if (mrc_section_size_valid(&head))
    mrcf_x2d_extract_ptcls_from_micrograph(path, write_beside(path, "_cut.box", "0 0 4 4\n-3 2 4 4\n100000 1 4 4\n"), 0,
                                           0);
}

// --- Images of any format ---

// Rows are read as far as what the file holds makes worth while, whatever its header promises.
void read_any_image(const char* path) {
  constexpr int kMostSamples = 1 << 16;
  static float rows[kMostSamples];
  for (const int signed_bytes : {-1, 0, 1}) {
    std::string problem;
    const std::unique_ptr<ImageFile> image = open_image(path, {1, signed_bytes}, &problem);
    if (!image) {
      if (problem.empty()) abort();
      continue;
    }
    const MRC_HEAD& head = image->head();
    problem_of_section(*image);
    image->size_is_exact();
    if (!image->unreadable().empty() || head.nx > kMostSamples) continue;
    for (const int section : {0, head.nz - 1, head.nz / 2}) {
      image->missing_samples(section);
      const int count = std::min(head.ny, kMostSamples / head.nx);
      for (const int first : {0, head.ny - count}) image->read_rows(section, first, count, rows);
    }
  }
}

// --- Lists of coordinates ---

constexpr int kCapacity = 200;
PTCL_BOX list_boxes[kCapacity];

void read_list(const char* path) {
  const int n = read_all_ptcl_boxes(list_boxes, kCapacity, path);
  for (const int size : {64, 1, 0, INT_MAX}) resize_ptcl_boxes(list_boxes, n, size);
  read_all_ptcl_boxes(list_boxes, 0, path);
}

// Marks 10 x 10 cells of 8 pixels.
void exclude_list(const char* path) {
  auto* d_grid = device_new<unsigned>(100);
  for (const int shrink : {1, 4}) add_excluded_boxf_to_ice(d_grid, 80, 78, 8, path, shrink, list_boxes);
  cudaFree(d_grid);
}

void filter_with(const char* candidates, const char* excluded, const char* path) {
  char out[kNameBytes];
  snprintf(out, sizeof out, "%s_out.box", path);
  for (const int kind : {2, 1})
    box_filter(250, 230, 30.0f, 0.1f, 4.0f, 64, 64, int2{0, 0}, candidates, excluded, out, kind);
  remove(out);
}

void select_from_list(const char* path) { filter_with(path, "NULL", path); }

void exclude_from_selection(const char* path) {
  filter_with(
      write_beside(path, "_candidates.box", "30 30 16 16 0.5 0 0\n80 80 16 16 0.4 0 0\n180 130 16 16 0.6 0 0\n"), path,
      path);
}

// --- The command line: one word a line ---

constexpr int kWords = 200;
constexpr size_t kTextMost = 16384;

// Cuts the text, which stays the words' owner. Returns their number, the program's name included.
int split_words(char* text, size_t length, char** words) {
  static char program[] = "kestrix";
  int n = 0;
  words[n++] = program;
  char* end = text + length;
  for (char* word = text; word < end && n < kWords; n++) {
    words[n] = word;
    word = static_cast<char*>(memchr(word, '\n', static_cast<size_t>(end - word)));
    if (!word) word = end;
    *word++ = '\0';
  }
  words[n] = nullptr;
  return n;
}

// What follows from the values before the first pixel is read, for a small micrograph.
void size_run(Run* run) {
  run->para.first_file = run->para.files[0];
  mrc_init_head(&run->first_head);
  run->first_head.nx = 96;
  run->first_head.ny = 71;
  set_run_sizes(run);
  count_scan_angles(run->para.psi_start, run->para.psi_end, run->para.ang_step);
  if (!run->para.auto_template) return;
  acquire_templates(run);
  const RunSizes& s = run->sizes;
  normalise_template(run->host.T_stack, s.T_nx, s.T_ny, run->para.T_norm_type, run->para.radius_px,
                     run->para.center1_ratio);
  check_template_usable(run->host.T_stack, template_pixels(run), 0, run->para.T_norm_type);
  free(run->host.T_stack);
}

void parse_words(const char* path) {
  static char text[kTextMost];
  FILE* file = fopen(path, "r");
  const size_t length = fread(text, 1, sizeof text - 1, file);
  fclose(file);
  char* words[kWords + 1];
  const int n = split_words(text, length, words);
  Run run{};
  kestrix_init_parameters(n, &run.para);
  kestrix_get_parameters(n, words, &run.para);
  kestrix_fput_parameters(n, words, &run.para, stdout);
  kestrix_check_parameters(&run.para);
  size_run(&run);
  kestrix_free_parameters(&run.para);
}

}  // namespace

const FuzzTarget kAllFuzzTargets[kFuzzTargets] = {
    {"mrc", "input.mrc", {read_mrc_parts, read_mrc_whole, read_mrc_as_templates, cut_from_mrc}},
    {"image", "input.any", {read_any_image}},
    {"tiff", "input.tif", {read_any_image}},
    {"box", "input.box", {read_list, exclude_list, select_from_list, exclude_from_selection}},
    {"star", "input.star", {read_list, exclude_list, exclude_from_selection}},
    {"command_line", "input.txt", {parse_words}}};

const FuzzTarget* find_fuzz_target(const char* name) {
  for (const FuzzTarget& target : kAllFuzzTargets)
    if (strcmp(name, target.name) == 0) return &target;
  return nullptr;
}

void write_fuzz_input(const char* path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path, "w");
  if (!file || (size > 0 && fwrite(data, 1, size, file) != size) || fclose(file) != 0) abort();
}

#include "boxfile.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "compute/text_numbers.h"
#include "platform/failure.h"
#include "starfile.h"
#include "str_utils.h"
#include "txt_file.h"

namespace {

constexpr char unit[] = "boxfile";

constexpr int kMaxCleared = 10000000;
constexpr int kBoxColumns = 7;

bool ends_with(const char* name, const char* suffix) {
  const size_t length = strlen(name);
  const size_t suffix_length = strlen(suffix);
  return length >= suffix_length && strcmp(name + length - suffix_length, suffix) == 0;
}

int resized_edge(int edge, int old_size, int size) {
  const long shift = (static_cast<long>(old_size) - size) / 2;
  return saturating_int(static_cast<double>(edge + shift));
}

PTCL_BOX box_from_tokens(char** tokens, int count) {
  PTCL_BOX box{};
  box.x = text_to_int(tokens[0]);
  box.y = text_to_int(tokens[1]);
  box.w = text_to_int(tokens[2]);
  box.h = text_to_int(tokens[3]);
  if (count > 4) box.score = static_cast<float>(text_to_real(tokens[4]));
  if (count > 5) box.class_number = text_to_int(tokens[5]);
  if (count > 6) box.psi = static_cast<float>(text_to_real(tokens[6]));
  return box;
}

int read_box_lines(PTCL_BOX* boxes, int capacity, FILE* file, const char* name) {
  char line[kTextBytes];
  int n = 0;
  for (long number = 1; n < capacity && read_next_line(line, file); number++) {
    char* tokens[kBoxColumns];
    const int count = strnsplit_inplace_byspace(line, tokens, kBoxColumns);
    if (count == 0) continue;
    if (count < 4) {
      safety_note(name, "line %ld has %d columns; a box needs at least x, y, width and height", number, count);
      fatal_error("read_all_ptcl_boxes", unit, __LINE__, "unrecognized box format!");
    }
    boxes[n++] = box_from_tokens(tokens, count);
  }
  return n;
}

// The text of a column that a head counts from 1, or null if the line has no such column.
const char* column_text(char** tokens, int columns, int number) {
  return number >= 1 && number <= columns ? tokens[number - 1] : nullptr;
}

PTCL_BOX box_from_columns(char** tokens, int columns, const ParticleInfoIndex* index) {
  const char* score = column_text(tokens, columns, index->AutopickFigureOfMerit);
  const char* class_number = column_text(tokens, columns, index->ClassNumber);
  const char* psi = column_text(tokens, columns, index->AnglePsi);
  PTCL_BOX box{};
  box.x = text_to_int(column_text(tokens, columns, index->CoordinateX));
  box.y = text_to_int(column_text(tokens, columns, index->CoordinateY));
  if (score) box.score = static_cast<float>(text_to_real(score));
  if (class_number) box.class_number = text_to_int(class_number);
  if (psi) box.psi = static_cast<float>(text_to_int(psi));
  return box;
}

bool has_coordinates(const ParticleInfoIndex* index, int columns) {
  return std::min(index->CoordinateX, index->CoordinateY) >= 1 &&
         std::max(index->CoordinateX, index->CoordinateY) <= columns;
}

int read_star_data(PTCL_BOX* boxes, int capacity, FILE* file, int columns, const ParticleInfoIndex* index) {
  char* tokens[kStarHeadLines];
  char line[kTextBytes];
  int n = 0;
  star_set_pointer(file, 0);
  while (n < capacity && read_next_line(line, file)) {
    if (is_str_null(line) || strnsplit_inplace_byspace(line, tokens, columns) != columns) continue;
    boxes[n++] = box_from_columns(tokens, columns, index);
  }
  return n;
}

int read_star_file(PTCL_BOX* boxes, int capacity, FILE* file, const char* name) {
  StarHead* head = star_head_new();
  star_read_head(file, head);
  ParticleInfoIndex* index = particle_info_index_new();
  set_info_index_from_star_head(head, index);
  int n = 0;
  if (has_coordinates(index, head->n)) {
    n = read_star_data(boxes, capacity, file, head->n, index);
  } else {
    safety_note(name,
                "no coordinates read: the columns _rlnCoordinateX and _rlnCoordinateY are not among the %d of its "
                "head, which ends at the first comment or unknown keyword",
                head->n);
  }
  free(head);
  free(index);
  return n;
}

}  // namespace

int empty_all_ptcl_boxes(PTCL_BOX* boxes, int n) {
  if (n > kMaxCleared) KESTRIX_WARNING("Too many particle numbers!");
  std::fill_n(boxes, std::clamp(n, 0, kMaxCleared), PTCL_BOX{});
  return 0;
}

int resize_ptcl_boxes(PTCL_BOX* boxes, int n, int size) {
  for (int i = 0; i < n; i++) {
    boxes[i].x = resized_edge(boxes[i].x, boxes[i].w, size);
    boxes[i].y = resized_edge(boxes[i].y, boxes[i].h, size);
    boxes[i].w = boxes[i].h = size;
  }
  return 0;
}

int get_boxf_suffixf(const char* name) {
  if (ends_with(name, ".star")) return 1;
  return ends_with(name, ".box") ? 2 : 0;
}

bool check_box_file(const char* name) {
  return !is_str_null(name) && check_file_access(name, "FR") == 0 && check_file_regular(name);
}

int read_all_ptcl_boxes(PTCL_BOX* boxes, int capacity, const char* name) {
  FILE* file = KESTRIX_OPEN_READ(name);
  empty_all_ptcl_boxes(boxes, capacity);
  const int kind = get_boxf_suffixf(name);
  int n = 0;
  if (kind == 2) {
    n = read_box_lines(boxes, capacity, file, name);
  } else if (kind == 1) {
    n = read_star_file(boxes, capacity, file, name);
  } else {
    KESTRIX_WARNING("unrecognized box file format, only EMAN .box and Relion .star file are supported now.");
  }
  fclose(file);
  return n;
}

#include "formats/image_diagnosis.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "formats/file_kinds.h"
#include "platform/failure.h"

namespace {

// Whether the sizes and the mode make sense when their bytes are read in the other order, and don't in this one.
bool is_other_endian(const MRC_HEAD* head) {
  MRC_HEAD turned = *head;
  for (int32_t* field : {&turned.nx, &turned.ny, &turned.nz, &turned.mode})
    *field = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(*field)));
  return !mrc_head_sizes_valid(head) && mrc_head_sizes_valid(&turned) && turned.mode >= 0 && turned.mode <= 101;
}

std::string by_head(FILE* file, const MRC_HEAD* head) {
  if (is_other_endian(head)) return "is big-endian; give --any_format 1 to read it";
  if (head->mode == 12) return "has 16-bit floats (mode 12); give --any_format 1 to read them";
  if (head->mode == 101) return "has 4-bit samples (mode 101); give --any_format 1 to read them";
  if (!mrc_section_size_valid(head) || !mrc_mode_readable(head->mode)) return "";
  const unsigned long missing = mrc_missing_samples(file, head, 0);
  return missing == 0 ? "" : missing_rows_text(*head, missing);
}

std::string what_is_odd(FILE* file, const MRC_HEAD* head) {
  unsigned char bytes[512];
  const ssize_t got = pread(fileno(file), bytes, sizeof bytes, 0);
  if (got < 0) return "";
  const std::string odd = problem_of_kind(bytes, static_cast<size_t>(got), false);
  return odd.empty() ? by_head(file, head) : odd;
}

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

std::string kind_of_no_file(const char* name) {
  struct stat status {};
  if (stat(name, &status) != 0)
    return errno == ENOENT ? "isn't there" : std::string("can't be read: ") + strerror(errno);
  return S_ISREG(status.st_mode) ? "" : "is no regular file";
}

ImageFacts look_at_plain_mrc(const char* name) {
  ImageFacts facts;
  facts.problem = kind_of_no_file(name);
  if (!facts.problem.empty()) return facts;
  const std::unique_ptr<FILE, FileCloser> file(fopen(name, "r"));
  if (!file) {
    facts.problem = std::string("can't be read: ") + strerror(errno);
    return facts;
  }
  MRC_HEAD& head = facts.head;
  const bool whole = fread(&head, sizeof head, 1, file.get()) == 1;
  facts.problem = what_is_odd(file.get(), &head);
  if (!facts.problem.empty()) return facts;
  if (!whole) {
    facts.problem = "ends within its header; was it copied or written whole?";
  } else if (!mrc_head_sizes_valid(&head)) {
    facts.problem = "isn't an MRC file: its header says " + std::to_string(head.nx) + " x " + std::to_string(head.ny) +
                    " x " + std::to_string(head.nz) + " samples";
  } else if (!mrc_mode_readable(head.mode)) {
    facts.problem = "has samples of MRC mode " + std::to_string(head.mode) + ", which can't be read";
  }
  facts.exact = facts.problem.empty() && mrc_size_is_exact(file.get(), &head);
  if (facts.problem.empty()) facts.apix = pixel_size_of(head);
  return facts;
}

}  // namespace

ImageFacts look_at_image(const char* name, const ImageOptions& options, bool whole,
                         std::unique_ptr<ImageFile>* opened) {
  if (!options.any_format) return look_at_plain_mrc(name);
  ImageFacts facts;
  std::unique_ptr<ImageFile> image = open_image(name, options, &facts.problem);
  if (!image) return facts;
  facts.head = image->head();
  facts.apix = pixel_size_of(facts.head);
  facts.problem = image->unreadable();
  if (facts.problem.empty() && (whole || !image->is_compressed())) {
    facts.problem = problem_of_section(*image);
    facts.exact = facts.problem.empty() && image->size_is_exact();
  }
  if (opened) *opened = std::move(image);
  return facts;
}

void note_odd_image(const char* name) {
  const std::unique_ptr<FILE, FileCloser> file(fopen(name, "r"));
  if (!file) return;
  MRC_HEAD head;
  mrc_read_head(file.get(), &head);
  const std::string odd = what_is_odd(file.get(), &head);
  if (!odd.empty()) safety_note(name, "%s%s", odd.c_str(), odd.back() == '?' ? "" : ".");
}

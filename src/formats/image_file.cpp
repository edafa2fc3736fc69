#include "formats/image_file.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "formats/decoders.h"
#include "formats/file_kinds.h"
#include "formats/image_kinds.h"

namespace {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

class PlainMrc : public ImageFile {
 public:
  explicit PlainMrc(FILE* file) : file_(file) {
    mrc_read_head(file, &head_);
    if (!mrc_mode_readable(head_.mode))
      unreadable_ =
          "samples of MRC mode " + std::to_string(head_.mode) + " (" + mrc_get_head_mode(&head_) + ") can't be read";
  }

  unsigned long missing_samples(int section) const override {
    return mrc_missing_samples(file_.get(), &head_, section);
  }
  void read_rows(int section, int first, int count, float* rows) const override {
    mrc_read_rows(file_.get(), &head_, section, first, count, rows);
  }
  bool size_is_exact() const override { return mrc_size_is_exact(file_.get(), &head_); }

 private:
  std::unique_ptr<FILE, FileCloser> file_;
};

bool ends_in(const std::string& text, const char* end) {
  const size_t length = strlen(end);
  return text.size() > length && strcasecmp(text.c_str() + text.size() - length, end) == 0;
}

}  // namespace

std::unique_ptr<ImageFile> open_plain_mrc(FILE* file) { return std::make_unique<PlainMrc>(file); }

std::unique_ptr<ImageFile> open_image(const char* name, const ImageOptions& options, std::string* problem) {
  std::unique_ptr<ByteSource> bytes = open_file_bytes(name, problem);
  return bytes ? open_image_bytes(std::move(bytes), options, problem) : nullptr;
}

std::unique_ptr<ImageFile> open_image_bytes(std::unique_ptr<ByteSource> bytes, const ImageOptions& options,
                                            std::string* problem) {
  bytes = decompressed(std::move(bytes), problem);
  if (!bytes) return nullptr;
  unsigned char first[512];
  const size_t n = bytes->read(0, sizeof first, first);
  *problem = n == 0 && bytes->is_compressed() ? bytes->damage() : "";
  if (problem->empty()) *problem = problem_of_kind(first, n, true);
  if (!problem->empty()) return nullptr;
  if (!is_tiff(first, n)) return open_mrc_image(std::move(bytes), options, problem);
  if (!bytes->is_compressed()) return open_tiff_image(std::move(bytes), problem);
  *problem = "is a TIFF file that is compressed as a whole; decompress it first";
  return nullptr;
}

std::string missing_rows_text(const MRC_HEAD& head, unsigned long missing) {
  const auto nx = static_cast<unsigned long>(head.nx);
  const long rows = head.ny - static_cast<long>((missing + nx - 1) / nx);
  return "ends after " + std::to_string(rows) + " of " + std::to_string(head.ny) +
         " rows; was it copied or written whole?";
}

std::string problem_of_section(const ImageFile& image) {
  if (!image.unreadable().empty()) return image.unreadable();
  const unsigned long missing = image.missing_samples(0);
  std::string damage = image.damage();
  if (!damage.empty()) return damage;
  return missing > 0 ? missing_rows_text(image.head(), missing) : "";
}

float pixel_size_of(const MRC_HEAD& head) {
  const float size = head.xlen / static_cast<float>(head.mx);
  return head.mx > 0 && std::isfinite(size) && size > 0 ? size : 0;
}

std::string image_libraries() {
  std::string all;
  for (const std::string& library : {gzip_library(), bzip2_library(), xz_library(), tiff_library()})
    if (!library.empty()) all += (all.empty() ? "" : ", ") + library;
  return all.empty() ? "none" : all;
}

std::string plain_image_name(const std::string& name) {
  for (const char* compressed : {".gz", ".bz2", ".xz"})
    if (ends_in(name, compressed)) return plain_image_name(name.substr(0, name.size() - strlen(compressed)));
  for (const char* tiff : {".tif", ".tiff"})
    if (ends_in(name, tiff)) return name.substr(0, name.size() - strlen(tiff)) + ".mrc";
  return name;
}

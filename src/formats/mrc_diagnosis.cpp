#include "formats/mrc_diagnosis.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/failure.h"

namespace {

struct Signature {
  const char* bytes;
  size_t length;
  const char* what;
  const char* remedy;
};

constexpr char kDecompress[] = "decompress it first";
constexpr char kConvert[] = "convert it to a plain MRC file first";

constexpr Signature kSignatures[] = {{"\x1f\x8b", 2, "is gzip'd", kDecompress},
                                     {"BZh", 3, "is compressed by bzip2", kDecompress},
                                     {"\xfd"
                                      "7zXZ",
                                      5, "is compressed by xz", kDecompress},
                                     {"\x28\xb5\x2f\xfd", 4, "is compressed by zstd", kDecompress},
                                     {"II*\0", 4, "is a TIFF file", kConvert},
                                     {"MM\0*", 4, "is a TIFF file", kConvert},
                                     {"II+\0", 4, "is a BigTIFF file", kConvert},
                                     {"\x89HDF", 4, "is an HDF5 file", kConvert}};

bool is_text(const unsigned char* bytes, size_t n) {
  return std::all_of(bytes, bytes + n,
                     [](unsigned char c) { return c >= 32 ? c != 127 : c == 9 || c == 10 || c == 13; });
}

// Whether the sizes and the mode make sense when their bytes are read in the other order, and don't in this one.
bool is_other_endian(const MRC_HEAD* head) {
  MRC_HEAD turned = *head;
  for (int32_t* field : {&turned.nx, &turned.ny, &turned.nz, &turned.mode})
    *field = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(*field)));
  return !mrc_head_sizes_valid(head) && mrc_head_sizes_valid(&turned) && turned.mode >= 0 && turned.mode <= 101;
}

bool note_by_first_bytes(const char* name, const unsigned char* bytes, size_t n) {
  for (const Signature& s : kSignatures)
    if (n >= s.length && memcmp(bytes, s.bytes, s.length) == 0) {
      safety_note(name, "%s; %s.", s.what, s.remedy);
      return true;
    }
  if (n == 0) safety_note(name, "is empty; is it still being written, or was the disk full?");
  const bool text = n > 0 && is_text(bytes, n);
  if (text) safety_note(name, "is a text file; give micrographs as MRC files.");
  return n == 0 || text;
}

void note_by_head(const char* name, FILE* file, const MRC_HEAD* head) {
  if (is_other_endian(head)) {
    safety_note(name, "is big-endian; convert it to a little-endian MRC file first.");
  } else if (head->mode == 12) {
    safety_note(name, "has 16-bit floats (mode 12), which can't be read; convert it to mode 2 first.");
  } else if (head->mode == 101) {
    safety_note(name, "has 4-bit samples (mode 101), which can't be read; convert it to mode 2 first.");
  } else if (mrc_section_size_valid(head) && mrc_mode_readable(head->mode)) {
    const unsigned long missing = mrc_missing_samples(file, head, 0);
    const long rows = head->ny - static_cast<long>((missing + static_cast<unsigned long>(head->nx) - 1) /
                                                   static_cast<unsigned long>(head->nx));
    if (missing > 0) safety_note(name, "ends after %ld of %d rows; was it copied or written whole?", rows, head->ny);
  }
}

}  // namespace

void note_odd_image(const char* name, FILE* file, const MRC_HEAD* head) {
  unsigned char bytes[512];
  const ssize_t got = pread(fileno(file), bytes, sizeof bytes, 0);
  if (got >= 0 && !note_by_first_bytes(name, bytes, static_cast<size_t>(got))) note_by_head(name, file, head);
}

#include "formats/file_kinds.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char kAnyFormat[] = "give --any_format 1 to read it";
constexpr char kPicture[] = "it no longer holds what was measured, so give MRC or TIFF files";

struct Kind {
  const char* bytes;
  size_t length;
  const char* what;
  const char* remedy;
};

constexpr Kind kKinds[] = {{"\x1f\x8b", 2, "is gzip'd", kAnyFormat},
                           {"BZh", 3, "is compressed by bzip2", kAnyFormat},
                           {"\xfd"
                            "7zXZ",
                            5, "is compressed by xz", kAnyFormat},
                           {"II*\0", 4, "is a TIFF file", kAnyFormat},
                           {"MM\0*", 4, "is a TIFF file", kAnyFormat},
                           {"II+\0", 4, "is a BigTIFF file", kAnyFormat},
                           {"MM\0+", 4, "is a BigTIFF file", kAnyFormat},
                           {"\x28\xb5\x2f\xfd", 4, "is compressed by zstd", "decompress it first"},
                           {"\x89HDF", 4, "is an HDF5 file", "convert it to MRC or TIFF first"},
                           {"PK\3\4", 4, "is a zip archive", "unpack it first"},
                           {"\x89PNG", 4, "is a picture in PNG format", kPicture},
                           {"\xff\xd8\xff", 3, "is a picture in JPEG format", kPicture}};

bool is_text(const unsigned char* bytes, size_t n) {
  return std::all_of(bytes, bytes + n,
                     [](unsigned char c) { return c >= 32 ? c != 127 : c == 9 || c == 10 || c == 13; });
}

}  // namespace

std::string problem_of_kind(const unsigned char* bytes, size_t n, bool any_format) {
  if (n == 0) return "is empty; is it still being written, or was the disk full?";
  for (const Kind& kind : kKinds) {
    if (n < kind.length || memcmp(bytes, kind.bytes, kind.length) != 0) continue;
    return any_format && kind.remedy == kAnyFormat ? "" : std::string(kind.what) + "; " + kind.remedy;
  }
  return is_text(bytes, n) ? "is a text file; give micrographs as MRC or TIFF files" : "";
}

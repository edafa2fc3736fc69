// kestrix_lists strip: an MRC file without its extended header.
#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <vector>

#include "common/options.h"
#include "common/output_file.h"
#include "lists/commands.h"
#include "mrcfile.h"

namespace {

constexpr char kPurpose[] =
    "Copies an MRC file without its extended header. A file whose length isn't that of its header, its extended "
    "header\n"
    "and its samples is refused.";

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

// Bytes of the sections; 0 for a mode of unknown size.
long sample_bytes(const MRC_HEAD& head) {
  const long samples = static_cast<long>(head.nx) * head.ny * head.nz;
  switch (head.mode) {
    case 0:
      return samples;
    case 1:
    case 6:
    case 12:
      return samples * 2;
    case 2:
    case 3:
      return samples * 4;
    case 4:
      return samples * 8;
    case 101:
      return (static_cast<long>(head.nx) + 1) / 2 * head.ny * head.nz;
    default:
      return 0;
  }
}

// Refuses a header that isn't one, and a file of another length than it says.
void check_sizes(const char* name, const MRC_HEAD& head, long file_bytes) {
  if (!mrc_head_sizes_valid(&head) || head.next < 0 || sample_bytes(head) == 0)
    refuse("%s has a header of %d x %d x %d samples of mode %d behind %d bytes: is it an MRC file?", name, head.nx,
           head.ny, head.nz, head.mode, head.next);
  const long expected = kMrcHeadBytes + head.next + sample_bytes(head);
  if (file_bytes != expected)
    refuse("%s has %ld bytes, but its header, an extended header of %d and its samples make %ld; it is left alone",
           name, file_bytes, head.next, expected);
}

void copy_samples(FILE* from, const char* name, long bytes, FILE* to) {
  std::vector<char> chunk(1 << 22);
  while (bytes > 0) {
    const size_t wanted = std::min(chunk.size(), static_cast<size_t>(bytes));
    if (fread(chunk.data(), 1, wanted, from) != wanted) refuse("reading %s failed: %m", name);
    fwrite(chunk.data(), 1, wanted, to);
    bytes -= static_cast<long>(wanted);
  }
}

}  // namespace

int run_strip(int argc, char** argv) {
  const char* names[2];
  const int found = parse_options(argc, argv, nullptr, 0, names, 2);
  if (found < 0) {
    print_help("strip IN.mrc OUT.mrc", kPurpose, nullptr, 0);
    return 0;
  }
  if (found != 2) refuse("needs an MRC file and a name for the copy; --help tells the usage");
  std::error_code none;
  if (std::filesystem::equivalent(names[0], names[1], none)) refuse("the copy needs a name of its own");
  if (!std::filesystem::is_regular_file(names[0], none)) refuse("%s is no regular file", names[0]);
  const std::unique_ptr<FILE, CloseFile> from(fopen(names[0], "r"));
  if (!from) refuse("cannot read %s: %m", names[0]);
  MRC_HEAD head;
  if (fread(&head, 1, sizeof head, from.get()) != sizeof head) refuse("%s is shorter than an MRC header", names[0]);
  check_sizes(names[0], head, static_cast<long>(std::filesystem::file_size(names[0])));
  const int extended = head.next;
  fseek(from.get(), kMrcHeadBytes + extended, SEEK_SET);
  OutputFile out(names[1]);
  head.next = 0;
  fwrite(&head, 1, sizeof head, out.stream());
  copy_samples(from.get(), names[0], sample_bytes(head), out.stream());
  out.finish();
  printf("%s: %d bytes of extended header left out\n", names[1], extended);
  return 0;
}

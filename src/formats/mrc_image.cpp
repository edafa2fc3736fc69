// MRC files of every kind: with extended headers, of either byte order, of all sample types that detectors and motion
// correction write. By the MRC2014 standard (Cheng et al., J. Struct. Biol. 192, 146, 2015), its mode 12 of 2020, and
// IMOD's mode 101 and flags (https://bio3d.colorado.edu/imod/doc/mrc_format.txt).
#include <algorithm>
#include <cstring>
#include <vector>

#include "formats/image_kinds.h"
#include "formats/samples.h"

namespace {

constexpr int kImodStamp = 1146047817;  // of the word at byte 152
constexpr int kImodSignedBytes = 1;     // flags of the word at byte 156
constexpr int kImodPackedBytes = 16;

template <class Word>
Word swapped_word(Word word) {
  static_assert(sizeof(Word) == 4, "words of a header have four bytes");
  uint32_t bits = 0;
  memcpy(&bits, &word, sizeof bits);
  bits = __builtin_bswap32(bits);
  memcpy(&word, &bits, sizeof bits);
  return word;
}

// The header in the other byte order, but for the two short fields that share a word and are not used.
MRC_HEAD swapped_head(const MRC_HEAD& head) {
  MRC_HEAD s = head;
  for (int32_t* field : {&s.nx, &s.ny, &s.nz, &s.mode, &s.nxstart, &s.nystart, &s.nzstart, &s.mx, &s.my, &s.mz, &s.mapc,
                         &s.mapr, &s.maps, &s.next, &s.nversion, &s.nlabl})
    *field = swapped_word(*field);
  for (float* field : {&s.xlen, &s.ylen, &s.zlen, &s.alpha, &s.beta, &s.gamma, &s.amin, &s.amax, &s.amean, &s.xorg,
                       &s.yorg, &s.zorg, &s.rms})
    *field = swapped_word(*field);
  for (size_t at = 40; at < 48; at += 4) {  // IMOD's stamp and flags
    int32_t word = 0;
    memcpy(&word, s.reserved2 + at, sizeof word);
    word = swapped_word(word);
    memcpy(s.reserved2 + at, &word, sizeof word);
  }
  return s;
}

bool is_known_mode(int mode) {
  constexpr int kModes[] = {0, 1, 2, 3, 4, 6, 12, 16, 101};
  return std::find(std::begin(kModes), std::end(kModes), mode) != std::end(kModes);
}

// A stamp may say anything: sizes and modes can be true in one byte order only.
bool is_plausible(const MRC_HEAD& head) { return mrc_head_sizes_valid(&head) && is_known_mode(head.mode); }

int32_t imod_word(const MRC_HEAD& head, size_t at) {
  int32_t word = 0;
  memcpy(&word, head.reserved2 + at, sizeof word);
  return word;
}

// IMOD's flags; -1 where IMOD's stamp isn't there.
int imod_flags(const MRC_HEAD& head) { return imod_word(head, 40) == kImodStamp ? imod_word(head, 44) : -1; }

SampleKind kind_of_bytes(const MRC_HEAD& head, int signed_bytes) {
  const int flags = imod_flags(head);
  const bool says_unsigned = flags >= 0 && (flags & kImodSignedBytes) == 0;
  return signed_bytes == 1 || (signed_bytes < 0 && !says_unsigned) ? kInt8 : kUint8;
}

SampleKind kind_of_samples(const MRC_HEAD& head, int signed_bytes) {
  switch (head.mode) {
    case 0:
      return kind_of_bytes(head, signed_bytes);
    case 1:
      return kInt16;
    case 6:
      return kUint16;
    case 12:
      return kFloat16;
    case 101:
      return kUint4;
    default:
      return kFloat32;
  }
}

std::string why_unreadable(const MRC_HEAD& head) {
  if (head.mode == 3 || head.mode == 4)
    return "holds a transform (complex samples of MRC mode " + std::to_string(head.mode) + "); give the image itself";
  if (head.mode == 16) return "is a colour image (MRC mode 16); give what the detector counted";
  if (head.mode == 0 && imod_flags(head) > 0 && (imod_flags(head) & kImodPackedBytes) != 0)
    return "has two 4-bit samples in each byte of mode 0; convert it to mode 101 or 1 first";
  return "";
}

std::string problem_of_head(const MRC_HEAD& head, const ByteSource& bytes) {
  if (!is_plausible(head))
    return "isn't an MRC file: its header says " + std::to_string(head.nx) + " x " + std::to_string(head.ny) + " x " +
           std::to_string(head.nz) + " samples of mode " + std::to_string(head.mode);
  const bool no_axes = head.mapc == 0 && head.mapr == 0 && head.maps == 0;  // of files older than these fields
  if (!no_axes && (head.mapc != 1 || head.mapr != 2 || head.maps != 3))
    return "has its axes in the order " + std::to_string(head.mapc) + ", " + std::to_string(head.mapr) + ", " +
           std::to_string(head.maps) + " (fields MAPC, MAPR, MAPS); rewrite it in the order 1, 2, 3";
  const long behind_head = kMrcHeadBytes + static_cast<long>(std::max(head.next, 0));
  if (head.next < 0 || bytes.held(behind_head) < behind_head)
    return "promises an extended header of " + std::to_string(head.next) +
           " bytes, which the file doesn't hold; was it copied or written whole?";
  return "";
}

class MrcImage : public ImageFile {
 public:
  MrcImage(std::unique_ptr<ByteSource> bytes, const MRC_HEAD& head, bool swapped, int signed_bytes)
      : bytes_(std::move(bytes)),
        kind_(kind_of_samples(head, signed_bytes)),
        swapped_(swapped),
        begin_(kMrcHeadBytes + head.next),
        row_(static_cast<long>(row_bytes(kind_, static_cast<size_t>(head.nx)))) {
    head_ = head;
    unreadable_ = why_unreadable(head);
  }

  unsigned long missing_samples(int section) const override {
    if (section < 0 || section >= head_.nz) return static_cast<unsigned long>(head_.nx) * row_count();
    const long first = begin_of(section);
    // One byte more, so that the checksum behind the last of a compressed stream is looked at.
    const long there = std::max(bytes_->held(first + row_ * head_.ny + 1) - first, 0L);
    const long rows = std::min<long>(there / row_, head_.ny);
    const long rest = rows < head_.ny ? samples_in(there % row_) : 0;
    return static_cast<unsigned long>(static_cast<long>(head_.nx) * (head_.ny - rows) - rest);
  }

  void read_rows(int section, int first, int count, float* rows) const override {
    constexpr size_t kChunk = size_t{1} << 17;  // bytes that a core's cache holds beside the floats
    const auto nx = static_cast<size_t>(head_.nx);
    const long rows_at_once = std::max<long>(1, static_cast<long>(kChunk) / row_);
    std::vector<unsigned char> chunk;
    for (long done = 0; done < count;) {
      const long n = std::min<long>(rows_at_once, count - done);
      read_some(begin_of(section) + (first + done) * row_, n, &chunk, rows + static_cast<size_t>(done) * nx);
      done += n;
    }
  }

  bool size_is_exact() const override {
    const long end = begin_of(head_.nz);  // of valid sizes, so that it fits a long
    return bytes_->held(end + 1) == end;
  }

  bool is_compressed() const override { return bytes_->is_compressed(); }
  std::string damage() const override { return bytes_->damage(); }

 private:
  unsigned long row_count() const { return static_cast<unsigned long>(head_.ny); }
  long begin_of(int section) const { return begin_ + row_ * head_.ny * section; }

  long samples_in(long bytes_of_row) const {
    if (kind_ == kUint4) return std::min<long>(2 * bytes_of_row, head_.nx);
    return bytes_of_row / static_cast<long>(row_bytes(kind_, 1));
  }

  // n rows that stand side by side at `position`.
  void read_some(long position, long n, std::vector<unsigned char>* chunk, float* rows) const {
    const auto nx = static_cast<size_t>(head_.nx);
    const auto wanted = static_cast<size_t>(n * row_);
    if (kind_ == kFloat32 && !swapped_) {
      const size_t got = bytes_->read(position, wanted, rows) / sizeof(float);
      return std::fill(rows + got, rows + static_cast<size_t>(n) * nx, 0.0f);
    }
    chunk->resize(wanted);
    const size_t got = bytes_->read(position, wanted, chunk->data());
    const size_t whole = got / static_cast<size_t>(row_);
    if (kind_ == kUint4 && nx % 2 != 0) {
      for (size_t row = 0; row < whole; row++)
        samples_to_floats(kind_, swapped_, chunk->data() + row * static_cast<size_t>(row_), nx, rows + row * nx);
    } else {
      samples_to_floats(kind_, swapped_, chunk->data(), whole * nx, rows);
    }
    if (whole == static_cast<size_t>(n)) return;
    const auto part = static_cast<size_t>(samples_in(static_cast<long>(got) - static_cast<long>(whole) * row_));
    samples_to_floats(kind_, swapped_, chunk->data() + whole * static_cast<size_t>(row_), part, rows + whole * nx);
    std::fill(rows + whole * nx + part, rows + static_cast<size_t>(n) * nx, 0.0f);
  }

  std::unique_ptr<ByteSource> bytes_;
  SampleKind kind_;
  bool swapped_;
  long begin_;  // of the first section
  long row_;    // bytes
};

}  // namespace

std::unique_ptr<ImageFile> open_mrc_image(std::unique_ptr<ByteSource> bytes, const ImageOptions& options,
                                          std::string* problem) {
  MRC_HEAD head{};
  if (bytes->read(0, sizeof head, &head) < sizeof head) {
    *problem = bytes->damage().empty() ? "ends within its header; was it copied or written whole?" : bytes->damage();
    return nullptr;
  }
  const MRC_HEAD other = swapped_head(head);
  const bool swapped = !is_plausible(head) && is_plausible(other);
  if (swapped) head = other;
  *problem = problem_of_head(head, *bytes);
  if (!problem->empty()) return nullptr;
  return std::make_unique<MrcImage>(std::move(bytes), head, swapped, options.signed_bytes);
}

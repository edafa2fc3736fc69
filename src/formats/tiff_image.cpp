// TIFF files, by libtiff. Their first row is the top one: rows are handed out from the last on, as an MRC file of the same
// image has them, and as RELION reads TIFF micrographs.
#include <cstring>

#include "formats/image_kinds.h"

bool is_tiff(const unsigned char* first, size_t n) {
  for (const char* magic : {"II*\0", "MM\0*", "II+\0", "MM\0+"})
    if (n >= 4 && memcmp(first, magic, 4) == 0) return true;
  return false;
}

#ifndef KESTRIX_HAS_TIFF

std::unique_ptr<ImageFile> open_tiff_image(std::unique_ptr<ByteSource>, std::string* problem) {
  *problem = "is a TIFF file, which this build can't read; convert it to MRC first";
  return nullptr;
}

std::string tiff_library() { return {}; }

#else

#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <mutex>
#include <new>
#include <vector>

#include "formats/samples.h"

namespace {

// A file as libtiff reads it, and what libtiff has complained of first.
struct TiffInput {
  std::unique_ptr<ByteSource> bytes;
  long position = 0;
  std::string complaint;
};

TiffInput* input_of(thandle_t handle) { return static_cast<TiffInput*>(handle); }

tmsize_t read_tiff(thandle_t handle, void* dst, tmsize_t n) {
  TiffInput* input = input_of(handle);
  const size_t got =
      n > 0 && input->position >= 0 ? input->bytes->read(input->position, static_cast<size_t>(n), dst) : 0;
  input->position += static_cast<long>(got);
  return static_cast<tmsize_t>(got);
}

tmsize_t write_nothing(thandle_t, void*, tmsize_t) { return -1; }

toff_t seek_tiff(thandle_t handle, toff_t offset, int whence) {
  TiffInput* input = input_of(handle);
  long to = static_cast<long>(offset);
  if (whence == SEEK_CUR) to += input->position;
  if (whence == SEEK_END) to += input->bytes->held();
  if (to < 0) return static_cast<toff_t>(-1);
  input->position = to;
  return static_cast<toff_t>(to);
}

int close_nothing(thandle_t) { return 0; }
toff_t size_of_tiff(thandle_t handle) { return static_cast<toff_t>(input_of(handle)->bytes->held()); }
int map_nothing(thandle_t, void**, toff_t*) { return 0; }
void unmap_nothing(thandle_t, void*, toff_t) {}

// Users hear of damage in our words, with libtiff's in parentheses, whose texts may hold anything that a file says.
void keep_complaint(thandle_t handle, const char*, const char* format, va_list arguments) {
  TiffInput* input = input_of(handle);
  if (!input || !input->complaint.empty()) return;
  char text[200];
  vsnprintf(text, sizeof text, format, arguments);
  std::replace_if(
      text, text + strlen(text), [](char c) { return c < 32 || c > 126; }, '?');
  input->complaint = text;
}

void take_over_messages() {
  static std::once_flag once;
  std::call_once(once, [] {
    TIFFSetWarningHandler(nullptr);
    TIFFSetErrorHandler(nullptr);
    TIFFSetErrorHandlerExt(keep_complaint);
  });
}

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};

// One page. Samples that can't be read: unreadable says why.
struct Page {
  int nx = 0, ny = 0;
  SampleKind kind = kUint8;
  std::string unreadable;
};

bool find_kind(int bits, int format, SampleKind* kind) {
  struct Type {
    int bits, format;
    SampleKind kind;
  };
  constexpr Type kTypes[] = {{8, SAMPLEFORMAT_UINT, kUint8},      {8, SAMPLEFORMAT_INT, kInt8},
                             {16, SAMPLEFORMAT_UINT, kUint16},    {16, SAMPLEFORMAT_INT, kInt16},
                             {16, SAMPLEFORMAT_IEEEFP, kFloat16}, {32, SAMPLEFORMAT_UINT, kUint32},
                             {32, SAMPLEFORMAT_INT, kInt32},      {32, SAMPLEFORMAT_IEEEFP, kFloat32}};
  const int known = format == SAMPLEFORMAT_VOID ? SAMPLEFORMAT_UINT : format;
  const Type* type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                  [&](const Type& t) { return t.bits == bits && t.format == known; });
  if (type == std::end(kTypes)) return false;
  *kind = type->kind;
  return true;
}

int mode_of(SampleKind kind) {
  switch (kind) {
    case kUint8:
    case kInt8:
      return 0;
    case kInt16:
      return 1;
    case kUint16:
      return 6;
    case kFloat16:
      return 12;
    default:
      return 2;
  }
}

Page page_at_hand(TIFF* tiff) {
  Page page;
  uint32_t nx = 0, ny = 0;
  uint16_t samples = 1, bits = 1, format = SAMPLEFORMAT_UINT, compression = COMPRESSION_NONE;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &nx);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &ny);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  page.nx = static_cast<int>(std::min<uint32_t>(nx, INT32_MAX));
  page.ny = static_cast<int>(std::min<uint32_t>(ny, INT32_MAX));
  if (samples != 1) {
    page.unreadable =
        "is a colour image (" + std::to_string(samples) + " samples a pixel); give what the detector counted";
  } else if (!find_kind(bits, format, &page.kind)) {
    page.unreadable = "is a TIFF file of " + std::to_string(bits) +
                      "-bit samples of a kind that can't be read; convert it to MRC first";
  } else if (!TIFFIsCODECConfigured(compression)) {
    page.unreadable = "is a TIFF file compressed in a way (scheme " + std::to_string(compression) +
                      ") that libtiff can't read here; convert it to MRC first";
  }
  return page;
}

// Whether pages are of one size and kind, as sections are.
bool is_like(const Page& a, const Page& b) { return a.nx == b.nx && a.ny == b.ny && a.kind == b.kind; }

// More bytes than any compression in use makes of one.
constexpr long kMostOfOneByte = 1L << 15;

class TiffImage : public ImageFile {
 public:
  // pages: all are as the first.
  TiffImage(std::unique_ptr<TiffInput> input, std::unique_ptr<TIFF, TiffCloser> tiff, const Page& page, int pages)
      : input_(std::move(input)), tiff_(std::move(tiff)), page_(page) {
    mrc_init_head(&head_);
    mrc_set_head_xyz_mode(&head_, page.nx, page.ny, pages, mode_of(page.kind));
    head_.mx = head_.my = head_.mz = 0;  // no pixel size
    unreadable_ = page.unreadable;
  }

  unsigned long missing_samples(int section) const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return decode(section) ? 0 : static_cast<unsigned long>(head_.nx) * static_cast<unsigned long>(head_.ny);
  }

  void read_rows(int section, int first, int count, float* rows) const override {
    const auto nx = static_cast<size_t>(head_.nx);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!decode(section)) return std::fill(rows, rows + static_cast<size_t>(count) * nx, 0.0f);
    const size_t row = row_bytes(page_.kind, nx);
    for (int y = 0; y < count; y++)
      samples_to_floats(page_.kind, false, decoded_.data() + static_cast<size_t>(head_.ny - 1 - first - y) * row, nx,
                        rows + static_cast<size_t>(y) * nx);
  }

  bool size_is_exact() const override { return true; }
  bool is_compressed() const override { return true; }
  std::string damage() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return damage_;
  }

 private:
  // Brings a page into decoded_, in this machine's byte order. Damage is for the page that has it alone.
  bool decode(int section) const {
    if (section == decoded_section_) return damage_.empty();
    decoded_section_ = section;
    input_->complaint.clear();
    damage_.clear();
    try {
      decoded_.resize(row_bytes(page_.kind, static_cast<size_t>(head_.nx)) * static_cast<size_t>(head_.ny));
    } catch (const std::bad_alloc&) {
      damage_ = "takes more memory than there is";
      return false;
    }
    const bool whole = TIFFSetDirectory(tiff_.get(), static_cast<tdir_t>(section)) != 0 &&
                       (TIFFIsTiled(tiff_.get()) ? decode_tiles() : decode_strips());
    if (!whole)
      damage_ = "is damaged: its image can't be decoded" +
                (input_->complaint.empty() ? std::string() : " (" + input_->complaint + ")");
    return whole;
  }

  bool decode_strips() const {
    size_t done = 0;
    const uint32_t strips = TIFFNumberOfStrips(tiff_.get());
    for (uint32_t strip = 0; strip < strips && done < decoded_.size(); strip++) {
      const size_t room = decoded_.size() - done;
      const tmsize_t wanted = std::min(TIFFVStripSize(tiff_.get(), rows_of_strip(strip)), static_cast<tmsize_t>(room));
      if (wanted <= 0 || TIFFReadEncodedStrip(tiff_.get(), strip, decoded_.data() + done, wanted) != wanted)
        return false;
      done += static_cast<size_t>(wanted);
    }
    return done == decoded_.size();
  }

  uint32_t rows_of_strip(uint32_t strip) const {
    uint32_t rows = 0;
    TIFFGetFieldDefaulted(tiff_.get(), TIFFTAG_ROWSPERSTRIP, &rows);
    const auto ny = static_cast<uint32_t>(head_.ny);
    rows = std::min(std::max(rows, 1u), ny);
    const uint64_t first = static_cast<uint64_t>(strip) * rows;
    return first >= ny ? 0 : static_cast<uint32_t>(std::min<uint64_t>(rows, ny - first));
  }

  bool decode_tiles() const {
    uint32_t width = 0, height = 0;
    TIFFGetField(tiff_.get(), TIFFTAG_TILEWIDTH, &width);
    TIFFGetField(tiff_.get(), TIFFTAG_TILELENGTH, &height);
    const tmsize_t size = TIFFTileSize(tiff_.get());
    if (width == 0 || height == 0 || size <= 0 || size > kMostTile) return false;
    const auto nx = static_cast<uint32_t>(head_.nx);
    const auto ny = static_cast<uint32_t>(head_.ny);
    std::vector<unsigned char> tile(static_cast<size_t>(size));
    const size_t sample = row_bytes(page_.kind, 1);
    for (uint64_t y = 0; y < ny; y += height)
      for (uint64_t x = 0; x < nx; x += width) {
        if (TIFFReadTile(tiff_.get(), tile.data(), static_cast<uint32_t>(x), static_cast<uint32_t>(y), 0, 0) < 0)
          return false;
        const size_t columns = std::min<uint64_t>(width, nx - x);
        for (uint64_t row = 0; row < std::min<uint64_t>(height, ny - y); row++)
          memcpy(decoded_.data() + ((y + row) * nx + x) * sample, tile.data() + row * width * sample, columns * sample);
      }
    return true;
  }

  static constexpr tmsize_t kMostTile = tmsize_t{1} << 28;

  std::unique_ptr<TiffInput> input_;
  std::unique_ptr<TIFF, TiffCloser> tiff_;
  const Page page_;
  mutable std::mutex mutex_;
  mutable std::vector<unsigned char> decoded_;
  mutable int decoded_section_ = -1;
  mutable std::string damage_;
};

// Bytes of the page's strips or tiles that the file can't hold, or too few to make an image of.
std::string problem_of_size(TIFF* tiff, const Page& page, long file_size) {
  const auto nx = static_cast<size_t>(page.nx);
  const auto decoded = static_cast<long>(row_bytes(page.kind, nx)) * page.ny;
  const uint32_t parts = TIFFIsTiled(tiff) ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
  long stored = 0;
  for (uint32_t part = 0; part < parts && stored <= file_size; part++) {
    const uint64_t begin = TIFFGetStrileOffset(tiff, part);
    const uint64_t bytes = TIFFGetStrileByteCount(tiff, part);
    const auto size = static_cast<uint64_t>(file_size);
    if (begin > size || bytes > size - begin) return "ends before its image does; was it copied or written whole?";
    stored += static_cast<long>(bytes);
  }
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  const long most = compression == COMPRESSION_NONE ? stored : stored * kMostOfOneByte;
  return decoded <= most
             ? ""
             : "promises " + std::to_string(decoded) + " bytes of image, and stores " + std::to_string(stored);
}

// Pages that are as the first: thumbnails and the like behind them don't count.
int count_pages(TIFF* tiff, const Page& first) {
  constexpr int kMostPages = 65000;
  int pages = 1;
  while (pages < kMostPages && TIFFReadDirectory(tiff) && is_like(page_at_hand(tiff), first)) pages++;
  return pages;
}

}  // namespace

std::string tiff_library() {
  // "LIBTIFF, Version 4.5.0", and lines of copyright
  const std::string text = TIFFGetVersion();
  const size_t number = text.find_first_of("0123456789");
  return "libtiff " + text.substr(number, text.find('\n') - number);
}

std::unique_ptr<ImageFile> open_tiff_image(std::unique_ptr<ByteSource> bytes, std::string* problem) {
  take_over_messages();
  auto input = std::make_unique<TiffInput>();
  const long file_size = bytes->held();
  input->bytes = std::move(bytes);
  std::unique_ptr<TIFF, TiffCloser> tiff(TIFFClientOpen("", "rm", input.get(), read_tiff, write_nothing, seek_tiff,
                                                        close_nothing, size_of_tiff, map_nothing, unmap_nothing));
  if (!tiff) {
    *problem = "is no whole TIFF file" + (input->complaint.empty() ? "" : " (" + input->complaint + ")");
    return nullptr;
  }
  const Page page = page_at_hand(tiff.get());
  MRC_HEAD sizes{};
  mrc_set_head_xyz_mode(&sizes, page.nx, page.ny, 1, 2);
  if (!mrc_section_size_valid(&sizes)) {
    *problem = "is a TIFF file of " + std::to_string(page.nx) + " x " + std::to_string(page.ny) +
               " pixels, which no micrograph has";
    return nullptr;
  }
  if (page.unreadable.empty()) *problem = problem_of_size(tiff.get(), page, file_size);
  if (!problem->empty()) return nullptr;
  const int pages = count_pages(tiff.get(), page);
  return std::make_unique<TiffImage>(std::move(input), std::move(tiff), page, pages);
}

#endif

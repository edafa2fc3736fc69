#include "formats/decoders.h"

#include <algorithm>
#include <cstring>
#ifdef KESTRIX_HAS_ZLIB
#include <zlib.h>
#endif
#ifdef KESTRIX_HAS_BZIP2
#include <bzlib.h>
#endif
#ifdef KESTRIX_HAS_LZMA
#include <lzma.h>
#endif

bool InputBytes::refill() {
  memmove(buffer_, next ? next : buffer_, left);
  next = buffer_;
  const size_t got = source_->read(position_, sizeof buffer_ - left, buffer_ + left);
  position_ += static_cast<long>(got);
  left += got;
  return got > 0;
}

bool InputBytes::continues_with(const char* bytes, size_t n) {
  if (left < n) refill();
  return left >= n && memcmp(next, bytes, n) == 0;
}

namespace {

constexpr char kEndsEarly[] = "ends in the middle of its compressed data; was it copied or written whole?";
constexpr char kNoMemory[] = "can't be decoded: there isn't memory for it";
constexpr char kDamaged[] = "is damaged: its compressed data can't be decoded to their end";

#ifdef KESTRIX_HAS_ZLIB
class GzipDecoder : public Decoder {
 public:
  GzipDecoder() {
    if (inflateInit2(&stream_, 15 + 16) != Z_OK) give_up(kNoMemory);
  }
  ~GzipDecoder() override { inflateEnd(&stream_); }
  GzipDecoder(const GzipDecoder&) = delete;
  GzipDecoder& operator=(const GzipDecoder&) = delete;

  size_t decode(InputBytes* from, unsigned char* out, size_t room) override {
    stream_.next_out = out;
    stream_.avail_out = static_cast<uInt>(room);
    while (!is_over() && stream_.avail_out > 0) {
      if (from->left == 0 && !from->refill()) {
        give_up(kEndsEarly);
        break;
      }
      stream_.next_in = from->next;
      stream_.avail_in = static_cast<uInt>(from->left);
      const int status = inflate(&stream_, Z_NO_FLUSH);
      from->next = stream_.next_in;
      from->left = stream_.avail_in;
      if (status == Z_STREAM_END) {
        // What follows the last member, such as padding, is no part of it.
        ended_ = !from->continues_with("\x1f\x8b", 2) || inflateReset(&stream_) != Z_OK;
      } else if (status != Z_OK && status != Z_BUF_ERROR) {
        give_up(kDamaged);
      }
    }
    return room - stream_.avail_out;
  }

 private:
  z_stream stream_{};
};
#endif

#ifdef KESTRIX_HAS_BZIP2
class Bzip2Decoder : public Decoder {
 public:
  Bzip2Decoder() {
    if (BZ2_bzDecompressInit(&stream_, 0, 0) != BZ_OK) give_up(kNoMemory);
  }
  ~Bzip2Decoder() override { BZ2_bzDecompressEnd(&stream_); }
  Bzip2Decoder(const Bzip2Decoder&) = delete;
  Bzip2Decoder& operator=(const Bzip2Decoder&) = delete;

  size_t decode(InputBytes* from, unsigned char* out, size_t room) override {
    stream_.next_out = reinterpret_cast<char*>(out);
    stream_.avail_out = static_cast<unsigned>(room);
    while (!is_over() && stream_.avail_out > 0) {
      if (from->left == 0 && !from->refill()) {
        give_up(kEndsEarly);
        break;
      }
      stream_.next_in = reinterpret_cast<char*>(from->next);
      stream_.avail_in = static_cast<unsigned>(from->left);
      const int status = BZ2_bzDecompress(&stream_);
      from->next = reinterpret_cast<unsigned char*>(stream_.next_in);
      from->left = stream_.avail_in;
      if (status == BZ_STREAM_END) {
        ended_ = !from->continues_with("BZh", 3) || !begin_next_member();
      } else if (status != BZ_OK) {
        give_up(kDamaged);
      }
    }
    return room - stream_.avail_out;
  }

 private:
  bool begin_next_member() {
    char* const out = stream_.next_out;
    const unsigned room = stream_.avail_out;
    BZ2_bzDecompressEnd(&stream_);
    stream_ = {};
    const bool begun = BZ2_bzDecompressInit(&stream_, 0, 0) == BZ_OK;
    stream_.next_out = out;
    stream_.avail_out = room;
    return begun;
  }

  bz_stream stream_{};
};
#endif

#ifdef KESTRIX_HAS_LZMA
class XzDecoder : public Decoder {
 public:
  XzDecoder() {
    if (lzma_stream_decoder(&stream_, kMostMemory, LZMA_CONCATENATED) != LZMA_OK) give_up(kNoMemory);
  }
  ~XzDecoder() override { lzma_end(&stream_); }
  XzDecoder(const XzDecoder&) = delete;
  XzDecoder& operator=(const XzDecoder&) = delete;

  size_t decode(InputBytes* from, unsigned char* out, size_t room) override {
    stream_.next_out = out;
    stream_.avail_out = room;
    while (!is_over() && stream_.avail_out > 0) {
      const bool at_end = from->left == 0 && !from->refill();
      stream_.next_in = from->next;
      stream_.avail_in = from->left;
      const lzma_ret status = lzma_code(&stream_, at_end ? LZMA_FINISH : LZMA_RUN);
      from->next = const_cast<unsigned char*>(stream_.next_in);
      from->left = stream_.avail_in;
      ended_ = status == LZMA_STREAM_END;
      if (status == LZMA_OK || ended_) continue;
      give_up(status == LZMA_BUF_ERROR ? kEndsEarly : kDamaged);
    }
    return room - stream_.avail_out;
  }

 private:
  static constexpr uint64_t kMostMemory = uint64_t{1} << 30;  // for the dictionary; xz -9 takes 65 MiB
  lzma_stream stream_ = LZMA_STREAM_INIT;
};
#endif

}  // namespace

#ifdef KESTRIX_HAS_ZLIB
std::unique_ptr<Decoder> new_gzip_decoder() { return std::make_unique<GzipDecoder>(); }
std::string gzip_library() { return std::string("zlib ") + zlibVersion(); }
#else
std::unique_ptr<Decoder> new_gzip_decoder() { return nullptr; }
std::string gzip_library() { return {}; }
#endif

#ifdef KESTRIX_HAS_BZIP2
std::unique_ptr<Decoder> new_bzip2_decoder() { return std::make_unique<Bzip2Decoder>(); }
std::string bzip2_library() {
  const std::string version = BZ2_bzlibVersion();  // and a date behind a comma
  return "bzip2 " + version.substr(0, version.find(','));
}
#else
std::unique_ptr<Decoder> new_bzip2_decoder() { return nullptr; }
std::string bzip2_library() { return {}; }
#endif

#ifdef KESTRIX_HAS_LZMA
std::unique_ptr<Decoder> new_xz_decoder() { return std::make_unique<XzDecoder>(); }
std::string xz_library() { return std::string("liblzma ") + lzma_version_string(); }
#else
std::unique_ptr<Decoder> new_xz_decoder() { return nullptr; }
std::string xz_library() { return {}; }
#endif

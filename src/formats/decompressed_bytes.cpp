// What a compressed source holds, decoded as far as is asked for.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "formats/byte_source.h"
#include "formats/decoders.h"

namespace {

constexpr size_t kBlock = size_t{1} << 20;

class DecompressedBytes : public ByteSource {
 public:
  DecompressedBytes(std::unique_ptr<ByteSource> source, std::unique_ptr<Decoder> decoder)
      : source_(std::move(source)), decoder_(std::move(decoder)), input_(source_.get()) {}

  size_t read(long position, size_t n, void* dst) const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (position < 0) return 0;
    const auto first = static_cast<size_t>(position);
    decode_to(first + std::min(n, SIZE_MAX - first));
    const size_t end = std::min(first + n, decoded_);
    for (size_t at = first; at < end;) {
      const size_t in_block = at % kBlock;
      const size_t piece = std::min(kBlock - in_block, end - at);
      memcpy(static_cast<char*>(dst) + (at - first), blocks_[at / kBlock].get() + in_block, piece);
      at += piece;
    }
    return end > first ? end - first : 0;
  }

  long held(long limit) const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    decode_to(static_cast<size_t>(std::max(limit, 0L)));
    return std::min(limit, static_cast<long>(decoded_));
  }

  bool is_compressed() const override { return true; }

  std::string damage() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return decoder_->damage();
  }

 private:
  // Memory follows what the stream really holds, whatever a header in it promises.
  void decode_to(size_t end) const {
    while (decoded_ < end && !ended_) {
      const size_t in_block = decoded_ % kBlock;
      if (in_block == 0) {
        std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[kBlock]);
        if (!block) {
          decoder_->give_up("takes more memory than there is");
          ended_ = true;
          return;
        }
        blocks_.push_back(std::move(block));
      }
      const size_t got = decoder_->decode(&input_, blocks_.back().get() + in_block, kBlock - in_block);
      decoded_ += got;
      ended_ = got == 0;
    }
  }

  std::unique_ptr<ByteSource> source_;
  std::unique_ptr<Decoder> decoder_;
  mutable std::mutex mutex_;
  mutable InputBytes input_;
  mutable std::vector<std::unique_ptr<unsigned char[]>> blocks_;
  mutable size_t decoded_ = 0;
  mutable bool ended_ = false;
};

struct Compression {
  const char* bytes;
  size_t length;
  const char* name;
  std::unique_ptr<Decoder> (*new_decoder)();
};

constexpr Compression kCompressions[] = {{"\x1f\x8b", 2, "gzip", new_gzip_decoder},
                                         {"BZh", 3, "bzip2", new_bzip2_decoder},
                                         {"\xfd"
                                          "7zXZ",
                                          6, "xz", new_xz_decoder}};

}  // namespace

std::unique_ptr<ByteSource> decompressed(std::unique_ptr<ByteSource> source, std::string* problem) {
  char first[6] = {};
  source->read(0, sizeof first, first);
  for (const Compression& c : kCompressions) {
    if (memcmp(first, c.bytes, c.length) != 0) continue;
    std::unique_ptr<Decoder> decoder = c.new_decoder();
    if (decoder) return std::make_unique<DecompressedBytes>(std::move(source), std::move(decoder));
    *problem = std::string("is compressed by ") + c.name + ", which this build can't read; decompress it first";
    return nullptr;
  }
  return source;
}

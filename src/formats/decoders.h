// Decoders of compressed streams.
#pragma once

#include <memory>
#include <string>

#include "formats/byte_source.h"

/// Takes the bytes of a source one after the other.
class InputBytes {
 public:
  explicit InputBytes(const ByteSource* source) : source_(source) {}

  /// Reads further bytes behind those that are left; false at the end.
  bool refill();

  /// Whether what comes next begins with these bytes.
  bool continues_with(const char* bytes, size_t n);

  unsigned char* next = nullptr;
  size_t left = 0;

 private:
  const ByteSource* source_;
  long position_ = 0;
  unsigned char buffer_[1 << 16] = {};
};

/// One compressed stream of any number of members.
class Decoder {
 public:
  virtual ~Decoder() = default;

  /// Decodes up to `room` bytes into out. Returns how many came: 0 at the end, or behind damage.
  virtual size_t decode(InputBytes* from, unsigned char* out, size_t room) = 0;

  /// What is wrong with the stream so far, as the rest of a sentence that begins with the file's name; empty: nothing.
  const std::string& damage() const { return damage_; }

  /// Nothing more comes, for this reason.
  void give_up(const char* why) {
    damage_ = why;
    ended_ = true;
  }

 protected:
  bool is_over() const { return ended_; }
  bool ended_ = false;

 private:
  std::string damage_;
};

/// Null where the program was built without the library.
std::unique_ptr<Decoder> new_gzip_decoder();
std::unique_ptr<Decoder> new_bzip2_decoder();
std::unique_ptr<Decoder> new_xz_decoder();

/// Name and version of the library; empty where there is none.
std::string gzip_library();
std::string bzip2_library();
std::string xz_library();

// Where the bytes of an image come from: a file, or what a compressed file holds.
#pragma once

#include <climits>
#include <cstddef>
#include <memory>
#include <string>

/// Bytes that can be read anywhere, by several threads at once.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  /// Reads n bytes from `position` on into dst. Returns how many there were: fewer at the end, or where the rest can't be
  /// read.
  virtual size_t read(long position, size_t n, void* dst) const = 0;

  /// How many bytes there are, of the first `limit`.
  virtual long held(long limit = LONG_MAX) const = 0;

  /// Whether telling what is held takes the time of decoding it.
  virtual bool is_compressed() const { return false; }

  /// What is wrong with what has been read so far, as the rest of a sentence that begins with the file's name; empty:
  /// nothing.
  virtual std::string damage() const { return {}; }
};

/// A regular file. Null, with the reason in `problem`, where it can't be read.
std::unique_ptr<ByteSource> open_file_bytes(const char* name, std::string* problem);

/// What a compressed source holds, by its first bytes: gzip, bzip2 or xz, of any number of members; the source itself
/// where it is none of these. Decodes as far as is asked for, and keeps what it has decoded. Null, with the reason in
/// `problem`, where the program was built without the library that it takes.
std::unique_ptr<ByteSource> decompressed(std::unique_ptr<ByteSource> source, std::string* problem);

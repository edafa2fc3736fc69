// One reader of images, whatever they are written in: MRC files of every kind, compressed ones, and TIFF.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "formats/byte_source.h"
#include "mrcfile.h"

/// How files are to be read.
struct ImageOptions {
  /// 0: as plain MRC files, whatever they are. 1: by what they are.
  int any_format = 1;
  /// Bytes of an MRC file, where any format is read: 1 signed, 0 unsigned, -1 as IMOD's flags in the header say, and signed
  /// where they aren't there, as MRC2014 has it.
  int signed_bytes = 0;
};

constexpr ImageOptions kPlainImages{0, 0};

/// An image open for reading by rows. Rows come from the bottom up, as in an MRC file, whatever order the file has them in.
class ImageFile {
 public:
  virtual ~ImageFile() = default;

  /// Sizes, sample type, pixel size. Where the file is no MRC file, what one that holds the same would say.
  const MRC_HEAD& head() const { return head_; }

  /// Why samples can't be read, as the rest of a sentence that begins with the file's name; empty: they can.
  const std::string& unreadable() const { return unreadable_; }

  /// How many samples of a section the file ends too early to hold. Decodes what is compressed, up to the end of the
  /// section; what is wrong with that, damage() tells then.
  virtual unsigned long missing_samples(int section) const = 0;

  /// Reads `count` rows of a section from row `first` on into rows, head().nx floats each; samples that the file doesn't
  /// hold become 0. For readable samples. Several threads may read at once.
  virtual void read_rows(int section, int first, int count, float* rows) const = 0;

  /// Whether the file holds all sections and nothing else.
  virtual bool size_is_exact() const = 0;

  /// Whether telling what is missing takes the time of decoding the file.
  virtual bool is_compressed() const { return false; }

  /// What was found wrong while reading, as unreadable() says it; empty: nothing.
  virtual std::string damage() const { return {}; }

 protected:
  MRC_HEAD head_{};
  std::string unreadable_;
};

/// Opens an image by what it is. Null, with the reason in `problem` as the rest of a sentence that begins with the file's
/// name, where it can't be read, isn't an image, or has a header that can't be true of it.
std::unique_ptr<ImageFile> open_image(const char* name, const ImageOptions& options, std::string* problem);

/// The same of bytes that are at hand.
std::unique_ptr<ImageFile> open_image_bytes(std::unique_ptr<ByteSource> bytes, const ImageOptions& options,
                                            std::string* problem);

/// A file that is read as a plain MRC file, whatever it is: as mrcfile.h reads it. Takes the file over.
std::unique_ptr<ImageFile> open_plain_mrc(FILE* file);

/// What is wrong with the image for who wants its first section whole: unreadable samples, missing ones, damage. Decodes
/// what is compressed. Empty: nothing.
std::string problem_of_section(const ImageFile& image);

/// "ends after 17 of 40 rows", for an image that lacks so many samples of its first section.
std::string missing_rows_text(const MRC_HEAD& head, unsigned long missing);

/// Pixel size by the header, Å; 0 where it tells none.
float pixel_size_of(const MRC_HEAD& head);

/// The libraries that this build reads images with, and their versions: "zlib 1.2.13, ..."; "none" without any.
std::string image_libraries();

/// Which image a name would have as a plain MRC file: a.mrc for a.mrc.gz, a.tif and a.mrc itself. Its outputs are named
/// from that.
std::string plain_image_name(const std::string& name);

// Images in every dress that microscopes, motion correction and archives give them.
#include <algorithm>
#include <functional>

#include "formats/image_file.h"
#include "test_support_runs.h"
#ifdef KESTRIX_HAS_ZLIB
#include <zlib.h>
#endif
#ifdef KESTRIX_HAS_BZIP2
#include <bzlib.h>
#endif
#ifdef KESTRIX_HAS_LZMA
#include <lzma.h>
#endif
#ifdef KESTRIX_HAS_TIFF
#include <tiffio.h>
#endif

namespace {

constexpr int kNx = 301, kNy = 280;  // an odd width, so that rows of 4-bit samples are padded

// Samples that every type holds: whole numbers from 0 to 15, rows from the bottom up.
using Samples = std::vector<uint8_t>;

template <class Word>
void append(std::string* text, Word word, bool big_endian = false) {
  char bytes[sizeof word];
  memcpy(bytes, &word, sizeof word);
  if (big_endian) std::reverse(bytes, bytes + sizeof word);
  text->append(bytes, sizeof word);
}

void put_word(std::string* text, size_t at, int32_t word, bool big_endian = false) {
  std::string bytes;
  append(&bytes, word, big_endian);
  text->replace(at, 4, bytes);
}

std::string mrc_head(int mode, int extended = 0, bool big_endian = false) {
  std::string head(1024 + static_cast<size_t>(extended), 'x');
  std::fill_n(head.begin(), 1024, '\0');
  const int32_t words[] = {kNx, kNy, 1, mode, 0, 0, 0, kNx, kNy, 1};
  for (size_t i = 0; i < std::size(words); i++) put_word(&head, 4 * i, words[i], big_endian);
  for (int axis = 0; axis < 3; axis++) {
    std::string length;
    append(&length, axis < 2 ? 8.0f * (axis == 0 ? kNx : kNy) : 8.0f, big_endian);
    head.replace(40 + 4 * static_cast<size_t>(axis), 4, length);
    put_word(&head, 64 + 4 * static_cast<size_t>(axis), axis + 1, big_endian);
  }
  put_word(&head, 92, extended, big_endian);
  head.replace(208, 4, "MAP ");
  return head;
}

// The half float of a whole number from 0 to 15.
uint16_t half_of(uint8_t v) {
  if (v == 0) return 0;
  int exponent = 0;
  while (v >> (exponent + 1) != 0) exponent++;
  return static_cast<uint16_t>((exponent + 15) << 10 | (v << (10 - exponent) & 1023));
}

std::string mrc_samples(int mode, const Samples& samples, bool big_endian = false) {
  std::string text;
  for (size_t i = 0; i < samples.size(); i++) {
    const uint8_t v = samples[i];
    if (mode == 0) append(&text, v);
    if (mode == 1) append(&text, static_cast<int16_t>(v), big_endian);
    if (mode == 6) append(&text, static_cast<uint16_t>(v), big_endian);
    if (mode == 2) append(&text, static_cast<float>(v), big_endian);
    if (mode == 12) append(&text, half_of(v), big_endian);
    const size_t x = i % kNx;
    if (mode == 101 && x % 2 == 0) text += static_cast<char>(v | (x + 1 < kNx ? samples[i + 1] << 4 : 0xf0));
  }
  return text;
}

std::string mrc(int mode, const Samples& samples, int extended = 0, bool big_endian = false) {
  return mrc_head(mode, extended, big_endian) + mrc_samples(mode, samples, big_endian);
}

#ifdef KESTRIX_HAS_ZLIB
std::string gzipped(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(Z_STREAM_END, deflate(&stream, Z_FINISH));
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}
#endif

#ifdef KESTRIX_HAS_BZIP2
std::string bzipped(const std::string& text) {
  auto size = static_cast<unsigned>(text.size() + text.size() / 100 + 700);
  std::string out(size, '\0');
  EXPECT_EQ(BZ_OK, BZ2_bzBuffToBuffCompress(&out[0], &size, const_cast<char*>(text.data()),
                                            static_cast<unsigned>(text.size()), 1, 0, 0));
  out.resize(size);
  return out;
}
#endif

#ifdef KESTRIX_HAS_LZMA
std::string xzipped(const std::string& text) {
  std::string out(lzma_stream_buffer_bound(text.size()), '\0');
  size_t size = 0;
  EXPECT_EQ(LZMA_OK,
            lzma_easy_buffer_encode(0, LZMA_CHECK_CRC64, nullptr, reinterpret_cast<const uint8_t*>(text.data()),
                                    text.size(), reinterpret_cast<uint8_t*>(&out[0]), &size, out.size()));
  out.resize(size);
  return out;
}
#endif

// In two members, as parallel compressors write them.
std::string in_members(const std::function<std::string(const std::string&)>& compress, const std::string& text) {
  return compress(text.substr(0, 5000)) + compress(text.substr(5000));
}

#ifdef KESTRIX_HAS_TIFF
struct TiffDress {
  const char* name;
  const char* mode;  // as TIFFOpen takes it
  int bits, format, compression;
  int rows, tile;  // a strip's rows or a tile's side, the other 0
};

constexpr TiffDress kTiffs[] = {
    {"strips_u8", "w", 8, SAMPLEFORMAT_UINT, COMPRESSION_NONE, 7, 0},
    {"one_strip_s8_packbits", "w", 8, SAMPLEFORMAT_INT, COMPRESSION_PACKBITS, kNy, 0},
    {"strips_u16_lzw", "w", 16, SAMPLEFORMAT_UINT, COMPRESSION_LZW, 16, 0},
    {"big_endian_s16_deflate", "wb", 16, SAMPLEFORMAT_INT, COMPRESSION_ADOBE_DEFLATE, 33, 0},
    {"tiles_f32_zstd", "w", 32, SAMPLEFORMAT_IEEEFP, COMPRESSION_ZSTD, 0, 64},
    {"tiles_u16_bigtiff", "w8", 16, SAMPLEFORMAT_UINT, COMPRESSION_NONE, 0, 128},
    {"strips_f16", "w", 16, SAMPLEFORMAT_IEEEFP, COMPRESSION_NONE, 10, 0},
    {"big_endian_u32", "wb", 32, SAMPLEFORMAT_UINT, COMPRESSION_NONE, 10, 0},
    {"strips_s32_lzw", "w", 32, SAMPLEFORMAT_INT, COMPRESSION_LZW, 10, 0},
};

std::string sample_bytes(const TiffDress& dress, uint8_t v) {
  std::string text;
  const bool is_float = dress.format == SAMPLEFORMAT_IEEEFP;
  if (dress.bits == 8) append(&text, v);
  if (dress.bits == 16) append(&text, is_float ? half_of(v) : static_cast<uint16_t>(v));
  if (dress.bits == 32 && is_float) append(&text, static_cast<float>(v));
  if (dress.bits == 32 && !is_float) append(&text, static_cast<uint32_t>(v));
  return text;
}

void set_tags(TIFF* tiff, const TiffDress& dress, int samples_per_pixel = 1) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kNx);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kNy);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples_per_pixel);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, samples_per_pixel == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, dress.bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, dress.format);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, dress.compression);
  if (dress.tile > 0) {
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, dress.tile);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, dress.tile);
  } else {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, dress.rows);
  }
}

// Rows of the picture from the top down; x beyond the width counts as 0.
std::string picture_part(const TiffDress& dress, const Samples& samples, int x, int y, int width, int height) {
  std::string part;
  for (int row = y; row < y + height; row++)
    for (int column = x; column < x + width; column++)
      part += sample_bytes(dress, row < kNy && column < kNx ? samples[pixel_index(column, kNy - 1 - row, kNx)] : 0);
  return part;
}

void write_page(TIFF* tiff, const TiffDress& dress, const Samples& samples) {
  set_tags(tiff, dress);
  if (dress.tile > 0) {
    for (int y = 0; y < kNy; y += dress.tile)
      for (int x = 0; x < kNx; x += dress.tile) {
        std::string part = picture_part(dress, samples, x, y, dress.tile, dress.tile);
        ASSERT_GE(TIFFWriteTile(tiff, &part[0], static_cast<uint32_t>(x), static_cast<uint32_t>(y), 0, 0), 0);
      }
  } else {
    for (int y = 0; y < kNy; y += dress.rows) {
      std::string part = picture_part(dress, samples, 0, y, kNx, std::min(dress.rows, kNy - y));
      ASSERT_GE(TIFFWriteEncodedStrip(tiff, static_cast<uint32_t>(y / dress.rows), &part[0],
                                      static_cast<tmsize_t>(part.size())),
                0);
    }
  }
  TIFFWriteDirectory(tiff);
}
#endif

class Dresses : public SmallRun {
 protected:
  void SetUp() override {
    SmallRun::SetUp();
    simulate("--nx 301 --ny 280 --apix 8 --dose 2");
    // Three counts to a deviation leave the particles in sight.
    const Image image = read_image(path("sim_001.mrc"));
    double sum = 0, squares = 0;
    for (const float v : image.data) sum += v;
    const double mean = sum / static_cast<double>(image.data.size());
    for (const float v : image.data) squares += (v - mean) * (v - mean);
    const double deviation = std::sqrt(squares / static_cast<double>(image.data.size()));
    for (const float v : image.data)
      samples_.push_back(static_cast<uint8_t>(std::min(std::max(8 + 3 * (v - mean) / deviation, 0.0), 15.0)));
    ASSERT_EQ(static_cast<size_t>(kNx) * kNy, samples_.size());
  }

  Samples samples_;
};

}  // namespace

TEST_F(Dresses, GiveThePicksOfThePlainImage) {
  std::map<std::string, std::string> files;
  const std::string plain = mrc(2, samples_);
  for (const int mode : {0, 1, 6, 12, 101}) files["mode_" + std::to_string(mode) + ".mrc"] = mrc(mode, samples_);
  for (const int mode : {1, 2, 6, 12})
    files["big_endian_" + std::to_string(mode) + ".mrc"] = mrc(mode, samples_, mode * 7, true);
  files["extended.mrc"] = mrc(2, samples_, 131072);
  files["odd_extended_4_bit.mrc"] = mrc(101, samples_, 4097);
  std::string lying = mrc(1, samples_, 80, true);
  lying.replace(212, 4, "DD\0\0", 4);  // a stamp of the other byte order
  files["lying_stamp.mrc"] = lying;
#ifdef KESTRIX_HAS_ZLIB
  files["a.mrc.gz"] = gzipped(plain) + std::string(512, '\0');  // padded, as on a tape
  files["b.mrc.gz"] = in_members(gzipped, mrc(101, samples_, 1024));
  files["named_otherwise.mrc"] = gzipped(mrc(6, samples_, 0, true));
#endif
#ifdef KESTRIX_HAS_BZIP2
  files["c.mrc.bz2"] = in_members(bzipped, mrc(1, samples_));
#endif
#ifdef KESTRIX_HAS_LZMA
  files["d.mrc.xz"] = in_members(xzipped, mrc(12, samples_));
#endif
  write_file(path("plain.mrc"), plain);
  for (const auto& file : files) write_file(path(file.first), file.second);
  std::string names;
  for (const auto& file : files) names += " " + file.first;
#ifdef KESTRIX_HAS_TIFF
  for (const TiffDress& dress : kTiffs) {
    if (!TIFFIsCODECConfigured(static_cast<uint16_t>(dress.compression))) continue;
    const std::string name = std::string(dress.name) + ".tif";
    TIFF* tiff = TIFFOpen(path(name).c_str(), dress.mode);
    write_page(tiff, dress, samples_);
    TIFFClose(tiff);
    files[name];
    names += " " + name;
  }
#endif
  const std::string options = "--diameter 260 --speed 0 --cc_cutoff 0.15 --extract_raw 1 --any_format 1 ";
  const ProgramRun run = kestrix(options + "plain.mrc" + names);
  ASSERT_EQ(0, run.status) << run.output << run.errors;
  EXPECT_EQ(1, std::count(run.errors.begin(), run.errors.end(), '\n')) << run.errors;
  EXPECT_TRUE(holds(run.errors, "Kestrix: plain.mrc: its header says 8 A a pixel, which is taken for --apixM."))
      << run.errors;
  ASSERT_GT(rows("plain_quorlin.box").size(), 3u);
  for (const auto& file : files) {
    std::string stem = plain_image_name(file.first);
    stem.resize(stem.size() - 4);
    for (const char* suffix : {"_quorlin.box", "_quorlin.star", "_nonunique.box", "_particles.mrcs"})
      EXPECT_TRUE(content("plain" + std::string(suffix)) == content(stem + suffix)) << file.first << suffix;
  }
}

TEST_F(Dresses, OfBytesAreSignedAsTheHeaderOrTheUserSays) {
  Samples high = samples_;
  for (uint8_t& v : high) v = static_cast<uint8_t>(v << 4);  // above 127 for some
  std::string imod = mrc(0, high);
  put_word(&imod, 152, 1146047817);
  struct Case {
    std::string text;
    int option;
    bool is_signed;
  };
  std::string imod_signed = imod;
  put_word(&imod_signed, 156, 1);
  const Case cases[] = {
      {mrc(0, high), -1, true}, {mrc(0, high), 0, false}, {imod, -1, false}, {imod, 1, true}, {imod_signed, -1, true}};
  for (const Case& c : cases) {
    write_file(path("bytes.mrc"), c.text);
    std::string problem;
    const auto image = open_image(path("bytes.mrc").c_str(), {1, c.option}, &problem);
    ASSERT_TRUE(image) << problem;
    std::vector<float> row(kNx);
    image->read_rows(0, 11, 1, row.data());
    for (int x = 0; x < kNx; x++) {
      const uint8_t v = high[pixel_index(x, 11, kNx)];
      EXPECT_EQ(c.is_signed ? static_cast<float>(static_cast<int8_t>(v)) : static_cast<float>(v), row[x]) << x;
    }
  }
}

TEST_F(Dresses, ThatAreTornAreNamedAndThePicksOfOthersStay) {
  const auto write = [&](const std::string& name, const std::string& text) { write_file(path(name), text); };
  std::map<std::string, std::string> words;
  const auto torn = [&](const std::string& name, const std::string& text, const std::string& why) {
    write(name, text);
    words[name] = why;
  };
  const std::string plain = mrc(2, samples_);
  std::string head = mrc(1, samples_);
  put_word(&head, 92, -5);
  torn("negative.mrc", head, "promises an extended header of -5 bytes");
  put_word(&head, 92, 1 << 30);
  torn("huge.mrc", head, "promises an extended header of 1073741824 bytes");
  torn("axes.mrc", std::string(plain).replace(64, 12, std::string("\2\0\0\0\1\0\0\0\3\0\0\0", 12)),
       "in the order 2, 1, 3");
  torn("short.mrc", mrc(101, samples_).substr(0, 1024 + 151 * 20 + 3), "ends after 20 of 280 rows");
  torn("complex.mrc", mrc_head(4) + std::string(8 * kNx * kNy, '\0'), "holds a transform");
#ifdef KESTRIX_HAS_ZLIB
  const std::string gz = gzipped(plain);
  torn("cut.mrc.gz", gz.substr(0, gz.size() / 2), "in the middle of its compressed data");
  torn("bad_sum.mrc.gz", std::string(gz).replace(gz.size() - 8, 4, "oops"), "is damaged");
  torn("empty.mrc.gz", gz.substr(0, 10), "in the middle of its compressed data");
  std::string promise = mrc_head(2).replace(0, 8, std::string("\0\x40\0\0\0\x40\0\0", 8));
  torn("promise.mrc.gz", gzipped(promise), "ends after 0 of 16384 rows");
#endif
#ifdef KESTRIX_HAS_TIFF
  const auto tiff_text = [&](const TiffDress& dress, int samples_per_pixel) {
    TIFF* tiff = TIFFOpen(path("t").c_str(), "w");
    if (samples_per_pixel == 1) {
      write_page(tiff, dress, samples_);
    } else {
      set_tags(tiff, dress, samples_per_pixel);
      std::string row(static_cast<size_t>(samples_per_pixel) * kNx, 'x');
      for (int y = 0; y < kNy; y++) TIFFWriteScanline(tiff, &row[0], static_cast<uint32_t>(y), 0);
    }
    TIFFClose(tiff);
    return content("t");
  };
  const std::string tiff = tiff_text(kTiffs[2], 1);
  torn("colour.tif", tiff_text(kTiffs[0], 3), "is a colour image (3 samples a pixel)");
  torn("half.tif", tiff.substr(0, tiff.size() / 2), "is no whole TIFF file");
  std::string scratched = tiff;
  std::fill(scratched.begin() + 1000, scratched.begin() + 9000, '\xff');
  torn("scratched.tif", scratched, "is damaged: its image can't be decoded");
#endif
  write("good.mrc", plain);
  std::string list;
  for (const auto& file : words) list += file.first + "\n";
  write("list.txt", list + "good.mrc\n");

  const ProgramRun run = kestrix("--diameter 260 --speed 0 --micrographs list.txt --keep_going 1");
  EXPECT_EQ(3, run.status) << run.output << run.errors;
  EXPECT_TRUE(exists("good_quorlin.box"));
  const std::string failed = content("kestrix_failed.txt");
  EXPECT_EQ(static_cast<long>(words.size()), std::count(failed.begin(), failed.end(), '\n'));
  for (const auto& file : words) {
    const size_t at = ("\n" + failed).find("\n" + file.first + "\t");
    ASSERT_NE(std::string::npos, at) << file.first << failed;
    EXPECT_TRUE(holds(failed.substr(at, failed.find('\n', at) - at), file.second)) << file.first << ": " << failed;
    // Alone and first: an end, or an empty list and a line that says why.
    const ProgramRun alone = kestrix("--apixM 8 --diameter 260 --speed 0 --any_format 1 " + file.first);
    EXPECT_TRUE(holds(alone.output + alone.errors, file.second) || holds(alone.errors, "the file ends early") ||
                holds(alone.output, "is it a whole MRC file"))
        << file.first << alone.output << alone.errors;
  }
}

// What can be read without the option is read as ever with it, and a file that can't says which option would read it.
TEST_F(Dresses, AreLeftAloneUnlessAskedFor) {
  write_file(path("ext.mrc"), mrc(2, samples_, 4096));
  const ProgramRun run = kestrix("--apixM 8 --diameter 260 --speed 0 ext.mrc");
  EXPECT_EQ(0, run.status);
  EXPECT_TRUE(
      holds(run.errors, "has an extended header of 4096 bytes, which is read as image data; give --any_format 1"))
      << run.errors;
  for (const int mode : {12, 101}) {
    write_file(path("m.mrc"), mrc(mode, samples_));
    EXPECT_TRUE(holds(kestrix("--apixM 8 --diameter 260 --speed 0 m.mrc").errors, "give --any_format 1 to read them"));
  }
}

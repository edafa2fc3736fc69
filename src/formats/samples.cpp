#include "formats/samples.h"

#include <cstdint>
#include <cstring>

namespace {

template <class Word>
Word in_order(Word word, bool swapped) {
  if constexpr (sizeof(Word) == 2) return swapped ? static_cast<Word>(__builtin_bswap16(word)) : word;
  if constexpr (sizeof(Word) == 4) return swapped ? static_cast<Word>(__builtin_bswap32(word)) : word;
  return word;
}

// Half floats by moving exponent and fraction into place; the product puts the exponent's bias right, and normalises
// subnormals.
float half_to_float(uint16_t half) {
  const uint32_t magnitude = half & 0x7fffu;
  const uint32_t bits = magnitude << 13;
  float value = 0;
  memcpy(&value, &bits, sizeof value);
  value *= 0x1p112f;
  uint32_t result = 0;
  memcpy(&result, &value, sizeof result);
  result |= magnitude >= 0x7c00u ? 0x7f800000u : 0u;  // infinite, or no number
  result |= static_cast<uint32_t>(half & 0x8000u) << 16;
  memcpy(&value, &result, sizeof value);
  return value;
}

float word_to_float(uint32_t word) {
  float value = 0;
  memcpy(&value, &word, sizeof value);
  return value;
}

template <bool swapped, class Word, class Convert>
void convert(const unsigned char* bytes, size_t n, float* floats, Convert to_float) {
  for (size_t i = 0; i < n; i++) {
    Word word;
    memcpy(&word, bytes + i * sizeof word, sizeof word);
    floats[i] = to_float(in_order(word, swapped));
  }
}

template <class Word, class Convert>
void convert_either(bool swapped, const unsigned char* bytes, size_t n, float* floats, Convert to_float) {
  swapped ? convert<true, Word>(bytes, n, floats, to_float) : convert<false, Word>(bytes, n, floats, to_float);
}

void widen_nibbles(const unsigned char* bytes, size_t n, float* floats) {
  for (size_t i = 0; i < n / 2; i++) {
    floats[2 * i] = static_cast<float>(bytes[i] & 15);
    floats[2 * i + 1] = static_cast<float>(bytes[i] >> 4);
  }
  if (n % 2 != 0) floats[n - 1] = static_cast<float>(bytes[n / 2] & 15);
}

}  // namespace

size_t row_bytes(SampleKind kind, size_t nx) {
  switch (kind) {
    case kUint4:
      return (nx + 1) / 2;
    case kUint8:
    case kInt8:
      return nx;
    case kUint16:
    case kInt16:
    case kFloat16:
      return 2 * nx;
    default:
      return 4 * nx;
  }
}

void samples_to_floats(SampleKind kind, bool swapped, const unsigned char* bytes, size_t n, float* floats) {
  switch (kind) {
    case kUint4:
      return widen_nibbles(bytes, n, floats);
    case kUint8:
      return convert<false, uint8_t>(bytes, n, floats, [](uint8_t w) { return static_cast<float>(w); });
    case kInt8:
      return convert<false, uint8_t>(bytes, n, floats,
                                     [](uint8_t w) { return static_cast<float>(static_cast<int8_t>(w)); });
    case kUint16:
      return convert_either<uint16_t>(swapped, bytes, n, floats, [](uint16_t w) { return static_cast<float>(w); });
    case kInt16:
      return convert_either<uint16_t>(swapped, bytes, n, floats,
                                      [](uint16_t w) { return static_cast<float>(static_cast<int16_t>(w)); });
    case kFloat16:
      return convert_either<uint16_t>(swapped, bytes, n, floats, half_to_float);
    case kUint32:
      return convert_either<uint32_t>(swapped, bytes, n, floats, [](uint32_t w) { return static_cast<float>(w); });
    case kInt32:
      return convert_either<uint32_t>(swapped, bytes, n, floats,
                                      [](uint32_t w) { return static_cast<float>(static_cast<int32_t>(w)); });
    case kFloat32:
      return convert_either<uint32_t>(swapped, bytes, n, floats, word_to_float);
  }
}

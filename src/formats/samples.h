// Samples of images as they stand in files, and as floats.
#pragma once

#include <cstddef>

enum SampleKind { kUint8, kInt8, kUint16, kInt16, kUint32, kInt32, kFloat16, kFloat32, kUint4 };

/// Bytes that a row of nx samples takes: rows of 4-bit samples end with a whole byte.
size_t row_bytes(SampleKind kind, size_t nx);

/// Widens n samples to floats. bytes: n samples of the kind, 4-bit ones two a byte, the first in the low half; swapped: in
/// the byte order that this machine doesn't have. bytes and floats may not overlap.
void samples_to_floats(SampleKind kind, bool swapped, const unsigned char* bytes, size_t n, float* floats);

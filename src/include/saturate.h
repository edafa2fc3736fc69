// Conversions to int that give the nearest int where the value itself fits none, for numbers that come from
// files and options. NaN and text without a number give 0.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>

inline int int_from_long(long v) {
  return static_cast<int>(std::clamp(v, static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

/// Truncates towards zero.
inline int int_from_float(float v) {
  if (v >= 2147483648.0f) return INT_MAX;
  if (v <= -2147483648.0f) return INT_MIN;
  return v == v ? static_cast<int>(v) : 0;
}

/// As atoi: the number at the start of the text, behind blanks.
inline int int_from_text(const char* text) { return int_from_long(strtol(text, nullptr, 10)); }

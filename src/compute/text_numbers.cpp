#include "compute/text_numbers.h"

#include <climits>
#include <cmath>
#include <cstdlib>

int saturating_int(double value) {
  if (std::isnan(value)) return 0;
  if (value >= INT_MAX) return INT_MAX;
  if (value <= INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

int text_to_int(const char* text) {
  const long value = strtol(text, nullptr, 10);  // saturates at the limits of long
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

double text_to_real(const char* text) { return strtod(text, nullptr); }

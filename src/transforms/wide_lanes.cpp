#include "transforms/wide_lanes.h"

namespace {
bool wide = wide_lanes_possible();
}

bool wide_lanes_possible() {
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
  return __builtin_cpu_supports("x86-64-v4");
#else
  return false;
#endif
}

bool wide_lanes() { return wide; }

void set_wide_lanes(bool on) { wide = on && wide_lanes_possible(); }

const char* instruction_set() {
  if (wide_lanes()) return "AVX-512";
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
  if (__builtin_cpu_supports("x86-64-v3")) return "AVX2 and FMA";
#endif
  return "the processor family's common ones";
}

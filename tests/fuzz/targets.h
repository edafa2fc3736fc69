// What reads bytes from outside, for the fuzzers and for the replay of their seeds. A target is a file of arbitrary
// content and the functions of the program that are given it; each may end the process with a fatal error, and does
// nothing worse.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// One way into the program for a target's file, which lies at path. What it returns from normally, it leaves with
/// nothing allocated and nothing open.
using FuzzPart = void (*)(const char* path);

struct FuzzTarget {
  const char* name;       // also of its folder of seeds
  const char* file_name;  // of the input; the suffix decides how it is read
  std::vector<FuzzPart> parts;
};

constexpr int kFuzzTargets = 6;
extern const FuzzTarget kAllFuzzTargets[kFuzzTargets];

/// The target of that name, or null.
const FuzzTarget* find_fuzz_target(const char* name);

/// Writes an input as the file at path, replacing what was there.
void write_fuzz_input(const char* path, const uint8_t* data, size_t size);

// What a file is by its first bytes, where it is no plain MRC file.
#pragma once

#include <cstddef>
#include <string>

/// Says of what kind a file is and what to do, as the rest of a sentence that begins with its name: empty, compressed,
/// TIFF, of another program's format, or a text. Empty where the bytes tell nothing.
/// bytes        the file's first n, of 512 or fewer where it ends
/// any_format   whether what --any_format reads is no problem
std::string problem_of_kind(const unsigned char* bytes, size_t n, bool any_format);

#include "run/value_notes.h"

#include <cmath>
#include <cstdlib>

#include "platform/failure.h"

namespace {

bool is_whole_number(const char* text, int read) {
  char* end = nullptr;
  const long number = strtol(text, &end, 10);
  return end != text && *end == '\0' && number == read;
}

}  // namespace

void note_real_read(const char* keyword, const char* text, float read) {
  char* end = nullptr;
  strtod(text, &end);
  if (end != text && *end == '\0' && std::isfinite(read)) return;
  safety_note(nullptr, "--%s '%.60s' is read as %g; give a plain number, with a point before decimals.", keyword, text,
              static_cast<double>(read));
}

void note_integer_read(const char* keyword, const char* text, int read) {
  if (is_whole_number(text, read)) return;
  safety_note(nullptr, "--%s '%.60s' is read as %d; give a whole number in plain digits.", keyword, text, read);
}

void note_flag_read(const char* keyword, const char* text, int read) {
  char* end = nullptr;
  strtol(text, &end, 10);
  if (end != text && *end == '\0') return;
  safety_note(nullptr,
              "--%s has taken '%.60s' for its value, read as %d; write --%s 1 before a file whose name begins so.",
              keyword, text, read, keyword);
}

#include "str_utils.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "platform/failure.h"

namespace {
constexpr char unit[] = "str_utils";
}

bool text_fits(const char* text) { return strlen(text) < kTextBytes; }

size_t strlcpy(char* dest, const char* src) {
  memset(dest, 0, kTextBytes);
  const size_t length = strlen(src);
  memcpy(dest, src, length + 1);
  return length;
}

int keywd_cmp(const char* arg, const char* keyword) {
  if (arg[0] != '-') return 0;
  const char* word = arg[1] == '-' ? arg + 2 : arg + 1;
  return strcasecmp(word, keyword) == 0;
}

int is_keywd_help(const char* arg) { return keywd_cmp(arg, "h") || keywd_cmp(arg, "help"); }

int is_str_null(const char* s) {
  return strcasecmp(s, "NULL") == 0 || strcasecmp(s, "NONE") == 0 || s[0] == '\0' || s[0] == '\n';
}

int strnsplit_inplace(char* src, const char* delimiters, char** dest, int max) {
  if (!dest) {
    printf("Error in function strnsplit()!Memory for 'dest' not allocated.");
    return 0;
  }
  if (!src || !src[0] || !delimiters || !delimiters[0]) return 0;
  int count = 0;
  char* rest = nullptr;
  for (char* token = count < max ? strtok_r(src, delimiters, &rest) : nullptr; token;
       token = count < max ? strtok_r(nullptr, delimiters, &rest) : nullptr)
    dest[count++] = token;
  return count;
}

int strnsplit_inplace_byspace(char* src, char** dest, int max) {
  return strnsplit_inplace(src, " \t\n\r\v\f", dest, max);
}

int get_micrograph_suffixn(const char* name) {
  const size_t length = strlen(name);
  if (length >= 4 && strcmp(name + length - 4, ".mrc") == 0) return 4;
  if (length >= 5 && strcmp(name + length - 5, ".mrcs") == 0) return 5;
  return 0;
}

int set_outname_by_suffix(char* out, const char* name, const char* suffix) {
  const size_t kept = strlen(name) - static_cast<size_t>(get_micrograph_suffixn(name));
  if (kept + strlen(suffix) >= kTextBytes)
    KESTRIX_FATAL("the output name of %s with the suffix %s has more than %zu characters", name, suffix,
                  kTextBytes - 1);
  memset(out, 0, kTextBytes);
  memcpy(out, name, kept);  // NOLINT(bugprone-not-null-terminated-result): the suffix goes behind it
  memcpy(out + kept, suffix, strlen(suffix) + 1);
  return 0;
}

// Keyword tests, token splitting and output names. Every text lives in a buffer of kTextBytes bytes, cleared
// before use; a text that does not fit is refused by whoever takes it in (text_fits).
#pragma once

#include <cstddef>

constexpr size_t kTextBytes = 1024;

/// Whether text with its terminator fits a text buffer.
bool text_fits(const char* text);

/// Clears the kTextBytes bytes of dest, then copies src, which must fit. Returns the length of dest.
size_t strlcpy(char* dest, const char* src);

/// 1 if arg is "-" or "--" followed by keyword, whole, in any case; else 0.
int keywd_cmp(const char* arg, const char* keyword);

/// 1 if arg, in any case, is one of "-h", "--h", "-help", "--help"; else 0.
int is_keywd_help(const char* arg);

/// 1 if s names nothing: "NULL" or "NONE" in any case, empty, or beginning with a newline; else 0.
int is_str_null(const char* s);

/// Splits src in place at any character of delimiters, storing at most max pointers into src in dest. Returns the
/// number of tokens; 0 for an absent or empty src or delimiters, and, after a message, for an absent dest.
int strnsplit_inplace(char* src, const char* delimiters, char** dest, int max);

/// strnsplit_inplace at blank, tab, newline, carriage return, vertical tab and form feed.
int strnsplit_inplace_byspace(char* src, char** dest, int max);

/// Length of the micrograph suffix of name: 4 for ".mrc", 5 for ".mrcs", else 0. Case matters.
int get_micrograph_suffixn(const char* name);

/// Clears out (kTextBytes bytes), then writes name without its micrograph suffix, followed by suffix. Returns 0.
/// A result that does not fit ends the run with a fatal error.
int set_outname_by_suffix(char* out, const char* name, const char* suffix);

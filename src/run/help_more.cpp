// The options that the short help doesn't list.
#include <cstdio>
#include <cstring>

#include "run/reports.h"

namespace {

constexpr int kWordWidth = 34;  // of an option and its argument
constexpr int kTextWidth = 86;

// Prints a text behind a column of kWordWidth, broken at blanks.
void put_text(const char* text) {
  while (strlen(text) > kTextWidth) {
    int length = kTextWidth;
    while (length > 1 && text[length] != ' ') length--;
    printf("%.*s\n%*s", length, text, kWordWidth, "");
    text += length + 1;
  }
  puts(text);
}

}  // namespace

void kestrix_help_more() {
  const char* group = "";
  for (int i = 0; own_option(i).word; i++) {
    const OwnOption option = own_option(i);
    if (strcmp(group, option.group) != 0) printf("%s%s:\n", i > 0 ? "\n" : "", option.group);
    group = option.group;
    char word[64];
    snprintf(word, sizeof word, "  --%s %s", option.word, option.argument);
    printf("%-*s", kWordWidth, word);
    put_text(option.text);
  }
}

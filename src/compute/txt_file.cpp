#include "txt_file.h"

#include <unistd.h>

#include <cctype>
#include <cstring>

#include "platform/failure.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "txt_file";

struct AccessTest {
  char letter;
  int mode;
  const char* failure;
};

constexpr AccessTest kAccessTests[] = {{'F', F_OK, "does NOT exist"},
                                       {'R', R_OK, "are NOT readable"},
                                       {'W', W_OK, "are NOT writable"},
                                       {'X', X_OK, "are NOT executable"}};

const AccessTest* find_access_test(char letter) {
  for (const AccessTest& test : kAccessTests)
    if (toupper(static_cast<unsigned char>(letter)) == test.letter) return &test;
  return nullptr;
}

}  // namespace

int empty_txt_line(char* line) {
  memset(line, 0, kTextBytes);
  return 0;
}

int read_one_line(char* line, FILE* file) {
  if (!fgets(line, static_cast<int>(kTextBytes), file)) return 0;
  return 0;
}

bool read_next_line(char* line, FILE* file) {
  empty_txt_line(line);
  return fgets(line, static_cast<int>(kTextBytes), file) != nullptr;
}

int count_lines(const char* path) {
  FILE* file = fopen(path, "r");
  if (!file) return 0;
  int lines = 0;
  for (int c = getc(file); c != EOF; c = getc(file)) lines += c == '\n';
  fclose(file);
  return lines;
}

int check_file_access(const char* path, const char* modes) {
  for (const char* letter = modes; *letter; letter++) {
    const AccessTest* test = find_access_test(*letter);
    if (!test) {
      printf(
          "\x1b[43m\x1b[1m\x1b[5mError in function %s(), file %s on line %d:  the mode '%c' for checking "
          "access "
          "of file %s are NOT recoganized!\x1b[m\n\n",
          __func__, unit, __LINE__, *letter, path);
      return -1;
    }
    if (access(path, test->mode) != 0) {
      printf(
          "\x1b[43m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the file %s %s! "
          "Automatically ignored!\x1b[m\n\n",
          __func__, unit, __LINE__, path, test->failure);
      return -1;
    }
  }
  return 0;
}

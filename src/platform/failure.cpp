#include "platform/failure.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdlib>

#include "platform/outputs.h"

namespace {

void (*way_out)(int status) = nullptr;

long notes_said = 0;
const char* before_notes = "";

const char* kind_of_file(mode_t mode) {
  if (S_ISDIR(mode)) return "folder";
  if (S_ISFIFO(mode)) return "pipe";
  return S_ISSOCK(mode) ? "socket" : "device";
}

}  // namespace

void set_text_before_notes(const char* text) { before_notes = text; }

const char* text_before_notes() { return before_notes; }

void set_way_out(void (*leave)(int status)) { way_out = leave; }

void end_run(int status) {
  outputs_discard();
  if (way_out) way_out(status);
  exit(status);
}

void fatal_error(const char* function, const char* unit, int line, const char* format, ...) {
  printf("Error in function %s(), file %s on line %d: ", function, unit, line);
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
  printf("! Exit now!\n");
  end_run(EXIT_FAILURE);
}

void warning(const char* function, const char* unit, int line, const char* format, ...) {
  printf("Warning in function %s(), file %s on line %d: ", function, unit, line);
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
  printf("!\n");
}

bool check_file_regular(const char* path) {
  struct stat status {};
  if (stat(path, &status) != 0 || S_ISREG(status.st_mode)) return true;
  safety_note(path, "is a %s and is not read; give a regular file.", kind_of_file(status.st_mode));
  return false;
}

FILE* open_to_read(const char* name, const char* function, const char* unit, int line) {
  FILE* file = check_file_regular(name) ? fopen(name, "r") : nullptr;
  if (!file) {
    printf("Cannot open file %s. Permission denied or wrong file name.\n", name);
    fatal_error(function, unit, line, "open file failed.");
  }
  return file;
}

void close_written(FILE* file, const char* name, const char* function, const char* unit, int line) {
  const bool complete = ferror(file) == 0;
  const bool closed = fclose(file) == 0;
  if (!complete || !closed) fatal_error(function, unit, line, "writing %s failed, is there space left", name);
}

void safety_note(const char* file, const char* format, ...) {
  notes_said++;
  fflush(stdout);  // keeps the note at its place where both streams go to one terminal or log
  fprintf(stderr, "%sKestrix: ", before_notes);
  if (file) fprintf(stderr, "%s: ", file);
  va_list arguments;
  va_start(arguments, format);
  vfprintf(stderr, format, arguments);
  va_end(arguments);
  fprintf(stderr, "\n");
}

long safety_notes_said() { return notes_said; }

#include "common/options.h"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/failure.h"
#include "run/version.h"
#include "str_utils.h"

namespace {

void store_integer(const Option& option, const char* text) {
  char* end = nullptr;
  errno = 0;
  const long number = strtol(text, &end, 10);
  if (end == text || *end != '\0') refuse("--%s is '%s', but must be a whole number", option.name, text);
  if (errno == ERANGE || number < option.least || number > option.most)
    refuse("--%s is %s, but must lie between %.0f and %.0f", option.name, text, option.least, option.most);
  *static_cast<long*>(option.value) = number;
}

void store_real(const Option& option, const char* text) {
  char* end = nullptr;
  const double number = strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(number))
    refuse("--%s is '%s', but must be a number", option.name, text);
  if (number < option.least || number > option.most)
    refuse("--%s is %s, but must lie between %g and %g", option.name, text, option.least, option.most);
  *static_cast<double*>(option.value) = number;
}

void store_value(const Option& option, const char* text) {
  switch (option.kind) {
    case OptionKind::integer:
      store_integer(option, text);
      break;
    case OptionKind::real:
      store_real(option, text);
      break;
    case OptionKind::text:
    case OptionKind::file:
    case OptionKind::folder:
      *static_cast<const char**>(option.value) = text;
      break;
    case OptionKind::flag:
      break;
  }
}

const char* kind_of_value(OptionKind kind) {
  switch (kind) {
    case OptionKind::flag:
      return "flag";
    case OptionKind::text:
      return "text";
    case OptionKind::file:
      return "file";
    case OptionKind::folder:
      return "folder";
    default:
      return "number";
  }
}

// What asks about the program itself, ends it.
void answer_about_program(const char* argument, const Option* options, size_t count) {
  if (asks_for_version(argument)) {
    put_version(program_invocation_short_name);
    end_run(EXIT_SUCCESS);
  }
  if (!keywd_cmp(argument, "list_options")) return;
  for (size_t i = 0; i < count; i++) printf("--%s %s\n", options[i].name, kind_of_value(options[i].kind));
  printf("--help flag\n--version flag\n");
  end_run(EXIT_SUCCESS);
}

const Option* find_option(const char* argument, const Option* options, size_t count) {
  for (size_t i = 0; i < count; i++)
    if (keywd_cmp(argument, options[i].name)) return &options[i];
  return nullptr;
}

void print_default(const Option& option) {
  if (option.preset) {
    printf(" [%s]", option.preset);
    return;
  }
  switch (option.kind) {
    case OptionKind::integer:
      printf(" [%ld]", *static_cast<long*>(option.value));
      break;
    case OptionKind::real:
      printf(" [%g]", *static_cast<double*>(option.value));
      break;
    case OptionKind::text:
    case OptionKind::file:
    case OptionKind::folder:
      printf(" [%s]", *static_cast<const char**>(option.value));
      break;
    case OptionKind::flag:
      break;
  }
}

}  // namespace

void refuse(const char* format, ...) {
  const int cause = errno;  // what %m in the format tells
  fflush(stdout);
  fprintf(stderr, "%s: ", program_invocation_short_name);
  va_list arguments;
  va_start(arguments, format);
  errno = cause;
  vfprintf(stderr, format, arguments);
  va_end(arguments);
  fprintf(stderr, "\n");
  end_run(EXIT_FAILURE);
}

void print_help(const char* usage, const char* purpose, const Option* options, size_t count) {
  printf("Usage: %s %s\n\n%s\n\nOptions, defaults in brackets:\n", program_invocation_short_name, usage, purpose);
  for (size_t i = 0; i < count; i++) {
    printf("  --%-14s %s", options[i].name, options[i].help);
    print_default(options[i]);
    printf("\n");
  }
  printf("  --%-14s print this help\n", "help");
}

int parse_options(int argc, char** argv, const Option* options, size_t count, const char** names, int most_names) {
  for (int i = 1; i < argc; i++) {
    if (is_keywd_help(argv[i])) return -1;
    answer_about_program(argv[i], options, count);
  }
  int found = 0;
  for (int i = 1; i < argc; i++) {
    const Option* option = find_option(argv[i], options, count);
    if (!option) {
      if (argv[i][0] == '-') refuse("there is no option %s; --help lists the options", argv[i]);
      if (found == most_names) refuse("cannot take the argument '%s'; --help tells the usage", argv[i]);
      names[found++] = argv[i];
    } else if (option->kind == OptionKind::flag) {
      *static_cast<int*>(option->value) = 1;
    } else {
      if (i + 1 == argc) refuse("the option --%s lacks its value", option->name);
      store_value(*option, argv[++i]);
    }
  }
  return found;
}

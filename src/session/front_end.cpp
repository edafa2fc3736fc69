#include "session/front_end.h"

#include <cstdio>

#include "run/parameters.h"
#include "run/reports.h"
#include "run/stage_timer.h"
#include "run/version.h"
#include "str_utils.h"

bool asks_for_words(int argc, char** argv) {
  return argc < 2 || is_keywd_help(argv[1]) || keywd_cmp(argv[1], "help_more") || asks_for_version(argv[1]) ||
         keywd_cmp(argv[1], "list_options");
}

void put_words(int argc, char** argv, const char* program) {
  if (argc < 2) {
    kestrix_help(argv[0]);
  } else if (is_keywd_help(argv[1])) {
    kestrix_help_full(argv[0]);
  } else if (keywd_cmp(argv[1], "help_more")) {
    kestrix_help_more();
  } else if (asks_for_version(argv[1])) {
    put_version(program);
  } else {
    put_option_table();
  }
}

void put_end(int finished) {
  put_rule('#', 129, stdout);
  printf("All %d files finished successfully:\n", finished);
  time_pop("TOTAL");
  put_rule('#', 129, stdout);
  printf("\n");
  kestrix_put_one_random_tip();
}

// kestrix_lists: what there is to do with lists of picks.
#include <cstdio>
#include <cstring>

#include "common/options.h"
#include "lists/commands.h"
#include "run/version.h"
#include "str_utils.h"

namespace {

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
  const char* purpose;
};

constexpr Command kCommands[] = {
    {"select", run_select, "write the picks within limits, or those that were chosen on the page of kestrix_report"},
    {"join", run_join, "make of many lists what RELION, cryoSPARC, Topaz, cisTEM or EMAN2 import, or a CSV table"},
    {"split", run_split, "turn a particle table into one list for each micrograph"},
    {"draw", run_draw, "draw a micrograph with its lists, a PNG file"},
    {"info", run_info, "count picks and show the histogram of their scores"},
    {"join_summaries", run_join_summaries, "make of the summaries of shards that of one run"},
    {"strip", run_strip, "copy an MRC file without its extended header"},
};

void print_commands() {
  printf("Usage: kestrix_lists COMMAND [options] ...\n\n");
  for (const Command& command : kCommands) printf("  %-14s %s\n", command.name, command.purpose);
  printf("\nkestrix_lists COMMAND --help tells its options.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || is_keywd_help(argv[1])) {
    print_commands();
    return argc < 2 ? 1 : 0;
  }
  if (asks_for_version(argv[1])) {
    put_version("kestrix_lists");
    return 0;
  }
  if (keywd_cmp(argv[1], "list_options")) {
    for (const Command& command : kCommands) printf("%s command\n", command.name);
    printf("--help flag\n--version flag\n");
    return 0;
  }
  for (const Command& command : kCommands)
    if (strcmp(argv[1], command.name) == 0) return command.run(argc - 1, argv + 1);
  refuse("there is no command %s; kestrix_lists --help lists them", argv[1]);
}

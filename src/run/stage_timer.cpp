#include "run/stage_timer.h"

#include <sys/time.h>

#include <cstdio>

#include "platform/failure.h"

namespace {

constexpr char unit[] = "stage_timer";
constexpr int kLevels = 1000;

struct {
  double start[kLevels];
  double end[kLevels];
  int level;
} time_stack;

double wall_clock() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
}

}  // namespace

void time_push() {
  if (time_stack.level >= kLevels) KESTRIX_FATAL("more than %d stages within another", kLevels);
  time_stack.start[time_stack.level++] = wall_clock();
}

void time_pop(const char* name) {
  if (time_stack.level < 1) KESTRIX_FATAL("the stage %s ends, but none is open", name);
  const int level = --time_stack.level;
  time_stack.end[level] = wall_clock();
  printf(">>>>>>TIME<<<<<<%32s: %fs\n", name, time_stack.end[level] - time_stack.start[level]);
}

void time_drop() {
  if (time_stack.level > 0) time_stack.level--;
}

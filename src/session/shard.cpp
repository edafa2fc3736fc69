#include "session/shard.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>

#include "platform/failure.h"

namespace {

constexpr char unit[] = "shard";

struct Shard {
  int number, of;  // from 1
};

int task_number(const char* variable) {
  const char* value = getenv(variable);
  if (!value)
    KESTRIX_FATAL("--shard slurm: %s isn't set; this is no task of a Slurm array (sbatch --array=0-9 ...)", variable);
  return atoi(value);
}

// Of arrays that begin anywhere and go in steps, such as --array=10-30:5.
Shard shard_of_slurm() {
  const int count = task_number("SLURM_ARRAY_TASK_COUNT"), first = task_number("SLURM_ARRAY_TASK_MIN");
  const int last = task_number("SLURM_ARRAY_TASK_MAX"), task = task_number("SLURM_ARRAY_TASK_ID");
  const int step = count > 1 ? (last - first) / (count - 1) : 1;
  if (step < 1 || first + step * (count - 1) != last)
    KESTRIX_FATAL("--shard slurm: the tasks of the array aren't evenly numbered; submit it as --array=0-%d", count - 1);
  return {(task - first) / step + 1, count};
}

}  // namespace

int take_shard(char** files, int n, const char* text) {
  Shard shard{};
  char rest = 0;
  if (strcasecmp(text, "slurm") == 0) {
    shard = shard_of_slurm();
  } else if (sscanf(text, "%d/%d%c", &shard.number, &shard.of, &rest) != 2) {
    KESTRIX_FATAL("--shard is %s: it must be K/N, such as 1/4, or slurm", text);
  }
  if (shard.of < 1 || shard.number < 1 || shard.number > shard.of)
    KESTRIX_FATAL("--shard is %d/%d: the first number must lie between 1 and the second", shard.number, shard.of);
  int left = 0;
  for (int i = shard.number - 1; i < n; i += shard.of) files[left++] = files[i];
  return left;
}

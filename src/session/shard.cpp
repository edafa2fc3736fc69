#include "session/shard.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>

#include "platform/failure.h"

namespace {

constexpr char unit[] = "shard";

constexpr char kHeading[] = "# shard %d/%d of %d micrographs, list %llx";

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
  Shard shard;
  shard.number = (task - first) / step + 1;
  shard.of = count;
  return shard;
}

}  // namespace

// FNV-1a over the names and their ends.
unsigned long long number_of_list(const char* const* files, int n) {
  unsigned long long hash = 14695981039346656037ULL;
  for (int i = 0; i < n; i++)
    for (const char* c = files[i];; c++) {
      hash = (hash ^ static_cast<unsigned char>(*c)) * 1099511628211ULL;
      if (*c == 0) break;
    }
  return hash;
}

Shard take_shard(char** files, int* n, const char* text) {
  Shard shard;
  char rest = 0;
  if (strcasecmp(text, "slurm") == 0) {
    shard = shard_of_slurm();
  } else if (sscanf(text, "%d/%d%c", &shard.number, &shard.of, &rest) != 2) {
    KESTRIX_FATAL("--shard is %s: it must be K/N, such as 1/4, or slurm", text);
  }
  if (shard.of < 1 || shard.number < 1 || shard.number > shard.of)
    KESTRIX_FATAL("--shard is %d/%d: the first number must lie between 1 and the second", shard.number, shard.of);
  shard.listed = *n;
  shard.list = number_of_list(files, *n);
  int left = 0;
  for (int i = shard.number - 1; i < shard.listed; i += shard.of) files[left++] = files[i];
  *n = left;
  return shard;
}

int micrographs_of(const Shard& shard) {
  return shard.of > 0 && shard.number <= shard.listed ? (shard.listed - shard.number) / shard.of + 1 : 0;
}

std::string shard_heading(const Shard& shard) {
  if (shard.of == 0) return "";
  char line[128];
  snprintf(line, sizeof line, kHeading, shard.number, shard.of, shard.listed, shard.list);
  return std::string(line) + "\n";
}

Shard read_shard_heading(const std::string& line) {
  Shard shard;
  const int read = sscanf(line.c_str(), kHeading, &shard.number, &shard.of, &shard.listed, &shard.list);
  const bool valid = read == 4 && shard.number >= 1 && shard.number <= shard.of && shard.listed >= 0;
  return valid ? shard : Shard();
}

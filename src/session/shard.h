// A part of a list of micrographs, for runs beside one another.
#pragma once

#include <string>

/// The share of a list that a run takes.
struct Shard {
  int number = 0, of = 0;       // from 1; of 0: the whole list
  int listed = 0;               // micrographs of the whole list
  unsigned long long list = 0;  // its number
};

/// Leaves of *n names every N-th from the K-th on, in their order, and sets *n to how many those are. text: "K/N", K from
/// 1 to N, or "slurm": the task and the number of tasks of the Slurm array that this process belongs to. Ends the run with
/// a fatal error where it is neither.
Shard take_shard(char** files, int* n, const char* text);

/// A number for names in their order, to tell lists apart.
unsigned long long number_of_list(const char* const* files, int n);

/// How many names a share holds.
int micrographs_of(const Shard& shard);

/// A comment that tells of which share a table is, with its line feed; empty for the whole list.
std::string shard_heading(const Shard& shard);

/// The share that a line tells, without its line feed or with it; of 0 where it tells none.
Shard read_shard_heading(const std::string& line);

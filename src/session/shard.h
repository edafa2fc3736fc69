// A part of a list of micrographs, for runs beside one another.
#pragma once

/// Leaves of n names every N-th from the K-th on, in their order, and returns how many those are. text: "K/N", K from 1 to
/// N, or "slurm": the task and the number of tasks of the Slurm array that this process belongs to. Ends the run with a
/// fatal error where it is neither.
int take_shard(char** files, int n, const char* text);

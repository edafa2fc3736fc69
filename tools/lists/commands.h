// The commands of kestrix_lists: each takes its own arguments, argv[0] being its name, and returns the exit status: 0, or
// 3 where lines or files that can't be read were passed over. What can't work is refused with a line, status 1.
#pragma once

/// Writes the picks that limits or a saved selection keep, under a suffix of their own.
int run_select(int argc, char** argv);

/// Joins the lists of many micrographs into what another program imports.
int run_join(int argc, char** argv);

/// Turns a particle table into one list for each micrograph.
int run_split(int argc, char** argv);

/// Draws a micrograph with its lists.
int run_draw(int argc, char** argv);

/// Counts picks, and shows the histogram of their scores as text.
int run_info(int argc, char** argv);

/// Makes of the summaries of shards that of one run over their whole list.
int run_join_summaries(int argc, char** argv);

/// Copies an MRC file without its extended header.
int run_strip(int argc, char** argv);

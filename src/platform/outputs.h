// Output files that appear under their names only when they are whole. Each is written under a temporary name in the
// same folder, which no other process takes, and renamed at the end; a run that ends before removes what is unfinished.
// Outputs that belong together are held back and published together, so that the last of them marks them all as done.
// For one thread at a time.
#pragma once

#include <cstdio>

/// Opens the temporary file of a new output for writing and reading. What stands under `name` stays until the output is
/// published. Ends the run as open_to_write does where the output can't replace what stands there: in a folder that
/// can't be written, or a folder, pipe or device of that name. function, unit, line: where, for the message.
FILE* output_open(const char* name, const char* function, const char* unit, int line);

/// Closes the file of an output. If anything of it could not be written, the disk being full for instance, ends the run
/// with a fatal error that names the output. Publishes it, unless outputs are held back.
void output_close(FILE* file, const char* function, const char* unit, int line);

/// The name under which a closed output can be read at the moment: its temporary name while it is held back, else `name`
/// itself. The text lives until the output is published.
const char* output_at_hand(const char* name);

/// Holds back the outputs that are closed from now on.
void outputs_hold();

/// Publishes what has been held back, in the order in which it was opened, but the n_last names of `last` behind all
/// others; those are on the disk before they appear. A mark beside last[0] tells until all is done that they are being
/// replaced. Ends the run with a fatal error that names the output where one can't be published. The hold is over then.
void outputs_publish(const char* const* last, int n_last);

/// Whether a publication whose last[0] was `name` was begun and never finished: its process died in the middle of it.
bool output_is_half_published(const char* name);

/// Removes the temporary files of all outputs that are not published; the hold is over then. end_run does so. Async-signal-
/// safe.
void outputs_discard();

// Short forms for a unit that names itself by a constant `unit` in its anonymous namespace.
#define KESTRIX_OUTPUT_OPEN(name) output_open(name, __func__, unit, __LINE__)
#define KESTRIX_OUTPUT_CLOSE(file) output_close(file, __func__, unit, __LINE__)

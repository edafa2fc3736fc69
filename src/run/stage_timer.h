// The stage timer: wall-clock times of stages that lie one within another.
#pragma once

/// Starts a stage at the current level and goes one level up.
void time_push();

/// Ends the innermost open stage and prints its time in seconds under the given name on standard output.
void time_pop(const char* name);

/// Ends the innermost open stage without a report.
void time_drop();

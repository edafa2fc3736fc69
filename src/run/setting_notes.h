// Settings that can't find anything, or not what was meant.
#pragma once

#include "run/run_state.h"

/// Says on standard error, a line each, what about the settings of a run whose sizes are known is likely to be a mistake,
/// and what to do.
void note_settings(const Run* run);

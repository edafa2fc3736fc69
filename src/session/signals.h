// What SIGINT, SIGTERM and SIGHUP do to a run.
#pragma once

/// From now on these signals, where they aren't ignored, remove what is unfinished and end the process with status
/// 128 + signal. Lists that belong together appear together or not at all; a resumed run completes the rest.
void end_cleanly_on_signals();

// Runs code that may end the run, and goes on. Releases what it leaves by interposition, so that what includes this is
// linked with the options that CMakeLists.txt gives the fuzzers.
#pragma once

/// Runs call(argument). Returns true if it returned, false if it ended the run. What that leaves allocated or open is
/// released; leaving anything behind after a normal return aborts the process with a message.
bool returns_normally(void (*call)(const char*), const char* argument);

// Runs code that may end the process by exit, and goes on. Works by interposition, so that what includes this is
// linked with the options that CMakeLists.txt gives the fuzzers.
#pragma once

/// Runs call(argument). Returns true if it returned, false if it called exit. What an exit leaves allocated or open is
/// released; leaving anything behind after a normal return aborts the process with a message.
bool returns_normally(void (*call)(const char*), const char* argument);

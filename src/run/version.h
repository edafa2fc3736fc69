// What this build is.
#pragma once

/// Whether an argument asks for the version: --version, with one or two hyphens, in any case.
bool asks_for_version(const char* argument);

/// Prints name and version of a program, its device, the processor's instructions in use and the libraries, a line each, on
/// standard output.
void put_version(const char* program);

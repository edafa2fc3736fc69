// What every front end of the run prints around it.
#pragma once

/// Whether a command line is answered at once: one that asks for help, the version or the table of options, and one
/// without arguments, which gets help.
bool asks_for_words(int argc, char** argv);

/// Prints that answer. program: its name.
void put_words(int argc, char** argv, const char* program);

/// Prints the end of a run that has finished so many micrographs, with its whole time.
void put_end(int finished);

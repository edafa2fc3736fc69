// What every front end of the run prints around it.
#pragma once

/// Whether a command line asks for help, or has no arguments and gets it.
bool asks_for_help(int argc, char** argv);

/// Prints that help.
void put_help(int argc, char** argv);

/// Prints the end of a run that has finished so many micrographs, with its whole time.
void put_end(int finished);

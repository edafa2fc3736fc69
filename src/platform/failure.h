// The forms in which the program reports failures of the host, and their effect on the run.
#pragma once

#include <cstdio>

/// The one way out for a run that can't go on: ends the process with the given status. Published outputs stay, unfinished
/// ones are removed (outputs.h).
[[noreturn]] void end_run(int status);

/// Has end_run call `leave`, which must not return, in place of exit: for a front end with more to end than its own
/// process, and for tests that go on. Null: exit again.
void set_way_out(void (*leave)(int status));

/// Prints "Error in function ..., file ... on line ...: TEXT! Exit now!" on standard output and ends the
/// process with status 1. function, unit and line say where; format and what follows make TEXT as in printf.
[[noreturn]] void fatal_error(const char* function, const char* unit, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Prints "Warning in function ..., file ... on line ...: TEXT!" on standard output and returns.
void warning(const char* function, const char* unit, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Returns false for a folder, pipe or device, which could keep a run waiting or reading for ever, after a line on
/// standard error that tells what it is; true for a regular file and where there is nothing.
bool check_file_regular(const char* path);

/// Opens a regular file for reading. On failure, and of anything that is no regular file, prints which file, then the
/// fatal error "open file failed.".
FILE* open_to_read(const char* name, const char* function, const char* unit, int line);

/// Closes a file that was written. If anything of it could not be written, the disk being full for instance,
/// ends the run with a fatal error that names the file.
void close_written(FILE* file, const char* name, const char* function, const char* unit, int line);

/// Prints one line "Kestrix: FILE: TEXT" on standard error: a safety message that leaves the run and its
/// specified output as they are. file may be null, for a message about no file in particular.
void safety_note(const char* file, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// From now on safety notes begin with this text, which must live on: what takes a line of progress off a terminal.
void set_text_before_notes(const char* text);
const char* text_before_notes();

/// How many safety notes this process has printed.
long safety_notes_said();

// Short forms for a unit that names itself by a constant `unit` in its anonymous namespace.
#define KESTRIX_FATAL(...) fatal_error(__func__, unit, __LINE__, __VA_ARGS__)
#define KESTRIX_WARNING(...) warning(__func__, unit, __LINE__, __VA_ARGS__)
#define KESTRIX_OPEN_READ(name) open_to_read(name, __func__, unit, __LINE__)

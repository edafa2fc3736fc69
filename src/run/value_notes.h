// Values on the command line that are read otherwise than they look.
#pragma once

/// Says on standard error what was read where `text`, the value of --keyword, isn't wholly a finite number.
void note_real_read(const char* keyword, const char* text, float read);

/// The same where it isn't wholly a whole number that an int holds.
void note_integer_read(const char* keyword, const char* text, int read);

/// Says on standard error that the flag --keyword has taken `text`, which isn't wholly a number, for its value.
void note_flag_read(const char* keyword, const char* text, int read);

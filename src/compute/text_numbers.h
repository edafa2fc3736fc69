// Numbers from text and from other numbers, defined for every input: what does not fit becomes the nearest
// value that does.
#pragma once

/// The integer part of value; the nearest int if that is out of range, 0 for not-a-number.
int saturating_int(double value);

/// The number at the start of text as atoi reads it: blanks, a sign, digits; 0 if there is none. A number out
/// of range gives the nearest int.
int text_to_int(const char* text);

/// The number at the start of text as atof reads it, "nan" and "inf" included; 0 if there is none.
double text_to_real(const char* text);

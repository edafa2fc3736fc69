// Where the outputs of a micrograph go.
#pragma once

struct Kestrix_Para;

/// Sets out (kTextBytes) to the name from which all outputs of a micrograph are named by set_outname_by_suffix: its own, or
/// with --odir that of a file of the same name there; that of a plain MRC file, where any format is read. Ends the run if it is too long.
void set_output_name(char* out, const char* mic, const Kestrix_Para* para);

// What a list of micrographs must not hold, looked through once before anything is picked. Times grow with the length of
// the list, not with its square.
#pragma once

/// Takes out of the n names those of images that this program writes (NAME_bgfree.mrc, ...) beside a micrograph NAME.mrc
/// or NAME.mrcs that is in the list too: a pattern such as *.mrc finds both. Says on standard error how many. Returns how
/// many names are left, in their order.
int leave_out_own_images(char** files, int n);

/// Says on standard error which micrographs are named more than once; each time counts. Ends the run with a fatal error
/// where two different ones would write the same outputs, as m.mrc and m.mrcs would.
void check_output_names(const char* const* files, int n);

// The parts of a run that need no tuning, as the road of one micrograph calls them: the open area, the template and the
// cutoff that a micrograph asks for (docs/method.md, "Picks that need no tuning").
#pragma once

#include "run/run_state.h"

/// Whether any of these parts is asked for.
bool uses_auto_parts(const Kestrix_Para* para);

/// Whether --auto matches what it finds, without templates and without a scan over angles.
bool matches_own_template(const Kestrix_Para* para);

/// Makes the working pixel of --auto no larger than a micrograph of this size allows.
void limit_auto_shrink(Kestrix_Para* para, int nx, int ny);

/// Allocates run->autos; released with auto_buffers_free. Ends the run where there is not enough memory.
void auto_buffers_new(Run* run);
void auto_buffers_free(AutoBuffers* autos);

/// Brings values of the shrunk micrograph (host, nx by ny in rows of `stride`) that isn't numbers or lie far beyond all
/// others to the limits of the others. Says how many weren't numbers; where they are many, all stay.
void tame_outliers(float* image, int nx, int ny, int stride, const char* name);

/// Sets run->autos' open area from ice detection and the excluded points of the cells, and d_mask's where --auto
/// normalises by it. For after the cells have been closed.
void set_open_area(Run* run);

/// Whether nothing of the open area is closed.
bool is_all_open(const Run* run);

/// Finds size and template on the normalised working image d_mic, and makes it the one that is matched: d_mic becomes
/// its band with --auto; without, the template takes the automatic one's place.
/// usable: whether the image can be looked at; if not, nothing is found.
void learn_template(Run* run, const char* mic, bool usable);

/// Empties the best of all templates.
void begin_template_maps(Run* run);

/// Takes the maps of one template (d_ccmax, d_psi and the scan's least) into the best of all. t: from 0.
void take_template_maps(Run* run, int t);

/// With --auto: finds the peaks and their cutoff, and writes the candidates.
void pick_peaks(Run* run, FILE* nonunique);

/// With the cutoff alone: finds it from the best of all templates.
void find_run_cutoff(Run* run);

/// Tells what was found, on standard error where that is a terminal, and in any case what should make the user look.
void tell_findings(const Run* run, const char* mic);

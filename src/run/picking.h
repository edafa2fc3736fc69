// The door of the picking library: what a front end calls, whatever it feeds from. It reads the command line, prepares a
// run, picks micrographs one by one in any order, and ends the run:
//     Run run{};
//     read_command_line(argc, argv, &run);
//     report_command_line(argc, argv, &run);
//     prepare_run(&run);
//     for each micrograph: pick_micrograph(&run, name);
//     free_run(&run);
// Everything that a run prints comes from these calls, stage times by way of stage_timer.h. What can't go on leaves by
// end_run (platform/failure.h).
#pragma once

#include <memory>

#include "formats/image_file.h"
#include "run/run_state.h"

/// Sets run->para from the command line. An unknown option, an option without its value and a command line without
/// micrographs end the run. run: all zero before.
void read_command_line(int argc, char** argv, Run* run);

/// Reports the parameters on standard output and ends the run where they hold values that can't work.
void report_command_line(int argc, char** argv, const Run* run);

/// Chooses the device, takes all sizes from the first readable micrograph of run->para.files, acquires the templates and
/// allocates every buffer. Ends the run where there is no readable micrograph, no usable template or not enough memory,
/// and on a device error.
void prepare_run(Run* run);

/// What became of a micrograph.
enum PickState { kPicked, kFinishedBefore };

/// Whether a run that resumes passes over a micrograph, its lists being there.
bool is_finished_before(const Kestrix_Para* para, const char* mic);

/// The road of one micrograph, from its file to the lists beside it, as run->para asks for. A micrograph that is
/// finished already is passed over where the run resumes. Ends the run on a file that can't be read or written, on a size
/// or format other than the first micrograph's, and on a device error; lists of earlier micrographs stay.
/// run->findings tells what was found; of a micrograph that was finished before, what its lists hold.
/// image: the micrograph's, where it is open already
PickState pick_micrograph(Run* run, const char* mic, std::unique_ptr<ImageFile> image = nullptr);

/// Looks at a micrograph for run->learning, and writes nothing. Returns false where the preparation is for others' size.
/// image: as above.
bool look_at_micrograph(Run* run, const char* mic, std::unique_ptr<ImageFile> image = nullptr);

/// Frees what prepare_run has made; the parameters and the tally stay. Before another preparation, for micrographs of
/// another size, the parameters must be made as they were before the last.
void release_run(Run* run);

/// Frees all that a run holds, its parameters included.
void free_run(Run* run);

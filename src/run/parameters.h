// The one record of a run's settings, filled from the command line, and the values worked out from them.
#pragma once

/// All settings of a run. Flags are 0 or 1. Sizes in "pixels" are raw micrograph pixels; "shrunk pixels" are
/// pixels of apixM * shrink angstrom. The record owns files (the array, not the names in it) and its three
/// text buffers of kTextBytes bytes.
struct Kestrix_Para {
  char** files;               // micrograph names in command line order, pointing into argv
  char* T;                    // template stack, "NULL" when there is none
  int dont_invertT;           // leave the template contrast as it is
  float apixM;                // pixel size of the micrographs, angstrom
  float apixT;                // pixel size of the templates, angstrom
  float diameter;             // particle diameter, angstrom
  float min_dist;             // least distance between particles, angstrom
  int boxsize;                // box side, pixels
  int shrink;                 // factor by which micrographs are reduced before matching
  int speed;                  // speed level 0 to 4, which sets shrink
  float ang_step;             // step of the in-plane scan, degrees
  int update_T;               // printed only
  float cc_cutoff;            // least correlation of a pick
  float lp;                   // main band-pass: low-pass, angstrom
  float hp;                   // main band-pass: high-pass, angstrom
  float pre_lp;               // printed only
  float pre_hp;               // pre-filter: high-pass, angstrom
  int T_norm_type;            // template normalisation: 1, 2, 3; any other value none
  float center1_ratio;        // share of the template radius: flat top, soft edge
  int do_bandpass;            // main band-pass
  int do_ctf;                 // printed only
  int do_local_ctf;           // printed only
  float kV;                   // printed only
  float cs;                   // printed only
  float ac;                   // printed only
  float lave_max;             // upper limit of the local average
  float lave_min;             // lower limit of the local average
  float lsigma_cutoff;        // upper limit of the local sigma
  float lsigma_D;             // diameter of the local sigma window, angstrom
  float lave_D;               // diameter of the local average window, angstrom
  int write_ccmax_mic;        // write _ccmax.mrc
  int do_pre_filter;          // filter before the detection of ice
  int detect_ice;             // close ice and contamination to picking
  int write_pref_mic;         // write _pref.mrc
  int write_pf_mic;           // printed only
  int write_bg_mic;           // write _bg.mrc
  int write_bgfree_mic;       // write _bgfree.mrc
  int write_lsigma_mic;       // write _lsigma.mrc
  int write_mic_mask;         // write _mask.mrc
  int do_unfinished;          // skip micrographs that have a final list
  char* excluded_suffix;      // suffix of each micrograph's list of places to leave out, or "NULL"
  int exclusive_picking;      // use excluded_suffix
  int mask_excluded;          // take excluded places out of the statistics too
  char* global_excluded_box;  // list of places to leave out in every micrograph, or "NULL"
  int write_rejected_box;     // write _rejected.box and _rejected.star; always 1
  int write_star;             // write _quorlin.star
  int extract_raw;            // write _particles.mrcs
  int extract_pf;             // printed only
  int gid;                    // device number
  int n_files;                // names in files
  float local_edge_width;     // soft edge of the local windows, shrunk pixels
  float radius_ratio;         // factor by which the working radius exceeds the particle's
  int auto_template;          // 1 while T names no file
  float psi_start;            // first angle of the scan, degrees
  float psi_end;              // bound of the scan, degrees
  float radius_px;            // working particle radius, shrunk pixels
  float min_dist_px;          // min_dist in shrunk pixels
  float lsigma_radius_px;     // radius of the local sigma window, shrunk pixels
  float lave_radius_px;       // radius of the local average window, shrunk pixels
  char* first_file;           // first readable micrograph, set by main
  int skip_empty_templates;   // leave out templates that are zero everywhere
  float clip_outliers;        // raw pixels are limited to so many robust deviations; 0: not at all
  int any_format;             // read images by what they are, not as plain MRC files only
  int signed_bytes;           // bytes of MRC files: as ImageOptions has it
  // Whole sessions of micrographs:
  char* micrographs;  // list of micrographs to add to those of the command line, or "NULL"
  char* odir;         // folder of all outputs, or "NULL": beside each micrograph
  char* summary;      // table of all micrographs, or "NULL"
  char* shard;        // which part of the list, or "NULL": all
  int check;          // look through the list and pick nothing
  int keep_going;     // pass over micrographs that can't be picked
  int progress;       // tell how far the session is, though standard error is no terminal
  float watch;        // seconds to wait for further micrographs; 0: not at all
  // Picks that need no tuning:
  int auto_picks;      // all of what follows that the user hasn't set otherwise, on a working pixel of its own
  int robust_ice;      // close ice pixel by pixel, by limits that the micrograph sets
  int learn_template;  // match what the micrograph itself shows in place of the automatic template
  int auto_cutoff;     // find the cutoff of each micrograph from its scores
  int learn_from;      // micrographs from which the session's size, template and cutoff are learned; 0: none
  char* learned;       // file of what was learned, or "NULL"
  int write_learned;   // write _learned.mrcs
  int keeps_min_dist;  // 1: min_dist is the user's
  int keeps_cutoff;    // 1: cc_cutoff is the user's
};

/// What --help_more says of an option.
struct OwnOption {
  const char* group;
  const char* word;      // without hyphens
  const char* argument;  // what follows it
  const char* text;
};

/// The options that the short help doesn't list, from 0 on, those of a group side by side; all null past the last.
OwnOption own_option(int index);

/// Prints every option on standard output, a line each: --WORD and what follows it (flag, number, text, file, folder), for
/// the shell's completion and for checks of the documents.
void put_option_table();

/// Allocates files for argc names and the text buffers, and sets every default. Values that depend on others
/// are 0 until kestrix_get_parameters. Ends the run if memory is short. Free by kestrix_free_parameters.
void kestrix_init_parameters(int argc, Kestrix_Para* para);

/// Reads argv[1] to argv[argc - 1] into an initialised record, works out the values that depend on others,
/// chooses the device and prints a warning for each basic option that was not given. Returns only on success:
/// an unknown option ends the run with the list of valid ones and status 0; a speed level that does not
/// exist, an option without its value, a text that is too long, no micrograph or no device end it with
/// status 1. Numbers are taken as they are; kestrix_check_parameters judges them.
void kestrix_get_parameters(int argc, char** argv, Kestrix_Para* para);

/// The position in argv of the value that the command line gives an option that takes a number or a text, by its word
/// without hyphens; 0 where it gives none. Walks over the arguments as kestrix_get_parameters does, but asks for no device
/// and judges nothing.
int kestrix_find_value(int argc, char** argv, const char* word);

/// Ends the run with a fatal error that names the option, its value and what is allowed, if a pixel size, the
/// diameter, the distance, the box or the angular step is one that no run can work with.
void kestrix_check_parameters(const Kestrix_Para* para);

/// Makes `shrink` raw pixels a side one working pixel, and works out the values in working pixels.
void kestrix_set_shrink(Kestrix_Para* para, int shrink);

/// Frees what the record owns, not the record.
void kestrix_free_parameters(Kestrix_Para* para);

/// Sets shrink for a speed level: 0 to 4 give 1, 2, 4, 6, 8. Any other level ends the run with a fatal error.
void kestrix_speed2shrink(int& speed, int& shrink);

/// Reads the flag whose keyword stands at argv[i]. If the next argument is there and begins with neither a
/// hyphen nor a letter, it is the flag's value, 0 or not 0, and i moves on to it; else the flag is 1.
void get_bool_keyword(int argc, char** argv, int& i, int& flag);

/// Prints the short help and a fatal error with message, and ends the process with status 1.
[[noreturn]] void kestrix_help_exit(const char* program, const char* message);

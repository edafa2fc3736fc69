// MRC image files: the 1024-byte header record, reading every supported sample type as floats, and writing
// float images and stacks from host and device memory. Files are little-endian and their samples begin at
// byte 1024, x fastest, then y, then z; an extended header is not skipped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

constexpr long kMrcHeadBytes = 1024;

/// The header of an MRC file as it stands in the file.
struct MRC_HEAD {
  int32_t nx, ny, nz;                 // samples per row, rows per section, sections
  int32_t mode;                       // sample type: 0 uint8, 1 int16, 2 float, 6 uint16
  int32_t nxstart, nystart, nzstart;  // start of the axes
  int32_t mx, my, mz;                 // grid size
  float xlen, ylen, zlen;             // cell lengths, Angstrom
  float alpha, beta, gamma;           // cell angles, degrees
  int32_t mapc, mapr, maps;           // axis of columns, rows, sections
  float amin, amax, amean;            // smallest, largest and mean sample
  int16_t ispg;                       // space group
  int16_t nsymbt;                     // symmetry bytes
  int32_t next;                       // bytes of the extended header
  int16_t creatid;                    // creator id
  char reserved1[10];
  int32_t nversion;  // of the format: year times 10
  char reserved2[84];
  float xorg, yorg, zorg;  // origin
  char cmap[4];            // "MAP "
  char stamp[4];           // machine stamp
  float rms;               // deviation of the samples
  int32_t nlabl;           // labels in use
  char labels[10][80];
};

static_assert(sizeof(MRC_HEAD) == kMrcHeadBytes, "an MRC header has 1024 bytes");
static_assert(offsetof(MRC_HEAD, amin) == 76 && offsetof(MRC_HEAD, creatid) == 96 && offsetof(MRC_HEAD, xorg) == 196 &&
                  offsetof(MRC_HEAD, cmap) == 208 && offsetof(MRC_HEAD, nlabl) == 220,
              "the fields of an MRC header stand at fixed offsets");

// --- The record ---

/// A new header, cleared and then set by mrc_init_head. The caller frees it with free. Ends the run if there
/// is no memory.
MRC_HEAD* mrc_new_head();

/// Stores the initial values: a float image of 1 x 1 x 1 with the stamp set. Leaves reserved2 and rms as they
/// are. Returns 0.
int mrc_init_head(MRC_HEAD* head);

/// Stores "MAP " and the little-endian machine stamp. Returns 0.
int mrc_set_head_stmp(MRC_HEAD* head);

/// Stores the three sizes and the mode and nothing else. Returns 0.
int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode);

/// Stores smallest, largest and mean of n floats of host memory, and their deviation from the mean as rms; 0 for each if
/// n is 0. Returns 0.
int mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long n);

/// The name of the header's sample type, "Unknown" for a mode that no table knows.
const char* mrc_get_head_mode(const MRC_HEAD* head);

/// Whether samples of this mode can be converted to floats: modes 0, 1, 2 and 6.
bool mrc_mode_readable(int mode);

/// Whether the sizes can be those of a micrograph or stack: nx and ny from 1 to 65535 with at most 2^29
/// samples a section, nz at least 1. Products of valid sizes, in bytes of any mode, fit a long.
bool mrc_head_sizes_valid(const MRC_HEAD* head);

/// The same for nx and ny alone, for who reads one section whatever nz says.
bool mrc_section_size_valid(const MRC_HEAD* head);

/// Prints a note on standard error if the header announces an extended header, which is read as samples here.
void note_extended_header(const char* name, const MRC_HEAD* head);

/// Whether both headers agree in nx, ny, nz and mode.
bool mrc_head_is_like(const MRC_HEAD* one, const MRC_HEAD* other);

/// Returns 0 if both headers agree in nx, ny, nz and mode; otherwise prints both and ends the run with
/// status 1.
int check_mrc_head_sizes_two(const char* name1, const char* name2, const MRC_HEAD* head1, const MRC_HEAD* head2);

// --- Reading an open file ---

/// Size of the file in bytes; leaves the file at its end.
long get_file_size(FILE* file);

/// Reads the header from the start of the file. What a file of less than 1024 bytes lacks is 0, and a header
/// without a "MAP" stamp gets one in memory. Returns 0.
int mrc_read_head(FILE* file, MRC_HEAD* head);

/// Reads plane number `slice` along axis 'x', 'y' or 'z' (any case) as floats.
/// dst   z: nx*ny floats, dst[j*nx + i]; y: nx*nz, dst[k*nx + i]; x: ny*nz, dst[k*ny + j]
/// Samples that the file doesn't hold become 0 (mrc_missing_samples counts them). Another axis, or a mode
/// that can't be read, leaves dst as it was. Returns 0 in every case.
int mrc_read_slice(FILE* file, const MRC_HEAD* head, int slice, char axis, float* dst);

/// Reads `count` rows of section `slice` (axis z) from row `first` on, nx floats each; samples that the file doesn't
/// hold become 0. For rows of a section of valid size and a mode that can be read. Several threads may read at once.
void mrc_read_rows(FILE* file, const MRC_HEAD* head, int slice, int first, int count, float* dst);

/// How many samples of section `slice` (axis z) the file ends too early to hold; 0 for a mode that can't be
/// read. Leaves the file where it was.
unsigned long mrc_missing_samples(FILE* file, const MRC_HEAD* head, int slice);

/// Whether the file has exactly the length that the header says for all sections. Leaves it where it was.
bool mrc_size_is_exact(FILE* file, const MRC_HEAD* head);

/// Returns 0 if the file holds exactly the samples that the header says, else -1 after a warning on standard
/// output. Leaves the file at its end, or where it was if the mode has no sample size.
int mrc_check_fsize(FILE* file, const MRC_HEAD* head);

/// Reads all nx*ny*nz samples as floats into dst. A file of the wrong size ends the run. Returns 0; -1 after
/// a warning if no section could be read. A mode that can't be read leaves dst as it was, with a warning.
int mrc_read_all(FILE* file, const MRC_HEAD* head, float* dst);

// --- Reading a file by name; one that can't be opened ends the run ---

/// The header of the file in a new record, which the caller frees with free.
MRC_HEAD* get_mrcf_head(const char* name);

/// All nx*ny*nz samples as floats, which the caller frees with free; zeros for a mode that can't be read. A
/// file whose size doesn't agree with its header ends the run before anything is allocated.
float* get_mrcf_data_all(const char* name);

/// A size from the file's header: keyword "x", "y", "z" or a product "xy", "yx", "xz", "zx", "yz", "zy",
/// "xyz", in any case. An unknown keyword gives 0 after a message on standard output.
long get_mrcf_dim_size(const char* name, const char* keyword);

// --- Writing ---

/// Writes the 1024 bytes at the start of the file. A header without a "MAP" stamp is written after a warning;
/// no header at all is a warning only. Returns 0.
int mrc_write_head(FILE* file, const MRC_HEAD* head);

/// Sets the header's statistics from its nx*ny*nz floats of host memory and writes header and data. A mode
/// other than 2 ends the run with nothing written. Returns 0; a failed write shows in ferror(file).
int mrc_write_head_data(FILE* file, MRC_HEAD* head, const float* data);

/// mrc_write_head_data for floats in device memory.
int mrc_write_head_ddata(FILE* file, MRC_HEAD* head, const float* ddata);

/// Writes nx*ny*nz floats of host memory as a new file, replacing any of that name. A file that can't be
/// created or written in full ends the run. Returns 0.
int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz);

/// mrcf_write_xyz_data for floats in device memory.
int mrcf_write_xyz_ddata(const char* name, const float* ddata, int nx, int ny, int nz);

// The head of a STAR file of RELION: which column holds what, and where the lines of data begin. A line of
// the head is a keyword of STAR_HEAD_KEYWORDS with its column number ("_rlnCoordinateX #1"), a line that
// begins with "data_" or "loop_", or a blank one; the first other line ends the head and is the first line of
// data.
#pragma once

#include <cstdio>

constexpr int kStarHeadLines = 512;
constexpr int kStarKeywords = 228;
constexpr int kStarKeywordBytes = 256;

/// All column keywords that a head may hold, closed by an empty one. Compared exactly, with case.
extern const char STAR_HEAD_KEYWORDS[kStarKeywords + 1][kStarKeywordBytes];

/// The columns of one head.
struct StarHead {
  int n;                                             // columns found
  int numbers[kStarHeadLines];                       // column number of each, counted from 1
  char keywords[kStarHeadLines][kStarKeywordBytes];  // keyword of each
};

/// The column numbers of the keywords that the program knows by meaning; 0: no such column.
struct ParticleInfoIndex {
  int Bfactor, MicrographName, ImageName, CoordinateX, CoordinateY, Voltage, PhaseShift, DefocusU, DefocusV,
      DefocusAngle, SphericalAberration, DetectorPixelSize, Magnification, AmplitudeContrast, CtfFigureOfMerit,
      CtfMaxResolution, ClassNumber, GroupNumber, RandomSubset, NormCorrection, OriginX, OriginY, AngleRot, AngleTilt,
      AnglePsi, LogLikeliContribution, NrOfSignificantSamples, MaxValueProbDistribution, AutopickFigureOfMerit;
};

/// Makes head a head without columns. Returns 0.
int star_head_empty(StarHead* head);

/// A new empty head, which the caller frees with free. Ends the run if there is no memory.
StarHead* star_head_new();

/// 1 if word is one of STAR_HEAD_KEYWORDS, else 0.
int is_star_head_keyword(const char* word);

/// Sets every column number to 0. Returns 0.
int particle_info_index_init(ParticleInfoIndex* index);

/// A new index of zeros, which the caller frees with free. Ends the run if there is no memory.
ParticleInfoIndex* particle_info_index_new();

/// Reads the head from the start of the file, at most kStarHeadLines lines. A file without a head gives no
/// columns. Returns 0.
int star_read_head(FILE* file, StarHead* head);

/// Stores number in the field of that keyword; a keyword without a field changes nothing. Returns 0.
int set_info_index_from_keyword_number(const char* keyword, int number, ParticleInfoIndex* index);

/// Fills index from the head. Of a keyword that stands twice the later one counts. Returns 0.
int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index);

/// Places the file at the start of data line number `line`, counted from 0; without such a line at the start
/// of the last line there is. Returns 0.
int star_set_pointer(FILE* file, long line);

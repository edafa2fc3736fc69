#include "starfile.h"

#include <cstdlib>
#include <cstring>

#include "compute/text_numbers.h"
#include "platform/host_memory.h"
#include "str_utils.h"
#include "txt_file.h"

namespace {

enum class LineKind { kKeyword, kNeutral, kData };

// tokens[0] and tokens[1] are the line's first words, kept in the line itself; both are set for a keyword
// line.
LineKind classify_line(char* line, char* tokens[2]) {
  const int count = strnsplit_inplace(line, " \t\n\r", tokens, 2);
  if (count == 0) return LineKind::kNeutral;
  if (strncmp(tokens[0], "data_", 5) == 0 || strncmp(tokens[0], "loop_", 5) == 0) return LineKind::kNeutral;
  const bool is_keyword = count == 2 && tokens[1][0] == '#' && is_star_head_keyword(tokens[0]);
  return is_keyword ? LineKind::kKeyword : LineKind::kData;
}

void add_column(StarHead* head, const char* keyword, int number) {
  head->numbers[head->n] = number;
  strncpy(head->keywords[head->n], keyword, kStarKeywordBytes - 1);
  head->n++;
}

using ColumnField = int ParticleInfoIndex::*;

struct KeywordField {
  const char* keyword;
  ColumnField field;
};

constexpr KeywordField kKeywordFields[] = {
    {"_rlnBfactor", &ParticleInfoIndex::Bfactor},
    {"_rlnMicrographName", &ParticleInfoIndex::MicrographName},
    {"_rlnImageName", &ParticleInfoIndex::ImageName},
    {"_rlnCoordinateX", &ParticleInfoIndex::CoordinateX},
    {"_rlnCoordinateY", &ParticleInfoIndex::CoordinateY},
    {"_rlnVoltage", &ParticleInfoIndex::Voltage},
    {"_rlnPhaseShift", &ParticleInfoIndex::PhaseShift},
    {"_rlnDefocusU", &ParticleInfoIndex::DefocusU},
    {"_rlnDefocusV", &ParticleInfoIndex::DefocusV},
    {"_rlnDefocusAngle", &ParticleInfoIndex::DefocusAngle},
    {"_rlnSphericalAberration", &ParticleInfoIndex::SphericalAberration},
    {"_rlnDetectorPixelSize", &ParticleInfoIndex::DetectorPixelSize},
    {"_rlnMagnification", &ParticleInfoIndex::Magnification},
    {"_rlnAmplitudeContrast", &ParticleInfoIndex::AmplitudeContrast},
    {"_rlnCtfFigureOfMerit", &ParticleInfoIndex::CtfFigureOfMerit},
    {"_rlnCtfMaxResolution", &ParticleInfoIndex::CtfMaxResolution},
    {"_rlnClassNumber", &ParticleInfoIndex::ClassNumber},
    {"_rlnGroupNumber", &ParticleInfoIndex::GroupNumber},
    {"_rlnRandomSubset", &ParticleInfoIndex::RandomSubset},
    {"_rlnNormCorrection", &ParticleInfoIndex::NormCorrection},
    {"_rlnOriginX", &ParticleInfoIndex::OriginX},
    {"_rlnOriginY", &ParticleInfoIndex::OriginY},
    {"_rlnAngleRot", &ParticleInfoIndex::AngleRot},
    {"_rlnAngleTilt", &ParticleInfoIndex::AngleTilt},
    {"_rlnAnglePsi", &ParticleInfoIndex::AnglePsi},
    {"_rlnLogLikeliContribution", &ParticleInfoIndex::LogLikeliContribution},
    {"_rlnNrOfSignificantSamples", &ParticleInfoIndex::NrOfSignificantSamples},
    {"_rlnMaxValueProbDistribution", &ParticleInfoIndex::MaxValueProbDistribution},
    {"_rlnAutopickFigureOfMerit", &ParticleInfoIndex::AutopickFigureOfMerit}};

}  // namespace

int star_head_empty(StarHead* head) {
  memset(head, 0, sizeof *head);
  return 0;
}

StarHead* star_head_new() {
  auto* head = host_new<StarHead>(1);
  star_head_empty(head);
  return head;
}

int is_star_head_keyword(const char* word) {
  for (int i = 0; STAR_HEAD_KEYWORDS[i][0]; i++)
    if (strcmp(word, STAR_HEAD_KEYWORDS[i]) == 0) return 1;
  return 0;
}

int particle_info_index_init(ParticleInfoIndex* index) {
  *index = ParticleInfoIndex();
  return 0;
}

ParticleInfoIndex* particle_info_index_new() {
  auto* index = host_new<ParticleInfoIndex>(1);
  particle_info_index_init(index);
  return index;
}

int star_read_head(FILE* file, StarHead* head) {
  star_head_empty(head);
  rewind(file);
  char line[kTextBytes];
  for (int i = 0; i < kStarHeadLines && read_next_line(line, file); i++) {
    char* tokens[2];
    const LineKind kind = classify_line(line, tokens);
    if (kind == LineKind::kData) return 0;
    if (kind == LineKind::kKeyword) add_column(head, tokens[0], text_to_int(tokens[1] + 1));
  }
  return 0;
}

int set_info_index_from_keyword_number(const char* keyword, int number, ParticleInfoIndex* index) {
  for (const KeywordField& known : kKeywordFields)
    if (strcmp(keyword, known.keyword) == 0) index->*known.field = number;
  return 0;
}

int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index) {
  particle_info_index_init(index);
  for (int i = 0; i < head->n; i++) set_info_index_from_keyword_number(head->keywords[i], head->numbers[i], index);
  return 0;
}

int star_set_pointer(FILE* file, long line) {
  rewind(file);
  char text[kTextBytes];
  long data_lines = 0;
  long position = 0;
  while (!feof(file) && !ferror(file) && data_lines <= line) {
    position = ftell(file);
    read_next_line(text, file);
    char* tokens[2];
    if (classify_line(text, tokens) == LineKind::kData) data_lines++;
  }
  fseek(file, position, SEEK_SET);
  return 0;
}

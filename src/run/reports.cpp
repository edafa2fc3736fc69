#include "run/reports.h"

#include "compute/text_numbers.h"
#include "run/para_field.h"
#include "str_utils.h"

namespace {

using P = Kestrix_Para;

// A line that shows one field; the decimals are those of a real value.
struct Parameter_Row {
  const char* word;
  Para_Field field;
  int decimals = 0;
};

enum Row_Source { NEXT_ARGUMENT, FIELD };

// A line for an option that the user gave. It shows the text as given or the field in force.
struct Given_Row {
  const char* word;
  Para_Field field;
  Row_Source source;
  int decimals = 0;
  const char* label = nullptr;  // where the line's name differs from the option's
};

const Given_Row given_rows[] = {
    {"T", &P::T, NEXT_ARGUMENT},
    {"apixM", &P::apixM, NEXT_ARGUMENT, 3},
    {"diameter", &P::diameter, NEXT_ARGUMENT, 2},
    {"apixT", &P::apixT, NEXT_ARGUMENT, 3},
    {"ang_step", &P::ang_step, NEXT_ARGUMENT, 2},
    {"speed", &P::speed, NEXT_ARGUMENT},
    {"boxsize", &P::boxsize, NEXT_ARGUMENT},
    {"min_dist", &P::min_dist, NEXT_ARGUMENT, 2},
    {"update_T", &P::update_T, FIELD},
    {"cc_cutoff", &P::cc_cutoff, NEXT_ARGUMENT, 3},
    {"lsigma_cutoff", &P::lsigma_cutoff, NEXT_ARGUMENT, 3},
    {"lsigma_D", &P::lsigma_D, NEXT_ARGUMENT, 3},
    {"lave_min", &P::lave_min, NEXT_ARGUMENT, 3},
    {"lave_max", &P::lave_max, NEXT_ARGUMENT, 3},
    {"lave_D", &P::lave_D, NEXT_ARGUMENT, 3},
    {"dont_invertT", &P::dont_invertT, FIELD},
    {"lp", &P::lp, FIELD, 3},
    {"hp", &P::hp, FIELD, 3},
    {"do_pre_filter", &P::do_pre_filter, FIELD},
    {"pre_lp", &P::pre_lp, FIELD, 3},
    {"pre_hp", &P::pre_hp, FIELD, 3},
    {"detect_ice", &P::detect_ice, FIELD},
    {"T_norm_type", &P::T_norm_type, FIELD},
    {"center1_ratio", &P::center1_ratio, FIELD, 3},
    {"do_bandpass", &P::do_bandpass, FIELD},
    {"do_ctf", &P::do_ctf, FIELD},
    {"do_local_ctf", &P::do_local_ctf, FIELD, 0, "local_ctf"},
    {"kV", &P::kV, NEXT_ARGUMENT, 2},
    {"cs", &P::cs, NEXT_ARGUMENT, 2},
    {"ac", &P::ac, NEXT_ARGUMENT, 2},
    {"write_ccmax_mic", &P::write_ccmax_mic, FIELD},
    {"write_pf_mic", &P::write_pf_mic, FIELD},
    {"write_pref_mic", &P::write_pref_mic, FIELD},
    {"write_bg_mic", &P::write_bg_mic, FIELD},
    {"write_bgfree_mic", &P::write_bgfree_mic, FIELD},
    {"write_lsigma_mic", &P::write_lsigma_mic, FIELD},
    {"write_mic_mask", &P::write_mic_mask, FIELD},
    {"exclusive_picking", &P::exclusive_picking, FIELD},
    {"excluded_suffix", &P::excluded_suffix, FIELD},
    {"mask_excluded", &P::mask_excluded, FIELD},
    {"global_excluded_box", &P::global_excluded_box, FIELD, 0, "global_excluded_box    "},
    {"write_star", &P::write_star, FIELD},
    {"do_unfinished", &P::do_unfinished, FIELD},
    {"extract_raw", &P::extract_raw, FIELD},
    {"extract_pf", &P::extract_pf, FIELD},
    {"gid", &P::gid, NEXT_ARGUMENT},
};

const Parameter_Row basic_rows[] = {
    {"T", &P::T},
    {"apixM", &P::apixM, 3},
    {"diameter", &P::diameter, 2},
    {"apixT", &P::apixT, 3},
};

const Parameter_Row additional_rows[] = {
    {"ang_step", &P::ang_step, 2},
    {"speed", &P::speed},
    {"boxsize", &P::boxsize},
    {"min_dist", &P::min_dist, 2},
    {"cc_cutoff", &P::cc_cutoff, 3},
    {"lsigma_cutoff", &P::lsigma_cutoff, 3},
    {"lsigma_D", &P::lsigma_D, 3},
    {"lave_min", &P::lave_min, 3},
    {"lave_max", &P::lave_max, 3},
    {"lave_D", &P::lave_D, 3},
    {"dont_invertT", &P::dont_invertT},
    {"lp", &P::lp, 2},
    {"hp", &P::hp, 2},
    {"do_pre_filter", &P::do_pre_filter},
    {"pre_lp", &P::pre_lp, 2},
    {"pre_hp", &P::pre_hp, 2},
    {"detect_ice", &P::detect_ice},
    {"T_norm_type", &P::T_norm_type},
    {"do_bandpass", &P::do_bandpass},
};

const Parameter_Row ctf_rows[] = {
    {"do_ctf", &P::do_ctf}, {"do_local_ctf", &P::do_local_ctf}, {"kV", &P::kV, 2}, {"cs", &P::cs, 2}, {"ac", &P::ac, 2},
};

const Parameter_Row io_rows[] = {
    {"write_ccmax_mic", &P::write_ccmax_mic},
    {"write_pf_mic", &P::write_pf_mic},
    {"write_pref_mic", &P::write_pref_mic},
    {"write_bg_mic", &P::write_bg_mic},
    {"write_bgfree_mic", &P::write_bgfree_mic},
    {"write_lsigma_mic", &P::write_lsigma_mic},
    {"write_mic_mask", &P::write_mic_mask},
    {"write_star", &P::write_star},
    {"do_unfinished", &P::do_unfinished},
    {"write_rejected_box", &P::write_rejected_box},
    {"exclusive_picking", &P::exclusive_picking},
    {"excluded_suffix", &P::excluded_suffix},
    {"mask_excluded", &P::mask_excluded},
    {"global_excluded_box", &P::global_excluded_box},
    {"extract_raw", &P::extract_raw},
    {"extract_pf", &P::extract_pf},
    {"gid", &P::gid},
};

constexpr int kGivenWidth = 19;
constexpr int kParameterWidth = 21;

void put_label(const char* label, int width, FILE* out) { fprintf(out, "       --%-*s", width, label); }

void put_field(const Para_Field& field, int decimals, const Kestrix_Para* para, FILE* out) {
  if (field.real) fprintf(out, "%.*f\n", decimals, static_cast<double>(para->*field.real));
  if (field.integer) fprintf(out, "%d\n", para->*field.integer);
  if (field.text) fprintf(out, "%s\n", para->*field.text);
}

void put_argument(const Para_Field& field, int decimals, const char* argument, FILE* out) {
  if (field.real) fprintf(out, "%.*f\n", decimals, text_to_real(argument));
  if (field.integer) fprintf(out, "%d\n", text_to_int(argument));
  if (field.text) fprintf(out, "%s\n", argument);
}

const Given_Row* find_row(const char* argument) {
  for (const Given_Row& row : given_rows)
    if (keywd_cmp(argument, row.word)) return &row;
  return nullptr;
}

void put_given_options(int argc, char** argv, const Kestrix_Para* para, FILE* out) {
  for (int i = 1; i < argc; i++) {
    const Given_Row* row = find_row(argv[i]);
    if (!row) continue;
    // The value of an option may look like an option itself, and then be the last argument.
    if (row->source == NEXT_ARGUMENT && i + 1 >= argc) continue;
    put_label(row->label ? row->label : row->word, kGivenWidth, out);
    if (row->source == NEXT_ARGUMENT)
      put_argument(row->field, row->decimals, argv[++i], out);
    else
      put_field(row->field, row->decimals, para, out);
  }
}

template <size_t N>
void put_section(const char* head, const Parameter_Row (&rows)[N], const Kestrix_Para* para, FILE* out) {
  fprintf(out, "%s\n", head);
  for (const Parameter_Row& row : rows) {
    put_label(row.word, kParameterWidth, out);
    put_field(row.field, row.decimals, para, out);
  }
}

}  // namespace

// clang-format off
const char* const KESTRIX_OPTIONS[kKestrixOptions] = {
    "apixM", "T", "diameter", "ang_step", "speed", "boxsize", "min_dist", "cc_cutoff", "lsigma_cutoff",
    "lave_max", "lave_min", "lcutoff_D", "lp", "hp", "dont_invertT", "per_lp", "pre_hp", "do_pre_filter",
    "do_ctf", "do_local_ctf", "kv", "cs", "ac", "write_ccmax_mic", "write_pf_mic", "write_bg_mic",
    "write_bgfree_mic", "write_lsigma_mic", "write_mic_mask", "extract_raw", "extract_pf",
    "write_rejected_box", "write_star", "exclusive_picking", "excluded_suffix", "mask_excluded",
    "global_excluded_box", "gid",
};
// clang-format on

void put_rule(char c, int length, FILE* out) {
  for (int i = 0; i < length; i++) fputc(c, out);
  fputc('\n', out);
}

void kestrix_fput_parameters(int argc, char** argv, const Kestrix_Para* para, FILE* out) {
  put_rule('*', 99, out);
  fprintf(out, "User input parameters:\n");
  put_given_options(argc, argv, para, out);
  fprintf(out, "\nAll parameters to be used:\n");
  put_section("Basic options:  ", basic_rows, para, out);
  put_section("Additional options:  ", additional_rows, para, out);
  put_section("CTF options: ", ctf_rows, para, out);
  put_section("I/O options:  ", io_rows, para, out);
  fprintf(out, "\n\nAll %d files to be used:\n", para->n_files);
  for (int i = 0; i < para->n_files; i++) fprintf(out, "        %s\n", para->files[i]);
}

void kestrix_print_valid_options() {
  put_rule('-', 130, stdout);
  puts("All valid options:");
  for (const char* word : KESTRIX_OPTIONS) printf("--%s\t ", word);
  puts("");
  put_rule('-', 128, stdout);
}

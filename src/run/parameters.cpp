#include "run/parameters.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "compute/text_numbers.h"
#include "cuda_general.h"
#include "platform/failure.h"
#include "run/micrograph_image.h"
#include "run/para_field.h"
#include "run/reports.h"
#include "run/value_notes.h"
#include "str_utils.h"
#include "templates/templates.h"

namespace {

constexpr char unit[] = "parameters";

// Which of the options were given whose absence has a consequence.
struct Given {
  bool T, apixM, apixT, diameter, min_dist, boxsize, lsigma_D, lave_D;
  bool speed, cc_cutoff, ice_limits, band, robust_ice, learn_template, auto_cutoff;
};

using Given_Mark = bool Given::*;

enum Option_Kind { WITH_VALUE, FLAG };

struct Option {
  const char* keyword;
  Para_Field field;
  Option_Kind kind = WITH_VALUE;
  Given_Mark mark = nullptr;
  OwnOption help = {};  // of options that the short help doesn't know
};

using P = Kestrix_Para;

const Option options[] = {
    {"T", &P::T, WITH_VALUE, &Given::T},
    {"apixM", &P::apixM, WITH_VALUE, &Given::apixM},
    {"apixT", &P::apixT, WITH_VALUE, &Given::apixT},
    {"diameter", &P::diameter, WITH_VALUE, &Given::diameter},
    {"ang_step", &P::ang_step},
    {"speed", &P::speed, WITH_VALUE, &Given::speed},
    {"boxsize", &P::boxsize, WITH_VALUE, &Given::boxsize},
    {"min_dist", &P::min_dist, WITH_VALUE, &Given::min_dist},
    {"update_T", &P::update_T, FLAG},
    {"cc_cutoff", &P::cc_cutoff, WITH_VALUE, &Given::cc_cutoff},
    {"lsigma_cutoff", &P::lsigma_cutoff, WITH_VALUE, &Given::ice_limits},
    {"lave_max", &P::lave_max, WITH_VALUE, &Given::ice_limits},
    {"lave_min", &P::lave_min, WITH_VALUE, &Given::ice_limits},
    {"lsigma_D", &P::lsigma_D, WITH_VALUE, &Given::lsigma_D},
    {"lave_D", &P::lave_D, WITH_VALUE, &Given::lave_D},
    {"lp", &P::lp, WITH_VALUE, &Given::band},
    {"hp", &P::hp, WITH_VALUE, &Given::band},
    {"pre_lp", &P::pre_lp},
    {"pre_hp", &P::pre_hp},
    {"do_pre_filter", &P::do_pre_filter, FLAG},
    {"dont_invertT", &P::dont_invertT, FLAG},
    {"detect_ice", &P::detect_ice, FLAG},
    {"T_norm_type", &P::T_norm_type},
    {"center1_ratio", &P::center1_ratio},
    {"do_bandpass", &P::do_bandpass, FLAG},
    {"do_ctf", &P::do_ctf, FLAG},
    {"do_local_ctf", &P::do_local_ctf, FLAG},
    {"kv", &P::kV},
    {"cs", &P::cs},
    {"ac", &P::ac},
    {"write_ccmax_mic", &P::write_ccmax_mic, FLAG},
    {"write_pf_mic", &P::write_pf_mic, FLAG},
    {"write_pref_mic", &P::write_pref_mic, FLAG},
    {"write_bg_mic", &P::write_bg_mic, FLAG},
    {"write_bgfree_mic", &P::write_bgfree_mic, FLAG},
    {"write_lsigma_mic", &P::write_lsigma_mic, FLAG},
    {"write_mic_mask", &P::write_mic_mask, FLAG},
    {"write_star", &P::write_star, FLAG},
    {"do_unfinished", &P::do_unfinished, FLAG},
    {"exclusive_picking", &P::exclusive_picking, FLAG},
    {"mask_excluded", &P::mask_excluded, FLAG},
    {"excluded_suffix", &P::excluded_suffix},
    {"global_excluded_box", &P::global_excluded_box},
    {"extract_raw", &P::extract_raw, FLAG},
    {"extract_pf", &P::extract_pf, FLAG},
    {"gid", &P::gid},
    // Of our own:
    {"auto",
     &P::auto_picks,
     FLAG,
     nullptr,
     {"Picks that need no tuning", "auto", "[0|1]",
      "Give --apixM and --diameter alone: ice, particle size, template and cutoff are found on each micrograph. The "
      "sum "
      "of the three options below, on a working pixel and in a band of its own"}},
    {"robust_ice",
     &P::robust_ice,
     FLAG,
     &Given::robust_ice,
     {"Picks that need no tuning", "robust_ice", "[0|1]",
      "Close ice, contamination and carbon pixel by pixel, by limits that the micrograph itself sets"}},
    {"learn_template",
     &P::learn_template,
     FLAG,
     &Given::learn_template,
     {"Picks that need no tuning", "learn_template", "[0|1]",
      "Match the mean of what the micrograph shows in place of the automatic template"}},
    {"auto_cutoff",
     &P::auto_cutoff,
     FLAG,
     &Given::auto_cutoff,
     {"Picks that need no tuning", "auto_cutoff", "[0|1]",
      "Find each micrograph's cutoff from its scores; one without particles gets empty lists"}},
    {"learn_from",
     &P::learn_from,
     WITH_VALUE,
     nullptr,
     {"Picks that need no tuning", "learn_from", "N",
      "With --auto: look at N micrographs, spread over the list, for the size, template and cutoff that all of them "
      "share; "
      "for sparse micrographs of low signal"}},
    {"learned",
     &P::learned,
     WITH_VALUE,
     nullptr,
     {"Picks that need no tuning", "learned", "FILE",
      "What was learned, [kestrix_learned.star] among the outputs; a FILE that is there is read, and nothing learned "
      "anew"}},
    {"write_learned",
     &P::write_learned,
     FLAG,
     nullptr,
     {"Picks that need no tuning", "write_learned", "[0|1]",
      "Write the template found as _learned.mrcs, which --T takes at the working pixel size"}},
    {"skip_empty_templates",
     &P::skip_empty_templates,
     FLAG,
     nullptr,
     {"Input that needs care", "skip_empty_templates", "[0|1]", "Leave out templates that are zero everywhere"}},
    {"clip_outliers",
     &P::clip_outliers,
     WITH_VALUE,
     nullptr,
     {"Input that needs care", "clip_outliers", "NUMBER",
      "Limit raw pixels to so many robust deviations from the median"}},
    {"any_format",
     &P::any_format,
     FLAG,
     nullptr,
     {"Input that needs care", "any_format", "[0|1]",
      "Read MRC files of every kind, compressed ones and TIFF by what they are, and the pixel size of the first where "
      "--apixM isn't given; as whole sessions do"}},
    {"signed_bytes",
     &P::signed_bytes,
     FLAG,
     nullptr,
     {"Input that needs care", "signed_bytes", "[0|1]",
      "With --any_format: whether bytes of MRC files are signed, whatever their headers say"}},
    {"micrographs",
     &P::micrographs,
     WITH_VALUE,
     nullptr,
     {"Whole sessions", "micrographs", "FILE",
      "A list of micrographs, a path a line, or RELION's micrographs STAR file, whose pixel size counts where --apixM "
      "isn't given; - reads standard input"}},
    {"odir",
     &P::odir,
     WITH_VALUE,
     nullptr,
     {"Whole sessions", "odir", "FOLDER", "Write all outputs there, not beside the micrographs"}},
    {"shard",
     &P::shard,
     WITH_VALUE,
     nullptr,
     {"Whole sessions", "shard", "K/N|slurm",
      "Take every N-th micrograph from the K-th on; slurm: as the number of the array's task says"}},
    {"check",
     &P::check,
     FLAG,
     nullptr,
     {"Whole sessions", "check", "[0|1]", "Read every header, name what can't be picked, and pick nothing"}},
    {"keep_going",
     &P::keep_going,
     FLAG,
     nullptr,
     {"Whole sessions", "keep_going", "[0|1]",
      "Pass over micrographs that can't be picked, name them in kestrix_failed.txt, and end with status 3; take "
      "micrographs of several sizes"}},
    {"summary",
     &P::summary,
     WITH_VALUE,
     nullptr,
     {"Whole sessions", "summary", "FILE", "Write a STAR table with a row for each micrograph as it is finished"}},
    {"progress",
     &P::progress,
     FLAG,
     nullptr,
     {"Whole sessions", "progress", "[0|1]",
      "Tell on standard error how far the session is, though that is no terminal"}},
    {"watch",
     &P::watch,
     WITH_VALUE,
     nullptr,
     {"Whole sessions", "watch", "SECONDS",
      "Go on with micrographs that appear in the folders given and in the list, until none came for so long"}},
};

void* cleared_memory(size_t count, size_t bytes) {
  void* memory = calloc(count, bytes);
  if (!memory) KESTRIX_FATAL("not enough memory for the parameters");
  return memory;
}

char* null_text() {
  char* text = static_cast<char*>(cleared_memory(kTextBytes, 1));
  strlcpy(text, "NULL");
  return text;
}

const Option* find_option(const char* argument) {
  for (const Option& option : options)
    if (keywd_cmp(argument, option.keyword)) return &option;
  return nullptr;
}

// The argument after the option at argv[i], to which i moves on.
const char* value_of_option(int argc, char** argv, int& i) {
  if (i + 1 >= argc) {
    char message[100];
    snprintf(message, sizeof message, "the option %.40s must be followed by a value", argv[i]);
    kestrix_help_exit(argv[0], message);
  }
  return argv[++i];
}

void store_value(const Option& option, const char* value, Kestrix_Para* para) {
  const Para_Field& field = option.field;
  if (field.real) note_real_read(option.keyword, value, para->*field.real = static_cast<float>(text_to_real(value)));
  if (field.integer) note_integer_read(option.keyword, value, para->*field.integer = text_to_int(value));
  if (field.text) {
    if (!text_fits(value))
      KESTRIX_FATAL("the value of --%s is too long ('%.40s...'): it may have at most %zu characters", option.keyword,
                    value, kTextBytes - 1);
    strlcpy(para->*field.text, value);
  }
  if (field.integer == &P::speed) kestrix_speed2shrink(para->speed, para->shrink);
}

void take_flag(int argc, char** argv, int& i, const Option& option, Kestrix_Para* para) {
  const int before = i;
  int& flag = para->*option.field.integer;
  get_bool_keyword(argc, argv, i, flag);
  if (i > before) note_flag_read(option.keyword, argv[i], flag);
}

// Letters to change, add, leave out or swap with their neighbour to turn one word into the other, case aside (the optimal
// string alignment distance).
size_t letters_apart(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  const auto same = [&](size_t i, size_t j) { return tolower(a[i - 1]) == tolower(b[j - 1]); };
  for (size_t i = 0; i <= a.size(); i++) {
    for (size_t j = 0; j <= b.size(); j++) {
      d[i][j] = i == 0 ? j : i;
      if (i == 0 || j == 0) continue;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (same(i, j) ? 0 : 1)});
      if (i > 1 && j > 1 && same(i, j - 1) && same(i - 1, j)) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

// Says which known option was meant, where one is spelt alike: a third of its letters apart at the most.
void note_nearest_option(const char* argument) {
  const std::string word = argument + std::min(strspn(argument, "-"), size_t{2});
  const auto apart = [&](const Option& option) { return letters_apart(word.substr(0, 64), option.keyword); };
  const Option* nearest = std::min_element(std::begin(options), std::end(options),
                                           [&](const Option& a, const Option& b) { return apart(a) < apart(b); });
  if (3 * apart(*nearest) <= strlen(nearest->keyword))
    safety_note(nullptr, "there is no option %.64s; did you mean --%s?", argument, nearest->keyword);
}

[[noreturn]] void refuse_option(const char* argument) {
  printf(
      "\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR:\x1b[min function %s(), file %s on line %d. "
      "Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m%s!\x1b[m Exit now. Check your input please.\n\n",
      __func__, unit, __LINE__, argument);
  kestrix_print_valid_options();
  note_nearest_option(argument);
  end_run(EXIT_SUCCESS);
}

// Takes in argv[i] and, if it is an option, its value, to which i moves on.
void take_argument(int argc, char** argv, int& i, Kestrix_Para* para, Given& given) {
  const Option* option = find_option(argv[i]);
  if (option) {
    if (option->kind == FLAG)
      take_flag(argc, argv, i, *option, para);
    else
      store_value(*option, value_of_option(argc, argv, i), para);
    if (option->mark) given.*option->mark = true;
    return;
  }
  if (argv[i][0] == '-') refuse_option(argv[i]);
  if (!text_fits(argv[i]))
    KESTRIX_FATAL("the file name '%.40s...' is too long: it may have at most %zu characters", argv[i], kTextBytes - 1);
  para->files[para->n_files++] = argv[i];
}

// Whole sessions read any format. Bytes are as headers have them where that was asked for, else unsigned as ever.
void settle_formats(Kestrix_Para* para) {
  const bool is_session = para->check || para->keep_going || para->watch > 0 || !is_str_null(para->micrographs) ||
                          !is_str_null(para->summary);
  const bool asked = para->any_format == 1 || (para->any_format < 0 && para->signed_bytes >= 0);
  if (para->any_format < 0) para->any_format = asked || is_session;
  if (!asked && para->signed_bytes < 0) para->signed_bytes = 0;
}

// The pixel size of the first micrograph's header. Returns whether it tells one.
bool take_pixel_size(Kestrix_Para* para) {
  const char* name = nullptr;
  const float size = pixel_size_of_list(para, &name);
  if (!(size > 0)) return false;
  para->apixM = size;
  safety_note(name, "its header says %g A a pixel, which is taken for --apixM.", static_cast<double>(size));
  return true;
}

void derive_from_diameter(Kestrix_Para* para, const Given& given) {
  const double diameter = para->diameter;
  const double apixM = para->apixM;
  if (!given.min_dist) para->min_dist = static_cast<float>(diameter * 0.8);
  if (!given.boxsize) para->boxsize = saturating_int(diameter * 1.33 / apixM) / 2 * 2;
  if (!given.lsigma_D) para->lsigma_D = static_cast<float>(diameter * 0.5 + 100.0);
  if (!given.lave_D) para->lave_D = static_cast<float>(diameter * 0.3 + 200.0);
}

void derive_pixel_values(Kestrix_Para* para) {
  const float s = static_cast<float>(para->shrink);
  const float apixM = para->apixM;
  para->min_dist_px = para->min_dist / (s * apixM);
  para->radius_px = (para->radius_ratio * para->diameter) / (s * (apixM + apixM));
  para->lsigma_radius_px = para->lsigma_D / (s * (apixM + apixM));
  para->lave_radius_px = para->lave_D / (s * (apixM + apixM));
}

void settle_options_not_given(Kestrix_Para* para, const Given& given) {
  if (!given.diameter)
    puts("Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.");
  if (!given.T)
    puts(
        "Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will "
        "be "
        "used. This is fine for 'spherical particles' like virus or ribosome. Do use templates for "
        "non-spherical particles.");
  if (!given.apixM)
    puts(
        "Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be "
        "1.34Å "
        "by default.");
  if (!given.apixT) {
    puts(
        "Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the "
        "same as micrographs by default.");
    para->apixT = para->apixM;
  }
}

// Working pixels along the particle at the least, where the raw pixels allow it.
constexpr double kPixelsAcross = 24;

// The parts of --auto that nothing given contradicts.
void settle_auto(Kestrix_Para* para, const Given& given) {
  para->keeps_min_dist = given.min_dist;
  if (para->auto_picks) {
    if (!given.robust_ice) para->robust_ice = !given.ice_limits;
    if (!given.learn_template) para->learn_template = 1;
    if (!given.auto_cutoff) para->auto_cutoff = !given.cc_cutoff;
    para->keeps_cutoff = !para->auto_cutoff;
    const double across = static_cast<double>(para->diameter) / (kPixelsAcross * static_cast<double>(para->apixM));
    if (!given.speed) kestrix_set_shrink(para, std::max(1, saturating_int(across)));
  }
  if (!para->auto_template) para->learn_template = 0;
}

// What was given in place of a part of --auto, and what has no effect with it.
void note_overridden_auto(const Kestrix_Para* para, const Given& given) {
  if (!para->auto_picks) return;
  if (given.cc_cutoff && !given.auto_cutoff)
    safety_note(nullptr, "--cc_cutoff is given: it takes the place of the cutoff that --auto finds, in its units.");
  if (given.ice_limits && !given.robust_ice)
    safety_note(nullptr, "limits of ice detection are given: they take the place of those that --auto finds.");
  if (given.speed) safety_note(nullptr, "--speed is given: it takes the place of the working pixel of --auto.");
  if (given.band)
    safety_note(nullptr, "--lp and --hp have no effect with --auto, whose band follows the particle's size.");
}

void require_positive(const char* option, const char* meaning, float value) {
  if (!std::isfinite(value) || value <= 0)
    KESTRIX_FATAL("--%s is %g: %s must be a number above 0", option, static_cast<double>(value), meaning);
}

// Lists that the run begins anew before it has taken the excluded coordinates from them.
void refuse_own_lists(const Kestrix_Para* para) {
  if (!para->exclusive_picking) return;
  const char* suffix = para->excluded_suffix;
  const bool candidates = strcmp(suffix, "_nonunique.box") == 0;
  const bool rejected = strcmp(suffix, "_rejected.box") == 0 || strcmp(suffix, "_rejected.star") == 0;
  if (candidates || (rejected && para->detect_ice && para->write_rejected_box))
    KESTRIX_FATAL("--excluded_suffix is %s: this run itself overwrites these lists; copy them and name the copies%s",
                  suffix, rejected ? ", or give --detect_ice 0" : "");
}

const char* kind_of_value(const Option& option) {
  const std::string argument = option.help.word ? option.help.argument : "";
  if (option.kind == FLAG) return "flag";
  if (!option.field.text) return "number";
  if (argument == "FOLDER") return "folder";
  const bool is_file = option.field.text == &P::T || option.field.text == &P::global_excluded_box || argument == "FILE";
  return is_file ? "file" : "text";
}

}  // namespace

void put_option_table() {
  for (const Option& option : options) printf("--%s %s\n", option.keyword, kind_of_value(option));
  for (const char* word : {"help", "help_more", "version"}) printf("--%s flag\n", word);
}

OwnOption own_option(int index) {
  for (const Option& option : options)
    if (option.help.word && index-- == 0) return option.help;
  return {};
}

void kestrix_init_parameters(int argc, Kestrix_Para* para) {
  *para = Kestrix_Para{};
  para->files = static_cast<char**>(cleared_memory(argc > 0 ? static_cast<size_t>(argc) : 1, sizeof(char*)));
  para->T = null_text();
  para->apixM = 1.34f;
  para->diameter = 400.0f;
  para->shrink = 4;
  para->speed = 2;
  para->ang_step = 5.0f;
  para->cc_cutoff = 0.15f;
  para->lp = 40.0f;
  para->hp = 1000.0f;
  para->pre_lp = 8.0f;
  para->pre_hp = 1000.0f;
  para->T_norm_type = 1;
  para->center1_ratio = 0.05f;
  para->do_bandpass = 1;
  para->kV = 300.0f;
  para->cs = 2.7f;
  para->ac = 0.1f;
  para->lave_max = 1.0f;
  para->lave_min = -1.0f;
  para->lsigma_cutoff = 1.3f;
  para->detect_ice = 1;
  para->excluded_suffix = null_text();
  para->global_excluded_box = null_text();
  para->micrographs = null_text();
  para->odir = null_text();
  para->summary = null_text();
  para->shard = null_text();
  para->learned = null_text();
  para->write_rejected_box = 1;
  para->write_star = 1;
  para->local_edge_width = 8.0f;
  para->radius_ratio = 1.3f;
  para->psi_start = 0.0f;
  para->psi_end = 359.0f;
  para->any_format = para->signed_bytes = -1;
}

void kestrix_get_parameters(int argc, char** argv, Kestrix_Para* para) {
  Given given = {};
  for (int i = 1; i < argc; i++) take_argument(argc, argv, i, para, given);
  settle_formats(para);
  if (para->any_format && !given.apixM) given.apixM = take_pixel_size(para);
  para->auto_template = is_auto_template(para->T);
  derive_from_diameter(para, given);
  derive_pixel_values(para);
  settle_auto(para, given);
  if (para->n_files == 0 && !(para->watch > 0)) kestrix_help_exit(argv[0], "No valid files to be processed.");
  if (check_and_set_gid(para->gid) == -1) kestrix_help_exit(argv[0], "Failed to find any usable GPU device!");
  settle_options_not_given(para, given);
  note_overridden_auto(para, given);
}

int kestrix_find_value(int argc, char** argv, const char* word) {
  const std::string keyword = std::string("--") + word;
  const Option* wanted = find_option(keyword.c_str());
  int position = 0;
  for (int i = 1; i < argc; i++) {
    const Option* option = find_option(argv[i]);
    int flag = 0;
    if (!option) continue;
    if (option->kind == FLAG) {
      get_bool_keyword(argc, argv, i, flag);
    } else if (++i < argc && option == wanted) {
      position = i;
    }
  }
  return position;
}

void kestrix_check_parameters(const Kestrix_Para* para) {
  require_positive("apixM", "the pixel size of the micrographs in angstrom", para->apixM);
  require_positive("apixT", "the pixel size of the templates in angstrom", para->apixT);
  require_positive("diameter", "the particle diameter in angstrom", para->diameter);
  require_positive("min_dist", "the least distance between particles in angstrom", para->min_dist);
  if (para->boxsize < 1)
    KESTRIX_FATAL(
        "--boxsize is %d: the box must be at least 1 pixel (when not given it is 1.33 times --diameter over "
        "--apixM, "
        "made even)",
        para->boxsize);
  const bool scans_one_angle = para->auto_template != 0;
  if (!scans_one_angle && (!std::isfinite(para->ang_step) || para->ang_step < 0.001f))
    KESTRIX_FATAL("--ang_step is %g: the angular step must be a number of at least 0.001 degrees",
                  static_cast<double>(para->ang_step));
  refuse_own_lists(para);
}

void kestrix_set_shrink(Kestrix_Para* para, int shrink) {
  para->shrink = shrink;
  derive_pixel_values(para);
}

void kestrix_free_parameters(Kestrix_Para* para) {
  free(para->files);
  free(para->T);
  free(para->excluded_suffix);
  free(para->global_excluded_box);
  free(para->micrographs);
  free(para->odir);
  free(para->summary);
  free(para->shard);
  free(para->learned);
  para->files = nullptr;
  para->T = para->excluded_suffix = para->global_excluded_box = nullptr;
  para->micrographs = para->odir = para->summary = para->shard = para->learned = nullptr;
}

void kestrix_speed2shrink(int& speed, int& shrink) {
  static const int shrink_of_speed[] = {1, 2, 4, 6, 8};
  if (speed < 0 || speed > 4) KESTRIX_FATAL("speed level must belong to {0,1,2,3,4}");
  shrink = shrink_of_speed[speed];
}

void get_bool_keyword(int argc, char** argv, int& i, int& flag) {
  flag = 1;
  if (i + 1 >= argc) return;
  const char* next = argv[i + 1];
  const bool belongs_to_next_step = next[0] == '-' || isalpha(static_cast<unsigned char>(next[0]));
  if (belongs_to_next_step) return;
  flag = text_to_int(next) != 0;
  i++;
}

void kestrix_help_exit(const char* program, const char* message) {
  kestrix_help(program);
  KESTRIX_FATAL("%s", message);
}

#include "session/learning.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/failure.h"
#include "run/session_learning.h"
#include "session/learned_file.h"
#include "session/picker.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "learning";

bool shares(const Kestrix_Para& para) { return para.learn_from > 0 || !is_str_null(para.learned); }

bool is_there(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

// A file of no given name may be of any earlier session, unless this one goes on with it.
bool is_to_be_read(const Kestrix_Para& para) {
  return (!is_str_null(para.learned) || para.do_unfinished) && is_there(learned_file(para));
}

bool is_learned(const Run* run) { return run->learned.diameter > 0; }

void refuse_what_cannot_share(const Kestrix_Para& para) {
  if (para.learn_from < 0) KESTRIX_FATAL("--learn_from is %d: it must be a number of micrographs", para.learn_from);
  if (!shares(para)) return;
  if (!para.auto_picks || !para.auto_cutoff)
    KESTRIX_FATAL("--learn_from and --learned share what --auto finds: give --auto 1 and no --cc_cutoff");
  if (!para.auto_template)
    KESTRIX_FATAL("--learn_from and --learned find a template of their own: leave --T away, or pick without them");
  if (!para.learn_template)
    KESTRIX_FATAL("--learn_from and --learned find size and template: they don't go with --learn_template 0");
  if (para.learn_from == 0 && !is_there(para.learned))
    KESTRIX_FATAL("--learned %s isn't there; give --learn_from N to learn it from N micrographs", para.learned);
}

// The first micrograph that can be looked at in each of so many equal parts of the list.
std::vector<std::string> choose_micrographs(const Kestrix_Para& para) {
  std::vector<std::string> chosen;
  const long n = para.n_files;
  const long wanted = std::min<long>(para.learn_from, n);
  for (long part = 0; part < wanted; part++) {
    for (long i = part * n / wanted; i < (part + 1) * n / wanted; i++) {
      ImageFacts facts;
      const std::string problem = problem_of_micrograph(para.files[i], para, true, &facts);
      if (problem.empty()) {
        chosen.emplace_back(para.files[i]);
        break;
      }
      safety_note(para.files[i], "%s; nothing is learned from it.", problem.c_str());
    }
  }
  return chosen;
}

// Nothing but what is learned is written.
void write_nothing(Kestrix_Para* para) {
  for (int* flag : {&para->write_ccmax_mic, &para->write_pref_mic, &para->write_bg_mic, &para->write_bgfree_mic,
                    &para->write_lsigma_mic, &para->write_mic_mask, &para->write_rejected_box, &para->write_learned})
    *flag = 0;
}

void look_at_all(Run* run, std::vector<std::string>* names) {
  const auto is_of_other_size = [run](const std::string& name) {
    if (look_at_micrograph(run, name.c_str())) return false;
    safety_note(name.c_str(), "is of another size than %s; nothing is learned from it.", run->para.first_file);
    return true;
  };
  names->erase(std::remove_if(names->begin(), names->end(), is_of_other_size), names->end());
  end_look(run);
}

// run->para stays as it was.
LearnedPicks learn_from(Run* run, std::vector<std::string> names) {
  const Kestrix_Para asked = run->para;
  const std::string first = names.front();
  char* files[] = {const_cast<char*>(first.c_str())};
  write_nothing(&run->para);
  run->para.files = files;
  run->para.n_files = 1;
  prepare_run(run);
  SessionLearning learning{};
  run->learning = &learning;
  for (int look = 0; look < kLooks; look++) look_at_all(run, &names);
  const LearnedPicks learned = end_learning(run);
  run->learning = nullptr;
  session_learning_free(&learning);
  release_run(run);
  run->para = asked;
  return learned;
}

void tell(const LearnedPicks& learned, const std::string& file) {
  if (learned.rule == kNoParticles) {
    safety_note(file.c_str(), "%d micrographs together show no particles; each micrograph goes by itself.",
                learned.micrographs);
    return;
  }
  safety_note(file.c_str(), "learned from %d micrographs: particles of %.0f Å, %s, cutoff %.3f, which %d peaks reach.",
              learned.micrographs, static_cast<double>(learned.share * learned.diameter),
              learned.mean ? "matched with their mean" : "matched with the ball", static_cast<double>(learned.cutoff),
              learned.peaks);
}

}  // namespace

void read_learned(Run* run) {
  refuse_what_cannot_share(run->para);
  if (!shares(run->para) || !is_to_be_read(run->para)) return;
  const std::string file = learned_file(run->para);
  if (!check_file_regular(file.c_str())) KESTRIX_FATAL("--learned %s is no file; give the name of one", file.c_str());
  run->learned = read_learned_file(file, run->para);
  tell(run->learned, file);
}

void refuse_to_learn(const Run* run, const char* what) {
  if (!shares(run->para) || is_learned(run)) return;
  KESTRIX_FATAL(
      "%s can't learn for all, and %s isn't there to be read; pick some micrographs first with kestrix, one device, "
      "--learn_from N and --learned FILE, and give --learned FILE here",
      what, learned_file(run->para).c_str());
}

void learn_for_session(Run* run) {
  if (!shares(run->para) || is_learned(run)) return;
  if (run->para.watch > 0) refuse_to_learn(run, "A session of --watch");
  if (!is_str_null(run->para.shard)) refuse_to_learn(run, "A run with --shard");
  std::vector<std::string> names = choose_micrographs(run->para);
  if (names.empty()) {
    safety_note(nullptr, "no micrograph can be looked at for --learn_from; each goes by itself.");
    return;
  }
  const std::string file = learned_file(run->para);
  run->learned = learn_from(run, std::move(names));
  write_learned_file(file, run->learned);
  tell(run->learned, file);
}

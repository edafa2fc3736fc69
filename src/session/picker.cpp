#include "session/picker.h"

#include "run/micrograph_image.h"
#include "run/stage_timer.h"

namespace {

using Clock = std::chrono::steady_clock;

RunTally difference(const RunTally& a, const RunTally& b) {
  return {a.picked - b.picked, a.skipped - b.skipped, a.noted - b.noted, a.picks - b.picks};
}

}  // namespace

std::string problem_of_micrograph(const std::string& name, const Kestrix_Para& para, bool whole, ImageFacts* facts,
                                  std::unique_ptr<ImageFile>* opened) {
  *facts = look_at_image(name.c_str(), image_options(&para), whole, opened);
  if (!facts->problem.empty()) return facts->problem;
  if (para.extract_raw && whole && !facts->exact)
    return "isn't as long as its header says, so that particles can't be cut out";
  return "";
}

Taken failed_micrograph(const std::string& name, const std::string& problem) {
  return {{name, kRowFailed, {}, 0}, problem, {}};
}

void Picker::prepare_for_list() {
  prepare_run(run_);
  prepared_ = true;
  time_pop("PREPARATION");
}

std::string Picker::look_at(const std::string& name, ImageFacts* facts) {
  begin_ = Clock::now();
  image_.reset();
  if (!asked_.keep_going) return "";
  const bool whole = !is_finished_before(&asked_, name.c_str());  // else nothing will be read
  std::string problem = problem_of_micrograph(name, asked_, whole, facts, &image_);
  if (problem.empty() && prepared_ && !fits_run(run_, facts->head)) unprepare();
  return problem;
}

void Picker::unprepare() {
  if (!prepared_) return;
  release_run(run_);
  prepared_ = false;
  time_push();
}

void Picker::prepare_for(const std::string& name) {
  if (prepared_) return;
  run_->para = asked_;
  run_->para.files[0] = const_cast<char*>(name.c_str());
  run_->para.n_files = 1;
  prepare_for_list();
}

Taken Picker::pick(const std::string& name) {
  const RunTally before = run_->tally;
  const bool picked = pick_micrograph(run_, name.c_str(), std::move(image_)) == kPicked;
  const double seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
  return {{name, picked ? kRowPicked : kRowFinishedBefore, run_->findings, picked ? seconds : 0},
          "",
          difference(run_->tally, before)};
}

Taken Picker::take(const std::string& name, const std::string& next) {
  ImageFacts facts;
  const std::string problem = look_at(name, &facts);
  if (!problem.empty()) return failed_micrograph(name, problem);
  prepare_for(name);
  if (!next.empty() && !is_finished_before(&asked_, next.c_str())) read_ahead_.begin(next);
  return pick(name);
}

#include "session/session.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/image_diagnosis.h"
#include "platform/failure.h"
#include "platform/outputs.h"
#include "run/micrograph_image.h"
#include "run/stage_timer.h"
#include "session/begin_run.h"
#include "session/check.h"
#include "session/progress.h"
#include "session/summary.h"
#include "session/watch.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "session";
constexpr int kSomeFailed = 3;
constexpr char kStopFile[] = "kestrix.stop";
constexpr double kLongestWait = 0.5;  // seconds, so that a folder without events is looked at all the same

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

std::string text_of(const char* value) { return is_str_null(value) ? "" : value; }

class Session {
 public:
  // run: read, and not prepared.
  explicit Session(Run* run)
      : run_(run),
        asked_(run->para),
        summary_(text_of(asked_.summary), asked_.do_unfinished != 0),
        progress_(asked_.progress) {
    for (int i = 0; i < asked_.n_files; i++) names_.emplace_back(asked_.files[i]);
  }

  SessionEnd pick_list() {
    if (!asked_.keep_going && !names_.empty()) {
      prepare_run(run_);
      prepared_ = true;
      names_.front() = run_->para.files[0];  // where the first wasn't readable, one that is
      time_pop("PREPARATION");
    }
    listed_ = static_cast<int>(names_.size());
    for (const std::string& name : names_) take(name);
    return finish();
  }

  SessionEnd watch() {
    Watch watch(watched_folders(), text_of(asked_.micrographs), image_options(&asked_));
    for (const std::string& name : names_)
      if (!std::filesystem::is_directory(name)) watch.look_at(name);
    for (const std::string& folder : stop_folders()) unlink((folder + "/" + kStopFile).c_str());
    names_.clear();
    Clock::time_point last = Clock::now();
    while (!is_stopped() && seconds_since(last) < static_cast<double>(asked_.watch)) {
      const std::vector<std::string> found = watch.take_new();
      if (found.empty()) watch.wait(kLongestWait);
      for (const std::string& name : found) {
        if (is_stopped()) break;
        take_watched(name, static_cast<int>(found.size()));
        last = Clock::now();
      }
    }
    for (const std::string& name : watch.incomplete()) tell_incomplete(name);
    return finish();
  }

 private:
  void take_watched(const std::string& name, int found) {
    names_.push_back(name);
    listed_ = std::max(listed_, done_ + found);
    take(names_.back());
  }

  std::vector<std::string> watched_folders() const {
    std::vector<std::string> folders;
    for (const std::string& name : names_)
      if (std::filesystem::is_directory(name)) folders.push_back(name);
    return folders;
  }

  std::vector<std::string> stop_folders() const {
    if (!is_str_null(asked_.odir)) return {asked_.odir};
    std::vector<std::string> folders;
    for (int i = 0; i < asked_.n_files; i++)
      if (std::filesystem::is_directory(asked_.files[i])) folders.emplace_back(asked_.files[i]);
    if (folders.empty()) folders.emplace_back(".");
    return folders;
  }

  bool is_stopped() {
    for (const std::string& folder : stop_folders()) {
      const std::string file = folder + "/" + kStopFile;
      if (access(file.c_str(), F_OK) != 0) continue;
      safety_note(file.c_str(), "found; the session ends here. Resume it with --do_unfinished 1.");
      unlink(file.c_str());
      stopped_ = true;
    }
    return stopped_;
  }

  // One micrograph that the session has come to.
  void take(const std::string& name) {
    const Clock::time_point begin = Clock::now();
    std::unique_ptr<ImageFile> image;
    if (asked_.keep_going) {
      const bool whole = !is_finished_before(&asked_, name.c_str());  // else nothing will be read
      const ImageFacts facts = look_at_image(name.c_str(), image_options(&asked_), whole, &image);
      if (!facts.problem.empty()) return fail(name, facts.problem);
      if (asked_.extract_raw && whole && !facts.exact)
        return fail(name, "isn't as long as its header says, so that particles can't be cut out");
      if (prepared_ && !fits_run(run_, facts.head)) unprepare();
    }
    if (!prepared_) prepare_for(name);
    const PickState state = pick_micrograph(run_, name.c_str(), std::move(image));
    picked_ += state == kPicked;
    picks_ += run_->findings.listed;
    summary_.add({name, state == kPicked ? kRowPicked : kRowFinishedBefore, run_->findings,
                  state == kPicked ? seconds_since(begin) : 0});
    tell_progress(name);
  }

  void unprepare() {
    release_run(run_);
    prepared_ = false;
    time_push();
  }

  // Buffers for micrographs of this one's size.
  void prepare_for(const std::string& name) {
    run_->para = asked_;
    run_->para.files[0] = const_cast<char*>(name.c_str());
    run_->para.n_files = 1;
    prepare_run(run_);
    prepared_ = true;
    time_pop("PREPARATION");
  }

  void fail(const std::string& name, const std::string& problem) {
    safety_note(name.c_str(), "%s; passed over.", problem.c_str());
    failed_.push_back({name, problem});
    summary_.add({name, kRowFailed, {}, 0});
    tell_progress(name);
  }

  void tell_incomplete(const std::string& name) {
    const std::string problem = look_at_image(name.c_str(), image_options(&asked_), true).problem;
    const std::string text = problem.empty() ? "was still being written when the session ended" : problem;
    if (asked_.keep_going && !stopped_) {
      names_.push_back(name);
      fail(names_.back(), text);
    } else {
      safety_note(name.c_str(), "%s; not picked.", text.c_str());
    }
  }

  void tell_progress(const std::string& name) {
    done_++;
    progress_.tell(done_, std::max(listed_, done_), picked_, picks_, name);
  }

  std::string failures_file() const {
    namespace fs = std::filesystem;
    const fs::path folder = is_str_null(asked_.summary) ? fs::path(is_str_null(asked_.odir) ? "." : asked_.odir)
                                                        : fs::path(asked_.summary).parent_path();
    return (folder / "kestrix_failed.txt").lexically_normal().string();
  }

  // A line for each: its path, a tab, and why.
  void write_failures() const {
    const std::string name = failures_file();
    if (failed_.empty()) {
      unlink(name.c_str());  // of an earlier session
      return;
    }
    FILE* file = KESTRIX_OUTPUT_OPEN(name.c_str());
    for (const Failed& failed : failed_) fprintf(file, "%s\t%s\n", failed.name.c_str(), failed.problem.c_str());
    KESTRIX_OUTPUT_CLOSE(file);
    safety_note(nullptr, "%d micrographs finished, %zu could not be picked: %s says why.", finished(), failed_.size(),
                name.c_str());
  }

  int finished() const { return done_ - static_cast<int>(failed_.size()); }

  SessionEnd finish() {
    if (!prepared_) time_drop();
    put_tally(&run_->tally);
    if (asked_.keep_going) write_failures();
    summary_.finish({names_.begin(), names_.end()});
    return {finished(), failed_.empty() ? 0 : kSomeFailed};
  }

  struct Failed {
    std::string name, problem;
  };

  Run* run_;
  const Kestrix_Para asked_;  // the parameters before any preparation
  bool prepared_ = false;
  std::deque<std::string> names_;  // whose texts stay where they are
  int listed_ = 0, done_ = 0, picked_ = 0;
  long picks_ = 0;
  bool stopped_ = false;
  std::vector<Failed> failed_;
  Summary summary_;
  Progress progress_;
};

}  // namespace

SessionEnd pick_session(int argc, char** argv) {
  Run run{};
  read_run(argc, argv, &run);
  SessionEnd end{};
  if (run.para.check) {
    end = {-1, check_micrographs(&run.para) ? 0 : kSomeFailed};
  } else {
    Session session(&run);
    end = run.para.watch > 0 ? session.watch() : session.pick_list();
  }
  free_run(&run);
  return end;
}

#include "session/session.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/image_diagnosis.h"
#include "platform/failure.h"
#include "run/micrograph_image.h"
#include "run/stage_timer.h"
#include "session/begin_run.h"
#include "session/check.h"
#include "session/learning.h"
#include "session/watch.h"
#include "str_utils.h"

namespace {

constexpr char kStopFile[] = "kestrix.stop";
constexpr double kLongestWait = 0.5;  // seconds, so that a folder without events is looked at all the same

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

class Session {
 public:
  // run: read, and not prepared.
  Session(Run* run, const Shard& shard) : run_(run), asked_(run->para), picker_(run), book_(asked_, shard) {
    for (int i = 0; i < asked_.n_files; i++) names_.emplace_back(asked_.files[i]);
    stop_folders_ = stop_folders();
  }

  SessionEnd pick_list() {
    if (!asked_.keep_going && !names_.empty()) {
      picker_.prepare_for_list();
      names_.front() = run_->para.files[0];  // where the first wasn't readable, one that is
    }
    book_.expect(static_cast<int>(names_.size()));
    for (size_t i = 0; i < names_.size(); i++)
      book_.enter(picker_.take(names_[i], i + 1 < names_.size() ? names_[i + 1] : ""));
    return finish();
  }

  SessionEnd watch() {
    Watch watch(watched_folders(), is_str_null(asked_.micrographs) ? "" : asked_.micrographs, image_options(&asked_));
    for (const std::string& name : names_)
      if (!std::filesystem::is_directory(name)) watch.look_at(name);
    for (const std::string& folder : stop_folders_) unlink((folder + "/" + kStopFile).c_str());
    names_.clear();
    Clock::time_point last = Clock::now();
    while (!is_stopped() && seconds_since(last) < static_cast<double>(asked_.watch)) {
      const std::vector<std::string> found = watch.take_new();
      if (found.empty()) watch.wait(kLongestWait);
      book_.expect(static_cast<int>(names_.size() + found.size()));
      for (size_t i = 0; i < found.size() && !is_stopped(); i++) {
        names_.push_back(found[i]);
        book_.enter(picker_.take(names_.back(), i + 1 < found.size() ? found[i + 1] : ""));
        last = Clock::now();
      }
    }
    for (const std::string& name : watch.incomplete()) tell_incomplete(name);
    return finish();
  }

 private:
  std::vector<std::string> watched_folders() const {
    std::vector<std::string> folders;
    for (const std::string& name : names_)
      if (std::filesystem::is_directory(name)) folders.push_back(name);
    return folders;
  }

  // Before the first preparation, which puts a micrograph in the place of the first name.
  std::vector<std::string> stop_folders() const {
    if (!is_str_null(asked_.odir)) return {asked_.odir};
    std::vector<std::string> folders = watched_folders();
    if (folders.empty()) folders.emplace_back(".");
    return folders;
  }

  bool is_stopped() {
    for (const std::string& folder : stop_folders_) {
      const std::string file = folder + "/" + kStopFile;
      if (access(file.c_str(), F_OK) != 0) continue;
      safety_note(file.c_str(), "found; the session ends here. Resume it with --do_unfinished 1.");
      unlink(file.c_str());
      stopped_ = true;
    }
    return stopped_;
  }

  void tell_incomplete(const std::string& name) {
    const std::string problem = look_at_image(name.c_str(), image_options(&asked_), true).problem;
    const std::string text = problem.empty() ? "was still being written when the session ended" : problem;
    if (asked_.keep_going && !stopped_) {
      names_.push_back(name);
      book_.enter(failed_micrograph(name, text));
    } else {
      safety_note(name.c_str(), "%s; not picked.", text.c_str());
    }
  }

  SessionEnd finish() {
    if (!picker_.is_prepared()) time_drop();
    return book_.finish({names_.begin(), names_.end()});
  }

  Run* run_;
  const Kestrix_Para asked_;       // the parameters before any preparation
  std::deque<std::string> names_;  // whose texts stay where they are
  std::vector<std::string> stop_folders_;
  bool stopped_ = false;
  Picker picker_;
  Book book_;
};

}  // namespace

SessionEnd pick_session(int argc, char** argv) {
  Run run{};
  const Shard shard = read_run(argc, argv, &run);
  SessionEnd end{};
  if (run.para.check) {
    end = {-1, check_micrographs(&run.para) ? 0 : kSomeFailed};
  } else {
    learn_for_session(&run);
    Session session(&run, shard);
    end = run.para.watch > 0 ? session.watch() : session.pick_list();
  }
  free_run(&run);
  return end;
}
